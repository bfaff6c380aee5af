// Counting one backend call into the calling thread's own monitor model.
#include "backend/QVBackendMonitorDataModel.h"

#include "backend/QVBackendMonitorDataCounters.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

int updatePropertiesOfBackend(QVPerThreadData_t* qvTD, int backendId, long long duration, char isError) {
    if (qvTD == nullptr || backendId < 0) return -1;
    QVMonitorDataModel* model = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (model == nullptr) return -1;
    qv_store(model->lastUpdateTimeStamp, my_gettimeofday());
    QVLockGuard guard(model->lockForIP);
    if (model->ipmDataArray == nullptr || backendId >= model->currentSizeOfBackendArray) {
        model->currentSizeOfBackendArray = handleSizeDataArrOf(
            &model->ipmDataArray, model->currentSizeOfBackendArray, backendId, "ipmDataArray");
        if (model->ipmDataArray == nullptr || backendId >= model->currentSizeOfBackendArray) {
            QV_TRACE_IF(qvApplication && qv_load(qvApplication->QVSys.backendMonTraceLevel) > 0,
                        "BACKEND_MON", "Error", "Backend %d not counted: ipmDataArray could not grow",
                        backendId);
            return -1;
        }
    }
    QVBackendMonitorDataCounters*& block = model->ipmDataArray[backendId];
    if (block == nullptr) {
        block = static_cast<QVBackendMonitorDataCounters*>(
            qvlb_calloc(sizeof(QVBackendMonitorDataCounters), "ipmDataArray", backendId));
        if (block == nullptr) return -1;
        initOnStartInstrumentationIP(block);
    }
    // The counters take the duration as a 32-bit int; a longer one keeps its low 32 bits.
    updateBackendDataCounters(qvTD, backendId, static_cast<int>(duration), isError);
    return 0;
}
