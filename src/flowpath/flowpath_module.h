// Wiring of the flowpath layer into the hook tables of the layers below it (start-up, data
// thread stop).
#ifndef FLOWPATH_MODULE_H
#define FLOWPATH_MODULE_H

// Fills qvAgentHooks.createFpiToTLS, .createTlsPool and .initMethodRegistry (first registry
// generation, DefaultMethod, the default profile files) and qvDispatcherHooks.dumpFpFromBusyList.
// Idempotent; call before agent_init (qvlb_register_modules does). Not thread-safe against a
// running agent.
void qv_flowpath_register_hooks();

#endif
