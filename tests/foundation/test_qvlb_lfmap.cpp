// Lock-free-lookup string map: operations, growth, key ownership, and lookups that run while
// other threads insert and grow the table.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "foundation/qvlb_lfmap.h"

namespace {

void* val(intptr_t v) {
    return reinterpret_cast<void*>(v);
}

std::string key(int i) {
    return "/shop/item/" + std::to_string(i);
}

}  // namespace

// Growth is exercised by the concurrency test below.
TEST(Lfmap, OperationsAndKeyCopy) {
    EXPECT_EQ(qvlb_lfmap_get(nullptr, "a"), nullptr);
    EXPECT_EQ(qvlb_lfmap_put(nullptr, "a", val(1), nullptr), -1);
    EXPECT_EQ(qvlb_lfmap_put_if_absent(nullptr, "a", val(1), nullptr), nullptr);
    EXPECT_EQ(qvlb_lfmap_count(nullptr), 0u);
    qvlb_lfmap_destroy(nullptr);

    qvlb_lfmap_t* m = qvlb_lfmap_create(0);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(qvlb_lfmap_put(m, nullptr, val(1), nullptr), -1);
    EXPECT_EQ(qvlb_lfmap_put(m, "a", nullptr, nullptr), -1);
    EXPECT_EQ(qvlb_lfmap_get(m, nullptr), nullptr);

    char k[8] = "a";
    ASSERT_EQ(qvlb_lfmap_put(m, k, val(1), "test key"), 0);
    k[0] = 'b';  // the map owns its copy
    EXPECT_EQ(qvlb_lfmap_get(m, "b"), nullptr);
    EXPECT_EQ(qvlb_lfmap_get(m, "a"), val(1));
    EXPECT_EQ(qvlb_lfmap_put(m, "a", val(2), nullptr), 0);  // replaces
    EXPECT_EQ(qvlb_lfmap_put_if_absent(m, "a", val(3), nullptr), val(2));
    EXPECT_EQ(qvlb_lfmap_put_if_absent(m, "", val(4), nullptr), val(4));
    EXPECT_EQ(qvlb_lfmap_get(m, ""), val(4));
    EXPECT_EQ(qvlb_lfmap_count(m), 2u);

    std::map<std::string, intptr_t> seen;
    qvlb_lfmap_foreach(
        m,
        [](const char* kk, void* v, void* ctx) {
            (*static_cast<std::map<std::string, intptr_t>*>(ctx))[kk] = reinterpret_cast<intptr_t>(v);
        },
        &seen);
    EXPECT_EQ(seen, (std::map<std::string, intptr_t>{{"", 4}, {"a", 2}}));
    qvlb_lfmap_destroy(m);
}

// Readers look up keys that are known to be present while writers insert new ones (forcing
// several growths) and race on the same new keys with put_if_absent: a present key is never
// missed and every racer gets the one winning value.
TEST(LfmapConcurrency, LookupsNeverMissWhileOthersInsertAndGrow) {
    qvlb_lfmap_t* m = qvlb_lfmap_create(0);
    ASSERT_NE(m, nullptr);
    constexpr int kPreloaded = 64;
    constexpr int kNew = 4000;
    for (int i = 0; i < kPreloaded; ++i) ASSERT_EQ(qvlb_lfmap_put(m, key(i).c_str(), val(i + 1), nullptr), 0);

    std::atomic<bool> stop{false};
    std::atomic<int> misses{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&, r] {
            int i = r;
            while (!stop.load(std::memory_order_relaxed)) {
                const int k = i++ % kPreloaded;
                if (qvlb_lfmap_get(m, key(k).c_str()) != val(k + 1)) misses.fetch_add(1);
                // Keys being inserted right now: either absent or complete.
                void* v = qvlb_lfmap_get(m, key(kPreloaded + (i % kNew)).c_str());
                if (v != nullptr && reinterpret_cast<intptr_t>(v) < 1000000) misses.fetch_add(1);
            }
        });
    }
    constexpr int kWriters = 4;
    std::vector<std::vector<void*>> got(kWriters, std::vector<void*>(kNew));
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kNew; ++i)
                got[w][i] = qvlb_lfmap_put_if_absent(m, key(kPreloaded + i).c_str(),
                                                     val(1000000 + w * kNew + i), nullptr);
        });
    }
    for (auto& t : writers) t.join();
    stop = true;
    for (auto& t : readers) t.join();

    EXPECT_EQ(misses.load(), 0);
    EXPECT_EQ(qvlb_lfmap_count(m), static_cast<unsigned int>(kPreloaded + kNew));
    for (int i = 0; i < kNew; ++i) {
        void* stored = qvlb_lfmap_get(m, key(kPreloaded + i).c_str());
        for (int w = 0; w < kWriters; ++w) ASSERT_EQ(got[w][i], stored) << i;
    }
    qvlb_lfmap_destroy(m);
}
