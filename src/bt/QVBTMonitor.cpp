// The BT monitor: merged counters per BT, counting finished requests, the 74 records and the
// keyword handlers of its settings.
#include "bt/QVBTMonitor.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "bt/QVBTMonitorDataCounters.h"
#include "bt/QVMonitorDataModel.h"
#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "qvbt/qvbt_bt_object.h"

namespace {

const char* const kModule = "BT_MONITOR";
const char* const kAggPurpose = "QVBTMonitorDataCounters";
constexpr int kInitialAggSize = 128;
constexpr long long kUnsetIntMin = 2147483647LL;
constexpr long long kUnsetLongMin = 9223372036854775807LL;
constexpr double kUnsetMinReported = 500000.0;
// Longest 74 record: prefixes (1087) + name (128) + 40 values of at most ~330 characters.
constexpr int kLineSize = 16384;

struct BTMonitorState {
    QVBTMonitor_t monitor = {};
    // Guards the merged array (which growth may move), the entries' tlBTObj and the prefixes. Held
    // only briefly by a report (never across the merge), as a request naming a new BT takes it.
    apr_thread_mutex_t* mergeLock = nullptr;
    // One report at a time, and the report's own merged counters (see QVMonitorWorkArray). Taken
    // before mergeLock; no application thread takes it.
    apr_thread_mutex_t* reportMutex = nullptr;
    QVMonitorWorkArray<QVBTMonitorDataCounters> work;
};

}  // namespace

QV_INSTANCE_STATE(BTMonitorState, btMonitorState)

QVBTMonitor_t& qvBTMonitorOfInstance() {
    return btMonitorState().monitor;
}

namespace {

#define mergeLock (btMonitorState().mergeLock)
#define reportMutex (btMonitorState().reportMutex)

apr_thread_mutex_t* monitorLock() {
    apr_thread_mutex_t* m = qv_load_acquire(mergeLock);
    if (m == nullptr) {
        qvlb_create_nested_mutex(&mergeLock, nullptr);
        m = qv_load_acquire(mergeLock);
    }
    return m;
}

int btLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

// Resizes the merged array to exactly newSize blocks, initialising the new ones. Caller holds
// the merge lock. On failure the old array stays and false is returned.
bool resizeAggArray(int newSize) {
    QVBTMonitor_t& mon = QVBTMonitor;
    int oldSize = mon.aggBTDataArr ? mon.aggDataArraySize : 0;
    if (newSize <= oldSize) return true;
    size_t bytes = sizeof(QVBTMonitorDataCounters) * static_cast<size_t>(newSize);
    void* p = mon.aggBTDataArr == nullptr ? qvlb_calloc(bytes, kAggPurpose, newSize)
                                          : qvlb_realloc(mon.aggBTDataArr, bytes, kAggPurpose, newSize);
    if (p == nullptr) return false;
    auto* arr = static_cast<QVBTMonitorDataCounters*>(p);
    memset(static_cast<void*>(arr + oldSize), 0,
           sizeof(QVBTMonitorDataCounters) * static_cast<size_t>(newSize - oldSize));
    for (int i = oldSize; i < newSize; i++) initQVBTMonitorDataCounters(&arr[i]);
    mon.aggBTDataArr = arr;
    qv_store(mon.aggDataArraySize, newSize);
    return true;
}

// Caller holds the merge lock.
bool ensureAggArray() {
    if (QVBTMonitor.aggBTDataArr != nullptr) return true;
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "Malloc QVBTMonitorDataCounters with size %d",
                kInitialAggSize);
    qv_store(QVBTMonitor.aggDataArraySize, 0);
    return resizeAggArray(kInitialAggSize);
}

double ratio(double num, double den) {
    return den == 0 ? 0.0 : num / den;
}

// Bounded appender of the pieces of one record line.
struct LineBuf {
    char* p;
    int cap;
    int len = 0;
    bool overflow = false;
    void add(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        if (overflow) return;
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(p + len, static_cast<size_t>(cap - len), fmt, ap);
        va_end(ap);
        if (n < 0 || n >= cap - len)
            overflow = true;
        else
            len += n;
    }
};

// Merges one model into work; ctx holds the merged array's size when the report began.
void mergeModel(QVMonitorDataModel* m, void* ctx) {
    QVLockGuard guard(m->lockForBT);
    int size = m->currentSizeOfBTArray;
    if (size == 0 || m->btmDataArray == nullptr) return;
    int aggSize = *static_cast<int*>(ctx);
    if (size > aggSize) {
        QV_TRACE_IF(btLevel() > 0, kModule, "Error",
                    "currentSizeOfBTArray = %d is greater then QVBTMonitor.aggDataArraySize = %d", size,
                    aggSize);
        return;
    }
    QVMonitorWorkArray<QVBTMonitorDataCounters>& work = btMonitorState().work;
    for (int i = 0; i < size; i++) {
        QVBTMonitorDataCounters* t = m->btmDataArray[i];
        // A block with nothing counted since the last merge must not make a record.
        if (!btCountersHaveData(t)) continue;
        updateBTDataCountersForAggregate(&work.arr[i], t);
        work.arr[i].dataExist = 1;
    }
}

}  // namespace

double checkAndGetIntMinValue(long long value) {
    return value == kUnsetIntMin ? kUnsetMinReported : static_cast<double>(value);
}

double checkAndGetLongMinValue(long long value) {
    return value == kUnsetLongMin ? kUnsetMinReported : static_cast<double>(value);
}

void createVectorPrefix(QVBTMonitor_t* monitor) {
    if (monitor == nullptr) return;
    const char* tier = qvApplication ? getTierName() : nullptr;
    const char* server = qvApplication ? getAppServerName() : nullptr;
    const char* app = qvApplication ? getAppName() : nullptr;
    int tierID = qvApplication ? qv_load(qvApplication->QVBCISetting.tierID) : 0;
    int appID = qvApplication ? qv_load(qvApplication->QVBCISetting.appID) : 0;
    char sep = qv_load(QVSettings.qvVectorSeperator);
    QVLockGuard guard(monitorLock());
    snprintf(monitor->vectorPrefix, sizeof(monitor->vectorPrefix), "%s%c%s%c%s%c", tier ? tier : "", sep,
             server ? server : "", sep, app ? app : "", sep);
    snprintf(monitor->vectorPrefixID, sizeof(monitor->vectorPrefixID), "%d|%d|", tierID, appID);
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "vectorPrefix = %s, vectorPrefixID = %s",
                monitor->vectorPrefix, monitor->vectorPrefixID);
}

void QVBTMonitorInit() {
    QV_TRACE_IF(btLevel() == 4, kModule, "Info", "Method called");
    createVectorPrefix(&QVBTMonitor);
    {
        QVLockGuard guard(monitorLock());
        QVBTMonitor.currentReportingCount = 0;
        ensureAggArray();
    }
    QVBTMonitor_t& mon = QVBTMonitor;
    qv_store(mon.sendReSetEventOnAggDataConn, 0);
    qv_store(mon.maxBTCount, 256);
    qv_store(mon.numberOfThreads, 0);
    qv_store(mon.isBTMonitorOn, 1);
    QV_TRACE_IF(btLevel() > 0, kModule, "Info",
                "BT monitor settings: aggDataArraySize = %d, maxBTCount = %d, isBTMonitorOn = %d, "
                "btMonitorErrorLevel = %d",
                qv_load(mon.aggDataArraySize), qv_load(mon.maxBTCount), qv_load(mon.isBTMonitorOn),
                qv_load(mon.btMonitorErrorLevel));
    QV_TRACE_IF(btLevel() == 4, kModule, "Info", "Method exit");
}

bool updateCounterAndDurationForBT(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return false;
    char on = qv_load(QVBTMonitor.isBTMonitorOn);
    int btId = qvTD->tlBTObj ? qv_load(qvTD->tlBTObj->bt_id) : 0;
    if (on == 0 || btId <= 0) {
        QV_TRACE_IF(btLevel() > 1, kModule, "Info",
                    "Returning from monitoring counters as monitor is %d, btID %d, countOfUnknownError %d",
                    on, btId, 0);
        return false;
    }
    if (qv_load_acquire(qvTD->tlMonitorDataModel) == nullptr && checkAndInitMonitorDataModel(qvTD) == 1)
        __atomic_fetch_add(&QVBTMonitor.numberOfThreads, 1, __ATOMIC_RELAXED);
    updatePropertiesOfBT(qvTD, btId);
    return true;
}

int checkAndIncrementAggrBTDataArray(BTObject* obj) {
    if (obj == nullptr) return -1;
    int id = qv_load(obj->bt_id);
    if (id <= 0) return -1;
    QVLockGuard guard(monitorLock());
    if (!ensureAggArray()) return -1;
    int size = QVBTMonitor.aggDataArraySize;
    if (id >= size) {
        void* arr = QVBTMonitor.aggBTDataArr;
        int newSize =
            handleSizeDataArr(&arr, size, id, static_cast<int>(sizeof(QVBTMonitorDataCounters)), kAggPurpose);
        QVBTMonitor.aggBTDataArr = static_cast<QVBTMonitorDataCounters*>(arr);
        for (int i = size; i < newSize; i++) initQVBTMonitorDataCounters(&QVBTMonitor.aggBTDataArr[i]);
        qv_store(QVBTMonitor.aggDataArraySize, newSize);
        if (id >= newSize) {
            QV_TRACE_IF(
                btLevel() > 0, kModule, "Error",
                "Could not grow the BT monitor array of size %d for BT id %d; BT '%s' is not monitored", size,
                id, obj->bt_name);
            return -1;
        }
    }
    QVBTMonitor.aggBTDataArr[id].tlBTObj = obj;
    return 0;
}

void dump74RecordForEveryBT(char* buf, int* usedLen, int bufSize, const QVBTMonitorDataCounters* c, int btId,
                            const char* btName) {
    if (buf == nullptr || usedLen == nullptr || c == nullptr) return;
    QV_TRACE_IF(btLevel() > 1, kModule, "Info", "Dumping 74 record started ...");
    char line[kLineSize];
    LineBuf l{line, kLineSize};
    double interval = qv_load(QVSettings.qvMonitorIntervalInSecs);
    double n = c->count;
    {
        QVLockGuard guard(monitorLock());
        l.add("%d,%s%d:%s%s|", 74, QVBTMonitor.vectorPrefixID, btId, QVBTMonitor.vectorPrefix,
              btName ? btName : "");
    }
    l.add("%lf %lf %lf %lld %d 0.0 ", ratio(n, interval), ratio(static_cast<double>(c->duration), n),
          checkAndGetIntMinValue(c->minDuration), c->maxDuration, c->count);
    l.add("%lf ", ratio(c->errorCount, interval));
    l.add("%lf %lf %lld %d ", ratio(static_cast<double>(c->normalDuration), c->normalCount),
          checkAndGetIntMinValue(c->minNormalDuration), c->maxNormalDuration, c->normalCount);
    l.add("%lf %lf %lld %d ", ratio(static_cast<double>(c->slowDuration), c->slowCount),
          checkAndGetIntMinValue(c->minSlowDuration), c->maxSlowDuration, c->slowCount);
    l.add("%lf %lf %lld %d ", ratio(static_cast<double>(c->verySlowDuration), c->verySlowCount),
          checkAndGetIntMinValue(c->minVerySlowDuration), c->maxVerySlowDuration, c->verySlowCount);
    l.add("%lf %lf %lld %d ", ratio(static_cast<double>(c->errorDuration), c->errorCount),
          checkAndGetIntMinValue(c->minErrorDuration), c->maxErrorDuration, c->errorCount);
    l.add("%lf ", ratio((static_cast<double>(c->slowCount) + c->verySlowCount) * 100.0, n));
    l.add("%lf %lf %lf %d ", ratio(static_cast<double>(c->cpuTime), n) / 1000000.0,
          checkAndGetLongMinValue(c->minCpuTime) / 1000000.0, static_cast<double>(c->maxCpuTime) / 1000000.0,
          c->count);
    l.add("%lf %lld %lld %d ", ratio(static_cast<double>(c->cumSyncTime), c->syncCount), c->minSyncTime,
          c->maxSyncTime, c->syncCount);
    l.add("%lf %lld %lld %d ", ratio(static_cast<double>(c->cumWaitTime), c->waitCount), c->minWaitTime,
          c->maxWaitTime, c->waitCount);
    l.add("%lf %lld %lld %d\n", ratio(static_cast<double>(c->cumQueueTime), c->queueCount), c->minQueueTime,
          c->maxQueueTime, c->queueCount);
    if (l.overflow) {
        QV_TRACE_IF(btLevel() > 0, kModule, "Error", "74 record of BT id %d does not fit a line; dropped",
                    btId);
        appendMonitorRecord(buf, usedLen, bufSize, nullptr, 0, 74, kModule);
        return;
    }
    appendMonitorRecord(buf, usedLen, bufSize, line, l.len, 74, kModule);
    QV_TRACE_IF(btLevel() > 1, kModule, "Info",
                "Dumping 74 record started ...Where length of current record is : '%d'", l.len);
}

bool generateAndDumpBTMonitoringRecord(char* buf, int* usedLen) {
    if (buf == nullptr || usedLen == nullptr) return false;
    if (qvMonitorModelCount() == 0) {
        QV_TRACE_IF(btLevel() > 0, kModule, "Info",
                    "Returnign without dumping any monitoring record, as no threads executed any BT yet.");
        return false;
    }
    if (qv_load(config.total_bt_count) == 0) {
        QV_TRACE_IF(
            btLevel() > 0, kModule, "Info",
            "Returning without dumping any monitoring record, as no business transactions discovered yet.");
        return false;
    }
    QVLockGuard report(qvMonitorLazyLock(&reportMutex));
    QVMonitorWorkArray<QVBTMonitorDataCounters>& work = btMonitorState().work;
    int size;
    {
        QVLockGuard guard(monitorLock());
        if (!ensureAggArray()) return false;
        size = QVBTMonitor.aggDataArraySize;
    }
    if (!qvMonitorWorkReserve(&work, size, initQVBTMonitorDataCounters, "BT monitor report")) return false;
    forEachMonitorDataModel(mergeModel, &size);
    QVBTMonitorDataCounters* agg = work.arr;
    {
        // The array only grows, so every entry below size is still there, maybe moved.
        QVLockGuard guard(monitorLock());
        for (int i = 1; i < size; i++)
            if (agg[i].dataExist) agg[i].tlBTObj = QVBTMonitor.aggBTDataArr[i].tlBTObj;
    }
    for (int i = 1; i < size; i++) {
        if (!agg[i].dataExist) continue;
        dump74RecordForEveryBT(buf, usedLen, QV_MONITOR_BUFFER_SIZE, &agg[i], i,
                               agg[i].tlBTObj ? agg[i].tlBTObj->bt_name : "");
        updateBTDataCountersForAggregate(&agg[0], &agg[i]);  // also clears entry i and its dataExist
    }
    dump74RecordForEveryBT(buf, usedLen, QV_MONITOR_BUFFER_SIZE, &agg[0], 0, "AllTransactions");
    initOnStartInstrumentation(&agg[0]);
    QVBTMonitor.currentReportingCount++;
    return true;
}

int parseBTMonitorKeyword(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    if (qvParseInt(value) > 0) {
        qv_store(QVBTMonitor.isBTMonitorOn, '1');
        if (btLevel() < 1) qv_store(QVBTMonitor.isBTMonitorOn, '0');
    }
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "enableBTMonitor = %s, isBTMonitorOn = %c", value,
                qv_load(QVBTMonitor.isBTMonitorOn));
    return 0;
}

int parseMaxBTCount(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    int v = qvParseInt(value);
    if (v < 1) {
        QV_TRACE_IF(
            btLevel() > 0, kModule, "Error",
            "parseMaxBTCount method - Invalid MaxBTCount specified by User. Current Value  : %d Specified "
            "BTMaxCount value %s",
            qv_load(QVBTMonitor.maxBTCount), value);
        return -1;
    }
    qv_store(QVBTMonitor.maxBTCount, v);
    qv_store(config.max_bt_count, v);
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "maxBTCount = %d", v);
    return 0;
}

int parseBTAggDataArraySize(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    int v = qvParseInt(value);
    QVLockGuard guard(monitorLock());
    int current = QVBTMonitor.aggDataArraySize;
    if (v <= current) {
        QV_TRACE_IF(
            btLevel() > 0, kModule, "Error",
            "parseBTAggDataArraySize - Could not decrease size of array, as targeted size is less or equal "
            "than current size.Where current size : %d,  specified size : %d",
            current, v);
        return -1;
    }
    if (!resizeAggArray(v)) {
        QV_TRACE_IF(btLevel() > 0, kModule, "Error",
                    "parseBTAggDataArraySize - Could not grow array from %d to %d", current, v);
        return -1;
    }
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "BTAggDataArraySize = %d", v);
    return 0;
}

int parseBTMonitorErrorLevel(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    int v = qvParseInt(value);
    if (v < 0) return -1;
    qv_store(QVBTMonitor.btMonitorErrorLevel, v);
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "btMonitorErrorLevel = %d", v);
    return 0;
}

int parseDoNotDiscardVal(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    // Stores the character '0' for an enabling value; the readers have always expected this.
    if (qvParseInt(value) >= 1) qv_store(QVBTMonitor.doNotDisacrdAnyTransaction, '0');
    QV_TRACE_IF(btLevel() > 0, kModule, "Info", "doNotDiscardFlowPaths = %s, doNotDisacrdAnyTransaction = %d",
                value, qv_load(QVBTMonitor.doNotDisacrdAnyTransaction));
    return 0;
}

void qvBTMonitorResetForTest() {
    QVLockGuard report(qvMonitorLazyLock(&reportMutex));
    qvMonitorWorkFree(&btMonitorState().work, "BT monitor report");
    QVLockGuard guard(monitorLock());
    qvlb_free(QVBTMonitor.aggBTDataArr, kAggPurpose, -1);
    QVBTMonitor = QVBTMonitor_t{};
}
