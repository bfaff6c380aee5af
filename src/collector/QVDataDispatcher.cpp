// Data dispatcher: the send-buffer pool, the producers' entry (dumpData) and the data thread
// that owns the data connection.
#include "collector/QVDataDispatcher.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include <unistd.h>

#include "collector/QVCServerConfig.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

nioSettings_t* writeList = nullptr;
nioSettings_t* writeListLast = nullptr;
int writeListSize = 0;
nioSettings_t* readList = nullptr;
nioSettings_t* readListLast = nullptr;
int readListSize = 0;
nioSettings_t* QVBCIAgentBB = nullptr;
nioSettings_t* QVCollectorBB = nullptr;
int maxBuffers = 0;
int dataBufferSize = 0;
apr_thread_mutex_t* bufferWriteLock = nullptr;
apr_thread_mutex_t* bufferMoveLock = nullptr;
apr_thread_mutex_t* read_raw_file = nullptr;
socketInfo_t dataSkt;
apr_thread_t* data_thread_id = nullptr;
apr_pool_t* data_pool = nullptr;
int dumpHeartBeat = 0;
int dataConnRetryIntervalMs = 60000;
QVDispatcherHooks qvDispatcherHooks = {};

namespace {

const char* const kModule = "CONTROL_THREAD";
const long long kLoopSleepMs = 100;

// Serialises every write to the data socket and its close, so records from the buffered
// sends and from sendBufferDataCon never interleave and no send uses a closed descriptor.
// Also makes the sender side (processData) single-consumer whoever calls it.
apr_thread_mutex_t* dataSendLock = nullptr;
// Guards dataSkt. The socket pointer changes only with both locks held (send lock first), so
// holding either one is enough to read it.
apr_thread_mutex_t* dataSktLock = nullptr;

// Nodes made by buff_list_init (under bufferWriteLock): tells "no free buffer now" (-2) from
// "never initialised" (-99) while every node sits in the send list.
int poolNodes = 0;
// Set when the data thread is to end; the thread polls it with qv_load.
int dataThreadStop = 0;
// Heartbeat countdown of handleHeartBeat (data thread only).
int heartBeatCountdown = 0;
// Set (under dataSendLock) while processData drains the buffers because the control
// connection went away; keeps that drain from recursing into itself.
bool inRetryFlush = false;

// Guards data_pool creation and data_thread_id between the control side and shutdown.
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

void countDiscard() {
    QVProxyInstance_t* app = qvApplication;
    if (app != nullptr) __atomic_fetch_add(&app->QVSys.discardCount, 1, __ATOMIC_RELAXED);
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

// True in an application process that forwards its events to a proxy.
bool isProxyApplication() {
    return qv_load(qvApplication->QVSys.proxyMode) == 1 && qv_load(QVProxy.proxyServerFlag) == 0;
}

// Creates data_pool and the mutexes if absent. Returns 0, or 1 when APR refused.
int ensurePoolAndLocks() {
    // Fast path without threadCtlMutex: the data thread comes here (buff_list_init) while the
    // control side may hold that mutex to join it. Once made, the locks stay until the reset.
    if (qv_load_acquire(bufferWriteLock) != nullptr && qv_load_acquire(bufferMoveLock) != nullptr &&
        qv_load_acquire(read_raw_file) != nullptr && qv_load_acquire(dataSendLock) != nullptr &&
        qv_load_acquire(dataSktLock) != nullptr)
        return 0;
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    qvlb_apr_init();
    if (data_pool == nullptr && apr_pool_create(&data_pool, nullptr) != APR_SUCCESS) {
        data_pool = nullptr;
        return 1;
    }
    apr_thread_mutex_t** locks[] = {&bufferWriteLock, &bufferMoveLock, &read_raw_file, &dataSendLock,
                                    &dataSktLock};
    for (apr_thread_mutex_t** m : locks) {
        if (qvlb_create_nested_mutex(m, data_pool) != APR_SUCCESS) return 1;
    }
    return 0;
}

struct Endpoints {
    char src[16];
    char dst[16];
    int srcPort;
    int dstPort;
};

Endpoints dataEndpoints() {
    Endpoints e{};
    QVLockGuard guard(qv_load_acquire(dataSktLock));
    memcpy(e.src, dataSkt.sourceIp, sizeof(e.src));
    memcpy(e.dst, dataSkt.dstIp, sizeof(e.dst));
    e.src[sizeof(e.src) - 1] = '\0';
    e.dst[sizeof(e.dst) - 1] = '\0';
    e.srcPort = dataSkt.srcPort;
    e.dstPort = dataSkt.dstPort;
    return e;
}

void freeNodes(nioSettings_t* n) {
    while (n != nullptr) {
        nioSettings_t* next = n->next;
        qvlb_free(n->buff, "data buffer", -1);
        qvlb_free(n, "data buffer node", -1);
        n = next;
    }
}

struct Peer {
    char host[1024];
    int port;
    const char* unixPath;
};

// Where the data connection goes: the proxy for a proxy-mode application, the master or the
// second entry in cluster mode, else the active collector.
bool choosePeer(Peer* p) {
    QVProxyInstance_t* app = qvApplication;
    p->host[0] = '\0';
    p->port = 0;
    p->unixPath = nullptr;
    if (isProxyApplication()) {
        // Start-up settings: fixed before the control thread exists.
        snprintf(p->host, sizeof(p->host), "%s", app->QVSys.proxyIP ? app->QVSys.proxyIP : "127.0.0.1");
        p->port = qv_load(app->QVSys.proxyPort);
        if (qv_load(app->QVSys.proxyConType) != 0) p->unixPath = app->QVSys.socketPath;
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
    return ok;
}

// Publishes a new connection in dataSkt and the instance record.
void setDataSocket(apr_socket_t* s) {
    QVLockGuard send(qv_load_acquire(dataSendLock));
    QVLockGuard guard(qv_load_acquire(dataSktLock));
    memset(dataSkt.sourceIp, 0, sizeof(dataSkt.sourceIp));
    memset(dataSkt.dstIp, 0, sizeof(dataSkt.dstIp));
    get_src_addr(s, dataSkt.sourceIp, sizeof(dataSkt.sourceIp), &dataSkt.srcPort);
    get_dst_addr(s, dataSkt.dstIp, sizeof(dataSkt.dstIp), &dataSkt.dstPort);
    dataSkt.skt = s;
    qv_store(qvApplication->qvcDataSocket, s);
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
        if (rc == -1 || qv_load(app->QVSys.dataConnState) == 0) return LoopEnd::Reconnect;
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
    {
        QVLockGuard guard(qv_load_acquire(bufferWriteLock));
        if (poolNodes > 0) return 0;
    }
    const int count = qv_load(app->QVSys.dataBuffMaxCount);
    const int size = qv_load(app->QVSys.bciDataBufferMaxSize);
    if (count <= 0 || size <= 0) return 1;

    // Built privately, then published under the locks: producers never see a half-made list.
    nioSettings_t* head = nullptr;
    nioSettings_t* last = nullptr;
    for (int i = 0; i < count; ++i) {
        auto* node = static_cast<nioSettings_t*>(qvlb_calloc(sizeof(nioSettings_t), "data buffer node", i));
        char* buf = node != nullptr
                        ? static_cast<char*>(qvlb_malloc(static_cast<size_t>(size), "data buffer", i))
                        : nullptr;
        if (buf == nullptr) {
            qvlb_free(node, "data buffer node", i);
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

    QVLockGuard write(qv_load_acquire(bufferWriteLock));
    QVLockGuard move(qv_load_acquire(bufferMoveLock));
    if (poolNodes > 0) {  // another caller won the race
        freeNodes(head);
        return 0;
    }
    writeList = head;
    writeListLast = last;
    writeListSize = count;
    QVBCIAgentBB = writeList;
    maxBuffers = count;
    dataBufferSize = size;
    poolNodes = count;
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method exit");
    return 0;
}

int dumpData(const char* data, int len) {
    const int level = ctlLevel();
    QV_TRACE_IF(level == 4, kModule, "Info", "Method called");
    if (data == nullptr || len <= 0) {
        QV_TRACE_IF(level == 4, kModule, "Info", "data is null or zero length");
        return 0;
    }
    int rc;
    int wsize = 0;
    int rsize = 0;
    apr_thread_mutex_t* lock = qv_load_acquire(bufferWriteLock);
    if (lock == nullptr) {
        countDiscard();
        rc = -99;
    } else {
        QVLockGuard guard(lock);
        rc = addDataInSendBuffer(data, len);
        wsize = writeListSize;
        rsize = readListSize;
    }
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
    if (data == nullptr || bytesToWrite <= 0) return 0;
    nioSettings_t* cur = QVBCIAgentBB;
    if (cur == nullptr) {
        countDiscard();
        return poolNodes > 0 ? -2 : -99;
    }
    const int space = cur->buff_size - cur->use_len;
    if (bytesToWrite <= space) {
        memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(bytesToWrite));
        cur->use_len += bytesToWrite;
        if (cur->use_len == cur->buff_size) moveToReadList();
        return 0;
    }
    // Only buffers behind the current one are known to be empty; the last free buffer never
    // takes a spill, so no record is half-written into a buffer nobody can follow.
    if (cur->next == nullptr) {
        countDiscard();
        return -1;
    }
    memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(space));
    cur->use_len = cur->buff_size;
    moveToReadList();
    nioSettings_t* nb = QVBCIAgentBB;  // cur->next: present, we hold bufferWriteLock
    const int rest = bytesToWrite - space;
    if (rest > nb->buff_size - nb->use_len) {
        countDiscard();
        // The stream is line-oriented: a newline ends the cut record.
        nb->buff[nb->use_len++] = '\n';
        if (nb->use_len == nb->buff_size) moveToReadList();
        return -3;
    }
    memcpy(nb->buff + nb->use_len, data + space, static_cast<size_t>(rest));
    nb->use_len += rest;
    if (nb->use_len == nb->buff_size) moveToReadList();
    return 0;
}

void moveToReadList() {
    QVLockGuard move(qv_load_acquire(bufferMoveLock));
    nioSettings_t* n = writeList;
    if (n == nullptr) return;
    writeList = n->next;
    if (writeList == nullptr) writeListLast = nullptr;
    --writeListSize;
    n->next = nullptr;
    QVBCIAgentBB = writeList;
    if (readListLast != nullptr)
        readListLast->next = n;
    else
        readList = n;
    readListLast = n;
    ++readListSize;
    if (QVCollectorBB == nullptr) QVCollectorBB = readList;
}

void moveToWriteList() {
    // Producers read QVBCIAgentBB (set here when it was null) holding bufferWriteLock alone,
    // so this move takes it too; it is held for a few pointer updates only.
    QVLockGuard write(qv_load_acquire(bufferWriteLock));
    QVLockGuard move(qv_load_acquire(bufferMoveLock));
    nioSettings_t* n = readList;
    if (n == nullptr) return;
    readList = n->next;
    if (readList == nullptr) readListLast = nullptr;
    --readListSize;
    QVCollectorBB = readList;
    n->next = nullptr;
    if (writeListLast != nullptr)
        writeListLast->next = n;
    else
        writeList = n;
    writeListLast = n;
    ++writeListSize;
    if (QVBCIAgentBB == nullptr) QVBCIAgentBB = writeList;
}

void movePartialToReadList() {
    QVLockGuard write(qv_load_acquire(bufferWriteLock));
    if (QVBCIAgentBB != nullptr && QVBCIAgentBB->use_len > 0) moveToReadList();
}

int processData() {
    apr_thread_mutex_t* sendLock = qv_load_acquire(dataSendLock);
    if (sendLock == nullptr) return 0;
    QVLockGuard send(sendLock);
    QVProxyInstance_t* app = qvApplication;
    for (;;) {
        nioSettings_t* node;
        {
            QVLockGuard move(qv_load_acquire(bufferMoveLock));
            node = QVCollectorBB;
        }
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
        const int len = node->use_len - node->send_len;
        if (len > 0) {
            char err[256] = "";
            if (qvlb_send_n_bytes(s, node->buff + node->send_len, len, err, sizeof(err)) != 0) {
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error = %s, dataLen = %d", err, len);
                return -1;
            }
            node->send_len += len;
        }
        node->use_len = 0;
        node->send_len = 0;
        moveToWriteList();
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
    movePartialToReadList();
    for (int i = 0; i < 100; ++i) {
        if (processData() < 1) break;
    }
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
    const long long procId = pid != 0 ? pid : static_cast<long long>(getpid());
    int n = snprintf(b.controlDataReqMessage, sizeof(b.controlDataReqMessage),
                     "qv_data_msg_req:appName=%s;appID=%d;qvAppServerID=%d;qvAppServerHost=%s;tierName=%s;"
                     "tierID=%d;QVCollectorIP=%s;QVCollectorPort=%d;testIdx=%d;pid=%lld;agentName=%s\n",
                     nz(app->agentName), qv_load(b.appID), qv_load(b.serverID), nz(b.appServerName),
                     nz(b.tierName), qv_load(b.tierID), nz(b.qvcHost), qv_load(b.qvcPort),
                     qv_load(app->Server.TestRunIDValue), procId, nz(app->agentName));
    const int cap = static_cast<int>(sizeof(b.controlDataReqMessage));
    if (n < 0) n = 0;
    if (n >= cap) {
        // Cut, but still one line.
        n = cap - 1;
        b.controlDataReqMessage[n - 1] = '\n';
    }
    b.controlDataReqMessageLen = n;
}

bool send_data_con_req_msg_to_qvc() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    QVBCISetting_t& b = app->QVBCISetting;
    if (b.controlDataReqMessageLen <= 0) setControlDataReqMessage();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Sending message to QVC  - '%s'", b.controlDataReqMessage);
    apr_thread_mutex_t* sendLock = qv_load_acquire(dataSendLock);
    if (sendLock == nullptr) return true;
    QVLockGuard send(sendLock);
    apr_socket_t* s = dataSkt.skt;
    char err[256] = "";
    if (s == nullptr ||
        qvlb_send_n_bytes(s, b.controlDataReqMessage, b.controlDataReqMessageLen, err, sizeof(err)) == -2 ||
        qvlb_send_n_bytes(s, "\n", 1, err, sizeof(err)) == -2) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Unable to send control req message. Going to closing connection");
        return true;
    }
    return false;
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
    qvlb_send_n_bytes(dataSkt.skt, buf, len, err, sizeof(err));
}

void close_data_connection() {
    apr_thread_mutex_t* sendLock = qv_load_acquire(dataSendLock);
    apr_thread_mutex_t* sktLock = qv_load_acquire(dataSktLock);
    if (sendLock == nullptr || sktLock == nullptr) return;
    {
        // A send blocked on another thread holds the send lock: shut the socket down first so
        // that send fails and releases it.
        QVLockGuard guard(sktLock);
        if (dataSkt.skt == nullptr) return;
        apr_socket_shutdown(dataSkt.skt, APR_SHUTDOWN_READWRITE);
    }
    QVLockGuard send(sendLock);
    QVLockGuard guard(sktLock);
    if (dataSkt.skt == nullptr) return;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to close Data connection of %s:%d with %s:%d.\n",
                dataSkt.sourceIp, dataSkt.srcPort, dataSkt.dstIp, dataSkt.dstPort);
    apr_socket_close(dataSkt.skt);
    dataSkt.skt = nullptr;
    if (qvApplication != nullptr) qv_store(qvApplication->qvcDataSocket, nullptr);
}

void clean_data_thread() {
    close_data_connection();
    const Endpoints e = dataEndpoints();
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
        Peer peer;
        char err[1024] = "no collector configured";
        apr_socket_t* s = nullptr;
        if (choosePeer(&peer))
            s = qvlb_create_client_con(peer.host, peer.port, err, sizeof(err), connPool, peer.unixPath);
        if (s != nullptr) {
            setDataSocket(s);
            const Endpoints e = dataEndpoints();
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                        "[QV DR Feature]; Data connection of %s:%d created with %s:%d.\n", e.src, e.srcPort,
                        e.dst, e.dstPort);
            apr_socket_opt_set(s, APR_SO_NONBLOCK, 0);
            apr_socket_timeout_set(s, -1);
            if (buff_list_init() != 0) {
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error in buff_list_init");
                clean_data_thread();
                break;
            }
            if (send_data_con_req_msg_to_qvc()) {
                clean_data_thread();
                break;
            }
            qv_store(app->QVSys.dataConnState, 1);
            if (!isProxyApplication()) {
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

void qv_data_dispatcher_reset_for_test() {
    qv_data_thread_stop();
    std::lock_guard<std::recursive_mutex> guard(threadCtlMutex());
    close_data_connection();
    freeNodes(writeList);
    freeNodes(readList);
    writeList = writeListLast = readList = readListLast = nullptr;
    QVBCIAgentBB = QVCollectorBB = nullptr;
    writeListSize = readListSize = 0;
    maxBuffers = dataBufferSize = 0;
    poolNodes = 0;
    if (data_pool != nullptr) apr_pool_destroy(data_pool);
    data_pool = nullptr;
    qv_store(bufferWriteLock, nullptr);
    qv_store(bufferMoveLock, nullptr);
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
