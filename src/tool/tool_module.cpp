// Wiring of the tool layer into the hook tables of the layers below it.
#include "tool/tool_module.h"

#include "collector/QVDataDispatcher.h"
#include "collector/Server.h"
#include "tool/QVClientManager.h"

void qv_tool_register_hooks() {
    qvServerHooks.processClientMessage = processClientMessage;
    qvDispatcherHooks.dumpALLMetaDataOnTestSatrt = dumpALLMetaDataOnTestSatrt;
}
