// The method monitor: per-thread counting, the merged array, the 61 records and the keyword
// handlers of the monitor and of the vector separator.
#include "mm/QVMethodMonitor.h"

#include <cstdio>
#include <cstring>

#include "bt/QVBTMonitor.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {

constexpr QVMethodMonitor_t kStartValues = {
    QV_MM_INITIAL_AGG_SIZE, nullptr, "", "", 0, 0, 1, 0, 0, 0, 256, 0, 0, 0,
};

struct MethodMonitorState {
    QVMethodMonitor_t monitor = kStartValues;
    // Guards aggDataArraySize, aggMethodDataArr and the prefixes: growth from the registry, prefix
    // refresh from the control thread and generation on the reporting thread all take it, so a
    // report never sees the array move.
    apr_thread_mutex_t* mmAggLock = nullptr;
    // One report at a time and its own merged counters (see QVMonitorWorkArray): the merge runs
    // without mmAggLock, which a request registering a new method takes.
    apr_thread_mutex_t* mmReportMutex = nullptr;
    QVMonitorWorkArray<QVMethodMonitorDataCounters> work;
};

}  // namespace

QV_INSTANCE_STATE(MethodMonitorState, methodMonitorState)

namespace {

#define mmAggLock (methodMonitorState().mmAggLock)
#define mmReportMutex (methodMonitorState().mmReportMutex)

int mmTraceLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.methodMonTraceLevel) : 0;
}

#define MM_TRACE(cond, severity, ...) QV_TRACE_IF(mmTraceLevel() cond, "METHOD_MON", severity, __VA_ARGS__)

apr_thread_mutex_t* mmLock() {
    apr_thread_mutex_t* m = qv_load_acquire(mmAggLock);
    if (m == nullptr) {
        qvlb_create_nested_mutex(&mmAggLock, nullptr);
        m = qv_load_acquire(mmAggLock);
    }
    return m;
}

// The merged array with at least 128 initialised entries. Caller holds mmLock.
bool ensureAggArrayLocked() {
    if (QVMethodMonitor.aggMethodDataArr != nullptr) return true;
    int size = QV_MM_INITIAL_AGG_SIZE;
    auto* arr = static_cast<QVMethodMonitorDataCounters*>(
        qvlb_calloc(sizeof(QVMethodMonitorDataCounters) * size, "aggMethodDataArr", size));
    if (arr == nullptr) return false;
    for (int i = 0; i < size; i++) initQVMethodMonitorDataCounters(&arr[i]);
    QVMethodMonitor.aggMethodDataArr = arr;
    qv_store(QVMethodMonitor.aggDataArraySize, size);
    return true;
}

// Merges one thread model's method blocks into work; ctx holds the merged array's size when the
// report began.
void mergeModel(QVMonitorDataModel* model, void* ctx) {
    if (model == nullptr) return;
    QVLockGuard guard(model->lockForMM);
    int size = model->currentSizeOfMethodArray;
    if (size <= 0 || model->mmDataArray == nullptr) return;
    int aggSize = *static_cast<int*>(ctx);
    if (size > aggSize) {
        // Its blocks keep counting and are merged once the merged array has grown to hold them.
        MM_TRACE(> 0, "Error", "currentSizeOfMethodArray '%d' > aggDataArraySize '%d'", size, aggSize);
        return;
    }
    QVMonitorWorkArray<QVMethodMonitorDataCounters>& work = methodMonitorState().work;
    for (int i = 0; i < size; i++) {
        QVMethodMonitorDataCounters* block = model->mmDataArray[i];
        if (block == nullptr) continue;
        updateMethodDataCountersForAggregate(&work.arr[i], block);
        work.arr[i].dataExist = 1;
    }
}

int parseValue(const char* value) {
    return qvParseInt(value);
}

}  // namespace

QVMethodMonitor_t& qvMethodMonitorOfInstance() {
    return methodMonitorState().monitor;
}
QVInstanceInfoHooks qvInstanceInfoHooks;

void formatMonitorVectorPrefixes(char* prefix, size_t prefixLen, char* prefixID, size_t prefixIDLen) {
    const char* tier = qvApplication ? getTierName() : nullptr;
    const char* server = qvApplication ? getAppServerName() : nullptr;
    const char* app = qvApplication ? getAppName() : nullptr;
    char sep = qv_load(QVSettings.qvVectorSeperator);
    int tierID = qvApplication ? qv_load(qvApplication->QVBCISetting.tierID) : 0;
    int appID = qvApplication ? qv_load(qvApplication->QVBCISetting.appID) : 0;
    if (prefix != nullptr && prefixLen > 0)
        snprintf(prefix, prefixLen, "%s%c%s%c%s%c", tier ? tier : "", sep, server ? server : "", sep,
                 app ? app : "", sep);
    if (prefixID != nullptr && prefixIDLen > 0) snprintf(prefixID, prefixIDLen, "%d|%d|", tierID, appID);
}

void createVectorPrefixMethod(QVMethodMonitor_t* monitor) {
    if (monitor == nullptr) return;
    char prefix[sizeof(monitor->vectorPrefix)];
    char prefixID[sizeof(monitor->vectorPrefixID)];
    formatMonitorVectorPrefixes(prefix, sizeof(prefix), prefixID, sizeof(prefixID));
    QVLockGuard guard(mmLock());
    memcpy(monitor->vectorPrefix, prefix, sizeof(prefix));
    memcpy(monitor->vectorPrefixID, prefixID, sizeof(prefixID));
    MM_TRACE(> 0, "Info", "vectorPrefix = %s, vectorPrefixID = %s", monitor->vectorPrefix,
             monitor->vectorPrefixID);
}

void QVMethodMonitorInit() {
    MM_TRACE(== 4, "Info", "Method called");
    createVectorPrefixMethod(&QVMethodMonitor);
    {
        QVLockGuard guard(mmLock());
        QVMethodMonitor.currentReportingCount = 0;
        if (!ensureAggArrayLocked())
            MM_TRACE(> 0, "Error", "Could not allocate the merged method array of %d entries",
                     QV_MM_INITIAL_AGG_SIZE);
    }
    qv_store(QVMethodMonitor.methodMonitorTraceLevel, 0);
    qv_store(QVMethodMonitor.methodMonitorErrorLevel, 0);
    qv_store(QVMethodMonitor.sendReSetEventOnAggDataConn, 0);
    qv_store(QVMethodMonitor.maxMethodCount, 256);
    qv_store(QVMethodMonitor.numberOfThreads, 0);
    qv_store(QVMethodMonitor.isMethodMonitorOn, 1);
    MM_TRACE(> 0, "Info", "Method monitor initialised: aggDataArraySize = %d, maxMethodCount = %d",
             qv_load(QVMethodMonitor.aggDataArraySize), qv_load(QVMethodMonitor.maxMethodCount));
    MM_TRACE(== 4, "Info", "Method exit");
}

bool updateCounterAndDurationForMethod(QVPerThreadData_t* qvTD, methodPropProperties* mpp,
                                       long long duration) {
    MM_TRACE(== 4, "Info", "Method called");
    char on = qv_load(QVMethodMonitor.isMethodMonitorOn);
    int id = mpp ? mpp->methodId : 0;
    if (qvTD == nullptr || on == 0 || id <= 0) {
        MM_TRACE(> 0, "Info", "Returning from update counters, isMethodMonitorOn = %d, methodID = %d", on,
                 id);
        return false;
    }
    if (qv_load_acquire(qvTD->tlMonitorDataModel) == nullptr) {
        int created = checkAndInitMonitorDataModel(qvTD);
        if (created < 0) return false;
        if (created == 1) {
            int threads = __atomic_add_fetch(&QVMethodMonitor.numberOfThreads, 1, __ATOMIC_RELAXED);
            MM_TRACE(> 0, "Info", "Current number of threads inside threadModelMap : %d", threads);
        }
    }
    bool counted = updatePropertiesOfMethod(qvTD, mpp->methodName, id, duration) == 0;
    MM_TRACE(== 4, "Info", "Method exit");
    return counted;
}

int updatePropertiesOfMethod(QVPerThreadData_t* qvTD, const char* methodName, int methodId,
                             long long duration) {
    if (qvTD == nullptr || methodId < 0) return -1;
    QVMonitorDataModel* model = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (model == nullptr) return -1;
    qv_store(model->lastUpdateTimeStamp, my_gettimeofday());
    QVLockGuard guard(model->lockForMM);
    if (model->mmDataArray == nullptr || methodId >= model->currentSizeOfMethodArray) {
        model->currentSizeOfMethodArray = handleSizeDataArrOf(
            &model->mmDataArray, model->currentSizeOfMethodArray, methodId, "mmDataArray");
        if (model->mmDataArray == nullptr || methodId >= model->currentSizeOfMethodArray) {
            MM_TRACE(> 0, "Error", "Method %d not counted: mmDataArray could not grow", methodId);
            return -1;
        }
    }
    QVMethodMonitorDataCounters*& block = model->mmDataArray[methodId];
    if (block == nullptr) {
        block = static_cast<QVMethodMonitorDataCounters*>(
            qvlb_calloc(sizeof(QVMethodMonitorDataCounters), "mmDataArray", methodId));
        if (block == nullptr) return -1;
        initQVMethodMonitorDataCounters(block);
    }
    updateMethodDataCounters(qvTD, methodName, methodId, duration);
    return 0;
}

void checkAndIncrementAggrMethodDataArray(methodPropProperties* mpp) {
    if (mpp == nullptr || mpp->methodId < 0) return;
    int id = mpp->methodId;
    QVLockGuard guard(mmLock());
    if (!ensureAggArrayLocked()) {
        MM_TRACE(> 0, "Error", "Method %d refused: no merged method array", id);
        return;
    }
    int size = QVMethodMonitor.aggDataArraySize;
    if (id >= size) {
        int newSize = handleSizeDataArrOf(&QVMethodMonitor.aggMethodDataArr, size, id, "aggMethodDataArr");
        if (id >= newSize) {
            MM_TRACE(> 0, "Error", "Method %d refused: merged method array could not grow from %d entries",
                     id, size);
            return;
        }
        for (int i = size; i < newSize; i++)
            initQVMethodMonitorDataCounters(&QVMethodMonitor.aggMethodDataArr[i]);
        qv_store(QVMethodMonitor.aggDataArraySize, newSize);
        MM_TRACE(> 0, "Info", "handleSizeBTArr completed ... newLength = %d", newSize);
    }
    QVMethodMonitor.aggMethodDataArr[id].mpp = mpp;
}

bool dump61RecordForEveryMethod(char* buf, int* len, QVMethodMonitorDataCounters* block, int methodId,
                                const char* name) {
    if (block == nullptr) return false;
    MM_TRACE(> 2, "Info", "Dumping 61 record started ...");
    int interval = qv_load(QVSettings.qvMonitorIntervalInSecs);
    double rate = interval != 0 ? static_cast<double>(block->count) / interval : 0.0;
    double avg = block->count != 0 ? static_cast<double>(block->duration) / block->count : 0.0;
    // Large enough for both prefixes and any name a profile carries; a longer line is dropped.
    char line[8192];
    int n = snprintf(line, sizeof(line), "%d,%s%d:%s%s|%d %lf %lf %lf %lld %d\n", 61,
                     QVMethodMonitor.vectorPrefixID, methodId, QVMethodMonitor.vectorPrefix, name ? name : "",
                     block->cumCount, rate, avg, checkAndGetLongMinValue(block->minDuration),
                     block->maxDuration, block->count);
    // A line cut by the local buffer goes to appendMonitorRecord as "does not fit" so the drop is
    // counted and logged like any other.
    bool cut = n < 0 || n >= static_cast<int>(sizeof(line));
    int rc =
        appendMonitorRecord(buf, len, cut ? 0 : QV_MONITOR_BUFFER_SIZE, line, cut ? 0 : n, 61, "METHOD_MON");
    MM_TRACE(> 2, "Info", "Dumping 61 record started ...Where length of current record is : '%d'", n);
    return rc == 0;
}

bool generateAndDumpMethodMonitoringRecord(char* buf, int* len) {
    MM_TRACE(== 4, "Info", "Method called");
    if (buf == nullptr || len == nullptr) return false;
    if (qvMonitorModelCount() == 0) {
        MM_TRACE(> 0, "Info",
                 "Returnign without dumping any monitoring record, as no threads executed any Method yet.");
        return false;
    }
    QVLockGuard report(qvMonitorLazyLock(&mmReportMutex));
    QVMonitorWorkArray<QVMethodMonitorDataCounters>& work = methodMonitorState().work;
    int size;
    {
        QVLockGuard guard(mmLock());
        if (!ensureAggArrayLocked()) return false;
        size = QVMethodMonitor.aggDataArraySize;
    }
    if (!qvMonitorWorkReserve(&work, size, initQVMethodMonitorDataCounters, "method monitor report"))
        return false;
    forEachMonitorDataModel(mergeModel, &size);
    {
        // The array only grows, so every entry below size is still there, maybe moved.
        QVLockGuard guard(mmLock());
        for (int i = 1; i < size; i++)
            if (work.arr[i].dataExist) work.arr[i].mpp = QVMethodMonitor.aggMethodDataArr[i].mpp;
    }
    for (int i = 1; i < size; i++) {
        QVMethodMonitorDataCounters* entry = &work.arr[i];
        if (!entry->dataExist) continue;
        methodPropProperties* mpp = entry->mpp;
        if (mpp != nullptr) {
            const char* alias = qv_load_acquire(mpp->aliasMethodName);
            const char* name = alias != nullptr && alias[0] != '\0' ? alias : mpp->methodName;
            dump61RecordForEveryMethod(buf, len, entry, mpp->methodId, name);
        } else {
            MM_TRACE(> 0, "Error", "Method %d has data but no registered method; not reported", i);
        }
        initQVMethodMonitorDataCounters(entry);
        entry->dataExist = 0;
    }
    MM_TRACE(== 4, "Info", "Method exit");
    return true;
}

int parseMethodMonitorKeyword(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    qv_store(QVMethodMonitor.isMethodMonitorOn, parseValue(value) >= 1 ? '1' : '0');
    MM_TRACE(> 0, "Info", "isMethodMonitorOn = %c", qv_load(QVMethodMonitor.isMethodMonitorOn));
    return 0;
}

int parseMaxMethodCount(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    int count = parseValue(value);
    if (count >= 1) {
        qv_store(QVMethodMonitor.maxMethodCount, count);
    } else {
        MM_TRACE(
            > 0, "Error",
            "parseMaxMethodCount method - Invalid MaxMethodCount specified by User. Current Value  : %d, "
            "Specified MethodMaxCount value %s",
            qv_load(QVMethodMonitor.maxMethodCount), value);
    }
    return 0;
}

int parseMethodMonitorErrorLevel(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    int level = parseValue(value);
    if (level >= 0) qv_store(QVMethodMonitor.methodMonitorErrorLevel, level);
    return 0;
}

int parseMethodMonitorTraceLevel(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    qv_store(QVMethodMonitor.methodMonitorTraceLevel, parseValue(value));
    return 0;
}

int parsemmDoNotDiscardVal(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    if (parseValue(value) >= 1) qv_store(QVMethodMonitor.doNotDisacrdAnyTransaction, '0');
    return 0;
}

int setQVVectorSeperator(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    if (value[0] == '\0') return 0;
    qv_store(QVSettings.qvVectorSeperator, value[0]);
    MM_TRACE(> 0, "Info", "qvVectorSeperator = %c", value[0]);
    updateInstanceInfo();
    return 0;
}

void updateInstanceInfo() {
    createVectorPrefix(&QVBTMonitor);
    createVectorPrefixMethod(&QVMethodMonitor);
    if (qvInstanceInfoHooks.refreshBackendVectorPrefix) qvInstanceInfoHooks.refreshBackendVectorPrefix();
}

void qvMethodMonitorResetForTest() {
    {
        QVLockGuard report(qvMonitorLazyLock(&mmReportMutex));
        qvMonitorWorkFree(&methodMonitorState().work, "method monitor report");
    }
    qvlb_free(QVMethodMonitor.aggMethodDataArr, "aggMethodDataArr", -1);
    QVMethodMonitor = kStartValues;
    if (mmAggLock != nullptr) {
        std::lock_guard<std::recursive_mutex> poolGuard(qvlb_pool_lock());
        apr_thread_mutex_destroy(mmAggLock);
        mmAggLock = nullptr;
    }
}
