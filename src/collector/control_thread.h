// The control thread: keeps the text control connection to the collector, sends the
// handshake and heartbeats, watches the collector's liveness, reconnects (switching to a backup
// collector when configured) and hands received command lines to the command handler.
#ifndef CONTROL_THREAD_H
#define CONTROL_THREAD_H

#include <apr_network_io.h>
#include <apr_thread_proc.h>

#include <cstddef>

#include "collector/QVDataDispatcher.h"

// Receive buffer of the control connection. Bytes [readOffset, writeOffset) are received but
// not yet parsed (readBytes of them). One byte is always kept free for a terminating NUL.
struct controlSocketBuffer_t {
    char* read_socket_buf;
    size_t read_len;  // capacity
    int readOffset;
    int writeOffset;
    int readBytes;
};

// Capacity of the receive buffer. A command line longer than this is discarded up to its
// newline (logged), the connection is kept.
#define QV_CONTROL_BUFFER_SIZE 65536

// The control connection of one application instance (see foundation/qvlb_instance.h), reached
// through the module names below.
struct QVControlThreadState {
    controlSocketBuffer_t bufInfo = {};
    // The control connection: socket and both endpoints. The socket is replaced only by the
    // control thread, under the control send lock; other threads never read it directly (they
    // use controlConnectionSendBuffer, which serialises with the close).
    socketInfo_t conn = {};
    int masterQvc = 0;
    int heartbeats = 0;
    char healthCheckFail = 0;
    char switchOver = 0;
    // Serialises sends on the control socket with its close. The socket pointer changes only with
    // both locks held (send lock first); the close shuts the socket down under the socket lock
    // alone first, so a send blocked on another thread returns and releases the send lock.
    apr_thread_mutex_t* sendLock = nullptr;
    apr_thread_mutex_t* sktLock = nullptr;
    // Pool of the current socket; destroyed with it.
    apr_pool_t* connPool = nullptr;
    // Collector of the current (or last) connection; guarded by sktLock.
    char peerHost[1024] = {};
    int peerPort = 0;
    // Receive-side state, control thread only.
    bool discardingLongLine = false;
    int idleRounds = 0;
    // Cluster mode: the next attempt goes to the master (entry 0) after the node failed.
    bool connectToMaster = false;
    // Last invalid reply, for the control thread's "Unexpected response" line.
    char lastInvalidReply[512] = {};
    ~QVControlThreadState();
};
QVControlThreadState& qvControlThreadState();

#define ctrlBufInfo (qvControlThreadState().bufInfo)
// 1 while this agent is bound to the master collector (cluster mode). Written by the control
// thread, read by the data and auto-sensor connections with qv_load.
#define isMasterQvc (qvControlThreadState().masterQvc)
// Heartbeats sent and not answered yet. Control thread.
#define heartbeat_count (qvControlThreadState().heartbeats)
#define health_check_fail \
    (qvControlThreadState().healthCheckFail)  // the collector missed too many heartbeats
#define is_switch_over \
    (qvControlThreadState().switchOver)  // switch to the next collector at the next connect

// Longest wait of one poll of the command loop in milliseconds (default 10000); a poll that
// times out checks the collector's liveness and may send a heartbeat. Tests shorten it.
extern long long controlPollTimeoutMs;
// Pause before connecting again after a connection ended (default 1000 ms), so a collector
// that accepts and drops at once is not hammered. Tests shorten it.
extern long long controlReconnectPauseMs;

// Body of the control thread, started by agent start-up. Runs until qvAgentStopping is set:
// every failure ends in cleanup and reconnection. On its way out it closes the control
// connection and stops the monitor reporting thread.
void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t* thread, void* data);

// The host name sent in the handshake's fixed hostName field: the machine's host name, read once
// (the first call, made at control thread start) and kept for the process. Never null.
const char* getHandshakeHostName();

// Builds the handshake line into QVBCISetting.controlConnectionReqMessage (cut to one line of at
// most 2047 bytes). Control thread.
void setControlConnectionReqMessage();

// Sends the handshake line on the control connection. Returns true on failure (logged).
bool send_control_con_req_msg_to_qvc();

// Waits (up to controlPollTimeoutMs, in short slices that end when the agent stops) for the
// collector's one-line reply and handles it: retry flags for the data and auto-sensor
// connections, forwarding to the instance's processes. Returns 1 when the connection was closed
// because the reply was invalid, else 0 (also when nothing or a closed connection was read:
// the command loop then notices). Lines after the reply stay in buf.
char rec_control_con_rep_msg_from_qvc(controlSocketBuffer_t* buf);

// The command loop: polls the control socket, processes the received lines, checks liveness and
// sends heartbeats. Returns 1 when the connection is to be closed and made again.
int handle_msg_from_qvc(controlSocketBuffer_t* buf);

// Reads what is available into buf and processes the complete lines. Returns 1 when the
// connection failed, was closed or is to be closed, else 0.
int read_msg_from_qvc(controlSocketBuffer_t* buf);

// Hands every complete line of buf to handleReceivedClientMessageFromQVCollector and keeps a
// trailing partial line at the start of the buffer. Stops early once a command asked to close the
// control connection. A line that fills the whole buffer is discarded up to its newline.
void processControlConnectionMessage(controlSocketBuffer_t* buf);

// Sends "qv_control_req:action=reconnect;heartBeat %d;\n" and counts it in heartbeat_count. A send
// failure closes the control connection (logged).
void send_control_conn_heartbeat_to_qvc();

// 1 (after closing the control and all data connections) when nothing was received for
// qvcHeartBeatThreshold milliseconds, else 0.
int checkQVCAlive();

// Closes the control socket if open (shutdown first, so a blocked send returns) and clears it in
// the instance record. Any thread; idempotent.
void control_connection_cleanup();

// Allocates the receive buffer (QV_CONTROL_BUFFER_SIZE bytes) if absent and resets it. Called at
// start-up through qvAgentHooks.controlSockBufInit and by the control thread.
void controlSockBufInit();
// Empties the receive buffer (offsets 0, partial-line discarding off).
void controlSockBufReset();

// Sends len bytes on the control connection, serialised with every other send and the close.
// Returns 0, or -2 when there is no connection or the send failed or timed out (logged; the
// socket is shut down, so the control thread's next read sees it closed and reconnects). Any thread.
int controlConnectionSendBuffer(const char* buf, int len);

// Host and port of the collector of the current (or last) control connection, for the reroute's
// connDestination. host gets "" and port 0 before the first connection.
void getControlPeer(char* host, int host_len, int* port);

// Makes s (owned by the caller's pool) the control connection to host:port, as a connect would.
// Tests only: drives the command handler over a real socket without the thread.
void control_thread_adopt_socket_for_test(apr_socket_t* s, const char* host, int port);

// Resets this module's globals, closes the control socket and frees the receive buffer. Tests
// only; the control thread must not run.
void control_thread_reset_for_test();

#endif
