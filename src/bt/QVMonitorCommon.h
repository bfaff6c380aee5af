// Pieces shared by the BT, method and backend monitors: the growth rule of every monitor array,
// lock creation, and the bounded append of a monitor record into the report buffer.
#ifndef QVMONITORCOMMON_H
#define QVMONITORCOMMON_H

#include <apr_thread_mutex.h>

#include <cstring>

#include "foundation/qvlb_mem.h"

// Size of the buffer the reporting thread hands to the three record generators (74, 75, 61).
constexpr int QV_MONITOR_BUFFER_SIZE = 131072;

// Grows the array *dataArr of oldLen elements of elemSize bytes (8 when elemSize <= 0) so that
// index id fits: new length = k * (2 * oldLen + 1) for the smallest k making it greater than id
// (an empty array becomes id + 1). A null *dataArr is allocated zeroed; an existing one is
// reallocated (it may move) and the elements from oldLen on are zeroed. Returns the new length;
// the caller stores it. On failure (byte size not positive or not representable, which is logged
// "Trying to realloc a negative or 0 size ...", or out of memory, logged under "MEMORY" with
// purpose) *dataArr is left unchanged and oldLen is returned, so the caller must check that id
// now fits. When id already fits, nothing happens and oldLen is returned. Null dataArr: returns
// oldLen. The caller serialises access to the array.
int handleSizeDataArr(void** dataArr, int oldLen, int id, int elemSize,
                      const char* purpose = "monitor array");

// Typed convenience over handleSizeDataArr for an array of T (element size sizeof(T)).
template <class T>
int handleSizeDataArrOf(T** dataArr, int oldLen, int id, const char* purpose = "monitor array") {
    if (dataArr == nullptr) return oldLen;
    void* p = *dataArr;
    int n = handleSizeDataArr(&p, oldLen, id, static_cast<int>(sizeof(T)), purpose);
    *dataArr = static_cast<T*>(p);
    return n;
}

// Creates a nested APR mutex into *lock on the control pool if *lock is still null. Thread-safe: concurrent
// callers create exactly one. Returns 0, or -1 (logged) when the mutex cannot be created or lock is null.
int initLock(apr_thread_mutex_t** lock);

// The reporting side's own copy of a merged array. Thread blocks are merged into it while the
// monitor's lock is free, so that a request making room for a new identifier (which takes that lock)
// never waits for a merge; the lock is held only to read the size and the entries' names.
template <class T>
struct QVMonitorWorkArray {
    T* arr = nullptr;
    int size = 0;
};

// Grows w to at least size entries, each new one set up by init; on failure w is unchanged and
// false is returned. The caller serialises access to w (one report at a time).
template <class T>
bool qvMonitorWorkReserve(QVMonitorWorkArray<T>* w, int size, void (*init)(T*), const char* purpose) {
    if (size <= w->size) return true;
    void* p = qvlb_realloc(w->arr, sizeof(T) * static_cast<size_t>(size), purpose, size);
    if (p == nullptr) return false;
    w->arr = static_cast<T*>(p);
    memset(static_cast<void*>(w->arr + w->size), 0, sizeof(T) * static_cast<size_t>(size - w->size));
    for (int i = w->size; i < size; i++) init(&w->arr[i]);
    w->size = size;
    return true;
}

template <class T>
void qvMonitorWorkFree(QVMonitorWorkArray<T>* w, const char* purpose) {
    qvlb_free(w->arr, purpose, -1);
    *w = QVMonitorWorkArray<T>{};
}

// *lock, created (nested, control pool) on first use; concurrent first users get the same one.
apr_thread_mutex_t* qvMonitorLazyLock(apr_thread_mutex_t** lock);

// controlThreadTmpLock, created on first use when start-up has not made it yet (tests, a process
// that never connects). Guards the registry of per-thread models. Never null unless APR fails.
apr_thread_mutex_t* qvMonitorRegistryLock();

// Appends the record rec (recLen bytes, no terminator needed) at buf + *usedLen when it fits in
// bufSize bytes together with a terminating NUL; *usedLen advances by recLen. A record that does
// not fit (or a null/negative argument) is dropped whole: the buffer is untouched, the drop is
// counted (qvMonitorRecordsDropped) and logged under module with recordType. Returns 0 when
// appended, -1 when dropped. The caller owns buf; not synchronised.
int appendMonitorRecord(char* buf, int* usedLen, int bufSize, const char* rec, int recLen, int recordType,
                        const char* module);

// Records dropped by appendMonitorRecord since start (or the last reset). Thread-safe.
long long qvMonitorRecordsDropped();

// Zeroes the dropped-record count. Tests only.
void qvMonitorCommonResetForTest();

#endif
