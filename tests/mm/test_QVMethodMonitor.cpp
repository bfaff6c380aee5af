// Tests of the method monitor: the 61 record and its cumCount rule across intervals, alias
// naming, identifiers that are never counted, the bounded append, growth and keyword handlers.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "backend/QVBackendMonitor.h"
#include "backend/backend_module.h"
#include "bt/QVBTMonitor.h"
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

class MethodMonitorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = std::make_unique<TempAgentHome>();
        qv_flowpath_register_hooks();
        qv_bt_register_hooks();
        qv_mm_register_hooks();
        qv_backend_register_hooks();
        agent_init("mmtest", 1, "mmtest", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        setTierName(const_cast<char*>("T1"));
        setAppServerName(const_cast<char*>("S1"));
        setAppName(const_cast<char*>("A1"));
        setTierID(3);
        setAppID(7);
        qv_store(QVSettings.qvMonitorIntervalInSecs, 60);
        QVMethodMonitorInit();
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
    // A registered, monitored method with room in the merged array.
    methodPropProperties* method(const char* name) {
        methodPropProperties* m = updateMethodHashMap(name, QV_EP_MONITORED, 0, nullptr);
        checkAndIncrementAggrMethodDataArray(m);
        return m;
    }
    std::string report() {
        len_ = 0;
        generateAndDumpMethodMonitoringRecord(buf_.data(), &len_);
        return std::string(buf_.data(), len_);
    }
    std::string line(methodPropProperties* m, const char* name, const char* values) {
        return "61,3|7|" + std::to_string(m->methodId) + ":T1>S1>A1>" + name + "|" + values + "\n";
    }
    std::unique_ptr<TempAgentHome> home_;
    std::vector<char> buf_;
    int len_ = 0;
};

TEST_F(MethodMonitorTest, RecordOfTwoCallsThenNextIntervalsKeepThreadTotal) {
    methodPropProperties* m = method("Shop.checkout");
    QVPerThreadData_t* r = take();
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 5));
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 15));
    EXPECT_EQ(report(), line(m, "Shop.checkout", "2 0.033333 10.000000 5.000000 15 2"));

    // The thread's running total is merged again: cumCount 3, count 1.
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 7));
    EXPECT_EQ(report(), line(m, "Shop.checkout", "3 0.016667 7.000000 7.000000 7 1"));

    // No call: the existing block still reports, with its unset minimum printed as is.
    EXPECT_EQ(report(), line(m, "Shop.checkout", "3 0.000000 0.000000 2147483647.000000 0 0"));

    // A second thread adds its own total.
    QVPerThreadData_t* r2 = take();
    EXPECT_TRUE(updateCounterAndDurationForMethod(r2, m, 1));
    EXPECT_EQ(report(), line(m, "Shop.checkout", "4 0.016667 1.000000 1.000000 1 1"));
}

TEST_F(MethodMonitorTest, AliasNamesRecordAndNonPositiveIdsAreNeverCounted) {
    methodPropProperties* m = method("Shop.pay");
    qv_store_release(m->aliasMethodName, const_cast<char*>("Payment"));
    QVPerThreadData_t* r = take();
    methodPropProperties zero{};
    zero.methodId = 0;
    methodPropProperties negative{};
    negative.methodId = -4;
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, &zero, 3));
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, &negative, 3));
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, nullptr, 3));
    EXPECT_FALSE(updateCounterAndDurationForMethod(nullptr, m, 3));
    EXPECT_EQ(report(), "");  // nothing counted yet: no record at all

    // The keyword stores the character '0', which still counts; only numeric 0 stops.
    char off[] = "0";
    EXPECT_EQ(parseMethodMonitorKeyword(off, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.isMethodMonitorOn), '0');
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 4));
    EXPECT_EQ(report(), line(m, "Payment", "1 0.016667 4.000000 4.000000 4 1"));
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
    std::string first = line(m, "Shop.list", "1 0.016667 2.000000 2.000000 2 1");
    // Room for the first record (and its terminator) but not the second.
    int start = QV_MONITOR_BUFFER_SIZE - static_cast<int>(first.size()) - 10;
    len_ = start;
    long long droppedBefore = qvMonitorRecordsDropped();
    EXPECT_TRUE(generateAndDumpMethodMonitoringRecord(buf_.data(), &len_));
    EXPECT_EQ(len_, start + static_cast<int>(first.size()));
    EXPECT_EQ(std::string(buf_.data() + start, first.size()), first);
    EXPECT_EQ(qvMonitorRecordsDropped(), droppedBefore + 1);
    for (int i = len_ + 1; i < QV_MONITOR_BUFFER_SIZE; i++) ASSERT_EQ(buf_[i], 'x') << i;

    // A used length already at the end drops everything without writing.
    len_ = QV_MONITOR_BUFFER_SIZE;
    updateCounterAndDurationForMethod(r, m, 2);
    EXPECT_TRUE(generateAndDumpMethodMonitoringRecord(buf_.data(), &len_));
    EXPECT_EQ(len_, QV_MONITOR_BUFFER_SIZE);
    EXPECT_FALSE(generateAndDumpMethodMonitoringRecord(nullptr, &len_));
    EXPECT_FALSE(generateAndDumpMethodMonitoringRecord(buf_.data(), nullptr));
}

TEST_F(MethodMonitorTest, LargeIdentifiersGrowBothArraysAndThreadsWithoutModelGetOne) {
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
    EXPECT_EQ(report(), "61,3|7|300:T1>S1>A1>Big.one|1 0.016667 9.000000 9.000000 9 1\n");

    // An entry whose method was never registered is not reported, and a negative id is ignored.
    big.methodId = -1;
    checkAndIncrementAggrMethodDataArray(&big);
    checkAndIncrementAggrMethodDataArray(nullptr);
    EXPECT_EQ(qv_load(QVMethodMonitor.aggDataArraySize), 514);
}

TEST_F(MethodMonitorTest, FailedAllocationsRefuseWithoutLosingState) {
    methodPropProperties* m = method("Shop.cart");
    QVPerThreadData_t* r = take();
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the thread's first block for m
    EXPECT_FALSE(updateCounterAndDurationForMethod(r, m, 3));
    EXPECT_TRUE(updateCounterAndDurationForMethod(r, m, 3));

    methodPropProperties big{};
    big.methodId = 5000;
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);  // the merged array's growth: refused, old array kept
    checkAndIncrementAggrMethodDataArray(&big);
    qvlb_fault_reset();
    EXPECT_EQ(qv_load(QVMethodMonitor.aggDataArraySize), 128);
    EXPECT_EQ(report(), line(m, "Shop.cart", "1 0.016667 3.000000 3.000000 3 1"));
}

TEST_F(MethodMonitorTest, KeywordHandlersAndVectorSeparator) {
    char zero[] = "0";
    char big[] = "300";
    char one[] = "1";
    char minus[] = "-1";
    EXPECT_EQ(parseMaxMethodCount(zero, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.maxMethodCount), 256);
    EXPECT_EQ(parseMaxMethodCount(big, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.maxMethodCount), 300);
    EXPECT_EQ(parseMethodMonitorErrorLevel(minus, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.methodMonitorErrorLevel), 0);
    EXPECT_EQ(parseMethodMonitorErrorLevel(one, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.methodMonitorErrorLevel), 1);
    EXPECT_EQ(parseMethodMonitorTraceLevel(minus, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.methodMonitorTraceLevel), -1);
    EXPECT_EQ(parsemmDoNotDiscardVal(zero, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.doNotDisacrdAnyTransaction), 0);
    EXPECT_EQ(parsemmDoNotDiscardVal(one, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVMethodMonitor.doNotDisacrdAnyTransaction), '0');
    EXPECT_EQ(parseMethodMonitorKeyword(nullptr, nullptr, -1), -1);
    EXPECT_EQ(setQVVectorSeperator(nullptr, nullptr, -1), -1);

    // Through the keyword table: the separator changes and every monitor's prefix follows it.
    char msg[] = "qv_control_req:action=modify;qvVectorSeparator=|x;tierName=Tier9";
    EXPECT_EQ(findStatusFromClientMsg(msg), 2);
    EXPECT_EQ(qv_load(QVSettings.qvVectorSeperator), '|');
    char empty[] = "";
    EXPECT_EQ(setQVVectorSeperator(empty, nullptr, -1), 0);
    EXPECT_EQ(qv_load(QVSettings.qvVectorSeperator), '|');
    updateInstanceInfo();  // picks up the tier name applied after the separator
    EXPECT_STREQ(QVMethodMonitor.vectorPrefix, "Tier9|S1|A1|");
    EXPECT_STREQ(QVMethodMonitor.vectorPrefixID, "3|7|");
    EXPECT_STREQ(QVBackendMonitor.vectorPrefix, "Tier9|S1|A1|");
    EXPECT_STREQ(QVBTMonitor.vectorPrefix, "Tier9|S1|A1|");
}

TEST_F(MethodMonitorTest, NoRecordWithoutRegisteredThreads) {
    qvMonitorDataModelResetForTest();
    len_ = 0;
    EXPECT_FALSE(generateAndDumpMethodMonitoringRecord(buf_.data(), &len_));
    EXPECT_EQ(len_, 0);
}

}  // namespace
