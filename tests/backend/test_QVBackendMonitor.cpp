// Tests of the backend monitor: the 75 record, the inverted result, 32-bit durations, database
// naming through DBIPName, the backend limit, keywords, the bounded append, and method and
// backend counting on many threads while reports run.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "backend/QVBackendManager.h"
#include "backend/QVBackendMonitor.h"
#include "backend/backend_module.h"
#include "bt/QVBTManager.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "bt/bt_module.h"
#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "flowpath/flowpath_module.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "mm/QVMethodMonitor.h"
#include "mm/mm_module.h"
#include "support/temp_home.h"

namespace {

class MonitorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = std::make_unique<TempAgentHome>();
        qv_flowpath_register_hooks();
        qv_bt_register_hooks();
        qv_mm_register_hooks();
        qv_backend_register_hooks();
        agent_init("iptest", 1, "iptest", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        setTierName(const_cast<char*>("T1"));
        setAppServerName(const_cast<char*>("S1"));
        setAppName(const_cast<char*>("A1"));
        setTierID(3);
        setAppID(7);
        qv_store(QVSettings.qvMonitorIntervalInSecs, 60);
        QVMethodMonitorInit();
        QVBackendMonitorInit();
        buf_.assign(QV_MONITOR_BUFFER_SIZE, 'x');
    }
    void TearDown() override {
        qvlb_fault_reset();
        qvMethodMonitorResetForTest();
        qvBackendMonitorResetForTest();
        qvSQLProcessorResetForTest();
        qvbt_manager_reset_for_test();
        qvMonitorDataModelResetForTest();
        qvMonitorCommonResetForTest();
        qvMethodRegistryResetForTest();
        qv_flowpath_pool_reset_for_test();
        qv_agent_reset_for_test();
        home_.reset();
    }
    QVPerThreadData_t* take() {
        QVPerThreadData_t* r = get_free_tls_slot();
        resetAllThreadLocals(r, tlsdatastruct);
        return r;
    }
    // A backend as the callout code registers it (type 1 HTTP, 2 database).
    methodPropProperties* backend(const char* name, int type) {
        char buf[256];
        snprintf(buf, sizeof(buf), "%s", name);
        return searchAndUpdateMethodHashMap(buf, nullptr, 1, type, sizeof(buf));
    }
    std::string report() {
        len_ = 0;
        generateAndDumpBackendMonitoringRecord(buf_.data(), &len_);
        return std::string(buf_.data(), len_);
    }
    std::string line(methodPropProperties* b, const char* name, const char* values) {
        return "75,3|7|" + std::to_string(b->methodId) + ":T1>S1>A1>" + name + "|" + values + "\n";
    }
    std::unique_ptr<TempAgentHome> home_;
    std::vector<char> buf_;
    int len_ = 0;
};

using BackendMonitorTest = MonitorFixture;
using MonitorsConcurrency = MonitorFixture;

TEST_F(BackendMonitorTest, FailedAndGoodCalloutGiveOneRecordThenThreadTotals) {
    methodPropProperties* b = backend("api.example:443", 1);
    ASSERT_NE(b, nullptr);
    QVPerThreadData_t* r = take();
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 30, 1), 0);
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 10, 0), 0);
    EXPECT_EQ(report(), line(b, "api.example:443", "2 0.033333 20.000000 10 30 2 1"));
    // Next interval without calls: the running total stays, the minimum is printed raw.
    EXPECT_EQ(report(), line(b, "api.example:443", "2 0.000000 0.000000 2147483647 0 0 0"));
}

TEST_F(BackendMonitorTest, UncountedCallsReturnOneAndLongDurationsAreCut) {
    methodPropProperties* b = backend("cache:6379", 1);
    QVPerThreadData_t* r = take();
    methodPropProperties zero{};
    EXPECT_EQ(updateCounterAndDurationForBackend(r, &zero, 5, 0), 1);
    EXPECT_EQ(updateCounterAndDurationForBackend(r, nullptr, 5, 0), 1);
    EXPECT_EQ(updateCounterAndDurationForBackend(nullptr, b, 5, 0), 1);
    setBackendMonitorEnabled(0);
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 5, 0), 1);
    EXPECT_EQ(report(), "");
    setBackendMonitorEnabled(1);

    // 2^32 + 5 keeps its low 32 bits.
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, (1LL << 32) + 5, 0), 0);
    EXPECT_EQ(report(), line(b, "cache:6379", "1 0.016667 5.000000 5 5 1 0"));
}

TEST_F(BackendMonitorTest, DatabaseBackendsAreNamedByDBIPName) {
    methodPropProperties* db = backend("jdbc:orders-db", 2);
    QVPerThreadData_t* r = take();
    EXPECT_EQ(updateCounterAndDurationForBackend(r, db, 4, 0), 0);
    EXPECT_EQ(report(), line(db, "ADO.NET_QuoteDB", "1 0.016667 4.000000 4 4 1 0"));

    char msg[] = "qv_control_req:action=modify;DBIPName=orders";
    EXPECT_EQ(findStatusFromClientMsg(msg), 1);
    EXPECT_STREQ(getDBIPName(), "ADO.NET_orders");
    updateCounterAndDurationForBackend(r, db, 4, 0);
    EXPECT_EQ(report(), line(db, "ADO.NET_orders", "2 0.016667 4.000000 4 4 1 0"));

    for (const char* reset : {"NA", "-", ""}) {
        setDBIPName(const_cast<char*>("x"), nullptr, -1);
        setDBIPName(const_cast<char*>(reset), nullptr, -1);
        EXPECT_STREQ(getDBIPName(), "ADO.NET_QuoteDB") << reset;
    }
    EXPECT_EQ(setDBIPName(nullptr, nullptr, -1), -1);
    std::string longName(3000, 'd');
    setDBIPName(longName.data(), nullptr, -1);
    EXPECT_EQ(strlen(getDBIPName()), 1023u);
    EXPECT_EQ(std::string(getDBIPName(), 8), "ADO.NET_");
}

TEST_F(BackendMonitorTest, KeywordsDefaultsAndBackendLimit) {
    // The keyword defaults switch the monitor off and allow 32 backends.
    qvlb_init_all_keywords();
    EXPECT_EQ(qv_load(QVBackendMonitor.isBackendMonitorOn), 0);
    EXPECT_EQ(qv_load(QVBackendMonitor.maxIPCount), 32);
    EXPECT_STREQ(getDBIPName(), "ADO.NET_QuoteDB");

    char msg[] = "qv_control_req:action=modify;enableBackendMonitor=1;maxIPCount=2";
    EXPECT_EQ(findStatusFromClientMsg(msg), 2);
    EXPECT_EQ(qv_load(QVBackendMonitor.isBackendMonitorOn), 1);
    EXPECT_EQ(qv_load(QVBackendMonitor.maxIPCount), 2);
    char zero[] = "0";
    EXPECT_EQ(parseMaxIPCount(zero, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVBackendMonitor.maxIPCount), 2);
    EXPECT_EQ(parseMaxIPCount(nullptr, nullptr, -1), -1);
    EXPECT_EQ(setBackendMonitorEnabled(zero, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVBackendMonitor.isBackendMonitorOn), 0);

    // Past the maximum, new backends fold into "Others".
    int counterBefore = getBackendIDCounter();
    ASSERT_EQ(counterBefore, 0);
    ASSERT_NE(backend("a:1", 1), nullptr);
    ASSERT_NE(backend("b:1", 1), nullptr);
    int maxCount = 0;
    int counter = 0;
    EXPECT_EQ(backendLimitReached(&maxCount, &counter), 1);
    EXPECT_EQ(maxCount, 2);
    EXPECT_EQ(counter, 2);
    methodPropProperties* c = backend("c:1", 1);
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c->methodName, "Others");
    EXPECT_EQ(getBackendIDCounter(), counterBefore + 3);  // a, b and "Others"
}

TEST_F(BackendMonitorTest, RecordThatDoesNotFitIsDroppedAndArrayGrows) {
    methodPropProperties big{};
    big.methodId = 128;
    big.methodName = const_cast<char*>("far:1");
    checkAndIncrementAggrBackendDataArray(&big);
    EXPECT_EQ(qv_load(QVBackendMonitor.aggDataArraySize), 257);
    QVPerThreadData_t* r = take();
    EXPECT_EQ(updateCounterAndDurationForBackend(r, &big, 3, 0), 0);
    len_ = QV_MONITOR_BUFFER_SIZE - 20;
    long long droppedBefore = qvMonitorRecordsDropped();
    EXPECT_TRUE(generateAndDumpBackendMonitoringRecord(buf_.data(), &len_));
    EXPECT_EQ(len_, QV_MONITOR_BUFFER_SIZE - 20);
    EXPECT_EQ(qvMonitorRecordsDropped(), droppedBefore + 1);
    for (int i = len_; i < QV_MONITOR_BUFFER_SIZE; i++) ASSERT_EQ(buf_[i], 'x') << i;
}

TEST_F(BackendMonitorTest, FailedAllocationsRefuseWithoutLosingState) {
    methodPropProperties* b = backend("mq:5672", 1);
    QVPerThreadData_t* r = take();
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the thread's first block for b
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 3, 0), 1);
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 3, 0), 0);

    methodPropProperties big{};
    big.methodId = 5000;
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the merged array's growth
    checkAndIncrementAggrBackendDataArray(&big);
    qvlb_fault_reset();
    EXPECT_EQ(qv_load(QVBackendMonitor.aggDataArraySize), 128);
    EXPECT_EQ(report(), line(b, "mq:5672", "1 0.016667 3.000000 3 3 1 0"));
}

// Application threads count methods and backends while a reporter generates records; the sum of
// the reported counts must equal the calls made, and the last cumCount their total.
TEST_F(MonitorsConcurrency, MethodAndBackendCountsAreExactWhileReportsRun) {
    constexpr int kThreads = 8;
    constexpr int kCalls = 20000;
    methodPropProperties* m1 = updateMethodHashMap("Work.a", QV_EP_MONITORED, 0, nullptr);
    methodPropProperties* m2 = updateMethodHashMap("Work.b", QV_EP_MONITORED, 0, nullptr);
    checkAndIncrementAggrMethodDataArray(m1);
    checkAndIncrementAggrMethodDataArray(m2);
    methodPropProperties* b1 = backend("svc:80", 1);
    ASSERT_TRUE(m1 && m2 && b1);
    std::vector<QVPerThreadData_t*> recs;
    for (int i = 0; i < kThreads; i++) recs.push_back(take());

    std::map<int, long long> counted61;  // method id -> sum of counts
    long long counted75 = 0;
    long long errors75 = 0;
    long long lastCum61[2] = {0, 0};
    long long lastCum75 = 0;
    auto parse = [&](const std::vector<char>& out, int len) {
        std::string text(out.data(), len);
        size_t pos = 0;
        while (pos < text.size()) {
            size_t end = text.find('\n', pos);
            ASSERT_NE(end, std::string::npos);
            std::string ln = text.substr(pos, end - pos);
            pos = end + 1;
            size_t bar = ln.find('|', ln.find(':'));
            ASSERT_NE(bar, std::string::npos) << ln;
            int id = 0;
            if (ln.rfind("61,", 0) == 0) {
                ASSERT_EQ(sscanf(ln.c_str(), "61,3|7|%d:", &id), 1);
                int cum = 0, count = 0;
                double rate, avg, mn;
                long long mx;
                ASSERT_EQ(sscanf(ln.c_str() + bar + 1, "%d %lf %lf %lf %lld %d", &cum, &rate, &avg, &mn, &mx,
                                 &count),
                          6);
                counted61[id] += count;
                lastCum61[id == m1->methodId ? 0 : 1] = cum;
            } else {
                ASSERT_EQ(ln.rfind("75,", 0), 0u) << ln;
                long long cum, mn, mx, count, err;
                double rate, avg;
                ASSERT_EQ(sscanf(ln.c_str() + bar + 1, "%lld %lf %lf %lld %lld %lld %lld", &cum, &rate, &avg,
                                 &mn, &mx, &count, &err),
                          7);
                counted75 += count;
                errors75 += err;
                lastCum75 = cum;
            }
        }
    };

    std::atomic<bool> done{false};
    std::atomic<int> reports{0};
    std::thread reporter([&] {
        std::vector<char> out(QV_MONITOR_BUFFER_SIZE);
        while (!done.load()) {
            int len = 0;
            generateAndDumpBackendMonitoringRecord(out.data(), &len);
            generateAndDumpMethodMonitoringRecord(out.data(), &len);
            parse(out, len);
            reports.fetch_add(1);
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; t++) {
        workers.emplace_back([&, t] {
            while (reports.load() == 0) std::this_thread::yield();  // count while reports are running
            for (int i = 0; i < kCalls; i++) {
                updateCounterAndDurationForMethod(recs[t], (i % 2) ? m2 : m1, i % 50);
                updateCounterAndDurationForBackend(recs[t], b1, i % 30, static_cast<char>(i % 3 == 0));
            }
        });
    }
    for (auto& w : workers) w.join();
    done.store(true);
    reporter.join();
    std::vector<char> out(QV_MONITOR_BUFFER_SIZE);
    int len = 0;
    generateAndDumpBackendMonitoringRecord(out.data(), &len);
    generateAndDumpMethodMonitoringRecord(out.data(), &len);
    parse(out, len);

    EXPECT_EQ(counted61[m1->methodId], kThreads * kCalls / 2);
    EXPECT_EQ(counted61[m2->methodId], kThreads * kCalls / 2);
    EXPECT_EQ(lastCum61[0], kThreads * kCalls / 2);
    EXPECT_EQ(lastCum61[1], kThreads * kCalls / 2);
    EXPECT_EQ(counted75, kThreads * kCalls);
    EXPECT_EQ(lastCum75, kThreads * kCalls);
    EXPECT_EQ(errors75, kThreads * ((kCalls + 2) / 3));
}

}  // namespace
