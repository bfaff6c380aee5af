// The pool of per-transaction records: block carving, take and give back, resets, and the
// test-stop walk over running flowpaths.
#include "flowpath/QVPerThreadData.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "collector/QVDataDispatcher.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "flowpath/QVTlsPoolReserve.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

// The memory trace reports these block and row sizes; a layout change must be deliberate.
static_assert(sizeof(QVPerThreadData_t) * QV_TLS_POOL_BLOCK == 1170432, "record layout changed");
static_assert(sizeof(TLSDataStruct) * QV_TLS_POOL_BLOCK == 1536, "hotspot row layout changed");

QV_INSTANCE_STATE_DEFINE(QVFlowpathPoolState, qvFlowpathPoolState)

QVFlowpathPoolHooks qvFlowpathPoolHooks = {};

namespace {

const char* const kModule = "FLOWPATH";
const char* const kHotspotPurpose = "Create tls data structure for hotspot";
const char* const kPoolPurpose = "Create TLS pool of QVPerThreadData_t";
const char* const kReallocPurpose = "Reallocating tlsdata";

#define hotspotRows (qvFlowpathPoolState().hotspotRows)
#define hotspotCap (qvFlowpathPoolState().hotspotCap)

int fpLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.fpTraceLevel) : 0;
}

bool hotspotOn() {
    return qvApplication != nullptr && getEnableTxHotspot() == 1;
}

// The mutex may be needed before start-up created it (tests, or an SDK call without connect);
// qvlb_create_nested_mutex makes concurrent first use create exactly one.
apr_thread_mutex_t* poolMutex() {
    apr_thread_mutex_t* m = qv_load_acquire(tlsMutex);
    if (m == nullptr) {
        qvlb_create_nested_mutex(&tlsMutex, nullptr);
        m = qv_load_acquire(tlsMutex);
    }
    return m;
}

void logMemset(const char* purpose, const void* p, size_t bytes) {
    QV_TRACE_IF(qv_load(qv_mem_trace_level) > 0, "MEMORY", "Info",
                "QVLB_MEMSET'ed (%s) done. ptr = $%p$, size = %d for index %u", purpose, p,
                static_cast<int>(bytes), static_cast<unsigned>(-1));
}

void rememberBlock(QVPerThreadData_t* block) {
    QVFlowpathPoolState& st = qvFlowpathPoolState();
    if (st.blockCount == st.blockCap) {
        int cap = st.blockCap == 0 ? 16 : st.blockCap * 2;
        void* p = qvlb_realloc(st.blocks, sizeof(QVPerThreadData_t*) * static_cast<size_t>(cap),
                               "TLS pool block list", -1);
        // A block not remembered is neither reset at test start nor freed by the test reset.
        if (p == nullptr) return;
        st.blocks = static_cast<QVPerThreadData_t**>(p);
        st.blockCap = cap;
    }
    st.blocks[st.blockCount++] = block;
}

// A zeroed hotspot table allocated before tlsMutex is taken, so that growing the table under the
// lock is a copy, not an allocation (a realloc there held every request waiting for a record
// while the kernel moved the pages). Doubling keeps the copies rare.
struct HotspotSpare {
    TLSDataStruct* table = nullptr;
    int cap = 0;
    TLSDataStruct* retired = nullptr;  // the table a growth replaced, freed after the lock
};

void prepareHotspotSpare(HotspotSpare* spare) {
    if (!hotspotOn() || qv_load(gFreeTLSCnt) != 0) return;
    const int cap = qv_load(hotspotCap);
    const int need = qv_load(g_tlsidx);
    if (need > INT_MAX / 2 - QV_TLS_POOL_BLOCK || cap >= need + QV_TLS_POOL_BLOCK) return;
    const int rows = std::max(2 * cap, need + QV_TLS_POOL_BLOCK);
    const size_t bytes = sizeof(TLSDataStruct) * static_cast<size_t>(rows);
    spare->table = static_cast<TLSDataStruct*>(qvlb_calloc(bytes, kHotspotPurpose, -1));
    if (spare->table == nullptr) return;
    // The copy into it happens under tlsMutex, where a fault would hold up every request.
    qvTlsFaultIn(spare->table, bytes);
    logMemset(kHotspotPurpose, spare->table, bytes);
    spare->cap = rows;
}

void releaseHotspotSpare(HotspotSpare* spare) {
    qvlb_free(spare->table, kHotspotPurpose, -1);
    qvlb_free(spare->retired, kHotspotPurpose, -1);
    *spare = HotspotSpare{};
}

// Grows the hotspot table to rows entries, zeroing the new ones. Caller holds tlsMutex.
void growHotspotTable(int rows, HotspotSpare* spare = nullptr) {
    TLSDataStruct* table = tlsdatastruct.load();
    if (rows <= hotspotRows && table != nullptr) return;
    if (table != nullptr && rows <= hotspotCap) {
        qv_store(hotspotRows, rows);  // allocated zeroed and never written beyond hotspotRows
        return;
    }
    if (spare != nullptr && spare->table != nullptr && spare->cap >= rows) {
        if (table != nullptr)
            memcpy(spare->table, table, sizeof(TLSDataStruct) * static_cast<size_t>(hotspotRows));
        tlsdatastruct.store(spare->table);
        qv_store(hotspotCap, spare->cap);
        qv_store(hotspotRows, rows);
        spare->retired = table;
        spare->table = nullptr;
        return;
    }
    size_t bytes = sizeof(TLSDataStruct) * static_cast<size_t>(rows);
    if (table == nullptr) {
        void* p = qvlb_calloc(bytes, kHotspotPurpose, -1);
        if (p == nullptr) return;
        logMemset(kHotspotPurpose, p, bytes);
        tlsdatastruct.store(static_cast<TLSDataStruct*>(p));
        qv_store(hotspotRows, rows);
        qv_store(hotspotCap, rows);
        return;
    }
    void* p = qvlb_realloc_logged(table, bytes, kReallocPurpose, -1, false);
    if (p == nullptr) return;  // the old table stays valid and in use
    auto* grown = static_cast<TLSDataStruct*>(p);
    size_t newBytes = sizeof(TLSDataStruct) * static_cast<size_t>(rows - hotspotRows);
    memset(grown + hotspotRows, 0, newBytes);
    logMemset(kReallocPurpose, grown + hotspotRows, newBytes);
    tlsdatastruct.store(grown);
    qv_store(hotspotRows, rows);
    qv_store(hotspotCap, rows);
}

// A record is busy exactly when it heads the busy list or has a predecessor there.
bool isBusyLocked(const QVPerThreadData_t* tls) {
    return tls == gBusyTLSHead || tls->busy_prev != nullptr;
}

// Body of free_tls_slot; caller holds tlsMutex. A record that dumpFpFromBusyList has already
// detached from the busy list is not busy any more but must still be given back.
void releaseLocked(QVPerThreadData_t* tls, bool detached) {
    if (!detached && !isBusyLocked(tls)) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Record %p is not on the busy list, hence returning",
                    static_cast<void*>(tls));
        return;
    }
    qv_store(gFreeTLSCnt, gFreeTLSCnt + 1);
    qv_store(gBusyTLSCnt, gBusyTLSCnt - 1);

    // Deliberately only the tail moves: see free_tls_slot's contract.
    if (gFreeTLSTail != nullptr) gFreeTLSTail->free_next = tls;
    tls->free_prev = gFreeTLSTail;
    tls->free_next = nullptr;
    gFreeTLSTail = tls;

    if (gBusyTLSHead == tls) gBusyTLSHead = tls->busy_next;
    if (gBusyTLSTail == tls) gBusyTLSTail = tls->busy_prev;
    if (tls->busy_prev != nullptr) tls->busy_prev->busy_next = tls->busy_next;
    if (tls->busy_next != nullptr) tls->busy_next->busy_prev = tls->busy_prev;
    tls->busy_next = nullptr;
    tls->busy_prev = nullptr;
}

// Steps 3 to 5 of get_free_tls_slot: moves the free list's head tls to the busy list. Caller
// holds tlsMutex.
void takeHeadLocked(QVPerThreadData_t* tls) {
    gFreeTLSHead = tls->free_next;
    tls->free_next = nullptr;
    tls->free_prev = nullptr;
    qv_store(gFreeTLSCnt, gFreeTLSCnt - 1);

    if (gBusyTLSTail != nullptr) {
        gBusyTLSTail->busy_next = tls;
        tls->busy_prev = gBusyTLSTail;
        tls->busy_next = nullptr;
        gBusyTLSTail = tls;
    } else {
        gBusyTLSHead = tls;
        gBusyTLSTail = tls;
        tls->busy_next = nullptr;
        tls->busy_prev = nullptr;
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "gBusyTLSHead and gBusyTLSTail is pointing to same");
    }
    qv_store(gBusyTLSCnt, gBusyTLSCnt + 1);
    // Under the lock rather than after it: another thread may be growing g_tlsidx.
    qv_store(size_array, g_tlsidx);
}

// Models of a new block that get_free_tls_slot registers once it has released tlsMutex: 64
// registrations (a hash insert each) would otherwise hold up every thread waiting for a record.
// Only the registration waits; the records count into their models from the start.
struct PendingRegistration {
    QVPerThreadData_t* pool;
    uint64_t slots;
};
thread_local bool tlDeferRegistration = false;
thread_local PendingRegistration tlPendingRegistration = {nullptr, 0};

}  // namespace

int tlsPoolProxyMode() {
    return qvApplication ? qv_load(qvApplication->QVSys.proxyMode) : 0;
}

bool tlsPoolForwardsOnly() {
    return tlsPoolProxyMode() == 1 && qv_load(QVProxy.proxyServerFlag) == 0;
}

namespace {

// A ready block from the reserve whose records have the locks the current proxy mode needs.
bool takeReadyBlock(QVTlsPreparedBlock* out) {
    if (!qvTlsPoolReserveTake(out)) return false;
    if (out->withLocks != tlsPoolForwardsOnly()) return true;
    // Prepared before the proxy mode changed: its records have the wrong set of locks.
    qvTlsPreparedBlockDiscard(out);
    return false;
}

// create_tls_pool with the block to link: *prepared when it holds one (taken over), else one carved
// here. Caller holds tlsMutex.
QVPerThreadData_t* linkBlockLocked(int loc_BusyTLSCnt, QVTlsPreparedBlock* given) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called,  num of slots = %d\n", QV_TLS_POOL_BLOCK);
    QVTlsPreparedBlock prepared = *given;
    *given = QVTlsPreparedBlock{};

    if (tlsdatastruct.load() == nullptr && hotspotOn()) growHotspotTable(QV_TLS_POOL_BLOCK);

    if (g_tlsidx > INT_MAX - QV_TLS_POOL_BLOCK) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Record index space exhausted, g_tlsidx = %d", g_tlsidx);
        qvTlsPreparedBlockDiscard(&prepared);
        return nullptr;
    }

    QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Going to allocte the new thread pool\n");
    int proxyMode = tlsPoolProxyMode();
    bool forwardsOnly = tlsPoolForwardsOnly();
    if (prepared.pool != nullptr && prepared.withLocks == forwardsOnly) qvTlsPreparedBlockDiscard(&prepared);
    if (prepared.pool == nullptr) {
        prepared = QVTlsPreparedBlock{};
        prepared.pool = static_cast<QVPerThreadData_t*>(
            qvlb_calloc(sizeof(QVPerThreadData_t) * QV_TLS_POOL_BLOCK, kPoolPurpose, -1));
        if (prepared.pool == nullptr) return nullptr;
        logMemset(kPoolPurpose, prepared.pool, sizeof(QVPerThreadData_t) * QV_TLS_POOL_BLOCK);
    }
    QVPerThreadData_t* pool = prepared.pool;
    rememberBlock(pool);
    uint64_t toRegister = 0;  // slots whose prepared model still has to be registered

    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) {
        QVPerThreadData_t* slot = &pool[i];
        slot->tlsIdx = g_tlsidx;
        qv_store(g_tlsidx, g_tlsidx + 1);
        if (!forwardsOnly) {
            if (slot->sequenceBlobLock == nullptr) qvlb_create_nested_mutex(&slot->sequenceBlobLock, nullptr);
            if (slot->updateBTLock == nullptr) qvlb_create_nested_mutex(&slot->updateBTLock, nullptr);
        }
        if (i + 1 < QV_TLS_POOL_BLOCK) {
            slot->free_next = &pool[i + 1];
        } else {
            slot->free_next = nullptr;
            gFreeTLSTail = slot;
            QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                        "Idx to last slot of pool = %d, its free_next is set to NULL", i);
        }
        slot->tlThreadId = static_cast<long long>(loc_BusyTLSCnt) + i + 1;
        QVMonitorDataModel* model = prepared.models[i];
        prepared.models[i] = nullptr;
        if (proxyMode != 1) {
            // A prepared model only needs registering under the number just given.
            if (model != nullptr && qvFlowpathPoolHooks.registerMonitorDataModel != nullptr) {
                qv_store_release(slot->tlMonitorDataModel, model);
                toRegister |= uint64_t{1} << i;
            } else if (qvFlowpathPoolHooks.initQVMonitorDataModel != nullptr) {
                if (model != nullptr && qvFlowpathPoolHooks.discardMonitorDataModel != nullptr)
                    qvFlowpathPoolHooks.discardMonitorDataModel(model);
                qvFlowpathPoolHooks.initQVMonitorDataModel(slot);
            }
        } else if (model != nullptr && qvFlowpathPoolHooks.discardMonitorDataModel != nullptr) {
            qvFlowpathPoolHooks.discardMonitorDataModel(model);
        }
        slot->busy_next = nullptr;
        slot->busy_prev = nullptr;
    }

    qv_store(gFreeTLSCnt, gFreeTLSCnt + QV_TLS_POOL_BLOCK);
    QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "After updating gBusyTLSCnt = %d", gBusyTLSCnt);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method Exit, gFreeTLSCnt=%d, tls_pool=%p", gFreeTLSCnt,
                static_cast<void*>(pool));
    if (tlDeferRegistration) {
        // Both wait for tlsMutex to be released: waking the reserve's thread here could hand it
        // the CPU while every other request waits for the lock.
        tlPendingRegistration = {pool, toRegister};
    } else {
        qvTlsRegisterBlockModels(pool, toRegister);
        qvTlsPoolReserveRequest();
    }
    return pool;
}

}  // namespace

QVPerThreadData_t* create_tls_pool(int loc_BusyTLSCnt) {
    QVLockGuard guard(poolMutex());
    QVTlsPreparedBlock prepared{};
    takeReadyBlock(&prepared);
    return linkBlockLocked(loc_BusyTLSCnt, &prepared);
}

QVPerThreadData_t* get_free_tls_slot() {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    QVPerThreadData_t* tls = nullptr;
    int grewAtBusyCount = -1;
    // A block this thread carved because none was ready: carved outside tlsMutex, so the other
    // requests that need a record meanwhile carve their own rather than wait for this one.
    QVTlsPreparedBlock own{};
    HotspotSpare spare;
    prepareHotspotSpare(&spare);
    for (;;) {
        bool carve = false;
        {
            QVLockGuard guard(poolMutex());
            int oldSize = g_tlsidx;
            if (gFreeTLSHead == nullptr) {
                if (own.pool == nullptr && !takeReadyBlock(&own)) {
                    carve = true;
                } else {
                    // Logged once the lock is released: a trace line is a file write.
                    grewAtBusyCount = gBusyTLSCnt;
                    tlDeferRegistration = true;
                    gFreeTLSHead = linkBlockLocked(gBusyTLSCnt, &own);
                    tlDeferRegistration = false;
                    if (gFreeTLSHead != nullptr && hotspotOn())
                        growHotspotTable(oldSize + QV_TLS_POOL_BLOCK, &spare);
                    QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                                "After updating gBusyTLSCnt = %d and new size=%d and g_tlsidx=%d",
                                gBusyTLSCnt, oldSize + QV_TLS_POOL_BLOCK, g_tlsidx);
                }
            }
            if (!carve) {
                tls = gFreeTLSHead;
                if (tls != nullptr) takeHeadLocked(tls);
            }
        }
        if (!carve) break;
        qvTlsPoolReserveRequest();
        if (!qvTlsPreparedBlockBuild(&own)) break;  // memory exhausted: no record
    }
    releaseHotspotSpare(&spare);
    // Another request linked a block while this one carved: keep the carved one for later.
    if (own.pool != nullptr && !qvTlsPoolReserveGive(&own)) qvTlsPreparedBlockDiscard(&own);
    if (tlPendingRegistration.pool != nullptr) {
        const PendingRegistration pending = tlPendingRegistration;
        tlPendingRegistration = {nullptr, 0};
        // The reserve's thread registers them and makes the next block;
        // this call then returns at once.
        if (!qvTlsPoolReserveRequest(pending.pool, pending.slots))
            qvTlsRegisterBlockModels(pending.pool, pending.slots);
    }
    QV_TRACE_IF(grewAtBusyCount >= 0, kModule, "Info",
                "TLS pool found to NULL allocating pool again; gBusyTLSCnt=%d", grewAtBusyCount);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit, tls = %p", static_cast<void*>(tls));
    return tls;
}

void free_tls_slot(QVPerThreadData_t* tls) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    if (tls == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Null argument is passed, hence returning");
        return;
    }
    {
        QVLockGuard guard(poolMutex());
        releaseLocked(tls, false);
    }
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
}

void resetAllThreadLocals(QVPerThreadData_t* qvTD, TLSDataStruct* hotspotTable) {
    if (qvTD == nullptr) return;
    // A handle of the record's last transaction may still be in use on another thread.
    QVLockGuard recordGuard(qvTD->sequenceBlobLock);

    qvTD->tlTierBackendName = nullptr;
    qvTD->tlIsFPCaptured = 0;
    qvTD->tlIsBTExcluded = 0;
    qvTD->tlIsForceDump = 0;
    qvTD->prevTierSeq = nullptr;
    qvTD->seqPfx = nullptr;
    qvTD->tlFPInstanceForFPHdr = nullptr;
    qvTD->reqURI = nullptr;
    qvTD->backendMetaRecord = nullptr;
    qvTD->trxId = nullptr;
    qvTD->methodRecord = nullptr;
    qvTD->tlCorrelationIdHeader[0] = '\0';
    qvTD->tlLogHttpConditionFlowpath = 0;
    qvTD->tlFirstTierFPID = nullptr;
    qvTD->tlLogCompleteFlowPath = 0;
    qvTD->currThreadSeq = nullptr;
    qvTD->tlThreadFromPool = 0;
    qvTD->sequenceBlob[0] = '\0';
    qvTD->tlIsFPHeaderDumped = 0;
    qvTD->tlCategory = 0;
    qvTD->isHttpCallOut = 0;
    qvTD->tlCassandraSQL = nullptr;
    qvTD->tlCassandraAdd = nullptr;
    qvTD->tlFPSeqBlockRecordBuffer = nullptr;
    qvTD->tlURL[0] = '\0';
    qvTD->tlURLParameters[0] = '\0';
    qvTD->tlUnCaughtExceptionCount = 0;
    qvTD->tlExceptionCount = 0;
    qvTD->tlTierBackendType = 0;
    qvTD->tlStatusCode = 200;
    qvTD->byteArray = 0;
    qvTD->tlServiceMethodDepth = 0;
    qvTD->tlServiceMethodId = 0;
    qvTD->tlServiceMethodCount = 0;
    qvTD->sequenceBlobLen = 0;
    qvTD->tlNonServiceMethodCount = 0;
    qvTD->tlSyntheticMonitor = 0;
    qvTD->tlTargetDepth = 0;
    qvTD->httpCallOutDepth = 0;
    qvTD->flowpathInstanceStr[0] = '\0';
    qvTD->flowpathInstance = 0;
    qvTD->seqNum = 0;
    qvTD->tlTestRunNumber = 0;
    qvTD->tlSeqNumberForTierCallOut = 0;
    qvTD->tlFlowPathTimeStampInMS = 0;
    qvTD->tlFpCPUTime = 0;
    qvTD->tlDuration = 0;
    qvTD->firstFlowpathInstance = 0;
    qvTD->prevFlowpathInstance = 0;
    qvTD->tlBackendSubType = 0;
    qvTD->tlTierStartTime = 0;
    qvTD->tlBTObj = nullptr;
    qvTD->tlSQLObj.DBCallDepth = 0;
    qvTD->setEndFPFlag = 0;
    qvTD->tlFlowpathType = 0;
    qvTD->agentThreadID = 0;
    qvTD->syncTime = 0;
    qvTD->waitTime = 0;
    qvTD->qTimeInMS = -1;
    qvTD->bitFlags = 0;

    if (hotspotTable == nullptr) return;
    // The caller's pointer may predate a growth that moved the table: use the current one.
    QVLockGuard guard(poolMutex());
    TLSDataStruct* table = tlsdatastruct.load();
    if (table == nullptr || qvTD->tlsIdx < 0 || qvTD->tlsIdx >= hotspotRows) return;
    TLSDataStruct& row = table[qvTD->tlsIdx];
    row.threadId = 0;
    row.timestamp = 0;
    row.Tlsdata = nullptr;
}

void resetMonitorDataModel(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    if (qvTD->tlMonitorDataModel == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "In reset tlsslot, tlMonitorDataModel is NULL");
        return;
    }
    if (qvFlowpathPoolHooks.resetMonitorDataModelArrays != nullptr)
        qvFlowpathPoolHooks.resetMonitorDataModelArrays(qvTD->tlMonitorDataModel);
}

void dumpFpFromBusyList() {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    bool empty;
    {
        QVLockGuard guard(poolMutex());
        empty = gBusyTLSHead == nullptr;
    }
    if (empty) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "gBusyTLSHead is null. Hence returning.");
        return;
    }
    for (;;) {
        QVPerThreadData_t* record;
        {
            QVLockGuard guard(poolMutex());
            record = gBusyTLSHead;
            if (record == nullptr) break;
            // Fully detached, not just skipped: the unlocked dump below must leave a consistent
            // busy list to threads that take or give back records meanwhile.
            gBusyTLSHead = record->busy_next;
            if (gBusyTLSHead != nullptr) gBusyTLSHead->busy_prev = nullptr;
            if (gBusyTLSTail == record) gBusyTLSTail = nullptr;
            record->busy_next = nullptr;
            record->busy_prev = nullptr;
        }
        {
            // One hold for both: an application thread may still be inside this transaction.
            QVLockGuard recordGuard(record->sequenceBlobLock);
            if (qvFlowpathPoolHooks.dumpIncompleteFPAtTestStop != nullptr)
                qvFlowpathPoolHooks.dumpIncompleteFPAtTestStop(record);
            resetAllThreadLocals(record, tlsdatastruct);
        }
        QVLockGuard guard(poolMutex());
        releaseLocked(record, true);
    }
    flushData();
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
}

void resetMonitorDataModelFromTLS() {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    {
        QVLockGuard guard(poolMutex());
        if (gFreeTLSHead == nullptr)
            QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Free TLS link list is empty.");
        if (gBusyTLSHead == nullptr)
            QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Busy TLS link list is empty.");
    }
    // Every record ever carved, block by block, rather than the two lists: walking links that other
    // threads relink would need the pool lock for the whole walk, and the busy list of an SDK
    // process holds every transaction since the last test stop. The lock is held only to read
    // the next block. Records lost to the free list's tail are reset too, so no stale count of
    // theirs survives into the new test run.
    for (int b = 0;; b++) {
        QVPerThreadData_t* block = nullptr;
        {
            QVLockGuard guard(poolMutex());
            const QVFlowpathPoolState& st = qvFlowpathPoolState();
            if (b >= st.blockCount) break;
            block = st.blocks[b];
        }
        for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) resetMonitorDataModel(&block[i]);
    }
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
}

int getTlsHotspotTableRows() {
    return qv_load(hotspotRows);
}

void qv_flowpath_pool_reset_for_test() {
    qvTlsPoolReserveStop();
    QVFlowpathPoolState& st = qvFlowpathPoolState();
    for (int b = 0; b < st.blockCount; b++) {
        for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) {
            QVPerThreadData_t* slot = &st.blocks[b][i];
            qvlb_destroy_mutex(&slot->sequenceBlobLock);
            qvlb_destroy_mutex(&slot->updateBTLock);
        }
        qvlb_free(st.blocks[b], kPoolPurpose, -1);
    }
    qvlb_free(st.blocks, "TLS pool block list", -1);
    st.blocks = nullptr;
    st.blockCount = 0;
    st.blockCap = 0;
    qvlb_free(tlsdatastruct.exchange(nullptr), kHotspotPurpose, -1);
    hotspotRows = 0;
    hotspotCap = 0;
    destroy_hashmap(fpiToTLS);
    fpiToTLS = nullptr;
    gFreeTLSHead = gFreeTLSTail = gBusyTLSHead = gBusyTLSTail = nullptr;
    gFreeTLSCnt = gBusyTLSCnt = g_tlsidx = size_array = 0;
    qvFlowpathPoolHooks = {};
    // tlsMutex stays: it lives in the control pool and is reused by the next start.
}
