// Wiring of the tool layer (metadata cache replay) into the hook tables of the layers below it.
#ifndef TOOL_MODULE_H
#define TOOL_MODULE_H

// Fills qvServerHooks.processClientMessage (the collector's metadata request) and
// qvDispatcherHooks.dumpALLMetaDataOnTestSatrt (replay on a new data connection). Idempotent; call
// before agent_init. Not thread-safe against a running agent.
void qv_tool_register_hooks();

#endif
