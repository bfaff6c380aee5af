// The per-transaction record (QVPerThreadData_t) and the pool that hands it out: blocks of 64
// records, never returned to the heap, recycled through a free list and a busy list under tlsMutex.
#ifndef QVPERTHREADDATA_H
#define QVPERTHREADDATA_H

#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>

struct qvlb_hashmap_t;
// Defined by the layers that own them (business transactions, monitors, method registry).
struct BTObject;
struct QVMonitorDataModel;
struct node_t;

// The SQL call in progress of a flowpath.
struct sqlProp {
    int DBCallDepth;
    long long sqlId;
    long long startTime;
    long long backendId;
};

// One in-flight transaction. Fields commented "kept" survive resetAllThreadLocals; every other
// field is cleared when a transaction starts and again when it ends.
struct QVPerThreadData_t {
    char* tlTierBackendName;
    char tlIsFPCaptured;
    char tlIsBTExcluded;
    char tlIsForceDump;
    char* prevTierSeq;
    char* seqPfx;
    char* tlFPInstanceForFPHdr;
    char* reqURI;
    char* backendMetaRecord;
    char* trxId;
    char* methodRecord;
    char tlCorrelationIdHeader[128];
    char tlLogHttpConditionFlowpath;
    char* tlFirstTierFPID;
    char tlLogCompleteFlowPath;
    char* currThreadSeq;
    char tlThreadFromPool;
    char sequenceBlob[16384];  // guarded by sequenceBlobLock
    char tlIsFPHeaderDumped;
    char tlCategory;
    char isHttpCallOut;
    char* tlCassandraSQL;
    char* tlCassandraAdd;
    char* tlFPSeqBlockRecordBuffer;
    char tlURL[512];
    char tlURLParameters[512];
    short tlUnCaughtExceptionCount;
    short tlExceptionCount;
    int tlTierBackendType;
    int tlStatusCode;  // 200 after reset
    int byteArray;
    int tlServiceMethodDepth;
    int tlServiceMethodId;
    int tlServiceMethodCount;
    int sequenceBlobLen;
    int tlNonServiceMethodCount;
    int tlSyntheticMonitor;
    int tlTargetDepth;
    int httpCallOutDepth;
    char flowpathInstanceStr[32];  // key in fpiToTLS
    long long flowpathInstance;
    long long tlsIdx;  // kept: row in the hotspot table, given at pool creation
    long long seqNum;
    long long tlTestRunNumber;
    long long tlSeqNumberForTierCallOut;
    long long tlFlowPathTimeStampInMS;
    long long tlThreadId;  // kept: fixed number of the record, written as the header's thread id
    long long tlFpCPUTime;
    long long tlDuration;
    long long firstFlowpathInstance;
    long long prevFlowpathInstance;
    long long tlBackendSubType;
    long long tlTierStartTime;
    char* tierCallOutHeader;      // kept
    int tierCallOutHeaderLen;     // kept
    long long tierCallOutSeqNum;  // kept
    BTObject* tlBTObj;
    sqlProp tlSQLObj;                        // only DBCallDepth is cleared
    QVMonitorDataModel* tlMonitorDataModel;  // kept
    node_t* hasMapNodePtr;                   // kept
    QVPerThreadData_t* free_next;            // pool links, under tlsMutex
    QVPerThreadData_t* free_prev;
    QVPerThreadData_t* busy_next;
    QVPerThreadData_t* busy_prev;
    char setEndFPFlag;
    long long qvSessionId;  // kept: session fields from here to last_fptimestamp_from_cookie
    long long prev_fp_start_time;
    int instrumented;
    int btCategory;
    int exceptionCount;
    int totalFpcount;
    int tierID;
    int qvAppServerID;
    int appID;
    int tlFlowpathType;
    long long korSID;
    long long QVPageID;
    long long last_fptimestamp_from_cookie;
    long long agentThreadID;
    long long syncTime;
    long long waitTime;
    long long qTimeInMS;     // -1 after reset
    int debugModeLen;        // kept
    char debugModeBuf[128];  // kept
    int bitFlags;
    apr_thread_mutex_t* sequenceBlobLock;  // kept; null in a process that only forwards to a proxy
    apr_thread_mutex_t* updateBTLock;      // kept; likewise
    char* excepMessage;                    // kept: exception fields to the end
    int dumpERecordFlag;
    uint64_t unwindfID;
    int exceptionFlagForEventType;
    char* excepClassName;
    char* throwingCName;
    char* throwingMName;
};

// One row of the hotspot table: which record runs on the row and since when.
struct TLSDataStruct {
    QVPerThreadData_t* Tlsdata;
    long long threadId;
    uint64_t timestamp;
};

// Records per block carved by create_tls_pool.
constexpr int QV_TLS_POOL_BLOCK = 64;

// Pool state, one per application instance (see foundation/qvlb_instance.h). The list ends are
// read and written only under tlsMutex. The counts, g_tlsidx and size_array are written under
// tlsMutex with qv_store; read them with qv_load (or under the lock).
struct QVFlowpathPoolState {
    QVPerThreadData_t* gFreeTLSHead = nullptr;
    QVPerThreadData_t* gFreeTLSTail = nullptr;
    QVPerThreadData_t* gBusyTLSHead = nullptr;
    QVPerThreadData_t* gBusyTLSTail = nullptr;
    int gFreeTLSCnt = 0;
    int gBusyTLSCnt = 0;
    int g_tlsidx = 0;    // next tlsIdx to give = records ever created
    int size_array = 0;  // copy of g_tlsidx for the hotspot sensor's loops
    // The hotspot table (one row per record ever created, indexed by tlsIdx), or null when the
    // transaction hotspot feature is off. Growth reallocates it under tlsMutex: hold tlsMutex while
    // touching its rows. The pointer itself may be read at any time.
    std::atomic<TLSDataStruct*> tlsdatastruct{nullptr};
    // Nested mutex guarding the lists, the counts and the hotspot table.
    apr_thread_mutex_t* tlsMutex = nullptr;
    // Flowpath instance (decimal text) -> record, for messages that carry only the instance.
    qvlb_hashmap_t* fpiToTLS = nullptr;
    // Rows in use in the hotspot table, and rows allocated (the rest zero); under tlsMutex (qv_load
    // for lock-free readers).
    int hotspotRows = 0;
    int hotspotCap = 0;
    // Every block ever carved, so the test reset can free them; production never frees a block.
    QVPerThreadData_t** blocks = nullptr;
    int blockCount = 0;
    int blockCap = 0;
};
QVFlowpathPoolState& qvFlowpathPoolState();

#define gFreeTLSHead (qvFlowpathPoolState().gFreeTLSHead)
#define gFreeTLSTail (qvFlowpathPoolState().gFreeTLSTail)
#define gBusyTLSHead (qvFlowpathPoolState().gBusyTLSHead)
#define gBusyTLSTail (qvFlowpathPoolState().gBusyTLSTail)
#define gFreeTLSCnt (qvFlowpathPoolState().gFreeTLSCnt)
#define gBusyTLSCnt (qvFlowpathPoolState().gBusyTLSCnt)
#define g_tlsidx (qvFlowpathPoolState().g_tlsidx)
#define size_array (qvFlowpathPoolState().size_array)
#define tlsdatastruct (qvFlowpathPoolState().tlsdatastruct)
#define tlsMutex (qvFlowpathPoolState().tlsMutex)
#define fpiToTLS (qvFlowpathPoolState().fpiToTLS)

// Steps of the pool that belong to higher layers (monitors, flowpath end). The owning layer fills
// them before start-up; an empty entry is skipped.
struct QVFlowpathPoolHooks {
    void (*initQVMonitorDataModel)(QVPerThreadData_t* qvTD);         // create and register the model
    QVMonitorDataModel* (*createMonitorDataModel)();                 // a model not registered yet
    void (*registerMonitorDataModel)(QVPerThreadData_t* qvTD);       // register the model stored in qvTD
    void (*discardMonitorDataModel)(QVMonitorDataModel* model);      // free one never registered
    void (*dumpIncompleteFPAtTestStop)(QVPerThreadData_t* qvTD);     // write a running flowpath at test stop
    void (*resetMonitorDataModelArrays)(QVMonitorDataModel* model);  // zero btm/mm/ipm arrays
};
extern QVFlowpathPoolHooks qvFlowpathPoolHooks;

// proxyMode of the system settings (0 before start-up), and whether this process only forwards
// its events to a proxy (proxy mode with the proxy server flag off): its records need no mutexes.
int tlsPoolProxyMode();
bool tlsPoolForwardsOnly();

// Carves a block of 64 zeroed records chained as a free list (gFreeTLSTail becomes its last
// record) and returns its first record. tlThreadId of slot i is loc_BusyTLSCnt + i + 1. Creates
// tlsMutex and, with the hotspot feature on, a 64-row hotspot table when they are absent. The
// caller stores the result in gFreeTLSHead; call it with tlsMutex held once other threads may
// use the pool. Returns null when memory is exhausted (logged under "MEMORY"), counts untouched.
// The block made ahead by the record reserve (QVTlsPoolReserve.h) is used when one is ready, and
// the next one is asked for, so the caller usually only links and numbers the records.
QVPerThreadData_t* create_tls_pool(int loc_BusyTLSCnt);

// Takes a record for a new transaction and puts it on the busy list. When the free list is empty
// a new block is linked (and the hotspot table grown by 64 zeroed rows): a ready one from the
// reserve, else one this thread carves with tlsMutex released (a block carved needlessly goes to
// the reserve). Thread-safe. Returns null only when memory is exhausted. The record is not
// cleared: call resetAllThreadLocals next.
QVPerThreadData_t* get_free_tls_slot();

// Gives a busy record back: it is appended behind gFreeTLSTail and unlinked from the busy list.
// gFreeTLSHead is never touched, so a record freed after the free list ran empty is not found
// again (the pool then grows by a block). Thread-safe. Null, or a record that is not busy, is
// logged and ignored without changing any count.
void free_tls_slot(QVPerThreadData_t* tls);

// Clears the per-transaction fields of qvTD and its hotspot row. hotspotTable is the pool's table
// as the caller saw it (normally tlsdatastruct): null skips the row; otherwise the row is cleared
// in the pool's current table under tlsMutex, and skipped when the table does not reach tlsIdx.
// Takes qvTD's sequenceBlobLock (nested) for the fields. Null qvTD does nothing.
void resetAllThreadLocals(QVPerThreadData_t* qvTD, TLSDataStruct* hotspotTable);

// Zeroes the BT, method and backend arrays of qvTD's monitor model (through the monitors' hook).
// A missing model is logged. Null qvTD does nothing.
void resetMonitorDataModel(QVPerThreadData_t* qvTD);

// Test stop: takes every busy record in turn, writes its flowpath as incomplete (hook) and clears
// it under its sequenceBlobLock, gives it back, then flushes the data dispatcher. Runs on the
// data thread.
void dumpFpFromBusyList();

// Zeroes the monitor arrays of every record the pool has carved (free, busy, or lost behind the
// free list's tail). tlsMutex is held only to read each block, so takes and frees go on meanwhile.
void resetMonitorDataModelFromTLS();

// Rows allocated in the hotspot table (0 when there is none). Thread-safe.
int getTlsHotspotTableRows();

// Frees every block, the hotspot table and fpiToTLS, destroys the record mutexes and clears the
// pool state and the hooks, so a test can start over. Tests only; no other thread may use the pool.
void qv_flowpath_pool_reset_for_test();

#endif
