// BT manager: identifiers and the Others overflow with its metadata, default naming, threshold-file
// BTs, pattern naming, the header rule fallback, and many threads naming overlapping URL sets.
#include "bt/QVBTManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bt/QVBTMonitor.h"
#include "bt/QVBTMonitorDataCounters.h"
#include "bt/QVBTRuleReader.h"
#include "bt/bt_fixture.h"
#include "foundation/qvlb_atomic.h"
#include "qvbt/qvbt_rule_execute.h"
#include "qvbt/qvbt_utils.h"

namespace {

class BTManager : public BTConfigTest {
  protected:
    BTObject* name(const char* url, const char* query = nullptr, const char* hdr = nullptr) {
        return get_obj_from_bt_name(url, query, hdr, nullptr);
    }
};

class BTConcurrency : public BTManager {};

}  // namespace

TEST_F(BTManager, IdentifiersAndOthersOverflowWithOneMetadataRecord) {
    QVBTConfigModelInit();
    for (int i = 0; i < 255; ++i) {
        char buf[129];
        snprintf(buf, sizeof(buf), "/u%d", i);
        BTObject* o = updateBTObject(buf);
        ASSERT_NE(o, nullptr);
        EXPECT_EQ(ints(o->bt_id, o->is_meta_data_dumped), ints(i + 2, 1));
    }
    char next[129] = "/u255";
    BTObject* others = updateBTObject(next);
    EXPECT_STREQ(next, "Others");  // the caller's buffer is overwritten
    EXPECT_EQ(others->bt_id, 1);
    char known[129] = "/u7";
    EXPECT_EQ(updateBTObject(known)->bt_id, 9);
    EXPECT_EQ(updateBTObject(nullptr), nullptr);

    const std::string recs = queuedRecords();
    EXPECT_EQ(countOf(recs, "7,1,Others\n"), 1);
    EXPECT_EQ(countOf(recs, "\n7,"), 255);  // one record per BT, Others included
    EXPECT_EQ(countOf(recs, "7,256,/u254\n"), 1);
    EXPECT_EQ(QVBTMonitor.aggBTDataArr[256].tlBTObj, find_bt_obj_in_manager_map("/u254"));
}

TEST_F(BTManager, DefaultRuleNamesByTwoSegmentsStampsDiagnosticsAndHeaderRuleFallsBack) {
    QVBTConfigModelInit();
    BTObject* ab = name("/a/b/c", "x=1");
    ASSERT_NE(ab, nullptr);
    EXPECT_STREQ(ab->bt_name, "/a/b");
    EXPECT_EQ(thresholds(ab), ints(3000, 5000));
    EXPECT_STREQ(name("/a")->bt_name, "/a");
    EXPECT_EQ(name("/a/b/d"), ab);

    qv_store(QVDynamicSettings.enableDDAI, 1);
    qv_store(QVDynamicSettings.ddAIInterval, 30);
    EXPECT_EQ(name("/a/b/x"), ab);
    EXPECT_EQ(ints(ab->AIFlag, ab->bt_endTime - ab->bt_startTime, ab->dd_IntervalTime), ints(1, 30, 30));

    // A header rule without a header value leaves the naming to the global rule.
    char line[] = "10|X-BT-Name";
    ASSERT_EQ(parse_header_rule(line), 0);
    EXPECT_STREQ(name("/h/i/j", nullptr, "hv")->bt_name, "/h/i");  // no headerValue: inactive
    snprintf(header_rule->headerValue, sizeof(header_rule->headerValue), "on");
    EXPECT_STREQ(name("/h/i/j", nullptr, "hv")->bt_name, "hv");
    EXPECT_STREQ(name("/k/l/m", nullptr, nullptr)->bt_name, "/k/l");
}

TEST_F(BTManager, StartUpReadsTheHomeFilesAsFilesAndThresholdBTsKeepTheirThresholds) {
    // fileBasedKeywordMode stays 0: start-up still reads the two files of the agent home.
    home_.write("BTThresholdFile.txt", "# thresholds\nALL|100|200\n/shop|11|22\n");
    home_.write("BTRuleFile.txt", "1|2|Shop|d|FromFirst|1|-|-|-\n");
    QVBTConfigModelInit();
    EXPECT_EQ(bt_rule, 1);
    BTObject* shop = name("/shop/cart/add");
    ASSERT_STREQ(shop->bt_name, "/shop");
    EXPECT_EQ(ints(shop->bt_id, shop->bt_threshold.slow, shop->bt_threshold.very_slow), ints(2, 11, 22));
    EXPECT_EQ(thresholds(name("/o/p")), ints(100, 200));

    // A source delivered later in this mode is rule text, not a path.
    char text[] = "1|2|Two|d|FromFirst|2|-|-|-\n";
    qvbt_read_rule_file(text);
    EXPECT_STREQ(name("/x/y/z")->bt_name, "/x/y");

    // The next start takes the object of a known name back with a fresh state.
    home_.write("BTThresholdFile.txt", "");
    QVBTConfigModelInit();
    EXPECT_EQ(name("/shop/b"), shop);
    EXPECT_EQ(ints(shop->bt_id, shop->bt_threshold.slow), ints(2, 100));  // the file no longer names it
    EXPECT_EQ(countOf(queuedRecords(), "7,2,/shop\n"), 2);                // metadata again for the new run
}

TEST_F(BTManager, PatternNamingExclusionAndIdsPastTheMonitorArray) {
    fileMode();
    home_.write("BTRuleFile.txt",
                "7|Cart|5|0|/cart|0\n7|Static|6|1|/static|1\n7|Api|7|1|/api/*/v|0\n7|Big|500|1|/big|0\n"
                "7|CartAgain|8|0|/cart|0\n");
    QVBTConfigModelInit();
    ASSERT_EQ(bt_rule, 7);
    BTObject* cart = name("/cart", "a=b");
    ASSERT_STREQ(cart->bt_name, "Cart");
    EXPECT_EQ(cart->bt_id, 5);
    EXPECT_EQ(QVBTMonitor.aggBTDataArr[5].tlBTObj, cart);
    EXPECT_EQ(name("/cart", ""), cart);         // first rule for a pattern wins
    EXPECT_EQ(name("/static/x.css"), nullptr);  // excluded
    EXPECT_STREQ(name("/api/x/v")->bt_name, "Api");
    EXPECT_EQ(name("/big/x"), nullptr);  // id 500 is past the array (128): no object
    BTObject* others = name("/nothing");
    EXPECT_EQ(std::string(others->bt_name) + std::to_string(others->bt_id), "Others1");
    EXPECT_EQ(name("/cart\x01"), others);  // non-printable: Others
    // Pattern BTs get no metadata record here.
    EXPECT_EQ(countOf(queuedRecords(), "7,5,"), 0);
}

// Many threads name overlapping URL sets (more names than identifiers): every name maps to one
// object with one identifier, identifiers are unique and in 2..max, one metadata record each.
TEST_F(BTConcurrency, OverlappingNamesGetOneObjectAndOneId) {
    QVBTConfigModelInit();
    constexpr int kThreads = 8;
    constexpr int kUrls = 300;
    std::vector<std::map<std::string, BTObject*>> seen(kThreads);
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([&, t] {
            for (int k = 0; k < 3 * kUrls; ++k) {
                const std::string url =
                    "/c" + std::to_string((k * 7 + t * 37 + k / kUrls * 11) % kUrls) + "/p/q";
                BTObject* o = get_obj_from_bt_name(url.c_str(), "q=1", nullptr, nullptr);
                ASSERT_NE(o, nullptr);
                ASSERT_EQ(seen[t].emplace(url, o).first->second, o);  // the same object each time
            }
        });
    for (auto& th : ts) th.join();

    std::map<int, std::string> byId;
    int othersUrls = 0;
    for (const auto& [url, o] : seen[0]) {
        for (int t = 1; t < kThreads; ++t) ASSERT_EQ(seen[t].at(url), o) << url;
        if (o->bt_id == 1) {
            ++othersUrls;
            continue;
        }
        EXPECT_TRUE(o->bt_id >= 2 && o->bt_id <= 256) << o->bt_id;
        EXPECT_EQ(url.substr(0, url.size() - 2), o->bt_name);
        EXPECT_TRUE(byId.emplace(o->bt_id, o->bt_name).second) << "id " << o->bt_id << " given twice";
        EXPECT_EQ(find_bt_obj_in_manager_map(o->bt_name), o);
    }
    EXPECT_EQ(byId.size(), 255u);
    EXPECT_EQ(othersUrls, kUrls - 255);
    const std::string recs = queuedRecords();
    EXPECT_EQ(countOf(recs, "7,1,Others\n"), 1);
    for (const auto& [id, n] : byId)
        EXPECT_EQ(countOf(recs, "7," + std::to_string(id) + "," + n + "\n"), 1) << n;
}

// Requests name while starts replace every rule structure and map: nothing they read is freed
// under them (ASan), and the exchange is free of races (TSan).
TEST_F(BTConcurrency, NamingWhileStartsReplaceTheRules) {
    fileMode();
    home_.write("BTRuleFile.txt", "7|Shop|5|0|/shop*|0\n7|Skip|6|1|/static|1\n");
    QVBTConfigModelInit();
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < 3; ++t)
        ts.emplace_back([&] {
            while (!stop.load())
                for (const char* url : {"/shop/a", "/static/x", "/a/b/c"}) {
                    BTObject* o = get_obj_from_bt_name(url, "q=1", nullptr, nullptr);
                    ASSERT_TRUE(o == nullptr || o->bt_name[0] != '\0');
                }
        });
    for (int i = 0; i < 60; ++i) {
        home_.write("BTRuleFile.txt", i % 3 == 0   ? "7|Shop|5|0|/shop*|0\n"
                                      : i % 3 == 1 ? "2|2|r|Custom|d|1|0|[input1=contains&&input2=a]|-\n"
                                                   : "1|2|n|d|FromLast|1|-|-|-\n");
        QVBTConfigModelInit();
    }
    stop = true;
    for (auto& th : ts) th.join();
    EXPECT_STREQ(name("/a/b/c")->bt_name, "/c");
}
