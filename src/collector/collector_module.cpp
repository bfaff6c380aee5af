// Wiring of the collector layer into the hook tables of the layers below it.
#include "collector/collector_module.h"

#include "collector/QVDataDispatcher.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"

void qv_collector_register_hooks() {
    qvAgentHooks.controlThreadEntry = control_thread_entry_fun;
    qvAgentHooks.stopDataThread = qv_data_thread_stop;
}
