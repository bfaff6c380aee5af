// Counter block of the backend monitor: one per backend on each thread, and one per backend in
// the monitor's merged array; the arithmetic of counting, resetting and merging them.
#ifndef QVBACKENDMONITORDATACOUNTERS_H
#define QVBACKENDMONITORDATACOUNTERS_H

struct methodPropProperties;
struct QVPerThreadData_t;

// Minimum of a block that has counted nothing (printed raw in the 75 record).
constexpr long long QV_IP_UNSET_MIN_DURATION = 2147483647LL;

struct QVBackendMonitorDataCounters {
    long long cumCount;         // calls since the block was made (kept by the reset)
    long long count;            // calls in the interval
    long long errorCount;       // failed calls in the interval
    long long duration;         // sum of the durations in the interval
    long long minDuration;      // QV_IP_UNSET_MIN_DURATION when reset
    long long maxDuration;      // 0 when reset
    methodPropProperties* mpp;  // merged entry only: the backend it reports
    char dataExist;
};

// Reset for the next interval: count, duration, errorCount, maxDuration 0, minDuration
// 2147483647, dataExist 0; cumCount and mpp kept. Null does nothing. Caller holds the block's lock.
void initQVBackendMonitorDataCounters(QVBackendMonitorDataCounters* block);

// cumCount 0, then the reset above. Null does nothing. Same locking.
void initOnStartInstrumentationIP(QVBackendMonitorDataCounters* block);

// Counts one call of backendId into qvTD's block for it. The duration is a 32-bit int (a longer
// duration was truncated by the caller): minDuration and maxDuration by strict comparison,
// count and cumCount + 1, duration += duration, errorCount + 1 when isError is non-zero (sums
// saturate). The caller holds the model's lockForIP and has made the block exist; a missing
// model or block does nothing.
void updateBackendDataCounters(QVPerThreadData_t* qvTD, int backendId, int duration, char isError);

// Merges the thread block into the merged block (smaller minimum, larger maximum; cumCount,
// count, errorCount and duration added, saturating), then resets the thread block keeping its
// cumCount. Null arguments do nothing. Caller holds the locks of both blocks.
void updateBackendDataCountersForAggregate(QVBackendMonitorDataCounters* merged,
                                           QVBackendMonitorDataCounters* thread);

#endif
