// Send-buffer pool and connection helpers shared by the data and auto-sensor connections.
#include "collector/QVSendBufferPool.h"

#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "collector/QVCServerConfig.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

namespace {

const char* const kModule = "CONTROL_THREAD";

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

const char* nz(const char* s) {
    return s != nullptr ? s : "";
}

void freeNodes(const QVSendBufferPool& p, nioSettings_t* n) {
    while (n != nullptr) {
        nioSettings_t* next = n->next;
        qvlb_free(n->buff, p.bufferTag, -1);
        qvlb_free(n, p.nodeTag, -1);
        n = next;
    }
}

}  // namespace

void qvCountDiscard() {
    QVProxyInstance_t* app = qvApplication;
    if (app != nullptr) __atomic_fetch_add(&app->QVSys.discardCount, 1, __ATOMIC_RELAXED);
}

int qvPoolStore(QVSendBufferPool& p, const char* data, int len, int* wsize, int* rsize) {
    apr_thread_mutex_t* lock = qv_load_acquire(p.writeLock);
    if (lock == nullptr) {
        p.countDiscard();
        return -99;
    }
    QVLockGuard guard(lock);
    const int rc = qvPoolAdd(p, data, len);
    *wsize = p.writeCount;
    *rsize = p.readCount;
    return rc;
}

int qvPoolAdd(QVSendBufferPool& p, const char* data, int len) {
    if (data == nullptr || len <= 0) return 0;
    nioSettings_t* cur = p.agentBB;
    if (cur == nullptr) {
        p.countDiscard();
        return p.nodes > 0 ? -2 : -99;
    }
    const int space = cur->buff_size - cur->use_len;
    if (len <= space) {
        memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(len));
        cur->use_len += len;
        if (cur->use_len == cur->buff_size) qvPoolMoveToRead(p);
        return 0;
    }
    // Only buffers behind the current one are known to be empty; the last free buffer never
    // takes a spill, so no record is half-written into a buffer nobody can follow.
    if (cur->next == nullptr) {
        p.countDiscard();
        return -1;
    }
    memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(space));
    cur->use_len = cur->buff_size;
    qvPoolMoveToRead(p);
    nioSettings_t* nb = p.agentBB;  // cur->next: present, the caller holds the write lock
    const int rest = len - space;
    if (rest > nb->buff_size - nb->use_len) {
        p.countDiscard();
        // The stream is line-oriented: a newline ends the cut record.
        nb->buff[nb->use_len++] = '\n';
        if (nb->use_len == nb->buff_size) qvPoolMoveToRead(p);
        return -3;
    }
    memcpy(nb->buff + nb->use_len, data + space, static_cast<size_t>(rest));
    nb->use_len += rest;
    if (nb->use_len == nb->buff_size) qvPoolMoveToRead(p);
    return 0;
}

namespace {

// Appends n to the FIFO head..last.
void append(nioSettings_t*& head, nioSettings_t*& last, nioSettings_t* n) {
    n->next = nullptr;
    if (last != nullptr)
        last->next = n;
    else
        head = n;
    last = n;
}

// Moves the head of the free list to the send list (toRead) or back. The cursors are the list
// heads, so they follow the lists. Caller holds moveLock.
void moveHead(QVSendBufferPool& p, bool toRead) {
    nioSettings_t*& from = toRead ? p.writeHead : p.readHead;
    nioSettings_t*& fromLast = toRead ? p.writeTail : p.readTail;
    nioSettings_t*& to = toRead ? p.readHead : p.writeHead;
    nioSettings_t*& toLast = toRead ? p.readTail : p.writeTail;
    nioSettings_t* n = from;
    if (n == nullptr) return;
    from = n->next;
    if (from == nullptr) fromLast = nullptr;
    append(to, toLast, n);
    p.writeCount += toRead ? -1 : 1;
    p.readCount += toRead ? 1 : -1;
    p.agentBB = p.writeHead;
    p.collectorBB = p.readHead;
}

}  // namespace

void qvPoolMoveToRead(QVSendBufferPool& p) {
    QVLockGuard move(qv_load_acquire(p.moveLock));
    moveHead(p, true);
}

void qvPoolMoveToWrite(QVSendBufferPool& p) {
    // Producers read agentBB (set here when it was null) holding the write lock alone, so this
    // move takes it too; it is held for a few pointer updates only.
    QVLockGuard write(qv_load_acquire(p.writeLock));
    QVLockGuard move(qv_load_acquire(p.moveLock));
    moveHead(p, false);
}

void qvPoolMovePartial(QVSendBufferPool& p) {
    QVLockGuard write(qv_load_acquire(p.writeLock));
    if (p.agentBB != nullptr && p.agentBB->use_len > 0) qvPoolMoveToRead(p);
}

nioSettings_t* qvPoolHead(QVSendBufferPool& p) {
    QVLockGuard move(qv_load_acquire(p.moveLock));
    return p.collectorBB;
}

int qvPoolSendHead(QVSendBufferPool& p, nioSettings_t* node, apr_socket_t* s, char* err, size_t errLen,
                   int* attempted, int* sent) {
    const int len = node->use_len - node->send_len;
    *attempted = len > 0 ? len : 0;
    *sent = 0;
    if (len > 0) {
        const int rc =
            qvlb_send_n_bytes(s, node->buff + node->send_len, len, err, static_cast<int>(errLen), sent);
        // What went out is never sent again: the next connection resumes after it.
        node->send_len += *sent;
        if (rc != 0) return -1;
    }
    node->use_len = 0;
    node->send_len = 0;
    qvPoolMoveToWrite(p);
    return 0;
}

void qvPoolFlush(QVSendBufferPool& p, int (*send)()) {
    qvPoolMovePartial(p);
    for (int i = 0; i < 100; ++i) {
        if (send() < 1) break;
    }
}

bool qvPoolReady(QVSendBufferPool& p, int* existing) {
    QVLockGuard guard(qv_load_acquire(p.writeLock));
    *existing = p.nodes;
    return p.growsWhenDrained ? p.writeHead != nullptr : p.nodes > 0;
}

int qvPoolAddNodes(QVSendBufferPool& p, int count, int size, int maxCount, int expected) {
    if (count < 1 || size <= 0) return 1;
    // Built privately, then published under the locks: producers never see a half-made list.
    nioSettings_t* head = nullptr;
    nioSettings_t* last = nullptr;
    for (int i = 0; i < count; ++i) {
        auto* node = static_cast<nioSettings_t*>(qvlb_calloc(sizeof(nioSettings_t), p.nodeTag, i));
        char* buf = node != nullptr
                        ? static_cast<char*>(qvlb_malloc(static_cast<size_t>(size), p.bufferTag, i))
                        : nullptr;
        if (buf == nullptr) {
            qvlb_free(node, p.nodeTag, i);
            freeNodes(p, head);
            return 1;
        }
        node->buff = buf;
        node->buff_size = size;
        append(head, last, node);
    }
    QVLockGuard write(qv_load_acquire(p.writeLock));
    QVLockGuard move(qv_load_acquire(p.moveLock));
    const bool ready = p.growsWhenDrained ? p.writeHead != nullptr : p.nodes > 0;
    if (ready || p.nodes != expected) {  // another caller won the race
        freeNodes(p, head);
        return ready ? 2 : 1;
    }
    // Not ready means the free list is empty: the new nodes are all of it.
    p.writeHead = head;
    p.writeTail = last;
    p.writeCount = count;
    p.agentBB = p.writeHead;
    p.nodes += count;
    p.maxNodes = maxCount;
    p.bufferSize = size;
    return 0;
}

void qvPoolFree(QVSendBufferPool& p) {
    freeNodes(p, p.writeHead);
    freeNodes(p, p.readHead);
    p.writeHead = p.writeTail = p.readHead = p.readTail = nullptr;
    p.agentBB = p.collectorBB = nullptr;
    p.writeCount = p.readCount = 0;
    p.maxNodes = p.bufferSize = p.nodes = 0;
    qv_store(p.writeLock, nullptr);
    qv_store(p.moveLock, nullptr);
}

int qvPoolEnsureLocks(std::recursive_mutex& ctl, apr_pool_t** pool, apr_thread_mutex_t** const* locks,
                      int n) {
    // Fast path without ctl: a connection's own thread comes here while the control side may hold
    // ctl to join it. Once made, the locks stay until the reset.
    bool all = true;
    for (int i = 0; i < n && all; ++i) all = qv_load_acquire(*locks[i]) != nullptr;
    if (all) return 0;
    std::lock_guard<std::recursive_mutex> guard(ctl);
    qvlb_apr_init();
    if (*pool == nullptr && apr_pool_create(pool, nullptr) != APR_SUCCESS) {
        *pool = nullptr;
        return -1;
    }
    for (int i = 0; i < n; ++i) {
        if (qvlb_create_nested_mutex(locks[i], *pool) != APR_SUCCESS) return -1;
    }
    return 1;
}

QVEndpoints qvSocketEndpoints(const socketInfo_t& c, apr_thread_mutex_t* sktLock) {
    QVEndpoints e{};
    QVLockGuard guard(sktLock);
    memcpy(e.src, c.sourceIp, sizeof(e.src));
    memcpy(e.dst, c.dstIp, sizeof(e.dst));
    e.src[sizeof(e.src) - 1] = '\0';
    e.dst[sizeof(e.dst) - 1] = '\0';
    e.srcPort = c.srcPort;
    e.dstPort = c.dstPort;
    return e;
}

void qvSocketSet(socketInfo_t& c, apr_socket_t* s) {
    memset(c.sourceIp, 0, sizeof(c.sourceIp));
    memset(c.dstIp, 0, sizeof(c.dstIp));
    get_src_addr(s, c.sourceIp, sizeof(c.sourceIp), &c.srcPort);
    get_dst_addr(s, c.dstIp, sizeof(c.dstIp), &c.dstPort);
    c.skt = s;
}

void qvSocketClose(socketInfo_t& c, apr_thread_mutex_t* sendLock, apr_thread_mutex_t* sktLock,
                   void (*onClosed)(socketInfo_t& c)) {
    if (sendLock == nullptr || sktLock == nullptr) return;
    {
        QVLockGuard guard(sktLock);
        if (c.skt == nullptr) return;
        apr_socket_shutdown(c.skt, APR_SHUTDOWN_READWRITE);
    }
    QVLockGuard send(sendLock);
    QVLockGuard guard(sktLock);
    if (c.skt == nullptr) return;
    apr_socket_close(c.skt);
    c.skt = nullptr;
    onClosed(c);
}

int qvBuildConnReqLine(char* buf, int cap, const char* request, char portSep) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || buf == nullptr || cap < 2) return 0;
    QVBCISetting_t& b = app->QVBCISetting;
    const long long procId = qv_load(pid) != 0 ? qv_load(pid) : static_cast<long long>(getpid());
    int n = snprintf(buf, static_cast<size_t>(cap),
                     "%s:appName=%s;appID=%d;qvAppServerID=%d;qvAppServerHost=%s;tierName=%s;tierID=%d;"
                     "QVCollectorIP=%s;QVCollectorPort=%d%ctestIdx=%d;pid=%lld;agentName=%s\n",
                     request, nz(app->agentName), qv_load(b.appID), qv_load(b.serverID),
                     nz(qv_load_acquire(b.appServerName)), nz(qv_load_acquire(b.tierName)), qv_load(b.tierID),
                     nz(qv_load_acquire(b.qvcHost)), qv_load(b.qvcPort), portSep,
                     qv_load(app->Server.TestRunIDValue), procId, nz(app->agentName));
    if (n < 0) n = 0;
    if (n >= cap) {
        // Cut, but still one line.
        n = cap - 1;
        buf[n - 1] = '\n';
    }
    return n;
}

int qvSendReqLine(socketInfo_t& c, apr_thread_mutex_t* sendLock, const char* line, int len,
                  bool extraNewline) {
    if (sendLock == nullptr) return -1;
    QVLockGuard send(sendLock);
    apr_socket_t* s = c.skt;
    char err[256] = "";
    if (s == nullptr || qvlb_send_n_bytes(s, line, len, err, sizeof(err)) != 0 ||
        (extraNewline && qvlb_send_n_bytes(s, "\n", 1, err, sizeof(err)) != 0))
        return 1;
    return 0;
}

bool qvIsProxyApplication() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->QVSys.proxyMode) == 1 && qv_load(QVProxy.proxyServerFlag) == 0;
}

bool qvChoosePeer(QVPeer* p, bool master, bool requireActive, QVPeerRoute* route) {
    QVProxyInstance_t* app = qvApplication;
    p->host[0] = '\0';
    p->port = 0;
    p->unixPath = nullptr;
    *route = QVPeerRoute::None;
    if (app == nullptr) return false;
    if (qvIsProxyApplication()) {
        *route = QVPeerRoute::Proxy;
        const char* ip = qv_load_acquire(app->QVSys.proxyIP);
        snprintf(p->host, sizeof(p->host), "%s", ip != nullptr ? ip : "127.0.0.1");
        p->port = qv_load(app->QVSys.proxyPort);
        if (qv_load(app->QVSys.proxyConType) != 0) p->unixPath = qv_load_acquire(app->QVSys.socketPath);
        return true;
    }
    if (qv_load(app->Server.isClusterMode) != 0) {
        *route = QVPeerRoute::Cluster;
        const bool ok = copy_qvc_server_addr(master ? 0 : 1, p->host, sizeof(p->host), &p->port) == 0;
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Active QVC Server info [Host | Port] = [%s |%d]",
                    p->host, p->port);
        return ok;
    }
    *route = QVPeerRoute::Collector;
    return (!requireActive || get_active_qvc() != nullptr) &&
           copy_qvc_server_addr(-1, p->host, sizeof(p->host), &p->port) == 0;
}
