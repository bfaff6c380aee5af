// Tests of the BT monitor: the 74 record format, report generation with "AllTransactions", the
// bounded buffer, growth of the merged array, the keyword handlers, and counting while reports run.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bt/QVBTMonitor.h"
#include "bt/QVBTMonitorDataCounters.h"
#include "bt/bt_fixture.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_atomic.h"
#include "qvbt/qvbt_bt_object.h"

namespace {

class BTMonitorTest : public BTAgentTest {
  protected:
    void SetUp() override {
        BTAgentTest::SetUp();
        ASSERT_TRUE(config.bt_obj_map.hash != nullptr || qvbt_bt_maps_init() == 0);
        setTierName(const_cast<char*>("T1"));
        setAppServerName(const_cast<char*>("S1"));
        setAppName(const_cast<char*>("A1"));
        setTierID(3);
        setAppID(7);
        QVBTMonitorInit();
        buf_.assign(QV_MONITOR_BUFFER_SIZE, 'x');
    }
    // A live BT with the given identifier, entered into the merged array as the manager does.
    BTObject* bt(const char* name, int id) {
        BTObject* o = find_bt_obj_in_config_map(name, id, 3000, 5000);
        EXPECT_NE(o, nullptr);
        EXPECT_EQ(checkAndIncrementAggrBTDataArray(o), 0);
        if (qv_load(config.total_bt_count) < id) qv_store(config.total_bt_count, id);
        return o;
    }
    static void request(QVPerThreadData_t* r, BTObject* o, char category, long long duration) {
        r->tlBTObj = o;
        r->tlCategory = category;
        r->tlDuration = duration;
        ASSERT_TRUE(updateCounterAndDurationForBT(r));
    }
    std::vector<std::string> generate() {
        used_ = 0;
        EXPECT_TRUE(generateAndDumpBTMonitoringRecord(buf_.data(), &used_));
        std::vector<std::string> lines;
        std::istringstream in(std::string(buf_.data(), static_cast<size_t>(used_)));
        for (std::string l; std::getline(in, l);) lines.push_back(l);
        return lines;
    }
    std::vector<char> buf_;
    int used_ = 0;
};

std::string afterBar(const std::string& line) {
    return line.substr(line.find('|', line.find(':')) + 1);
}

// Fifth value (the request count) of a 74 record.
int requestsOf(const std::string& line) {
    std::istringstream in(afterBar(line));
    std::string v;
    for (int i = 0; i < 5; i++) in >> v;
    return std::stoi(v);
}

TEST_F(BTMonitorTest, RecordIsByteExactForKnownCounters) {
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 100, 2000000, 4, 10, 0);
    updateBTDataCounters(&c, QV_BT_CATEGORY_SLOW, 300, 4000000, 6, 20, 8);
    updateBTDataCounters(&c, QV_BT_CATEGORY_ERROR, 500, 3000000, 0, 0, -1);
    char out[1024];
    int used = 0;
    dump74RecordForEveryBT(out, &used, sizeof(out), &c, 2, "/shop/cart");
    const std::string expected =
        "74,3|7|2:T1>S1>A1>/shop/cart|0.050000 300.000000 100.000000 500 3 0.0 0.016667 "
        "100.000000 100.000000 100 1 300.000000 300.000000 300 1 0.000000 500000.000000 0 0 "
        "500.000000 500.000000 500 1 33.333333 3.000000 2.000000 4.000000 3 "
        "3.333333 0 6 3 10.000000 0 20 3 2.666667 0 8 3\n";
    EXPECT_EQ(std::string(out, static_cast<size_t>(used)), expected);

    // Nothing counted: every ratio is 0, unset minimums print 500000 (CPU: divided), raw ones as stored.
    QVBTMonitorDataCounters empty{};
    initQVBTMonitorDataCounters(&empty);
    used = 0;
    dump74RecordForEveryBT(out, &used, sizeof(out), &empty, 0, nullptr);
    EXPECT_EQ(
        std::string(out, static_cast<size_t>(used)),
        "74,3|7|0:T1>S1>A1>|0.000000 0.000000 500000.000000 0 0 0.0 0.000000 0.000000 500000.000000 0 0 "
        "0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
        "0.000000 0.500000 0.000000 0 0.000000 2147483647 0 0 0.000000 2147483647 0 0 0.000000 0 0 0\n");
}

TEST_F(BTMonitorTest, ThreeRequestsGiveTheBtAndAllTransactionsRecords) {
    BTObject* cart = bt("/shop/cart", 2);
    bt("/shop/idle", 3);
    QVPerThreadData_t* r = take();
    request(r, cart, QV_BT_CATEGORY_NORMAL, 100);
    request(r, cart, QV_BT_CATEGORY_NORMAL, 200);
    request(r, cart, QV_BT_CATEGORY_NORMAL, 300);
    std::vector<std::string> lines = generate();
    ASSERT_EQ(lines.size(), 2u);  // BT 3 had no request: no record
    EXPECT_EQ(lines[0].rfind("74,3|7|2:T1>S1>A1>/shop/cart|0.050000 200.000000 100.000000 300 3 0.0 ", 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[1].rfind("74,3|7|0:T1>S1>A1>AllTransactions|", 0), 0u) << lines[1];
    EXPECT_EQ(afterBar(lines[0]), afterBar(lines[1]));

    // The next interval starts from zero: only the overall record, with nothing counted.
    lines = generate();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(afterBar(lines[0]).rfind("0.000000 0.000000 500000.000000 0 0 0.0 ", 0), 0u);

    // Monitor off (numeric 0) or no BT: not counted.
    r->tlBTObj = nullptr;
    EXPECT_FALSE(updateCounterAndDurationForBT(r));
    qv_store(QVBTMonitor.isBTMonitorOn, 0);
    r->tlBTObj = cart;
    EXPECT_FALSE(updateCounterAndDurationForBT(r));

    qvMonitorDataModelResetForTest();  // no model registered: no report at all
    used_ = 0;
    EXPECT_FALSE(generateAndDumpBTMonitoringRecord(buf_.data(), &used_));
    EXPECT_EQ(used_, 0);
}

TEST_F(BTMonitorTest, RecordsThatDoNotFitAreDroppedWhole) {
    BTObject* cart = bt("/shop/cart", 2);
    request(take(), cart, QV_BT_CATEGORY_NORMAL, 100);
    used_ = QV_MONITOR_BUFFER_SIZE - 60;
    ASSERT_TRUE(generateAndDumpBTMonitoringRecord(buf_.data(), &used_));
    EXPECT_EQ(used_, QV_MONITOR_BUFFER_SIZE - 60);
    for (char ch : buf_) ASSERT_EQ(ch, 'x');
    EXPECT_EQ(qvMonitorRecordsDropped(), 2);

    // Room for exactly one record (plus its terminator): the first is kept, the second dropped.
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    const int len = static_cast<int>(generate().front().size()) + 1;  // the empty overall record
    std::vector<char> small(static_cast<size_t>(len) + 1, 'y');
    int used = 0;
    for (int i = 0; i < 2; i++)
        dump74RecordForEveryBT(small.data(), &used, len + 1, &c, 0, "AllTransactions");
    EXPECT_EQ(used, len);
    EXPECT_EQ(small[static_cast<size_t>(len)], '\0');
    EXPECT_EQ(qvMonitorRecordsDropped(), 3);
}

TEST_F(BTMonitorTest, MergedArrayGrowsKeepsEntriesAndRefusesOnFailure) {
    BTObject* two = bt("/two", 2);
    BTObject* big = bt("/big", 128);
    EXPECT_EQ(QVBTMonitor.aggDataArraySize, 257);
    EXPECT_TRUE(QVBTMonitor.aggBTDataArr[2].tlBTObj == two && QVBTMonitor.aggBTDataArr[128].tlBTObj == big);

    BTObject* huge = find_bt_obj_in_config_map("/huge", 5000, 3000, 5000);
    ASSERT_NE(huge, nullptr);
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, -1);
    EXPECT_EQ(checkAndIncrementAggrBTDataArray(huge), -1);
    qvlb_fault_reset();
    EXPECT_EQ(QVBTMonitor.aggDataArraySize, 257);
    EXPECT_EQ(QVBTMonitor.aggBTDataArr[128].tlBTObj, big);

    // A BT counted on a thread appears under its name after the growth.
    request(take(), big, QV_BT_CATEGORY_SLOW, 4000);
    std::vector<std::string> lines = generate();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("74,3|7|128:T1>S1>A1>/big|", 0), 0u) << lines[0];
}

TEST_F(BTMonitorTest, KeywordHandlers) {
    char one[] = "1", zero[] = "0", neg[] = "-3", v300[] = "300", v100[] = "100", v200[] = "200";
    // enableBTMonitor: needs a BT monitor trace level of at least 1; stores characters.
    qv_store(qvApplication->QVSys.btMonitorTraceLevel, 0);
    EXPECT_EQ(parseBTMonitorKeyword(one, nullptr, 0), 0);
    EXPECT_EQ(QVBTMonitor.isBTMonitorOn, '0');
    qv_store(qvApplication->QVSys.btMonitorTraceLevel, 1);
    char msg[] = "qv_control_req:action=modify;enableBTMonitor=1;";
    EXPECT_EQ(findStatusFromClientMsg(msg), 1);
    parseBTMonitorKeyword(zero, nullptr, 0);
    EXPECT_EQ(QVBTMonitor.isBTMonitorOn, '1');

    // maxBTCount: 0 refused; a valid value reaches the BT configuration too.
    EXPECT_EQ(parseMaxBTCount(zero, nullptr, 0), -1);
    EXPECT_EQ(parseMaxBTCount(v300, nullptr, 0), 0);
    EXPECT_EQ(ints(QVBTMonitor.maxBTCount, config.max_bt_count), ints(300, 300));

    // BTAggDataArraySize: only grows, with initialised blocks, keeping the entries.
    BTObject* two = bt("/two", 2);
    EXPECT_EQ(parseBTAggDataArraySize(v100, nullptr, 0), -1);
    EXPECT_EQ(parseBTAggDataArraySize(v200, nullptr, 0), 0);
    EXPECT_EQ(QVBTMonitor.aggDataArraySize, 200);
    EXPECT_EQ(QVBTMonitor.aggBTDataArr[2].tlBTObj, two);
    EXPECT_EQ(ints(QVBTMonitor.aggBTDataArr[199].minDuration, QVBTMonitor.aggBTDataArr[199].dataExist),
              ints(2147483647LL, 0));

    // enableBTMonitorError: negative refused. doNotDiscardFlowPaths: an enabling value stores '0'.
    EXPECT_EQ(parseBTMonitorErrorLevel(neg, nullptr, 0), -1);
    parseDoNotDiscardVal(zero, nullptr, 0);
    EXPECT_EQ(QVBTMonitor.doNotDisacrdAnyTransaction, 0);
    parseDoNotDiscardVal(one, nullptr, 0);
    EXPECT_EQ(QVBTMonitor.doNotDisacrdAnyTransaction, '0');
}

class BTMonitorConcurrency : public BTMonitorTest {};

// A request naming a new BT makes room for it while a report is stuck in its merge (here held on
// the second model's lock): growth must not wait for the merge. Before, this deadlocked.
TEST_F(BTMonitorConcurrency, NewBtDoesNotWaitForAMergeInProgress) {
    BTObject* cart = bt("/shop/cart", 2);
    QVPerThreadData_t* first = take();
    QVPerThreadData_t* second = take();
    request(first, cart, QV_BT_CATEGORY_NORMAL, 10);
    request(second, cart, QV_BT_CATEGORY_NORMAL, 20);
    QVMonitorDataModel* merged = first->tlMonitorDataModel;
    std::vector<std::string> lines;
    std::thread reporter;
    BTObject* fresh = find_bt_obj_in_config_map("/fresh", 300, 3000, 5000);
    {
        QVLockGuard hold(second->tlMonitorDataModel->lockForBT);
        reporter = std::thread([&] { lines = generate(); });
        // Once the first model is merged, the report waits for the second.
        for (bool done = false; !done; std::this_thread::yield()) {
            QVLockGuard guard(merged->lockForBT);
            done = merged->btmDataArray[2]->count == 0;
        }
        EXPECT_EQ(checkAndIncrementAggrBTDataArray(fresh), 0);
        request(first, fresh, QV_BT_CATEGORY_NORMAL, 5);
    }
    reporter.join();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(requestsOf(lines[0]), 2);
    lines = generate();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("74,3|7|300:T1>S1>A1>/fresh|", 0), 0u) << lines[0];
}

TEST_F(BTMonitorConcurrency, CountsAddUpWhileReportsRunAndTheArrayGrows) {
    constexpr int kThreads = 4;
    constexpr int kBts = 4;
    constexpr int kPerThread = 3000;
    BTObject* bts[kBts];
    for (int i = 0; i < kBts; i++) bts[i] = bt(("/bt" + std::to_string(i)).c_str(), i + 2);

    std::atomic<int> running{kThreads}, reports{0};
    std::atomic<bool> growerDone{false};
    // Counting and growth start after the first report and pause half-way for two more, so
    // reports certainly run while both go on.
    auto waitReports = [&](int n) {
        while (reports.load() < n) std::this_thread::yield();
    };
    long long reportedAll = 0, reportedPerBt = 0;
    std::vector<char> buf(QV_MONITOR_BUFFER_SIZE);
    auto report = [&] {
        int used = 0;
        generateAndDumpBTMonitoringRecord(buf.data(), &used);
        std::istringstream in(std::string(buf.data(), static_cast<size_t>(used)));
        for (std::string l; std::getline(in, l);)
            (l.find("AllTransactions|") != std::string::npos ? reportedAll : reportedPerBt) += requestsOf(l);
    };
    std::thread reporter([&] {
        while (running.load() > 0 || !growerDone.load()) {
            report();
            reports.fetch_add(1);
        }
    });
    std::thread grower([&] {
        waitReports(1);
        for (int id = 10; id < 700; id += 3) {
            if (id == 400) waitReports(3);
            checkAndIncrementAggrBTDataArray(
                find_bt_obj_in_config_map(("/grow" + std::to_string(id)).c_str(), id, 3000, 5000));
        }
        growerDone.store(true);
    });
    std::vector<std::thread> apps;
    for (int t = 0; t < kThreads; t++) {
        apps.emplace_back([&, t] {
            QVPerThreadData_t* r = get_free_tls_slot();
            resetAllThreadLocals(r, nullptr);
            waitReports(1);
            for (int i = 0; i < kPerThread; i++) {
                if (i == kPerThread / 2) waitReports(3);
                r->tlBTObj = bts[(t + i) % kBts];
                r->tlCategory = static_cast<char>(QV_BT_CATEGORY_NORMAL + i % 4);
                r->tlDuration = i % 50;
                updateCounterAndDurationForBT(r);
            }
            running.fetch_sub(1);
        });
    }
    for (auto& a : apps) a.join();
    grower.join();
    reporter.join();
    report();
    EXPECT_EQ(reportedAll, static_cast<long long>(kThreads) * kPerThread);
    EXPECT_EQ(reportedPerBt, static_cast<long long>(kThreads) * kPerThread);
    EXPECT_GE(QVBTMonitor.aggDataArraySize, 700);
}

}  // namespace
