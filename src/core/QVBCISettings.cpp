// Connection settings of the application instance: defaults, BT error table and accessors.
#include "core/QVBCISettings.h"

#include <cstring>

#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"

#define QVBCI_TRACE(lvl, severity, ...) \
    QV_TRACE_IF(qvlb_startup_trace_level() > (lvl), "CONTROL_THREAD", severity, __VA_ARGS__)

void QVBCISettingInit() {
    if (qvApplication == nullptr) return;
    QVBCISetting_t& b = qvApplication->QVBCISetting;
    QVBCI_TRACE(3, "Info", "Method called");
    qvSetSharedStr(&b.agentType, nullptr, "agentType");
    qvSetSharedStr(&b.tierName, nullptr, "tierName");
    qvSetSharedStr(&b.appServerName, nullptr, "appServerName");
    qvSetSharedStr(&b.appName, nullptr, "appName");
    qvSetSharedStr(&b.qvcHost, nullptr, "qvcHost");
    qv_store(b.fileBasedKeywordMode, 0);
    qv_store(b.data_thread_running, 0);
    qv_store(b.autoSensor_thread_running, 0);
    qvStoreText(b.serverIp, sizeof(b.serverIp), "127.0.0.1");
    qvStoreText(b.controlConnectionReqMessage, sizeof(b.controlConnectionReqMessage), "");
    b.controlConnectionReqMessageLen = 0;
    qvStoreText(b.control_conn_heartbeat_msg, sizeof(b.control_conn_heartbeat_msg), "");
    b.control_conn_heartbeat_msgLen = 0;
    qvStoreText(b.controlDataReqMessage, sizeof(b.controlDataReqMessage), "");
    b.controlDataReqMessageLen = 0;
    qvStoreText(b.controlAutoSensorReqMessage, sizeof(b.controlAutoSensorReqMessage), "");
    b.controlAutoSensorReqMessageLen = 0;
    b.enableJsrInlinerForAll = 1;
    b.enableComputeFrame = 1;
    qv_store(b.tierID, 0);
    qv_store(b.serverID, 0);
    qv_store(b.appID, 0);
    qv_store(b.qvcPort, 7892);
    qv_store(b.num_qvc_config, 0);
    b.bciPort = 7990;
    b.bciStartupDelay = 120000;
    b.sleepInterval = 60000;
    b.enableAutoInstrumentation = 1;
    b.removeSafetyNetMode = 2;
    qv_store(b.autoScalingMode, 2);
    b.flagForHandlingProxy = 0;
    qv_store(b.lastModifiedDate, 0);
    qv_store(b.prevFileSize, 0);
    QVBTErrorArrayInit();
    QVBCI_TRACE(3, "Info", "Method exit");
}

void QVBTErrorArrayInit() {
    if (qvApplication == nullptr) return;
    char* arr = qvApplication->QVBCISetting.btErrorArray;
    // 'F': the status makes the request an error (client and server errors); 'T': it does not.
    for (int status = 0; status < 600; status++) qv_store(arr[status], status >= 400 ? 'F' : 'T');
}

void setAgentType(const char* type) {
    if (qvApplication == nullptr || type == nullptr) return;
    qvSetSharedStr(&qvApplication->QVBCISetting.agentType, type, "agentType");
    QVBCI_TRACE(0, "Info", "Value of agentType : '%s' set.", type);
}

int setTierName(char* value, char* /*keyword*/, int /*index*/) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    qvSetSharedStr(&qvApplication->QVBCISetting.tierName, value, "tierName");
    QVBCI_TRACE(0, "Info", "Value of tierName : '%s' set.", value);
    return 0;
}

int setAppServerName(char* value, char* /*keyword*/, int /*index*/) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    qvSetSharedStr(&qvApplication->QVBCISetting.appServerName, value, "appServerName");
    QVBCI_TRACE(0, "Info", "Value of appServerName : '%s' set.", value);
    return 0;
}

int setAppName(char* value, char* /*keyword*/, int /*index*/) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    qvSetSharedStr(&qvApplication->QVBCISetting.appName, value, "appName");
    QVBCI_TRACE(0, "Info", "Value of appName : '%s' set.", value);
    return 0;
}

void setQVCHost(const char* host) {
    if (qvApplication == nullptr || host == nullptr) return;
    qvSetSharedStr(&qvApplication->QVBCISetting.qvcHost, host, "qvcHost");
    QVBCI_TRACE(0, "Info", "Value of qvcHost : '%s' set.", host);
}

void setQVCPort(int port) {
    if (qvApplication == nullptr) return;
    qv_store(qvApplication->QVBCISetting.qvcPort, port);
    QVBCI_TRACE(0, "Info", "Value of qvcPort : '%d' set.", port);
}

void setTierID(int id) {
    if (qvApplication == nullptr) return;
    qv_store(qvApplication->QVBCISetting.tierID, id);
    QVBCI_TRACE(0, "Info", "Value of tierID : '%d' set.", id);
}

void setServerID(int id) {
    if (qvApplication == nullptr) return;
    qv_store(qvApplication->QVBCISetting.serverID, id);
    QVBCI_TRACE(0, "Info", "Value of serverID : '%d' set.", id);
}

void setAppID(int id) {
    if (qvApplication == nullptr) return;
    qv_store(qvApplication->QVBCISetting.appID, id);
    QVBCI_TRACE(0, "Info", "Value of appID : '%d' set.", id);
}

void setAutoScalingMode(int mode) {
    if (qvApplication == nullptr) return;
    qv_store(qvApplication->QVBCISetting.autoScalingMode, mode);
    QVBCI_TRACE(0, "Info", "Value of autoScalingMode : '%d' set.", mode);
}

char* getTierName() {
    return qvApplication ? qv_load_acquire(qvApplication->QVBCISetting.tierName) : nullptr;
}

char* getAppServerName() {
    return qvApplication ? qv_load_acquire(qvApplication->QVBCISetting.appServerName) : nullptr;
}

char* getAppName() {
    return qvApplication ? qv_load_acquire(qvApplication->QVBCISetting.appName) : nullptr;
}
