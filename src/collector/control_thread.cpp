// The control thread's body.
#include "collector/control_thread.h"

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"

int isMasterQvc = 0;

void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t*, void*) {
    QV_TRACE_IF(qvApplication != nullptr && qv_load(qvApplication->QVSys.controlTraceLevel) >= 1,
                "CONTROL_THREAD", "Info", "Method called - Control thread Entry point reached.");
    return nullptr;
}

void control_thread_reset_for_test() {
    qv_store(isMasterQvc, 0);
}
