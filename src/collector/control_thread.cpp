// The control thread: connection to the collector (primary, backups, proxy, cluster), the
// handshake and its reply, the command loop with heartbeats and liveness, and reconnection.
#include "collector/control_thread.h"

#include <apr_poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "collector/NIODataDispatcher.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVSendBufferPool.h"
#include "collector/Server.h"
#include "core/QVBCISettings.h"
#include "core/QVConfig.h"
#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"

QV_INSTANCE_STATE_DEFINE(QVControlThreadState, qvControlThreadState)

#define ctrlConn (qvControlThreadState().conn)
#define ctrlSendLock (qvControlThreadState().sendLock)
#define ctrlSktLock (qvControlThreadState().sktLock)
#define ctrlConnPool (qvControlThreadState().connPool)
#define peerHost (qvControlThreadState().peerHost)
#define peerPort (qvControlThreadState().peerPort)
#define discardingLongLine (qvControlThreadState().discardingLongLine)
#define idleRounds (qvControlThreadState().idleRounds)
#define connectToMaster (qvControlThreadState().connectToMaster)
#define lastInvalidReply (qvControlThreadState().lastInvalidReply)

long long controlPollTimeoutMs = 10000;
long long controlReconnectPauseMs = 1000;

namespace {

const char* const kModule = "CONTROL_THREAD";
const char* const kReplyPrefix = "qv_ctrl_msg_rep:result=";
const char* const kReplyNotRunning = "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;";
const char* const kReplyRunning = "qv_ctrl_msg_rep:result=Ok;status=RUNNING";
const char* const kReplyOk = "qv_ctrl_msg_rep:result=Ok;";
constexpr long long kPollSliceMs = 100;

char handshakeHost[257];
std::once_flag handshakeHostOnce;

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

const char* nz(const char* s) {
    return s != nullptr ? s : "";
}

bool stopping() {
    return qv_load(qvAgentStopping) != 0;
}

void ensureLocks() {
    if (qv_load_acquire(ctrlSendLock) == nullptr) qvlb_create_nested_mutex(&ctrlSendLock, nullptr);
    if (qv_load_acquire(ctrlSktLock) == nullptr) qvlb_create_nested_mutex(&ctrlSktLock, nullptr);
}

// True in an application process that reports to a proxy instead of the collector.
bool isProxyApplication() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->QVSys.proxyMode) == 1 && qv_load(QVProxy.proxyServerFlag) == 0;
}

bool isClusterMode() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->Server.isClusterMode) != 0;
}

void sleepMs(long long ms) {
    qvlb_sleep_ms_interruptible(ms, &qvAgentStopping);
}

void sleepRetryInterval() {
    sleepMs(static_cast<long long>(retry_policy.time_interval / 1000));
}

// Copies a text field written byte by byte (keyword handlers, qvStoreText).
void loadText(const char* field, size_t cap, char* out, size_t outCap) {
    size_t i = 0;
    for (; i < cap && i + 1 < outCap; ++i) {
        out[i] = qv_load(field[i]);
        if (out[i] == '\0') return;
    }
    out[i] = '\0';
}

// One socket in an APR poll set, in its own pool.
class CtrlPoll {
  public:
    ~CtrlPoll() {
        if (pool_ != nullptr) apr_pool_destroy(pool_);
    }
    // 0, or the APR error (text in err).
    apr_status_t open(apr_socket_t* s, char* err, size_t errLen) {
        apr_status_t rv = apr_pool_create(&pool_, nullptr);
        if (rv == APR_SUCCESS) rv = apr_pollset_create(&set_, 1, pool_, 0);
        if (rv != APR_SUCCESS) {
            apr_strerror(rv, err, errLen);
            return rv;
        }
        apr_pollfd_t pfd;
        memset(&pfd, 0, sizeof(pfd));
        pfd.p = pool_;
        pfd.desc_type = APR_POLL_SOCKET;
        pfd.reqevents = APR_POLLIN;
        pfd.desc.s = s;
        rv = apr_pollset_add(set_, &pfd);
        if (rv != APR_SUCCESS) {
            apr_strerror(rv, err, errLen);
            addFailed_ = true;
        }
        return rv;
    }
    bool addFailed() const { return addFailed_; }
    // Waits up to ms in slices so an agent stop is seen promptly. Returns the number of signalled
    // descriptors (> 0), 0 on a timeout or a stop, -1 on an error (text in err).
    int wait(long long ms, char* err, size_t errLen) {
        while (ms > 0 && !stopping()) {
            const long long slice = ms < kPollSliceMs ? ms : kPollSliceMs;
            apr_int32_t num = 0;
            const apr_pollfd_t* out = nullptr;
            const apr_status_t rv = apr_pollset_poll(set_, slice * 1000, &num, &out);
            if (rv == APR_SUCCESS && num > 0) return num;
            if (rv != APR_SUCCESS && !APR_STATUS_IS_TIMEUP(rv) && !APR_STATUS_IS_EINTR(rv)) {
                apr_strerror(rv, err, errLen);
                return -1;
            }
            ms -= slice;
        }
        return 0;
    }

  private:
    apr_pool_t* pool_ = nullptr;
    apr_pollset_t* set_ = nullptr;
    bool addFailed_ = false;
};

// Where the next attempt goes: the proxy for a proxy-mode application, the cluster node (entry
// 1) or the master (entry 0) in cluster mode, else the active collector of the list.
bool chooseControlPeer(QVPeer* p) {
    QVPeerRoute route;
    const bool ok = qvChoosePeer(p, connectToMaster, true, &route);
    if (route == QVPeerRoute::Collector) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Active QVC Server info [Host | Port] = [%s |%d]",
                    p->host, p->port);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "[QV DR FEATURE]Active QVC Server info [Host | Port] = [%s |%d]", p->host, p->port);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to connect with QVC [host|port] = [%s|%d]",
                    p->host, p->port);
    }
    return ok;
}

// Publishes a new connection (socket, its pool, endpoints, peer).
void setControlSocket(apr_socket_t* s, apr_pool_t* pool, const QVPeer& peer) {
    ensureLocks();
    QVLockGuard send(ctrlSendLock);
    QVLockGuard guard(ctrlSktLock);
    memset(ctrlConn.sourceIp, 0, sizeof(ctrlConn.sourceIp));
    memset(ctrlConn.dstIp, 0, sizeof(ctrlConn.dstIp));
    get_src_addr(s, ctrlConn.sourceIp, sizeof(ctrlConn.sourceIp), &ctrlConn.srcPort);
    get_dst_addr(s, ctrlConn.dstIp, sizeof(ctrlConn.dstIp), &ctrlConn.dstPort);
    ctrlConn.skt = s;
    ctrlConnPool = pool;
    snprintf(peerHost, sizeof(peerHost), "%s", peer.host);
    peerPort = peer.port;
    if (qvApplication != nullptr) qv_store(qvApplication->qvcCtrlSocket, s);
}

// Reads one reply, waiting for its newline. Returns bytes now buffered (> 0), -1 when nothing
// (or no whole line) came in time, -2 when the connection closed.
int readReplyLine(controlSocketBuffer_t* buf, char* err, size_t errLen) {
    CtrlPoll poll;
    if (poll.open(ctrlConn.skt, err, errLen) != APR_SUCCESS) return -2;
    for (;;) {
        const int cap = static_cast<int>(buf->read_len) - 1 - buf->writeOffset;
        if (cap <= 0) return buf->readBytes;
        const int w = poll.wait(qv_load(controlPollTimeoutMs), err, errLen);
        if (w <= 0) return buf->readBytes > 0 ? buf->readBytes : -1;
        const int n = qvlb_read_bytes(ctrlConn.skt, buf->read_socket_buf + buf->writeOffset, cap, err,
                                      static_cast<int>(errLen));
        if (n == -2) return -2;
        if (n == -1) return buf->readBytes > 0 ? buf->readBytes : -1;
        buf->writeOffset += n;
        buf->readBytes += n;
        buf->read_socket_buf[buf->writeOffset] = '\0';
        if (memchr(buf->read_socket_buf + buf->readOffset, '\n', static_cast<size_t>(buf->readBytes)) !=
            nullptr)
            return buf->readBytes;
    }
}

void closeForInvalidReply(const char* shown) {
    snprintf(lastInvalidReply, sizeof(lastInvalidReply), "%s", shown);
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                "Going to close control connection with server %s:%d due to invalid message receive %s",
                ctrlConn.dstIp, ctrlConn.dstPort, shown);
    control_connection_cleanup();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                "Control connection was closed. Invalid message receive,'%s'.", shown);
}

// Printable, bounded copy of received bytes for the trace log.
const char* printable(const char* s, size_t len, char* out, size_t cap) {
    size_t i = 0;
    for (; i < len && i + 1 < cap; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        out[i] = (c < 0x20 || c > 0x7e) ? '?' : static_cast<char>(c);
    }
    out[i] = '\0';
    return out;
}

// Sends line and its newline to every process of the instance that has a socket.
void forwardReply(const char* line, size_t len) {
    QVProxyInstance_t* app = qvApplication;
    if (qvServerHooks.forwardToProcesses != nullptr) {
        qvServerHooks.forwardToProcesses(line, static_cast<int>(len));
        qvServerHooks.forwardToProcesses("\n", 1);
        return;
    }
    if (app == nullptr || app->processInfo == nullptr) return;
    for (int i = 0; i < app->processCount; ++i) {
        apr_socket_t* s = app->processInfo[i].sock;
        if (s == nullptr) continue;
        char err[256];
        if (qvlb_send_n_bytes(s, line, static_cast<int>(len), err, sizeof(err)) != 0 ||
            qvlb_send_n_bytes(s, "\n", 1, err, sizeof(err)) != 0)
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                        "Unable to forward reply to process %lld. Error = %s", app->processInfo[i].pid, err);
    }
}

// Drops received bytes up to and including the next newline while an over-long line is being
// discarded. Returns true when the newline was found (normal parsing resumes with what follows).
bool discardUpToNewline(controlSocketBuffer_t* buf) {
    char* start = buf->read_socket_buf + buf->readOffset;
    char* nl = static_cast<char*>(memchr(start, '\n', static_cast<size_t>(buf->readBytes)));
    if (nl == nullptr) {
        controlSockBufReset();
        discardingLongLine = true;
        return false;
    }
    const int drop = static_cast<int>(nl - start) + 1;
    buf->readOffset += drop;
    buf->readBytes -= drop;
    discardingLongLine = false;
    return true;
}

}  // namespace

const char* getHandshakeHostName() {
    std::call_once(handshakeHostOnce, [] {
        if (gethostname(handshakeHost, sizeof(handshakeHost)) != 0 || handshakeHost[0] == '\0')
            snprintf(handshakeHost, sizeof(handshakeHost), "%s", "localhost");
        handshakeHost[sizeof(handshakeHost) - 1] = '\0';
    });
    return handshakeHost;
}

void controlSockBufInit() {
    if (ctrlBufInfo.read_socket_buf == nullptr) {
        ctrlBufInfo.read_socket_buf =
            static_cast<char*>(qvlb_malloc(QV_CONTROL_BUFFER_SIZE, "control socket buffer", -1));
        ctrlBufInfo.read_len = ctrlBufInfo.read_socket_buf != nullptr ? QV_CONTROL_BUFFER_SIZE : 0;
    }
    controlSockBufReset();
}

void controlSockBufReset() {
    ctrlBufInfo.readOffset = 0;
    ctrlBufInfo.writeOffset = 0;
    ctrlBufInfo.readBytes = 0;
    if (ctrlBufInfo.read_socket_buf != nullptr) ctrlBufInfo.read_socket_buf[0] = '\0';
    discardingLongLine = false;
}

void setControlConnectionReqMessage() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    QVBCISetting_t& b = app->QVBCISetting;
    const Server_t& srv = app->Server;
    char serverIp[sizeof(b.serverIp)];
    loadText(b.serverIp, sizeof(b.serverIp), serverIp, sizeof(serverIp));
    char dest[sizeof(srv.connDestination)];
    loadText(srv.connDestination, sizeof(srv.connDestination), dest, sizeof(dest));
    const long long procId = qv_load(pid) != 0 ? qv_load(pid) : static_cast<long long>(getpid());
    char* out = b.controlConnectionReqMessage;
    const size_t cap = sizeof(b.controlConnectionReqMessage);
    // The host-name field is fixed text: the machine's name read once at start-up.
    int n = snprintf(
        out, cap,
        "qv_ctrl_msg_req:appName=%s;qvAppServerHost=%s;tierName=%s;bciVersion=%s;bciStartTime=%lld;"
        "qvHome=%s;pid=%lld;BCITimeStamp=%lld;agentType=php;serverIp=%s;hostName=%s",
        nz(app->agentName), nz(getAppServerName()), nz(getTierName()), nz(getQvBuild()), getBCIStartUpTime(),
        nz(getQVHome()), procId, static_cast<long long>(apr_time_now()), serverIp, getHandshakeHostName());
    if (n < 0) n = 0;
    if (static_cast<size_t>(n) < cap) {
        const int m =
            snprintf(out + n, cap - static_cast<size_t>(n),
                     ";isAgentLess=N;jvmType=php;javaVersion=1.0;javaHome=/apps/java;machineType=Windows;"
                     "requestType=%d;lastConnectionTimeStamp=%lld;connDuration=%lld;connDestination=%s;"
                     "agentName=%s\n",
                     qv_load(srv.requestType), qv_load(srv.lastConnectionTime), qv_load(srv.connDuration),
                     dest, nz(app->agentName));
        if (m > 0) n += m;
    }
    if (static_cast<size_t>(n) >= cap) {
        // Cut, but still one line.
        n = static_cast<int>(cap) - 1;
        out[n - 1] = '\n';
    }
    b.controlConnectionReqMessageLen = n;
}

bool send_control_con_req_msg_to_qvc() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return true;
    setControlConnectionReqMessage();
    QVBCISetting_t& b = app->QVBCISetting;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Sending message to QVC - '%s'",
                b.controlConnectionReqMessage);
    if (controlConnectionSendBuffer(b.controlConnectionReqMessage, b.controlConnectionReqMessageLen) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Unable to send Init message '%s'",
                    b.controlConnectionReqMessage);
        return true;
    }
    return false;
}

char rec_control_con_rep_msg_from_qvc(controlSocketBuffer_t* buf) {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || buf == nullptr || buf->read_socket_buf == nullptr || ctrlConn.skt == nullptr)
        return 0;
    char err[1024] = "";
    char shown[4096];
    const int rc = readReplyLine(buf, err, sizeof(err));
    if (rc == -1) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Read partial message '%s'.", err);
        return 0;
    }
    if (rc == -2) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Control connection closed by QV server.");
        return 0;
    }
    char* start = buf->read_socket_buf + buf->readOffset;
    char* end = start + buf->readBytes;
    const size_t prefixLen = strlen(kReplyPrefix);
    char* reply =
        static_cast<char*>(memmem(start, static_cast<size_t>(end - start), kReplyPrefix, prefixLen));
    if (reply == nullptr) {
        closeForInvalidReply(printable(start, static_cast<size_t>(end - start), shown, sizeof(shown)));
        controlSockBufReset();
        return 1;
    }
    char* nl = static_cast<char*>(memchr(reply, '\n', static_cast<size_t>(end - reply)));
    char* lineEnd = nl != nullptr ? nl : end;
    const size_t lineLen = static_cast<size_t>(lineEnd - reply);
    *lineEnd = '\0';
    // A trailing CR of a CRLF line is not part of the reply.
    const size_t cmpLen = (lineLen > 0 && reply[lineLen - 1] == '\r') ? lineLen - 1 : lineLen;
    auto begins = [&](const char* text) {
        const size_t n = strlen(text);
        return cmpLen >= n && memcmp(reply, text, n) == 0;
    };
    Server_t& srv = app->Server;
    printable(reply, lineLen, shown, sizeof(shown));
    if (begins(kReplyNotRunning)) {
        qv_store(srv.retryForDataConn, 0);
        qv_store(srv.retryForAutoSensorConn, 0);
    } else if (begins(kReplyRunning)) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Message receive,'%s'.", shown);
        qv_store(srv.retryForDataConn, 1);
    } else if (begins(kReplyOk)) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Message Receive, '%s'.", shown);
    } else {
        closeForInvalidReply(shown);
        controlSockBufReset();
        return 1;
    }
    parse_policy_from_clientMsg(reply);
    forwardReply(reply, lineLen);
    if (nl != nullptr) {
        *nl = '\n';
        const int consumed = static_cast<int>(nl + 1 - start);
        buf->readOffset += consumed;
        buf->readBytes -= consumed;
    } else {
        buf->readOffset += buf->readBytes;
        buf->readBytes = 0;
    }
    if (buf->readBytes == 0) controlSockBufReset();
    // The collector's reply is its first sign of life on this connection.
    qv_store(srv.lastHeartBeatRcvTime, my_gettimeofday());
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method exit");
    return 0;
}

void processControlConnectionMessage(controlSocketBuffer_t* buf) {
    QVProxyInstance_t* app = qvApplication;
    if (buf == nullptr || buf->read_socket_buf == nullptr) return;
    if (discardingLongLine && buf->readBytes > 0 && !discardUpToNewline(buf)) return;
    while (buf->readBytes > 0) {
        char* start = buf->read_socket_buf + buf->readOffset;
        char* nl = static_cast<char*>(memchr(start, '\n', static_cast<size_t>(buf->readBytes)));
        if (nl == nullptr) break;
        *nl = '\0';
        const int lineLen = static_cast<int>(nl - start);
        if (lineLen > 0 && start[lineLen - 1] == '\r') start[lineLen - 1] = '\0';
        handleReceivedClientMessageFromQVCollector(start);
        buf->readOffset += lineLen + 1;
        buf->readBytes -= lineLen + 1;
        // Lines after a command that closed the connection belong to a collector we left.
        if (app != nullptr && qv_load(app->QVSys.closeCtrlConFlag) != 0) break;
    }
    if (buf->readBytes <= 0) {
        const bool discarding = discardingLongLine;
        controlSockBufReset();
        discardingLongLine = discarding;
        return;
    }
    if (buf->readOffset > 0) {
        memmove(buf->read_socket_buf, buf->read_socket_buf + buf->readOffset,
                static_cast<size_t>(buf->readBytes));
        buf->readOffset = 0;
        buf->writeOffset = buf->readBytes;
        buf->read_socket_buf[buf->writeOffset] = '\0';
    }
    if (buf->writeOffset >= static_cast<int>(buf->read_len) - 1) {
        // A partial line fills the whole buffer: it can never complete. Drop it and everything up
        // to its newline; the connection stays.
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Control message longer than %d bytes received from QVC; discarded up to its newline.",
                    static_cast<int>(buf->read_len) - 1);
        controlSockBufReset();
        discardingLongLine = true;
    }
}

int read_msg_from_qvc(controlSocketBuffer_t* buf) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || buf == nullptr || buf->read_socket_buf == nullptr || ctrlConn.skt == nullptr)
        return 1;
    char err[1024] = "";
    const int cap = static_cast<int>(buf->read_len) - 1 - buf->writeOffset;
    if (cap <= 0) {
        processControlConnectionMessage(buf);
        return 0;
    }
    const int n =
        qvlb_read_bytes(ctrlConn.skt, buf->read_socket_buf + buf->writeOffset, cap, err, sizeof(err));
    if (n == -1) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Received partial line from qvc. Hence Returning. Error Buffer = %s", err);
        return 1;
    }
    if (n == -2) {
        qv_store(app->QVSys.retryFlag, 1);
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Control connection closed while reading data from QVC. Error Buffer = %s", err);
        return 1;
    }
    buf->writeOffset += n;
    buf->readBytes += n;
    buf->read_socket_buf[buf->writeOffset] = '\0';
    processControlConnectionMessage(buf);
    if (qv_load(app->QVSys.closeCtrlConFlag) != 0) {
        qv_store(app->QVSys.retryFlag, 1);
        return 1;
    }
    return 0;
}

void send_control_conn_heartbeat_to_qvc() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return;
    make_control_conn_heartbeat_msg();
    qv_store(heartbeat_count, qv_load(heartbeat_count) + 1);
    QVBCISetting_t& b = app->QVBCISetting;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "QVBCISetting.control_conn_heartbeat_msg = %s",
                b.control_conn_heartbeat_msg);
    if (controlConnectionSendBuffer(b.control_conn_heartbeat_msg, b.control_conn_heartbeat_msgLen) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error Buffer - %s", "send failed");
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Unable to send heartbeat message to control connection. Going to close connection");
        control_connection_cleanup();
    }
}

int checkQVCAlive() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return 0;
    const long long duration = my_gettimeofday() - qv_load(app->Server.lastHeartBeatRcvTime);
    const long long threshold = qv_load(app->QVSys.qvcHeartBeatThreshold);
    if (threshold > duration) return 0;
    QV_TRACE_IF(
        ctlLevel() > 0, kModule, "Error",
        "Last Received heartbeat msg time is greater than qvcHeartBeatThreshold.Hence going to closing all "
        "connection.heartBeatDuration = %lld, qvcHeartBeatThreshold = %lld",
        duration, threshold);
    checkAllDataConnAndcloseIfAny();
    closeCurrentControlConnection();
    return 1;
}

int handle_msg_from_qvc(controlSocketBuffer_t* buf) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || buf == nullptr || ctrlConn.skt == nullptr) return 1;
    char err[1024] = "";
    CtrlPoll poll;
    if (poll.open(ctrlConn.skt, err, sizeof(err)) != APR_SUCCESS) {
        if (poll.addFailed())
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Could not add fd to poll. Error: %s\n", err);
        else
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Error in creating poll. Error: %s\n", err);
        return 1;
    }
    setQvBuild(&app->QVSys.qvBuild);
    processControlConnectionMessage(buf);
    for (;;) {
        if (stopping() || ctrlConn.skt == nullptr) return 1;
        if (qv_load(app->QVSys.closeCtrlConFlag) != 0) return 1;
        if (qvServerHooks.clearHashMapTable) qvServerHooks.clearHashMapTable();
        if (!isProxyApplication() && qv_load(heartbeat_count) + 1 > retry_policy.reply_unsuccessful_count) {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "heartbeat count reaches to the threshold = %d",
                        retry_policy.reply_unsuccessful_count);
            qv_store(heartbeat_count, 0);
            qv_store(health_check_fail, 1);
            qv_store(is_switch_over, 1);
            // The collector is taken for dead: its data and auto-sensor connections go too, so the
            // next collector's start opens them afresh.
            checkAllDataConnAndcloseIfAny();
            return 1;
        }
        const int num = poll.wait(qv_load(controlPollTimeoutMs), err, sizeof(err));
        if (stopping()) return 1;
        if (num == 0) {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to check checkQVCAlive");
            if (qv_load(app->QVBCISetting.flagForHandlingProxy) == 0 && checkQVCAlive() != 0) return 1;
            if (qv_load(qv_dr_state) != 0 && idleRounds == retry_policy.heartbeat_reply_timeout_check) {
                send_control_conn_heartbeat_to_qvc();
                idleRounds = 0;
            }
            ++idleRounds;
        } else if (num > 0) {
            // Any data from the collector is a sign of life.
            qv_store(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
            QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Number of signaled description '%d'", num);
            if (read_msg_from_qvc(buf) != 0) return 1;
        } else {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "QVC select/epoll_wait. Error = %s", err);
            // A persistent poll error must not spin the thread.
            sleepMs(kPollSliceMs);
        }
    }
}

void control_connection_cleanup() {
    ensureLocks();
    {
        QVLockGuard guard(ctrlSktLock);
        if (ctrlConn.skt == nullptr) return;
        apr_socket_shutdown(ctrlConn.skt, APR_SHUTDOWN_READWRITE);
    }
    QVLockGuard send(ctrlSendLock);
    QVLockGuard guard(ctrlSktLock);
    if (ctrlConn.skt == nullptr) return;
    apr_socket_close(ctrlConn.skt);
    ctrlConn.skt = nullptr;
    if (ctrlConnPool != nullptr) apr_pool_destroy(ctrlConnPool);
    ctrlConnPool = nullptr;
    if (qvApplication != nullptr) qv_store(qvApplication->qvcCtrlSocket, nullptr);
}

int controlConnectionSendBuffer(const char* buf, int len) {
    if (buf == nullptr || len <= 0) return 0;
    ensureLocks();
    QVLockGuard send(ctrlSendLock);
    apr_socket_t* s;
    {
        QVLockGuard guard(ctrlSktLock);
        s = ctrlConn.skt;
    }
    if (s == nullptr) return -2;
    char err[256] = "";
    if (qvlb_send_n_bytes(s, buf, len, err, sizeof(err)) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Unable to send on control connection. Error = %s",
                    err);
        // A line cut short (a timeout) must not run into the next one: the connection is shut
        // down, and the control thread's read sees it closed and connects again.
        QVLockGuard guard(ctrlSktLock);
        if (ctrlConn.skt == s) apr_socket_shutdown(s, APR_SHUTDOWN_READWRITE);
        return -2;
    }
    return 0;
}

void getControlPeer(char* host, int host_len, int* port) {
    if (host != nullptr && host_len > 0) host[0] = '\0';
    if (port != nullptr) *port = 0;
    ensureLocks();
    QVLockGuard guard(ctrlSktLock);
    if (host != nullptr && host_len > 0) snprintf(host, static_cast<size_t>(host_len), "%s", peerHost);
    if (port != nullptr) *port = peerPort;
}

void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t*, void*) {
    QV_TRACE_IF(ctlLevel() >= 1, kModule, "Info", "Method called - Control thread Entry point reached.");
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return nullptr;
    getHandshakeHostName();
    ensureLocks();
    controlSockBufInit();
    if (ctrlBufInfo.read_socket_buf == nullptr) return nullptr;
    // Proxy mode too: its attempts need the same retry count and interval.
    init_qvc_server_config();

    while (!stopping()) {
        qv_store(isMasterQvc, 0);
        // Each round starts at the cluster node (entry 1), so a reroute that replaced it is
        // honoured even after a fall-back to the master.
        connectToMaster = false;
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to clear old QVC servers configurartion");
        // The proxy server's collector comes from its own settings file, read at start-up.
        const bool proxyServer = qv_load(QVProxy.proxyServerFlag) != 0;
        if (!isProxyApplication() && !isClusterMode() && !proxyServer) clear_qvc_server_setting();
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Going to read configration file.");
        if (!proxyServer && read_conf_file() != 0) {
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                        "Unable to read conf file, Going to sleep for [%lld] micro-seconds",
                        static_cast<long long>(retry_policy.time_interval));
            sleepRetryInterval();
            continue;
        }
        retry_policy.count = 0;
        bool maxReached = false;
        bool hadSession = false;
        while (!stopping()) {
            qv_store(app->QVSys.closeCtrlConFlag, 0);
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Primary Quovix server '%s', port '%d'.",
                        nz(qv_load_acquire(app->QVBCISetting.qvcHost)), qv_load(app->QVBCISetting.qvcPort));
            QVPeer peer;
            char err[1024] = "no collector configured";
            apr_socket_t* s = nullptr;
            apr_pool_t* pool = nullptr;
            if (chooseControlPeer(&peer) && apr_pool_create(&pool, nullptr) == APR_SUCCESS) {
                s = qvlb_create_client_con(peer.host, peer.port, err, sizeof(err), pool, peer.unixPath);
                if (s == nullptr) {
                    apr_pool_destroy(pool);
                    pool = nullptr;
                }
            }
            if (s != nullptr) {
                setControlSocket(s, pool, peer);
                if (isClusterMode() && connectToMaster) qv_store(isMasterQvc, 1);
                if (isProxyApplication())
                    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                                "Control socket was created successfully with server(Proxy) %s:%d.",
                                peer.host, peer.port);
                else
                    QV_TRACE_IF(
                        ctlLevel() > 0, kModule, "Info",
                        "[QV DR Feature]; Control socket was created successfully with server %s:%d and the "
                        "source %s:%d",
                        peer.host, peer.port, ctrlConn.sourceIp, ctrlConn.srcPort);
                hadSession = true;
                controlSockBufReset();
                if (send_control_con_req_msg_to_qvc()) {
                    QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                                "Going to close control connection with server %s:%d", peer.host, peer.port);
                    control_connection_cleanup();
                    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Control connection was closed");
                    break;
                }
                char dest[1100];
                snprintf(dest, sizeof(dest), "%s:%d", peer.host, peer.port);
                qvStoreText(app->Server.connDestination, sizeof(app->Server.connDestination), dest);
                qv_store(app->Server.lastConnectionTime, my_gettimeofday());
                qv_store(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
                idleRounds = 0;
                if (rec_control_con_rep_msg_from_qvc(&ctrlBufInfo) == 1) {
                    QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                                "Unexpected response received | Response = %s", lastInvalidReply);
                    break;
                }
                if (handle_msg_from_qvc(&ctrlBufInfo) == 1) {
                    QV_TRACE_IF(
                        ctlLevel() > 0, kModule, "Info",
                        "[QV DR Feature]; Exit from select call and going to close the control connection "
                        "from QV Collector %s:%d and the source %s:%d",
                        peer.host, peer.port, ctrlConn.sourceIp, ctrlConn.srcPort);
                    control_connection_cleanup();
                    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                                "Control Socket was cleaned with %s:%d server", peer.host, peer.port);
                    break;
                }
                continue;
            }
            if (isProxyApplication())
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                            "Socket was not created and retry after 60seconds with server(Proxy) %s:%d.",
                            peer.host, peer.port);
            else
                QV_TRACE_IF(
                    ctlLevel() > 0, kModule, "Error",
                    "[QV DR Feature]; Socket was not created and retry after 60seconds. qvcHost = '%s', "
                    "qvcPort = '%d' . Error : '%s'.",
                    peer.host, peer.port, err);
            ++retry_policy.count;
            // Cluster mode: a failed node sends the next attempt to the master, and back.
            if (isClusterMode()) connectToMaster = !connectToMaster;
            if (retry_policy.count >= retry_policy.num_retry) {
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                            "[QV DR Feature]; Max number of retry attempt reached");
                qv_store(app->Server.requestType, 3);
                maxReached = true;
                break;
            }
            if (check_file_size_of_qvsetting_files(1) == 1) break;
            sleepRetryInterval();
        }
        if (stopping()) break;
        const bool backups = !isProxyApplication() && !isClusterMode() && qv_load(qv_dr_state) != 0;
        if (maxReached) {
            if (backups) {
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                            "[QV DR Feature]; Going to search for backup QVC info");
                connection_retry_failed();
            } else {
                // Without a backup the same collector is tried again after the retry interval.
                sleepRetryInterval();
            }
        } else if (qv_load(is_switch_over) != 0) {
            // The collector left too many heartbeats unanswered.
            qv_store(is_switch_over, 0);
            qv_store(health_check_fail, 0);
            if (backups) connection_retry_failed();
        }
        if (hadSession) sleepMs(qv_load(controlReconnectPauseMs));
    }
    control_connection_cleanup();
    stopNIO();
    return nullptr;
}

void control_thread_adopt_socket_for_test(apr_socket_t* s, const char* host, int port) {
    QVPeer peer;
    snprintf(peer.host, sizeof(peer.host), "%s", host != nullptr ? host : "");
    peer.port = port;
    peer.unixPath = nullptr;
    setControlSocket(s, nullptr, peer);
}

QVControlThreadState::~QVControlThreadState() {
    // The process's own connection lives until exit: its threads may still use it then.
    if (this == &qvControlThreadState_own) return;
    qvlb_free(bufInfo.read_socket_buf, "control socket buffer", -1);
    if (connPool != nullptr) apr_pool_destroy(connPool);
}

void control_thread_reset_for_test() {
    control_connection_cleanup();
    qvlb_free(ctrlBufInfo.read_socket_buf, "control socket buffer", -1);
    ctrlBufInfo = controlSocketBuffer_t{};
    memset(&ctrlConn, 0, sizeof(ctrlConn));
    qv_store(isMasterQvc, 0);
    qv_store(heartbeat_count, 0);
    qv_store(health_check_fail, 0);
    qv_store(is_switch_over, 0);
    qv_store(controlPollTimeoutMs, 10000LL);
    qv_store(controlReconnectPauseMs, 1000LL);
    peerHost[0] = '\0';
    peerPort = 0;
    discardingLongLine = false;
    idleRounds = 0;
    connectToMaster = false;
}
