// Auto-sensor data connection: the monitor reporting thread's own connection to the collector,
// with its own pool of send buffers. There is no sender thread: the reporting thread stores its
// records and sends the queued buffers itself.
#ifndef NIODATADISPATCHER_H
#define NIODATADISPATCHER_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include <mutex>

#include "collector/QVDataDispatcher.h"

// countDiscard of the auto-sensor pool: a record dropped on the reporting thread's first store
// attempt is not counted (it is sent for and stored again).
void qvCountASDiscard();

// The auto-sensor connection of one application instance (see foundation/qvlb_instance.h): its
// pool, socket, reporting thread and locks. Reached through the module names below.
struct QVAutoSensorState {
    // Grows again (up to ASDataBuffMaxCount) when an initialisation finds no free buffer; nodes
    // is curBuffers.
    QVSendBufferPool buffers = {.growsWhenDrained = true,
                                .countDiscard = qvCountASDiscard,
                                .nodeTag = "auto sensor buffer node",
                                .bufferTag = "auto sensor buffer"};
    apr_thread_mutex_t* counterMutex = nullptr;
    socketInfo_t conn = {};
    apr_thread_t* thread = nullptr;
    apr_pool_t* pool = nullptr;
    char errBuf[1024] = {};
    int retryFlag = 0;  // 1 after a send failure closed the connection; cleared by a new connection
    // Sends on the connection and its close, as in the data dispatcher: the socket pointer changes
    // only with both held (send lock first); the close shuts the socket down under sktLock alone
    // first so a send blocked on another thread returns.
    apr_thread_mutex_t* sendLock = nullptr;
    apr_thread_mutex_t* sktLock = nullptr;
    // Pool of the current connection's socket, destroyed with it.
    apr_pool_t* connPool = nullptr;
    // Set when the reporting thread is to end; polled with qv_load.
    int threadStop = 0;
    // Counters of the warning line (under counterMutex).
    long long totalDumpBytes = 0;
    long long totalSentToQVCBytes = 0;
    long long msgCount = 0;
    // Guards pool creation and thread between the control side and shutdown.
    std::recursive_mutex threadCtl;
    ~QVAutoSensorState();
};
QVAutoSensorState& qvAutoSensorState();

// Fields of this connection's send-buffer pool under their module names, as in the data
// dispatcher: the head of writeListAS is the buffer being filled (QVBCIAgentBBAS), the head of
// readListAS the one being sent (QVCollectorBBAS). They change only with bufferMoveLockAS held
// (and bufferWriteLockAS, taken first, by producers).
#define writeListAS (qvAutoSensorState().buffers.writeHead)
#define writeListLastAS (qvAutoSensorState().buffers.writeTail)
#define writeListSizeAS (qvAutoSensorState().buffers.writeCount)
#define readListAS (qvAutoSensorState().buffers.readHead)
#define readListLastAS (qvAutoSensorState().buffers.readTail)
#define readListSizeAS (qvAutoSensorState().buffers.readCount)
#define QVBCIAgentBBAS (qvAutoSensorState().buffers.agentBB)
#define QVCollectorBBAS (qvAutoSensorState().buffers.collectorBB)
#define maxBuffersAS (qvAutoSensorState().buffers.maxNodes)  // ASDataBuffMaxCount at the last initialisation
#define dataBufferSizeAS \
    (qvAutoSensorState().buffers.bufferSize)  // bytes per buffer (bciASDataBufferMaxSize)
#define curBuffers \
    (qvAutoSensorState().buffers.nodes)  // buffers that exist now; never more than maxBuffersAS
// Nested mutexes in autoSensor_pool, created by ASNioInit and published with a release store.
#define bufferWriteLockAS (qvAutoSensorState().buffers.writeLock)
#define bufferMoveLockAS (qvAutoSensorState().buffers.moveLock)
#define counterLock (qvAutoSensorState().counterMutex)  // byte and message counters
// The connection; its socket changes only under the module's send lock (use the functions).
#define autoSensor (qvAutoSensorState().conn)
#define autoSensor_thread_id (qvAutoSensorState().thread)
#define autoSensor_pool (qvAutoSensorState().pool)
#define autoSensor_err_buf (qvAutoSensorState().errBuf)

// Creates autoSensor_pool and the three mutexes if absent and logs "AutoSensor Thread started.".
// Any thread; thread-safe.
void ASNioInit();

// Creates the buffer pool unless writeListAS exists: ASDataBuffMinCount buffers of
// bciASDataBufferMaxSize bytes, but no more than ASDataBuffMaxCount minus curBuffers. Returns 1
// when that leaves less than one buffer, a size is not positive or memory is short, else 0.
int buff_list_initAS();

// Builds the request line "auto_sensor_thread_hotspot_data_req:...;QVCollectorPort=%d,testIdx=..."
// into QVBCISetting.controlAutoSensorReqMessage from the current settings. Reporting thread.
void setControlAutoSensorReqMessage();
// Builds the request line from the current settings and sends it. Returns true on failure
// (logged). Reporting thread.
bool send_autoSensor_con_req_msg_to_qvc();

// Opens the connection (proxy, cluster or active collector, as the data connection), initialises
// the pool, sets autosensorConnState and sends the request line. Returns true on failure. Then
// checks whether the thread is to stop (checkAndStopThreadAS). Reporting thread.
bool startASNDCollectorCommunication();

// Stores one record (len bytes). Returns 0, or the negative code of the data dispatcher (-1 no
// free buffer, -2 no current buffer, -3 cut with a newline, -99 no pool); a failure is logged
// and counted in discardCount. Never blocks on the network.
int dumpASData(const char* data, int len);
// Core of dumpASData; caller holds bufferWriteLockAS.
int addDataInSendBufferAS(const char* data, int bytesToWrite);
void moveToReadListAS();
void moveToWriteListAS();
void movePartialToReadListAS();

// Sends the queued buffers on the calling thread. Returns 0 when the queue is empty, -1 after a
// send failure (connection closed, retryFlag set) or without a connection, 1 when no progress.
int sendDataToQVC();
// Moves the partial buffer to the send list and sends everything.
void flushDataAS();

// The store-and-send entry of the reporting thread: stores with dumpASData; when that fails
// sends what is queued and stores once more; with flush set sends the partial buffer too.
// Returns 0 when the record was stored, else the negative store code (the record is dropped).
int dumpAndSendDataToQVC(char* data, int len, int flush);

// 0 while testRunRunning and retryForAutoSensorConn are set. Otherwise logs, flushes, cleans the
// connection (cleanAutoSensorThread) and returns 1: the calling reporting thread then ends.
int checkAndStopThreadAS();
// Closes the connection, clears autoSensor_thread_running and tells the reporting thread to end.
void cleanAutoSensorThread();
// Closes the connection if open. Any thread (a send blocked on another thread is interrupted).
void closeAutoSensorConnection();
// True once cleanAutoSensorThread ran for the current thread (the thread polls it).
bool autoSensorThreadToStop();

// Starts the monitor reporting thread unless autoSensor_thread_running is set (then logs
// "AutoSensor thread already exist." and returns 1). Joins a finished previous thread first.
// Returns 0 when started, 1 otherwise (creation errors logged). Control side.
int create_autoSensor_thread();

// Tells the reporting thread to end, closes the connection and joins the thread. Any thread but
// the reporting thread; returns at once when none runs.
void stopNIO();

// One-line summary of the pool and counters into buf (len bytes) for the trace log; returns buf.
char* nioASDataDispatcherToString(char* buf, int len);

// Stops the thread, frees the pool, the buffers and the pool's mutexes and resets every global of
// this module. Tests only.
void nio_data_dispatcher_reset_for_test();

#endif
