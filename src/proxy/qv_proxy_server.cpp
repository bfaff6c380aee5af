// The proxy server: listeners, the loop thread that owns every worker connection, the table of
// served instances and the relay of collector commands to the workers.
#include "proxy/qv_proxy_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "codec/qvlb_decode.h"
#include "collector/QVDataDispatcher.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/QVBCISettings.h"
#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_util.h"
#include "proxy/qv_proxy_meta.h"
#include "sdk/qv_modules.h"

namespace {

// The Unix socket path from proxysetting.conf. readQVProxyConfig keeps to its own keys (and logs
// this one as unknown); the proxy server reads the workers' key name itself, same grammar.
void readProxySocketPath() {
    const char* home = QVProxy.qvHomePath != nullptr ? QVProxy.qvHomePath : "";
    char path[2048];
    snprintf(path, sizeof(path), "%s/config/proxysetting.conf", home);
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) return;
    char line[1024];
    int tooLong = 0;
    while (qv_read_conf_line(fp, line, sizeof(line), &tooLong) >= 0) {
        if (tooLong || strchr("# \t\r\n", line[0]) != nullptr) continue;
        line[strcspn(line, "\r\n")] = '\0';
        if (char* v = search_keyword(line, "proxySocketPath"); v != nullptr)
            qvlb_replace_str(&QVProxy.socketPath, v, "QVProxy.socketPath");
    }
    fclose(fp);
}

const char kModule[] = "PROXY";
const char kStatusQuery[] = "status";
// A dead worker's open flowpath ends with what the web server in front answers for it.
constexpr int kInterruptedStatus = 502;
// Modify messages kept for workers that join a running test; more are rare and lost to them.
constexpr size_t kMaxKeptModifies = 32;
// Room for the longest request line a worker sends.
constexpr size_t kMinBuffer = 4096;

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int traceLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

// A worker's control connection, as the command relay sees it.
struct WorkerCtl {
    int fd;
    long long pid;
};

struct Instance {
    QVInstanceState* state = nullptr;  // null: the process's own
    QVProxyInstance_t* app = nullptr;
    std::string appName, serverName, tierName;
    QVDecodeIdSet* ids = nullptr;
    // Guards workers and the kept lines; the relay sends under it, so no fd is closed meanwhile.
    std::mutex relayLock;
    std::vector<WorkerCtl> workers;
    std::string keptReply;                  // the collector's handshake reply, for workers that come later
    std::string keptStart;                  // the running test's start message (startInstMsg), likewise
    std::vector<std::string> keptModifies;  // and the modify messages since that start
    // Set when a start is relayed: the workers may send frames before this instance's own start
    // finished, and those wait in their buffers until it has.
    std::atomic<bool> starting{false};
    // Figures of connections already closed (loop thread).
    long long frames = 0, started = 0, ended = 0;
    std::unordered_map<long long, int> pids;  // worker processes with a live connection
};

enum class Kind { Pending, Control, Data, Drain, Status };

struct Conn {
    int fd = -1;
    unsigned long long id = 0;
    bool local = false;  // came in on the Unix socket
    Kind kind = Kind::Pending;
    Instance* inst = nullptr;
    long long pid = 0;
    std::unique_ptr<char[]> buf;
    size_t len = 0;
    QVDecodeConn* dec = nullptr;
    long long since = 0;
    bool dropLine = false;  // discarding an over-long control line
};

struct Server {
    QVProxyOptions opts;
    int tcpFd = -1, unixFd = -1, tcpPort = 0;
    std::string unixPath;
    std::atomic<int> stop{0};
    std::thread loop;
    std::vector<std::unique_ptr<Conn>> conns;
    unsigned long long nextConnId = 1;
    // Append-only: the relay finds its instance without a lock.
    Instance* instances[QV_DECODE_MAX_INSTANCES] = {};
    std::atomic<int> instanceCount{0};
    long long closedFrames = 0, interruptedEnded = 0, interruptedReset = 0, refused = 0;
    long long lastStatusMs = 0, lastHeartbeatMs = 0, rateMs = 0, rateFrames = 0;
    double framesPerSec = 0;
};

Server* server = nullptr;

// ---- listeners ----

int listenTcp(const char* host, int port, int* bound) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host, &a.sin_addr) != 1) a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(fd, 128) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *bound = ntohs(a.sin_port);
    return fd;
}

int listenUnix(const std::string& path, int mode) {
    sockaddr_un a{};
    if (path.empty() || path.size() >= sizeof(a.sun_path)) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    a.sun_family = AF_UNIX;
    memcpy(a.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    // Created with the final permissions: no moment in which others could connect.
    const mode_t old = umask(static_cast<mode_t>(~mode & 0777));
    const int rc = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    umask(old);
    if (rc != 0 || chmod(path.c_str(), static_cast<mode_t>(mode)) != 0 || listen(fd, 128) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// ---- sending to workers ----

// Sends all of data without waiting; a worker that cannot take it whole is cut off (its next
// read ends the connection), so a line never arrives torn.
void sendNoWait(int fd, const char* data, size_t len) {
    while (len > 0) {
        const ssize_t n = send(fd, data, len, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            shutdown(fd, SHUT_RDWR);
            return;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

Instance* instanceOfApp(QVProxyInstance_t* app) {
    Server* s = server;
    if (s == nullptr || app == nullptr) return nullptr;
    const int n = s->instanceCount.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i)
        if (s->instances[i]->app == app) return s->instances[i];
    return nullptr;
}

// ---- instances ----

std::string_view requestField(std::string_view line, std::string_view key) {
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos) line.remove_prefix(colon + 1);
    while (!line.empty()) {
        const size_t semi = line.find(';');
        std::string_view f = line.substr(0, semi);
        if (f.size() > key.size() && f.substr(0, key.size()) == key && f[key.size()] == '=')
            return f.substr(key.size() + 1);
        if (semi == std::string_view::npos) break;
        line.remove_prefix(semi + 1);
    }
    return {};
}

long long parsePid(std::string_view v) {
    long long p = 0;
    for (char c : v) {
        if (c < '0' || c > '9' || p > 100000000000LL) return 0;
        p = p * 10 + (c - '0');
    }
    return p;
}

// The instance of an identity, created (with its collector connection) on first use. Null when
// the instance limit is reached or it cannot be set up.
Instance* findOrCreateInstance(std::string_view appName, std::string_view serverName,
                               std::string_view tierName) {
    Server* s = server;
    const int n = s->instanceCount.load(std::memory_order_relaxed);
    for (int i = 0; i < n; ++i) {
        Instance* in = s->instances[i];
        if (in->appName == appName && in->serverName == serverName && in->tierName == tierName) return in;
    }
    if (n >= QV_DECODE_MAX_INSTANCES) {
        QV_TRACE_IF(true, kModule, "Error", "Instance limit reached; worker of %.*s/%.*s/%.*s refused",
                    static_cast<int>(appName.size()), appName.data(), static_cast<int>(serverName.size()),
                    serverName.data(), static_cast<int>(tierName.size()), tierName.data());
        return nullptr;
    }
    auto in = std::make_unique<Instance>();
    in->appName = appName;
    in->serverName = serverName;
    in->tierName = tierName;
    in->ids = qvlbDecodeIdSetCreate();
    if (in->ids == nullptr) return nullptr;
    in->state = qvlb_instance_create();
    if (in->state == nullptr) {
        qvlbDecodeIdSetDestroy(in->ids);
        return nullptr;
    }
    {
        QVInstanceScope scope(in->state);
        if (agent_init_instance() != 0 || qvApplication == nullptr) {
            qvlbDecodeIdSetDestroy(in->ids);
            if (in->state != nullptr) qvlb_instance_destroy(in->state);
            return nullptr;
        }
        QVProxyInstance_t* app = qvApplication;
        in->app = app;
        // The identity the workers gave; the collector sees the same.
        qvlb_replace_str(&app->agentName, in->appName.c_str(), "agentName");
        setAppName(in->appName.data());
        setAppServerName(in->serverName.data());
        setTierName(in->tierName.data());
        readQVProxyConfig();  // this instance's collector list
        if (QVProxy.qvcHost != nullptr) setQVCHost(QVProxy.qvcHost);
        if (QVProxy.qvcPort > 0) setQVCPort(QVProxy.qvcPort);
        if (app->fpi_tls_map == nullptr) qv_store_release(app->fpi_tls_map, create_hashmap(nullptr));
        if (app->fpi_tls_map == nullptr) return nullptr;
    }
    Instance* raw = in.release();
    s->instances[n] = raw;
    s->instanceCount.store(n + 1, std::memory_order_release);
    {
        QVInstanceScope scope(raw->state);
        if (qv_agent_start_control_thread() != 0)
            QV_TRACE_IF(true, kModule, "Error", "Control thread of instance %s/%s/%s not started",
                        raw->appName.c_str(), raw->serverName.c_str(), raw->tierName.c_str());
    }
    QV_TRACE_IF(true, kModule, "Info", "Serving instance %d: appName=%s, server=%s, tier=%s", n,
                raw->appName.c_str(), raw->serverName.c_str(), raw->tierName.c_str());
    return raw;
}

void addPid(Instance* in, long long pid) {
    if (in != nullptr && pid > 0) ++in->pids[pid];
}

void removePid(Instance* in, long long pid) {
    if (in == nullptr || pid <= 0) return;
    auto it = in->pids.find(pid);
    if (it != in->pids.end() && --it->second <= 0) in->pids.erase(it);
}

// ---- connections ----

// The instance's start has run and its data connection is open.
bool started(const Instance* in) {
    return qv_load(in->app->Server.testRunRunning) != 0 && qv_load(in->app->qvcDataSocket) != nullptr;
}

// Frames that came before this instance's own start finished wait for it (not longer than their
// buffer allows).
bool holdsBack(const Conn& c) {
    return c.len > 0 && c.inst->starting.load() && !started(c.inst);
}

void feedData(Conn& c, bool force = false) {
    if (c.len == 0 || c.dec == nullptr) return;
    if (holdsBack(c) && c.len < server->opts.maxBuffer && !force) return;
    QVInstanceScope scope(c.inst->state);
    if (c.inst->starting.load() && started(c.inst)) {
        // The send buffers come with the data connection; the first records must not find none.
        buff_list_init();
        c.inst->starting.store(false);
    }
    const size_t used = qvlbDecodeConnFeed(c.dec, c.buf.get(), c.len);
    memmove(c.buf.get(), c.buf.get() + used, c.len - used);
    c.len -= used;
}

// The decoder of a closed connection: what it still holds is replayed, its open flowpaths are
// ended or reset.
void finishDecoder(Conn& c) {
    feedData(c, true);
    QVInstanceScope scope(c.inst->state);
    const QVDecodeConnStats& st = qvlbDecodeConnStats(c.dec);
    c.inst->frames += st.frames;
    c.inst->started += st.started;
    c.inst->ended += st.ended;
    server->closedFrames += st.frames;
    long long ended = 0, reset = 0;
    qvlbDecodeConnClose(c.dec, kInterruptedStatus, &ended, &reset);
    c.dec = nullptr;
    if (ended + reset > 0)
        QV_TRACE_IF(true, kModule, "Info",
                    "Connection %llu of process %lld closed with %lld open flowpaths: %lld ended, %lld reset",
                    c.id, c.pid, ended + reset, ended, reset);
    server->interruptedEnded += ended;
    server->interruptedReset += reset;
    c.inst->ended += ended;
}

void closeConn(Conn& c) {
    if (c.fd < 0) return;
    if (c.kind == Kind::Control && c.inst != nullptr) {
        std::lock_guard<std::mutex> g(c.inst->relayLock);
        auto& w = c.inst->workers;
        for (size_t i = 0; i < w.size(); ++i)
            if (w[i].fd == c.fd) {
                w.erase(w.begin() + static_cast<long>(i));
                break;
            }
        close(c.fd);
    } else {
        close(c.fd);
    }
    if (c.kind == Kind::Control || c.kind == Kind::Data) removePid(c.inst, c.pid);
    c.fd = -1;
    c.since = nowMs();
    if (c.dec != nullptr && !holdsBack(c)) finishDecoder(c);
}

void answerStatus(Conn& c) {
    std::string line = qvProxyStatusJson();
    line += '\n';
    // Blocking for this short answer is fine: the query comes from the host's own tools.
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        const ssize_t n = send(c.fd, p, left, MSG_NOSIGNAL);
        if (n <= 0) break;
        p += n;
        left -= static_cast<size_t>(n);
    }
    closeConn(c);
}

// processes.conf can keep a pool away from the proxy: a row naming it (by prefix, in any case)
// with flag 0. Pools it does not name are served.
bool poolRefused(std::string_view pool) {
    for (int i = 0; i < total_process_entries && processInfoStruct != nullptr; ++i) {
        const char* name = processInfoStruct[i].processName;
        if (name == nullptr || pool.empty() || strlen(name) < pool.size()) continue;
        if (strncasecmp(name, pool.data(), pool.size()) == 0) return processInfoStruct[i].proxy_enabled == 0;
    }
    return false;
}

// A worker's handshake: joins (or founds) its instance and gets the collector's reply and the
// running test's start message when they are known.
bool startControl(Conn& c, std::string_view line) {
    if (poolRefused(requestField(line, "agentName"))) return false;
    Instance* in = findOrCreateInstance(requestField(line, "appName"), requestField(line, "qvAppServerHost"),
                                        requestField(line, "tierName"));
    if (in == nullptr) return false;
    c.inst = in;
    c.pid = parsePid(requestField(line, "pid"));
    c.kind = Kind::Control;
    addPid(in, c.pid);
    std::lock_guard<std::mutex> g(in->relayLock);
    in->workers.push_back({c.fd, c.pid});
    if (!in->keptReply.empty()) {
        sendNoWait(c.fd, in->keptReply.data(), in->keptReply.size());
        sendNoWait(c.fd, "\n", 1);
    }
    if (!in->keptStart.empty()) {
        sendNoWait(c.fd, "\n", 1);
        sendNoWait(c.fd, in->keptStart.data(), in->keptStart.size());
        sendNoWait(c.fd, "\n", 1);
    }
    for (const std::string& m : in->keptModifies) {
        sendNoWait(c.fd, "\n", 1);
        sendNoWait(c.fd, m.data(), m.size());
        sendNoWait(c.fd, "\n", 1);
    }
    return true;
}

// A data connection belongs to the instance of the control connection with its pid, else to the
// identity its own request line names.
bool startData(Conn& c, std::string_view line) {
    c.pid = parsePid(requestField(line, "pid"));
    Instance* in = nullptr;
    for (const auto& o : server->conns)
        if (o->fd >= 0 && o->kind == Kind::Control && o->pid == c.pid && c.pid > 0) {
            in = o->inst;
            break;
        }
    if (in == nullptr)
        in = findOrCreateInstance(requestField(line, "appName"), requestField(line, "qvAppServerHost"),
                                  requestField(line, "tierName"));
    if (in == nullptr) return false;
    c.inst = in;
    c.dec = qvlbDecodeConnCreate(in->app, in->ids, c.id, static_cast<long long>(server->opts.maxBuffer));
    if (c.dec == nullptr) return false;
    c.kind = Kind::Data;
    addPid(in, c.pid);
    return true;
}

void handleControlLine(Conn& c, std::string_view line) {
    if (line.rfind("qv_meta_data_req:action=send_meta_data;", 0) == 0) {
        std::string msg(line);
        std::string reply;
        {
            QVInstanceScope scope(c.inst->state);
            processAgentMessage(msg.c_str(), &reply);
        }
        std::lock_guard<std::mutex> g(c.inst->relayLock);
        sendNoWait(c.fd, reply.data(), reply.size());
        return;
    }
    // Replies to relayed commands and heartbeats: the collector already has the proxy's own.
    QV_TRACE_IF(traceLevel() == 4, kModule, "Info", "From process %lld: %.*s", c.pid,
                static_cast<int>(line.size()), line.data());
}

// Consumes the complete lines of a pending or control connection. False: close it.
bool takeLines(Conn& c) {
    size_t start = 0;
    while (c.fd >= 0 && (c.kind == Kind::Pending || c.kind == Kind::Control)) {
        char* nl = static_cast<char*>(memchr(c.buf.get() + start, '\n', c.len - start));
        if (nl == nullptr) break;
        std::string_view line(c.buf.get() + start, static_cast<size_t>(nl - (c.buf.get() + start)));
        start = static_cast<size_t>(nl - c.buf.get()) + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (c.dropLine) {
            c.dropLine = false;
            continue;
        }
        if (c.kind == Kind::Control) {
            if (!line.empty()) handleControlLine(c, line);
            continue;
        }
        if (line.empty()) continue;
        if (c.local && line == kStatusQuery) {
            c.kind = Kind::Status;
            answerStatus(c);
            return true;
        }
        bool ok = false;
        if (line.rfind("qv_ctrl_msg_req:", 0) == 0) {
            ok = startControl(c, line);
        } else if (line.rfind("qv_data_msg_req:", 0) == 0) {
            ok = startData(c, line);
        } else if (line.rfind("auto_sensor_thread_hotspot_data_req:", 0) == 0) {
            // Workers in proxy mode keep no monitors; the proxy's instance reports them.
            c.kind = Kind::Drain;
            ok = true;
        }
        if (!ok) {
            QV_TRACE_IF(true, kModule, "Error", "Connection %llu refused: %.*s", c.id,
                        static_cast<int>(line.size() > 200 ? 200 : line.size()), line.data());
            return false;
        }
    }
    if (c.fd < 0) return true;
    memmove(c.buf.get(), c.buf.get() + start, c.len - start);
    c.len -= start;
    if (c.len == server->opts.maxBuffer && (c.kind == Kind::Pending || c.kind == Kind::Control)) {
        // A line longer than the buffer: nobody sends those, drop it whole.
        if (c.kind == Kind::Pending) return false;
        c.len = 0;
        c.dropLine = true;
    }
    return true;
}

// Reads what the connection has. False: it is to be closed.
bool readConn(Conn& c) {
    for (int round = 0; round < 4; ++round) {
        if (c.kind == Kind::Drain) c.len = 0;
        const size_t room = server->opts.maxBuffer - c.len;
        if (room == 0) return false;
        const ssize_t n = recv(c.fd, c.buf.get() + c.len, room, MSG_DONTWAIT);
        if (n == 0) return false;
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        c.len += static_cast<size_t>(n);
        if (c.kind == Kind::Pending || c.kind == Kind::Control) {
            if (!takeLines(c)) return false;
            if (c.fd < 0) return true;
        }
        if (c.kind == Kind::Data) feedData(c);
        if (static_cast<size_t>(n) < room) break;
    }
    return true;
}

void acceptAll(int lfd, bool local) {
    Server* s = server;
    for (;;) {
        const int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return;
        if (static_cast<int>(s->conns.size()) >= s->opts.maxConnections) {
            ++s->refused;
            close(fd);
            continue;
        }
        auto c = std::make_unique<Conn>();
        c->buf.reset(new (std::nothrow) char[s->opts.maxBuffer]);
        if (!c->buf) {
            close(fd);
            continue;
        }
        c->fd = fd;
        c->id = s->nextConnId++;
        c->local = local;
        c->since = nowMs();
        s->conns.push_back(std::move(c));
    }
}

long long liveFrames() {
    long long f = server->closedFrames;
    for (const auto& c : server->conns)
        if (c->dec != nullptr) f += qvlbDecodeConnStats(c->dec).frames;
    return f;
}

void periodic(long long now) {
    Server* s = server;
    if (now - s->rateMs >= 1000) {
        const long long f = liveFrames();
        if (s->rateMs != 0)
            s->framesPerSec = static_cast<double>(f - s->rateFrames) * 1000.0 / (now - s->rateMs);
        s->rateMs = now;
        s->rateFrames = f;
    }
    if (now - s->lastHeartbeatMs >= s->opts.heartbeatIntervalSec * 1000LL) {
        s->lastHeartbeatMs = now;
        // A line the workers read as a sign of life and nothing else.
        static const char kBeat[] = "qv_control_req:action=reconnect;heartBeat\n";
        const int n = s->instanceCount.load(std::memory_order_acquire);
        for (int i = 0; i < n; ++i) {
            std::lock_guard<std::mutex> g(s->instances[i]->relayLock);
            for (const WorkerCtl& w : s->instances[i]->workers) sendNoWait(w.fd, kBeat, sizeof(kBeat) - 1);
        }
    }
    if (s->opts.statusIntervalSec > 0 && now - s->lastStatusMs >= s->opts.statusIntervalSec * 1000LL) {
        s->lastStatusMs = now;
        QV_TRACE_IF(true, kModule, "Info", "Status %s", qvProxyStatusJson().c_str());
    }
    // Connections that never said who they are; frames held back while their instance started.
    const long long deadline = s->opts.firstLineTimeoutSec * 1000LL;
    for (auto& c : s->conns) {
        if (c->fd >= 0 && c->kind == Kind::Pending && now - c->since > deadline) closeConn(*c);
        if (c->fd >= 0 && c->kind == Kind::Data) feedData(*c);
        // A closed connection whose frames waited for the start: replayed once it is done.
        if (c->fd < 0 && c->dec != nullptr && (!holdsBack(*c) || now - c->since > deadline))
            finishDecoder(*c);
    }
}

void loopBody() {
    Server* s = server;
    std::vector<pollfd> fds;
    while (s->stop.load(std::memory_order_relaxed) == 0) {
        fds.clear();
        fds.push_back({s->tcpFd, POLLIN, 0});
        fds.push_back({s->unixFd, POLLIN, 0});
        for (const auto& c : s->conns) fds.push_back({c->fd, POLLIN, 0});
        const int rc = poll(fds.data(), fds.size(), 200);
        if (rc < 0 && errno != EINTR) break;
        const size_t known = s->conns.size();
        for (size_t i = 0; i < known; ++i) {
            Conn& c = *s->conns[i];
            const short ev = fds[i + 2].revents;
            if (ev == 0 || c.fd < 0) continue;
            if (!readConn(c)) closeConn(c);
        }
        if (fds[0].revents != 0) acceptAll(s->tcpFd, false);
        if (fds[1].revents != 0) acceptAll(s->unixFd, true);
        periodic(nowMs());
        for (size_t i = s->conns.size(); i-- > 0;)
            if (s->conns[i]->fd < 0 && s->conns[i]->dec == nullptr)
                s->conns.erase(s->conns.begin() + static_cast<long>(i));
    }
}

void jsonString(std::string& out, const std::string& v) {
    out += '"';
    for (unsigned char ch : v) {
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
        } else if (ch < 0x20) {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\u%04x", ch);
            out += esc;
        } else {
            out += static_cast<char>(ch);
        }
    }
    out += '"';
}

}  // namespace

void qvProxyForwardToProcesses(const char* data, int len) {
    Instance* in = instanceOfApp(qvApplication);
    if (in == nullptr || data == nullptr || len <= 0) return;
    const std::string_view d(data, static_cast<size_t>(len));
    std::lock_guard<std::mutex> g(in->relayLock);
    if (d.rfind("qv_ctrl_msg_rep:", 0) == 0) {
        in->keptReply.assign(d);
    } else if (d.rfind("qv_control_req:action=start_instrumentation", 0) == 0) {
        in->keptStart.assign(d);
        in->keptModifies.clear();
        in->starting.store(true);
    } else if (d.rfind("qv_control_req:action=stop_instrumentation", 0) == 0) {
        in->keptStart.clear();
        in->keptModifies.clear();
    } else if (d.rfind("qv_control_req:action=modify", 0) == 0 && !in->keptStart.empty() &&
               in->keptModifies.size() < kMaxKeptModifies) {
        in->keptModifies.emplace_back(d);
    }
    for (const WorkerCtl& w : in->workers) sendNoWait(w.fd, data, static_cast<size_t>(len));
}

std::string qvProxyStatusJson() {
    Server* s = server;
    if (s == nullptr) return "{}";
    long long workers = 0, connections = 0, started = 0, ended = 0, discarded = 0;
    const int n = s->instanceCount.load(std::memory_order_acquire);
    std::string detail;
    for (int i = 0; i < n; ++i) {
        Instance* in = s->instances[i];
        long long st = in->started, en = in->ended, open = 0;
        for (const auto& c : s->conns)
            if (c->dec != nullptr && c->inst == in) {
                st += qvlbDecodeConnStats(c->dec).started;
                en += qvlbDecodeConnStats(c->dec).ended;
                open += qvlbDecodeConnOpen(c->dec);
            }
        workers += static_cast<long long>(in->pids.size());
        started += st;
        ended += en;
        discarded += qv_load(in->app->QVSys.discardCount);
        if (i > 0) detail += ',';
        detail += "{\"app\":";
        jsonString(detail, in->appName);
        detail += ",\"tier\":";
        jsonString(detail, in->tierName);
        detail += ",\"server\":";
        jsonString(detail, in->serverName);
        char tail[256];
        snprintf(
            tail, sizeof(tail),
            ",\"workers\":%zu,\"open_flowpaths\":%lld,\"flowpaths_started\":%lld,\"flowpaths_ended\":%lld}",
            in->pids.size(), open, st, en);
        detail += tail;
    }
    for (const auto& c : s->conns)
        if (c->fd >= 0 && (c->kind == Kind::Control || c->kind == Kind::Data || c->kind == Kind::Drain))
            ++connections;
    char head[640];
    snprintf(
        head, sizeof(head),
        "{\"workers\":%lld,\"instances\":%d,\"connections\":%lld,\"frames\":%lld,\"frames_per_sec\":%.1f,"
        "\"records_sent\":%lld,\"discarded\":%lld,\"interrupted_ended\":%lld,\"interrupted_reset\":%lld,"
        "\"refused_connections\":%lld,\"instances_detail\":[",
        workers, n, connections, liveFrames(), s->framesPerSec, ended, discarded, s->interruptedEnded,
        s->interruptedReset, s->refused);
    return std::string(head) + detail + "]}";
}

int qvProxyInit(const QVProxyOptions& opts) {
    if (server != nullptr) return 0;
    startedWithExc = 1;
    qvlb_register_modules();
    qvServerHooks.forwardToProcesses = qvProxyForwardToProcesses;
    // The instances start their control threads themselves, each for its own collector session.
    void* (*controlEntry)(apr_thread_t*, void*) = qvAgentHooks.controlThreadEntry;
    qvAgentHooks.controlThreadEntry = nullptr;
    initializeProxyStruct();
    QVProxy.proxyServerFlag = 1;
    setProxyQVHome();
    readQVProxyConfig();
    readProxySocketPath();
    readProcessConfFile();
    agent_init(nullptr, 1, "qvproxy", nullptr);
    qvAgentHooks.controlThreadEntry = controlEntry;
    if (qvApplication == nullptr) {
        fprintf(stderr, "qvproxy: agent start-up failed\n");
        return 1;
    }

    auto* s = new Server();
    s->opts = opts;
    if (s->opts.maxBuffer < kMinBuffer) s->opts.maxBuffer = kMinBuffer;
    const int port = opts.port >= 0 ? opts.port : QVProxy.proxyPort;
    s->tcpFd = listenTcp(QVProxy.proxyHost, port, &s->tcpPort);
    if (!opts.socketPath.empty())
        s->unixPath = opts.socketPath;
    else if (QVProxy.socketPath != nullptr && QVProxy.socketPath[0] != '\0')
        s->unixPath = QVProxy.socketPath;
    else {
        const std::string home = QVProxy.qvHomePath != nullptr ? QVProxy.qvHomePath : "";
        s->unixPath = home + (home.empty() || home.back() == '/' ? "" : "/") + "run/qvproxy.sock";
        qvlb_mkdir_p((home + (home.empty() || home.back() == '/' ? "" : "/") + "run/").c_str());
    }
    s->unixFd = listenUnix(s->unixPath, opts.socketMode);
    if (s->tcpFd < 0 || s->unixFd < 0) {
        fprintf(stderr, "qvproxy: cannot listen on %s:%d or %s: %s\n", QVProxy.proxyHost, port,
                s->unixPath.c_str(), strerror(errno));
        if (s->tcpFd >= 0) close(s->tcpFd);
        if (s->unixFd >= 0) close(s->unixFd);
        delete s;
        return 1;
    }
    const long long now = nowMs();
    s->lastStatusMs = now;
    s->lastHeartbeatMs = now;
    server = s;
    QV_TRACE_IF(true, kModule, "Info", "Listening on %s:%d and %s; collector %s:%d", QVProxy.proxyHost,
                s->tcpPort, s->unixPath.c_str(), QVProxy.qvcHost != nullptr ? QVProxy.qvcHost : "(none)",
                QVProxy.qvcPort);
    s->loop = std::thread(loopBody);
    printf("qvproxy ready port=%d socket=%s\n", s->tcpPort, s->unixPath.c_str());
    fflush(stdout);
    return 0;
}

void qvProxyShutdown(void (*afterStop)()) {
    Server* s = server;
    if (s == nullptr) return;
    s->stop.store(1);
    if (s->loop.joinable()) s->loop.join();
    for (auto& c : s->conns) {
        closeConn(*c);
        if (c->dec != nullptr) finishDecoder(*c);
    }
    const int n = s->instanceCount.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i) {
        QVInstanceScope scope(s->instances[i]->state);
        flushData();
    }
    QV_TRACE_IF(true, kModule, "Info", "Stopping. %s", qvProxyStatusJson().c_str());
    // Every instance's threads learn of the stop at once; the joins below then overlap.
    for (int i = 0; i < n; ++i) {
        QVInstanceScope scope(s->instances[i]->state);
        qv_store(qvAgentStopping, 1);
    }
    for (int i = 0; i < n; ++i) {
        QVInstanceScope scope(s->instances[i]->state);
        qv_agent_shutdown_instance();
    }
    qv_agent_shutdown();  // the process's own instance: its record pool's helper thread
    close(s->tcpFd);
    close(s->unixFd);
    unlink(s->unixPath.c_str());
    // Nothing acts for the instances any more.
    for (int i = 0; i < n; ++i) {
        Instance* in = s->instances[i];
        {
            QVInstanceScope scope(in->state);
            destroy_hashmap(in->app->fpi_tls_map);
            in->app->fpi_tls_map = nullptr;
            if (afterStop != nullptr) afterStop();
        }
        if (in->state != nullptr) qvlb_instance_destroy(in->state);
        qvlbDecodeIdSetDestroy(in->ids);
        delete in;
    }
    server = nullptr;
    delete s;
}
