// Data dispatcher: this connection's send-buffer pool, the producers' entry (dumpData) and the
// data thread that owns the data connection.
#include "collector/QVDataDispatcher.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "collector/QVCServerConfig.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

QV_INSTANCE_STATE_DEFINE(QVDataDispatcherState, qvDataDispatcherState)

#define dataBuffers (qvDataDispatcherState().buffers)
#define dataSendLock (qvDataDispatcherState().sendLock)
#define dataSktLock (qvDataDispatcherState().sktLock)
#define dataThreadStop (qvDataDispatcherState().threadStop)
#define dataThreadEnding (qvDataDispatcherState().threadEnding)
#define heartBeatCountdown (qvDataDispatcherState().heartBeatCountdown)
#define inRetryFlush (qvDataDispatcherState().inRetryFlush)

int dataConnRetryIntervalMs = 60000;
QVDispatcherHooks qvDispatcherHooks = {};

namespace {

const char* const kModule = "CONTROL_THREAD";
const long long kLoopSleepMs = 100;

std::recursive_mutex& threadCtlMutex() {
    return qvDataDispatcherState().threadCtl;
}

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

const char* nz(const char* s) {
    return s != nullptr ? s : "";
}

bool exitRequested() {
    return qv_load(dataThreadStop) != 0 || qv_load(qvAgentStopping) != 0;
}

bool testRunStopped() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    return qv_load(app->Server.testRunRunning) == 0 || qv_load(app->Server.retryForDataConn) == 0;
}

// Sleeps ms in short slices. Returns true when cut short: the agent stops, the thread is told
// to end or the test run ends (the caller then reaches its stop check at once).
bool dataThreadWait(long long ms) {
    while (ms > 0) {
        if (exitRequested() || testRunStopped()) return true;
        const long long slice = ms < 20 ? ms : 20;
        if (qvlb_sleep_ms_interruptible(slice, &qvAgentStopping)) return true;
        ms -= slice;
    }
    return false;
}

// Creates data_pool and the mutexes if absent. Returns 0, or 1 when APR refused.
int ensurePoolAndLocks() {
    apr_thread_mutex_t** const locks[] = {&bufferWriteLock, &bufferMoveLock, &read_raw_file, &dataSendLock,
                                          &dataSktLock};
    return qvPoolEnsureLocks(threadCtlMutex(), &data_pool, locks, 5) < 0 ? 1 : 0;
}

QVEndpoints dataEndpoints() {
    return qvSocketEndpoints(dataSkt, qv_load_acquire(dataSktLock));
}

// Where the data connection goes (proxy, cluster entry or active collector).
bool choosePeer(QVPeer* p) {
    QVPeerRoute route;
    const bool ok = qvChoosePeer(p, qv_load(isMasterQvc) != 0, false, &route);
    QV_TRACE_IF(route == QVPeerRoute::Collector && ctlLevel() > 0, kModule, "Info",
                "[QV DR FEATURE]Active QVC Server info [Host | Port] = [%s |%d]", p->host, p->port);
    return ok;
}

// Publishes a new connection in dataSkt and the instance record.
void setDataSocket(apr_socket_t* s) {
    QVLockGuard send(qv_load_acquire(dataSendLock));
    QVLockGuard guard(qv_load_acquire(dataSktLock));
    qvSocketSet(dataSkt, s);
    qv_store(qvApplication->qvcDataSocket, s);
}

// False once another thread closed the connection (a failed direct send, the collector taken
// for dead): the thread then makes a new one even with nothing queued.
bool connected() {
    QVLockGuard guard(qv_load_acquire(dataSktLock));
    return dataSkt.skt != nullptr;
}

enum class LoopEnd { Stop, Reconnect };

// Step 3 of the thread: sends while the test runs. Stop: the thread must end (it was cleaned
// or the agent stops); Reconnect: the connection failed or the collector closed it.
LoopEnd sendLoop() {
    QVProxyInstance_t* app = qvApplication;
    for (;;) {
        if (checkAndStopThread() != 0 || exitRequested()) return LoopEnd::Stop;
        int rc = processData();
        while (rc == 1 && qv_load(app->QVSys.dataConnState) != 0) {
            if (dataThreadWait(kLoopSleepMs)) break;
            handleHeartBeat();
            rc = processData();
        }
        if (exitRequested()) return LoopEnd::Stop;
        if (rc == -1 || qv_load(app->QVSys.dataConnState) == 0 || !connected()) return LoopEnd::Reconnect;
        dataThreadWait(kLoopSleepMs);
        if (qv_load(app->QVSys.retryFlag) != 0 || qv_load(app->QVSys.closeCtrlConFlag) != 0) {
            clean_data_thread();
            return LoopEnd::Stop;
        }
        movePartialToReadList();
        handleHeartBeat();
    }
}

}  // namespace

int buff_list_init() {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || ensurePoolAndLocks() != 0) return 1;
    int existing = 0;
    if (qvPoolReady(dataBuffers, &existing)) return 0;
    const int count = qv_load(app->QVSys.dataBuffMaxCount);
    const int rc =
        qvPoolAddNodes(dataBuffers, count, qv_load(app->QVSys.bciDataBufferMaxSize), count, existing);
    if (rc == 0) QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method exit");
    return rc == 1 ? 1 : 0;
}

int dumpData(const char* data, int len) {
    const int level = ctlLevel();
    QV_TRACE_IF(level == 4, kModule, "Info", "Method called");
    if (data == nullptr || len <= 0) {
        QV_TRACE_IF(level == 4, kModule, "Info", "data is null or zero length");
        return 0;
    }
    int wsize = 0;
    int rsize = 0;
    const int rc = qvPoolStore(dataBuffers, data, len, &wsize, &rsize);
    if (rc < 0)
        QV_TRACE_IF(
            level > 0, kModule, "Error",
            "QVDataDispatcher - dumpData(): Warning - No space left in buffer or thread is not initialized "
            "for sending data to QVCollector. Return = %d, writeListSize = %d readListSize = %d",
            rc, wsize, rsize);
    QV_TRACE_IF(level == 4, kModule, "Info", "Method exit");
    return rc;
}

int addDataInSendBuffer(const char* data, int bytesToWrite) {
    return qvPoolAdd(dataBuffers, data, bytesToWrite);
}

void moveToReadList() {
    qvPoolMoveToRead(dataBuffers);
}

void moveToWriteList() {
    qvPoolMoveToWrite(dataBuffers);
}

void movePartialToReadList() {
    qvPoolMovePartial(dataBuffers);
}

int processData() {
    apr_thread_mutex_t* sendLock = qv_load_acquire(dataSendLock);
    if (sendLock == nullptr) return 0;
    QVLockGuard send(sendLock);
    QVProxyInstance_t* app = qvApplication;
    for (;;) {
        nioSettings_t* node = qvPoolHead(dataBuffers);
        if (node == nullptr) return 0;
        if (app != nullptr && qv_load(app->QVSys.retryFlag) != 0 && !inRetryFlush) {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                        "Control connecton already closed. Going to closing data thread");
            inRetryFlush = true;
            flushData();
            inRetryFlush = false;
            clean_data_thread();
            return -1;
        }
        apr_socket_t* s = dataSkt.skt;
        if (s == nullptr) return -1;
        char err[256] = "";
        int len = 0;
        int sent = 0;
        if (qvPoolSendHead(dataBuffers, node, s, err, sizeof(err), &len, &sent) != 0) {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error = %s, dataLen = %d", err, len);
            return -1;
        }
    }
}

void flushData() {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    apr_thread_mutex_t* sktLock = qv_load_acquire(dataSktLock);
    if (sktLock == nullptr) return;
    {
        QVLockGuard guard(sktLock);
        if (dataSkt.skt == nullptr) return;
    }
    qvPoolFlush(dataBuffers, processData);
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method exit");
}

void handleHeartBeat() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    const int setting = qv_load(app->QVSys.qvcBciDataConnectionHeartBeat);
    if (setting <= 0) return;
    if (--heartBeatCountdown > 0) return;
    dumpData("\n", 1);
    ++dumpHeartBeat;
    heartBeatCountdown = setting;
    if (dumpHeartBeat >= 5) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "QVDataDispatcher: heartBeatExpiryCnt '%d' ",
                    dumpHeartBeat);
        dumpHeartBeat = 0;
    }
}

void setControlDataReqMessage() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    QVBCISetting_t& b = app->QVBCISetting;
    b.controlDataReqMessageLen =
        qvBuildConnReqLine(b.controlDataReqMessage, sizeof(b.controlDataReqMessage), "qv_data_msg_req", ';');
}

bool send_data_con_req_msg_to_qvc() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    QVBCISetting_t& b = app->QVBCISetting;
    // Built for every connection: identity, collector and test run may have changed since the last.
    setControlDataReqMessage();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Sending message to QVC  - '%s'", b.controlDataReqMessage);
    const int rc = qvSendReqLine(dataSkt, qv_load_acquire(dataSendLock), b.controlDataReqMessage,
                                 b.controlDataReqMessageLen, true);
    if (rc > 0)
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Unable to send control req message. Going to closing connection");
    return rc != 0;
}

void dumpNewConnectionRecord() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    // fpgVID is a keyword the control thread may rewrite: copy it byte by byte.
    char version[sizeof(app->Server.fpgVID) + 1];
    size_t i = 0;
    for (; i < sizeof(app->Server.fpgVID); ++i) {
        version[i] = qv_load(app->Server.fpgVID[i]);
        if (version[i] == '\0') break;
    }
    version[i] = '\0';
    char record[64];
    const int n = snprintf(record, sizeof(record), "\n%d,NewConnection,FPGVersion:%s\n", 99,
                           version[0] != '\0' ? version : "1.0");
    dumpData(record, n);
}

void sendBufferDataCon(const char* buf, int len) {
    if (buf == nullptr || len <= 0) return;
    apr_thread_mutex_t* sendLock = qv_load_acquire(dataSendLock);
    if (sendLock == nullptr) return;
    QVLockGuard send(sendLock);
    if (dataSkt.skt == nullptr) return;
    char err[128];
    // A frame cut by a failure or a timeout must not be followed by others on this connection:
    // it is closed and the data thread makes a new one.
    if (qvlb_send_n_bytes(dataSkt.skt, buf, len, err, sizeof(err)) != 0) close_data_connection();
}

void close_data_connection() {
    qvSocketClose(dataSkt, qv_load_acquire(dataSendLock), qv_load_acquire(dataSktLock), [](socketInfo_t& c) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to close Data connection of %s:%d with %s:%d.\n",
                    c.sourceIp, c.srcPort, c.dstIp, c.dstPort);
        if (qvApplication != nullptr) qv_store(qvApplication->qvcDataSocket, nullptr);
    });
}

void clean_data_thread() {
    close_data_connection();
    const QVEndpoints e = dataEndpoints();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to clean Data connection of %s:%d with %s:%d.\n",
                e.src, e.srcPort, e.dst, e.dstPort);
    // The stop flag first: whoever sees data_thread_running 0 may join this thread at once.
    qv_store(dataThreadStop, 1);
    if (qvApplication != nullptr) {
        qv_store(qvApplication->QVBCISetting.data_thread_running, 0);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Value of data_thread_running : '%c' set.", '0');
    }
}

int checkAndStopThread() {
    QVProxyInstance_t* app = qvApplication;
    if (!testRunStopped()) return 0;
    qv_store(dataThreadEnding, 1);
    if (app != nullptr) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "BCI Data thread is to be stopped. Server.isTenRecordDump = %d.",
                    qv_load(app->Server.isTenRecordDump));
        if (qvDispatcherHooks.dumpFpFromBusyList != nullptr) qvDispatcherHooks.dumpFpFromBusyList();
        if (qv_load(app->Server.isTenRecordDump) == 0 && qvDispatcherHooks.dumpQvDataOverRecord != nullptr)
            qvDispatcherHooks.dumpQvDataOverRecord();
    }
    flushData();
    clean_data_thread();
    return 1;
}

void* APR_THREAD_FUNC start_data_thread(apr_thread_t*, void*) {
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Data Thread created");
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) {
        clean_data_thread();
        return nullptr;
    }
    // Each attempt's socket lives in this pool, cleared before the next attempt; only this
    // thread touches it.
    apr_pool_t* connPool = nullptr;
    if (apr_pool_create(&connPool, nullptr) != APR_SUCCESS) {
        clean_data_thread();
        return nullptr;
    }
    while (!exitRequested()) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to Create socket for data connection");
        apr_pool_clear(connPool);
        QVPeer peer;
        char err[1024] = "no collector configured";
        apr_socket_t* s = nullptr;
        if (choosePeer(&peer))
            s = qvlb_create_client_con(peer.host, peer.port, err, sizeof(err), connPool, peer.unixPath);
        if (s != nullptr) {
            bool buffersMade = false, lineSent = false;
            {
                // Frames sent straight from application threads (proxy mode) wait until the
                // request line is out: the proxy takes a connection by its first line.
                QVLockGuard firstLine(qv_load_acquire(dataSendLock));
                setDataSocket(s);
                const QVEndpoints e = dataEndpoints();
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                            "[QV DR Feature]; Data connection of %s:%d created with %s:%d.\n", e.src,
                            e.srcPort, e.dst, e.dstPort);
                apr_socket_opt_set(s, APR_SO_NONBLOCK, 0);
                apr_socket_timeout_set(s, -1);
                buffersMade = buff_list_init() == 0;
                lineSent = buffersMade && !send_data_con_req_msg_to_qvc();
            }
            if (!buffersMade) QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error in buff_list_init");
            if (!lineSent) {
                clean_data_thread();
                break;
            }
            qv_store(app->QVSys.dataConnState, 1);
            if (!qvIsProxyApplication()) {
                dumpNewConnectionRecord();
                if (qv_load(app->Server.doNotDumpMetaData) == 1 &&
                    qvDispatcherHooks.dumpALLMetaDataOnTestSatrt != nullptr)
                    qvDispatcherHooks.dumpALLMetaDataOnTestSatrt();
            }
            if (sendLoop() == LoopEnd::Stop) break;
            close_data_connection();
        } else {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                        "Error while creating the data connection with %s:%d. Error %s\n", peer.host,
                        peer.port, err);
        }
        if (checkAndStopThread() != 0) break;
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to retry data connection after 60 sec.");
        dataThreadWait(qv_load(dataConnRetryIntervalMs));
    }
    // Leaving because the agent stops: nobody cleaned the thread yet.
    if (qv_load(dataThreadStop) == 0) clean_data_thread();
    close_data_connection();
    apr_pool_destroy(connPool);
    return nullptr;
}

int check_data_thread() {
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return 1;
    if (qv_load(app->QVBCISetting.data_thread_running) != 0 && qv_load(dataThreadEnding) != 0 &&
        data_thread_id != nullptr) {
        // The previous run's thread is writing out its last records: let it finish, then start
        // the new run's thread.
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "Data thread of the previous test run is ending; waiting for it.");
        apr_status_t st;
        apr_thread_join(&st, data_thread_id);
        data_thread_id = nullptr;
    }
    if (qv_load(app->QVBCISetting.data_thread_running) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Data thread already exist.");
        return 1;
    }
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to create data thread with %s:%d.\n",
                nz(app->QVBCISetting.qvcHost), qv_load(app->QVBCISetting.qvcPort));
    char err[1024] = "unable to create pool or mutex";
    if (ensurePoolAndLocks() != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error while creating data thread. Error = %s", err);
        return 1;
    }
    // A previous thread has been told to stop (it cleared data_thread_running); wait for it so
    // exactly one data thread exists.
    if (data_thread_id != nullptr) {
        apr_status_t st;
        apr_thread_join(&st, data_thread_id);
        data_thread_id = nullptr;
    }
    qv_store(dataThreadStop, 0);
    qv_store(dataThreadEnding, 0);
    setControlDataReqMessage();
    // Both set before the thread runs: it may clear the running flag itself at once, and a fast
    // connection replays metadata, which needs the busy flag already set.
    const char wasBusy = qv_load(app->Server.controlCommunicationBusyFlag);
    qv_store(app->QVBCISetting.data_thread_running, 1);
    qv_store(app->Server.controlCommunicationBusyFlag, 1);
    apr_thread_t* thread = nullptr;
    if (qvlb_thread_create(&thread, start_data_thread, nullptr, data_pool, err, sizeof(err)) != APR_SUCCESS) {
        qv_store(app->QVBCISetting.data_thread_running, 0);
        qv_store(app->Server.controlCommunicationBusyFlag, wasBusy);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error while creating data thread. Error = %s", err);
        return 1;
    }
    data_thread_id = thread;
    return 0;
}

void qv_data_thread_stop() {
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    if (data_thread_id == nullptr) return;
    qv_store(dataThreadStop, 1);
    close_data_connection();
    apr_status_t st;
    apr_thread_join(&st, data_thread_id);
    data_thread_id = nullptr;
    if (qvApplication != nullptr) qv_store(qvApplication->QVBCISetting.data_thread_running, 0);
}

QVDataDispatcherState::~QVDataDispatcherState() {
    // The process's own pool lives until exit: producers may still write to it then.
    if (this == &qvDataDispatcherState_own) return;
    qvPoolFree(buffers);
    if (pool != nullptr) apr_pool_destroy(pool);
}

void qv_data_dispatcher_reset_for_test() {
    qv_data_thread_stop();
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    close_data_connection();
    qvPoolFree(dataBuffers);
    if (data_pool != nullptr) apr_pool_destroy(data_pool);
    data_pool = nullptr;
    qv_store(read_raw_file, nullptr);
    qv_store(dataSendLock, nullptr);
    qv_store(dataSktLock, nullptr);
    memset(&dataSkt, 0, sizeof(dataSkt));
    dumpHeartBeat = 0;
    heartBeatCountdown = 0;
    inRetryFlush = false;
    qv_store(dataThreadStop, 0);
    qv_store(dataConnRetryIntervalMs, 60000);
}
