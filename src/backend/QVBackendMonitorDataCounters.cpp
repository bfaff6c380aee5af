// Counting, resetting and merging backend monitor blocks.
#include "backend/QVBackendMonitorDataCounters.h"

#include <climits>

#include "bt/QVMonitorDataModel.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"

namespace {

// Sums saturate rather than overflow: cumCount grows for the life of the process.
void addSat(long long& target, long long value) {
    if (__builtin_add_overflow(target, value, &target)) target = value > 0 ? LLONG_MAX : LLONG_MIN;
}

}  // namespace

void initQVBackendMonitorDataCounters(QVBackendMonitorDataCounters* block) {
    if (block == nullptr) return;
    block->count = 0;
    block->duration = 0;
    block->minDuration = QV_IP_UNSET_MIN_DURATION;
    block->maxDuration = 0;
    block->errorCount = 0;
    block->dataExist = 0;
}

void initOnStartInstrumentationIP(QVBackendMonitorDataCounters* block) {
    if (block == nullptr) return;
    block->cumCount = 0;
    initQVBackendMonitorDataCounters(block);
}

void updateBackendDataCounters(QVPerThreadData_t* qvTD, int backendId, int duration, char isError) {
    if (qvTD == nullptr || backendId < 0) return;
    QVMonitorDataModel* model = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (model == nullptr || model->ipmDataArray == nullptr || backendId >= model->currentSizeOfBackendArray)
        return;
    QVBackendMonitorDataCounters* block = model->ipmDataArray[backendId];
    if (block == nullptr) return;
    if (duration < block->minDuration) block->minDuration = duration;
    if (duration > block->maxDuration) block->maxDuration = duration;
    addSat(block->count, 1);
    addSat(block->cumCount, 1);
    addSat(block->duration, duration);
    if (isError) addSat(block->errorCount, 1);
}

void updateBackendDataCountersForAggregate(QVBackendMonitorDataCounters* merged,
                                           QVBackendMonitorDataCounters* thread) {
    if (merged == nullptr || thread == nullptr) return;
    if (thread->minDuration < merged->minDuration) merged->minDuration = thread->minDuration;
    if (thread->maxDuration > merged->maxDuration) merged->maxDuration = thread->maxDuration;
    addSat(merged->cumCount, thread->cumCount);
    addSat(merged->count, thread->count);
    addSat(merged->errorCount, thread->errorCount);
    addSat(merged->duration, thread->duration);
    initQVBackendMonitorDataCounters(thread);
}
