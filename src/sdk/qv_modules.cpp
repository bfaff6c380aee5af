// Top of the layer stack: the one place that knows every layer.
#include "sdk/qv_modules.h"

#include "backend/QVBackendMonitor.h"
#include "backend/backend_module.h"
#include "bt/QVBTManager.h"
#include "bt/QVBTMonitor.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "bt/bt_module.h"
#include "codec/codec_module.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/collector_module.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "flowpath/flowpath_module.h"
#include "mm/QVMethodMonitor.h"
#include "mm/mm_module.h"
#include "sdk/qv_flowpath_wiring.h"
#include "tool/QVClientManager.h"
#include "tool/tool_module.h"

namespace {

void initMonitors() {
    QVSQLProcessorInit();
    QVMethodMonitorInit();
    QVBackendMonitorInit();
}

void reinitMonitors() {
    QVMethodMonitorInit();
    QVBackendMonitorInit();
}

// A start of instrumentation begins a new registry generation (usage flags cleared) and sweeps
// the generations no running flowpath holds any more.
void startInstrumentationRegistry() {
    makeHashmapCopyAndaddToLL(1);
    checkAndDeleteNode();
}

void wireCollectorCommands() {
    qvServerHooks.reinitBTConfig = QVBTConfigModelInit;
    qvServerHooks.reinitMonitors = reinitMonitors;
    qvServerHooks.resetMonitorDataModelFromTLS = resetMonitorDataModelFromTLS;
    qvServerHooks.buildVectorPrefixes = updateInstanceInfo;
    qvServerHooks.onStartInstrumentation = startInstrumentationRegistry;
    qvServerHooks.totalMethodCount = qvCachedMethodCount;
    qvReporterHooks.generateBT = generateAndDumpBTMonitoringRecord;
    qvReporterHooks.generateBackend = generateAndDumpBackendMonitoringRecord;
    qvReporterHooks.generateMethod = generateAndDumpMethodMonitoringRecord;
}

}  // namespace

void qvlb_register_modules() {
    // Lowest first, so a higher layer may override an entry a lower one installed.
    qv_collector_register_hooks();
    qv_flowpath_register_hooks();
    qv_bt_register_hooks();
    qv_mm_register_hooks();
    qv_backend_register_hooks();
    qv_codec_register_hooks();
    qvAgentHooks.initMonitors = initMonitors;
    qv_tool_register_hooks();
    qv_wire_flowpath_hooks();
    wireCollectorCommands();
    qvFlowpathHooks.onResourceMetaRecord = qvCacheResourceMetaRecord;
}

void qvlb_reset_modules_for_test() {
    qv_data_dispatcher_reset_for_test();
    qvFlowpathGeneratorResetForTest();
    qvClientManagerResetForTest();
    qvbt_manager_reset_for_test();
    qvMonitorDataModelResetForTest();
    qvMonitorCommonResetForTest();
    qvMethodMonitorResetForTest();
    qvBackendMonitorResetForTest();
    qvSQLProcessorResetForTest();
    qv_flowpath_pool_reset_for_test();
    qvMethodRegistryResetForTest();
    clear_qvc_server_setting();
    qvc_server_config_reset_for_test();
    qv_agent_reset_for_test();
}
