// Tests of the backend monitor: the 75 record, the inverted result, 32-bit durations, database
// naming through DBIPName, the backend limit, keywords, the bounded append, and method and
// backend counting on many threads while reports run.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#include "backend/QVBackendManager.h"
#include "mm/monitor_fixture.h"

namespace {

using BackendMonitorTest = MonitorFixture;
using MonitorsConcurrency = MonitorFixture;

TEST_F(BackendMonitorTest, FailedAndGoodCalloutsThenThreadTotalsAndUncountedCalls) {
    methodPropProperties* b = backend("api.example:443", 1);
    ASSERT_NE(b, nullptr);
    QVPerThreadData_t* r = take();
    methodPropProperties zero{};
    EXPECT_EQ(updateCounterAndDurationForBackend(r, &zero, 5, 0), 1);
    EXPECT_EQ(updateCounterAndDurationForBackend(nullptr, b, 5, 0), 1);
    setBackendMonitorEnabled(0);
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 5, 0), 1);
    EXPECT_EQ(backends(), "");
    setBackendMonitorEnabled(1);

    // 2^32 + 30 keeps its low 32 bits.
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, (1LL << 32) + 30, 1), 0);
    EXPECT_EQ(updateCounterAndDurationForBackend(r, b, 10, 0), 0);
    EXPECT_EQ(backends(), line(75, b, "api.example:443", "2 0.033333 20.000000 10 30 2 1"));
    // Next interval without calls: the running total stays, the minimum is printed raw.
    EXPECT_EQ(backends(), line(75, b, "api.example:443", "2 0.000000 0.000000 2147483647 0 0 0"));
}

TEST_F(BackendMonitorTest, DatabaseBackendsAreNamedByDBIPName) {
    methodPropProperties* db = backend("jdbc:orders-db", 2);
    QVPerThreadData_t* r = take();
    EXPECT_EQ(updateCounterAndDurationForBackend(r, db, 4, 0), 0);
    EXPECT_EQ(backends(), line(75, db, "ADO.NET_QuoteDB", "1 0.016667 4.000000 4 4 1 0"));

    char msg[] = "qv_control_req:action=modify;DBIPName=orders";
    EXPECT_EQ(findStatusFromClientMsg(msg), 1);
    EXPECT_STREQ(getDBIPName(), "ADO.NET_orders");
    updateCounterAndDurationForBackend(r, db, 4, 0);
    EXPECT_EQ(backends(), line(75, db, "ADO.NET_orders", "2 0.016667 4.000000 4 4 1 0"));

    std::string longName(3000, 'd');
    setDBIPName(longName.data(), nullptr, -1);
    EXPECT_EQ(std::string(getDBIPName()), "ADO.NET_" + std::string(1015, 'd'));
    for (const char* reset : {"NA", "-", ""}) {
        setDBIPName(const_cast<char*>(reset), nullptr, -1);
        EXPECT_STREQ(getDBIPName(), "ADO.NET_QuoteDB") << reset;
        setDBIPName(const_cast<char*>("x"), nullptr, -1);
    }
}

TEST_F(BackendMonitorTest, KeywordsAndBackendLimit) {
    char msg[] = "qv_control_req:action=modify;enableBackendMonitor=1;maxIPCount=2";
    EXPECT_EQ(findStatusFromClientMsg(msg), 2);
    char zero[] = "0";
    EXPECT_EQ(parseMaxIPCount(zero, nullptr, -1), 0);  // refused: stays 2
    EXPECT_TRUE(QVBackendMonitor.isBackendMonitorOn == 1 && QVBackendMonitor.maxIPCount == 2);
    EXPECT_EQ(setBackendMonitorEnabled(zero, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVBackendMonitor.isBackendMonitorOn), 0);

    // Past the maximum, new backends fold into "Others".
    ASSERT_NE(backend("a:1", 1), nullptr);
    ASSERT_NE(backend("b:1", 1), nullptr);
    int maxCount = 0, counter = 0;
    EXPECT_EQ(backendLimitReached(&maxCount, &counter), 1);
    EXPECT_TRUE(maxCount == 2 && counter == 2);
    EXPECT_STREQ(backend("c:1", 1)->methodName, "Others");
    EXPECT_EQ(getBackendIDCounter(), 3);  // a, b and "Others"
}

TEST_F(BackendMonitorTest, ArrayGrowsRecordThatDoesNotFitIsDroppedAndFailedAllocationsLoseNoState) {
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

    methodPropProperties* b = backend("mq:5672", 1);
    QVPerThreadData_t* r2 = take();
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the thread's first block for b
    EXPECT_EQ(updateCounterAndDurationForBackend(r2, b, 3, 0), 1);
    EXPECT_EQ(updateCounterAndDurationForBackend(r2, b, 3, 0), 0);
    methodPropProperties huge{};
    huge.methodId = 5000;
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the merged array's growth: refused, old array kept
    checkAndIncrementAggrBackendDataArray(&huge);
    qvlb_fault_reset();
    EXPECT_EQ(qv_load(QVBackendMonitor.aggDataArraySize), 257);
    // The dropped record's call stays in its running total.
    EXPECT_EQ(backends(), line(75, b, "mq:5672", "1 0.016667 3.000000 3 3 1 0") +
                              "75,3|7|128:T1>S1>A1>far:1|1 0.000000 0.000000 2147483647 0 0 0\n");
}

// Application threads count methods and backends while a reporter generates records; the sum of
// the reported counts must equal the calls made, and the last cumCount their total.
TEST_F(MonitorsConcurrency, MethodAndBackendCountsAreExactWhileReportsRun) {
    constexpr int kThreads = 8;
    constexpr int kCalls = 20000;
    methodPropProperties* m1 = method("Work.a");
    methodPropProperties* m2 = method("Work.b");
    methodPropProperties* b1 = backend("svc:80", 1);
    ASSERT_TRUE(m1 && m2 && b1);
    std::vector<QVPerThreadData_t*> recs;
    for (int i = 0; i < kThreads; i++) recs.push_back(take());

    std::map<int, long long> counted61, lastCum61;  // by method id
    long long counted75 = 0, errors75 = 0, lastCum75 = 0;
    std::atomic<bool> done{false};
    std::atomic<int> reports{0};
    auto reportOnce = [&] {
        std::vector<char> out(QV_MONITOR_BUFFER_SIZE);
        int len = 0;
        generateAndDumpBackendMonitoringRecord(out.data(), &len);
        generateAndDumpMethodMonitoringRecord(out.data(), &len);
        std::istringstream in(std::string(out.data(), len));
        for (std::string ln; std::getline(in, ln);) {
            int id = 0;
            long long cum = 0, count = 0, err = 0;
            if (sscanf(ln.c_str(), "61,3|7|%d:%*[^|]|%lld %*f %*f %*f %*d %lld", &id, &cum, &count) == 3) {
                counted61[id] += count;
                lastCum61[id] = cum;
            } else {
                ASSERT_EQ(sscanf(ln.c_str(), "75,3|7|%*d:%*[^|]|%lld %*f %*f %*d %*d %lld %lld", &cum, &count,
                                 &err),
                          3)
                    << ln;
                counted75 += count;
                errors75 += err;
                lastCum75 = cum;
            }
        }
    };
    std::thread reporter([&] {
        while (!done.load()) {
            reportOnce();
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
    reportOnce();

    for (methodPropProperties* m : {m1, m2}) {
        EXPECT_EQ(counted61[m->methodId], kThreads * kCalls / 2);
        EXPECT_EQ(lastCum61[m->methodId], kThreads * kCalls / 2);
    }
    EXPECT_EQ(counted75, kThreads * kCalls);
    EXPECT_EQ(lastCum75, kThreads * kCalls);
    EXPECT_EQ(errors75, kThreads * ((kCalls + 2) / 3));
}

}  // namespace
