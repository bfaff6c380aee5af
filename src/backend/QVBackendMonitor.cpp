// The backend monitor: counting a call, the merged array, the 75 records and the monitor switch.
#include "backend/QVBackendMonitor.h"

#include <cstdio>
#include <cstring>

#include "backend/QVBackendManager.h"
#include "backend/QVBackendMonitorDataModel.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"
#include "mm/QVMethodMonitor.h"

namespace {

constexpr QVBackendMonitor_t kStartValues = {
    0, QV_DEFAULT_MAX_IP_COUNT, "", "", 1, 0, QV_IP_INITIAL_AGG_SIZE, 0, 0, nullptr,
};

struct BackendMonitorState {
    QVBackendMonitor_t monitor = kStartValues;
    // Guards aggDataArraySize, aggIPDataArr and the prefixes, so that growth (registry), prefix
    // refresh (control thread) and generation (reporting thread) never overlap.
    apr_thread_mutex_t* ipAggLock = nullptr;
    // One report at a time and its own merged counters (see QVMonitorWorkArray): the merge runs
    // without ipAggLock, which a callout to a new backend takes.
    apr_thread_mutex_t* ipReportMutex = nullptr;
    QVMonitorWorkArray<QVBackendMonitorDataCounters> work;
};

}  // namespace

QV_INSTANCE_STATE_DEFINE(BackendMonitorState, backendMonitorState)

namespace {

#define ipAggLock (backendMonitorState().ipAggLock)
#define ipReportMutex (backendMonitorState().ipReportMutex)

int ipTraceLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.backendMonTraceLevel) : 0;
}

#define IP_TRACE(cond, severity, ...) QV_TRACE_IF(ipTraceLevel() cond, "BACKEND_MON", severity, __VA_ARGS__)

apr_thread_mutex_t* ipLock() {
    apr_thread_mutex_t* m = qv_load_acquire(ipAggLock);
    if (m == nullptr) {
        qvlb_create_nested_mutex(&ipAggLock, nullptr);
        m = qv_load_acquire(ipAggLock);
    }
    return m;
}

// The merged array with at least 128 prepared entries. Caller holds ipLock.
bool ensureAggArrayLocked() {
    if (QVBackendMonitor.aggIPDataArr != nullptr) return true;
    int size = QV_IP_INITIAL_AGG_SIZE;
    auto* arr = static_cast<QVBackendMonitorDataCounters*>(
        qvlb_calloc(sizeof(QVBackendMonitorDataCounters) * size, "aggIPDataArr", size));
    if (arr == nullptr) return false;
    for (int i = 0; i < size; i++) initOnStartInstrumentationIP(&arr[i]);
    QVBackendMonitor.aggIPDataArr = arr;
    qv_store(QVBackendMonitor.aggDataArraySize, size);
    return true;
}

// Merges one thread model's backend blocks into work; ctx holds the merged array's size when
// the report began.
void mergeModel(QVMonitorDataModel* model, void* ctx) {
    if (model == nullptr) return;
    QVLockGuard guard(model->lockForIP);
    int size = model->currentSizeOfBackendArray;
    if (size <= 0 || model->ipmDataArray == nullptr) return;
    int aggSize = *static_cast<int*>(ctx);
    if (size > aggSize) {
        IP_TRACE(> 0, "Error", "currentSizeOfBackendArray = %d is greater than aggDataArraySize = %d", size,
                 aggSize);
        return;
    }
    auto& work = backendMonitorState().work;
    for (int i = 0; i < size; i++) {
        QVBackendMonitorDataCounters* block = model->ipmDataArray[i];
        if (block == nullptr) continue;
        updateBackendDataCountersForAggregate(&work.arr[i], block);
        work.arr[i].dataExist = 1;
    }
}

}  // namespace

QVBackendMonitor_t& qvBackendMonitorOfInstance() {
    return backendMonitorState().monitor;
}

void createVectorPrefixBackend(QVBackendMonitor_t* monitor) {
    if (monitor == nullptr) return;
    char prefix[sizeof(monitor->vectorPrefix)];
    char prefixID[sizeof(monitor->vectorPrefixID)];
    formatMonitorVectorPrefixes(prefix, sizeof(prefix), prefixID, sizeof(prefixID));
    QVLockGuard guard(ipLock());
    memcpy(monitor->vectorPrefix, prefix, sizeof(prefix));
    memcpy(monitor->vectorPrefixID, prefixID, sizeof(prefixID));
    IP_TRACE(> 0, "Info", "vectorPrefix = %s, vectorPrefixID = %s", monitor->vectorPrefix,
             monitor->vectorPrefixID);
}

void refreshBackendVectorPrefix() {
    createVectorPrefixBackend(&QVBackendMonitor);
}

void QVBackendMonitorInit() {
    IP_TRACE(== 4, "Info", "Method called");
    createVectorPrefixBackend(&QVBackendMonitor);
    {
        QVLockGuard guard(ipLock());
        if (QVBackendMonitor.aggIPDataArr != nullptr) {
            for (int i = 0; i < QVBackendMonitor.aggDataArraySize; i++)
                initOnStartInstrumentationIP(&QVBackendMonitor.aggIPDataArr[i]);
        } else if (!ensureAggArrayLocked()) {
            IP_TRACE(> 0, "Error", "Could not allocate the merged backend array of %d entries",
                     QV_IP_INITIAL_AGG_SIZE);
        }
    }
    qv_store(QVBackendMonitor.numberOfThreads, 0);
    qv_store(QVBackendMonitor.isBackendMonitorOn, 1);
    IP_TRACE(> 0, "Info", "Backend monitor initialised: aggDataArraySize = %d, maxIPCount = %d",
             qv_load(QVBackendMonitor.aggDataArraySize), qv_load(QVBackendMonitor.maxIPCount));
    IP_TRACE(== 4, "Info", "Method exit");
}

char updateCounterAndDurationForBackend(QVPerThreadData_t* qvTD, methodPropProperties* mpp,
                                        long long duration, char isError) {
    IP_TRACE(== 4, "Info", "Method called");
    int id = mpp ? mpp->methodId : 0;
    if (qvTD == nullptr || qv_load(QVBackendMonitor.isBackendMonitorOn) == 0 || id <= 0) {
        IP_TRACE(> 0, "Info", "Returning from Backend Monitor as Backend id '%d' and duration is '%d'", id,
                 static_cast<int>(duration));
        return 1;
    }
    if (qv_load_acquire(qvTD->tlMonitorDataModel) == nullptr) {
        int created = checkAndInitMonitorDataModel(qvTD);
        if (created < 0) return 1;
        if (created == 1) {
            int threads = __atomic_add_fetch(&QVBackendMonitor.numberOfThreads, 1, __ATOMIC_RELAXED);
            IP_TRACE(> 0, "Info", "Current number of threads inside threadModelMap : %d", threads);
        }
    }
    char notCounted = updatePropertiesOfBackend(qvTD, id, duration, isError) == 0 ? 0 : 1;
    IP_TRACE(== 4, "Info", "Method exit");
    return notCounted;
}

void checkAndIncrementAggrBackendDataArray(methodPropProperties* mpp) {
    if (mpp == nullptr || mpp->methodId < 0) return;
    int id = mpp->methodId;
    QVLockGuard guard(ipLock());
    if (!ensureAggArrayLocked()) {
        IP_TRACE(> 0, "Error", "Backend %d refused: no merged backend array", id);
        return;
    }
    int size = QVBackendMonitor.aggDataArraySize;
    if (id >= size) {
        int newSize = handleSizeDataArrOf(&QVBackendMonitor.aggIPDataArr, size, id, "aggIPDataArr");
        if (id >= newSize) {
            IP_TRACE(> 0, "Error", "Backend %d refused: merged backend array could not grow from %d entries",
                     id, size);
            return;
        }
        for (int i = size; i < newSize; i++) initOnStartInstrumentationIP(&QVBackendMonitor.aggIPDataArr[i]);
        qv_store(QVBackendMonitor.aggDataArraySize, newSize);
        IP_TRACE(> 0, "Info", "handleSizeBTArr completed ... newLength = %d", newSize);
    }
    QVBackendMonitor.aggIPDataArr[id].mpp = mpp;
}

bool dump75RecordForEveryIP(char* buf, int* len, QVBackendMonitorDataCounters* block, int backendId,
                            const char* name) {
    if (block == nullptr) return false;
    IP_TRACE(> 2, "Info", "Dumping 75 record started ...");
    int interval = qv_load(QVSettings.qvMonitorIntervalInSecs);
    double rate = interval != 0 ? static_cast<double>(block->count) / interval : 0.0;
    double avg =
        block->count != 0 ? static_cast<double>(block->duration) / static_cast<double>(block->count) : 0.0;
    // Large enough for both prefixes and any backend name; a longer line is dropped.
    char line[8192];
    int n = snprintf(line, sizeof(line), "%d,%s%d:%s%s|%lld %lf %lf %lld %lld %lld %lld\n", 75,
                     QVBackendMonitor.vectorPrefixID, backendId, QVBackendMonitor.vectorPrefix,
                     name ? name : "", block->cumCount, rate, avg, block->minDuration, block->maxDuration,
                     block->count, block->errorCount);
    // A line cut by the local buffer is handed over as "does not fit", so the drop is counted and
    // logged like any other.
    bool cut = n < 0 || n >= static_cast<int>(sizeof(line));
    int rc =
        appendMonitorRecord(buf, len, cut ? 0 : QV_MONITOR_BUFFER_SIZE, line, cut ? 0 : n, 75, "BACKEND_MON");
    IP_TRACE(> 2, "Info", "Dumping 75 record started ...Where length of current record is : '%d'", n);
    return rc == 0;
}

bool generateAndDumpBackendMonitoringRecord(char* buf, int* len) {
    IP_TRACE(== 4, "Info", "Method called");
    if (buf == nullptr || len == nullptr) return false;
    if (qvMonitorModelCount() == 0) {
        IP_TRACE(> 0, "Info",
                 "Returnign without dumping any monitoring record,as no threads executed any BT yet.");
        return false;
    }
    QVLockGuard report(qvMonitorLazyLock(&ipReportMutex));
    auto& work = backendMonitorState().work;
    int size;
    {
        QVLockGuard guard(ipLock());
        if (!ensureAggArrayLocked()) return false;
        size = QVBackendMonitor.aggDataArraySize;
    }
    if (!qvMonitorWorkReserve(&work, size, initOnStartInstrumentationIP, "backend monitor report"))
        return false;
    forEachMonitorDataModel(mergeModel, &size);
    {
        // The array only grows, so every entry below size is still there, maybe moved.
        QVLockGuard guard(ipLock());
        for (int i = 1; i < size; i++)
            if (work.arr[i].dataExist) work.arr[i].mpp = QVBackendMonitor.aggIPDataArr[i].mpp;
    }
    for (int i = 1; i < size; i++) {
        QVBackendMonitorDataCounters* entry = &work.arr[i];
        if (!entry->dataExist) continue;
        methodPropProperties* mpp = entry->mpp;
        if (mpp != nullptr) {
            const char* name = qv_load(mpp->type) == 2 ? getDBIPName() : mpp->methodName;
            dump75RecordForEveryIP(buf, len, entry, i, name);
        } else {
            IP_TRACE(> 0, "Error", "Backend %d has data but no registered backend; not reported", i);
        }
        initOnStartInstrumentationIP(entry);
    }
    IP_TRACE(== 4, "Info", "Method exit");
    return true;
}

void setBackendMonitorEnabled(int enable) {
    qv_store(QVBackendMonitor.isBackendMonitorOn, enable > 0 ? 1 : 0);
    IP_TRACE(> 0, "Info", "isBackendMonitorOn = %d", qv_load(QVBackendMonitor.isBackendMonitorOn));
}

int setBackendMonitorEnabled(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    setBackendMonitorEnabled(qvParseInt(value));
    return 0;
}

void QVBackendMonitorKeywordInit() {
    qv_store(QVBackendMonitor.isBackendMonitorOn, 0);
    qv_store(QVBackendMonitor.maxIPCount, QV_DEFAULT_MAX_IP_COUNT);
}

void qvBackendMonitorResetForTest() {
    {
        QVLockGuard report(qvMonitorLazyLock(&ipReportMutex));
        qvMonitorWorkFree(&backendMonitorState().work, "backend monitor report");
    }
    qvlb_free(QVBackendMonitor.aggIPDataArr, "aggIPDataArr", -1);
    QVBackendMonitor = kStartValues;
    if (ipAggLock != nullptr) {
        std::lock_guard<std::recursive_mutex> poolGuard(qvlb_pool_lock());
        apr_thread_mutex_destroy(ipAggLock);
        ipAggLock = nullptr;
    }
}
