// The BT counter block: one per BT and application thread in the thread's monitor model, and one
// per BT in the BT monitor's merged array. Update, dispatch by category, child CPU time, merge.
#ifndef QVBTMONITORDATACOUNTERS_H
#define QVBTMONITORDATACOUNTERS_H

struct BTObject;

// Durations and times in milliseconds. Counts are int and saturate at INT_MAX; sums saturate at
// the long long range. A block is guarded by the lock of the array that holds it (lockForBT of a
// thread model, or the BT monitor's merge lock for the merged array).
struct QVBTMonitorDataCounters {
    int count;
    long long duration;
    long long minDuration;  // 2147483647 when unset
    long long maxDuration;
    long long cpuTime;     // also child flowpaths' CPU time
    long long minCpuTime;  // 9223372036854775807 when unset
    long long maxCpuTime;
    int normalCount;
    long long normalDuration;
    long long minNormalDuration;
    long long maxNormalDuration;
    int slowCount;
    long long slowDuration;
    long long minSlowDuration;
    long long maxSlowDuration;
    int verySlowCount;
    long long verySlowDuration;
    long long minVerySlowDuration;
    long long maxVerySlowDuration;
    int errorCount;
    long long errorDuration;
    long long minErrorDuration;
    long long maxErrorDuration;
    int waitCount;
    long long cumWaitTime;
    long long minWaitTime;
    long long maxWaitTime;
    int syncCount;
    long long cumSyncTime;
    long long minSyncTime;
    long long maxSyncTime;
    int queueCount;
    long long minQueueTime;  // starts at 0 and, by the update rule, stays 0
    long long maxQueueTime;
    long long cumQueueTime;
    BTObject* tlBTObj;  // kept by every (re-)initialisation; set in merged entries only
    char dataExist;     // merged entries: has data to report this interval
};

// BT categories a finished request can carry.
constexpr char QV_BT_CATEGORY_NORMAL = 10;
constexpr char QV_BT_CATEGORY_SLOW = 11;
constexpr char QV_BT_CATEGORY_VERY_SLOW = 12;
constexpr char QV_BT_CATEGORY_ERROR = 13;
constexpr char QV_BT_CATEGORY_UNCATEGORISED = 15;

// Sets the initial values (counts and sums 0, minimums 2147483647, minCpuTime
// 9223372036854775807, minQueueTime 0, dataExist 0); tlBTObj is kept. Null: nothing.
void initQVBTMonitorDataCounters(QVBTMonitorDataCounters* c);

// Clears the block when the collector starts instrumentation (same values as above). Null: nothing.
void initOnStartInstrumentation(QVBTMonitorDataCounters* c);

// Counts one finished request into c by its category: 10, 11, 12, 13 update the generic counters
// and then the category's; 15 the generic ones only; any other category (157: excluded) nothing.
// Null: nothing.
void updateBTDataCounters(QVBTMonitorDataCounters* c, char category, long long duration, long long cpuTime,
                          long long syncTime, long long waitTime, long long queueTime);

// Counters common to every category. Minimums and maximums by strict comparison (the minimum
// queue time only by a positive time below it); count, duration, cpuTime, cumWaitTime,
// cumSyncTime added; cumQueueTime only for a positive queue time; waitCount, syncCount and
// queueCount + 1 for every request.
void updateGenericCounterForFP(QVBTMonitorDataCounters* c, long long duration, long long cpuTime,
                               long long syncTime, long long waitTime, long long queueTime);

// One category's four counters: minimum, maximum, count + 1, sum += duration.
void updateCounterForNormal(QVBTMonitorDataCounters* c, long long duration);
void updateCounterForSlow(QVBTMonitorDataCounters* c, long long duration);
void updateCounterForVerySlow(QVBTMonitorDataCounters* c, long long duration);
void updateCounterForError(QVBTMonitorDataCounters* c, long long duration);

// cpuTime += cpuTime of a child flowpath; no count changes.
void updateChildCPUTime(QVBTMonitorDataCounters* c, long long cpuTime);

// Merges the thread block t into the merged block d, then re-initialises t. Minimums: d takes
// t's when smaller. maxDuration, maxCpuTime and the four category maximums: d takes t's when
// larger. maxWaitTime, maxSyncTime, maxQueueTime: d takes t's when SMALLER (kept as the collector
// expects; a merged block starting at 0 keeps 0). Counts and sums added. Null: nothing.
void updateBTDataCountersForAggregate(QVBTMonitorDataCounters* d, QVBTMonitorDataCounters* t);

// True when the block counted anything since its last initialisation (a request or child CPU time).
bool btCountersHaveData(const QVBTMonitorDataCounters* c);

#endif
