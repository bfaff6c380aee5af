// System settings of an application instance (QVSys_t) and their defaults.
#ifndef QVSYS_H
#define QVSYS_H

struct QVSys_t {
    char* qvBuild;     // build string read from <home>/etc/version
    char* qvHomePath;  // agent home; "QVHOME" or "/opt/korlund/quovix/"
    char* latestBuild;
    char bci_dumpOnSocket_enabled;
    char captureChildFPCPUTime;
    char* WBCookieName;
    int fpTraceLevel;
    int btMonitorTraceLevel;
    int backendMonTraceLevel;
    int methodMonTraceLevel;
    int threadMonTraceLevel;
    int exceptionTraceLevel;
    int appLogTraceLevel;
    int controlTraceLevel;
    int agentTraceLevel;
    int bciInstrSessionPct;
    int rSeq;  // flowpath sequence counter, changed atomically
    int enableForcedFlowpathChainMode;
    int enableCpuTime;
    int bciDataBufferMaxSize;
    int dataBuffMaxCount;
    int bciASDataBufferMaxSize;
    int ASDataBuffMaxCount;
    int ASDataBuffMinCount;
    int discardCount;
    int qvcBciDataConnectionHeartBeat;
    int enableBCIErrorlog;
    int enableBCIErrorStackDepth;
    long long bciStartUpTime;
    long long flowPathInstanceInitialID;
    long long timeStampMask;
    long long seqNoDigits;
    long long seqNumMask;
    long long slowVrySlowFPCounts;
    long long doNotDiscardFPCounts;
    long long discardedFPCounts;
    long long completeFPCounts;
    long long httpConditionFPCounts;
    long long forcedFPCounts;
    long long traceMaxSize;
    long long bciMaxNonServiceMethodsPerFP;
    long long qvcHeartBeatThreshold;
    int enableIPResourceURL;
    short retryFlag;
    short closeCtrlConFlag;
    int methodEntryDepth2SetCookie;
    int methodExitDepth2SetCookie;
    int cookieOnResponseCommit;
    int headerInResponse;
    long long qvSessionIdleTimeOutSecs;
    int maxFPCountInSession;
    char* xSessionCookieName;
    char* qvSessionCookieName;
    char* cookieDomainName;
    int enableFPHdrInRep;
    long long setMaxFPCountInSession;
    int enableQVSession;
    char captureCorrelationEnabled;
    char correlationIdHeader[256];
    int hashMapClearTime;
    int qvEnableTxHotspot;
    int qvHelperDepth;
    int qvHotspotThreadLimit;
    int qvEnableDebugMode;
    short captureMethodForAllFP;
    int maxHttpBodySize;
    int btRuleOverriedPolicy;
    int enableCaptureNetDelay;
    int backendErrorDetectionMode;
    char enableExceptionInSeqBlob;
    int proxyMode;
    int proxyConType;
    char* socketPath;
    char* proxyIP;
    int proxyPort;
    int enableDBBackendName;
    int dataConnState;
    int autosensorConnState;
};

// Sets the defaults of qvApplication->QVSys, then in order: setBCIStartUpTime, setQVHome,
// setQvBuild, QVASSettingInit, the control buffer (qvAgentHooks.controlSockBufInit when
// installed), QVAgentSettingInit, QVASSettingInit again, the request HTTP capture settings,
// initKeywordQVCStaticScaling, initQVDynamicSettings, the response HTTP capture settings.
// Start-up thread only; nothing while qvApplication is null.
void QVSysInit();

// Every function below does nothing (or returns 0/null) while qvApplication is null. Text
// fields are shared between threads: they are replaced through qvSetSharedStr (the old copy
// stays valid) and the getters load them with acquire.

// bciStartUpTime = wall clock in milliseconds; logged.
void setBCIStartUpTime();
long long getBCIStartUpTime();
// qvHomePath = environment variable "QVHOME" (an empty value counts as unset), else
// "/opt/korlund/quovix/". The value is used as given: paths are formed as "<home>/config/..."
// and "<home>logs/", so a home without a trailing slash gives "<home>logs/".
void setQVHome();
char* getQVHome();
// Reads "<home>/etc/version" into *target: every line that does not begin with '#', blank, tab,
// LF or CR is appended, its line end (CR, LF or CR LF) replaced by one blank; at most 1023 bytes
// of a line are kept (the rest of a longer line is dropped) and the result is cut at 4095 bytes.
// A missing file is logged and leaves *target unchanged. Null target: nothing.
void setQvBuild(char** target);
char* getQvBuild();
long long getPID();

char* getCorrelationIdHeader();  // never null while qvApplication is set
int getEnableTxHotspot();
int getHelperDepth();
int getHotspotThreadLimit();
// 1 when CPU time is captured (enableCpuTime 1: per flowpath, 2: per flowpath and method).
int isCpuAtFlowpathLevel();
// Zeroes the six flowpath counters.
void resetAllFPCounters();
// "<tier><sep><server><sep><application>" with the vector separator; a per-thread buffer that the
// next call on the same thread overwrites. Empty names print as "".
char* getTopoFpStr();

// Keyword parsers owned by the system settings (signature of the keyword table). Return 0, or
// -1 for a null value (nothing changed).
// enableForcedFlowpathChainMode = the value's number.
int parseForcedFPChainMode(char* value, char* keyword, int index);
// Value "N" or "N%20C": enableCpuTime = N (0 off, 1 flowpath, 2 flowpath and method; other
// numbers are logged and ignored), captureChildFPCPUTime = C when present.
int parseEnableCPUTime(char* value, char* keyword, int index);

#endif
