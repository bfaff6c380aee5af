// qvproxyloop: a minimal proxy for applications running in proxy mode. Accepts their
// connections on a loopback port (and optionally a Unix socket) and replays the frames they send
// through this process's flowpath engine for one application instance; the rebuilt flowpath
// records go to a collector's data connection when one is given.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "codec/qvlb_decode.h"
#include "collector/QVDataDispatcher.h"
#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "sdk/qv_sdk.h"

namespace {

volatile sig_atomic_t stopRequested = 0;

void onSignal(int) {
    stopRequested = 1;
}

void usage(FILE* out) {
    fprintf(out,
            "usage: qvproxyloop [options]\n"
            "\n"
            "  --port N              listen on 127.0.0.1:N (0, the default, picks a free port); the port\n"
            "                        is printed on stdout as \"port N\"\n"
            "  --unix PATH           also listen on a Unix-domain socket at PATH (replaced if present)\n"
            "  --collector HOST:PORT send the rebuilt flowpath records over a data connection to a\n"
            "                        collector (without it they are built and dropped)\n"
            "  --keywords TEXT       collector keywords applied at start-up, \"k=v;k=v\"\n"
            "                        (e.g. bciInstrSessionPct=100)\n"
            "  --trace-level N       decoder trace level (controlTraceLevel; 4 logs every frame)\n"
            "\n"
            "The agent home (trace logs) is QVHOME. SIGINT or SIGTERM flushes the records and exits.\n");
}

bool parseInt(const char* s, int lo, int hi, int* out) {
    if (s == nullptr || *s == '\0') return false;
    char* end = nullptr;
    long v = strtol(s, &end, 10);
    if (*end != '\0' || v < lo || v > hi) return false;
    *out = static_cast<int>(v);
    return true;
}

int listenTcp(int port, int* boundPort) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *boundPort = ntohs(a.sin_port);
    return fd;
}

int listenUnix(const char* path) {
    sockaddr_un a{};
    if (strlen(path) >= sizeof(a.sun_path)) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    a.sun_family = AF_UNIX;
    memcpy(a.sun_path, path, strlen(path) + 1);
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(fd, 16) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Points the data connection at the collector and starts the data thread.
bool connectCollector(QVProxyInstance_t* app, const std::string& hostPort) {
    static qvc_servers server{};
    static std::string host;
    const size_t colon = hostPort.rfind(':');
    int port = 0;
    if (colon == std::string::npos || !parseInt(hostPort.c_str() + colon + 1, 1, 65535, &port)) return false;
    host = hostPort.substr(0, colon);
    server = {1, static_cast<unsigned int>(port), host.data()};
    qvc_server_arr = &server;
    server_arr_size = 1;
    active_qvc_idx = 0;
    qv_store(app->QVBCISetting.qvcPort, port);
    qv_store(app->Server.retryForDataConn, 1);
    return check_data_thread() == 0;
}

}  // namespace

int main(int argc, char** argv) {
    int port = 0;
    int traceLevel = -1;
    const char* unixPath = nullptr;
    std::string collector;
    std::string keywords;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok = true;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--port") {
            ok = parseInt(v, 0, 65535, &port);
        } else if (a == "--unix") {
            ok = v != nullptr && *v != '\0';
            unixPath = v;
        } else if (a == "--collector") {
            ok = v != nullptr;
            if (ok) collector = v;
        } else if (a == "--keywords") {
            ok = v != nullptr;
            if (ok) keywords = v;
        } else if (a == "--trace-level") {
            ok = parseInt(v, 0, 4, &traceLevel);
        } else {
            ok = false;
        }
        if (!ok) {
            usage(stderr);
            return 2;
        }
        ++i;
    }

    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);

    // This process builds the flowpaths: it must never forward them itself.
    QVProxy.proxyServerFlag = 1;
    qv_init_internal(0);
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) {
        fprintf(stderr, "qvproxyloop: agent start-up failed\n");
        return 1;
    }
    // No collector drives this process: its control thread is not wanted.
    qv_agent_shutdown();
    qv_store(qvAgentStopping, 0);
    if (traceLevel >= 0) qv_store(app->QVSys.controlTraceLevel, traceLevel);
    if (!keywords.empty()) {
        std::string msg = "qv_control_req:action=modify;" + keywords;
        if (findStatusFromClientMsg(msg.data()) < 0) fprintf(stderr, "qvproxyloop: keywords not applied\n");
    }
    app->fpi_tls_map = create_hashmap(nullptr);
    if (app->fpi_tls_map == nullptr || qvlbSetDecodeInstance(0, app) != 0) {
        fprintf(stderr, "qvproxyloop: no memory for the transaction map\n");
        return 1;
    }
    qv_store(app->Server.testRunRunning, 1);
    if (!collector.empty() && !connectCollector(app, collector)) {
        fprintf(stderr, "qvproxyloop: bad collector address or data thread not started: %s\n",
                collector.c_str());
        return 2;
    }

    std::vector<pollfd> fds;
    int bound = 0;
    const int tcp = listenTcp(port, &bound);
    if (tcp < 0) {
        fprintf(stderr, "qvproxyloop: cannot listen on 127.0.0.1:%d: %s\n", port, strerror(errno));
        return 1;
    }
    fds.push_back({tcp, POLLIN, 0});
    if (unixPath != nullptr) {
        const int u = listenUnix(unixPath);
        if (u < 0) {
            fprintf(stderr, "qvproxyloop: cannot listen on %s: %s\n", unixPath, strerror(errno));
            return 1;
        }
        fds.push_back({u, POLLIN, 0});
        printf("unix %s\n", unixPath);
    }
    const size_t listeners = fds.size();
    printf("port %d\n", bound);
    fflush(stdout);

    // One read is decoded as it comes: the format carries nothing over between reads, so a
    // buffer as large as the largest frame keeps whole frames whole.
    static char buf[QV_MSG_MAX_FRAME];
    while (stopRequested == 0) {
        if (poll(fds.data(), fds.size(), 100) < 0 && errno != EINTR) break;
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            if (i < listeners) {
                const int c = accept4(fds[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
                if (c >= 0) fds.push_back({c, POLLIN, 0});
                continue;
            }
            const ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                decodeMessage(buf, static_cast<int>(n), 0);
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
        for (size_t i = fds.size(); i-- > listeners;)
            if (fds[i].fd < 0) fds.erase(fds.begin() + static_cast<long>(i));
        for (pollfd& p : fds) p.revents = 0;
    }

    for (const pollfd& p : fds) close(p.fd);
    if (unixPath != nullptr) unlink(unixPath);
    flushData();
    qv_data_thread_stop();
    qv_agent_shutdown();
    return 0;
}
