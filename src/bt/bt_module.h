// Wiring of the BT and monitor layer into the hook tables and keyword table of the layers below
// it (start-up, pool creation, monitor resets, collector keywords).
#ifndef BT_MODULE_H
#define BT_MODULE_H

// Fills qvAgentHooks.initThreadBasedModelMap and .initBTSubsystem,
// qvFlowpathPoolHooks' model entries (init, create, register, discard) and .resetMonitorDataModelArrays,
// and installs the
// handlers of enableBTMonitor, maxBTCount, BTAggDataArraySize, enableBTMonitorError and
// doNotDiscardFlowPaths. Idempotent; call before agent_init. Not thread-safe against a running
// agent.
void qv_bt_register_hooks();

#endif
