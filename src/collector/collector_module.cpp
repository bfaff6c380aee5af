// Wiring of the collector layer into the hook tables of the layers below it.
#include "collector/collector_module.h"

#include "collector/NIODataDispatcher.h"
#include "collector/QVDataDispatcher.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"

namespace {

// Shutdown runs this after joining the control thread: both threads it may have started.
void stopCollectorThreads() {
    qv_data_thread_stop();
    stopNIO();
}

}  // namespace

void qv_collector_register_hooks() {
    qvAgentHooks.controlThreadEntry = control_thread_entry_fun;
    qvAgentHooks.controlSockBufInit = controlSockBufInit;
    qvAgentHooks.stopDataThread = stopCollectorThreads;
    qvDispatcherHooks.dumpQvDataOverRecord = dumpQvDataOverRecord;
}
