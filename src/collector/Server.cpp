// Collector command handling: prefix dispatch of the control lines and the start, stop,
// modify, reroute and heartbeat sequences with their replies.
#include "collector/Server.h"

#include <apr_errno.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "collector/NIODataDispatcher.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/control_thread.h"
#include "core/QVBCISettings.h"
#include "core/QVConfig.h"
#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

QVServerHooks qvServerHooks = {};
QV_INSTANCE_STATE_DEFINE(QVServerState, qvServerState)
long long stopDrainMinuteMs = 60000;

namespace {

const char* const kModule = "CONTROL_THREAD";
constexpr long long kDefaultOriginalEpoch = 1388534400000LL;  // 1 January 2014 00:00:00 UTC
constexpr int kMaxRerouteFields = 10;
constexpr int kMaxHeartbeatFields = 10;
constexpr int kLogCopy = 4096;

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

struct PrefixRow {
    const char* text;
    QVCommandKind kind;
};

// Tested in this order; the first match wins.
const PrefixRow kPrefixes[] = {
    {"qv_control_req:action=start_instrumentation", QV_CMD_START},
    {"qv_control_rep:action:result=Ok;", QV_CMD_HEARTBEAT_REPLY},
    {"qv_control_req:action=reconnect;heartBeat", QV_CMD_HEARTBEAT},
    {"qv_meta_data_req:action=send_meta_data;", QV_CMD_META_DATA},
    {"qvc_req:action=discover_loaded_classes", QV_CMD_CLASS_DISCOVERY},
    {"qv_control_req:action=auto_discovery;", QV_CMD_IGNORED_REPLY},
    {"qv_meta_data_req:action=send_jad_file;classes=", QV_CMD_IGNORED_REPLY},
    {"qv_control_rep:action=send_file_content;", QV_CMD_IGNORED_REPLY},
    {"qv_control_rep:action=send_file_content;result=Error:", QV_CMD_IGNORED_REPLY},
    {"qv_control_rep:action=instrumentation_profile", QV_CMD_IGNORED_REPLY},
    {"qv_control_req:action=stop_instrumentation", QV_CMD_STOP},
    {"qv_control_req:action=modify", QV_CMD_MODIFY},
    {"qv_control_req:action=reset_monitor;monitor_event_id=", QV_CMD_RECOGNISED},
    {"qv_control_req:action=abort;", QV_CMD_RECOGNISED},
    {"qv_control_req:action=reroute_ctrl_con", QV_CMD_REROUTE},
    {"download_file_req", QV_CMD_FILE_TRANSFER},
    {"upload_file_req", QV_CMD_FILE_TRANSFER},
    {"qv_meta_data_req:action=auto_instr_status;", QV_CMD_AUTO_INSTR},
    {"Dynamic_Diagnostics_req:action=ai_status;", QV_CMD_DYNAMIC_DIAG},
    {"qv_control_req:action=bci_stat;", QV_CMD_RECOGNISED},
    {"qv_meta_data_req:action=get_thread_dump;", QV_CMD_RECOGNISED},
    {"qv_meta_data_req:action=get_heap_dump;", QV_CMD_RECOGNISED},
};

// A printable, bounded copy of a received line for the trace log: control bytes and bytes above
// 126 become '?', so a binary line cannot corrupt the log's record format.
const char* printable(const char* msg, char* out, size_t cap) {
    size_t i = 0;
    if (msg != nullptr) {
        for (; msg[i] != '\0' && i + 1 < cap; ++i) {
            const unsigned char c = static_cast<unsigned char>(msg[i]);
            out[i] = (c < 0x20 || c > 0x7e) ? '?' : static_cast<char>(c);
        }
    }
    out[i] = '\0';
    return out;
}

bool isProxyServer() {
    return qv_load(QVProxy.proxyServerFlag) != 0;
}

// Sends data to every process of the instance that has a socket (the proxy relays collector
// commands to its application processes).
void forwardToInstanceProcesses(const char* data, int len) {
    QVProxyInstance_t* app = qvApplication;
    if (qvServerHooks.forwardToProcesses != nullptr && data != nullptr && len > 0) {
        qvServerHooks.forwardToProcesses(data, len);
        return;
    }
    if (app == nullptr || app->processInfo == nullptr || data == nullptr || len <= 0) return;
    for (int i = 0; i < app->processCount; ++i) {
        apr_socket_t* s = app->processInfo[i].sock;
        if (s == nullptr) continue;
        char err[256];
        if (qvlb_send_n_bytes(s, data, len, err, sizeof(err)) != 0)
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                        "Unable to forward message to process %lld. Error = %s", app->processInfo[i].pid,
                        err);
    }
}

// "\n", the message, "\n": the framing the proxy uses towards its processes.
void forwardFramed(const char* msg) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || (app->processInfo == nullptr && qvServerHooks.forwardToProcesses == nullptr) ||
        msg == nullptr)
        return;
    forwardToInstanceProcesses("\n", 1);
    forwardToInstanceProcesses(msg, static_cast<int>(strlen(msg)));
    forwardToInstanceProcesses("\n", 1);
}

// Copies a text field that keyword handlers write byte by byte.
void loadText(const char* field, size_t cap, char* out, size_t outCap) {
    size_t i = 0;
    for (; i < cap && i + 1 < outCap; ++i) {
        out[i] = qv_load(field[i]);
        if (out[i] == '\0') return;
    }
    out[i] = '\0';
}

void logFlowpathCounters() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    const QVSys_t& s = app->QVSys;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "Flowpath counters: complete = %lld, slow and very slow = %lld, forced = %lld, "
                "do not discard = %lld, discarded = %lld",
                qv_load(s.completeFPCounts), qv_load(s.slowVrySlowFPCounts), qv_load(s.forcedFPCounts),
                qv_load(s.doNotDiscardFPCounts), qv_load(s.discardedFPCounts));
}

// Sleeps ms in short slices; ends early when the agent stops or the test run stops.
void drainWait(long long ms) {
    QVProxyInstance_t* app = qvApplication;
    while (ms > 0) {
        if (qv_load(qvAgentStopping) != 0 || app == nullptr || qv_load(app->Server.testRunRunning) == 0)
            return;
        const long long slice = ms < 20 ? ms : 20;
        if (qvlb_sleep_ms_interruptible(slice, &qvAgentStopping)) return;
        ms -= slice;
    }
}

void handleStart(char* msg) {
    QVProxyInstance_t* app = qvApplication;
    Server_t& srv = app->Server;
    char shown[kLogCopy];
    if (isProxyServer()) {
        forwardFramed(msg);
        qvlb_replace_str(&app->startInstMsg, msg, "startInstMsg");
    }
    // The instrumentation-profile table belongs to the method registry (onStartInstrumentation).
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Receive msg '%s'", printable(msg, shown, sizeof(shown)));
    qvlb_init_all_keywords();
    if (qvServerHooks.reinitBTConfig) qvServerHooks.reinitBTConfig();
    if (qvServerHooks.reinitHttpCapture) qvServerHooks.reinitHttpCapture();
    if (qvServerHooks.reinitMonitors) qvServerHooks.reinitMonitors();
    if (qvServerHooks.resetMonitorDataModelFromTLS) qvServerHooks.resetMonitorDataModelFromTLS();

    qv_store(srv.TestRunIDValue, 0);
    qv_store(srv.isKorEpochDiffSet, 0);
    if (strstr(msg, "korEpochDiff") == nullptr) {
        qv_store(srv.korEpochDiffTime, 0LL);
        qv_store(srv.originalKorEpochDiffTime, kDefaultOriginalEpoch);
    }
    if (strstr(msg, "TimeStampDiff") == nullptr) qv_store(srv.diffTimeFromQVC, 0LL);

    findStatusFromClientMsg(msg);
    if (qv_load(app->QVSys.closeCtrlConFlag) != 0) return;
    const bool noProfile = qvlb_no_instr_profile(qv_load_acquire(QVInstrProfKeywords.instrProfile));
    qv_store(srv.noInstrumentProfileMode, noProfile ? 1 : 0);
    if (noProfile)
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Warning",
                    "No Instrumentation profiles selected for current test.");
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Total method count in instrumentation = '%d'",
                qvServerHooks.totalMethodCount ? qvServerHooks.totalMethodCount() : 0);

    if (qv_load(app->QVSys.enableIPResourceURL) != 0 && qvServerHooks.buildResourceHashMap)
        qvServerHooks.buildResourceHashMap();
    if (qvServerHooks.buildAgentHashMap) qvServerHooks.buildAgentHashMap();
    if (qvServerHooks.buildVectorPrefixes) qvServerHooks.buildVectorPrefixes();

    if (qv_load(srv.isKorEpochDiffSet) != 0) {
        const long long v = qv_load(srv.korEpochDiffTime) - qv_load(srv.diffTimeFromQVC);
        qv_store(srv.korEpochDiffTime, v);
        qv_store(srv.originalKorEpochDiffTime, v);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Value of  originalKorEpochDiffTime: '%lld' set.", v);
    } else {
        qv_store(srv.originalKorEpochDiffTime,
                 qv_load(srv.originalKorEpochDiffTime) - qv_load(srv.diffTimeFromQVC));
    }

    qv_store(srv.numberOfTestRunsTillNow, qv_load(srv.numberOfTestRunsTillNow) + 1);
    qv_store(srv.retryForDataConn, 1);
    qv_store(srv.retryForAutoSensorConn, 1);
    setAllFlagAndCountVars();
    qv_store(srv.InstrumentationBusy, 1);
    handleStartInstrumentationCase();
    qv_store(srv.testRunRunning, 1);
    sendResponseToQVC();
}

void handleHeartbeat(const char* msg) {
    QVProxyInstance_t* app = qvApplication;
    qv_store(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
    std::string_view fields[kMaxHeartbeatFields];
    int n = 0;
    std::string_view rest(msg);
    while (!rest.empty() && n < kMaxHeartbeatFields) {
        const size_t semi = rest.find(';');
        const std::string_view tok = rest.substr(0, semi);
        if (!tok.empty()) fields[n++] = tok;
        if (semi == std::string_view::npos) break;
        rest.remove_prefix(semi + 1);
    }
    if (n < 3) return;
    for (int i = 0; i < n; ++i) {
        const size_t eq = fields[i].find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = fields[i].substr(0, eq);
        char value[32];
        const std::string_view v = fields[i].substr(eq + 1);
        const size_t len = v.size() < sizeof(value) - 1 ? v.size() : sizeof(value) - 1;
        memcpy(value, v.data(), len);
        value[len] = '\0';
        if (key == "dataConnState") {
            const int state = qvParseInt(value);
            qv_store(app->QVSys.dataConnState, state);
            if (state == 0)
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Data connection is closed from QVC.");
        } else if (key == "AutosensorConnState") {
            const int state = qvParseInt(value);
            qv_store(app->QVSys.autosensorConnState, state);
            if (state == 0) {
                QV_TRACE_IF(
                    ctlLevel() > 0, kModule, "Info",
                    "AutoSensor connection is closed from QVC.Going to closing auto sensor connection.");
                closeAutoSensorConnection();
            }
        }
    }
}

void logNotSupported(const char* what, const char* msg) {
    char shown[kLogCopy];
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "%s is not supported by this agent; message ignored: '%s'",
                what, printable(msg, shown, sizeof(shown)));
}

// Replaces the line's value when the line's key is one being rewritten. Prefix rule and order of
// the settings-file reader, so the line that reader would use is the one replaced.
struct Rewrite {
    const char* key;
    const char* value;  // null: keep
    bool done;
};

}  // namespace

QVCommandKind qvClassifyCommand(const char* msg) {
    if (msg == nullptr) return QV_CMD_UNKNOWN;
    for (const PrefixRow& row : kPrefixes) {
        if (strncmp(msg, row.text, strlen(row.text)) == 0) return row.kind;
    }
    return QV_CMD_UNKNOWN;
}

void handleReceivedClientMessageFromQVCollector(char* msg) {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    QVProxyInstance_t* app = qvApplication;
    if (msg == nullptr || app == nullptr) return;
    char shown[kLogCopy];
    switch (qvClassifyCommand(msg)) {
        case QV_CMD_START:
            handleStart(msg);
            break;
        case QV_CMD_HEARTBEAT_REPLY:
            qv_store(heartbeat_count, 0);
            break;
        case QV_CMD_HEARTBEAT:
            handleHeartbeat(msg);
            break;
        case QV_CMD_META_DATA:
            if (qvServerHooks.processClientMessage)
                qvServerHooks.processClientMessage(msg);
            else
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                            "No metadata cache installed; request answered empty.");
            controlConnectionSendBuffer(QV_META_DATA_REPLY, static_cast<int>(strlen(QV_META_DATA_REPLY)));
            break;
        case QV_CMD_CLASS_DISCOVERY:
            logNotSupported("Loaded-class discovery", msg);
            break;
        case QV_CMD_FILE_TRANSFER:
            logNotSupported("File transfer", msg);
            break;
        case QV_CMD_AUTO_INSTR:
            logNotSupported("Auto-instrumentation", msg);
            break;
        case QV_CMD_DYNAMIC_DIAG:
            logNotSupported("Dynamic diagnostics", msg);
            break;
        case QV_CMD_IGNORED_REPLY:
        case QV_CMD_RECOGNISED:
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Message recognised, no action: '%s'",
                        printable(msg, shown, sizeof(shown)));
            break;
        case QV_CMD_STOP:
            handleStopInstrumentationCase(msg);
            break;
        case QV_CMD_MODIFY:
            handleRunTimeChangeCase(msg);
            break;
        case QV_CMD_REROUTE:
            parseReRouteMessageAndUpdateClientInfo(msg);
            break;
        case QV_CMD_UNKNOWN:
        default:
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Unknown message received from QVC, ignored: '%s'",
                        printable(msg, shown, sizeof(shown)));
            break;
    }
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method exit");
}

void handleStartInstrumentationCase() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    qv_store(app->Server.isRuntimeApplied, 0);
    logFlowpathCounters();
    resetAllFPCounters();
    if (qvServerHooks.onStartInstrumentation) qvServerHooks.onStartInstrumentation();
    // Before the threads start: a thread that saw the run stopped would end at once.
    qv_store(app->Server.testRunRunning, 1);
    check_data_thread();
    startMonitorReporter();
}

void handleStoppingCaseAtStopInstrumentCase() {
    logFlowpathCounters();
}

void handleStopInstrumentationCase(char* msg) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || msg == nullptr) return;
    Server_t& srv = app->Server;
    char shown[kLogCopy];
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Receive Message from QVC - '%s'",
                printable(msg, shown, sizeof(shown)));
    char status[64];
    loadText(srv.statusValue, sizeof(srv.statusValue), status, sizeof(status));
    if (strcasecmp(status, "running") == 0 || strcasecmp(status, "stopping") == 0)
        handleStoppingCaseAtStopInstrumentCase();
    if (isProxyServer()) {
        forwardFramed(msg);
        qvlb_replace_str(&app->startInstMsg, nullptr, "startInstMsg");
    }
    qv_store(srv.gettingstopInstrumenatation, 1);
    // Deliberately blocks the control thread so in-flight data can drain before the stop.
    const int minutes = qv_load(srv.dumpremainingtstime);
    if (minutes > 0) drainWait(static_cast<long long>(minutes) * qv_load(stopDrainMinuteMs));
    qv_store(srv.gettingstopInstrumenatation, 0);
    if (qvServerHooks.setToStopThread) qvServerHooks.setToStopThread(1);
    qv_store(srv.testRunRunning, 0);
    qv_store(srv.retryForDataConn, 0);
    qv_store(srv.retryForAutoSensorConn, 0);
    qv_store(srv.controlCommunicationBusyFlag, 0);
    findStatusFromClientMsg(msg);
    qv_store(srv.InstrumentationBusy, 0);
    const int running = qv_load(srv.numberOfTestRunsTillNow);
    qv_store(srv.numberOfTestRunsTillNow, running > 0 ? running - 1 : 0);
    sendResponseOfStopInstrumentation();
}

void handleRunTimeChangeCase(char* msg) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || msg == nullptr) return;
    if (qv_load(app->Server.InstrumentationBusy) == 0) {
        char shown[kLogCopy];
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Modify message refused, no test is running: '%s'",
                    printable(msg, shown, sizeof(shown)));
        sendRespenseRunTimeChange(0);
        return;
    }
    // The proxy's workers follow the running test's settings, as they follow its start.
    if (isProxyServer()) forwardFramed(msg);
    qv_store(isInstrProfRequested, 1);
    qv_store(isModifiedInstrProf, 0);
    qv_store(app->Server.isRuntimeApplied, 1);
    qv_store(qvAgentHashMapChanged, 0);
    qv_store(isRunTime, 1);
    findStatusFromClientMsg(msg);
    qv_store(isRunTime, 0);
    if (qv_load(qvAgentHashMapChanged) != 0) {
        if (qvServerHooks.buildAgentHashMap) qvServerHooks.buildAgentHashMap();
        qv_store(qvAgentHashMapChanged, 0);
    }
    sendRespenseRunTimeChange(1);
}

void parseReRouteMessageAndUpdateClientInfo(char* msg) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || msg == nullptr) return;
    Server_t& srv = app->Server;
    char shown[kLogCopy];
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Reroute message received: '%s'",
                printable(msg, shown, sizeof(shown)));
    qv_store(srv.requestType, 2);
    char curHost[1024];
    int curPort = 0;
    getControlPeer(curHost, sizeof(curHost), &curPort);
    char dest[1100];
    snprintf(dest, sizeof(dest), "%s:%d", curHost, curPort);
    qvStoreText(srv.connDestination, sizeof(srv.connDestination), dest);

    char host[1024] = "";
    int port = 0;
    char tier[256] = "";
    char server[256] = "";
    char instance[256] = "";
    int clusterMode = qv_load(srv.isClusterMode);

    std::string_view fields[kMaxRerouteFields];
    int n = 0;
    std::string_view rest(msg);
    while (!rest.empty() && n < kMaxRerouteFields) {
        const size_t semi = rest.find(';');
        const std::string_view tok = rest.substr(0, semi);
        if (!tok.empty()) fields[n++] = tok;
        if (semi == std::string_view::npos) break;
        rest.remove_prefix(semi + 1);
    }
    if (n < 2) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Message not sent properly fron QVC. numFields = %d",
                    n);
        return;
    }
    auto copyValue = [](std::string_view v, char* out, size_t cap) {
        const size_t len = v.size() < cap - 1 ? v.size() : cap - 1;
        memcpy(out, v.data(), len);
        out[len] = '\0';
    };
    for (int i = 1; i < n; ++i) {
        const size_t eq = fields[i].find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = fields[i].substr(0, eq);
        const std::string_view v = fields[i].substr(eq + 1);
        char value[1024];
        copyValue(v, value, sizeof(value));
        if (key == "qvcHost") {
            copyValue(v, host, sizeof(host));
        } else if (key == "qvcPort") {
            const int p = qvParseInt(value);
            if (p != qv_load(app->QVBCISetting.qvcPort)) port = p;
        } else if (key == "tier") {
            if (strcasecmp(value, "ALL") != 0) copyValue(v, tier, sizeof(tier));
        } else if (key == "server") {
            if (strcasecmp(value, "ALL") != 0) copyValue(v, server, sizeof(server));
        } else if (key == "instance") {
            if (strcasecmp(value, "ALL") != 0) copyValue(v, instance, sizeof(instance));
        } else if (key == "clusterMode") {
            clusterMode = qvParseInt(value);
        }
    }
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "qvcHost = '%s', qvcPort = %d, tier = %s, server = %s, instance = %s, clusterMode = %d", host,
                port, tier, server, instance, clusterMode);
    qv_store(srv.isClusterMode, clusterMode);
    if (clusterMode != 0) {
        // The file is not read in cluster mode: the new collector goes into entry 1 directly, and
        // so does the identity.
        set_qvc_server_entry(1, host[0] != '\0' ? host : curHost, port > 0 ? port : curPort);
        if (tier[0] != '\0') setTierName(tier);
        if (server[0] != '\0') setAppServerName(server);
        if (instance[0] != '\0') setAppName(instance);
    } else {
        updateQVSettingFile(host, port, tier, server, instance);
    }
    qv_store(srv.connDuration, my_gettimeofday() - qv_load(srv.lastConnectionTime));
    if (qv_load(srv.testRunRunning) != 0) handleStoppingCaseAtStopInstrumentCase();
    if (qv_load(srv.numberOfTestRunsTillNow) > 0) checkAllDataConnAndcloseIfAny();
    qv_store(srv.numberOfTestRunsTillNow, 0);
    closeCurrentControlConnection();
    setAllFlagAndCountVars();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Rerouting operation completed.");
}

int updateQVSettingFile(const char* qvcHost, int qvcPort, const char* tier, const char* server,
                        const char* instance) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return -1;
    char path[1024];
    if (conf_file[0] != '\0') {
        snprintf(path, sizeof(path), "%s", conf_file);
    } else {
        const char* home = getQVHome();
        snprintf(path, sizeof(path), "%s/config/qvsettings.conf", home ? home : "");
    }
    char portText[16] = "";
    if (qvcPort > 0) snprintf(portText, sizeof(portText), "%d", qvcPort);
    auto given = [](const char* s) { return s != nullptr && s[0] != '\0' ? s : nullptr; };
    // Same keys and order as the settings-file reader.
    Rewrite rewrites[] = {{"tier", given(tier), false},
                          {"server", given(server), false},
                          {"instance", given(instance), false},
                          {"qvcHost", given(qvcHost), false},
                          {"qvcPort", given(portText), false}};

    auto fail = [&](const char* step, int err) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Error in opening file '%s'. Hence can't update qvsetting file.", path);
        char reason[256];
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Settings file '%s' not updated: %s failed: %s", path,
                    step, apr_strerror(static_cast<apr_status_t>(err), reason, sizeof(reason)));
        return -1;
    };
    // A symbolic link stays: the file it names is the one replaced.
    char target[PATH_MAX];
    if (realpath(path, target) == nullptr) return fail("resolving the path", errno);
    struct stat st;
    if (stat(target, &st) != 0) return fail("stat", errno);
    FILE* in = fopen(target, "r");
    if (in == nullptr) return fail("open", errno);
    // Written beside the file and renamed over it, so a reader never sees half a file; created
    // with the file's permissions.
    char tmp[PATH_MAX + 16];
    snprintf(tmp, sizeof(tmp), "%s.XXXXXX", target);
    const int fd = mkstemp(tmp);
    if (fd < 0) {
        const int err = errno;
        fclose(in);
        return fail("creating the new file", err);
    }
    FILE* out = fchmod(fd, st.st_mode & 07777) == 0 ? fdopen(fd, "w") : nullptr;
    if (out == nullptr) {
        const int err = errno;
        close(fd);
        unlink(tmp);
        fclose(in);
        return fail("creating the new file", err);
    }
    char line[1024];
    bool inLong = false;     // inside a line longer than the buffer: copied through unchanged
    bool endsInLine = true;  // the output ends with a line feed
    bool ok = true;
    while (fgets(line, sizeof(line), in) != nullptr) {
        const size_t len = strlen(line);
        const bool complete = len > 0 && line[len - 1] == '\n';
        // The reader skips over-long lines, so they are never rewritten.
        if (inLong || (!complete && len == sizeof(line) - 1)) {
            ok = ok && fputs(line, out) >= 0;
            inLong = !complete;
            endsInLine = complete;
            continue;
        }
        const char c = line[0];
        bool replaced = false;
        if (c != '#' && c != ' ' && c != '\t' && c != '\n' && c != '\r') {
            for (Rewrite& r : rewrites) {
                if (strncasecmp(line, r.key, strlen(r.key)) != 0) continue;
                if (r.value != nullptr) {
                    ok = ok && fprintf(out, "%s=%s\n", r.key, r.value) >= 0;
                    r.done = true;
                    replaced = true;
                }
                break;
            }
        }
        if (!replaced) ok = ok && fputs(line, out) >= 0;
        endsInLine = replaced || complete;
    }
    if (!endsInLine) ok = ok && fputc('\n', out) != EOF;
    for (const Rewrite& r : rewrites) {
        if (r.value != nullptr && !r.done) ok = ok && fprintf(out, "%s=%s\n", r.key, r.value) >= 0;
    }
    fclose(in);
    int err = ok ? 0 : (errno != 0 ? errno : EIO);
    if (fclose(out) != 0 && err == 0) err = errno;
    if (err == 0 && rename(tmp, target) != 0) err = errno;
    if (err != 0) {
        unlink(tmp);
        return fail("writing the new file", err);
    }
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "QV settings file '%s' updated.", path);
    return 0;
}

void checkAllDataConnAndcloseIfAny() {
    close_data_connection();
    closeAutoSensorConnection();
}

void closeCurrentControlConnection() {
    QVProxyInstance_t* app = qvApplication;
    if (app != nullptr) qv_store(app->QVSys.closeCtrlConFlag, 1);
    control_connection_cleanup();
}

int sendResponseToQVC() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return -2;
    char extra[sizeof(app->Server.startInstrRespBuffer)];
    loadText(app->Server.startInstrRespBuffer, sizeof(app->Server.startInstrRespBuffer), extra,
             sizeof(extra));
    char reply[sizeof(extra) + 128];
    int n;
    if (extra[0] != '\0')
        n = snprintf(reply, sizeof(reply), "%s;status=starting;result=Ok;\n%s\n", QV_START_REPLY_ACTION,
                     extra);
    else
        n = snprintf(reply, sizeof(reply), "%s;status=starting;result=Ok;\n", QV_START_REPLY_ACTION);
    if (n < 0) return -2;
    if (n >= static_cast<int>(sizeof(reply))) n = static_cast<int>(sizeof(reply)) - 1;
    return controlConnectionSendBuffer(reply, n);
}

int sendResponseOfStopInstrumentation() {
    char reply[128];
    const int n = snprintf(reply, sizeof(reply), "%s;status=stopping;result=Ok;\n", QV_STOP_REPLY_ACTION);
    return controlConnectionSendBuffer(reply, n);
}

int sendRespenseRunTimeChange(int ok) {
    const char* reply = ok ? QV_MODIFY_OK_REPLY : QV_MODIFY_REFUSED_REPLY;
    return controlConnectionSendBuffer(reply, static_cast<int>(strlen(reply)));
}

void dumpQvDataOverRecord() {
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to Dumping 10 record");
    dumpData("10,\n", 4);
    QVProxyInstance_t* app = qvApplication;
    if (app != nullptr) qv_store(app->Server.isTenRecordDump, 1);
}

void setAllFlagAndCountVars() {
    if (qvServerHooks.setAllFlagAndCountVars) qvServerHooks.setAllFlagAndCountVars();
}

void server_reset_for_test() {
    qv_store(qvAgentHashMapChanged, 0);
    qv_store(isRunTime, 0);
    qv_store(isInstrProfRequested, 0);
    qv_store(isModifiedInstrProf, 0);
    qv_store(stopDrainMinuteMs, 60000LL);
}
