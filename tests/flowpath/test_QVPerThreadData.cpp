// Tests of the per-transaction record pool: block growth, the lost-record rule, resets, the
// test-stop walk, the hotspot table and concurrent take/give back.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "flowpath/QVTlsPoolReserve.h"
#include "flowpath/flowpath_fixture.h"
#include "foundation/qvlb_atomic.h"

namespace {

class PoolTest : public AgentTest {
  protected:
    void SetUp() override {
        startAgent();
        qv_flowpath_register_hooks();
    }
    // The start-up step, as core runs it.
    static void startPool() {
        qvAgentHooks.createTlsPool();
        ASSERT_NE(gFreeTLSHead, nullptr);
    }
    // Free and busy counts, then records ever created.
    static std::vector<long long> counts() { return ints(gFreeTLSCnt, gBusyTLSCnt, g_tlsidx); }
    // Takes the records numbered from..to-1 in order and marks their hotspot rows.
    static void takeMarked(int from, int to) {
        for (int i = from; i < to; i++) {
            QVPerThreadData_t* r = take();
            ASSERT_EQ(r->tlsIdx, i);
            tlsdatastruct.load()[i] = TLSDataStruct{r, 7, 9};
        }
    }
};

int countFreeReachable() {
    int n = 0;
    for (QVPerThreadData_t* p = gFreeTLSHead; p != nullptr; p = p->free_next) n++;
    return n;
}

bool emptyRow(const TLSDataStruct& row) {
    return row.Tlsdata == nullptr && row.threadId == 0 && row.timestamp == 0;
}

// The table has `rows` rows: the first `marked` keep their mark, the rest are empty.
void expectRows(int marked, int rows) {
    ASSERT_EQ(getTlsHotspotTableRows(), rows);
    TLSDataStruct* table = tlsdatastruct.load();
    for (int i = 0; i < rows; i++) EXPECT_TRUE(i < marked ? table[i].threadId == 7 : emptyRow(table[i])) << i;
}

TEST_F(PoolTest, SixtyFifthTakeCarvesSecondBlockAndGrowsHotspotTableZeroed) {
    startPool();
    takeMarked(0, 64);
    expectRows(64, 64);
    QVPerThreadData_t* r65 = get_free_tls_slot();
    ASSERT_NE(r65, nullptr);
    // tlThreadId: the busy count at carving time, plus slot + 1.
    EXPECT_EQ(ints(gFreeTLSCnt, gBusyTLSCnt, g_tlsidx, size_array, r65->tlsIdx, r65->tlThreadId),
              ints(63, 65, 128, 128, 64, 65));
    expectRows(64, 128);

    // Later growths (some into room allocated ahead, some into a new table) keep rows too.
    tlsdatastruct.load()[64] = TLSDataStruct{r65, 7, 9};
    takeMarked(65, 257);
    expectRows(257, 320);
}

// A record given back goes behind the untouched ones, cleared but keeping its identity; a second
// give-back changes nothing; one given back after the free list ran dry is lost.
TEST_F(PoolTest, RecordLifecycle) {
    qv_store(qvApplication->QVSys.fpTraceLevel, 1);
    startPool();
    QVPerThreadData_t* a = take();
    apr_thread_mutex_t* blobLock = a->sequenceBlobLock;
    ASSERT_NE(blobLock, nullptr);
    const long long idx = a->tlsIdx;
    a->tlStatusCode = 500, a->qTimeInMS = 12, a->sequenceBlobLen = 100, a->tlSQLObj.DBCallDepth = 3;
    strcpy(a->flowpathInstanceStr, "4611686018427387904");
    a->tlSQLObj.sqlId = 41, a->qvSessionId = 99;
    tlsdatastruct.load()[idx] = TLSDataStruct{a, 1234, 5678};
    resetAllThreadLocals(a, tlsdatastruct);
    free_tls_slot(a);
    EXPECT_TRUE(gBusyTLSHead == nullptr && gBusyTLSTail == nullptr);
    free_tls_slot(nullptr);
    free_tls_slot(a);
    EXPECT_EQ(counts(), ints(64, 0, 64));
    EXPECT_EQ(countFreeReachable(), 64);

    std::vector<QVPerThreadData_t*> held;
    for (int i = 0; i < 63; i++) held.push_back(take());
    ASSERT_EQ(take(), a);
    EXPECT_EQ(ints(a->tlStatusCode, a->qTimeInMS, a->sequenceBlobLen, a->tlSQLObj.DBCallDepth,
                   a->flowpathInstanceStr[0]),
              ints(200, -1, 0, 0, 0));
    // Kept: the query id, the session, the record's number and its lock.
    EXPECT_EQ(ints(a->tlSQLObj.sqlId, a->qvSessionId, a->tlsIdx, a->tlThreadId), ints(41, 99, idx, 1));
    EXPECT_EQ(a->sequenceBlobLock, blobLock);
    EXPECT_TRUE(emptyRow(tlsdatastruct.load()[idx]));

    QVPerThreadData_t* lost = held[10];
    free_tls_slot(lost);
    EXPECT_EQ(counts(), ints(1, 63, 64));
    QVPerThreadData_t* next = take();
    EXPECT_EQ(ints(next->tlsIdx, next->tlThreadId), ints(64, 64));
    for (QVPerThreadData_t* p = gFreeTLSHead; p != nullptr; p = p->free_next) EXPECT_NE(p, lost);
}

std::vector<QVPerThreadData_t*> dumped;
QVPerThreadData_t* takenDuringDump = nullptr;

void recordDump(QVPerThreadData_t* r) {
    dumped.push_back(r);
    // The walk must leave a consistent list while a flowpath is written.
    EXPECT_TRUE(gBusyTLSHead == nullptr || gBusyTLSHead->busy_prev == nullptr);
    EXPECT_TRUE(r != gBusyTLSHead && r != gBusyTLSTail);
    // Written under the record's lock: an application thread still in the transaction waits.
    std::thread([r] {
        if (apr_thread_mutex_trylock(r->sequenceBlobLock) == APR_SUCCESS) {
            apr_thread_mutex_unlock(r->sequenceBlobLock);
            ADD_FAILURE() << "record written out without its lock";
        }
    }).join();
}

// A transaction starting while test stop writes out the last running one.
void recordDumpAndTake(QVPerThreadData_t* r) {
    recordDump(r);
    if (takenDuringDump == nullptr) takenDuringDump = get_free_tls_slot();
}

TEST_F(PoolTest, DumpFromBusyListWritesAndReturnsEveryRecord) {
    startPool();
    dumped.clear();
    qvFlowpathPoolHooks.dumpIncompleteFPAtTestStop = recordDump;
    dumpFpFromBusyList();  // empty: nothing to do
    EXPECT_TRUE(dumped.empty());

    std::vector<QVPerThreadData_t*> busy;
    for (int i = 0; i < 5; i++) {
        busy.push_back(take());
        busy.back()->tlStatusCode = 500;
    }
    dumpFpFromBusyList();
    EXPECT_EQ(dumped, busy);
    EXPECT_EQ(ints(busy[4]->tlStatusCode, gFreeTLSCnt), ints(200, 64));

    // A record taken while the only busy one is being written is still reached.
    dumped.clear();
    takenDuringDump = nullptr;
    qvFlowpathPoolHooks.dumpIncompleteFPAtTestStop = recordDumpAndTake;
    QVPerThreadData_t* last = take();
    dumpFpFromBusyList();
    ASSERT_NE(takenDuringDump, nullptr);
    EXPECT_EQ(dumped, (std::vector<QVPerThreadData_t*>{last, takenDuringDump}));
    EXPECT_TRUE(gBusyTLSHead == nullptr && gBusyTLSTail == nullptr && gBusyTLSCnt == 0);
}

TEST_F(PoolTest, HotspotOffMeansNoTable) {
    qv_store(qvApplication->QVSys.qvEnableTxHotspot, 0);
    startPool();
    for (int i = 0; i < 65; i++) ASSERT_NE(take(), nullptr);
    EXPECT_EQ(tlsdatastruct.load(), nullptr);
    EXPECT_EQ(getTlsHotspotTableRows(), 0);

    // Switched on later: a directly carved block gets a 64-row table its records lie beyond.
    qv_store(qvApplication->QVSys.qvEnableTxHotspot, 1);
    QVPerThreadData_t* block = create_tls_pool(0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(ints(getTlsHotspotTableRows(), block->tlsIdx), ints(64, 128));
    resetAllThreadLocals(&block[63], tlsdatastruct);  // must not write past the table
    EXPECT_EQ(block[63].qTimeInMS, -1);
}

int modelsCreated = 0;
int modelsReset = 0;
char fakeModel;

TEST_F(PoolTest, MonitorModelsAndLocksFollowTheProxyMode) {
    modelsCreated = modelsReset = 0;
    qvFlowpathPoolHooks.initQVMonitorDataModel = [](QVPerThreadData_t* r) {
        modelsCreated++;
        r->tlMonitorDataModel = reinterpret_cast<QVMonitorDataModel*>(&fakeModel);
    };
    qvFlowpathPoolHooks.resetMonitorDataModelArrays = [](QVMonitorDataModel* m) {
        EXPECT_EQ(m, reinterpret_cast<QVMonitorDataModel*>(&fakeModel));
        modelsReset++;
    };
    startPool();
    EXPECT_EQ(modelsCreated, 64);
    for (int i = 0; i < 3; i++) take();
    resetMonitorDataModelFromTLS();  // 61 free plus 3 busy
    EXPECT_EQ(modelsReset, 64);

    // A process that only forwards to a proxy gets records without locks or models.
    qv_store(qvApplication->QVSys.proxyMode, 1);
    QVPerThreadData_t* block = create_tls_pool(0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(modelsCreated, 64);
    EXPECT_TRUE(block[0].sequenceBlobLock == nullptr && block[0].updateBTLock == nullptr);
    resetMonitorDataModel(&block[0]);  // no model: logged, not reset
    EXPECT_EQ(modelsReset, 64);
}

TEST_F(PoolTest, FailedBlockAllocationReturnsNullAndRecovers) {
#ifdef QV_FAULT_POINTS
    startPool();
    for (int i = 0; i < 64; i++) take();
    qvTlsPoolReserveStop();                 // no prepared block: the carve below allocates its own
    qvlb_fault_arm(QV_FAULT_MALLOC, 1, 1);  // the first is the hotspot table's, before the lock
    EXPECT_EQ(get_free_tls_slot(), nullptr);
    qvlb_fault_reset();
    EXPECT_EQ(counts(), ints(0, 64, 64));
    EXPECT_NE(take(), nullptr);
    EXPECT_EQ(g_tlsidx, 128);
#else
    GTEST_SKIP() << "fault points compiled out";
#endif
}

class PoolConcurrency : public PoolTest {};

TEST_F(PoolConcurrency, TakeAndGiveBackFromManyThreads) {
    startPool();
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    constexpr int kHold = 24;  // 40 to 96 held at once: the first block overflows now and then
    std::atomic<int> errors{0};
    std::atomic<int> ready{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            ready++;
            while (ready.load() < kThreads) std::this_thread::yield();
            QVPerThreadData_t* held[kHold];
            for (int round = 0; round < kRounds; round++) {
                int n = 10 + (round * 7 + t * 5) % 15;
                for (int i = 0; i < n; i++) {
                    held[i] = take();
                    if (held[i] == nullptr || held[i]->agentThreadID != 0) errors++;
                    if (held[i] != nullptr) held[i]->agentThreadID = t + 1;
                }
                std::this_thread::yield();
                for (int i = 0; i < n; i++) {
                    if (held[i] == nullptr) continue;
                    if (held[i]->agentThreadID != t + 1) errors++;
                    resetAllThreadLocals(held[i], tlsdatastruct);
                    free_tls_slot(held[i]);
                }
            }
        });
    }
    // Reads the hotspot table the way the sensor must: under tlsMutex, while it grows.
    std::thread sensor([&] {
        while (!done.load()) {
            QVLockGuard guard(tlsMutex);
            TLSDataStruct* table = tlsdatastruct.load();
            for (int i = 0; table != nullptr && i < getTlsHotspotTableRows(); i++)
                if (table[i].Tlsdata != nullptr) errors++;
        }
    });
    for (auto& th : threads) th.join();
    done = true;
    sensor.join();
    EXPECT_EQ(errors.load(), 0);
    // Lost records are still counted as free.
    EXPECT_EQ(counts(), ints(g_tlsidx, 0, g_tlsidx));
    EXPECT_TRUE(gBusyTLSHead == nullptr && gBusyTLSTail == nullptr);
    EXPECT_EQ(ints(g_tlsidx % 64, getTlsHotspotTableRows()), ints(0, g_tlsidx));
}

}  // namespace
