// Auto-sensor data connection: its buffer pool, the store and send paths of the reporting
// thread, the request line and the connection's stop rules.
#include "collector/NIODataDispatcher.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "collector/QVCServerConfig.h"
#include "collector/QVMonitorReporter.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

nioSettings_t* writeListAS = nullptr;
nioSettings_t* writeListLastAS = nullptr;
int writeListSizeAS = 0;
nioSettings_t* readListAS = nullptr;
nioSettings_t* readListLastAS = nullptr;
int readListSizeAS = 0;
nioSettings_t* QVBCIAgentBBAS = nullptr;
nioSettings_t* QVCollectorBBAS = nullptr;
int maxBuffersAS = 0;
int dataBufferSizeAS = 0;
int curBuffers = 0;
apr_thread_mutex_t* bufferWriteLockAS = nullptr;
apr_thread_mutex_t* bufferMoveLockAS = nullptr;
apr_thread_mutex_t* counterLock = nullptr;
socketInfo_t autoSensor = {};
apr_thread_t* autoSensor_thread_id = nullptr;
apr_pool_t* autoSensor_pool = nullptr;
char autoSensor_err_buf[1024];
int retryFlag = 0;

namespace {

const char* const kModule = "CONTROL_THREAD";

// Sends on the connection and its close, as in the data dispatcher: the socket pointer changes
// only with both held (send lock first); the close shuts the socket down under asSktLock alone
// first so a send blocked on another thread returns.
apr_thread_mutex_t* asSendLock = nullptr;
apr_thread_mutex_t* asSktLock = nullptr;
// Pool of the current connection's socket, destroyed with it.
apr_pool_t* asConnPool = nullptr;
// Set when the reporting thread is to end; polled with qv_load.
int asThreadStop = 0;
// Counters of the warning line (under counterLock).
long long totalDumpBytes = 0;
long long totalSentToQVCBytes = 0;
long long msgCount = 0;
// Set on the reporting thread while checkAndStopThreadAS flushes, so the sends of that flush do
// not start another stop.
thread_local bool inStopFlush = false;
// Set while dumpAndSendDataToQVC makes its first store attempt: a record that finds no room then
// is sent for and stored again, so that attempt neither counts a discard nor warns.
thread_local bool firstAttempt = false;

std::recursive_mutex& threadCtlMutex() {
    static std::recursive_mutex m;
    return m;
}

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

const char* nz(const char* s) {
    return s != nullptr ? s : "";
}

int clampInt(long long v) {
    return v > INT_MAX ? INT_MAX : (v < INT_MIN ? INT_MIN : static_cast<int>(v));
}

void countDiscard() {
    if (firstAttempt) return;
    QVProxyInstance_t* app = qvApplication;
    if (app != nullptr) __atomic_fetch_add(&app->QVSys.discardCount, 1, __ATOMIC_RELAXED);
}

bool runStopped() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    return qv_load(app->Server.testRunRunning) == 0 || qv_load(app->Server.retryForAutoSensorConn) == 0;
}

bool isProxyApplication() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->QVSys.proxyMode) == 1 && qv_load(QVProxy.proxyServerFlag) == 0;
}

void freeNodes(nioSettings_t* n) {
    while (n != nullptr) {
        nioSettings_t* next = n->next;
        qvlb_free(n->buff, "auto sensor buffer", -1);
        qvlb_free(n, "auto sensor buffer node", -1);
        n = next;
    }
}

struct Endpoints {
    char src[16];
    char dst[16];
    int srcPort;
    int dstPort;
};

Endpoints asEndpoints() {
    Endpoints e{};
    QVLockGuard guard(qv_load_acquire(asSktLock));
    memcpy(e.src, autoSensor.sourceIp, sizeof(e.src));
    memcpy(e.dst, autoSensor.dstIp, sizeof(e.dst));
    e.src[sizeof(e.src) - 1] = '\0';
    e.dst[sizeof(e.dst) - 1] = '\0';
    e.srcPort = autoSensor.srcPort;
    e.dstPort = autoSensor.dstPort;
    return e;
}

struct Peer {
    char host[1024];
    int port;
    const char* unixPath;
};

// The same peer as the data connection's.
bool choosePeer(Peer* p) {
    QVProxyInstance_t* app = qvApplication;
    p->host[0] = '\0';
    p->port = 0;
    p->unixPath = nullptr;
    if (app == nullptr) return false;
    if (isProxyApplication()) {
        const char* ip = qv_load_acquire(app->QVSys.proxyIP);
        snprintf(p->host, sizeof(p->host), "%s", ip != nullptr ? ip : "127.0.0.1");
        p->port = qv_load(app->QVSys.proxyPort);
        if (qv_load(app->QVSys.proxyConType) != 0) p->unixPath = qv_load_acquire(app->QVSys.socketPath);
        return true;
    }
    if (qv_load(app->Server.isClusterMode) != 0) {
        const int idx = qv_load(isMasterQvc) != 0 ? 0 : 1;
        const bool ok = copy_qvc_server_addr(idx, p->host, sizeof(p->host), &p->port) == 0;
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Active QVC Server info [Host | Port] = [%s |%d]",
                    p->host, p->port);
        return ok;
    }
    const bool ok = copy_qvc_server_addr(-1, p->host, sizeof(p->host), &p->port) == 0;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "[QV DR FEATURE]Active QVC Server info [Host | Port] = [%s |%d]", p->host, p->port);
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "[QV DR Feature]; Active QVC Server Info: [Host | Port] = [%s | %d]", p->host, p->port);
    return ok;
}

void setASSocket(apr_socket_t* s, apr_pool_t* pool) {
    QVLockGuard send(qv_load_acquire(asSendLock));
    QVLockGuard guard(qv_load_acquire(asSktLock));
    memset(autoSensor.sourceIp, 0, sizeof(autoSensor.sourceIp));
    memset(autoSensor.dstIp, 0, sizeof(autoSensor.dstIp));
    get_src_addr(s, autoSensor.sourceIp, sizeof(autoSensor.sourceIp), &autoSensor.srcPort);
    get_dst_addr(s, autoSensor.dstIp, sizeof(autoSensor.dstIp), &autoSensor.dstPort);
    autoSensor.skt = s;
    asConnPool = pool;
    if (qvApplication != nullptr) qv_store(qvApplication->qvcASSocket, s);
}

}  // namespace

void ASNioInit() {
    if (qv_load_acquire(bufferWriteLockAS) != nullptr && qv_load_acquire(bufferMoveLockAS) != nullptr &&
        qv_load_acquire(counterLock) != nullptr && qv_load_acquire(asSendLock) != nullptr &&
        qv_load_acquire(asSktLock) != nullptr)
        return;
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    qvlb_apr_init();
    if (autoSensor_pool == nullptr && apr_pool_create(&autoSensor_pool, nullptr) != APR_SUCCESS) {
        autoSensor_pool = nullptr;
        return;
    }
    apr_thread_mutex_t** locks[] = {&bufferWriteLockAS, &bufferMoveLockAS, &counterLock, &asSendLock,
                                    &asSktLock};
    for (apr_thread_mutex_t** m : locks) {
        if (qvlb_create_nested_mutex(m, autoSensor_pool) != APR_SUCCESS) return;
    }
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
    int existing;
    {
        QVLockGuard guard(wlock);
        if (writeListAS != nullptr) return 0;
        existing = curBuffers;
    }
    // curBuffers counts the buffers that exist, so repeated initialisations never exceed the maximum.
    int count = minCount;
    if (count > maxCount - existing) count = maxCount - existing;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "buff_list_init : bciASDataBufferMaxSize = %d, ASDataBuffMinCount = %d, curBuffers = %d, "
                "maxBuffersAS = %d",
                size, minCount, existing, maxCount);
    if (count < 1 || size <= 0) return 1;

    nioSettings_t* head = nullptr;
    nioSettings_t* last = nullptr;
    for (int i = 0; i < count; ++i) {
        auto* node =
            static_cast<nioSettings_t*>(qvlb_calloc(sizeof(nioSettings_t), "auto sensor buffer node", i));
        char* buf = node != nullptr
                        ? static_cast<char*>(qvlb_malloc(static_cast<size_t>(size), "auto sensor buffer", i))
                        : nullptr;
        if (buf == nullptr) {
            qvlb_free(node, "auto sensor buffer node", i);
            freeNodes(head);
            return 1;
        }
        node->buff = buf;
        node->buff_size = size;
        if (last != nullptr)
            last->next = node;
        else
            head = node;
        last = node;
    }
    QVLockGuard write(wlock);
    QVLockGuard move(qv_load_acquire(bufferMoveLockAS));
    if (writeListAS != nullptr || curBuffers != existing) {  // another caller won the race
        freeNodes(head);
        return writeListAS != nullptr ? 0 : 1;
    }
    writeListAS = head;
    writeListLastAS = last;
    writeListSizeAS = count;
    QVBCIAgentBBAS = writeListAS;
    curBuffers += count;
    maxBuffersAS = maxCount;
    dataBufferSizeAS = size;
    return 0;
}

int dumpASData(const char* data, int len) {
    if (data == nullptr || len <= 0) return 0;
    int rc;
    int wsize = 0;
    int rsize = 0;
    apr_thread_mutex_t* lock = qv_load_acquire(bufferWriteLockAS);
    if (lock == nullptr) {
        countDiscard();
        rc = -99;
    } else {
        QVLockGuard guard(lock);
        rc = addDataInSendBufferAS(data, len);
        wsize = writeListSizeAS;
        rsize = readListSizeAS;
    }
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
    if (data == nullptr || bytesToWrite <= 0) return 0;
    nioSettings_t* cur = QVBCIAgentBBAS;
    if (cur == nullptr) {
        countDiscard();
        return curBuffers > 0 ? -2 : -99;
    }
    const int space = cur->buff_size - cur->use_len;
    if (bytesToWrite <= space) {
        memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(bytesToWrite));
        cur->use_len += bytesToWrite;
        if (cur->use_len == cur->buff_size) moveToReadListAS();
        return 0;
    }
    if (cur->next == nullptr) {
        countDiscard();
        return -1;
    }
    memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(space));
    cur->use_len = cur->buff_size;
    moveToReadListAS();
    nioSettings_t* nb = QVBCIAgentBBAS;
    const int rest = bytesToWrite - space;
    if (rest > nb->buff_size - nb->use_len) {
        countDiscard();
        nb->buff[nb->use_len++] = '\n';
        if (nb->use_len == nb->buff_size) moveToReadListAS();
        return -3;
    }
    memcpy(nb->buff + nb->use_len, data + space, static_cast<size_t>(rest));
    nb->use_len += rest;
    if (nb->use_len == nb->buff_size) moveToReadListAS();
    return 0;
}

void moveToReadListAS() {
    QVLockGuard move(qv_load_acquire(bufferMoveLockAS));
    nioSettings_t* n = writeListAS;
    if (n == nullptr) return;
    writeListAS = n->next;
    if (writeListAS == nullptr) writeListLastAS = nullptr;
    --writeListSizeAS;
    n->next = nullptr;
    QVBCIAgentBBAS = writeListAS;
    if (readListLastAS != nullptr)
        readListLastAS->next = n;
    else
        readListAS = n;
    readListLastAS = n;
    ++readListSizeAS;
    if (QVCollectorBBAS == nullptr) QVCollectorBBAS = readListAS;
}

void moveToWriteListAS() {
    // Producers read QVBCIAgentBBAS under the write lock alone, so it is taken here too.
    QVLockGuard write(qv_load_acquire(bufferWriteLockAS));
    QVLockGuard move(qv_load_acquire(bufferMoveLockAS));
    nioSettings_t* n = readListAS;
    if (n == nullptr) return;
    readListAS = n->next;
    if (readListAS == nullptr) readListLastAS = nullptr;
    --readListSizeAS;
    QVCollectorBBAS = readListAS;
    n->next = nullptr;
    if (writeListLastAS != nullptr)
        writeListLastAS->next = n;
    else
        writeListAS = n;
    writeListLastAS = n;
    ++writeListSizeAS;
    if (QVBCIAgentBBAS == nullptr) QVBCIAgentBBAS = writeListAS;
}

void movePartialToReadListAS() {
    QVLockGuard write(qv_load_acquire(bufferWriteLockAS));
    if (QVBCIAgentBBAS != nullptr && QVBCIAgentBBAS->use_len > 0) moveToReadListAS();
}

int sendDataToQVC() {
    apr_thread_mutex_t* sendLock = qv_load_acquire(asSendLock);
    if (sendLock == nullptr) return -1;
    for (;;) {
        int sentNow = 0;
        {
            QVLockGuard send(sendLock);
            nioSettings_t* node;
            {
                QVLockGuard move(qv_load_acquire(bufferMoveLockAS));
                node = QVCollectorBBAS;
            }
            if (node == nullptr) return 0;
            apr_socket_t* s = autoSensor.skt;
            if (s == nullptr) return -1;
            const int len = node->use_len - node->send_len;
            if (len > 0) {
                char err[256] = "";
                if (qvlb_send_n_bytes(s, node->buff + node->send_len, len, err, sizeof(err)) != 0) {
                    QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error = %s", err);
                    closeAutoSensorConnection();
                    qv_store(retryFlag, 1);
                    return -1;
                }
                node->send_len += len;
                sentNow = len;
            }
            node->use_len = 0;
            node->send_len = 0;
            moveToWriteListAS();
        }
        {
            QVLockGuard guard(qv_load_acquire(counterLock));
            totalSentToQVCBytes += sentNow;
        }
        if (!inStopFlush && checkAndStopThreadAS() != 0) return 0;
    }
}

void flushDataAS() {
    movePartialToReadListAS();
    for (int i = 0; i < 100; ++i) {
        if (sendDataToQVC() < 1) break;
    }
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
            countDiscard();
            return rc;
        }
        rc = dumpASData(data, len);
        if (rc != 0) return rc;
    } else if (rc != 0) {
        // Cut (-3: part of it and a newline are stored) or no pool: a second store cannot help.
        countDiscard();
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
    apr_thread_mutex_t* sendLock = qv_load_acquire(asSendLock);
    apr_thread_mutex_t* sktLock = qv_load_acquire(asSktLock);
    if (sendLock == nullptr || sktLock == nullptr) return;
    {
        QVLockGuard guard(sktLock);
        if (autoSensor.skt == nullptr) return;
        apr_socket_shutdown(autoSensor.skt, APR_SHUTDOWN_READWRITE);
    }
    QVLockGuard send(sendLock);
    QVLockGuard guard(sktLock);
    if (autoSensor.skt == nullptr) return;
    apr_socket_close(autoSensor.skt);
    autoSensor.skt = nullptr;
    if (asConnPool != nullptr) apr_pool_destroy(asConnPool);
    asConnPool = nullptr;
    if (qvApplication != nullptr) qv_store(qvApplication->qvcASSocket, nullptr);
}

void cleanAutoSensorThread() {
    closeAutoSensorConnection();
    const Endpoints e = asEndpoints();
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
    const long long procId = qv_load(pid) != 0 ? qv_load(pid) : static_cast<long long>(getpid());
    // The comma before testIdx is what the collector expects on this connection.
    int n = snprintf(
        b.controlAutoSensorReqMessage, sizeof(b.controlAutoSensorReqMessage),
        "auto_sensor_thread_hotspot_data_req:appName=%s;appID=%d;qvAppServerID=%d;qvAppServerHost=%s;"
        "tierName=%s;tierID=%d;QVCollectorIP=%s;QVCollectorPort=%d,testIdx=%d;pid=%lld;agentName=%s\n",
        nz(app->agentName), qv_load(b.appID), qv_load(b.serverID), nz(qv_load_acquire(b.appServerName)),
        nz(qv_load_acquire(b.tierName)), qv_load(b.tierID), nz(qv_load_acquire(b.qvcHost)),
        qv_load(b.qvcPort), qv_load(app->Server.TestRunIDValue), procId, nz(app->agentName));
    const int cap = static_cast<int>(sizeof(b.controlAutoSensorReqMessage));
    if (n < 0) n = 0;
    if (n >= cap) {
        n = cap - 1;
        b.controlAutoSensorReqMessage[n - 1] = '\n';
    }
    b.controlAutoSensorReqMessageLen = n;
}

bool send_autoSensor_con_req_msg_to_qvc() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    QVBCISetting_t& b = app->QVBCISetting;
    if (b.controlAutoSensorReqMessageLen <= 0) setControlAutoSensorReqMessage();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Send message to QVC - '%s'", b.controlAutoSensorReqMessage);
    apr_thread_mutex_t* sendLock = qv_load_acquire(asSendLock);
    if (sendLock == nullptr) return true;
    QVLockGuard send(sendLock);
    apr_socket_t* s = autoSensor.skt;
    char err[256] = "";
    if (s == nullptr || qvlb_send_n_bytes(s, b.controlAutoSensorReqMessage, b.controlAutoSensorReqMessageLen,
                                          err, sizeof(err)) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Unable to send the message.");
        return true;
    }
    return false;
}

bool startASNDCollectorCommunication() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    ASNioInit();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "AutoSensor Thread created\n");
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Creating socket for AutoSensor\n");
    closeAutoSensorConnection();
    Peer peer;
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
        const Endpoints e = asEndpoints();
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

void nio_data_dispatcher_reset_for_test() {
    stopNIO();
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    closeAutoSensorConnection();
    freeNodes(writeListAS);
    freeNodes(readListAS);
    writeListAS = writeListLastAS = readListAS = readListLastAS = nullptr;
    QVBCIAgentBBAS = QVCollectorBBAS = nullptr;
    writeListSizeAS = readListSizeAS = 0;
    maxBuffersAS = dataBufferSizeAS = curBuffers = 0;
    if (autoSensor_pool != nullptr) apr_pool_destroy(autoSensor_pool);
    autoSensor_pool = nullptr;
    qv_store(bufferWriteLockAS, nullptr);
    qv_store(bufferMoveLockAS, nullptr);
    qv_store(counterLock, nullptr);
    qv_store(asSendLock, nullptr);
    qv_store(asSktLock, nullptr);
    memset(&autoSensor, 0, sizeof(autoSensor));
    autoSensor_err_buf[0] = '\0';
    qv_store(retryFlag, 0);
    qv_store(asThreadStop, 0);
    totalDumpBytes = totalSentToQVCBytes = msgCount = 0;
}
