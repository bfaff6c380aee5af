// Tests of the method monitor: the 61 record and its cumCount rule across intervals, alias
// naming, identifiers that are never counted, the bounded append, growth and keyword handlers.
#include <gtest/gtest.h>

#include <cstring>

#include "bt/QVBTMonitor.h"
#include "mm/monitor_fixture.h"

namespace {

using MethodMonitorTest = MonitorFixture;

TEST_F(MethodMonitorTest, RecordOfTwoCallsThenNextIntervalsKeepThreadTotal) {
    methodPropProperties* m = method("Shop.checkout");
    QVPerThreadData_t* r = take();
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 5));
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 15));
    EXPECT_EQ(methods(), line(61, m, "Shop.checkout", "2 0.033333 10.000000 5.000000 15 2"));

    // The thread's running total is merged again: cumCount 3, count 1.
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 7));
    EXPECT_EQ(methods(), line(61, m, "Shop.checkout", "3 0.016667 7.000000 7.000000 7 1"));

    // No call: the existing block still reports, with its unset minimum printed as is.
    EXPECT_EQ(methods(), line(61, m, "Shop.checkout", "3 0.000000 0.000000 2147483647.000000 0 0"));

    // A second thread adds its own total.
    EXPECT_TRUE(updateCounterAndDurationForMethod(take(), m, 1));
    EXPECT_EQ(methods(), line(61, m, "Shop.checkout", "4 0.016667 1.000000 1.000000 1 1"));
}

TEST_F(MethodMonitorTest, AliasNamesRecordAndNonPositiveIdsAreNeverCounted) {
    methodPropProperties* m = method("Shop.pay");
    qv_store_release(m->aliasMethodName, const_cast<char*>("Payment"));
    QVPerThreadData_t* r = take();
    methodPropProperties zero{}, negative{};
    negative.methodId = -4;
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, &zero, 3));
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, &negative, 3));
    EXPECT_EQ(methods(), "");  // nothing counted yet: no record at all

    // The keyword stores the character '0', which still counts; only numeric 0 stops.
    char off[] = "0";
    EXPECT_EQ(parseMethodMonitorKeyword(off, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.isMethodMonitorOn), '0');
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 4));
    EXPECT_EQ(methods(), line(61, m, "Payment", "1 0.016667 4.000000 4.000000 4 1"));
    qv_store(QVMethodMonitor.isMethodMonitorOn, 0);
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, m, 4));
    qv_store_release(m->aliasMethodName, static_cast<char*>(nullptr));
}

TEST_F(MethodMonitorTest, RecordThatDoesNotFitIsDroppedWhole) {
    methodPropProperties* m = method("Shop.list");
    methodPropProperties* m2 = method("Shop.view");
    QVPerThreadData_t* r = take();
    updateCounterAndDurationForMethod(r, m, 2);
    updateCounterAndDurationForMethod(r, m2, 2);
    std::string first = line(61, m, "Shop.list", "1 0.016667 2.000000 2.000000 2 1");
    // Room for the first record (and its terminator) but not the second.
    int start = QV_MONITOR_BUFFER_SIZE - static_cast<int>(first.size()) - 10;
    len_ = start;
    long long droppedBefore = qvMonitorRecordsDropped();
    EXPECT_TRUE(generateAndDumpMethodMonitoringRecord(buf_.data(), &len_));
    EXPECT_EQ(len_, start + static_cast<int>(first.size()));
    EXPECT_EQ(std::string(buf_.data() + start, first.size()), first);
    EXPECT_EQ(qvMonitorRecordsDropped(), droppedBefore + 1);
    for (int i = len_ + 1; i < QV_MONITOR_BUFFER_SIZE; i++) ASSERT_EQ(buf_[i], 'x') << i;
}

TEST_F(MethodMonitorTest, LargeIdentifiersGrowBothArraysAndFailedAllocationsLoseNoState) {
    methodPropProperties big{};
    big.methodId = 300;
    big.methodName = const_cast<char*>("Big.one");
    checkAndIncrementAggrMethodDataArray(&big);
    EXPECT_EQ(qv_load(QVMethodMonitor.aggDataArraySize), 514);  // 2 x (2 x 128 + 1)

    // A record carved outside the pool has no model yet: the monitor attaches a new one.
    auto rec = std::make_unique<QVPerThreadData_t>();
    std::memset(rec.get(), 0, sizeof(QVPerThreadData_t));
    rec->tlThreadId = 987654;
    int threadsBefore = qv_load(QVMethodMonitor.numberOfThreads);
    EXPECT_TRUE(updateCounterAndDurationForMethod(rec.get(), &big, 9));
    ASSERT_NE(rec->tlMonitorDataModel, nullptr);
    EXPECT_EQ(rec->tlMonitorDataModel->currentSizeOfMethodArray, 514);
    EXPECT_EQ(qv_load(QVMethodMonitor.numberOfThreads), threadsBefore + 1);
    EXPECT_EQ(methods(), "61,3|7|300:T1>S1>A1>Big.one|1 0.016667 9.000000 9.000000 9 1\n");

    // Failed allocations refuse, and keep what exists.
    methodPropProperties* m = method("Shop.cart");
    QVPerThreadData_t* r = take();
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the thread's first block for m
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, m, 3));
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 3));
    methodPropProperties huge{};
    huge.methodId = 5000;
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the merged array's growth: refused, old array kept
    checkAndIncrementAggrMethodDataArray(&huge);
    qvlb_fault_reset();
    EXPECT_EQ(qv_load(QVMethodMonitor.aggDataArraySize), 514);
    EXPECT_EQ(methods(), line(61, m, "Shop.cart", "1 0.016667 3.000000 3.000000 3 1") +
                             "61,3|7|300:T1>S1>A1>Big.one|1 0.000000 0.000000 2147483647.000000 0 0\n");
}

TEST_F(MethodMonitorTest, KeywordHandlersAndVectorSeparator) {
    char zero[] = "0", one[] = "1";
    parsemmDoNotDiscardVal(zero, nullptr, -1);
    EXPECT_EQ(qv_load(QVMethodMonitor.doNotDisacrdAnyTransaction), 0);
    parsemmDoNotDiscardVal(one, nullptr, -1);
    EXPECT_EQ(qv_load(QVMethodMonitor.doNotDisacrdAnyTransaction), '0');

    // Through the keyword table: the separator changes and every monitor's prefix follows it.
    char msg[] = "qv_control_req:action=modify;qvVectorSeparator=|x;tierName=Tier9";
    EXPECT_EQ(findStatusFromClientMsg(msg), 2);
    EXPECT_EQ(qv_load(QVSettings.qvVectorSeperator), '|');
    char empty[] = "";
    EXPECT_EQ(setQVVectorSeperator(empty, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVSettings.qvVectorSeperator), '|');
    updateInstanceInfo();  // picks up the tier name applied after the separator
    EXPECT_STREQ(QVMethodMonitor.vectorPrefix, "Tier9|S1|A1|");
    EXPECT_STREQ(QVBackendMonitor.vectorPrefix, "Tier9|S1|A1|");
    EXPECT_STREQ(QVBTMonitor.vectorPrefix, "Tier9|S1|A1|");
}

}  // namespace
