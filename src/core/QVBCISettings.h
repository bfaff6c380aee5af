// Connection settings of an application instance (QVBCISetting_t) and their accessors.
#ifndef QVBCISETTINGS_H
#define QVBCISETTINGS_H

struct QVBCISetting_t {
    char* agentType;
    char* tierName;
    char* appServerName;
    char* appName;
    char btErrorArray[600];  // per HTTP status 0..599: counts as a BT error
    char fileBasedKeywordMode;
    char data_thread_running;
    char autoSensor_thread_running;
    char serverIp[1024];
    char* qvcHost;
    char controlConnectionReqMessage[2048];
    int controlConnectionReqMessageLen;
    char control_conn_heartbeat_msg[2048];
    int control_conn_heartbeat_msgLen;
    char controlDataReqMessage[2048];
    int controlDataReqMessageLen;
    char controlAutoSensorReqMessage[2048];
    int controlAutoSensorReqMessageLen;
    char enableJsrInlinerForAll;
    char enableComputeFrame;
    int tierID;
    int serverID;
    int appID;
    int qvcPort;
    int num_qvc_config;
    int bciPort;
    int bciStartupDelay;
    int sleepInterval;
    int enableAutoInstrumentation;
    int removeSafetyNetMode;
    int autoScalingMode;
    int flagForHandlingProxy;
    long long lastModifiedDate;
    long long prevFileSize;
};

// Sets the defaults of qvApplication->QVBCISetting (identity texts and qvcHost cleared, qvcPort
// 7892, autoScalingMode 2, ...) and fills btErrorArray. Nothing while qvApplication is null.
void QVBCISettingInit();
// btErrorArray: 'F' for statuses 400..599 (the request counts as a BT error), 'T' for 0..399.
void QVBTErrorArrayInit();

// Setters log the new value and do nothing while qvApplication is null. Text setters keep their
// own copy, replaced through qvSetSharedStr (a reader on another thread may keep using the old
// text); a null value does nothing (the int-returning ones then return -1, else 0). Getters
// load the text with acquire and may return null.
void setAgentType(const char* type);
// The next three are also the keyword-table parsers of tierName, qvAppServerHost and appName
// (value, keyword, row index); start-up and the settings file call them with the defaults.
int setTierName(char* value, char* keyword = nullptr, int index = -1);
int setAppServerName(char* value, char* keyword = nullptr, int index = -1);
int setAppName(char* value, char* keyword = nullptr, int index = -1);
void setQVCHost(const char* host);
void setQVCPort(int port);
void setTierID(int id);
void setServerID(int id);
void setAppID(int id);
void setAutoScalingMode(int mode);
char* getTierName();
char* getAppServerName();
char* getAppName();

#endif
