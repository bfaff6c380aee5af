// String-keyed shared hash map: operations, key ownership, and lookups concurrent with writes.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "foundation/qvlb_hashmap.h"

namespace {

constexpr int kKeys = 256;

void* val(intptr_t v) {
    return reinterpret_cast<void*>(v);
}

TEST(Hashmap, OperationsNullArgumentsAndKeyCopy) {
    EXPECT_EQ(search_hashmap(nullptr, "a"), nullptr);
    EXPECT_EQ(modify_hashmap(nullptr, "a", val(1)), -1);
    EXPECT_EQ(count_hashmap(nullptr), 0u);
    destroy_hashmap(nullptr);

    qvlb_hashmap_t* m = create_hashmap(nullptr);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(modify_hashmap(m, nullptr, val(1)), -1);
    EXPECT_EQ(search_hashmap(m, nullptr), nullptr);
    // The map keeps its own key copy: the caller's buffer may change right after.
    char key[8] = "a";
    ASSERT_EQ(modify_hashmap(m, key, val(1)), 0);
    key[0] = 'b';
    EXPECT_EQ(search_hashmap(m, "b"), nullptr);
    EXPECT_EQ(modify_hashmap(m, key, val(2)), 0);
    EXPECT_EQ(modify_hashmap(m, "", val(3)), 0);
    EXPECT_EQ(modify_hashmap(m, "a", val(4)), 0);  // replaces
    EXPECT_EQ(count_hashmap(m), 3u);
    EXPECT_EQ(search_hashmap(m, "a"), val(4));

    std::map<std::string, intptr_t> seen;
    foreach_hashmap(
        m,
        [](const char* k, void* v, void* ctx) {
            (*static_cast<std::map<std::string, intptr_t>*>(ctx))[k] = reinterpret_cast<intptr_t>(v);
        },
        &seen);
    EXPECT_EQ(seen, (std::map<std::string, intptr_t>{{"", 3}, {"a", 4}, {"b", 2}}));

    // A null value removes (and frees the key copy: ASan would see a leak); a missing key is fine.
    EXPECT_EQ(modify_hashmap(m, "b", nullptr), 0);
    EXPECT_EQ(modify_hashmap(m, "b", nullptr), 0);
    EXPECT_EQ(search_hashmap(m, "b"), nullptr);
    EXPECT_EQ(count_hashmap(m), 2u);
    clear_hashmap(m);
    EXPECT_EQ(count_hashmap(m), 0u);
    EXPECT_EQ(modify_hashmap(m, "c", val(5)), 0);
    destroy_hashmap(m);
}

TEST(HashmapConcurrency, ReadersRunWhileOneWriterInsertsAndRemoves) {
    qvlb_hashmap_t* m = create_hashmap(nullptr);
    ASSERT_NE(m, nullptr);
    std::atomic<bool> stop{false};
    std::atomic<long> bad{0};
    std::atomic<int> started{0};
    // Every value stored under "key-N" is N + 1 or N + 1 + kKeys.
    auto check = [](const char* k, void* v, void* ctx) {
        int n = -1;
        if (sscanf(k, "key-%d", &n) != 1 || (reinterpret_cast<intptr_t>(v) - 1) % kKeys != n)
            static_cast<std::atomic<long>*>(ctx)->fetch_add(1);
    };
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r)
        readers.emplace_back([&, r] {
            char key[32];
            started.fetch_add(1);
            for (int i = 0; !stop.load(std::memory_order_relaxed); ++i) {
                snprintf(key, sizeof(key), "key-%d", (i * 7 + r) % kKeys);
                if (void* v = search_hashmap(m, key)) check(key, v, &bad);
                if (r == 0 && i % 64 == 0) foreach_hashmap(m, check, &bad);
                if (r == 1 && count_hashmap(m) > kKeys) bad.fetch_add(1);
            }
        });
    while (started.load() < 4) std::this_thread::yield();
    char key[32];
    for (int round = 0; round < 200; ++round) {
        for (int k = 0; k < kKeys; ++k) {
            snprintf(key, sizeof(key), "key-%d", k);
            modify_hashmap(m, key, val(k + 1 + (round % 2) * kKeys));
        }
        for (int k = round % 2; k < kKeys; k += 2) {
            snprintf(key, sizeof(key), "key-%d", k);
            modify_hashmap(m, key, nullptr);
        }
        if (round % 10 == 9) clear_hashmap(m);
    }
    stop.store(true);
    for (auto& t : readers) t.join();
    EXPECT_EQ(bad.load(), 0);
    destroy_hashmap(m);
}

}  // namespace
