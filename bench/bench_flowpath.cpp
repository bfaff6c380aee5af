// Benchmarks of the flowpath engine's per-event path: entry and exit of a known method in a
// captured flowpath with the monitors on and a data thread draining to a loopback reader (also
// with a large registry), the allocations made on that path, and the memory a pool record costs.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "backend/QVBackendMonitor.h"
#include "bt/QVBTMonitor.h"
#include "collector/QVDataDispatcher.h"
#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
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

Reader g_reader;
qvc_servers g_server;
bool g_ready = false;

// The agent as the SDK starts it, every flowpath captured, the monitors on, and a data thread
// connected to the reader. Once per process; the agent then lives until exit.
bool setUpAgent() {
    static bool done = false;
    if (done) return g_ready;
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
    if (!g_reader.start()) return false;
    g_server = {1, static_cast<unsigned int>(g_reader.port()), const_cast<char*>("127.0.0.1")};
    qvc_server_arr = &g_server;
    server_arr_size = 1;
    active_qvc_idx = 0;
    qv_store(app->QVBCISetting.qvcPort, g_reader.port());
    qv_store(app->Server.testRunRunning, 1);
    qv_store(app->Server.retryForDataConn, 1);
    check_data_thread();
    while (g_reader.bytes() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g_ready = true;
    return true;
}

char g_url[] = "/bench/flowpath";
char g_test[] = "/test";

QVPerThreadData_t* beginFlowpath() {
    return static_cast<QVPerThreadData_t*>(
        startFP(nullptr, g_url, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0));
}

void endFlowpath(QVPerThreadData_t* td) {
    endFP(td, 200, nullptr);
    reset(td);
}

// A flowpath counts every non-service entry and stops writing past bciMaxNonServiceMethodsPerFP
// (50000): a new one is started well before, outside the timed region.
constexpr int kPairsPerFlowpath = 20000;

void runEntryExit(benchmark::State& state, char* method) {
    if (!setUpAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    QVPerThreadData_t* td = beginFlowpath();
    // Registers the method: from here on it is known.
    qvMethodEntry(nullptr, td, method, g_test, nullptr, 0, nullptr, nullptr, 0);
    qvMethodExit(nullptr, td, method, 0, 200, nullptr, 0, 0, 0, nullptr, 1);
    int pairs = 1;
    const long long discards0 = qv_load(qvApplication->QVSys.discardCount);
    for (auto _ : state) {
        benchmark::DoNotOptimize(qvMethodEntry(nullptr, td, method, g_test, nullptr, 0, nullptr, nullptr, 0));
        benchmark::DoNotOptimize(qvMethodExit(nullptr, td, method, 0, 200, nullptr, 0, 0, 0, nullptr, 1));
        if (++pairs == kPairsPerFlowpath) {
            state.PauseTiming();
            endFlowpath(td);
            td = beginFlowpath();
            pairs = 0;
            state.ResumeTiming();
        }
    }
    endFlowpath(td);
    state.counters["records_dropped"] =
        static_cast<double>(qv_load(qvApplication->QVSys.discardCount) - discards0);
}

char g_ordinary[] = "bench.Ordinary.method";
char g_monitored[] = "bench.Monitored.method";

void BM_MethodEntryExitOrdinary(benchmark::State& state) {
    runEntryExit(state, g_ordinary);
}
BENCHMARK(BM_MethodEntryExitOrdinary);

// Same with the method flagged for the method monitor (counted at every exit).
void BM_MethodEntryExitMonitored(benchmark::State& state) {
    if (!setUpAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    methodPropProperties* m = searchAndUpdateMethodHashMap(g_monitored, nullptr, 0, 0);
    if (m == nullptr) {
        state.SkipWithError("no method");
        return;
    }
    qv_store(m->isEntryPoint, qv_load(m->isEntryPoint) | QV_EP_MONITORED);
    runEntryExit(state, g_monitored);
}
BENCHMARK(BM_MethodEntryExitMonitored);

// Same as the ordinary pair with 10,000 other methods registered, so the name lookups of entry
// and exit run against a registry of a realistic size rather than a near-empty one.
void BM_MethodEntryExitLargeRegistry(benchmark::State& state) {
    if (!setUpAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    static bool filled = false;
    if (!filled) {
        filled = true;
        char name[64];
        for (int i = 0; i < 10000; i++) {
            snprintf(name, sizeof(name), "bench.Filler%d.method", i);
            searchAndUpdateMethodHashMap(name, nullptr, 0, 0, sizeof(name));
        }
    }
    runEntryExit(state, g_ordinary);
}
BENCHMARK(BM_MethodEntryExitLargeRegistry);

// Allocations on the per-event path once the method is known (expected: none).
void BM_MethodEntryExitAllocations(benchmark::State& state) {
    if (!setUpAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    QVPerThreadData_t* td = beginFlowpath();
    qvMethodEntry(nullptr, td, g_ordinary, g_test, nullptr, 0, nullptr, nullptr, 0);
    qvMethodExit(nullptr, td, g_ordinary, 0, 200, nullptr, 0, 0, 0, nullptr, 1);
    constexpr int kPairs = 10000;  // several blob write-outs included
    long allocs = 0;
    for (auto _ : state) {
        g_allocs = 0;
        g_counting = true;
        for (int i = 0; i < kPairs; ++i) {
            qvMethodEntry(nullptr, td, g_ordinary, g_test, nullptr, 0, nullptr, nullptr, 0);
            qvMethodExit(nullptr, td, g_ordinary, 0, 200, nullptr, 0, 0, 0, nullptr, 1);
        }
        g_counting = false;
        allocs += g_allocs.load();
        state.PauseTiming();
        endFlowpath(td);
        td = beginFlowpath();
        state.ResumeTiming();
    }
    endFlowpath(td);
    state.counters["mallocs_per_pair"] =
        static_cast<double>(allocs) / (static_cast<double>(state.iterations()) * kPairs);
}
BENCHMARK(BM_MethodEntryExitAllocations)->Iterations(20)->Unit(benchmark::kMillisecond);

// Heap bytes one pool record costs: the pool grows by one block of 64 records.
void BM_PoolRecordMemory(benchmark::State& state) {
    if (!setUpAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    double perRecord = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<QVPerThreadData_t*> taken;
        const int created0 = qv_load(g_tlsidx);
        struct mallinfo2 before = mallinfo2();
        // Take records until a new block was carved.
        while (qv_load(g_tlsidx) == created0) {
            QVPerThreadData_t* r = get_free_tls_slot();
            if (r == nullptr) break;
            taken.push_back(r);
        }
        struct mallinfo2 after = mallinfo2();
        const int created = qv_load(g_tlsidx) - created0;
        const double bytes =
            static_cast<double>((after.uordblks + after.hblkhd) - (before.uordblks + before.hblkhd));
        perRecord = created > 0 ? bytes / created : 0;
        for (QVPerThreadData_t* r : taken) {
            resetAllThreadLocals(r, tlsdatastruct.load());
            free_tls_slot(r);
        }
        state.ResumeTiming();
    }
    state.counters["sizeof_record"] = static_cast<double>(sizeof(QVPerThreadData_t));
    state.counters["heap_bytes_per_record"] = perRecord;
}
BENCHMARK(BM_PoolRecordMemory)->Iterations(1);

// Stops the data thread (closing its connection ends the reader's read) and the reader.
void tearDownAgent() {
    if (!g_ready) return;
    qv_store(qvApplication->Server.testRunRunning, 0);
    qv_agent_shutdown();
    g_reader.stop();
    qvc_server_arr = nullptr;
    server_arr_size = 0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    tearDownAgent();
    return 0;
}
