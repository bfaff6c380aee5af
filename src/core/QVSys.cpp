// System settings of the application instance: defaults, home directory, build string and the
// single-setting accessors.
#include "core/QVSys.h"

#include <apr_time.h>

#include <cstdio>
#include <cstring>

#include "core/QVConfig.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_util.h"

#define QVSYS_TRACE(lvl, severity, ...) \
    QV_TRACE_IF(qvlb_startup_trace_level() > (lvl), "CONTROL_THREAD", severity, __VA_ARGS__)

namespace {
constexpr const char* kDefaultHome = "/opt/korlund/quovix/";
constexpr size_t kBuildMax = 4096;
}  // namespace

void QVSysInit() {
    if (qvApplication == nullptr) return;
    QVSys_t& s = qvApplication->QVSys;
    QVSYS_TRACE(3, "Info", "Method called");
    qvSetSharedStr(&s.latestBuild, nullptr, "latestBuild");
    s.bci_dumpOnSocket_enabled = 0;
    s.captureChildFPCPUTime = 0;
    qvSetSharedStr(&s.WBCookieName, nullptr, "WBCookieName");
    s.fpTraceLevel = 0;
    s.btMonitorTraceLevel = 0;
    s.backendMonTraceLevel = 0;
    s.methodMonTraceLevel = 0;
    s.threadMonTraceLevel = 0;
    s.exceptionTraceLevel = 0;
    s.appLogTraceLevel = 0;
    s.controlTraceLevel = 0;
    s.agentTraceLevel = 0;
    s.bciInstrSessionPct = 0;
    s.rSeq = 0;
    s.enableForcedFlowpathChainMode = 1;
    s.enableCpuTime = 0;
    s.bciDataBufferMaxSize = 102400;
    s.dataBuffMaxCount = 1000;
    s.bciASDataBufferMaxSize = 262144;
    s.ASDataBuffMaxCount = 16;
    s.ASDataBuffMinCount = 2;
    s.discardCount = 0;
    s.qvcBciDataConnectionHeartBeat = 0;
    s.enableBCIErrorlog = 0;
    s.enableBCIErrorStackDepth = 9999;
    s.flowPathInstanceInitialID = 0x4000000000000000LL;
    s.timeStampMask = 0x3fffffffffLL;
    s.seqNoDigits = 8;
    s.seqNumMask = 255;
    s.slowVrySlowFPCounts = 0;
    s.doNotDiscardFPCounts = 0;
    s.discardedFPCounts = 0;
    s.completeFPCounts = 0;
    s.httpConditionFPCounts = 0;
    s.forcedFPCounts = 0;
    s.traceMaxSize = 0xa00000;
    s.bciMaxNonServiceMethodsPerFP = 50000;
    s.qvcHeartBeatThreshold = 900000;
    s.enableIPResourceURL = 0;
    s.retryFlag = 0;
    s.closeCtrlConFlag = 0;
    s.methodEntryDepth2SetCookie = 0;
    s.methodExitDepth2SetCookie = 0;
    s.cookieOnResponseCommit = 0;
    s.headerInResponse = 0;
    s.qvSessionIdleTimeOutSecs = 1800;
    s.maxFPCountInSession = 1000;
    qvSetSharedStr(&s.xSessionCookieName, "X-KorWB", "xSessionCookieName");
    qvSetSharedStr(&s.qvSessionCookieName, "KorWB", "qvSessionCookieName");
    qvSetSharedStr(&s.cookieDomainName, nullptr, "cookieDomainName");
    s.enableFPHdrInRep = 0;
    s.setMaxFPCountInSession = 0;
    s.enableQVSession = 0;
    s.captureCorrelationEnabled = 0;
    qvStoreText(s.correlationIdHeader, sizeof(s.correlationIdHeader), "");
    s.hashMapClearTime = 30;
    s.qvEnableTxHotspot = 1;
    s.qvHelperDepth = 2;
    s.qvHotspotThreadLimit = 0;
    s.qvEnableDebugMode = 0;
    s.captureMethodForAllFP = 0;
    s.maxHttpBodySize = 1024;
    s.btRuleOverriedPolicy = 1;
    s.enableCaptureNetDelay = 0;
    s.backendErrorDetectionMode = 0;
    s.enableExceptionInSeqBlob = 0;
    s.proxyMode = 0;
    s.proxyConType = 0;
    qvSetSharedStr(&s.socketPath, nullptr, "socketPath");
    qvSetSharedStr(&s.proxyIP, "127.0.0.1", "proxyIP");
    s.proxyPort = 7892;
    s.enableDBBackendName = 0;
    s.dataConnState = 1;
    s.autosensorConnState = 1;

    setBCIStartUpTime();
    setQVHome();
    setQvBuild(&s.qvBuild);
    QVASSettingInit();
    if (qvAgentHooks.controlSockBufInit) qvAgentHooks.controlSockBufInit();
    QVAgentSettingInit();
    // Run again on purpose: whatever the steps in between changed is reset.
    QVASSettingInit();
    initQVHttpReqRespCaptureSettings(&QVHttpReqCaptureSettings);
    initKeywordQVCStaticScaling();
    initQVDynamicSettings();
    initQVHttpReqRespCaptureSettings(&QVHttpRespCaptureSettings);
    QVSYS_TRACE(3, "Info", "Method exit");
}

void setBCIStartUpTime() {
    if (qvApplication == nullptr) return;
    long long now = static_cast<long long>(apr_time_now() / 1000);
    qv_store(qvApplication->QVSys.bciStartUpTime, now);
    QVSYS_TRACE(0, "Info", "Value of bciStartUpTime : '%lld' set.", now);
}

long long getBCIStartUpTime() {
    return qvApplication ? qv_load(qvApplication->QVSys.bciStartUpTime) : 0;
}

void setQVHome() {
    if (qvApplication == nullptr) return;
    char buf[1024];
    const char* home = qvlb_get_env_var_value("QVHOME", buf, sizeof(buf));
    if (home == nullptr || home[0] == '\0') home = kDefaultHome;
    qvSetSharedStr(&qvApplication->QVSys.qvHomePath, home, "qvHomePath");
    QVSYS_TRACE(0, "Info", "qvHome value :'%s' set", home);
}

char* getQVHome() {
    return qvApplication ? qv_load_acquire(qvApplication->QVSys.qvHomePath) : nullptr;
}

void setQvBuild(char** target) {
    if (target == nullptr) return;
    const char* home = getQVHome();
    if (home == nullptr) return;
    char path[2048];
    snprintf(path, sizeof(path), "%s/etc/version", home);
    QVSYS_TRACE(0, "Info", "QV version file path '%s'.", path);
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) {
        QVSYS_TRACE(0, "Error", "Could not open file '%s' in read mode.", path);
        return;
    }
    char build[kBuildMax];
    size_t used = 0;
    build[0] = '\0';
    char line[1024];
    int tooLong = 0;
    int n;
    while ((n = qv_read_conf_line(fp, line, sizeof(line), &tooLong)) >= 0) {
        if (n == 0 || line[0] == '#' || line[0] == ' ' || line[0] == '\t' || line[0] == '\n' ||
            line[0] == '\r')
            continue;
        size_t len = strcspn(line, "\r\n");
        bool hasEnd = tooLong || line[len] != '\0';
        line[len] = '\0';
        // Build text stops at a NUL byte inside the line, like any C string.
        len = strlen(line);
        size_t room = kBuildMax - 1 - used;
        if (len > room) len = room;
        memcpy(build + used, line, len);
        used += len;
        if (hasEnd && used < kBuildMax - 1) build[used++] = ' ';
        build[used] = '\0';
    }
    fclose(fp);
    qvSetSharedStr(target, build, "qvBuild");
    QVSYS_TRACE(0, "Info", "QV build '%s' set.", build);
}

char* getQvBuild() {
    return qvApplication ? qv_load_acquire(qvApplication->QVSys.qvBuild) : nullptr;
}

long long getPID() {
    return qv_load(pid);
}

char* getCorrelationIdHeader() {
    return qvApplication ? qvApplication->QVSys.correlationIdHeader : nullptr;
}

int getEnableTxHotspot() {
    return qvApplication ? qv_load(qvApplication->QVSys.qvEnableTxHotspot) : 0;
}

int getHelperDepth() {
    return qvApplication ? qv_load(qvApplication->QVSys.qvHelperDepth) : 0;
}

int getHotspotThreadLimit() {
    return qvApplication ? qv_load(qvApplication->QVSys.qvHotspotThreadLimit) : 0;
}

int isCpuAtFlowpathLevel() {
    return qvApplication && qv_load(qvApplication->QVSys.enableCpuTime) > 0 ? 1 : 0;
}

void resetAllFPCounters() {
    if (qvApplication == nullptr) return;
    QVSys_t& s = qvApplication->QVSys;
    qv_store(s.slowVrySlowFPCounts, 0);
    qv_store(s.doNotDiscardFPCounts, 0);
    qv_store(s.discardedFPCounts, 0);
    qv_store(s.completeFPCounts, 0);
    qv_store(s.httpConditionFPCounts, 0);
    qv_store(s.forcedFPCounts, 0);
    QVSYS_TRACE(1, "Info", "All flowpath counters reset.");
}

char* getTopoFpStr() {
    thread_local char buf[1024];
    const char* tier = getTierName();
    const char* server = getAppServerName();
    const char* app = getAppName();
    char sep = qv_load(QVSettings.qvVectorSeperator);
    snprintf(buf, sizeof(buf), "%s%c%s%c%s", tier ? tier : "", sep, server ? server : "", sep,
             app ? app : "");
    return buf;
}

int parseForcedFPChainMode(char* value, char* /*keyword*/, int /*index*/) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    int mode = qvParseInt(value);
    qv_store(qvApplication->QVSys.enableForcedFlowpathChainMode, mode);
    QV_TRACE_IF(qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Info",
                "Value of enableForcedFlowpathChainMode : '%d' set.", mode);
    return 0;
}

int parseEnableCPUTime(char* value, char* /*keyword*/, int /*index*/) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    int mode = qvParseInt(value);
    if (mode < 0 || mode > 2) {
        QV_TRACE_IF(qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Error",
                    "Invalid enableCpuTime value '%s' ignored.", value);
        return -1;
    }
    qv_store(qvApplication->QVSys.enableCpuTime, mode);
    const char* child = strstr(value, "%20");
    if (child != nullptr)
        qv_store(qvApplication->QVSys.captureChildFPCPUTime, qvParseInt(child + 3) != 0 ? 1 : 0);
    QV_TRACE_IF(qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Info",
                "Value of enableCpuTime : '%d' set, captureChildFPCPUTime : '%d'.", mode,
                static_cast<int>(qv_load(qvApplication->QVSys.captureChildFPCPUTime)));
    return 0;
}
