// Tests of the per-thread monitor models: the array growth rule, the registry of models, the BT
// counter block's update, dispatch and merge rules.
#include <gtest/gtest.h>

#include <apr_time.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>
#include <memory>
#include <set>
#include <string>

#include "bt/QVBTManager.h"
#include "bt/QVBTMonitorDataCounters.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "bt/bt_module.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/flowpath_module.h"
#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "support/temp_home.h"

namespace {

constexpr long long kUnsetMin = 2147483647LL;

class MonitorModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = std::make_unique<TempAgentHome>();
        qv_flowpath_register_hooks();
        qv_bt_register_hooks();
        agent_init("bttest", 1, "bttest", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        ASSERT_NE(gFreeTLSHead, nullptr);
    }
    void TearDown() override {
        qvlb_fault_reset();
        qvbt_manager_reset_for_test();
        qvMonitorDataModelResetForTest();
        qvMonitorCommonResetForTest();
        qv_flowpath_pool_reset_for_test();
        qvMethodRegistryResetForTest();
        qv_agent_reset_for_test();
        home_.reset();
    }
    QVPerThreadData_t* take() {
        QVPerThreadData_t* r = get_free_tls_slot();
        resetAllThreadLocals(r, tlsdatastruct);
        return r;
    }
    std::unique_ptr<TempAgentHome> home_;
};

TEST(MonitorGrowth, GrowsByMultiplesOfTwiceOldPlusOneAndZeroesNewEntries) {
    long long* arr = static_cast<long long*>(qvlb_calloc(128 * sizeof(long long), "test", -1));
    for (int i = 0; i < 128; i++) arr[i] = i + 1;
    EXPECT_EQ(handleSizeDataArrOf(&arr, 128, 127), 128);  // already fits: untouched
    EXPECT_EQ(handleSizeDataArrOf(&arr, 128, 128), 257);
    for (int i = 0; i < 128; i++) ASSERT_EQ(arr[i], i + 1);
    for (int i = 128; i < 257; i++) ASSERT_EQ(arr[i], 0);
    EXPECT_EQ(handleSizeDataArrOf(&arr, 257, 1600), 515 * 4);  // k = 4 steps of 515
    qvlb_free(arr, "test", -1);

    void* empty = nullptr;
    EXPECT_EQ(handleSizeDataArr(&empty, 0, 9, 0), 10);  // element size 0 means 8
    ASSERT_NE(empty, nullptr);
    for (int i = 0; i < 10; i++) EXPECT_EQ(static_cast<long long*>(empty)[i], 0);
    qvlb_free(empty, "test", -1);

    void* none = nullptr;
    EXPECT_EQ(handleSizeDataArr(&none, 0, -1, 8), 0);  // size 0: nothing allocated
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(handleSizeDataArr(nullptr, 5, 9, 8), 5);
}

TEST(MonitorGrowth, FailedAllocationKeepsTheOldArray) {
    void* arr = qvlb_calloc(4 * 8, "test", -1);
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, -1);
    void* before = arr;
    EXPECT_EQ(handleSizeDataArr(&arr, 4, 100, 8), 4);
    qvlb_fault_reset();
    EXPECT_EQ(arr, before);
    qvlb_free(arr, "test", -1);
}

TEST_F(MonitorModelTest, PoolRecordsGetRegisteredModelsAndBtId128Grows) {
    EXPECT_EQ(qvMonitorModelCount(), 64);
    QVPerThreadData_t* r = take();
    QVMonitorDataModel* m = r->tlMonitorDataModel;
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->currentSizeOfBTArray, 128);
    EXPECT_EQ(m->currentSizeOfMethodArray, 128);
    EXPECT_EQ(m->currentSizeOfBackendArray, 128);
    r->tlCategory = QV_BT_CATEGORY_NORMAL;
    r->tlDuration = 42;
    updatePropertiesOfBT(r, 128);
    EXPECT_EQ(m->currentSizeOfBTArray, 257);
    ASSERT_NE(m->btmDataArray[128], nullptr);
    EXPECT_EQ(m->btmDataArray[128]->count, 1);
    EXPECT_EQ(m->btmDataArray[128]->normalCount, 1);
    for (int i = 129; i < 257; i++) ASSERT_EQ(m->btmDataArray[i], nullptr);

    updateChildFPCpuTimeOfBT(r, 7, 0, 0, 25);
    ASSERT_NE(m->btmDataArray[7], nullptr);
    EXPECT_EQ(m->btmDataArray[7]->cpuTime, 25);
    EXPECT_EQ(m->btmDataArray[7]->count, 0);

    // The pool's reset step forgets every block (without leaking them).
    resetMonitorDataModel(r);
    EXPECT_EQ(m->btmDataArray[128], nullptr);
    EXPECT_EQ(m->btmDataArray[7], nullptr);
    EXPECT_EQ(m->currentSizeOfBTArray, 257);
}

TEST_F(MonitorModelTest, RepeatedThreadIdsKeepEveryModelAndLookupAttachesTheFirst) {
    std::set<QVMonitorDataModel*> models;
    for (QVPerThreadData_t* p = gFreeTLSHead; p != nullptr; p = p->free_next)
        models.insert(p->tlMonitorDataModel);
    // A block carved while ten records are busy numbers its records 11..74: 54 numbers repeat.
    QVPerThreadData_t* second = nullptr;
    {
        QVLockGuard guard(tlsMutex);
        second = create_tls_pool(10);
    }
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second[0].tlThreadId, 11);
    EXPECT_EQ(qvMonitorModelCount(), 128);
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) models.insert(second[i].tlMonitorDataModel);
    EXPECT_EQ(models.size(), 128u);

    int visited = 0;
    forEachMonitorDataModel([](QVMonitorDataModel*, void* ctx) { ++*static_cast<int*>(ctx); }, &visited);
    EXPECT_EQ(visited, 128);

    // A record without a model (as in proxy mode) attaches the model first registered under its number.
    QVMonitorDataModel* firstOf11 = nullptr;
    for (QVPerThreadData_t* p = gFreeTLSHead; p != nullptr; p = p->free_next)
        if (p->tlThreadId == 11 && p != &second[0]) firstOf11 = p->tlMonitorDataModel;
    QVPerThreadData_t bare{};
    bare.tlThreadId = 11;
    EXPECT_EQ(checkAndInitMonitorDataModel(&bare), 0);
    EXPECT_EQ(bare.tlMonitorDataModel, firstOf11);
    QVPerThreadData_t fresh{};
    fresh.tlThreadId = 999;
    EXPECT_EQ(checkAndInitMonitorDataModel(&fresh), 1);
    EXPECT_NE(fresh.tlMonitorDataModel, nullptr);
    EXPECT_EQ(qvMonitorModelCount(), 129);
    EXPECT_EQ(checkAndInitMonitorDataModel(nullptr), -1);
    {
        // A third use of the same numbers gets keys of its own too.
        QVLockGuard guard(tlsMutex);
        ASSERT_NE(create_tls_pool(10), nullptr);
    }
    EXPECT_EQ(qvMonitorModelCount(), 129 + QV_TLS_POOL_BLOCK);

    destroyQVMonitorDataModel();
    EXPECT_EQ(qvMonitorModelCount(), 0);
    destroyQVMonitorDataModel();  // empty: logged, nothing else
    // An emptied registry hands out the same keys again.
    QVPerThreadData_t again[2]{};
    again[0].tlThreadId = again[1].tlThreadId = 11;
    initQVMonitorDataModel(&again[0]);
    initQVMonitorDataModel(&again[1]);
    EXPECT_EQ(qvMonitorModelCount(), 2);
    QVPerThreadData_t lookup{};
    lookup.tlThreadId = 11;
    EXPECT_EQ(checkAndInitMonitorDataModel(&lookup), 0);
    EXPECT_EQ(lookup.tlMonitorDataModel, again[0].tlMonitorDataModel);
}

TEST_F(MonitorModelTest, GrownBlockIsNumberedLockedAndItsModelsRegisteredAfterTheTake) {
    std::vector<QVPerThreadData_t*> taken;
    for (int i = 0; i < 65; i++) taken.push_back(take());
    QVPerThreadData_t* first = taken[64];  // first record of the grown block
    EXPECT_EQ(first->tlsIdx, 64);
    EXPECT_EQ(first->tlThreadId, 65);  // 64 records were busy when it was carved
    // The record counts into its model at once; the registration may follow on the reserve's thread.
    ASSERT_NE(first->tlMonitorDataModel, nullptr);
    for (int i = 0; i < 200 && qvMonitorModelCount() < 128; i++) apr_sleep(5000);
    EXPECT_EQ(qvMonitorModelCount(), 128);
    std::set<QVMonitorDataModel*> walked;
    forEachMonitorDataModel(
        [](QVMonitorDataModel* m, void* ctx) { static_cast<std::set<QVMonitorDataModel*>*>(ctx)->insert(m); },
        &walked);
    EXPECT_EQ(walked.size(), 128u);
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) {
        QVPerThreadData_t* slot = &first[i];
        EXPECT_EQ(slot->tlsIdx, 64 + i);
        EXPECT_NE(slot->sequenceBlobLock, nullptr);
        EXPECT_NE(slot->updateBTLock, nullptr);
        EXPECT_EQ(walked.count(slot->tlMonitorDataModel), 1u) << "slot " << i;
    }
}

class MonitorRegistryConcurrency : public MonitorModelTest {};

// A merge walks the registry while blocks of records register their models.
TEST_F(MonitorRegistryConcurrency, WalkDuringRegistrationSeesAGrowingPrefix) {
    std::atomic<bool> done{false};
    std::atomic<int> lastSeen{0};
    std::atomic<bool> shrank{false};
    std::thread walker([&] {
        while (!done.load()) {
            int n = 0;
            forEachMonitorDataModel(
                [](QVMonitorDataModel* m, void* ctx) {
                    ASSERT_NE(m, nullptr);
                    ++*static_cast<int*>(ctx);
                },
                &n);
            if (n < lastSeen.load()) shrank = true;
            lastSeen = n;
        }
    });
    for (int b = 0; b < 20; b++) {
        QVLockGuard guard(tlsMutex);
        ASSERT_NE(create_tls_pool(0), nullptr);
    }
    done = true;
    walker.join();
    EXPECT_FALSE(shrank.load());
    EXPECT_EQ(qvMonitorModelCount(), 64 * 21);
}

TEST(BTCounters, GenericUpdateAndQueueTimeRule) {
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 100, 7, 3, 9, 0);
    EXPECT_EQ(c.queueCount, 1);
    EXPECT_EQ(c.cumQueueTime, 0);
    updateBTDataCounters(&c, QV_BT_CATEGORY_SLOW, 300, 5, 1, 4, 12);
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 50, 9, 2, 2, -1);
    EXPECT_EQ(c.count, 3);
    EXPECT_EQ(c.duration, 450);
    EXPECT_EQ(c.minDuration, 50);
    EXPECT_EQ(c.maxDuration, 300);
    EXPECT_EQ(c.cpuTime, 21);
    EXPECT_EQ(c.minCpuTime, 5);
    EXPECT_EQ(c.maxCpuTime, 9);
    EXPECT_EQ(c.cumSyncTime, 6);
    EXPECT_EQ(c.minSyncTime, 1);
    EXPECT_EQ(c.maxSyncTime, 3);
    EXPECT_EQ(c.cumWaitTime, 15);
    EXPECT_EQ(c.minWaitTime, 2);
    EXPECT_EQ(c.maxWaitTime, 9);
    EXPECT_EQ(c.queueCount, 3);
    EXPECT_EQ(c.cumQueueTime, 12);
    EXPECT_EQ(c.minQueueTime, 0);  // starts at 0 and stays there
    EXPECT_EQ(c.maxQueueTime, 12);
    EXPECT_EQ(c.normalCount, 2);
    EXPECT_EQ(c.normalDuration, 150);
    EXPECT_EQ(c.minNormalDuration, 50);
    EXPECT_EQ(c.maxNormalDuration, 100);
    EXPECT_EQ(c.slowCount, 1);
    EXPECT_EQ(c.minVerySlowDuration, kUnsetMin);
}

TEST(BTCounters, CategoryDispatch) {
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    updateBTDataCounters(&c, QV_BT_CATEGORY_UNCATEGORISED, 80, 0, 0, 0, 0);
    EXPECT_EQ(c.count, 1);
    EXPECT_EQ(c.duration, 80);
    EXPECT_EQ(c.normalCount + c.slowCount + c.verySlowCount + c.errorCount, 0);
    EXPECT_EQ(c.minNormalDuration, kUnsetMin);
    updateBTDataCounters(&c, static_cast<char>(157), 80, 0, 0, 0, 0);  // excluded
    updateBTDataCounters(&c, 0, 80, 0, 0, 0, 0);
    EXPECT_EQ(c.count, 1);
    updateBTDataCounters(&c, QV_BT_CATEGORY_VERY_SLOW, 6000, 0, 0, 0, 0);
    updateBTDataCounters(&c, QV_BT_CATEGORY_ERROR, 20, 0, 0, 0, 0);
    EXPECT_EQ(c.verySlowCount, 1);
    EXPECT_EQ(c.maxVerySlowDuration, 6000);
    EXPECT_EQ(c.errorCount, 1);
    EXPECT_EQ(c.minErrorDuration, 20);
    EXPECT_EQ(c.count, 3);
}

TEST(BTCounters, MergeRulesAndThreadBlockReinitialised) {
    QVBTMonitorDataCounters merged{};
    initQVBTMonitorDataCounters(&merged);
    QVBTMonitorDataCounters a{}, b{};
    initQVBTMonitorDataCounters(&a);
    initQVBTMonitorDataCounters(&b);
    updateBTDataCounters(&a, QV_BT_CATEGORY_NORMAL, 100, 10, 5, 40, 3);
    updateBTDataCounters(&b, QV_BT_CATEGORY_SLOW, 400, 30, 8, 70, 9);
    updateBTDataCountersForAggregate(&merged, &a);
    updateBTDataCountersForAggregate(&merged, &b);
    EXPECT_EQ(merged.count, 2);
    EXPECT_EQ(merged.duration, 500);
    EXPECT_EQ(merged.minDuration, 100);
    EXPECT_EQ(merged.maxDuration, 400);
    EXPECT_EQ(merged.maxCpuTime, 30);
    EXPECT_EQ(merged.cumWaitTime, 110);
    EXPECT_EQ(merged.minWaitTime, 40);
    // The inverted maximum test: a merged block starting at 0 keeps 0.
    EXPECT_EQ(merged.maxWaitTime, 0);
    EXPECT_EQ(merged.maxSyncTime, 0);
    EXPECT_EQ(merged.maxQueueTime, 0);
    EXPECT_EQ(merged.normalCount, 1);
    EXPECT_EQ(merged.slowCount, 1);
    EXPECT_EQ(merged.queueCount, 2);
    EXPECT_EQ(merged.cumQueueTime, 12);
    for (QVBTMonitorDataCounters* t : {&a, &b}) {
        EXPECT_EQ(t->count, 0);
        EXPECT_EQ(t->duration, 0);
        EXPECT_EQ(t->minDuration, kUnsetMin);
        EXPECT_EQ(t->minCpuTime, 9223372036854775807LL);
        EXPECT_EQ(t->maxWaitTime, 0);
        EXPECT_EQ(t->waitCount, 0);
        EXPECT_FALSE(btCountersHaveData(t));
    }
}

TEST(BTCounters, CountsSaturateInsteadOfOverflowing) {
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    c.count = 2147483647;
    c.duration = 9223372036854775807LL - 1;
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 10, 0, 0, 0, 0);
    EXPECT_EQ(c.count, 2147483647);
    EXPECT_EQ(c.duration, 9223372036854775807LL);
}

}  // namespace
