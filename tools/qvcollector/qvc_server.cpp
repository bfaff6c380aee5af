// The collector simulator's single-threaded poll loop: connections, control protocol, script
// runner, capture files and summaries.
#include "qvcollector/qvc_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "qvcollector/qvc_records.h"
#include "qvcollector/qvc_script.h"

namespace qvc {

namespace {

constexpr std::string_view kCtrlReq = "qv_ctrl_msg_req:";
constexpr std::string_view kDataReq = "qv_data_msg_req:";
constexpr std::string_view kAsReq = "auto_sensor_thread_hotspot_data_req:";
constexpr const char* kReplyNotRunning = "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;\n";
constexpr const char* kReplyRunning = "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n";
constexpr const char* kHeartbeatReply = "qv_control_rep:action:result=Ok;\n";
constexpr const char* kCollectorHeartbeat = "qv_control_req:action=reconnect;heartBeat;\n";

constexpr size_t kMaxFirstLine = 64 * 1024;  // an unclassified connection gives up after this
constexpr size_t kMaxLine = 1u << 20;        // longer lines are captured but not interpreted
constexpr size_t kMaxOut = 16u << 20;        // a peer that stops reading is dropped
constexpr size_t kMaxBts = 100000;
constexpr int kReadRounds = 16;  // reads per connection per poll round (fairness)

volatile sig_atomic_t g_stopSignal = 0;
void onStopSignal(int) {
    g_stopSignal = 1;
}

enum class Kind { Pending, Control, Data, AutoSensor, Other };
constexpr int kKinds = 5;

const char* kindName(Kind k) {
    switch (k) {
        case Kind::Control:
            return "control";
        case Kind::Data:
            return "data";
        case Kind::AutoSensor:
            return "as";
        case Kind::Other:
            return "other";
        default:
            return "pending";
    }
}

const char* kindFileSuffix(Kind k) {
    return (k == Kind::Data || k == Kind::AutoSensor) ? ".rec" : ".log";
}

struct Conn {
    int fd = -1;
    bool open = true;
    Kind kind = Kind::Pending;
    int n = 0;
    std::string name = "pending";
    std::string peer;
    std::string pending;  // bytes before the first line decided the kind
    std::string line;
    bool lineTooLong = false;
    std::string out;
    int file = -1;
    int sentFile = -1;
    long long bytesIn = 0;
    long long records = 0;
    bool handshaken = false;
    long long pid = -1;
    std::string agent;  // pid and identity: a proxy's instances share its pid
    bool sawTen = false;
};

// Value of key in a "prefix:k=v;k=v;..." line, "" when absent.
std::string fieldOf(std::string_view line, std::string_view key) {
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos) line = line.substr(colon + 1);
    for (std::string_view f : split(line, ';')) {
        const size_t eq = f.find('=');
        if (eq != std::string_view::npos && trim(f.substr(0, eq)) == key)
            return std::string(f.substr(eq + 1));
    }
    return std::string();
}

// A protocol line for the event log: without its newline, non-printables escaped.
std::string shown(std::string_view msg, size_t max) {
    while (!msg.empty() && msg.back() == '\n') msg.remove_suffix(1);
    return printable(msg, max);
}

bool mkdirs(const std::string& dir) {
    std::string cur;
    for (size_t i = 0; i <= dir.size(); ++i) {
        if (i == dir.size() || dir[i] == '/') {
            if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) return false;
        }
        if (i < dir.size()) cur.push_back(dir[i]);
    }
    struct stat st {};
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool writeAll(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

class Server {
  public:
    explicit Server(const ServerOptions& o) : opts_(o) {}

    int run() {
        if (!setUp()) return 1;
        loop();
        shutDown();
        if (!opts_.quiet) printFinalSummary();
        return waitFailures_ > 0 ? 2 : 0;
    }

  private:
    // ---- set-up and tear-down --------------------------------------------------------------

    bool setUp() {
        start_ = monotonicMs();
        lastSummaryAt_ = start_;
        running_ = opts_.assumeRunning;
        if (!opts_.scriptFile.empty() && !loadScript()) return false;
        if (!mkdirs(opts_.outDir)) {
            fprintf(stderr, "qvcollector: cannot create output directory %s: %s\n", opts_.outDir.c_str(),
                    strerror(errno));
            return false;
        }
        listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (listenFd_ < 0) return fail("socket");
        const int one = 1;
        setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(opts_.port));
        if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return fail("bind");
        if (listen(listenFd_, 128) != 0) return fail("listen");
        socklen_t len = sizeof(addr);
        if (getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return fail("getsockname");
        port_ = ntohs(addr.sin_port);

        struct sigaction sa {};
        sa.sa_handler = onStopSignal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, nullptr);
        sigaction(SIGTERM, &sa, nullptr);
        signal(SIGPIPE, SIG_IGN);

        if (!opts_.portFile.empty() && !writePortFile()) return false;
        printf("listening 127.0.0.1:%d\n", port_);
        fflush(stdout);
        note("capture files in %s; start keywords: %s", opts_.outDir.c_str(),
             shown(startMessage(opts_.keywords), 300).c_str());
        const long long now = monotonicMs();
        nextSummary_ = now + opts_.summaryIntervalMs;
        nextHeartbeat_ = now + opts_.heartbeatIntervalMs;
        return true;
    }

    bool fail(const char* what) {
        fprintf(stderr, "qvcollector: %s on 127.0.0.1:%d failed: %s\n", what, opts_.port, strerror(errno));
        return false;
    }

    bool writePortFile() {
        const std::string tmp = opts_.portFile + ".tmp";
        FILE* f = fopen(tmp.c_str(), "w");
        bool ok = f != nullptr && fprintf(f, "%d\n", port_) > 0;
        if (f && fclose(f) != 0) ok = false;
        // Renamed into place so a reader never sees a half-written number.
        if (!ok || rename(tmp.c_str(), opts_.portFile.c_str()) != 0) {
            fprintf(stderr, "qvcollector: cannot write port file %s: %s\n", opts_.portFile.c_str(),
                    strerror(errno));
            return false;
        }
        return true;
    }

    bool loadScript() {
        FILE* f = fopen(opts_.scriptFile.c_str(), "r");
        if (!f) {
            fprintf(stderr, "qvcollector: cannot open script %s: %s\n", opts_.scriptFile.c_str(),
                    strerror(errno));
            return false;
        }
        std::string line;
        int lineNo = 0;
        bool ok = true;
        int c = 0;
        // Read byte-wise so any line length and any bytes are accepted.
        while (ok) {
            c = fgetc(f);
            if (c != EOF && c != '\n') {
                if (line.size() < kMaxLine) line.push_back(static_cast<char>(c));
                continue;
            }
            if (c == EOF && line.empty()) break;
            ++lineNo;
            ScriptCmd cmd;
            std::string err;
            const int r = parseScriptLine(line, &cmd, &err);
            if (r < 0) {
                fprintf(stderr, "qvcollector: %s:%d: %s\n", opts_.scriptFile.c_str(), lineNo, err.c_str());
                ok = false;
            } else if (r > 0) {
                cmd.line = lineNo;
                script_.push_back(std::move(cmd));
            }
            line.clear();
            if (c == EOF) break;
        }
        fclose(f);
        return ok;
    }

    void shutDown() {
        for (auto& c : conns_) {
            if (!c->open) continue;
            flush(*c);  // one last non-blocking attempt
            closeConn(*c, "collector exiting");
        }
        conns_.clear();
        if (listenFd_ >= 0) close(listenFd_);
        listenFd_ = -1;
    }

    // ---- main loop ---------------------------------------------------------------------------

    void loop() {
        std::vector<pollfd> pfds;
        std::vector<Conn*> polled;
        while (!g_stopSignal && !quit_) {
            runScript();
            checkExitAfterStop();
            if (quit_) break;
            const long long now = monotonicMs();
            if (opts_.summaryIntervalMs > 0 && now >= nextSummary_) {
                printLiveSummary(now);
                nextSummary_ = now + opts_.summaryIntervalMs;
            }
            if (opts_.heartbeatIntervalMs > 0 && now >= nextHeartbeat_) {
                if (!silent(now)) {
                    for (auto& c : conns_)
                        if (c->open && c->kind == Kind::Control && c->handshaken)
                            send(*c, kCollectorHeartbeat);
                }
                nextHeartbeat_ = now + opts_.heartbeatIntervalMs;
            }

            pfds.clear();
            polled.clear();
            const bool acceptNow = now >= acceptPausedUntil_;
            if (acceptNow) pfds.push_back({listenFd_, POLLIN, 0});
            const bool pollStdin = opts_.interactive && !stdinEof_;
            if (pollStdin) pfds.push_back({0, POLLIN, 0});
            const size_t firstConn = pfds.size();
            for (auto& c : conns_) {
                if (!c->open) continue;
                short ev = POLLIN;
                if (!c->out.empty()) ev |= POLLOUT;
                pfds.push_back({c->fd, ev, 0});
                polled.push_back(c.get());
            }
            const int timeout = pollTimeout(now);
            const int r = poll(pfds.data(), pfds.size(), timeout);
            if (r < 0) {
                if (errno == EINTR) continue;
                fprintf(stderr, "qvcollector: poll failed: %s\n", strerror(errno));
                break;
            }
            size_t i = 0;
            if (acceptNow) {
                if (pfds[i].revents & POLLIN) acceptAll();
                ++i;
            }
            if (pollStdin) {
                if (pfds[i].revents & (POLLIN | POLLHUP | POLLERR)) readStdin();
                ++i;
            }
            for (size_t k = firstConn; k < pfds.size(); ++k) {
                Conn& c = *polled[k - firstConn];
                const short re = pfds[k].revents;
                if (c.open && (re & POLLOUT)) flush(c);
                if (c.open && (re & (POLLIN | POLLHUP | POLLERR))) readConn(c);
            }
            // Connections closed in this round are forgotten (their counts live on in the totals).
            std::erase_if(conns_, [](const std::unique_ptr<Conn>& c) { return !c->open; });
        }
        if (g_stopSignal) note("signal received, shutting down");
    }

    int pollTimeout(long long now) const {
        long long wake = now + 1000;
        if (opts_.summaryIntervalMs > 0) wake = std::min(wake, nextSummary_);
        if (opts_.heartbeatIntervalMs > 0) wake = std::min(wake, nextHeartbeat_);
        if (headStarted_ && headDeadline_ > 0) wake = std::min(wake, headDeadline_);
        if (acceptPausedUntil_ > now) wake = std::min(wake, acceptPausedUntil_);
        const long long t = wake - now;
        return t < 0 ? 0 : static_cast<int>(t);
    }

    bool silent(long long now) const { return now < silentUntil_; }

    // ---- connections -------------------------------------------------------------------------

    void acceptAll() {
        for (;;) {
            sockaddr_in peer{};
            socklen_t len = sizeof(peer);
            const int fd =
                accept4(listenFd_, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                    // Out of descriptors: stop accepting briefly instead of spinning on the listener.
                    note("accept: %s; pausing accepts", strerror(errno));
                    acceptPausedUntil_ = monotonicMs() + 200;
                }
                return;
            }
            auto c = std::make_unique<Conn>();
            c->fd = fd;
            char ip[INET_ADDRSTRLEN] = "?";
            inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
            c->peer = format("%s:%d", ip, ntohs(peer.sin_port));
            ++accepted_;
            conns_.push_back(std::move(c));
        }
    }

    void readConn(Conn& c) {
        char buf[65536];
        for (int round = 0; round < kReadRounds && c.open; ++round) {
            const ssize_t r = recv(c.fd, buf, sizeof(buf), 0);
            if (r > 0) {
                onBytes(c, buf, static_cast<size_t>(r));
                continue;
            }
            if (r == 0) {
                closeConn(c, "closed by the agent");
                return;
            }
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) closeConn(c, strerror(errno));
            return;
        }
    }

    void closeConn(Conn& c, const char* why) {
        if (!c.open) return;
        c.open = false;
        if (c.kind == Kind::Pending && !c.pending.empty()) classifyAs(c, Kind::Other);
        if (c.kind != Kind::Pending || c.bytesIn > 0)
            note("%s from %s closed: %s (%lld bytes, %lld records)", c.name.c_str(), c.peer.c_str(), why,
                 c.bytesIn, c.records);
        close(c.fd);
        c.fd = -1;
        if (c.file >= 0) close(c.file);
        if (c.sentFile >= 0) close(c.sentFile);
        c.file = c.sentFile = -1;
        c.out.clear();
    }

    void capture(Conn& c, const char* p, size_t n) {
        if (c.file >= 0 && !writeAll(c.file, p, n)) {
            note("%s: writing the capture file failed: %s; capture stopped", c.name.c_str(), strerror(errno));
            close(c.file);
            c.file = -1;
        }
    }

    void onBytes(Conn& c, const char* p, size_t n) {
        c.bytesIn += static_cast<long long>(n);
        if (c.kind != Kind::Pending) {
            bytesByKind_[static_cast<int>(c.kind)] += static_cast<long long>(n);
            capture(c, p, n);
            feed(c, p, n);
            return;
        }
        c.pending.append(p, n);
        const size_t nl = c.pending.find('\n');
        if (nl == std::string::npos) {
            const std::string_view head(c.pending);
            auto couldBe = [&](std::string_view prefix) {
                const size_t m = std::min(head.size(), prefix.size());
                return head.substr(0, m) == prefix.substr(0, m);
            };
            if (c.pending.size() >= kMaxFirstLine ||
                (!couldBe(kCtrlReq) && !couldBe(kDataReq) && !couldBe(kAsReq)))
                classifyAs(c, Kind::Other);
            return;
        }
        const std::string_view first = std::string_view(c.pending).substr(0, nl);
        Kind kind = Kind::Other;
        if (first.starts_with(kCtrlReq))
            kind = Kind::Control;
        else if (first.starts_with(kDataReq))
            kind = Kind::Data;
        else if (first.starts_with(kAsReq))
            kind = Kind::AutoSensor;
        std::string all = std::move(c.pending);
        c.pending.clear();
        classifyAs(c, kind, all);
        if (kind == Kind::Other) return;
        onFirstLine(c, std::string_view(all).substr(0, nl));
        if (c.open && nl + 1 < all.size()) feed(c, all.data() + nl + 1, all.size() - nl - 1);
    }

    // Names the connection, opens its capture files and writes the bytes received so far.
    void classifyAs(Conn& c, Kind kind, const std::string& received = std::string()) {
        const std::string& bytes = received.empty() ? c.pending : received;
        c.kind = kind;
        c.n = ++opened_[static_cast<int>(kind)];
        c.name = format("%s-%d", kindName(kind), c.n);
        const std::string path = opts_.outDir + "/" + c.name + kindFileSuffix(kind);
        c.file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (c.file < 0) note("%s: cannot open %s: %s", c.name.c_str(), path.c_str(), strerror(errno));
        if (kind == Kind::Control) {
            const std::string sent = opts_.outDir + "/" + c.name + ".sent";
            c.sentFile = open(sent.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        }
        bytesByKind_[static_cast<int>(kind)] += static_cast<long long>(bytes.size());
        capture(c, bytes.data(), bytes.size());
        if (kind == Kind::Other) {
            note("%s from %s: unknown first line '%s' (captured, ignored)", c.name.c_str(), c.peer.c_str(),
                 printable(bytes.substr(0, bytes.find('\n')), 80).c_str());
            c.pending.clear();
        }
    }

    void onFirstLine(Conn& c, std::string_view line) {
        if (c.kind == Kind::Control) {
            onHandshake(c, line);
            return;
        }
        note("%s from %s opened: appName=%s testIdx=%s pid=%s", c.name.c_str(), c.peer.c_str(),
             printable(fieldOf(line, "appName"), 60).c_str(), printable(fieldOf(line, "testIdx"), 20).c_str(),
             printable(fieldOf(line, "pid"), 20).c_str());
    }

    void onHandshake(Conn& c, std::string_view line) {
        c.handshaken = true;
        long long pid = -1;
        parseI64(fieldOf(line, "pid"), &pid);
        c.pid = pid;
        c.agent = std::to_string(pid) + ";" + fieldOf(line, "appName") + ";" +
                  fieldOf(line, "qvAppServerHost") + ";" + fieldOf(line, "tierName");
        const long long now = monotonicMs();
        const bool known = running_ && (opts_.assumeRunning || startedAgents_.count(c.agent) > 0);
        std::string what;
        if (silent(now)) {
            what = "not answered (silence)";
        } else {
            const std::string reply = !opts_.handshakeReply.empty()
                                          ? opts_.handshakeReply
                                          : (known ? kReplyRunning : kReplyNotRunning);
            send(c, reply);
            what = "replied " + shown(reply, 80);
            if (!known && opts_.autoStart && opts_.handshakeReply.empty()) {
                send(c, startMessage(opts_.keywords));
                running_ = true;
                startedAgents_.insert(c.agent);
                what += ", sent start";
            }
        }
        note("%s from %s: handshake appName=%s pid=%lld requestType=%s; %s", c.name.c_str(), c.peer.c_str(),
             printable(fieldOf(line, "appName"), 60).c_str(), pid,
             printable(fieldOf(line, "requestType"), 10).c_str(), what.c_str());
    }

    void feed(Conn& c, const char* p, size_t n) {
        if (c.kind == Kind::Other) return;
        size_t start = 0;
        for (size_t i = 0; i < n && c.open; ++i) {
            if (p[i] != '\n') continue;
            appendLine(c, p + start, i - start);
            const bool tooLong = c.lineTooLong;
            std::string line = std::move(c.line);
            c.line.clear();
            c.lineTooLong = false;
            onLine(c, line, tooLong);
            start = i + 1;
        }
        if (c.open && start < n) appendLine(c, p + start, n - start);
    }

    void appendLine(Conn& c, const char* p, size_t n) {
        const size_t room = kMaxLine - std::min(kMaxLine, c.line.size());
        if (n > room) {
            c.lineTooLong = true;
            n = room;
        }
        c.line.append(p, n);
    }

    void onLine(Conn& c, std::string_view line, bool tooLong) {
        if (tooLong) ++longLines_;
        if (c.kind == Kind::Control) {
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (tooLong) {
                note("%s: over-long line (%zu+ bytes) ignored", c.name.c_str(), line.size());
                return;
            }
            onControlLine(c, line);
            return;
        }
        onRecordLine(c, line, tooLong);
    }

    void onControlLine(Conn& c, std::string_view line) {
        if (opts_.keepLines > 0 && !line.starts_with("qv_control_req:action=reconnect;heartBeat")) {
            recentControl_.emplace_back(c.name + ": " + printable(line, 200));
            while (recentControl_.size() > opts_.keepLines) recentControl_.pop_front();
        }
        if (waitReplyActive_ && line.find(waitReplyText_) != std::string_view::npos) waitReplyMatched_ = true;
        const long long now = monotonicMs();
        if (line.starts_with("qv_control_req:action=reconnect;heartBeat")) {
            ++agentHeartbeats_;
            if (!silent(now)) send(c, kHeartbeatReply);
            return;
        }
        if (line.starts_with("qv_control_rep:action=start_instrumentation")) {
            ++startAcks_;
            note("%s: start acknowledged: %s", c.name.c_str(), printable(line, 120).c_str());
        } else if (line.starts_with("qv_control_rep:action=stop_instrumentation")) {
            ++stopAcks_;
            if (stopSent_) stopAcked_ = true;
            note("%s: stop acknowledged", c.name.c_str());
        } else if (line.starts_with("qv_control_rep:action=modify;result=Ok;")) {
            ++modifyOk_;
            note("%s: modify acknowledged", c.name.c_str());
        } else if (line.starts_with("qv_control_rep:result=Error:")) {
            ++controlErrors_;
            note("%s: refused: %s", c.name.c_str(), printable(line, 200).c_str());
        } else if (line.starts_with("qv_meta_data_rep:status=complete;")) {
            ++metaDone_;
            note("%s: metadata request complete", c.name.c_str());
        } else if (line.starts_with("qv_meta_data_rep:")) {
            ++metaErrors_;
            note("%s: metadata reply: %s", c.name.c_str(), printable(line, 200).c_str());
        } else if (recordType(line) >= 0) {
            onRecordLine(c, line, false);
        } else if (!line.empty()) {
            ++otherControlLines_;
        }
    }

    void onRecordLine(Conn& c, std::string_view line, bool tooLong) {
        const int type = recordType(line);
        if (type < 0) {
            if (line.empty())
                ++dataHeartbeats_;
            else
                ++nonRecordLines_;
            return;
        }
        ++recordCounts_[type];
        ++c.records;
        if (tooLong) return;
        switch (type) {
            case 2: {
                ++flowpaths_;
                HeaderRecord h;
                if (parseHeaderRecord(line, &h) && bts_.size() < kMaxBts) bts_.try_emplace(h.btId);
                break;
            }
            case 4: {
                EndRecord e;
                if (parseEndRecord(line, &e) && e.status == -99) ++discardMarks_;
                break;
            }
            case 7: {
                long long id = 0;
                std::string name;
                if (parseBtMeta(line, &id, &name) && (bts_.size() < kMaxBts || bts_.count(id)))
                    bts_[id] = name;
                break;
            }
            case 10:
                ++dataOver_;
                if (c.kind == Kind::Data) c.sawTen = true;
                note("%s: data-over record (10) received", c.name.c_str());
                break;
            default:
                break;
        }
    }

    void send(Conn& c, std::string_view msg) {
        if (!c.open || msg.empty()) return;
        if (c.sentFile >= 0 && !writeAll(c.sentFile, msg.data(), msg.size())) {
            close(c.sentFile);
            c.sentFile = -1;
        }
        if (c.out.size() + msg.size() > kMaxOut) {
            closeConn(c, "agent does not read its control connection");
            return;
        }
        c.out.append(msg);
        flush(c);
    }

    void flush(Conn& c) {
        while (c.open && !c.out.empty()) {
            const ssize_t w = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (w > 0) {
                c.out.erase(0, static_cast<size_t>(w));
                continue;
            }
            if (w < 0 && errno == EINTR) continue;
            if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
            closeConn(c, w < 0 ? strerror(errno) : "send failed");
            return;
        }
    }

    std::vector<Conn*> agents() {
        std::vector<Conn*> out;
        for (auto& c : conns_)
            if (c->open && c->kind == Kind::Control && c->handshaken) out.push_back(c.get());
        return out;
    }

    // ---- script ------------------------------------------------------------------------------

    void readStdin() {
        char buf[4096];
        const ssize_t r = read(0, buf, sizeof(buf));
        if (r < 0 && errno == EINTR) return;
        if (r <= 0) {
            stdinEof_ = true;
            if (!stdinLine_.empty()) queueStdinLine();
            return;
        }
        for (ssize_t i = 0; i < r; ++i) {
            if (buf[i] == '\n') {
                queueStdinLine();
            } else if (stdinLine_.size() < kMaxLine) {
                stdinLine_.push_back(buf[i]);
            }
        }
    }

    void queueStdinLine() {
        ScriptCmd cmd;
        std::string err;
        const int r = parseScriptLine(stdinLine_, &cmd, &err);
        if (r < 0)
            fprintf(stderr, "qvcollector: %s\n", err.c_str());
        else if (r > 0)
            script_.push_back(std::move(cmd));
        stdinLine_.clear();
    }

    std::string where(const ScriptCmd& c) const {
        return c.line > 0 ? format("script line %d", c.line) : std::string("stdin");
    }

    void runScript() {
        while (!script_.empty() && !quit_) {
            const ScriptCmd& c = script_.front();
            const long long now = monotonicMs();
            if (!headStarted_) {
                headStarted_ = true;
                headDeadline_ = 0;
                waitingNoted_ = false;
                if (c.kind == ScriptCmd::Sleep || c.kind == ScriptCmd::Silence ||
                    c.kind == ScriptCmd::WaitRecords || c.kind == ScriptCmd::WaitReply)
                    headDeadline_ = now + c.ms;
                if (c.kind == ScriptCmd::Silence) {
                    silentUntil_ = headDeadline_;
                    note("%s: silence for %lld ms", where(c).c_str(), c.ms);
                }
                if (c.kind == ScriptCmd::WaitReply) {
                    waitReplyActive_ = true;
                    waitReplyMatched_ = false;
                    waitReplyText_ = c.text;
                }
            }
            if (!step(c, now)) return;  // blocked; resumes on the next loop round
            script_.pop_front();
            headStarted_ = false;
            headDeadline_ = 0;
        }
    }

    // Runs the head command; false while it has to wait.
    bool step(const ScriptCmd& c, long long now) {
        switch (c.kind) {
            case ScriptCmd::Sleep:
            case ScriptCmd::Silence:
                return now >= headDeadline_;
            case ScriptCmd::WaitRecords: {
                const auto it = recordCounts_.find(c.recordType);
                const long long have = it == recordCounts_.end() ? 0 : it->second;
                if (have >= c.count) {
                    note("%s: %lld records of type %d received", where(c).c_str(), have, c.recordType);
                    return true;
                }
                if (now < headDeadline_) return false;
                ++waitFailures_;
                note("%s: wait-records %d %lld timed out with %lld", where(c).c_str(), c.recordType, c.count,
                     have);
                return true;
            }
            case ScriptCmd::WaitReply:
                if (!waitReplyMatched_ && now < headDeadline_) return false;
                if (!waitReplyMatched_) {
                    ++waitFailures_;
                    note("%s: wait-reply '%s' timed out", where(c).c_str(), printable(c.text, 80).c_str());
                }
                waitReplyActive_ = false;
                return true;
            case ScriptCmd::Quit:
                note("%s: quit", where(c).c_str());
                quit_ = true;
                return true;
            default:
                break;
        }
        std::vector<Conn*> targets = agents();
        if (targets.empty()) {
            if (!waitingNoted_) note("%s: waiting for an agent to connect", where(c).c_str());
            waitingNoted_ = true;
            return false;
        }
        std::string msg;
        switch (c.kind) {
            case ScriptCmd::Start: {
                KeywordList kw = opts_.keywords;
                for (const auto& [k, v] : c.keywords) putKeyword(&kw, k, v);
                msg = startMessage(kw);
                running_ = true;
                for (Conn* a : targets) startedAgents_.insert(a->agent);
                break;
            }
            case ScriptCmd::Modify:
                msg = modifyMessage(c.keywords);
                break;
            case ScriptCmd::Stop:
                msg = stopMessage(c.keywords);
                running_ = false;
                startedAgents_.clear();
                stopSent_ = true;
                stopAcked_ = false;
                break;
            case ScriptCmd::Disconnect:
                for (Conn* a : targets) closeConn(*a, "disconnect command");
                note("%s: closed %zu control connection(s)", where(c).c_str(), targets.size());
                return true;
            default:
                msg = c.text;
                break;
        }
        for (Conn* a : targets) send(*a, msg);
        note("%s: sent %s", where(c).c_str(), shown(msg, 200).c_str());
        return true;
    }

    void checkExitAfterStop() {
        if (!opts_.exitAfterStop || !stopAcked_ || quit_) return;
        for (auto& c : conns_)
            if (c->open && c->kind == Kind::Data && !c->sawTen) return;
        note("stop acknowledged and every data connection delivered its 10 record or closed: exiting");
        quit_ = true;
    }

    // ---- output ------------------------------------------------------------------------------

    [[gnu::format(printf, 2, 3)]] void note(const char* fmt, ...) {
        if (opts_.quiet) return;
        char buf[2048];
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(buf, sizeof(buf), fmt, ap);
        va_end(ap);
        fprintf(stderr, "[%7.1fs] %s\n", (monotonicMs() - start_) / 1000.0, buf);
    }

    int openCount(Kind k) const {
        int n = 0;
        for (const auto& c : conns_) n += c->open && c->kind == k;
        return n;
    }

    void printLiveSummary(long long now) {
        if (opts_.quiet) return;
        const double secs = (now - lastSummaryAt_) / 1000.0;
        const double rate = secs > 0 ? (flowpaths_ - fpAtLastSummary_) / secs : 0.0;
        lastSummaryAt_ = now;
        fpAtLastSummary_ = flowpaths_;
        std::string recs;
        for (const auto& [type, count] : recordCounts_) recs += format(" %d:%lld", type, count);
        fprintf(
            stderr,
            "[%7.1fs] open ctrl %d data %d as %d | fp/s %.1f (total %lld) | BTs %zu | records%s | -99 %lld | "
            "10 %lld | heartbeats ctrl %lld data %lld | %s\n",
            (now - start_) / 1000.0, openCount(Kind::Control), openCount(Kind::Data),
            openCount(Kind::AutoSensor), rate, flowpaths_, bts_.size(), recs.empty() ? " none" : recs.c_str(),
            discardMarks_, dataOver_, agentHeartbeats_, dataHeartbeats_,
            running_ ? "test running" : "no test");
    }

    void printFinalSummary() {
        const long long now = monotonicMs();
        FILE* o = stderr;
        fprintf(o, "qvcollector summary after %.1f s (port %d, files in %s)\n", (now - start_) / 1000.0,
                port_, opts_.outDir.c_str());
        fprintf(o, "  connections   control %d, data %d, auto-sensor %d, other %d (accepted %lld)\n",
                opened_[static_cast<int>(Kind::Control)], opened_[static_cast<int>(Kind::Data)],
                opened_[static_cast<int>(Kind::AutoSensor)], opened_[static_cast<int>(Kind::Other)],
                accepted_);
        fprintf(o, "  bytes         control %lld, data %lld, auto-sensor %lld, other %lld\n",
                bytesByKind_[static_cast<int>(Kind::Control)], bytesByKind_[static_cast<int>(Kind::Data)],
                bytesByKind_[static_cast<int>(Kind::AutoSensor)],
                bytesByKind_[static_cast<int>(Kind::Other)]);
        fprintf(o,
                "  agent         heartbeats %lld, start acks %lld, stop acks %lld, modify acks %lld, error "
                "replies "
                "%lld, metadata complete %lld, other metadata replies %lld, other lines %lld\n",
                agentHeartbeats_, startAcks_, stopAcks_, modifyOk_, controlErrors_, metaDone_, metaErrors_,
                otherControlLines_);
        fprintf(o,
                "  flowpaths     %lld, discard marks (-99) %lld, data-over (10) %lld, data heartbeats %lld, "
                "non-record lines %lld, over-long lines %lld\n",
                flowpaths_, discardMarks_, dataOver_, dataHeartbeats_, nonRecordLines_, longLines_);
        fprintf(o, "  records      ");
        if (recordCounts_.empty()) fprintf(o, " none");
        for (const auto& [type, count] : recordCounts_) {
            const char* name = recordTypeName(type);
            fprintf(o, " %d%s%s%s=%lld", type, *name ? " (" : "", name, *name ? ")" : "", count);
        }
        fprintf(o, "\n  BTs           %zu\n", bts_.size());
        int shown = 0;
        for (const auto& [id, name] : bts_) {
            if (++shown > 20) {
                fprintf(o, "                ... %zu more\n", bts_.size() - 20);
                break;
            }
            fprintf(o, "    %6lld  %s\n", id, name.empty() ? "(no 7 record)" : printable(name, 100).c_str());
        }
        if (!recentControl_.empty()) {
            fprintf(o, "  last lines from agents on control connections:\n");
            for (const auto& l : recentControl_) fprintf(o, "    %s\n", l.c_str());
        }
        if (waitFailures_ > 0) fprintf(o, "  script        %d wait(s) timed out\n", waitFailures_);
    }

    ServerOptions opts_;
    int listenFd_ = -1;
    int port_ = 0;
    long long start_ = 0;
    std::vector<std::unique_ptr<Conn>> conns_;
    long long acceptPausedUntil_ = 0;
    long long accepted_ = 0;
    int opened_[kKinds] = {};
    long long bytesByKind_[kKinds] = {};

    // Test-run view of the agents.
    bool running_ = false;
    std::set<std::string> startedAgents_;
    bool stopSent_ = false;
    bool stopAcked_ = false;
    long long silentUntil_ = 0;

    // Script.
    std::deque<ScriptCmd> script_;
    bool headStarted_ = false;
    long long headDeadline_ = 0;
    bool waitingNoted_ = false;
    bool waitReplyActive_ = false;
    bool waitReplyMatched_ = false;
    std::string waitReplyText_;
    int waitFailures_ = 0;
    bool quit_ = false;
    bool stdinEof_ = false;
    std::string stdinLine_;

    // Totals.
    long long nextSummary_ = 0, nextHeartbeat_ = 0, lastSummaryAt_ = 0, fpAtLastSummary_ = 0;
    std::map<int, long long> recordCounts_;
    std::map<long long, std::string> bts_;
    std::deque<std::string> recentControl_;  // last agent lines (heartbeats left out), capped
    long long flowpaths_ = 0, discardMarks_ = 0, dataOver_ = 0, dataHeartbeats_ = 0, nonRecordLines_ = 0,
              longLines_ = 0;
    long long agentHeartbeats_ = 0, startAcks_ = 0, stopAcks_ = 0, modifyOk_ = 0, controlErrors_ = 0,
              metaDone_ = 0, metaErrors_ = 0, otherControlLines_ = 0;
};

}  // namespace

int runServer(const ServerOptions& opts) {
    g_stopSignal = 0;
    Server s(opts);
    return s.run();
}

}  // namespace qvc
