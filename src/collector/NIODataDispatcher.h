// Auto-sensor data connection: the monitor reporting thread's own connection to the collector,
// with its own pool of send buffers. There is no sender thread: the reporting thread stores its
// records and sends the queued buffers itself.
#ifndef NIODATADISPATCHER_H
#define NIODATADISPATCHER_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include "collector/QVDataDispatcher.h"

// Fields of this connection's send-buffer pool under their module names, as in the data
// dispatcher: the head of writeListAS is the buffer being filled (QVBCIAgentBBAS), the head of
// readListAS the one being sent (QVCollectorBBAS). They change only with bufferMoveLockAS held
// (and bufferWriteLockAS, taken first, by producers).
extern nioSettings_t*& writeListAS;
extern nioSettings_t*& writeListLastAS;
extern int& writeListSizeAS;
extern nioSettings_t*& readListAS;
extern nioSettings_t*& readListLastAS;
extern int& readListSizeAS;
extern nioSettings_t*& QVBCIAgentBBAS;
extern nioSettings_t*& QVCollectorBBAS;
extern int& maxBuffersAS;      // ASDataBuffMaxCount at the last initialisation
extern int& dataBufferSizeAS;  // bytes per buffer (bciASDataBufferMaxSize)
extern int& curBuffers;        // buffers that exist now; never more than maxBuffersAS
// Nested mutexes in autoSensor_pool, created by ASNioInit and published with a release store.
extern apr_thread_mutex_t*& bufferWriteLockAS;
extern apr_thread_mutex_t*& bufferMoveLockAS;
extern apr_thread_mutex_t* counterLock;  // byte and message counters
// The connection; its socket changes only under the module's send lock (use the functions).
extern socketInfo_t autoSensor;
extern apr_thread_t* autoSensor_thread_id;
extern apr_pool_t* autoSensor_pool;
extern char autoSensor_err_buf[1024];
// 1 after a send failure closed the connection; cleared by a new connection.
extern int retryFlag;

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
