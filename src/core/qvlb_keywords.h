// The collector keyword table: 117 keywords of the start-instrumentation and modify messages,
// each written into a settings field (setter + fill function) or handed to a parser.
#ifndef QVLB_KEYWORDS_H
#define QVLB_KEYWORDS_H

#define QV_KEYWORD_COUNT 117

// Keyword handler: (value text, keyword, row index) -> 0 or -1. The value may be modified.
typedef int (*qvKeywordParser)(char* value, char* keyword, int index);
// Selects a settings record and fills the row's field from the value.
typedef void (*qvKeywordSetter)(int index, char* value);
// Converts value and stores length bytes at target.
typedef void (*qvKeywordFill)(char* target, char* value, int length);

struct keywordsInfo {
    char name[32];  // as sent by the collector; matched exactly
    int offset;     // of the target field in its record, -1 with a parser
    int length;     // bytes stored, 0 with a parser
    qvKeywordParser parser;
    qvKeywordSetter setter;
    qvKeywordFill fill_data;
};

// The table; the row index is the keyword's index everywhere. Rows are only changed by
// qvlb_set_keyword_parser (at registration, before the control thread runs).
extern keywordsInfo keywordsMap[QV_KEYWORD_COUNT];

// Row index of name (exact, case-sensitive), or -1 (also for null).
int NameToIndex(const char* name);

// Applies a control message: split at ';' (runs of ';' count as one; at most 1024 fields, the
// rest is ignored and logged). Applied only when msg begins with
// "qv_control_req:action=start_instrumentation" while controlCommunicationBusyFlag is 0, or with
// "qv_control_req:action=modify". Each field "keyword=value" goes to the row's parser, else its
// setter; unknown keywords are logged and skipped. A field without '=', an empty keyword or a
// set closeCtrlConFlag ends the parse. msg itself is not modified. Returns the number of fields
// handed to a parser or setter, or -1 when the message is not applied (also null msg, no
// instance, out of memory). Control thread only.
int findStatusFromClientMsg(char* msg);

// Keyword defaults applied before every start message (and once at start-up), then the records
// of the subsystems whose settings records live in core (thread hotspot, HTTP and exception capture,
// file-based keyword names) are reset and the registered init hooks run in order.
void qvlb_init_all_keywords();
// isClusterMode 0, requestType 1, lastConnectionTime -1, connDuration 0, connDestination empty.
void initKeywordQVCStaticScaling();

// Installs parser as the handler of keyword (for the rows whose handler lives in a higher
// layer). Returns 0, or -1 for an unknown keyword or a null argument. Call before agent_init.
int qvlb_set_keyword_parser(const char* keyword, qvKeywordParser parser);
// Adds fn to the hooks qvlb_init_all_keywords runs after its own defaults (higher layers' keyword
// settings: backend monitor, SQL capture, ...). A function already added is not added again.
// Returns 0, or -1 when null or the 16 places are used. Call before agent_init.
int qvlb_add_keyword_init_hook(void (*fn)());

// Handler installed for rows whose behaviour belongs to a higher layer until it installs its own:
// logs "Keyword '%s' is not handled yet; value '%s' ignored" and returns 0.
int qvlb_keyword_not_handled(char* value, char* keyword, int index);

// File name last received for a file-based keyword row (shared text, may be null).
const char* qvlb_get_file_based_keyword(int index);

// Instrumentation profiles named by the last start or modify message, as the collector sent them:
// profile names, their modification times and sizes (each a comma-separated list when several
// profiles are named). Shared texts (read with qv_load_acquire), null when the keyword was
// absent; cleared by qvlb_init_all_keywords. Written by the control thread.
struct QVInstrProfKeywords_t {
    char* instrProfile;
    char* lmd;
    char* size;
};
// One per application instance (see foundation/qvlb_instance.h).
QVInstrProfKeywords_t& qvInstrProfKeywordsOfInstance();
#define QVInstrProfKeywords (qvInstrProfKeywordsOfInstance())
// True when profile selects no profile: null, empty, "-" or "NA".
bool qvlb_no_instr_profile(const char* profile);
// Parser of instrProfile, lmd and size: the text into the field of QVInstrProfKeywords of the same
// name. 0, or -1 for a null value or another keyword.
int setInstProfile(char* value, char* keyword, int index);

// Setters (index, value): add the row's offset to their record and call the row's fill function.
// A null value, a bad index or a row without fill function does nothing.
void fill_server_info(int index, char* value);
void fill_QVSys_info(int index, char* value);
void fill_QVBCISetting_info(int index, char* value);
void fill_QVAutoInstrumentation_info(int index, char* value);
void fill_QVFlowpathGenerator_info(int index, char* value);
void fill_QVInterfaceProcessor_info(int index, char* value);
void fill_QVDynamicSettings_info(int index, char* value);
void fill_QVASsettings_info(int index, char* value);
// No record of core backs these three; they log and do nothing.
void fill_QVBTMonitor_info(int index, char* value);
void fill_QVBackendMonitor_info(int index, char* value);
void fill_qvAutoSensorUsingStackTrace_info(int index, char* value);

// Fill functions. Stores are relaxed atomic per field (other threads poll these settings).
// int: decimal value saturated to int, stored in length bytes (1, 2, 4 or 8; the low bytes of
// the int for 1 and 2).
void fill_int_data(char* target, char* value, int length);
// long long: decimal value saturated to 64 bits, stored in length bytes (1, 2, 4 or 8).
void fill_long_long_data(char* target, char* value, int length);
// double: the value's leading number (0 when none); length must be 8.
void fill_double_data(char* target, char* value, int length);
// text: copies min(strlen(value)+1, length) bytes and zeroes the rest of the length bytes, never
// reading past the value's end. For length > 1 the last byte is always NUL, so a text field stays
// terminated; length 1 stores the value's first character.
void fill_char_data(char* target, char* value, int length);

// Parsers of the settings owned by core's records (value, keyword, index) -> 0, -1 for null.
int setFileBasedKeywd(char* value, char* keyword,
                      int index);                         // stores the file name; fetching is not supported
int setCurrentTR(char* value, char* keyword, int index);  // TestRunIDValue and testIdx
int setKorEpochDiff(char* value, char* keyword, int index);  // korEpochDiffTime, isKorEpochDiffSet 1
int setlmWDir(char* value, char* keyword, int index);
int setThreadSampleInterval(char* value, char* keyword, int index);
int setThreadReportInterval(char* value, char* keyword, int index);
int setASData(char* value, char* keyword, int index);
int setMonitorEnabledForID(char* value, char* keyword, int index);
int sethdrListForValueAsId(char* value, char* keyword, int index);
int setThresholdMatchCount(char* value, char* keyword, int index);
int setThreadStackCompareDepth(char* value, char* keyword, int index);
int setQVMonitorInterval(char* value, char* keyword, int index);  // seconds; <= 0 ignored
int setThreadReportDumpMode(char* value, char* keyword, int index);
int setASEnableHotspotRecord(char* value, char* keyword, int index);
int setEnableQVSession(char* value, char* keyword, int index);
int setWBCookie(char* value, char* keyword, int index);
// Header name; "", "-" or "NA" switch correlation capture off.
int setCorrelationID(char* value, char* keyword, int index);
// captureHTTPReqFullFp -> request record, captureHTTPRespFullFp -> response record.
int setHttpReqRespCaptureSettings(char* value, char* keyword, int index);
int setClassWeight(char* value, char* keyword, int index);
int setAutoInstrSessionInterval(char* value, char* keyword, int index);
int setRetainAutoInstrMethods(char* value, char* keyword, int index);
int setDebugSessionMode(char* value, char* keyword, int index);
int setMinStackDepthForDebugSession(char* value, char* keyword, int index);
int setBackendErrorDetectionMode(char* value, char* keyword, int index);
int setExceptionCaptureSettings(char* value, char* keyword, int index);
int parseExceptionFilteringList(char* value, char* keyword, int index);
int setEnableExceptionInSeqBlob(char* value, char* keyword, int index);
int setEnableDDKeywd(char* value, char* keyword, int index);

// Clears the stored file-based names. Installed parsers and init hooks (wiring, not state) are
// kept. Tests only.
void qvlb_keywords_reset_for_test();

#endif
