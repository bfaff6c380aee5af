// Auto-sensor data connection: its buffer pool, the store and send paths of the reporting
// thread, the request line and the connection's stop rules.
#include "collector/NIODataDispatcher.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "collector/QVCServerConfig.h"
#include "collector/QVMonitorReporter.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

namespace {

// Set while dumpAndSendDataToQVC makes its first store attempt: a record that finds no room then
// is sent for and stored again, so that attempt neither counts a discard nor warns.
thread_local bool firstAttempt = false;

}  // namespace

void qvCountASDiscard() {
    if (!firstAttempt) qvCountDiscard();
}

QV_INSTANCE_STATE_DEFINE(QVAutoSensorState, qvAutoSensorState)

#define asBuffers (qvAutoSensorState().buffers)
#define retryFlag (qvAutoSensorState().retryFlag)
#define asSendLock (qvAutoSensorState().sendLock)
#define asSktLock (qvAutoSensorState().sktLock)
#define asConnPool (qvAutoSensorState().connPool)
#define asThreadStop (qvAutoSensorState().threadStop)
#define totalDumpBytes (qvAutoSensorState().totalDumpBytes)
#define totalSentToQVCBytes (qvAutoSensorState().totalSentToQVCBytes)
#define msgCount (qvAutoSensorState().msgCount)

namespace {

const char* const kModule = "CONTROL_THREAD";

// Set on the reporting thread while checkAndStopThreadAS flushes, so the sends of that flush do
// not start another stop.
thread_local bool inStopFlush = false;
std::recursive_mutex& threadCtlMutex() {
    return qvAutoSensorState().threadCtl;
}

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

int clampInt(long long v) {
    return v > INT_MAX ? INT_MAX : (v < INT_MIN ? INT_MIN : static_cast<int>(v));
}

bool runStopped() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    return qv_load(app->Server.testRunRunning) == 0 || qv_load(app->Server.retryForAutoSensorConn) == 0;
}

QVEndpoints asEndpoints() {
    return qvSocketEndpoints(autoSensor, qv_load_acquire(asSktLock));
}

// The same peer as the data connection's.
bool choosePeer(QVPeer* p) {
    QVPeerRoute route;
    const bool ok = qvChoosePeer(p, qv_load(isMasterQvc) != 0, false, &route);
    if (route == QVPeerRoute::Collector) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "[QV DR FEATURE]Active QVC Server info [Host | Port] = [%s |%d]", p->host, p->port);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "[QV DR Feature]; Active QVC Server Info: [Host | Port] = [%s | %d]", p->host, p->port);
    }
    return ok;
}

void setASSocket(apr_socket_t* s, apr_pool_t* pool) {
    QVLockGuard send(qv_load_acquire(asSendLock));
    QVLockGuard guard(qv_load_acquire(asSktLock));
    qvSocketSet(autoSensor, s);
    asConnPool = pool;
    if (qvApplication != nullptr) qv_store(qvApplication->qvcASSocket, s);
}

}  // namespace

void ASNioInit() {
    apr_thread_mutex_t** const locks[] = {&bufferWriteLockAS, &bufferMoveLockAS, &counterLock, &asSendLock,
                                          &asSktLock};
    if (qvPoolEnsureLocks(threadCtlMutex(), &autoSensor_pool, locks, 5) == 1)
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "AutoSensor Thread started.");
}

int buff_list_initAS() {
    QVProxyInstance_t* app = qvApplication;
    ASNioInit();
    apr_thread_mutex_t* wlock = qv_load_acquire(bufferWriteLockAS);
    if (app == nullptr || wlock == nullptr) return 1;
    const int size = qv_load(app->QVSys.bciASDataBufferMaxSize);
    const int minCount = qv_load(app->QVSys.ASDataBuffMinCount);
    const int maxCount = qv_load(app->QVSys.ASDataBuffMaxCount);
    int existing = 0;
    if (qvPoolReady(asBuffers, &existing)) return 0;
    // curBuffers counts the buffers that exist, so repeated initialisations never exceed the maximum.
    int count = minCount;
    if (count > maxCount - existing) count = maxCount - existing;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "buff_list_init : bciASDataBufferMaxSize = %d, ASDataBuffMinCount = %d, curBuffers = %d, "
                "maxBuffersAS = %d",
                size, minCount, existing, maxCount);
    return qvPoolAddNodes(asBuffers, count, size, maxCount, existing) == 1 ? 1 : 0;
}

int dumpASData(const char* data, int len) {
    if (data == nullptr || len <= 0) return 0;
    int wsize = 0;
    int rsize = 0;
    const int rc = qvPoolStore(asBuffers, data, len, &wsize, &rsize);
    long long dumped = 0;
    long long sent = 0;
    long long msgs = 0;
    {
        QVLockGuard guard(qv_load_acquire(counterLock));
        if (rc == 0) {
            totalDumpBytes += len;
            ++msgCount;
        }
        dumped = totalDumpBytes;
        sent = totalSentToQVCBytes;
        msgs = msgCount;
    }
    if (rc < 0 && !(firstAttempt && (rc == -1 || rc == -2)))
        QV_TRACE_IF(
            ctlLevel() > 0, kModule, "Error",
            "QVDataDispatcher - dumpData(): Warning - No space left in buffer orthread is not initialized "
            "for "
            "sending data to QVCollector. Return = %d, writeListSize = %dreadListSize = %d, totalDumpBytes = "
            "%d  totalSentToQVCBytes = %d  bytesPending = %d MsgCount = %d",
            rc, wsize, rsize, clampInt(dumped), clampInt(sent), clampInt(dumped - sent), clampInt(msgs));
    return rc;
}

int addDataInSendBufferAS(const char* data, int bytesToWrite) {
    return qvPoolAdd(asBuffers, data, bytesToWrite);
}

void moveToReadListAS() {
    qvPoolMoveToRead(asBuffers);
}

void moveToWriteListAS() {
    qvPoolMoveToWrite(asBuffers);
}

void movePartialToReadListAS() {
    qvPoolMovePartial(asBuffers);
}

int sendDataToQVC() {
    apr_thread_mutex_t* sendLock = qv_load_acquire(asSendLock);
    if (sendLock == nullptr) return -1;
    for (;;) {
        int sentNow = 0;
        bool failed = false;
        {
            QVLockGuard send(sendLock);
            nioSettings_t* node = qvPoolHead(asBuffers);
            if (node == nullptr) return 0;
            apr_socket_t* s = autoSensor.skt;
            if (s == nullptr) return -1;
            char err[256] = "";
            int len = 0;
            if (qvPoolSendHead(asBuffers, node, s, err, sizeof(err), &len, &sentNow) != 0) {
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error = %s", err);
                closeAutoSensorConnection();
                qv_store(retryFlag, 1);
                failed = true;
            }
        }
        {
            QVLockGuard guard(qv_load_acquire(counterLock));
            totalSentToQVCBytes += sentNow;
        }
        if (failed) return -1;
        if (!inStopFlush && checkAndStopThreadAS() != 0) return 0;
    }
}

void flushDataAS() {
    qvPoolFlush(asBuffers, sendDataToQVC);
}

int dumpAndSendDataToQVC(char* data, int len, int flush) {
    if (data == nullptr || len <= 0) return 0;
    firstAttempt = true;
    int rc = dumpASData(data, len);
    firstAttempt = false;
    if (rc == -1 || rc == -2) {
        // No room: send what is queued and store once more. The record is dropped (and counted)
        // only when that fails too.
        if (sendDataToQVC() < 0) {
            qvCountASDiscard();
            return rc;
        }
        rc = dumpASData(data, len);
        if (rc != 0) return rc;
    } else if (rc != 0) {
        // Cut (-3: part of it and a newline are stored) or no pool: a second store cannot help.
        qvCountASDiscard();
        return rc;
    }
    if (flush != 0) {
        movePartialToReadListAS();
        sendDataToQVC();
    }
    return 0;
}

int checkAndStopThreadAS() {
    if (!runStopped()) return 0;
    if (inStopFlush) return 1;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "BCI AutoSensor thread is to be stopped");
    inStopFlush = true;
    flushDataAS();
    inStopFlush = false;
    cleanAutoSensorThread();
    return 1;
}

void closeAutoSensorConnection() {
    qvSocketClose(autoSensor, qv_load_acquire(asSendLock), qv_load_acquire(asSktLock), [](socketInfo_t&) {
        if (asConnPool != nullptr) apr_pool_destroy(asConnPool);
        asConnPool = nullptr;
        if (qvApplication != nullptr) qv_store(qvApplication->qvcASSocket, nullptr);
    });
}

void cleanAutoSensorThread() {
    closeAutoSensorConnection();
    const QVEndpoints e = asEndpoints();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to Exit AutoSensor thread of %s:%d with %s:%d\n",
                e.src, e.srcPort, e.dst, e.dstPort);
    qv_store(asThreadStop, 1);
    if (qvApplication != nullptr) {
        qv_store(qvApplication->QVBCISetting.autoSensor_thread_running, 0);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Value of autoSensor_thread_running : '%c' set.", '0');
    }
}

bool autoSensorThreadToStop() {
    return qv_load(asThreadStop) != 0;
}

void setControlAutoSensorReqMessage() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    QVBCISetting_t& b = app->QVBCISetting;
    // The comma before testIdx is what the collector expects on this connection.
    b.controlAutoSensorReqMessageLen =
        qvBuildConnReqLine(b.controlAutoSensorReqMessage, sizeof(b.controlAutoSensorReqMessage),
                           "auto_sensor_thread_hotspot_data_req", ',');
}

bool send_autoSensor_con_req_msg_to_qvc() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    QVBCISetting_t& b = app->QVBCISetting;
    // Built for every connection: identity, collector and test run may have changed since the last.
    setControlAutoSensorReqMessage();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Send message to QVC - '%s'", b.controlAutoSensorReqMessage);
    const int rc = qvSendReqLine(autoSensor, qv_load_acquire(asSendLock), b.controlAutoSensorReqMessage,
                                 b.controlAutoSensorReqMessageLen, false);
    if (rc > 0) QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Unable to send the message.");
    return rc != 0;
}

bool startASNDCollectorCommunication() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    ASNioInit();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "AutoSensor Thread created\n");
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Creating socket for AutoSensor\n");
    closeAutoSensorConnection();
    QVPeer peer;
    snprintf(autoSensor_err_buf, sizeof(autoSensor_err_buf), "%s", "no collector configured");
    apr_socket_t* s = nullptr;
    apr_pool_t* pool = nullptr;
    if (choosePeer(&peer) && apr_pool_create(&pool, nullptr) == APR_SUCCESS) {
        s = qvlb_create_client_con(peer.host, peer.port, autoSensor_err_buf, sizeof(autoSensor_err_buf), pool,
                                   peer.unixPath);
        if (s == nullptr) apr_pool_destroy(pool);
    }
    bool failed = false;
    if (s != nullptr) {
        apr_socket_opt_set(s, APR_SO_NONBLOCK, 0);
        apr_socket_timeout_set(s, -1);
        setASSocket(s, pool);
        qv_store(retryFlag, 0);
        const QVEndpoints e = asEndpoints();
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "[QV DR Feature]; AutoSensor connection of %s:%d created with %s:%d\n", e.src, e.srcPort,
                    e.dst, e.dstPort);
        if (buff_list_initAS() != 0) {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error in buff_list_init");
            closeAutoSensorConnection();
            return true;
        }
        qv_store(app->QVSys.autosensorConnState, 1);
        if (send_autoSensor_con_req_msg_to_qvc()) {
            cleanAutoSensorThread();
            failed = true;
        }
    } else {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "[QV DR Feature]; Error while creating the AutoSensor connection with %s:%d. Error %s\n",
                    peer.host, peer.port, autoSensor_err_buf);
        failed = true;
    }
    checkAndStopThreadAS();
    return failed;
}

int create_autoSensor_thread() {
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return 1;
    if (qv_load(app->QVBCISetting.autoSensor_thread_running) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "AutoSensor thread already exist.");
        return 1;
    }
    ASNioInit();
    char err[1024] = "unable to create pool or mutex";
    if (autoSensor_pool == nullptr) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error while creating Auto Sensor thread. Error = %s",
                    err);
        return 1;
    }
    // A previous thread was told to stop (it cleared the running flag): one thread at a time.
    if (autoSensor_thread_id != nullptr) {
        apr_status_t st;
        apr_thread_join(&st, autoSensor_thread_id);
        autoSensor_thread_id = nullptr;
    }
    qv_store(asThreadStop, 0);
    qv_store(app->QVBCISetting.autoSensor_thread_running, 1);
    apr_thread_t* thread = nullptr;
    if (qvlb_thread_create(&thread, qvMonitorReporterThread, nullptr, autoSensor_pool, err, sizeof(err)) !=
        APR_SUCCESS) {
        qv_store(app->QVBCISetting.autoSensor_thread_running, 0);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error while creating Auto Sensor thread. Error = %s",
                    err);
        return 1;
    }
    autoSensor_thread_id = thread;
    return 0;
}

void stopNIO() {
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    if (autoSensor_thread_id == nullptr) return;
    qv_store(asThreadStop, 1);
    closeAutoSensorConnection();
    apr_status_t st;
    apr_thread_join(&st, autoSensor_thread_id);
    autoSensor_thread_id = nullptr;
    if (qvApplication != nullptr) qv_store(qvApplication->QVBCISetting.autoSensor_thread_running, 0);
}

char* nioASDataDispatcherToString(char* buf, int len) {
    if (buf == nullptr || len <= 0) return buf;
    int wsize = 0;
    int rsize = 0;
    int made = 0;
    int maxCount = 0;
    int size = 0;
    {
        QVLockGuard guard(qv_load_acquire(bufferWriteLockAS));
        wsize = writeListSizeAS;
        rsize = readListSizeAS;
        made = curBuffers;
        maxCount = maxBuffersAS;
        size = dataBufferSizeAS;
    }
    long long dumped = 0;
    long long sent = 0;
    long long msgs = 0;
    {
        QVLockGuard guard(qv_load_acquire(counterLock));
        dumped = totalDumpBytes;
        sent = totalSentToQVCBytes;
        msgs = msgCount;
    }
    snprintf(
        buf, static_cast<size_t>(len),
        "AutoSensor dispatcher: writeListSize = %d, readListSize = %d, curBuffers = %d, maxBuffers = %d, "
        "bufferSize = %d, totalDumpBytes = %lld, totalSentToQVCBytes = %lld, MsgCount = %lld",
        wsize, rsize, made, maxCount, size, dumped, sent, msgs);
    return buf;
}

QVAutoSensorState::~QVAutoSensorState() {
    // The process's own pool lives until exit: the reporting thread may still use it then.
    if (this == &qvAutoSensorState_own) return;
    qvPoolFree(buffers);
    if (pool != nullptr) apr_pool_destroy(pool);
}

void nio_data_dispatcher_reset_for_test() {
    stopNIO();
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    closeAutoSensorConnection();
    qvPoolFree(asBuffers);
    if (autoSensor_pool != nullptr) apr_pool_destroy(autoSensor_pool);
    autoSensor_pool = nullptr;
    qv_store(counterLock, nullptr);
    qv_store(asSendLock, nullptr);
    qv_store(asSktLock, nullptr);
    memset(&autoSensor, 0, sizeof(autoSensor));
    autoSensor_err_buf[0] = '\0';
    qv_store(retryFlag, 0);
    qv_store(asThreadStop, 0);
    totalDumpBytes = totalSentToQVCBytes = msgCount = 0;
}
