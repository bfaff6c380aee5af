// Counting, resetting and merging method monitor blocks.
#include "mm/QVMethodMonitorDataCounters.h"

#include <climits>

#include "bt/QVMonitorDataModel.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"

namespace {

// Counts and sums saturate: a thread's cumCount grows for the life of the process, and a
// duration handed in by the application is not trusted to be small.
void addSat(int& target, int value) {
    if (__builtin_add_overflow(target, value, &target)) target = value > 0 ? INT_MAX : INT_MIN;
}

void addSat(long long& target, long long value) {
    if (__builtin_add_overflow(target, value, &target)) target = value > 0 ? LLONG_MAX : LLONG_MIN;
}

}  // namespace

void resetQVMethodMonitorDataCounters(QVMethodMonitorDataCounters* block) {
    if (block == nullptr) return;
    block->count = 0;
    block->minDuration = QV_MM_UNSET_MIN_DURATION;
    block->maxDuration = 0;
    block->duration = 0;
    block->dataExist = 0;
}

void initQVMethodMonitorDataCounters(QVMethodMonitorDataCounters* block) {
    if (block == nullptr) return;
    block->cumCount = 0;
    resetQVMethodMonitorDataCounters(block);
}

void updateMethodDataCounters(QVPerThreadData_t* qvTD, const char* methodName, int methodId,
                              long long duration) {
    (void)methodName;
    if (qvTD == nullptr || methodId < 0) return;
    QVMonitorDataModel* model = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (model == nullptr || model->mmDataArray == nullptr || methodId >= model->currentSizeOfMethodArray)
        return;
    QVMethodMonitorDataCounters* block = model->mmDataArray[methodId];
    if (block == nullptr) return;
    if (duration < block->minDuration) block->minDuration = duration;
    if (duration > block->maxDuration) block->maxDuration = duration;
    addSat(block->count, 1);
    addSat(block->cumCount, 1);
    addSat(block->duration, duration);
}

void updateMethodDataCountersForAggregate(QVMethodMonitorDataCounters* merged,
                                          QVMethodMonitorDataCounters* thread) {
    if (merged == nullptr || thread == nullptr) return;
    if (thread->minDuration < merged->minDuration) merged->minDuration = thread->minDuration;
    if (thread->maxDuration > merged->maxDuration) merged->maxDuration = thread->maxDuration;
    addSat(merged->count, thread->count);
    addSat(merged->cumCount, thread->cumCount);
    addSat(merged->duration, thread->duration);
    resetQVMethodMonitorDataCounters(thread);
}
