// Growth rule of the monitor arrays, monitor lock creation and the bounded record append.
#include "bt/QVMonitorCommon.h"

#include <climits>
#include <cstring>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"

namespace {
struct DroppedRecordsState {
    long long droppedRecords = 0;  // atomic through qv_load/__atomic_fetch_add
};
}  // namespace

QV_INSTANCE_STATE(DroppedRecordsState, droppedRecordsState)

#define droppedRecords (droppedRecordsState().droppedRecords)

int handleSizeDataArr(void** dataArr, int oldLen, int id, int elemSize, const char* purpose) {
    if (dataArr == nullptr) return oldLen;
    if (elemSize <= 0) elemSize = 8;
    if (oldLen < 0) oldLen = 0;
    if (*dataArr != nullptr && id < oldLen) return oldLen;

    long long step = 2LL * oldLen + 1;
    long long newLen = id < 0 ? 0 : (static_cast<long long>(id) / step + 1) * step;
    long long bytes = newLen * elemSize;  // newLen < 2^33 and elemSize < 2^31: no overflow
    if (bytes <= 0) {
        QV_TRACE_IF(true, "MEMORY", "Error", "Trying to realloc a negative or 0 size (%d) for index  %d\n",
                    static_cast<int>(bytes), id);
        return oldLen;
    }
    if (newLen > INT_MAX || bytes > INT_MAX) {
        QV_TRACE_IF(true, "MEMORY", "Error", "Monitor array '%s' cannot hold index %d: %lld bytes needed",
                    purpose, id, bytes);
        return oldLen;
    }
    if (*dataArr == nullptr) {
        void* p = qvlb_calloc(static_cast<size_t>(bytes), purpose, id);
        if (p == nullptr) return oldLen;
        *dataArr = p;
        return static_cast<int>(newLen);
    }
    void* p = qvlb_realloc(*dataArr, static_cast<size_t>(bytes), purpose, id);
    if (p == nullptr) return oldLen;
    size_t keep = static_cast<size_t>(oldLen) * static_cast<size_t>(elemSize);
    memset(static_cast<char*>(p) + keep, 0, static_cast<size_t>(bytes) - keep);
    *dataArr = p;
    return static_cast<int>(newLen);
}

apr_thread_mutex_t* qvMonitorLazyLock(apr_thread_mutex_t** lock) {
    apr_thread_mutex_t* m = qv_load_acquire(*lock);
    if (m == nullptr) {
        qvlb_create_nested_mutex(lock, nullptr);
        m = qv_load_acquire(*lock);
    }
    return m;
}

apr_thread_mutex_t* qvMonitorRegistryLock() {
    return qvMonitorLazyLock(&controlThreadTmpLock);
}

int initLock(apr_thread_mutex_t** lock) {
    if (lock == nullptr) return -1;
    // qvlb_create_nested_mutex serialises creation itself; taking the registry lock here too would
    // make a model being prepared in the background hold up registrations.
    apr_status_t rv = qvlb_create_nested_mutex(lock, nullptr);
    if (rv != APR_SUCCESS) {
        char err[256];
        QV_TRACE_IF(true, "METHOD_MON", "Error", "Could not create monitor lock: %s",
                    apr_strerror(rv, err, sizeof(err)));
        return -1;
    }
    return 0;
}

int appendMonitorRecord(char* buf, int* usedLen, int bufSize, const char* rec, int recLen, int recordType,
                        const char* module) {
    bool fits = buf != nullptr && usedLen != nullptr && rec != nullptr && recLen >= 0 && *usedLen >= 0 &&
                bufSize > 0 && *usedLen < bufSize && recLen < bufSize - *usedLen;
    if (!fits) {
        __atomic_fetch_add(&droppedRecords, 1, __ATOMIC_RELAXED);
        QV_TRACE_IF(true, module ? module : "MONITOR", "Error",
                    "Dropping %d record of %d bytes: buffer of %d bytes has %d bytes used", recordType,
                    recLen, bufSize, usedLen ? *usedLen : -1);
        return -1;
    }
    memcpy(buf + *usedLen, rec, static_cast<size_t>(recLen));
    *usedLen += recLen;
    buf[*usedLen] = '\0';
    return 0;
}

long long qvMonitorRecordsDropped() {
    return qv_load(droppedRecords);
}

void qvMonitorCommonResetForTest() {
    qv_store(droppedRecords, 0);
}
