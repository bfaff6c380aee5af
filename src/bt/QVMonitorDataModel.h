// The monitor state of one per-thread record (QVMonitorDataModel): growable arrays of BT, method
// and backend counter blocks, and the registry of every model that the monitors merge from.
#ifndef QVMONITORDATAMODEL_H
#define QVMONITORDATAMODEL_H

#include <apr_thread_mutex.h>

struct qvlb_hashmap_t;
struct QVPerThreadData_t;
struct QVBTMonitorDataCounters;
struct QVMethodMonitorDataCounters;
struct QVBackendMonitorDataCounters;

// Initial entries of each of the three arrays of a new model.
constexpr int QV_MONITOR_INITIAL_ARRAY_SIZE = 128;

// One record's monitor state. Each array, its size and its blocks are guarded by the array's lock
// (the owning application thread counts, the reporting thread merges and resets). A null entry
// means that identifier was never counted into this model.
struct QVMonitorDataModel {
    int currentSizeOfBTArray;       // under lockForBT
    int currentSizeOfBackendArray;  // under lockForIP
    int currentSizeOfMethodArray;   // under lockForMM
    long long lastUpdateTimeStamp;  // ms; qv_load/qv_store
    apr_thread_mutex_t* lockForBT;
    apr_thread_mutex_t* lockForMM;
    apr_thread_mutex_t* lockForIP;
    QVBTMonitorDataCounters** btmDataArray;
    QVMethodMonitorDataCounters** mmDataArray;
    QVBackendMonitorDataCounters** ipmDataArray;
};

// Registry: decimal tlThreadId -> QVMonitorDataModel*. Written under controlThreadTmpLock
// (qvMonitorRegistryLock). Several records can share a tlThreadId (a pool block carved while
// fewer than all earlier records are busy numbers its records from the busy count); the first is
// registered under "<id>", later ones under "<id>#2", "<id>#3", ... so every model stays merged.
// Lookups by thread identifier use "<id>" and so find the first model of that number.
// One per application instance (see foundation/qvlb_instance.h).
qvlb_hashmap_t*& qvThreadBasedModelMapOfInstance();
#define threadBasedModelMap (qvThreadBasedModelMapOfInstance())

// Creates threadBasedModelMap if absent (agent start-up; also done on first registration).
void initThreadBasedModelMap();

// Creates qvTD's model: zeroed, lastUpdateTimeStamp set, its three locks (nested, control pool),
// three arrays of 128 null entries; registers it and stores it in qvTD->tlMonitorDataModel
// (release store). A record that already has a model keeps it. Allocation failure is logged
// under "MEMORY" and leaves tlMonitorDataModel null. Thread-safe; null qvTD does nothing.
void initQVMonitorDataModel(QVPerThreadData_t* qvTD);

// initQVMonitorDataModel in parts, for models made ahead of their record. new: a model, not
// registered (null when memory is short). adopt: registers model as qvTD's and stores it there,
// or frees it when qvTD is null or already has one, or registration fails. register: registers
// the model already stored in qvTD (the pool stores it while holding its lock and registers it
// after; the record counts into it meanwhile). discard: frees a model never registered.
// Thread-safe.
QVMonitorDataModel* newMonitorDataModel();
void adoptMonitorDataModel(QVPerThreadData_t* qvTD, QVMonitorDataModel* model);
void registerMonitorDataModel(QVPerThreadData_t* qvTD);
void discardMonitorDataModel(QVMonitorDataModel* model);

// Attaches the model registered under qvTD's tlThreadId ("%lld"), or creates one when none is
// registered. Returns 1 when a model was created (the caller may count its threads), 0 when one
// was attached or qvTD already had one, -1 on null qvTD or allocation failure. Thread-safe.
int checkAndInitMonitorDataModel(QVPerThreadData_t* qvTD);

// Empties the registry; the models stay with their records and are not freed. Logs
// "Returning without destroying the MonitorDataModel, ..." when there is nothing to clear.
void destroyQVMonitorDataModel();

// Registered models. Thread-safe.
int qvMonitorModelCount();

// Calls fn(model, ctx) for every model registered when the call began, in registration order.
// The registry lock is held only while the list is copied, so fn may run while models are being
// registered; fn takes the model's array lock itself. A copy that cannot be allocated skips the
// walk (logged).
void forEachMonitorDataModel(void (*fn)(QVMonitorDataModel* model, void* ctx), void* ctx);

// Counts qvTD's finished request (tlBTObj, tlDuration, tlFpCPUTime, qTimeInMS, syncTime, waitTime,
// tlCategory) into the block of btId in its model, under lockForBT, growing the array and making
// the block on first use. No allocation after the first request of a BT on this model. A growth
// or block allocation failure skips the request (logged). Application thread of qvTD; null qvTD,
// no model or btId < 0 does nothing.
void updatePropertiesOfBT(QVPerThreadData_t* qvTD, int btId);

// Adds a child flowpath's CPU time (ms) to btId's block of qvTD's model, making the block when
// absent; duration and category are unused. Counts do not change. Same locking as above.
void updateChildFPCpuTimeOfBT(QVPerThreadData_t* qvTD, int btId, int duration, char category,
                              long long cpuTime);

// Frees every block of the model's three arrays and nulls the entries, each under its lock (the
// counts are forgotten, as if the arrays were zeroed; sizes and arrays are kept). Installed as
// qvFlowpathPoolHooks.resetMonitorDataModelArrays. Null does nothing. Every block stored in a
// model's arrays must therefore come from qvlb_malloc/qvlb_calloc and own no other memory.
void resetMonitorDataModelArrays(QVMonitorDataModel* model);

// Frees every registered model with its arrays, blocks and locks and destroys the registry.
// Records still pointing at them must not be used afterwards. Tests only.
void qvMonitorDataModelResetForTest();

#endif
