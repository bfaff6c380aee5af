// The smaller settings records that the collector keyword table writes into (auto-instrumentation,
// interface processor, flowpath generator, dynamic diagnostics, thread hotspot, monitor settings,
// HTTP and exception capture, file-based keywords), plus helpers for text shared between threads.
#ifndef QVSETTINGRECORDS_H
#define QVSETTINGRECORDS_H

#include <cstddef>

// Auto-instrumentation (keywords autoInstr*, enableAutoInstrSession, MinStackDepthDebugSession).
struct QVAutoInstrumentation_t {
    int autoInstrMapSize;
    int autoInstrTraceLevel;         // level of qvlb_mt_trace_log_win_ai
    int autoInstrDurationThreshold;  // keyword autoInstrMaxAvgDuration (ms)
    double autoUnInstrPct;           // keyword autoDeInstrPct
    double autoInstrPct;
    int autoInstrSampleThreshold;  // keywords autoInstrSampleInterval and autoInstrSampleThreshold
    int autoInstrClassWeight;
    int autoInstrSessionDuration;  // seconds
    int autoInstrRetainChanges;
    int enableAutoInstrSession;  // debug-session mode
    int minStackDepthDebugSession;
};

// Interface processor.
struct QVInterfaceProcessor_t {
    int interfaceTraceLevel;
    int enableInterfaceTargeting;
};

// Flowpath generator: blob length at which the sequence blob is written out.
struct QVFlowpathGenerator_t {
    int maxCharactersInSeqBlob;
};

// Dynamic diagnostics.
struct QVDynamicSettings_t {
    int ddTraceLevel;  // level of qvlb_mt_trace_log_win_dd
    int enableDDAI;
    long long ddAIInterval;  // seconds a diagnostics window lasts
};

// Thread hotspot sensor (keywords AS*, collectASData).
struct QVASSettings_t {
    int ASSampleInterval;  // milliseconds between stack samples
    int ASReportInterval;  // seconds between reports; <= 0 disables the auto-sensor connection
    int ASThresholdMatchCount;
    int ASStackComparingDepth;
    int ASReportDumpMode;
    int ASEnableHotspotRecord;
    int collectASData;
};

// Monitor-wide settings.
struct QVSettings_t {
    int qvMonitorIntervalInSecs;  // report interval the monitor rates are computed over
    char qvVectorSeperator;       // separator of the monitor vector names
    int genNewMonRecord;          // keyword genNewMonRecord
    char* lmWDir;                 // keyword lmWDir (shared text, see qvSetSharedStr)
};

// HTTP request or response capture (keywords captureHTTPReqFullFp / captureHTTPRespFullFp).
struct QVHttpReqRespCaptureSettings_t {
    int captureMode;            // leading number of the keyword value; 0 = off
    char* captureSettings;      // full keyword value (shared text)
    char* hdrListForValueAsId;  // keyword hdrListForValueAsId (request record only)
};

// Exception capture (keywords instrExceptions, qvExceptionFilterList).
struct QVExceptionCaptureSettings_t {
    int instrExceptionsMode;  // leading number of instrExceptions; 0 = off
    char* instrExceptions;    // full keyword value (shared text)
    char* exceptionFilterList;
};

// One set of records per application instance (see foundation/qvlb_instance.h).
QVAutoInstrumentation_t& qvAutoInstrumentationOfInstance();
QVInterfaceProcessor_t& qvInterfaceProcessorOfInstance();
QVFlowpathGenerator_t& qvFlowpathGeneratorOfInstance();
QVDynamicSettings_t& qvDynamicSettingsOfInstance();
QVASSettings_t& qvASSettingsOfInstance();
QVSettings_t& qvSettingsOfInstance();
QVHttpReqRespCaptureSettings_t& qvHttpReqCaptureSettingsOfInstance();
QVHttpReqRespCaptureSettings_t& qvHttpRespCaptureSettingsOfInstance();
QVExceptionCaptureSettings_t& qvExceptionCaptureSettingsOfInstance();
#define QVAutoInstrumentation (qvAutoInstrumentationOfInstance())
#define QVInterfaceProcessor (qvInterfaceProcessorOfInstance())
#define QVFlowpathGenerator (qvFlowpathGeneratorOfInstance())
#define QVDynamicSettings (qvDynamicSettingsOfInstance())
#define QVASSettings (qvASSettingsOfInstance())
#define QVSettings (qvSettingsOfInstance())
#define QVHttpReqCaptureSettings (qvHttpReqCaptureSettingsOfInstance())
#define QVHttpRespCaptureSettings (qvHttpRespCaptureSettingsOfInstance())
#define QVExceptionCaptureSettings (qvExceptionCaptureSettingsOfInstance())

// Initialisers: set the record's defaults. Run on the control thread or at start-up; numeric
// fields are written with relaxed atomic stores because other threads poll them.
void QVAutoInstrumentationInit();
void QVInterfaceProcessorInit();
void QVFlowpathGeneratorInit();
void initQVDynamicSettings();
void QVASSettingInit();
void QVSettingsInit();
void initQVHttpReqRespCaptureSettings(QVHttpReqRespCaptureSettings_t* settings);  // null: nothing
void QVExceptionCaptureSettingsInit();

// Frees the text held by every record above, re-runs their initialisers and frees retired text.
// Tests only; no other agent thread may be running.
void qvSettingRecordsReset();

// --- Text shared between threads ---
// Replaces *slot by a copy of value (null clears it) and returns the new text. The pointer is
// published with a release store; readers load it with qv_load_acquire. The previous text is not
// freed (a reader may still be using it) but retired until qvSettingRecordsReset. Equal text
// keeps the current copy, and a retired copy of equal text is published again rather than a new
// one made. Allocation failure logs under "MEMORY" and leaves the slot null.
char* qvSetSharedStr(char** slot, const char* value, const char* purpose);
// Frees every retired text. Tests only (no reader may be running).
void qvFreeRetiredStrs();

// Copies src into the fixed buffer dst of cap bytes, cut to cap-1 bytes, NUL-terminated and the
// rest zeroed; each byte is written with a relaxed atomic store so concurrent pollers do not race.
// Null src stores the empty text.
void qvStoreText(char* dst, size_t cap, const char* src);

// Decimal text to number like atoi/atoll, but saturating instead of overflowing; null or text
// without digits gives 0.
int qvParseInt(const char* s);
long long qvParseLongLong(const char* s);

#endif
