// Top of the layer stack: the one place that knows every layer.
#include "sdk/qv_modules.h"

#include "backend/QVBackendMonitor.h"
#include "backend/backend_module.h"
#include "bt/bt_module.h"
#include "collector/collector_module.h"
#include "core/qv_agent.h"
#include "flowpath/QVSQLProcessor.h"
#include "flowpath/flowpath_module.h"
#include "mm/QVMethodMonitor.h"
#include "mm/mm_module.h"

namespace {

void initMonitors() {
    QVSQLProcessorInit();
    QVMethodMonitorInit();
    QVBackendMonitorInit();
}

}  // namespace

void qvlb_register_modules() {
    // Lowest first, so a higher layer may override an entry a lower one installed.
    qv_collector_register_hooks();
    qv_flowpath_register_hooks();
    qv_bt_register_hooks();
    qv_mm_register_hooks();
    qv_backend_register_hooks();
    qvAgentHooks.initMonitors = initMonitors;
}
