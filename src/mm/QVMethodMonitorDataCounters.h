// Counter block of the method monitor: one per method on each thread, and one per method in
// the monitor's merged array; the arithmetic of counting, resetting and merging them.
#ifndef QVMETHODMONITORDATACOUNTERS_H
#define QVMETHODMONITORDATACOUNTERS_H

struct methodPropProperties;
struct QVPerThreadData_t;

// Minimum of a block that has counted nothing.
constexpr long long QV_MM_UNSET_MIN_DURATION = 2147483647LL;

struct QVMethodMonitorDataCounters {
    int count;                  // calls in the interval
    int cumCount;               // calls since the block was made (kept by the reset)
    long long duration;         // sum of the durations in the interval
    long long minDuration;      // QV_MM_UNSET_MIN_DURATION when reset
    long long maxDuration;      // 0 when reset
    methodPropProperties* mpp;  // merged entry only: the method it reports
    char dataExist;
};

// The counters reset for the next interval: count 0, minDuration 2147483647, maxDuration 0,
// duration 0, dataExist 0; cumCount and mpp kept. Null does nothing. Caller owns the block
// (holds the lock guarding it).
void resetQVMethodMonitorDataCounters(QVMethodMonitorDataCounters* block);

// cumCount 0, then the reset above. Null does nothing. Same locking as above.
void initQVMethodMonitorDataCounters(QVMethodMonitorDataCounters* block);

// Counts one call of methodId into qvTD's block for it: minDuration and maxDuration by strict
// comparison, count and cumCount + 1 (both saturate at INT_MAX), duration += duration (saturates
// at the long long range). methodName is accepted for the log only. The caller holds the
// model's lockForMM and has made the block exist; a missing model or block does nothing.
void updateMethodDataCounters(QVPerThreadData_t* qvTD, const char* methodName, int methodId,
                              long long duration);

// Merges the thread block into the merged block (smaller minimum, larger maximum; count,
// cumCount and duration added, saturating) and then resets the thread block (keeping its
// cumCount). Null arguments do nothing. Caller holds the locks of both blocks.
void updateMethodDataCountersForAggregate(QVMethodMonitorDataCounters* merged,
                                          QVMethodMonitorDataCounters* thread);

#endif
