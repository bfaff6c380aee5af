// Tests of the per-thread monitor models: the array growth rule, the registry of models, the BT
// counter block's update, dispatch and merge rules.
#include <gtest/gtest.h>

#include <apr_time.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "bt/QVBTMonitorDataCounters.h"
#include "bt/bt_fixture.h"
#include "flowpath/QVTlsPoolReserve.h"
#include "foundation/qvlb_mem.h"

namespace {

constexpr long long kUnsetMin = 2147483647LL;

class MonitorModelTest : public BTAgentTest {};

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
    EXPECT_EQ(static_cast<long long*>(empty)[9], 0);
    qvlb_free(empty, "test", -1);

    // A failed allocation keeps the old array.
    void* small = qvlb_calloc(4 * 8, "test", -1);
    void* before = small;
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, -1);
    EXPECT_EQ(handleSizeDataArr(&small, 4, 100, 8), 4);
    qvlb_fault_reset();
    EXPECT_EQ(small, before);
    qvlb_free(small, "test", -1);
}

TEST_F(MonitorModelTest, PoolRecordsGetRegisteredModelsAndBtId128Grows) {
    QVPerThreadData_t* r = take();
    QVMonitorDataModel* m = r->tlMonitorDataModel;
    ASSERT_NE(m, nullptr);
    r->tlCategory = QV_BT_CATEGORY_NORMAL;
    r->tlDuration = 42;
    updatePropertiesOfBT(r, 128);
    EXPECT_EQ(m->currentSizeOfBTArray, 257);
    ASSERT_NE(m->btmDataArray[128], nullptr);
    EXPECT_EQ(ints(m->btmDataArray[128]->count, m->btmDataArray[128]->normalCount), ints(1, 1));

    updateChildFPCpuTimeOfBT(r, 7, 0, 0, 25);
    EXPECT_EQ(ints(m->btmDataArray[7]->cpuTime, m->btmDataArray[7]->count), ints(25, 0));

    // The pool's reset step forgets every block (without leaking them).
    resetMonitorDataModel(r);
    EXPECT_EQ(ints(m->btmDataArray[128] == nullptr, m->btmDataArray[7] == nullptr), ints(1, 1));
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

    // A record without a model (as in proxy mode) attaches the model first registered under its number.
    QVMonitorDataModel* firstOf11 = nullptr;
    for (QVPerThreadData_t* p = gFreeTLSHead; p != nullptr; p = p->free_next)
        if (p->tlThreadId == 11 && p != &second[0]) firstOf11 = p->tlMonitorDataModel;
    QVPerThreadData_t bare{}, fresh{};
    bare.tlThreadId = 11, fresh.tlThreadId = 999;
    EXPECT_EQ(checkAndInitMonitorDataModel(&bare), 0);
    EXPECT_EQ(bare.tlMonitorDataModel, firstOf11);
    EXPECT_EQ(checkAndInitMonitorDataModel(&fresh), 1);
    EXPECT_EQ(qvMonitorModelCount(), 129);
    {
        // A third use of the same numbers gets keys of its own too.
        QVLockGuard guard(tlsMutex);
        ASSERT_NE(create_tls_pool(10), nullptr);
    }
    EXPECT_EQ(qvMonitorModelCount(), 129 + QV_TLS_POOL_BLOCK);

    destroyQVMonitorDataModel();
    EXPECT_EQ(qvMonitorModelCount(), 0);
}

TEST_F(MonitorModelTest, GrownBlockIsNumberedLockedAndItsModelsRegisteredAfterTheTake) {
    std::vector<QVPerThreadData_t*> taken;
    for (int i = 0; i < 65; i++) taken.push_back(take());
    QVPerThreadData_t* first = taken[64];  // first record of the grown block
    // The record counts into its model at once; the registration may follow on the reserve's thread.
    ASSERT_NE(first->tlMonitorDataModel, nullptr);
    for (int i = 0; i < 200 && qvMonitorModelCount() < 128; i++) apr_sleep(5000);
    EXPECT_EQ(qvMonitorModelCount(), 128);
    std::set<QVMonitorDataModel*> walked;
    forEachMonitorDataModel(
        [](QVMonitorDataModel* m, void* ctx) { static_cast<std::set<QVMonitorDataModel*>*>(ctx)->insert(m); },
        &walked);
    EXPECT_EQ(walked.size(), 128u);
    // Numbered on from the first block (64 records were busy when it was carved); each model walked.
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++)
        EXPECT_EQ(ints(first[i].tlsIdx, first[i].tlThreadId, walked.count(first[i].tlMonitorDataModel)),
                  ints(64 + i, 65 + i, 1));
}

// Whether tlsMutex was free (seen from another thread) each time the test's thread made a model.
std::thread::id carver;
std::atomic<int> madeLocked{0}, madeFree{0};
void noteTlsMutex() {
    if (std::this_thread::get_id() != carver) return;
    bool free = false;
    std::thread([&] {
        free = apr_thread_mutex_trylock(tlsMutex) == APR_SUCCESS;
        if (free) apr_thread_mutex_unlock(tlsMutex);
    }).join();
    (free ? madeFree : madeLocked)++;
}

class MonitorRegistryConcurrency : public MonitorModelTest {};

// With no block ready, the request that empties the pool carves one without holding tlsMutex, so
// no other request waits for it.
TEST_F(MonitorRegistryConcurrency, ABlockCarvedByARequestLeavesThePoolUnlocked) {
    qvTlsPoolReserveStop();  // nothing ready, and no thread reading the hooks
    static QVFlowpathPoolHooks real = qvFlowpathPoolHooks;
    qvFlowpathPoolHooks.createMonitorDataModel = [] { return noteTlsMutex(), real.createMonitorDataModel(); };
    qvFlowpathPoolHooks.initQVMonitorDataModel = [](QVPerThreadData_t* r) {
        noteTlsMutex(), real.initQVMonitorDataModel(r);
    };
    carver = std::this_thread::get_id();
    for (int i = 0; i < QV_TLS_POOL_BLOCK + 1; i++) ASSERT_NE(take(), nullptr);
    qvTlsPoolReserveStop();  // the carve started it again
    carver = std::thread::id();
    qvFlowpathPoolHooks = real;
    EXPECT_EQ(madeLocked.load(), 0);
    EXPECT_EQ(madeFree.load(), QV_TLS_POOL_BLOCK);
    EXPECT_EQ(g_tlsidx, 2 * QV_TLS_POOL_BLOCK);
}

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

// The sums, minimums and maximums of each quantity show in the byte-exact 74 record test; here the
// per-category extremes over two requests and the queue-time rule.
TEST(BTCounters, CategoryExtremesAndQueueTimeRule) {
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 100, 7, 3, 9, 0);
    EXPECT_EQ(ints(c.queueCount, c.cumQueueTime), ints(1, 0));
    updateBTDataCounters(&c, QV_BT_CATEGORY_SLOW, 300, 5, 1, 4, 12);
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 50, 9, 2, 2, -1);
    // The queue minimum starts at 0 and stays.
    EXPECT_EQ(ints(c.queueCount, c.cumQueueTime, c.minQueueTime, c.maxQueueTime), ints(3, 12, 0, 12));
    EXPECT_EQ(ints(c.normalCount, c.normalDuration, c.minNormalDuration, c.maxNormalDuration),
              ints(2, 150, 50, 100));
}

TEST(BTCounters, CategoryDispatchAndSaturation) {
    QVBTMonitorDataCounters c{};
    initQVBTMonitorDataCounters(&c);
    updateBTDataCounters(&c, QV_BT_CATEGORY_UNCATEGORISED, 80, 0, 0, 0, 0);
    EXPECT_EQ(ints(c.count, c.duration, c.normalCount + c.slowCount + c.verySlowCount + c.errorCount),
              ints(1, 80, 0));
    EXPECT_EQ(c.minNormalDuration, kUnsetMin);
    updateBTDataCounters(&c, static_cast<char>(157), 80, 0, 0, 0, 0);  // excluded
    EXPECT_EQ(c.count, 1);
    updateBTDataCounters(&c, QV_BT_CATEGORY_VERY_SLOW, 6000, 0, 0, 0, 0);
    updateBTDataCounters(&c, QV_BT_CATEGORY_ERROR, 20, 0, 0, 0, 0);
    EXPECT_EQ(ints(c.verySlowCount, c.maxVerySlowDuration, c.errorCount, c.minErrorDuration, c.count),
              ints(1, 6000, 1, 20, 3));

    // Counts saturate instead of overflowing.
    c.count = 2147483647;
    c.duration = 9223372036854775807LL - 1;
    updateBTDataCounters(&c, QV_BT_CATEGORY_NORMAL, 10, 0, 0, 0, 0);
    EXPECT_EQ(ints(c.count, c.duration), ints(2147483647, 9223372036854775807LL));
}

TEST(BTCounters, MergeRulesAndThreadBlockReinitialised) {
    QVBTMonitorDataCounters merged{}, a{}, b{};
    for (QVBTMonitorDataCounters* x : {&merged, &a, &b}) initQVBTMonitorDataCounters(x);
    updateBTDataCounters(&a, QV_BT_CATEGORY_NORMAL, 100, 10, 5, 40, 3);
    updateBTDataCounters(&b, QV_BT_CATEGORY_SLOW, 400, 30, 8, 70, 9);
    updateBTDataCountersForAggregate(&merged, &a);
    updateBTDataCountersForAggregate(&merged, &b);
    EXPECT_EQ(ints(merged.count, merged.duration, merged.minDuration, merged.maxDuration),
              ints(2, 500, 100, 400));
    EXPECT_EQ(ints(merged.maxCpuTime, merged.cumWaitTime, merged.minWaitTime), ints(30, 110, 40));
    // The inverted maximum test: a merged block starting at 0 keeps 0.
    EXPECT_EQ(ints(merged.maxWaitTime, merged.maxSyncTime, merged.maxQueueTime), ints(0, 0, 0));
    EXPECT_EQ(ints(merged.normalCount, merged.slowCount, merged.queueCount, merged.cumQueueTime),
              ints(1, 1, 2, 12));
    for (QVBTMonitorDataCounters* t : {&a, &b}) {
        EXPECT_EQ(ints(t->count, t->duration, t->minDuration, t->minCpuTime, t->maxWaitTime, t->waitCount),
                  ints(0, 0, kUnsetMin, 9223372036854775807LL, 0, 0));
        EXPECT_FALSE(btCountersHaveData(t));
    }
}

}  // namespace
