// Tests of the SQL processor: default and query meta records read back from the dispatcher's
// buffers, ids, the meta record cut, escaping, database call depth and concurrent discovery.
#include "flowpath/QVSQLProcessor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <latch>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/QVSettingRecords.h"
#include "flowpath/flowpath_fixture.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_mt_log.h"

namespace {

const std::string kDefaults =
    "22,0,1,Unknown\n22,0,2,XA TRANSACTION START\n22,0,3,XA TRANSACTION COMMIT\n"
    "22,0,4,XA TRANSACTION END\n22,0,5,XA TRANSACTION ROLLBACK\n";

class SqlFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&app_, 0, sizeof(app_));
        app_.QVSys.fpTraceLevel = 1;
        app_.QVSys.dataBuffMaxCount = 4;
        app_.QVSys.bciDataBufferMaxSize = 65536;
        app_.Server.TestRunIDValue = 77;
        qvApplication = &app_;
        trace_log_key = qvlb_init_mt_trace_log_ex(home_.path().c_str(), "sql", 1, 10);
        ASSERT_EQ(buff_list_init(), 0);
        QVSQLProcessorInit();
    }
    void TearDown() override {
        qvSQLProcessorResetForTest();
        qv_data_dispatcher_reset_for_test();
        qvFreeRetiredStrs();
        qvlb_trace_log_reset_for_test();
        qvApplication = nullptr;
    }
    static std::unique_ptr<QVPerThreadData_t> transaction(long long fpi) {
        auto td = std::make_unique<QVPerThreadData_t>();
        td->flowpathInstance = fpi;
        td->tlTestRunNumber = 3;
        return td;
    }
    static std::vector<long long> sqlObj(const QVPerThreadData_t& td) {
        return ints(td.tlSQLObj.DBCallDepth, td.tlSQLObj.sqlId, td.tlSQLObj.startTime);
    }
    TempAgentHome home_;
    QVProxyInstance_t app_;
};

TEST_F(SqlFixture, FirstCallSendsDefaultsAndIdsAreStablePerText) {
    // A null query is not recorded, yet the defaults go out on the first call.
    auto a = transaction(41);
    dbMethodEntry(a.get(), 1000, nullptr, "db");
    EXPECT_EQ(queuedRecords(), kDefaults);
    EXPECT_EQ(ints(a->tlSQLObj.DBCallDepth, QVSQLProcessor.sqlQueryID), ints(0, 5));
    dbMethodEntry(a.get(), 1000, "select 1", "db");
    EXPECT_EQ(queuedRecords(), kDefaults + "22,41,6,select 1\n");
    EXPECT_EQ(sqlObj(*a), ints(1, 6, 1000));
    // A nested call keeps the outer values.
    dbMethodEntry(a.get(), 1500, "inner", "db");
    EXPECT_EQ(sqlObj(*a), ints(2, 6, 1000));

    // Same text in another transaction: same id, nothing sent. A comma is stored and sent escaped.
    auto b = transaction(42);
    dbMethodEntry(b.get(), 2000, "select 1", "db");
    EXPECT_EQ(b->tlSQLObj.sqlId, 6);
    b->tlSQLObj.DBCallDepth = 0;
    dbMethodEntry(b.get(), 3000, "select a,b from t", "db");
    EXPECT_EQ(b->tlSQLObj.sqlId, 8);
    EXPECT_EQ(queuedRecords(),
              kDefaults + "22,41,6,select 1\n22,41,7,inner\n22,42,8,select a&#010;b from t\n");
    ASSERT_NE(search_hashmap(QVSQLProcessor.preparedQueryIDLookup, "select a&#010;b from t"), nullptr);
    // Identity is the exact text: case matters.
    EXPECT_EQ(checkAndProcessQuery("SELECT 1", 0), 9);
}

TEST_F(SqlFixture, MetaRecordIsCutAfterTheAreaWithItsZeroByte) {
    // "22,5,9," is 7 characters; the line feed makes 8 more than the text.
    std::string fits(3059, 'q');  // 3067 characters: sent whole
    ASSERT_EQ(dumpDBMetaRecord(5, 9, fits.c_str(), 22), 0);
    EXPECT_EQ(queuedRecords(), "22,5,9," + fits + "\n");

    qv_data_dispatcher_reset_for_test();
    ASSERT_EQ(buff_list_init(), 0);
    std::string exact(3060, 'q');  // 3068 characters: the zero byte replaces the line feed
    dumpDBMetaRecord(5, 9, exact.c_str(), 22);
    EXPECT_EQ(queuedRecords(), "22,5,9," + exact + std::string(1, '\0'));
    dumpDBMetaRecord(5, 9, std::string(5000, 'q').c_str(), 22);
    EXPECT_EQ(queuedRecords().substr(3068), "22,5,9," + exact + std::string(1, '\0') + "...\n");
}

TEST(SqlEscape, TableAndBound) {
    char out[128];
    const char* want = "a&#010;b&#010;c&#011;d&#034;e&amp;f&#039;g&#58;h&#092;i&#094;j&#124;k";
    EXPECT_EQ(escapeHTML(out, sizeof(out), "a\nb,c\rd\"e&f'g:h\\i^j|k"), static_cast<int>(strlen(want)));
    EXPECT_STREQ(out, want);

    // A piece that does not fit is cut to the room left, terminator included; the count still
    // grows by its full length and ends the escaping. Nothing is written past len.
    char small[16];
    memset(small, '#', sizeof(small));
    EXPECT_EQ(escapeHTML(small, 8, "ab,cd"), 8);
    EXPECT_STREQ(small, "ab&#010");
    EXPECT_EQ(small[8], '#');
    memset(small, '#', sizeof(small));
    EXPECT_EQ(escapeHTML(small, 9, "ab,cd"), 9);  // the comma fits, "c" has room for no byte
    EXPECT_STREQ(small, "ab&#010;");
    EXPECT_EQ(small[9], '#');
    EXPECT_EQ(escapeHTML(small, 9, "ab,"), 8);  // whole text, one byte to spare: not cut

    EXPECT_EQ(escapeHTML(small, 1, "abc"), 1);
    EXPECT_STREQ(small, "");
    EXPECT_EQ(escapeHTML(small, 0, "abc") + escapeHTML(nullptr, 8, "abc") + escapeHTML(small, 8, nullptr), 0);
}

class SqlConcurrency : public SqlFixture {};

TEST_F(SqlConcurrency, ManyThreadsMeetingNewQueriesAgreeOnOneIdEach) {
    constexpr int kThreads = 8;
    constexpr int kQueries = 400;
    std::vector<std::vector<long long>> ids(kThreads, std::vector<long long>(kQueries));
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            auto td = transaction(100 + t);
            start.arrive_and_wait();              // first database calls of the process, together
            for (int q = 0; q < kQueries; q++) {  // same order: threads meet each new text together
                std::string text = "select * from t where id = " + std::to_string(q);
                td->tlSQLObj.DBCallDepth = 0;
                dbMethodEntry(td.get(), q, text.c_str(), "db");
                ids[t][q] = td->tlSQLObj.sqlId;
            }
        });
    }
    for (auto& th : threads) th.join();

    std::set<long long> distinct;
    for (int q = 0; q < kQueries; q++) {
        for (int t = 1; t < kThreads; t++) EXPECT_EQ(ids[t][q], ids[0][q]) << q;
        distinct.insert(ids[0][q]);
    }
    ASSERT_EQ(distinct.size(), static_cast<size_t>(kQueries));
    EXPECT_EQ(*distinct.begin(), 6);
    EXPECT_EQ(*distinct.rbegin(), 5 + kQueries);

    // Defaults first and once, then one meta record per id whose text is the query's.
    std::string all = queuedRecords();
    ASSERT_EQ(all.substr(0, kDefaults.size()), kDefaults);
    std::istringstream lines(all.substr(kDefaults.size()));
    std::map<long long, std::string> meta;
    for (std::string line; std::getline(lines, line);) {
        long long fpi = 0, id = 0;
        int textAt = 0;
        ASSERT_EQ(sscanf(line.c_str(), "22,%lld,%lld,%n", &fpi, &id, &textAt), 2) << line;
        EXPECT_TRUE(meta.emplace(id, line.substr(textAt)).second) << "sent twice: " << line;
    }
    ASSERT_EQ(meta.size(), static_cast<size_t>(kQueries));
    for (int q = 0; q < kQueries; q++)
        EXPECT_EQ(meta[ids[0][q]], "select * from t where id = " + std::to_string(q));
}

}  // namespace
