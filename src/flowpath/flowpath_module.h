// Wiring of the flowpath layer into the hook tables of the layers below it (start-up, data
// thread stop).
#ifndef FLOWPATH_MODULE_H
#define FLOWPATH_MODULE_H

// Fills qvAgentHooks.createFpiToTLS, .createTlsPool and .initMethodRegistry (first registry
// generation, DefaultMethod, the default profile files), qvDispatcherHooks.dumpFpFromBusyList,
// qvFlowpathPoolHooks.dumpIncompleteFPAtTestStop (test stop writes every running flowpath) and the
// handlers of the keywords maxCharInSeqBlob and qvFlowpathMasks.
// Idempotent; call before agent_init (qvlb_register_modules does). Not thread-safe against a
// running agent.
void qv_flowpath_register_hooks();

#endif
