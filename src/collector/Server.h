// Collector command handling: recognises each line received on the control connection by its
// prefix and runs the start, stop, run-time change (modify), reroute, heartbeat and metadata
// sequences, replying on the control connection. All of it runs on the control thread.
#ifndef SERVER_H
#define SERVER_H

// Steps of the command sequences that belong to higher layers (flowpath, BT, monitors, metadata
// replay). They fill the entries they own; a null entry is skipped.
struct QVServerHooks {
    void (*reinitBTConfig)();                 // start: BT configuration back to its defaults
    void (*reinitHttpCapture)();              // start: HTTP header capture tables
    void (*reinitMonitors)();                 // start: backend and method monitors
    void (*resetMonitorDataModelFromTLS)();   // start: the per-thread monitor data
    int (*totalMethodCount)();                // methods in the instrumentation (logged at start)
    void (*buildResourceHashMap)();           // start, when enableIPResourceURL is set
    void (*buildAgentHashMap)();              // start; modify when a keyword changed a map
    void (*buildVectorPrefixes)();            // start: BT, backend and method vector prefixes
    void (*setAllFlagAndCountVars)();         // flags derived from the keywords (start, reroute)
    void (*onStartInstrumentation)();         // start: instrumentation profiles and method registry
    void (*setToStopThread)(int stop);        // stop: tells the worker threads to stop
    void (*clearHashMapTable)();              // once per poll round of the control loop
    void (*processClientMessage)(char* msg);  // metadata request; may reply with controlConnectionSendBuffer
    // The proxy server's relay to the processes of the acting instance; replaces the send to each
    // processInfo socket (which another thread may be closing) when set.
    void (*forwardToProcesses)(const char* data, int len);
};
extern QVServerHooks qvServerHooks;

// Command-handling flags of one application instance (see foundation/qvlb_instance.h).
struct QVServerState {
    int hashMapChanged = 0;
    int runTime = 0;
    int instrProfRequested = 0;
    int modifiedInstrProf = 0;
};
QVServerState& qvServerState();

// Set (qv_store) by a keyword handler when a modify changed one of the agent's hash maps; the
// modify then calls buildAgentHashMap and clears it. Control thread.
#define qvAgentHashMapChanged (qvServerState().hashMapChanged)
// 1 while a modify's keywords are being applied (handlers may test it). Control thread.
#define isRunTime (qvServerState().runTime)
// Instrumentation-profile exchange state of the last modify: a profile request is due, and
// whether the profile was modified. Owned by the method registry's profile handling.
#define isInstrProfRequested (qvServerState().instrProfRequested)
#define isModifiedInstrProf (qvServerState().modifiedInstrProf)

// Minutes of the stop's drain wait are dumpremainingtstime times this many milliseconds
// (default 60000). The wait ends early when the agent stops or the test run stops. Tests shorten it.
extern long long stopDrainMinuteMs;

// Reply texts (exact bytes sent on the control connection).
#define QV_START_REPLY_ACTION "qv_control_rep:action=start_instrumentation"
#define QV_STOP_REPLY_ACTION "qv_control_rep:action=stop_instrumentation"
#define QV_MODIFY_OK_REPLY "qv_control_rep:action=modify;result=Ok;\n"
#define QV_MODIFY_REFUSED_REPLY                                                                             \
    "qv_control_rep:result=Error:<Unable to process modify message because of stop instrument recieved or " \
    "startInstrument not recieved.\n"
#define QV_META_DATA_REPLY "qv_meta_data_rep:status=complete;\n"

// Command kinds recognised by their prefix, in the order they are tested.
enum QVCommandKind {
    QV_CMD_UNKNOWN = 0,
    QV_CMD_START,
    QV_CMD_HEARTBEAT_REPLY,  // the collector answered our heartbeat
    QV_CMD_HEARTBEAT,        // heartbeat from the collector
    QV_CMD_META_DATA,
    QV_CMD_CLASS_DISCOVERY,  // not supported
    QV_CMD_IGNORED_REPLY,    // replies read by the file and profile exchanges themselves
    QV_CMD_STOP,
    QV_CMD_MODIFY,
    QV_CMD_RECOGNISED,  // recognised, no action
    QV_CMD_REROUTE,
    QV_CMD_FILE_TRANSFER,  // not supported
    QV_CMD_AUTO_INSTR,     // not supported
    QV_CMD_DYNAMIC_DIAG,   // not supported
};

// Kind of the command line msg (first matching prefix, exact and case-sensitive). Null: unknown.
QVCommandKind qvClassifyCommand(const char* msg);

// Handles one command line (without its newline; msg is not modified). Unknown, malformed and
// binary lines are logged and ignored. Control thread only.
void handleReceivedClientMessageFromQVCollector(char* msg);

// Start sequence after the keywords were applied: clears isRuntimeApplied, logs and resets the
// flowpath counters, arranges profiles and the method registry (hook), starts the data thread
// and, when ASReportInterval is positive, the monitor reporting thread.
void handleStartInstrumentationCase();
// Stop sequence of msg (drain wait, flags, reply). Control thread.
void handleStopInstrumentationCase(char* msg);
// Logs the flowpath counters of a test run being stopped.
void handleStoppingCaseAtStopInstrumentCase();
// Modify: applies msg's keywords while a test runs and replies Ok, else replies the refusal.
void handleRunTimeChangeCase(char* msg);
// Reroute: parses msg (qvcHost, qvcPort, tier, server, instance, clusterMode), records the new
// collector (settings file, or entry 1 of the list in cluster mode) and closes the connections.
void parseReRouteMessageAndUpdateClientInfo(char* msg);

// Rewrites the settings file with the given values (a null or empty text, or port 0, keeps the
// file's line); keys absent from the file are appended. Other lines are kept byte for byte. The
// file is replaced atomically (written beside it with its permissions, then renamed); when it is
// a symbolic link the file it names is replaced and the link kept. Returns 0, or -1 when the file
// cannot be read or replaced (logged with the reason; the file is then unchanged).
int updateQVSettingFile(const char* qvcHost, int qvcPort, const char* tier, const char* server,
                        const char* instance);

// Closes the data and auto-sensor connections and the control connection, and sets
// closeCtrlConFlag so the control thread reconnects. Any thread.
void closeCurrentControlConnection();
// Closes the data and auto-sensor connections if open.
void checkAllDataConnAndcloseIfAny();

// Replies. Return 0, or -2 when the send failed.
int sendResponseToQVC();
int sendResponseOfStopInstrumentation();
int sendRespenseRunTimeChange(int ok);

// Queues the data-over record "10,\n" through dumpData and sets isTenRecordDump (installed as
// qvDispatcherHooks.dumpQvDataOverRecord).
void dumpQvDataOverRecord();

// Calls the setAllFlagAndCountVars hook (nothing when it is empty).
void setAllFlagAndCountVars();

// Resets this module's globals (the hook table is kept). Tests only.
void server_reset_for_test();

#endif
