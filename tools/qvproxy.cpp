// qvproxy: the per-host proxy server. Worker processes in proxy mode send it their events; it
// builds the flowpaths of every application instance and talks to the collector for each.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "foundation/qvlb_util.h"
#include "proxy/qv_proxy_server.h"

namespace {

volatile sig_atomic_t stopRequested = 0;

void onSignal(int) {
    stopRequested = 1;
}

void usage(FILE* out) {
    fprintf(out,
            "usage: QVHOME=<agent home> qvproxy [options]\n"
            "\n"
            "Runs in the foreground. Settings come from <home>/config/proxysetting.conf (proxyPort,\n"
            "proxySocketPath, qvcHost, qvcPort, ...) and <home>/config/processes.conf; the trace log is\n"
            "written under <home>/logs/. Once listening it prints\n"
            "  qvproxy ready port=<tcp port> socket=<unix socket path>\n"
            "A client that sends \"status\" and a newline on the Unix socket gets the figures as one\n"
            "line of JSON. SIGTERM or SIGINT flushes the records held for the collector and exits 0.\n"
            "\n"
            "options:\n"
            "  --port N               TCP listen port (overrides proxyPort; 0 picks a free one)\n"
            "  --socket PATH          Unix-domain socket path (overrides proxySocketPath; default\n"
            "                         <home>/run/qvproxy.sock)\n"
            "  --socket-mode MODE     permissions of the socket file, octal (default 0600)\n"
            "  --max-connections N    worker connections at once; more are refused (default 1024)\n"
            "  --max-buffer BYTES     receive buffer per connection (default 262144, at least 4096); a\n"
            "                         frame longer than it (or than 131072) is refused\n"
            "  --status-interval S    seconds between status lines in the trace log (default 60; 0 off)\n"
            "  -h, --help             this text\n");
}

bool parseLong(const char* s, long lo, long hi, long* out, int base = 10) {
    if (s == nullptr || *s == '\0') return false;
    char* end = nullptr;
    errno = 0;
    const long v = strtol(s, &end, base);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QVProxyOptions opts;
    for (int i = 1; i < argc; ++i) {
        const std::string_view a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        long n = 0;
        bool ok = true;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--port") {
            ok = parseLong(v, 0, 65535, &n);
            opts.port = static_cast<int>(n);
        } else if (a == "--socket") {
            ok = v != nullptr && *v != '\0';
            if (ok) opts.socketPath = v;
        } else if (a == "--socket-mode") {
            ok = parseLong(v, 0, 0777, &n, 8);
            opts.socketMode = static_cast<int>(n);
        } else if (a == "--max-connections") {
            ok = parseLong(v, 1, 1000000, &n);
            opts.maxConnections = static_cast<int>(n);
        } else if (a == "--max-buffer") {
            ok = parseLong(v, 4096, 1L << 30, &n);
            opts.maxBuffer = static_cast<size_t>(n);
        } else if (a == "--status-interval") {
            ok = parseLong(v, 0, 86400, &n);
            opts.statusIntervalSec = static_cast<int>(n);
        } else {
            ok = false;
        }
        if (!ok) {
            fprintf(stderr, "qvproxy: bad or incomplete option '%s'\n", argv[i]);
            usage(stderr);
            return 2;
        }
        ++i;
    }

    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    if (qvProxyInit(opts) != 0) return 1;
    while (stopRequested == 0) qvlb_sleep_ms_interruptible(100, nullptr);
    qvProxyShutdown();
    return 0;
}
