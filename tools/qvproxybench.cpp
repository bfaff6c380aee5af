// qvproxybench: throughput and CPU cost of the proxy server. Worker processes (tools/qvworker)
// run SDK transactions of a number of method pairs each, through tools/qvproxy (on TCP and on its
// Unix socket) to tools/qvcollector, and the same workers with the agent in process for
// comparison. A run ends when the collector has every transaction's end record. Prints, per
// mode, transactions per second, the workers' and the proxy's CPU time per transaction.
//
//   qvproxybench [--transactions N] [--workers W] [--pairs P] [--modes direct,tcp,unix]
// The proxy's peak resident memory is reported too: workers that never reset their transactions
// (the SDK) leave every record with the proxy until they disconnect.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "../tests/support/piped_child.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using Child = PipedChild;
constexpr int kWaitMs = 600000;  // a broken run gives up after this

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const fs::path& p, const std::string& text) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << text;
}

// User plus system CPU time of a process, in microseconds (from /proc/<pid>/stat).
long long processCpuMicros(pid_t pid) {
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    if (paren == std::string::npos) return -1;
    std::istringstream in(stat.substr(paren + 2));
    std::string field;
    long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && in >> field; ++i) {
        if (i == 14) utime = atoll(field.c_str());
        if (i == 15) stime = atoll(field.c_str());
    }
    return (utime + stime) * 1000000LL / sysconf(_SC_CLK_TCK);
}

struct Result {
    std::string mode;
    long long traced = 0, delivered = 0;
    double seconds = 0, workerUsPerTx = 0, proxyUsPerTx = 0;
    long long proxyPeakKb = 0;
    bool ok = false;
};

std::string toolPath(const std::string& self, const char* name) {
    return (fs::path(self).parent_path() / name).string();
}

Result runMode(const std::string& self, const std::string& mode, const fs::path& root, long long total,
               int workers, int pairs) {
    Result r;
    r.mode = mode;
    const fs::path dir = root / mode;
    fs::create_directories(dir);
    // Buffers large enough that a burst does not overflow them in either mode.
    Child qvc;
    const std::string portFile = (dir / "qvc.port").string();
    if (!qvc.start(toolPath(self, "qvcollector"),
                   {"--port", "0", "--port-file", portFile, "--out", (dir / "qvc").string(),
                    "--summary-interval", "0", "--interactive", "--keyword", "bciDataBufferMaxCount=64",
                    "--keyword", "bciDataBufferMaxSize=1048576"},
                   {}, (dir / "qvc.events").string()))
        return r;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (readFile(portFile).empty() && Clock::now() < deadline) usleep(10000);
    const std::string qvcPort = readFile(portFile);
    if (qvcPort.empty()) return r;

    Child proxy;
    std::string workerConf = "tier=Bench\nserver=BenchServer\ninstance=BenchApp\nqvcHost=127.0.0.1\nqvcPort=";
    if (mode == "direct") {
        workerConf += qvcPort + "\n";
    } else {
        const fs::path home = dir / "proxy";
        writeFile(home / "config/proxysetting.conf",
                  "proxyPort=0\nqvcHost=127.0.0.1\nqvcPort=" + qvcPort + "\n");
        writeFile(home / "etc/version", "5.1.0 build 42\n");
        const std::string sock = (home / "qvproxy.sock").string();
        if (!proxy.start(toolPath(self, "qvproxy"), {"--port", "0", "--socket", sock},
                         {"QVHOME=" + home.string() + "/"}, (dir / "proxy.stderr").string()))
            return r;
        const std::string ready = proxy.readLine(30000);
        const size_t p = ready.find("port=");
        if (p == std::string::npos) {
            fprintf(stderr, "qvproxybench: qvproxy did not start: '%s'\n", ready.c_str());
            return r;
        }
        workerConf +=
            "1\nproxyMode=1\nproxyIP=127.0.0.1\nproxyPort=" + std::to_string(atoi(ready.c_str() + p + 5)) +
            "\n" + (mode == "unix" ? "proxyConType=1\nproxySocketPath=" + sock + "\n" : "");
    }
    const fs::path whome = dir / "worker";
    writeFile(whome / "config/qvsettings.conf", workerConf);
    writeFile(whome / "etc/version", "5.1.0 build 42\n");
    fs::create_directories(whome / "logs");

    std::vector<std::unique_ptr<Child>> w;
    for (int i = 0; i < workers; ++i) {
        w.push_back(std::make_unique<Child>());
        if (!w.back()->start(toolPath(self, "qvworker"), {}, {"QVHOME=" + whome.string() + "/"},
                             (dir / "worker.stderr").string()))
            return r;
    }
    std::vector<long long> cpu0;
    for (auto& c : w) {
        if (c->readLine(60000).rfind("ready", 0) != 0) {
            fprintf(stderr, "qvproxybench: a worker did not get ready (%s)\n", mode.c_str());
            return r;
        }
        c->send("cpu\n");
        cpu0.push_back(c->answer("cpu_us "));
    }
    const long long proxyCpu0 = proxy.pid() > 0 ? processCpuMicros(proxy.pid()) : 0;

    const auto t0 = Clock::now();
    for (int i = 0; i < workers; ++i) {
        const long long share = total / workers + (i < total % workers ? 1 : 0);
        w[i]->send("run " + std::to_string(share) + " " + std::to_string(pairs) + " /bench/w" +
                   std::to_string(i) + "\n");
    }
    for (auto& c : w) r.traced += std::max(0LL, c->answer("traced "));
    qvc.send("wait-records 4 " + std::to_string(r.traced) + " " + std::to_string(kWaitMs) + "\n");
    const std::string done = std::to_string(r.traced) + " records of type 4 received";
    while (Clock::now() - t0 < std::chrono::milliseconds(kWaitMs)) {
        const std::string ev = readFile(dir / "qvc.events");
        if (ev.find(done) != std::string::npos) {
            r.delivered = r.traced;
            break;
        }
        if (ev.find("wait-records 4") != std::string::npos && ev.find("timed out") != std::string::npos)
            break;
        usleep(2000);
    }
    r.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    long long workerCpu = 0;
    for (int i = 0; i < workers; ++i) {
        w[i]->send("cpu\n");
        workerCpu += w[i]->answer("cpu_us ") - cpu0[i];
    }
    const long long proxyCpu = proxy.pid() > 0 ? processCpuMicros(proxy.pid()) - proxyCpu0 : 0;
    if (proxy.pid() > 0) {
        const std::string st = readFile("/proc/" + std::to_string(proxy.pid()) + "/status");
        const size_t at = st.find("VmHWM:");
        if (at != std::string::npos) r.proxyPeakKb = atoll(st.c_str() + at + 6);
    }
    if (r.traced > 0) {
        r.workerUsPerTx = static_cast<double>(workerCpu) / static_cast<double>(r.traced);
        r.proxyUsPerTx = static_cast<double>(proxyCpu) / static_cast<double>(r.traced);
    }
    for (auto& c : w) {
        c->send("quit\n");
        c->waitExit();
    }
    if (proxy.pid() > 0 && (proxy.kill(SIGTERM), proxy.waitExit()) != 0)
        fprintf(stderr, "qvproxybench: qvproxy did not exit cleanly\n");
    qvc.send("quit\n");
    qvc.waitExit();
    r.ok = r.delivered == total;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    long long total = 200000;
    int workers = 8, pairs = 10;
    std::string modes = "direct,tcp,unix";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--transactions" && i + 1 < argc) {
            total = atoll(argv[++i]);
        } else if (a == "--workers" && i + 1 < argc) {
            workers = atoi(argv[++i]);
        } else if (a == "--pairs" && i + 1 < argc) {
            pairs = atoi(argv[++i]);
        } else if (a == "--modes" && i + 1 < argc) {
            modes = argv[++i];
        } else {
            fprintf(stderr,
                    "usage: %s [--transactions N] [--workers W] [--pairs P] [--modes direct,tcp,unix]\n"
                    "Runs N transactions of P method pairs on W worker processes per mode: direct (agent in\n"
                    "process), tcp and unix (through qvproxy); prints throughput and CPU per transaction.\n",
                    argv[0]);
            return 2;
        }
    }
    if (total < 1 || workers < 1 || pairs < 1) return 2;
    signal(SIGPIPE, SIG_IGN);
    char tmpl[] = "/tmp/qvproxybench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 1;
    const fs::path root = tmpl;
    const std::string self = fs::read_symlink("/proc/self/exe").string();

    printf("%lld transactions of %d method pairs on %d worker processes\n", total, pairs, workers);
    printf("%-7s %10s %10s %9s %16s %15s %13s\n", "mode", "tx/s", "delivered", "seconds", "worker CPU us/tx",
           "proxy CPU us/tx", "proxy peak MB");
    fflush(stdout);
    bool ok = true;
    std::stringstream list(modes);
    for (std::string mode; std::getline(list, mode, ',');) {
        const Result r = runMode(self, mode, root, total, workers, pairs);
        char proxyCpu[32] = "-", proxyMb[32] = "-";
        if (mode != "direct") {
            snprintf(proxyCpu, sizeof(proxyCpu), "%.2f", r.proxyUsPerTx);
            snprintf(proxyMb, sizeof(proxyMb), "%.0f", r.proxyPeakKb / 1024.0);
        }
        printf("%-7s %10.0f %10lld %9.2f %16.2f %15s %13s\n", mode.c_str(),
               r.seconds > 0 ? r.delivered / r.seconds : 0.0, r.delivered, r.seconds, r.workerUsPerTx,
               proxyCpu, proxyMb);
        fflush(stdout);
        ok = ok && r.ok;
    }
    std::error_code ec;
    if (ok)
        fs::remove_all(root, ec);
    else
        fprintf(stderr, "qvproxybench: captures and logs kept in %s\n", root.c_str());
    return ok ? 0 : 1;
}
