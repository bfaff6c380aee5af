// Data dispatcher: carries every record (flowpaths, monitors, metadata) from the producing
// threads to the collector over the process's one data connection, through a fixed pool of
// send buffers drained by the data thread.
#ifndef QVDATADISPATCHER_H
#define QVDATADISPATCHER_H

#include <apr_network_io.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include <mutex>

#include "collector/QVSendBufferPool.h"

// The data connection of one application instance (see foundation/qvlb_instance.h): its pool,
// socket, thread and locks. Reached through the module names below.
struct QVDataDispatcherState {
    // Made once per instance; nodes tells "no free buffer now" (-2) from "never initialised" (-99)
    // while every node sits in the send list.
    QVSendBufferPool buffers = {.growsWhenDrained = false,
                                .countDiscard = qvCountDiscard,
                                .nodeTag = "data buffer node",
                                .bufferTag = "data buffer"};
    apr_thread_mutex_t* rawFileLock = nullptr;
    socketInfo_t skt = {};
    apr_thread_t* thread = nullptr;
    apr_pool_t* pool = nullptr;
    int heartBeats = 0;
    // Serialises every write to the data socket and its close, so records from the buffered
    // sends and from sendBufferDataCon never interleave and no send uses a closed descriptor.
    // Also makes the sender side (processData) single-consumer whoever calls it.
    apr_thread_mutex_t* sendLock = nullptr;
    // Guards skt. The socket pointer changes only with both locks held (send lock first), so
    // holding either one is enough to read it.
    apr_thread_mutex_t* sktLock = nullptr;
    // Set when the data thread is to end; the thread polls it with qv_load.
    int threadStop = 0;
    // Set by the data thread once it has decided to stop (its test run ended) and is writing out
    // the last records; a start arriving meanwhile waits for it instead of finding it "already there".
    int threadEnding = 0;
    // Heartbeat countdown of handleHeartBeat (data thread only).
    int heartBeatCountdown = 0;
    // Set (under sendLock) while processData drains the buffers because the control connection
    // went away; keeps that drain from recursing into itself.
    bool inRetryFlush = false;
    // Guards pool creation and thread between the control side and shutdown.
    std::recursive_mutex threadCtl;
    ~QVDataDispatcherState();
};
QVDataDispatcherState& qvDataDispatcherState();

// Fields of this connection's send-buffer pool under their module names (other modules and
// tests read them). They change only with bufferMoveLock held (and bufferWriteLock too, except
// when the data thread queues its sent buffer back). The head of writeList is the buffer
// producers fill (QVBCIAgentBB); the head of readList the one being sent (QVCollectorBB).
#define writeList (qvDataDispatcherState().buffers.writeHead)
#define writeListLast (qvDataDispatcherState().buffers.writeTail)
#define writeListSize (qvDataDispatcherState().buffers.writeCount)
#define readList (qvDataDispatcherState().buffers.readHead)
#define readListLast (qvDataDispatcherState().buffers.readTail)
#define readListSize (qvDataDispatcherState().buffers.readCount)
#define QVBCIAgentBB (qvDataDispatcherState().buffers.agentBB)
#define QVCollectorBB (qvDataDispatcherState().buffers.collectorBB)
// node count, from QVSys.dataBuffMaxCount at pool creation
#define maxBuffers (qvDataDispatcherState().buffers.maxNodes)
// bytes per node, from QVSys.bciDataBufferMaxSize at pool creation
#define dataBufferSize (qvDataDispatcherState().buffers.bufferSize)
// Nested mutexes in data_pool, created by check_data_thread (or buff_list_init) and published
// with a release store: read them with qv_load_acquire. Order: bufferWriteLock before
// bufferMoveLock. read_raw_file is created here for other modules' use.
#define bufferWriteLock (qvDataDispatcherState().buffers.writeLock)
#define bufferMoveLock (qvDataDispatcherState().buffers.moveLock)
#define read_raw_file (qvDataDispatcherState().rawFileLock)
// The data connection. dataSkt.skt is written only with both the send lock and the socket
// lock of this module held; use close_data_connection / sendBufferDataCon, never the socket
// directly.
#define dataSkt (qvDataDispatcherState().skt)
#define data_thread_id (qvDataDispatcherState().thread)
#define data_pool (qvDataDispatcherState().pool)
#define dumpHeartBeat \
    (qvDataDispatcherState().heartBeats)  // heartbeats since they were last logged (data thread only)

// Wait between data connection attempts, in milliseconds (default 60000). The wait ends early
// when the agent stops, the thread is told to stop or the test run ends. Tests shorten it.
extern int dataConnRetryIntervalMs;

// Steps of the data thread's stop that belong to higher layers; the flowpath layer and the
// command handler fill them. A null entry is skipped.
struct QVDispatcherHooks {
    void (*dumpFpFromBusyList)();          // write every running flowpath as incomplete
    void (*dumpQvDataOverRecord)();        // the data-over record ("10,") of the stop
    void (*dumpALLMetaDataOnTestSatrt)();  // replay the metadata cache on a new connection
};
extern QVDispatcherHooks qvDispatcherHooks;

// Queues one complete record (len bytes, not NUL-terminated) for the data connection. Never
// blocks on the network and never allocates: when no buffer is free the record is dropped,
// counted in QVSys.discardCount and a warning is logged. Any thread. Returns 0 when queued
// (also for null/empty input, which is ignored), otherwise the addDataInSendBuffer code:
// -1 no free buffer, -2 no current buffer, -3 record cut (larger than a buffer), -99 no pool.
int dumpData(const char* data, int len);

// Core of dumpData; caller holds bufferWriteLock. Copies the record into the current buffer,
// spilling into the next free one, and queues full buffers for sending. Codes as dumpData.
int addDataInSendBuffer(const char* data, int bytesToWrite);

// Sends everything buffered now (the partly filled buffer too) on the calling thread. Returns
// at once when there is no data connection. Used at test stop.
void flushData();

// Starts the data thread unless it runs (data_thread_running). Creates data_pool and the
// mutexes on first use and prepares the connection request line. Control side only.
// Returns 0 when started, 1 when already running or creation failed.
int check_data_thread();

// Data thread: 0 while the test run is running and the data connection is wanted. Otherwise
// writes out running flowpaths and the data-over record (hooks), flushes, cleans the thread
// and returns 1; the data thread then returns.
int checkAndStopThread();

// Closes the data connection and marks the data thread stopped (data_thread_running 0). On
// the data thread it makes the thread function return at its next step; from another thread
// it tells the data thread to end.
void clean_data_thread();

// Closes the data connection if open. Any thread: a send blocked on another thread is
// interrupted first.
void close_data_connection();

// Body of the data thread (started by check_data_thread).
void* APR_THREAD_FUNC start_data_thread(apr_thread_t* thread, void* data);

// Creates the buffer pool once per process (later calls return 0 at once). Returns 1 when a
// size setting is 0 or less or memory is short (nothing is kept then), else 0.
int buff_list_init();

// Builds the data connection request line into QVBCISetting.controlDataReqMessage from the
// current settings. Called on the control side before the data thread starts, and by the data
// thread for each connection.
void setControlDataReqMessage();

// Builds the request line from the current settings and sends it and one more "\n" on the data
// connection. Returns true on failure. Data thread.
bool send_data_con_req_msg_to_qvc();

// Queues the new-connection record (99) with the flowpath generator version.
void dumpNewConnectionRecord();

// Data thread, about every 100 ms: queues a heartbeat (a lone "\n") every
// qvcBciDataConnectionHeartBeat calls; nothing when that setting is 0 or less.
void handleHeartBeat();

// Sends the queued buffers on the data connection. Returns 0 when nothing is left, -1 on a
// send failure or a missing connection (the buffer stays queued for the next connection),
// 1 when the send made no progress. Serialised with every other writer of the socket.
int processData();

// List moves (see the lock notes above). moveToReadList and movePartialToReadList are called
// by producers and the data thread; moveToWriteList by the sender, on a fully sent buffer
// whose use_len and send_len it has zeroed.
void moveToReadList();
void moveToWriteList();
void movePartialToReadList();

// Writes buf straight to the data connection (proxy-mode frames), serialised with the
// buffered sends. Dropped silently without a connection or on a send failure.
void sendBufferDataCon(const char* buf, int len);

// Tells the data thread to end, interrupts its wait or send, and joins it. Returns at once if
// none runs. Safe at shutdown and from tests; not from the data thread itself.
void qv_data_thread_stop();

// Stops the data thread, frees the buffer pool and data_pool, and resets every global of this
// module (dataConnRetryIntervalMs back to 60000; the hook table is left as filled). Tests only.
void qv_data_dispatcher_reset_for_test();

#endif
