// Globals and initialisers of the smaller settings records, and the shared-text helpers.
#include "core/QVSettingRecords.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {
// Defaults, also the static initial values so the records are sane before start-up runs.
constexpr QVAutoInstrumentation_t kAutoInstrDefaults = {100000, 0, 5, 80.0, 60.0, 120, 10, 1800, 0, 0, 10};
constexpr QVInterfaceProcessor_t kInterfaceDefaults = {0, 0};
constexpr QVFlowpathGenerator_t kFlowpathGeneratorDefaults = {13312};
constexpr QVDynamicSettings_t kDynamicDefaults = {0, 0, 300};
constexpr QVASSettings_t kASDefaults = {1000, 60, 5, 10, 0, 1, 0};

struct SettingRecordsState {
    QVAutoInstrumentation_t autoInstrumentation = kAutoInstrDefaults;
    QVInterfaceProcessor_t interfaceProcessor = kInterfaceDefaults;
    QVFlowpathGenerator_t flowpathGenerator = kFlowpathGeneratorDefaults;
    QVDynamicSettings_t dynamicSettings = kDynamicDefaults;
    QVASSettings_t asSettings = kASDefaults;
    QVSettings_t settings = {60, '>', 0, nullptr};
    QVHttpReqRespCaptureSettings_t httpReqCapture = {};
    QVHttpReqRespCaptureSettings_t httpRespCapture = {};
    QVExceptionCaptureSettings_t exceptionCapture = {};

    ~SettingRecordsState();
};

}  // namespace

QV_INSTANCE_STATE_DEFINE(SettingRecordsState, settingRecordsState)

SettingRecordsState::~SettingRecordsState() {
    // The process's own records live until exit: threads may still read them then. A destroyed
    // instance's texts join the retired ones (a reader may still hold them).
    if (this == &settingRecordsState_own) return;
    for (char** p : {&settings.lmWDir, &httpReqCapture.captureSettings, &httpReqCapture.hdrListForValueAsId,
                     &httpRespCapture.captureSettings, &httpRespCapture.hdrListForValueAsId,
                     &exceptionCapture.instrExceptions, &exceptionCapture.exceptionFilterList})
        qvSetSharedStr(p, nullptr, "settings text");
}

QVAutoInstrumentation_t& qvAutoInstrumentationOfInstance() {
    return settingRecordsState().autoInstrumentation;
}
QVInterfaceProcessor_t& qvInterfaceProcessorOfInstance() {
    return settingRecordsState().interfaceProcessor;
}
QVFlowpathGenerator_t& qvFlowpathGeneratorOfInstance() {
    return settingRecordsState().flowpathGenerator;
}
QVDynamicSettings_t& qvDynamicSettingsOfInstance() {
    return settingRecordsState().dynamicSettings;
}
QVASSettings_t& qvASSettingsOfInstance() {
    return settingRecordsState().asSettings;
}
QVSettings_t& qvSettingsOfInstance() {
    return settingRecordsState().settings;
}
QVHttpReqRespCaptureSettings_t& qvHttpReqCaptureSettingsOfInstance() {
    return settingRecordsState().httpReqCapture;
}
QVHttpReqRespCaptureSettings_t& qvHttpRespCaptureSettingsOfInstance() {
    return settingRecordsState().httpRespCapture;
}
QVExceptionCaptureSettings_t& qvExceptionCaptureSettingsOfInstance() {
    return settingRecordsState().exceptionCapture;
}

namespace {

// Retired shared text: kept until a test reset because another thread may still read it. Each
// start resets the keywords and applies them again; taking an equal retired text back instead of
// a new copy keeps the list at the distinct texts ever set.
apr_thread_mutex_t* retiredLock = nullptr;
char** retired = nullptr;
int retiredCount = 0;
int retiredCap = 0;

void retireStr(char* s) {
    if (s == nullptr) return;
    qvlb_apr_init();
    qvlb_create_nested_mutex(&retiredLock, nullptr);
    QVLockGuard guard(retiredLock);
    if (retiredCount == retiredCap) {
        int newCap = retiredCap == 0 ? 16 : retiredCap * 2;
        void* p = qvlb_realloc(retired, sizeof(char*) * static_cast<size_t>(newCap), "retired settings text",
                               newCap);
        // Out of memory: keeping the text alive (leaked) is the only safe choice.
        if (p == nullptr) return;
        retired = static_cast<char**>(p);
        retiredCap = newCap;
    }
    retired[retiredCount++] = s;
}

// An equal retired text, removed from the list, or null. Texts never change once made, so a
// reader still holding it is not disturbed.
char* takeRetired(const char* value) {
    if (qv_load_acquire(retiredLock) == nullptr) return nullptr;
    QVLockGuard guard(retiredLock);
    for (int i = retiredCount - 1; i >= 0; i--) {
        if (strcmp(retired[i], value) != 0) continue;
        char* s = retired[i];
        retired[i] = retired[--retiredCount];
        return s;
    }
    return nullptr;
}

void storeDouble(double& d, double v) {
    std::atomic_ref<double>(d).store(v, std::memory_order_relaxed);
}

}  // namespace

char* qvSetSharedStr(char** slot, const char* value, const char* purpose) {
    if (slot == nullptr) return nullptr;
    char* old = qv_load_acquire(*slot);
    if (old == nullptr && value == nullptr) return nullptr;
    if (old != nullptr && value != nullptr && strcmp(old, value) == 0) return old;
    char* copy = value ? takeRetired(value) : nullptr;
    if (value != nullptr && copy == nullptr) copy = qvlb_strdup(value, purpose, -1);
    qv_store_release(*slot, copy);
    retireStr(old);
    return copy;
}

void qvFreeRetiredStrs() {
    QVLockGuard guard(retiredLock);
    for (int i = 0; i < retiredCount; i++) qvlb_free(retired[i], "retired settings text", i);
    qvlb_free(retired, "retired settings text", -1);
    retired = nullptr;
    retiredCount = 0;
    retiredCap = 0;
}

void qvStoreText(char* dst, size_t cap, const char* src) {
    if (dst == nullptr || cap == 0) return;
    size_t n = src ? strnlen(src, cap - 1) : 0;
    for (size_t i = 0; i < cap; i++) qv_store(dst[i], i < n ? src[i] : '\0');
}

int qvParseInt(const char* s) {
    long long v = qvParseLongLong(s);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

long long qvParseLongLong(const char* s) {
    if (s == nullptr) return 0;
    // strtoll saturates at LLONG_MIN/MAX on overflow, where atoll would be undefined.
    return strtoll(s, nullptr, 10);
}

void QVAutoInstrumentationInit() {
    QVAutoInstrumentation_t& a = QVAutoInstrumentation;
    const QVAutoInstrumentation_t& d = kAutoInstrDefaults;
    qv_store(a.autoInstrMapSize, d.autoInstrMapSize);
    qv_store(a.autoInstrTraceLevel, d.autoInstrTraceLevel);
    qv_store(a.autoInstrDurationThreshold, d.autoInstrDurationThreshold);
    storeDouble(a.autoUnInstrPct, d.autoUnInstrPct);
    storeDouble(a.autoInstrPct, d.autoInstrPct);
    qv_store(a.autoInstrSampleThreshold, d.autoInstrSampleThreshold);
    qv_store(a.autoInstrClassWeight, d.autoInstrClassWeight);
    qv_store(a.autoInstrSessionDuration, d.autoInstrSessionDuration);
    qv_store(a.autoInstrRetainChanges, d.autoInstrRetainChanges);
    qv_store(a.enableAutoInstrSession, d.enableAutoInstrSession);
    qv_store(a.minStackDepthDebugSession, d.minStackDepthDebugSession);
}

void QVInterfaceProcessorInit() {
    qv_store(QVInterfaceProcessor.interfaceTraceLevel, kInterfaceDefaults.interfaceTraceLevel);
    qv_store(QVInterfaceProcessor.enableInterfaceTargeting, kInterfaceDefaults.enableInterfaceTargeting);
}

void QVFlowpathGeneratorInit() {
    qv_store(QVFlowpathGenerator.maxCharactersInSeqBlob, kFlowpathGeneratorDefaults.maxCharactersInSeqBlob);
}

void initQVDynamicSettings() {
    qv_store(QVDynamicSettings.ddTraceLevel, kDynamicDefaults.ddTraceLevel);
    qv_store(QVDynamicSettings.enableDDAI, kDynamicDefaults.enableDDAI);
    qv_store(QVDynamicSettings.ddAIInterval, kDynamicDefaults.ddAIInterval);
}

void QVASSettingInit() {
    const QVASSettings_t& d = kASDefaults;
    qv_store(QVASSettings.ASSampleInterval, d.ASSampleInterval);
    qv_store(QVASSettings.ASReportInterval, d.ASReportInterval);
    qv_store(QVASSettings.ASThresholdMatchCount, d.ASThresholdMatchCount);
    qv_store(QVASSettings.ASStackComparingDepth, d.ASStackComparingDepth);
    qv_store(QVASSettings.ASReportDumpMode, d.ASReportDumpMode);
    qv_store(QVASSettings.ASEnableHotspotRecord, d.ASEnableHotspotRecord);
    qv_store(QVASSettings.collectASData, d.collectASData);
}

void QVSettingsInit() {
    qv_store(QVSettings.qvMonitorIntervalInSecs, 60);
    qv_store(QVSettings.qvVectorSeperator, '>');
    qv_store(QVSettings.genNewMonRecord, 0);
    qvSetSharedStr(&QVSettings.lmWDir, nullptr, "lmWDir");
}

void initQVHttpReqRespCaptureSettings(QVHttpReqRespCaptureSettings_t* settings) {
    if (settings == nullptr) return;
    qv_store(settings->captureMode, 0);
    qvSetSharedStr(&settings->captureSettings, nullptr, "HTTP capture settings");
    qvSetSharedStr(&settings->hdrListForValueAsId, nullptr, "hdrListForValueAsId");
}

void QVExceptionCaptureSettingsInit() {
    qv_store(QVExceptionCaptureSettings.instrExceptionsMode, 0);
    qvSetSharedStr(&QVExceptionCaptureSettings.instrExceptions, nullptr, "instrExceptions");
    qvSetSharedStr(&QVExceptionCaptureSettings.exceptionFilterList, nullptr, "qvExceptionFilterList");
}

void qvSettingRecordsReset() {
    QVAutoInstrumentationInit();
    QVInterfaceProcessorInit();
    QVFlowpathGeneratorInit();
    initQVDynamicSettings();
    QVASSettingInit();
    QVSettingsInit();
    initQVHttpReqRespCaptureSettings(&QVHttpReqCaptureSettings);
    initQVHttpReqRespCaptureSettings(&QVHttpRespCaptureSettings);
    QVExceptionCaptureSettingsInit();
    qvFreeRetiredStrs();
}
