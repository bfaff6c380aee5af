// Start-up of the agent and the application instance record every other module reaches
// through qvApplication.
#ifndef QV_AGENT_H
#define QV_AGENT_H

#include <apr_network_io.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include "core/QVBCISettings.h"
#include "core/QVSys.h"

struct qvlb_hashmap_t;
struct QVPerThreadData_t;

// Collector-connection and instrumentation state of one instance.
struct Server_t {
    char testRunRunning;
    char retryForDataConn;
    char retryForAutoSensorConn;
    char InstrumentationBusy;
    char controlCommunicationBusyFlag;
    char isRuntimeApplied;
    char noInstrumentProfileMode;
    char doNotDumpMetaData;
    char setInstrumentTraceLevel;
    char isKorEpochDiffSet;  // the start message carried korEpochDiff
    char statusValue[64];
    char fpgVID[10];
    char startInstrRespBuffer[1024];
    int startInstrRespBufferCnt;
    int isTenRecordDump;
    int dumpremainingtstime;  // minutes the stop waits for data to drain
    int gettingstopInstrumenatation;
    int TestRunIDValue;
    int numInstrProfile;
    int dumpOnASFile;
    int instrProfBytesWritten;
    int numcriticalFile;
    int requestType;
    int isClusterMode;
    int numberOfTestRunsTillNow;
    char instanceInfo[1024];
    long long korEpochDiffTime;
    long long diffTimeFromQVC;
    long long originalKorEpochDiffTime;
    long long lastHeartBeatRcvTime;
    long long lastConnectionTime;
    long long connDuration;
    char connDestination[1024];
};

// One process of an instance (proxy bookkeeping).
struct instanceProcess_t {
    long long pid;
    apr_socket_t* sock;
};

// One monitored application instance.
struct QVProxyInstance_t {
    char isAgentLess;
    char* agentName;
    char* tierName;
    char* appServerName;
    char* appName;
    char* bciVersion;
    char* qvHome;
    char* agentType;
    char* serverIp;
    char* hostName;
    char* jvmType;
    char* javaVersion;
    char* javaHome;
    char* machineType;
    char* connDestination;
    char* QVCollectorIP;
    char* startInstMsg;
    int tierID;
    int serverID;
    int appID;
    int QVCollectorPort;
    int testIdx;
    int requestType;
    int processCount;
    int activeProcessCount;
    instanceProcess_t* processInfo;
    long long lastConnectionTimeStamp;
    long long connDuration;
    long long bciStartTime;
    long long BCITimeStamp;
    Server_t Server;
    QVBCISetting_t QVBCISetting;
    QVSys_t QVSys;
    void* pfd;
    qvlb_hashmap_t* fpi_tls_map;
    apr_socket_t* qvcCtrlSocket;
    apr_socket_t* qvcDataSocket;
    apr_socket_t* qvcASSocket;
    int pxQVCEpoll;
};

// Agent-process settings.
struct QVAgentSetting_t {
    char proxyhost[1024];
    int proxyPort;
    int enableProxyServer;  // 1: flowpath records are findable by a caller-supplied key
    int startedWithExc;
};

// Proxy-process settings.
struct QVProxy_t {
    int proxyServerFlag;
    int proxyPort;
    int qvcPort;
    int numInstances;
    int proxyConType;
    char* qvHomePath;
    char* qvcHost;
    char* tierName;
    char* appServerName;
    char* appName;
    char* socketPath;  // Unix-domain socket the proxy server listens on ("proxySocketPath")
    char proxyHost[512];
};

// What start-up keeps for one application instance (see foundation/qvlb_instance.h), reached
// through the names below.
struct QVAgentState {
    QVProxyInstance_t* app = nullptr;
    QVProxyInstance_t* proxyInstance = nullptr;
    apr_thread_mutex_t* tmpLock = nullptr;
    apr_thread_mutex_t* entryLock = nullptr;
    qvlb_hashmap_t* tdMap = nullptr;
    apr_thread_mutex_t* tdMapLock = nullptr;
    apr_thread_t* controlThread = nullptr;
    int stopping = 0;
    ~QVAgentState();
};
QVAgentState& qvAgentState();

#define qvApplication (qvAgentState().app)
#define QVProxyInstance (qvAgentState().proxyInstance)
extern QVAgentSetting_t QVAgentSetting;
extern QVProxy_t QVProxy;
extern int startedWithExc;  // set by the host before agent_init inside the proxy process
extern char* pool_name;
extern char* proc_name;
extern long long pid;
#define controlThreadTmpLock (qvAgentState().tmpLock)
#define methodEntryLock (qvAgentState().entryLock)
#define qvTDHashMap (qvAgentState().tdMap)
#define qvTDHashMapLock (qvAgentState().tdMapLock)
#define control_thread_id (qvAgentState().controlThread)

// Steps of start-up, shutdown and test stop that belong to higher layers. Core sits below
// them and cannot call them directly; each layer fills its own entries from its register
// function (see qvlb_register_modules). An empty entry is skipped.
struct QVAgentHooks {
    void (*createFpiToTLS)();                           // the flowpath-instance map
    void (*initThreadBasedModelMap)();                  // monitors' per-thread registry
    void (*createTlsPool)();                            // gFreeTLSHead = create_tls_pool(gBusyTLSCnt)
    void (*initQVManageTIdToTLocal)();                  // thread-id bookkeeping
    void* (*controlThreadEntry)(apr_thread_t*, void*);  // body of the control thread
    void (*controlSockBufInit)();                       // control connection's receive buffer (QVSysInit)
    void (*stopDataThread)();                           // ends and joins the data thread (shutdown)
    void (*stopRecordReserve)();                        // joins the thread preparing pool blocks
    void (*initMethodRegistry)();                       // first generation and DefaultMethod
    void (*initBTSubsystem)();                          // QVBTConfigModelInit: maps, monitor, rule files
    void (*initMonitors)();                             // method and backend monitors
};
extern QVAgentHooks qvAgentHooks;

// Start-up: creates the instance record (and binds the trace log's settings to it), sets the
// system and keyword defaults (QVSysInit, qvlb_init_all_keywords), opens the trace log and, with
// connect > 0, reads the settings file, runs the start-up hooks, sets the connection defaults
// (QVBCISettingInit, which clears the identity the file gave; the control thread reads the file
// again before it connects) and starts the control thread when its hook is installed. Runs once
// per process before any other call (thread-safe); calling it again does nothing and returns.
// Allocation failure of the record: logged, nothing else happens.
void agent_init(const char* poolName, int connect, const char* processName, const char* agentType);

// Starts the instance the calling thread acts for (a proxy's instance from qvlb_instance_create,
// under QVInstanceScope): its instance record, the system, keyword and connection defaults and
// the start-up hooks (record pool, registry, BT subsystem, monitors). Does not connect and does
// not touch the process's trace log or its own instance. Returns 0, or -1 (logged) when the
// instance is started already or memory is short.
int agent_init_instance();
// Starts the acting instance's control thread; it and every thread it starts act for the same
// instance. Returns 0 (also when it runs already), or -1 (logged) when no control thread is
// installed or it cannot be created.
int qv_agent_start_control_thread();

// Opens the process trace log in "<home>logs/" (created with its parents; the home is used as
// given, so it should end in '/'), files "qv_trace_<process>_<pool>_<YYYYMMDDhhmmss>_<pid>.log_0"
// and "_1" (without "_<pool>" when pool_name is null). Keeps an already open log. Needs
// qvApplication (or, in the proxy process, QVProxy.qvHomePath); otherwise nothing.
void QVTraceInit(const char* process_name, const char* pool_name);

// QVAgentSetting defaults: proxyhost "127.0.0.1", proxyPort 7892, enableProxyServer 0,
// startedWithExc copied from the global of the same name.
void QVAgentSettingInit();

void initializeProxyStruct();
void setProxyQVHome();

// Tells every agent thread to stop and waits for them to end (each wait is bounded: sends time
// out and stopping connections are shut down first); returns immediately if none was started, or
// in a child forked after start-up. Used by qv_free, at process shutdown and by tests.
void qv_agent_shutdown();
// The same for the acting instance, from any thread not of that instance: its control, data and
// reporting threads end (each wait bounded) and are joined.
void qv_agent_shutdown_instance();
// Set while the acting instance shuts down; long waits poll it. Read with qv_load.
#define qvAgentStopping (qvAgentState().stopping)

// Trace levels read by core's trace statements (0 while qvApplication is null). Start-up and
// the settings-file readers test the larger of controlTraceLevel and agentTraceLevel, because
// agentTraceLevel is the only level the settings file can raise before the collector connects.
int qvlb_control_trace_level();
int qvlb_startup_trace_level();

// Resets every global of this module and frees the acting instance's record, so that a test can
// run agent_init again. Tests only; no agent thread may be running.
void qv_agent_reset_for_test();

#endif
