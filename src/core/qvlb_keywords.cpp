// The collector keyword table, its setters and fill functions, the core-owned parsers and the
// routine that applies a start or modify message.
#include "core/qvlb_keywords.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "core/QVBCISettings.h"
#include "core/QVConfig.h"
#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"

#define QVKW_TRACE(lvl, severity, ...) \
    QV_TRACE_IF(qvlb_control_trace_level() > (lvl), "CONTROL_THREAD", severity, __VA_ARGS__)

#define KW_FILE(name) \
    { name, -1, 0, setFileBasedKeywd, nullptr, nullptr }
#define KW_PARSER(name, fn) \
    { name, -1, 0, fn, nullptr, nullptr }
#define KW_LATER(name) \
    { name, -1, 0, qvlb_keyword_not_handled, nullptr, nullptr }
#define KW_FIELD(name, rec, field, setter, fill)                                                             \
    {                                                                                                        \
        name, static_cast<int>(offsetof(rec, field)), static_cast<int>(sizeof(rec::field)), nullptr, setter, \
            fill                                                                                             \
    }

keywordsInfo keywordsMap[] = {
    KW_FILE("BTRuleConfig"),
    KW_FILE("BTTConfig"),
    KW_FILE("BTErrorRules"),
    KW_FILE("HTTPStatsCondCfg"),
    KW_FILE("QVHTTPRepHdrCfgListFullFp"),
    KW_FILE("QVHTTPReqHdrCfgListL1Fp"),
    KW_FILE("qvExceptionMonFile"),
    KW_FILE("qvMethodMonFile"),
    KW_FILE("QVAppLogFile"),
    KW_FILE("qvBackendMonFile"),
    KW_FILE("qvBackendNamingRulesFile"),
    KW_FILE("generateExceptionConfFile"),
    KW_FILE("korWBURLFile"),
    KW_FILE("QVEntryPointsFile"),
    KW_FILE("QVInterfaceFile"),
    KW_FILE("saveConfigFiles"),
    KW_FIELD("status", Server_t, statusValue, fill_server_info, fill_char_data),
    KW_LATER("qvFlowpathMasks"),
    KW_PARSER("testIdx", setCurrentTR),
    KW_PARSER("korEpochDiff", setKorEpochDiff),
    KW_FIELD("TimeStampDiff", Server_t, diffTimeFromQVC, fill_server_info, fill_long_long_data),
    KW_FIELD("enableForcedFPChain", QVSys_t, enableForcedFlowpathChainMode, fill_QVSys_info, fill_int_data),
    KW_FIELD("interfaceTraceLevel", QVInterfaceProcessor_t, interfaceTraceLevel,
             fill_QVInterfaceProcessor_info, fill_int_data),
    KW_PARSER("enableCpuTime", parseEnableCPUTime),
    KW_PARSER("lmWDir", setlmWDir),
    KW_PARSER("appName", setAppName),
    KW_FIELD("appID", QVBCISetting_t, appID, fill_QVBCISetting_info, fill_int_data),
    KW_FIELD("qvAppServerID", QVBCISetting_t, serverID, fill_QVBCISetting_info, fill_int_data),
    KW_FIELD("tierID", QVBCISetting_t, tierID, fill_QVBCISetting_info, fill_int_data),
    KW_LATER("DBIPName"),
    KW_PARSER("ASSampleInterval", setThreadSampleInterval),
    KW_PARSER("ASReportInterval", setThreadReportInterval),
    KW_FIELD("fpVersionID", Server_t, fpgVID, fill_server_info, fill_char_data),
    KW_FIELD("enableBTMonitorTrace", QVSys_t, btMonitorTraceLevel, fill_QVSys_info, fill_int_data),
    KW_LATER("enableBTMonitor"),
    KW_LATER("maxBTCount"),
    KW_LATER("maxIPCount"),
    KW_LATER("doNotDiscardFlowPaths"),
    KW_FIELD("maxCharInSeqBlob", QVFlowpathGenerator_t, maxCharactersInSeqBlob, fill_QVFlowpathGenerator_info,
             fill_int_data),
    KW_PARSER("collectASData", setASData),
    KW_LATER("qvVectorSeparator"),
    KW_FIELD("captureExceptionTraceLevel", QVSys_t, exceptionTraceLevel, fill_QVSys_info, fill_int_data),
    KW_FIELD("qvMethodMonTraceLevel", QVSys_t, methodMonTraceLevel, fill_QVSys_info, fill_int_data),
    KW_LATER("enableBTMonitorError"),
    KW_LATER("enableBackendMonitor"),
    KW_FIELD("enableBackendMonTrace", QVSys_t, backendMonTraceLevel, fill_QVSys_info, fill_int_data),
    KW_PARSER("genNewMonRecord", setMonitorEnabledForID),
    KW_FIELD("enableThreadMonTraceLevel", QVSys_t, threadMonTraceLevel, fill_QVSys_info, fill_int_data),
    KW_LATER("BTAggDataArraySize"),
    KW_FIELD("AppLogTraceLevel", QVSys_t, appLogTraceLevel, fill_QVSys_info, fill_int_data),
    KW_FIELD("ControlThreadTraceLevel", QVSys_t, controlTraceLevel, fill_QVSys_info, fill_int_data),
    KW_FIELD("AgentTraceLevel", QVSys_t, agentTraceLevel, fill_QVSys_info, fill_int_data),
    KW_FIELD("BCITraceMaxSize", QVSys_t, traceMaxSize, fill_QVSys_info, fill_long_long_data),
    KW_FIELD("bciInstrSessionPct", QVSys_t, bciInstrSessionPct, fill_QVSys_info, fill_int_data),
    KW_FIELD("enableFPTrace", QVSys_t, fpTraceLevel, fill_QVSys_info, fill_int_data),
    KW_FIELD("fileBasedKeywordMode", QVBCISetting_t, fileBasedKeywordMode, fill_QVBCISetting_info,
             fill_char_data),
    KW_PARSER("instrProfile", setInstProfile),
    KW_PARSER("lmd", setInstProfile),
    KW_PARSER("size", setInstProfile),
    KW_PARSER("tierName", setTierName),
    KW_PARSER("qvAppServerHost", setAppServerName),
    KW_FIELD("bciMaxNonServiceMethodsPerFP", QVSys_t, bciMaxNonServiceMethodsPerFP, fill_QVSys_info,
             fill_long_long_data),
    KW_FIELD("numInstrProfile", Server_t, numInstrProfile, fill_server_info, fill_int_data),
    KW_FIELD("InstrTraceLevel", Server_t, setInstrumentTraceLevel, fill_server_info, fill_char_data),
    KW_FILE("qvHttpHdrCaptureFileList"),
    KW_PARSER("hdrListForValueAsId", sethdrListForValueAsId),
    KW_PARSER("ASThresholdMatchCount", setThresholdMatchCount),
    KW_PARSER("ASStackComparingDepth", setThreadStackCompareDepth),
    KW_PARSER("qvMonitorInterval", setQVMonitorInterval),
    KW_PARSER("ASReportDumpMode", setThreadReportDumpMode),
    KW_PARSER("ASEnableHotspotRecord", setASEnableHotspotRecord),
    KW_PARSER("enableQVSession", setEnableQVSession),
    KW_PARSER("WBCookie", setWBCookie),
    KW_FIELD("enableIPResourceURL", QVSys_t, enableIPResourceURL, fill_QVSys_info, fill_int_data),
    KW_PARSER("correlationIDHeader", setCorrelationID),
    KW_PARSER("captureHTTPReqFullFp", setHttpReqRespCaptureSettings),
    KW_FILE("qvILRewritterFile"),
    KW_FILE("qvModuleFile"),
    KW_FILE("qvProcessesFile"),
    KW_FILE("qvPoolFile"),
    KW_FIELD("hashMapClearTime", QVSys_t, hashMapClearTime, fill_QVSys_info, fill_int_data),
    KW_FIELD("setthresholdTime", Server_t, dumpremainingtstime, fill_server_info, fill_int_data),
    KW_FIELD("autoInstrMapSize", QVAutoInstrumentation_t, autoInstrMapSize, fill_QVAutoInstrumentation_info,
             fill_int_data),
    KW_FIELD("autoInstrTraceLevel", QVAutoInstrumentation_t, autoInstrTraceLevel,
             fill_QVAutoInstrumentation_info, fill_int_data),
    KW_FIELD("autoInstrMaxAvgDuration", QVAutoInstrumentation_t, autoInstrDurationThreshold,
             fill_QVAutoInstrumentation_info, fill_int_data),
    KW_FIELD("autoDeInstrPct", QVAutoInstrumentation_t, autoUnInstrPct, fill_QVAutoInstrumentation_info,
             fill_double_data),
    KW_FIELD("autoInstrSampleInterval", QVAutoInstrumentation_t, autoInstrSampleThreshold,
             fill_QVAutoInstrumentation_info, fill_int_data),
    KW_FIELD("autoInstrPct", QVAutoInstrumentation_t, autoInstrPct, fill_QVAutoInstrumentation_info,
             fill_double_data),
    KW_FIELD("qvEnableTxHotspot", QVSys_t, qvEnableTxHotspot, fill_QVSys_info, fill_int_data),
    KW_FIELD("qvHelperDepth", QVSys_t, qvHelperDepth, fill_QVSys_info, fill_int_data),
    KW_FIELD("qvHotspotThreadLimit", QVSys_t, qvHotspotThreadLimit, fill_QVSys_info, fill_int_data),
    KW_FILE("qvCriticalFileList"),
    KW_PARSER("captureHTTPRespFullFp", setHttpReqRespCaptureSettings),
    KW_PARSER("autoInstrClassWeight", setClassWeight),
    KW_PARSER("autoInstrSessionDuration", setAutoInstrSessionInterval),
    KW_PARSER("autoInstrRetainChanges", setRetainAutoInstrMethods),
    KW_FILE("blackListForDebugSession"),
    KW_PARSER("enableAutoInstrSession", setDebugSessionMode),
    KW_FIELD("autoInstrSampleThreshold", QVAutoInstrumentation_t, autoInstrSampleThreshold,
             fill_QVAutoInstrumentation_info, fill_int_data),
    KW_PARSER("MinStackDepthDebugSession", setMinStackDepthForDebugSession),
    KW_FIELD("captureMethodForAllFP", QVSys_t, captureMethodForAllFP, fill_QVSys_info, fill_int_data),
    KW_FIELD("qvEnableDebugMode", QVSys_t, qvEnableDebugMode, fill_QVSys_info, fill_int_data),
    KW_FIELD("maxHttpBodySize", QVSys_t, maxHttpBodySize, fill_QVSys_info, fill_int_data),
    KW_FIELD("BTRuleOverridePolicy", QVSys_t, btRuleOverriedPolicy, fill_QVSys_info, fill_int_data),
    KW_FIELD("bciDataBufferMaxSize", QVSys_t, bciDataBufferMaxSize, fill_QVSys_info, fill_int_data),
    KW_FIELD("bciDataBufferMaxCount", QVSys_t, dataBuffMaxCount, fill_QVSys_info, fill_int_data),
    KW_FIELD("ASDataBufferSize", QVSys_t, bciASDataBufferMaxSize, fill_QVSys_info, fill_int_data),
    KW_FIELD("ASDataBufferMaxCount", QVSys_t, ASDataBuffMaxCount, fill_QVSys_info, fill_int_data),
    KW_FIELD("ASDataBufferMinCount", QVSys_t, ASDataBuffMinCount, fill_QVSys_info, fill_int_data),
    KW_PARSER("backendErrorDetectionMode", setBackendErrorDetectionMode),
    KW_PARSER("instrExceptions", setExceptionCaptureSettings),
    KW_PARSER("qvExceptionFilterList", parseExceptionFilteringList),
    KW_PARSER("enableExceptionInSeqBlob", setEnableExceptionInSeqBlob),
    KW_FILE("qvDynamicDiagnosticsConfFile"),
    KW_PARSER("enableDDAI", setEnableDDKeywd),
    KW_FIELD("qvcHeartBeatThreshold", QVSys_t, qvcHeartBeatThreshold, fill_QVSys_info, fill_long_long_data),
    KW_FIELD("enableDBBackendName", QVSys_t, enableDBBackendName, fill_QVSys_info, fill_int_data),
};
static_assert(std::size(keywordsMap) == QV_KEYWORD_COUNT, "the keyword table has 117 rows");

namespace {

constexpr const char* kStartPrefix = "qv_control_req:action=start_instrumentation";
constexpr const char* kModifyPrefix = "qv_control_req:action=modify";
constexpr int kMaxFields = 1024;
constexpr int kMaxInitHooks = 16;

struct KeywordState {
    QVInstrProfKeywords_t instrProf = {};
    // File name per file-based row (shared text).
    char* fileBased[QV_KEYWORD_COUNT] = {};

    ~KeywordState();
};

}  // namespace

QV_INSTANCE_STATE_DEFINE(KeywordState, keywordState)

KeywordState::~KeywordState() {
    // The process's own texts live until exit; a destroyed instance's join the retired ones.
    if (this == &keywordState_own) return;
    for (char** p : {&instrProf.instrProfile, &instrProf.lmd, &instrProf.size})
        qvSetSharedStr(p, nullptr, "instrProfile keyword");
    for (char*& v : fileBased) qvSetSharedStr(&v, nullptr, "file-based keyword");
}

namespace {

#define fileBasedValues (keywordState().fileBased)

void (*initHooks[kMaxInitHooks])();
int initHookCount = 0;

bool validIndex(int index) {
    return index >= 0 && index < QV_KEYWORD_COUNT;
}

// Row index for a parser called with a possibly bad index (callers outside the table).
int rowOf(const char* keyword, int index) {
    return validIndex(index) ? index : NameToIndex(keyword);
}

const char* nameOf(const char* keyword, int index) {
    if (validIndex(index)) return keywordsMap[index].name;
    return keyword ? keyword : "(null)";
}

void fillRecord(void* record, size_t size, int index, char* value) {
    if (record == nullptr || value == nullptr || !validIndex(index)) return;
    const keywordsInfo& row = keywordsMap[index];
    if (row.fill_data == nullptr || row.offset < 0 || row.length <= 0 ||
        static_cast<size_t>(row.offset) + static_cast<size_t>(row.length) > size)
        return;
    row.fill_data(static_cast<char*>(record) + row.offset, value, row.length);
    QVKW_TRACE(0, "Info", "Keyword '%s' set to '%s'.", row.name, value);
}

void storeInteger(char* target, int length, long long v) {
    switch (length) {
        case 1:
            qv_store(*target, static_cast<char>(v));
            break;
        case 2:
            qv_store(*reinterpret_cast<short*>(target), static_cast<short>(v));
            break;
        case 4:
            qv_store(*reinterpret_cast<int*>(target), static_cast<int>(v));
            break;
        case 8:
            qv_store(*reinterpret_cast<long long*>(target), v);
            break;
        default:
            break;
    }
}

// Shared shape of the core parsers that store one int.
int storeIntSetting(int& field, char* value, const char* keyword, int index) {
    if (value == nullptr) return -1;
    int v = qvParseInt(value);
    qv_store(field, v);
    QVKW_TRACE(0, "Info", "Keyword '%s' : value '%d' set.", nameOf(keyword, index), v);
    return 0;
}

int storeTextSetting(char** field, char* value, const char* keyword, int index, const char* purpose) {
    if (value == nullptr) return -1;
    qvSetSharedStr(field, value, purpose);
    QVKW_TRACE(0, "Info", "Keyword '%s' : value '%s' set.", nameOf(keyword, index), value);
    return 0;
}

void clearInstrProfKeywords() {
    QVInstrProfKeywords_t& p = QVInstrProfKeywords;
    for (char** slot : {&p.instrProfile, &p.lmd, &p.size})
        qvSetSharedStr(slot, nullptr, "instrProfile keyword");
}

}  // namespace

QVInstrProfKeywords_t& qvInstrProfKeywordsOfInstance() {
    return keywordState().instrProf;
}

int NameToIndex(const char* name) {
    if (name == nullptr) return -1;
    for (int i = 0; i < QV_KEYWORD_COUNT; i++)
        if (strcmp(keywordsMap[i].name, name) == 0) return i;
    return -1;
}

int findStatusFromClientMsg(char* msg) {
    if (msg == nullptr || qvApplication == nullptr) return -1;
    QVKW_TRACE(3, "Info", "Method called");
    bool start = strncmp(msg, kStartPrefix, strlen(kStartPrefix)) == 0;
    bool modify = strncmp(msg, kModifyPrefix, strlen(kModifyPrefix)) == 0;
    bool busy = qv_load(qvApplication->Server.controlCommunicationBusyFlag) != 0;
    if (!((start && !busy) || modify)) {
        QVKW_TRACE(0, "Info", "Control message not applied (busy = %d): '%s'", busy ? 1 : 0, msg);
        return -1;
    }
    // Work on a copy: the caller still inspects the message after the keywords were applied.
    char* copy = qvlb_strdup(msg, "control message copy", -1);
    if (copy == nullptr) return -1;
    int applied = 0;
    int fields = 0;
    char* save = nullptr;
    for (char* tok = strtok_r(copy, ";", &save); tok != nullptr; tok = strtok_r(nullptr, ";", &save)) {
        if (fields == kMaxFields) {
            QVKW_TRACE(0, "Error", "Control message has more than %d fields; the rest is ignored.",
                       kMaxFields);
            break;
        }
        fields++;
        if (qv_load(qvApplication->QVSys.closeCtrlConFlag) != 0) break;
        char keyword[256];
        char* value = split_key_value(tok, keyword, sizeof(keyword));
        if (value == nullptr) {
            QVKW_TRACE(0, "Info", "Field '%s' has no '='; rest of the message ignored.", tok);
            break;
        }
        if (keyword[0] == '\0') break;
        // A keyword cut by the buffer can never be a table name (all are shorter than 32).
        bool cut = static_cast<size_t>(value - 1 - tok) >= sizeof(keyword);
        int index = cut ? -1 : NameToIndex(keyword);
        if (index < 0) {
            QVKW_TRACE(0, "Info", "Unknown keyword '%s' with value '%s' ignored.", keyword, value);
            continue;
        }
        const keywordsInfo& row = keywordsMap[index];
        if (row.parser != nullptr) {
            row.parser(value, keyword, index);
        } else if (row.setter != nullptr) {
            row.setter(index, value);
        } else {
            continue;
        }
        applied++;
    }
    qvlb_free(copy, "control message copy", -1);
    QVKW_TRACE(3, "Info", "Method exit");
    return applied;
}

void initKeywordQVCStaticScaling() {
    if (qvApplication == nullptr) return;
    Server_t& srv = qvApplication->Server;
    qv_store(srv.isClusterMode, 0);
    qv_store(srv.requestType, 1);
    qv_store(srv.lastConnectionTime, -1LL);
    qv_store(srv.connDuration, 0LL);
    qvStoreText(srv.connDestination, sizeof(srv.connDestination), "");
}

void qvlb_init_all_keywords() {
    QVKW_TRACE(3, "Info", "Method called");
    if (qvApplication != nullptr) {
        QVSys_t& s = qvApplication->QVSys;
        qv_store(s.enableForcedFlowpathChainMode, 1);
        qv_store(s.enableCpuTime, 0);
        qv_store(s.bciInstrSessionPct, 0);
        qv_store(s.captureChildFPCPUTime, 0);
        qv_store(s.enableIPResourceURL, 0);
        qv_store(s.captureCorrelationEnabled, 0);
        qvStoreText(s.correlationIdHeader, sizeof(s.correlationIdHeader), "");
        qv_store(s.retryFlag, 0);
        qv_store(s.closeCtrlConFlag, 0);
        qv_store(s.dataConnState, 1);
        qv_store(s.autosensorConnState, 1);

        Server_t& srv = qvApplication->Server;
        qv_store(srv.korEpochDiffTime, 0LL);
        qv_store(srv.originalKorEpochDiffTime, 1388534400000LL);
        qv_store(srv.testRunRunning, 0);
        qv_store(srv.noInstrumentProfileMode, 0);
        qvStoreText(srv.fpgVID, sizeof(srv.fpgVID), "1.0");
        qv_store(srv.dumpOnASFile, 0);
        qvStoreText(srv.instanceInfo, sizeof(srv.instanceInfo), "");
        qv_store(srv.instrProfBytesWritten, 0);
        qv_store(srv.gettingstopInstrumenatation, 0);
        qv_store(srv.dumpremainingtstime, 0);
        qv_store(srv.numcriticalFile, 0);
        qv_store(srv.startInstrRespBufferCnt, 0);
        qv_store(srv.isTenRecordDump, 0);
        qvStoreText(srv.startInstrRespBuffer, sizeof(srv.startInstrRespBuffer), "");
    }
    qv_store(QVSettings.qvVectorSeperator, '>');
    qv_store(QVInterfaceProcessor.enableInterfaceTargeting, 0);
    // Settings of the subsystems whose records live in core.
    QVExceptionCaptureSettingsInit();
    QVASSettingInit();
    initQVHttpReqRespCaptureSettings(&QVHttpReqCaptureSettings);
    initQVHttpReqRespCaptureSettings(&QVHttpRespCaptureSettings);
    for (int i = 0; i < QV_KEYWORD_COUNT; i++)
        qvSetSharedStr(&fileBasedValues[i], nullptr, "file-based keyword");
    clearInstrProfKeywords();
    for (int i = 0; i < initHookCount; i++) initHooks[i]();
    QVKW_TRACE(3, "Info", "Method exit");
}

int qvlb_set_keyword_parser(const char* keyword, qvKeywordParser parser) {
    int index = NameToIndex(keyword);
    if (index < 0 || parser == nullptr) return -1;
    keywordsMap[index].parser = parser;
    return 0;
}

int qvlb_add_keyword_init_hook(void (*fn)()) {
    if (fn == nullptr) return -1;
    for (int i = 0; i < initHookCount; i++)
        if (initHooks[i] == fn) return 0;
    if (initHookCount == kMaxInitHooks) return -1;
    initHooks[initHookCount++] = fn;
    return 0;
}

int qvlb_keyword_not_handled(char* value, char* keyword, int index) {
    QVKW_TRACE(0, "Info", "Keyword '%s' is not handled yet; value '%s' ignored", nameOf(keyword, index),
               value ? value : "(null)");
    return 0;
}

const char* qvlb_get_file_based_keyword(int index) {
    return validIndex(index) ? qv_load_acquire(fileBasedValues[index]) : nullptr;
}

void fill_server_info(int index, char* value) {
    if (qvApplication) fillRecord(&qvApplication->Server, sizeof(Server_t), index, value);
}

void fill_QVSys_info(int index, char* value) {
    if (qvApplication) fillRecord(&qvApplication->QVSys, sizeof(QVSys_t), index, value);
}

void fill_QVBCISetting_info(int index, char* value) {
    if (qvApplication) fillRecord(&qvApplication->QVBCISetting, sizeof(QVBCISetting_t), index, value);
}

void fill_QVAutoInstrumentation_info(int index, char* value) {
    fillRecord(&QVAutoInstrumentation, sizeof(QVAutoInstrumentation), index, value);
}

void fill_QVFlowpathGenerator_info(int index, char* value) {
    fillRecord(&QVFlowpathGenerator, sizeof(QVFlowpathGenerator), index, value);
}

void fill_QVInterfaceProcessor_info(int index, char* value) {
    fillRecord(&QVInterfaceProcessor, sizeof(QVInterfaceProcessor), index, value);
}

void fill_QVDynamicSettings_info(int index, char* value) {
    fillRecord(&QVDynamicSettings, sizeof(QVDynamicSettings), index, value);
}

void fill_QVASsettings_info(int index, char* value) {
    fillRecord(&QVASSettings, sizeof(QVASSettings), index, value);
}

void fill_QVBTMonitor_info(int index, char* value) {
    QVKW_TRACE(0, "Info", "Keyword '%s': BT monitor record not available; value '%s' ignored",
               nameOf(nullptr, index), value ? value : "(null)");
}

void fill_QVBackendMonitor_info(int index, char* value) {
    QVKW_TRACE(0, "Info", "Keyword '%s': backend monitor record not available; value '%s' ignored",
               nameOf(nullptr, index), value ? value : "(null)");
}

void fill_qvAutoSensorUsingStackTrace_info(int index, char* value) {
    QVKW_TRACE(0, "Info", "Keyword '%s': auto-sensor record not available; value '%s' ignored",
               nameOf(nullptr, index), value ? value : "(null)");
}

void fill_int_data(char* target, char* value, int length) {
    if (target == nullptr || value == nullptr) return;
    storeInteger(target, length, qvParseInt(value));
}

void fill_long_long_data(char* target, char* value, int length) {
    if (target == nullptr || value == nullptr) return;
    storeInteger(target, length, qvParseLongLong(value));
}

void fill_double_data(char* target, char* value, int length) {
    if (target == nullptr || value == nullptr || length != static_cast<int>(sizeof(double))) return;
    // strtod, not sscanf: an out-of-range number is defined (HUGE_VAL) instead of undefined.
    char* end = nullptr;
    double v = strtod(value, &end);
    if (end == value) v = 0.0;
    std::atomic_ref<double>(*reinterpret_cast<double*>(target)).store(v, std::memory_order_relaxed);
}

void fill_char_data(char* target, char* value, int length) {
    if (target == nullptr || value == nullptr || length <= 0) return;
    size_t cap = static_cast<size_t>(length);
    size_t n = strnlen(value, cap);  // never reads past the value's end
    if (cap > 1 && n > cap - 1) n = cap - 1;
    for (size_t i = 0; i < cap; i++) qv_store(target[i], i < n ? value[i] : '\0');
}

int setFileBasedKeywd(char* value, char* keyword, int index) {
    int row = rowOf(keyword, index);
    if (value == nullptr || row < 0) return -1;
    qvSetSharedStr(&fileBasedValues[row], value, "file-based keyword");
    QVKW_TRACE(0, "Info", "File-based keyword '%s' is not supported; file name '%s' stored.",
               keywordsMap[row].name, value);
    return 0;
}

int setInstProfile(char* value, char* keyword, int index) {
    const int row = rowOf(keyword, index);
    if (value == nullptr || row < 0) return -1;
    QVInstrProfKeywords_t& p = QVInstrProfKeywords;
    const char* name = keywordsMap[row].name;
    char** slot = strcmp(name, "instrProfile") == 0 ? &p.instrProfile
                  : strcmp(name, "lmd") == 0        ? &p.lmd
                  : strcmp(name, "size") == 0       ? &p.size
                                                    : nullptr;
    if (slot == nullptr) return -1;
    return storeTextSetting(slot, value, keyword, row, "instrProfile keyword");
}

bool qvlb_no_instr_profile(const char* profile) {
    return profile == nullptr || profile[0] == '\0' || strcmp(profile, "-") == 0 ||
           strcmp(profile, "NA") == 0;
}

int setCurrentTR(char* value, char* keyword, int index) {
    if (qvApplication == nullptr) return -1;
    int rc = storeIntSetting(qvApplication->Server.TestRunIDValue, value, keyword, index);
    if (rc == 0) qv_store(qvApplication->testIdx, qv_load(qvApplication->Server.TestRunIDValue));
    return rc;
}

int setKorEpochDiff(char* value, char* keyword, int index) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    long long v = qvParseLongLong(value);
    qv_store(qvApplication->Server.korEpochDiffTime, v);
    qv_store(qvApplication->Server.isKorEpochDiffSet, 1);
    QVKW_TRACE(0, "Info", "Keyword '%s' : value '%lld' set.", nameOf(keyword, index), v);
    return 0;
}

int setlmWDir(char* value, char* keyword, int index) {
    return storeTextSetting(&QVSettings.lmWDir, value, keyword, index, "lmWDir");
}

int setThreadSampleInterval(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.ASSampleInterval, value, keyword, index);
}

int setThreadReportInterval(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.ASReportInterval, value, keyword, index);
}

int setASData(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.collectASData, value, keyword, index);
}

int setMonitorEnabledForID(char* value, char* keyword, int index) {
    return storeIntSetting(QVSettings.genNewMonRecord, value, keyword, index);
}

int sethdrListForValueAsId(char* value, char* keyword, int index) {
    return storeTextSetting(&QVHttpReqCaptureSettings.hdrListForValueAsId, value, keyword, index,
                            "hdrListForValueAsId");
}

int setThresholdMatchCount(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.ASThresholdMatchCount, value, keyword, index);
}

int setThreadStackCompareDepth(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.ASStackComparingDepth, value, keyword, index);
}

int setQVMonitorInterval(char* value, char* keyword, int index) {
    if (value == nullptr) return -1;
    // The monitors divide by the interval.
    if (qvParseInt(value) <= 0) {
        QVKW_TRACE(0, "Error", "Keyword '%s' : invalid interval '%s' ignored.", nameOf(keyword, index),
                   value);
        return -1;
    }
    return storeIntSetting(QVSettings.qvMonitorIntervalInSecs, value, keyword, index);
}

int setThreadReportDumpMode(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.ASReportDumpMode, value, keyword, index);
}

int setASEnableHotspotRecord(char* value, char* keyword, int index) {
    return storeIntSetting(QVASSettings.ASEnableHotspotRecord, value, keyword, index);
}

int setEnableQVSession(char* value, char* keyword, int index) {
    if (qvApplication == nullptr) return -1;
    return storeIntSetting(qvApplication->QVSys.enableQVSession, value, keyword, index);
}

int setWBCookie(char* value, char* keyword, int index) {
    if (qvApplication == nullptr) return -1;
    return storeTextSetting(&qvApplication->QVSys.WBCookieName, value, keyword, index, "WBCookieName");
}

int setCorrelationID(char* value, char* keyword, int index) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    QVSys_t& s = qvApplication->QVSys;
    bool off = value[0] == '\0' || strcmp(value, "-") == 0 || strcmp(value, "NA") == 0;
    qvStoreText(s.correlationIdHeader, sizeof(s.correlationIdHeader), off ? "" : value);
    qv_store(s.captureCorrelationEnabled, off ? 0 : 1);
    QVKW_TRACE(0, "Info", "Keyword '%s' : correlation header '%s', capture %s.", nameOf(keyword, index),
               off ? "" : value, off ? "off" : "on");
    return 0;
}

int setHttpReqRespCaptureSettings(char* value, char* keyword, int index) {
    int row = rowOf(keyword, index);
    if (value == nullptr || row < 0) return -1;
    QVHttpReqRespCaptureSettings_t* target = nullptr;
    if (strcmp(keywordsMap[row].name, "captureHTTPReqFullFp") == 0) target = &QVHttpReqCaptureSettings;
    if (strcmp(keywordsMap[row].name, "captureHTTPRespFullFp") == 0) target = &QVHttpRespCaptureSettings;
    if (target == nullptr) return -1;
    qv_store(target->captureMode, qvParseInt(value));
    return storeTextSetting(&target->captureSettings, value, keyword, row, "HTTP capture settings");
}

int setClassWeight(char* value, char* keyword, int index) {
    return storeIntSetting(QVAutoInstrumentation.autoInstrClassWeight, value, keyword, index);
}

int setAutoInstrSessionInterval(char* value, char* keyword, int index) {
    return storeIntSetting(QVAutoInstrumentation.autoInstrSessionDuration, value, keyword, index);
}

int setRetainAutoInstrMethods(char* value, char* keyword, int index) {
    return storeIntSetting(QVAutoInstrumentation.autoInstrRetainChanges, value, keyword, index);
}

int setDebugSessionMode(char* value, char* keyword, int index) {
    return storeIntSetting(QVAutoInstrumentation.enableAutoInstrSession, value, keyword, index);
}

int setMinStackDepthForDebugSession(char* value, char* keyword, int index) {
    return storeIntSetting(QVAutoInstrumentation.minStackDepthDebugSession, value, keyword, index);
}

int setBackendErrorDetectionMode(char* value, char* keyword, int index) {
    if (qvApplication == nullptr) return -1;
    return storeIntSetting(qvApplication->QVSys.backendErrorDetectionMode, value, keyword, index);
}

int setExceptionCaptureSettings(char* value, char* keyword, int index) {
    if (value == nullptr) return -1;
    qv_store(QVExceptionCaptureSettings.instrExceptionsMode, qvParseInt(value));
    return storeTextSetting(&QVExceptionCaptureSettings.instrExceptions, value, keyword, index,
                            "instrExceptions");
}

int parseExceptionFilteringList(char* value, char* keyword, int index) {
    return storeTextSetting(&QVExceptionCaptureSettings.exceptionFilterList, value, keyword, index,
                            "qvExceptionFilterList");
}

int setEnableExceptionInSeqBlob(char* value, char* keyword, int index) {
    if (qvApplication == nullptr || value == nullptr) return -1;
    char on = qvParseInt(value) != 0 ? 1 : 0;
    qv_store(qvApplication->QVSys.enableExceptionInSeqBlob, on);
    QVKW_TRACE(0, "Info", "Keyword '%s' : value '%d' set.", nameOf(keyword, index), static_cast<int>(on));
    return 0;
}

int setEnableDDKeywd(char* value, char* keyword, int index) {
    return storeIntSetting(QVDynamicSettings.enableDDAI, value, keyword, index);
}

void qvlb_keywords_reset_for_test() {
    for (int i = 0; i < QV_KEYWORD_COUNT; i++)
        qvSetSharedStr(&fileBasedValues[i], nullptr, "file-based keyword");
    clearInstrProfKeywords();
}
