// Arithmetic of the BT counter block: initial values, per-request update by category, child CPU
// time and the merge of a thread block into the merged block.
#include "bt/QVBTMonitorDataCounters.h"

#include <climits>

namespace {

constexpr long long kUnsetIntMin = 2147483647LL;
constexpr long long kUnsetLongMin = LLONG_MAX;

// Counters run for the whole process; saturating keeps them defined whatever the input.
inline void addSat(long long& sum, long long v) {
    if (__builtin_add_overflow(sum, v, &sum)) sum = v > 0 ? LLONG_MAX : LLONG_MIN;
}
inline void addSat(int& sum, int v) {
    if (__builtin_add_overflow(sum, v, &sum)) sum = v > 0 ? INT_MAX : INT_MIN;
}
inline void incSat(int& n) {
    if (n < INT_MAX) n++;
}
inline void takeMin(long long& m, long long v) {
    if (v < m) m = v;
}
inline void takeMax(long long& m, long long v) {
    if (v > m) m = v;
}

void updateCategory(int& count, long long& sum, long long& minD, long long& maxD, long long duration) {
    takeMin(minD, duration);
    takeMax(maxD, duration);
    incSat(count);
    addSat(sum, duration);
}

}  // namespace

void initQVBTMonitorDataCounters(QVBTMonitorDataCounters* c) {
    if (c == nullptr) return;
    BTObject* obj = c->tlBTObj;
    *c = QVBTMonitorDataCounters{};
    c->tlBTObj = obj;
    c->minDuration = kUnsetIntMin;
    c->minCpuTime = kUnsetLongMin;
    c->minNormalDuration = kUnsetIntMin;
    c->minSlowDuration = kUnsetIntMin;
    c->minVerySlowDuration = kUnsetIntMin;
    c->minErrorDuration = kUnsetIntMin;
    c->minWaitTime = kUnsetIntMin;
    c->minSyncTime = kUnsetIntMin;
    c->minQueueTime = 0;
}

void initOnStartInstrumentation(QVBTMonitorDataCounters* c) {
    initQVBTMonitorDataCounters(c);
}

void updateGenericCounterForFP(QVBTMonitorDataCounters* c, long long duration, long long cpuTime,
                               long long syncTime, long long waitTime, long long queueTime) {
    if (c == nullptr) return;
    takeMin(c->minDuration, duration);
    takeMax(c->maxDuration, duration);
    takeMin(c->minCpuTime, cpuTime);
    takeMax(c->maxCpuTime, cpuTime);
    takeMin(c->minWaitTime, waitTime);
    takeMax(c->maxWaitTime, waitTime);
    takeMin(c->minSyncTime, syncTime);
    takeMax(c->maxSyncTime, syncTime);
    takeMax(c->maxQueueTime, queueTime);
    if (queueTime > 0) takeMin(c->minQueueTime, queueTime);

    incSat(c->count);
    addSat(c->duration, duration);
    addSat(c->cpuTime, cpuTime);
    addSat(c->cumWaitTime, waitTime);
    addSat(c->cumSyncTime, syncTime);
    if (queueTime > 0) addSat(c->cumQueueTime, queueTime);
    incSat(c->waitCount);
    incSat(c->syncCount);
    incSat(c->queueCount);
}

void updateCounterForNormal(QVBTMonitorDataCounters* c, long long duration) {
    if (c == nullptr) return;
    updateCategory(c->normalCount, c->normalDuration, c->minNormalDuration, c->maxNormalDuration, duration);
}

void updateCounterForSlow(QVBTMonitorDataCounters* c, long long duration) {
    if (c == nullptr) return;
    updateCategory(c->slowCount, c->slowDuration, c->minSlowDuration, c->maxSlowDuration, duration);
}

void updateCounterForVerySlow(QVBTMonitorDataCounters* c, long long duration) {
    if (c == nullptr) return;
    updateCategory(c->verySlowCount, c->verySlowDuration, c->minVerySlowDuration, c->maxVerySlowDuration,
                   duration);
}

void updateCounterForError(QVBTMonitorDataCounters* c, long long duration) {
    if (c == nullptr) return;
    updateCategory(c->errorCount, c->errorDuration, c->minErrorDuration, c->maxErrorDuration, duration);
}

void updateBTDataCounters(QVBTMonitorDataCounters* c, char category, long long duration, long long cpuTime,
                          long long syncTime, long long waitTime, long long queueTime) {
    if (c == nullptr) return;
    switch (category) {
        case QV_BT_CATEGORY_NORMAL:
        case QV_BT_CATEGORY_SLOW:
        case QV_BT_CATEGORY_VERY_SLOW:
        case QV_BT_CATEGORY_ERROR:
        case QV_BT_CATEGORY_UNCATEGORISED:
            break;
        default:
            return;  // excluded (157) or unknown: not counted
    }
    updateGenericCounterForFP(c, duration, cpuTime, syncTime, waitTime, queueTime);
    switch (category) {
        case QV_BT_CATEGORY_NORMAL:
            updateCounterForNormal(c, duration);
            break;
        case QV_BT_CATEGORY_SLOW:
            updateCounterForSlow(c, duration);
            break;
        case QV_BT_CATEGORY_VERY_SLOW:
            updateCounterForVerySlow(c, duration);
            break;
        case QV_BT_CATEGORY_ERROR:
            updateCounterForError(c, duration);
            break;
        default:
            break;
    }
}

void updateChildCPUTime(QVBTMonitorDataCounters* c, long long cpuTime) {
    if (c == nullptr) return;
    addSat(c->cpuTime, cpuTime);
}

void updateBTDataCountersForAggregate(QVBTMonitorDataCounters* d, QVBTMonitorDataCounters* t) {
    if (d == nullptr || t == nullptr || d == t) return;
    takeMin(d->minDuration, t->minDuration);
    takeMin(d->minCpuTime, t->minCpuTime);
    takeMin(d->minNormalDuration, t->minNormalDuration);
    takeMin(d->minSlowDuration, t->minSlowDuration);
    takeMin(d->minVerySlowDuration, t->minVerySlowDuration);
    takeMin(d->minErrorDuration, t->minErrorDuration);
    takeMin(d->minWaitTime, t->minWaitTime);
    takeMin(d->minSyncTime, t->minSyncTime);
    takeMin(d->minQueueTime, t->minQueueTime);

    takeMax(d->maxDuration, t->maxDuration);
    takeMax(d->maxCpuTime, t->maxCpuTime);
    takeMax(d->maxNormalDuration, t->maxNormalDuration);
    takeMax(d->maxSlowDuration, t->maxSlowDuration);
    takeMax(d->maxVerySlowDuration, t->maxVerySlowDuration);
    takeMax(d->maxErrorDuration, t->maxErrorDuration);
    // Inverted on purpose: the collector has always received these merged maximums this way.
    takeMin(d->maxWaitTime, t->maxWaitTime);
    takeMin(d->maxSyncTime, t->maxSyncTime);
    takeMin(d->maxQueueTime, t->maxQueueTime);

    addSat(d->count, t->count);
    addSat(d->duration, t->duration);
    addSat(d->cpuTime, t->cpuTime);
    addSat(d->normalCount, t->normalCount);
    addSat(d->normalDuration, t->normalDuration);
    addSat(d->slowCount, t->slowCount);
    addSat(d->slowDuration, t->slowDuration);
    addSat(d->verySlowCount, t->verySlowCount);
    addSat(d->verySlowDuration, t->verySlowDuration);
    addSat(d->errorCount, t->errorCount);
    addSat(d->errorDuration, t->errorDuration);
    addSat(d->waitCount, t->waitCount);
    addSat(d->cumWaitTime, t->cumWaitTime);
    addSat(d->syncCount, t->syncCount);
    addSat(d->cumSyncTime, t->cumSyncTime);
    addSat(d->queueCount, t->queueCount);
    addSat(d->cumQueueTime, t->cumQueueTime);

    initQVBTMonitorDataCounters(t);
}

bool btCountersHaveData(const QVBTMonitorDataCounters* c) {
    return c != nullptr && (c->count != 0 || c->cpuTime != 0);
}
