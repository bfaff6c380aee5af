// Wiring of the collector layer into the hook tables of the layers below it.
#ifndef COLLECTOR_MODULE_H
#define COLLECTOR_MODULE_H

// Fills qvAgentHooks.controlThreadEntry, .controlSockBufInit and .stopDataThread (which stops the
// data thread and the monitor reporting thread), and qvDispatcherHooks.dumpQvDataOverRecord.
// Idempotent; call before agent_init. Not thread-safe against a running agent.
void qv_collector_register_hooks();

#endif
