// Fills the flowpath engine's hook table (QVFlowpathHooks) from the layers above it: BT naming and
// categories, the BT, method and backend monitors.
#ifndef QV_FLOWPATH_WIRING_H
#define QV_FLOWPATH_WIRING_H

// Installs every entry of qvFlowpathHooks except the five proxy encoders (the codec fills those).
// Idempotent; call before agent_init (qvlb_register_modules does). Not thread-safe against
// running flowpaths.
void qv_wire_flowpath_hooks();

#endif
