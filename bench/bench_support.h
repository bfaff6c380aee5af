// Scaffolding shared by the benchmarks: an allocation counter interposed on malloc, a loopback
// reader that drains a data connection, and the agent started as the SDK starts it with a data
// thread connected to that reader. Include from exactly one file per benchmark program.
#ifndef QV_BENCH_SUPPORT_H
#define QV_BENCH_SUPPORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "backend/QVBackendMonitor.h"
#include "bt/QVBTMonitor.h"
#include "collector/QVDataDispatcher.h"
#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "mm/QVMethodMonitor.h"
#include "sdk/qv_sdk.h"

// Counting interposer: every malloc/calloc/realloc of the process passes here; only calls made
// while counting is on are counted.
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
static std::atomic<bool> g_counting{false};
static std::atomic<long> g_allocs{0};
extern "C" void* malloc(size_t n) noexcept {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t m) noexcept {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n) noexcept {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}

namespace {

// Reads and discards what arrives on 127.0.0.1.
class Reader {
  public:
    bool start() {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(fd_, 4) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            return false;
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] {
            std::vector<char> buf(1 << 20);
            for (;;) {
                const int c = accept(fd_, nullptr, nullptr);
                if (c < 0) return;
                ssize_t n;
                while ((n = read(c, buf.data(), buf.size())) > 0)
                    bytes_.fetch_add(n, std::memory_order_relaxed);
                close(c);
            }
        });
        return true;
    }
    void stop() {
        shutdown(fd_, SHUT_RDWR);
        close(fd_);
        if (thread_.joinable()) thread_.join();
    }
    int port() const { return port_; }
    long long bytes() const { return bytes_.load(std::memory_order_relaxed); }

  private:
    int fd_ = -1;
    int port_ = 0;
    std::atomic<long long> bytes_{0};
    std::thread thread_;
};

[[maybe_unused]] Reader g_sdkReader;
[[maybe_unused]] qvc_servers g_sdkServer;
[[maybe_unused]] bool g_sdkReady = false;

// The agent as the SDK starts it, every flowpath captured, the monitors on, and a data thread
// connected to the reader. Once per process; the agent then lives until exit.
[[maybe_unused]] bool setUpSdkAgent() {
    static bool done = false;
    if (done) return g_sdkReady;
    done = true;
    char tmpl[] = "/tmp/qvbench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return false;
    std::string home = std::string(tmpl) + "/";
    mkdir((home + "logs").c_str(), 0755);
    setenv("QVHOME", home.c_str(), 1);
    qv_init_internal(0);
    if (qvApplication == nullptr) return false;
    qv_agent_shutdown();  // no collector: the control thread is not needed
    qv_store(qvAgentStopping, 0);
    QVProxyInstance_t* app = qvApplication;
    qv_store(app->QVSys.bciInstrSessionPct, 100);
    qv_store(app->QVSys.qvcBciDataConnectionHeartBeat, 0);
    qv_store(QVMethodMonitor.isMethodMonitorOn, '1');
    qv_store(QVBTMonitor.isBTMonitorOn, '1');
    setBackendMonitorEnabled(1);
    if (!g_sdkReader.start()) return false;
    g_sdkServer = {1, static_cast<unsigned int>(g_sdkReader.port()), const_cast<char*>("127.0.0.1")};
    qvc_server_arr = &g_sdkServer;
    server_arr_size = 1;
    active_qvc_idx = 0;
    qv_store(app->QVBCISetting.qvcPort, g_sdkReader.port());
    qv_store(app->Server.testRunRunning, 1);
    qv_store(app->Server.retryForDataConn, 1);
    check_data_thread();
    while (g_sdkReader.bytes() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g_sdkReady = true;
    return true;
}

// Stops the data thread (closing its connection ends the reader's read) and the reader.
[[maybe_unused]] void tearDownSdkAgent() {
    if (!g_sdkReady) return;
    qv_store(qvApplication->Server.testRunRunning, 0);
    qv_agent_shutdown();
    g_sdkReader.stop();
    qvc_server_arr = nullptr;
    server_arr_size = 0;
}

// main of a benchmark program that may have started the agent.
[[maybe_unused]] int runBenchmarksThenStopAgent(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    tearDownSdkAgent();
    return 0;
}

}  // namespace

#endif
