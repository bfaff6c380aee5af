#include "support/agent_reset.h"

#include <cstdio>
#include <string>

#include "backend/QVBackendMonitor.h"
#include "bt/QVBTManager.h"
#include "bt/QVBTMonitor.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "codec/qvlb_decode.h"
#include "collector/NIODataDispatcher.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mutex.h"
#include "mm/QVMethodMonitor.h"
#include "sdk/qv_sdk.h"
#include "tool/QVClientManager.h"

void resetWholeAgent(const std::function<void()>& afterDataStop) {
    qvlb_decode_reset_for_test();
    qv_agent_shutdown();
    qv_data_dispatcher_reset_for_test();
    if (afterDataStop) afterDataStop();
    nio_data_dispatcher_reset_for_test();
    monitor_reporter_reset_for_test();
    control_thread_reset_for_test();
    server_reset_for_test();
    qvc_server_config_reset_for_test();
    qvClientManagerResetForTest();
    // The SDK log's directory is fixed and shared by every test: leave no file of this one there.
    qvSDKLog* sdkLog = qv_sdk_log;
    const std::string sdkLogFile = sdkLog != nullptr ? sdkLog->file_name[0] : "";
    qv_sdk_reset_for_test();
    if (!sdkLogFile.empty()) std::remove(sdkLogFile.c_str());
    qvMethodMonitorResetForTest();
    qvBackendMonitorResetForTest();
    qvBTMonitorResetForTest();
    qvSQLProcessorResetForTest();
    qvbt_manager_reset_for_test();
    qvMonitorDataModelResetForTest();
    qvMonitorCommonResetForTest();
    qvFlowpathGeneratorResetForTest();
    qv_flowpath_pool_reset_for_test();
    qvMethodRegistryResetForTest();
    qvAgentHooks = QVAgentHooks{};
    qv_agent_reset_for_test();
}

std::string queuedRecords() {
    QVLockGuard w(qv_load_acquire(bufferWriteLock));
    QVLockGuard m(qv_load_acquire(bufferMoveLock));
    std::string out;
    for (nioSettings_t* n = readList; n != nullptr; n = n->next) out.append(n->buff, n->use_len);
    if (QVBCIAgentBB != nullptr) out.append(QVBCIAgentBB->buff, QVBCIAgentBB->use_len);
    return out;
}
