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

#include "bench_support.h"

namespace {

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
    if (!setUpSdkAgent()) {
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
    if (!setUpSdkAgent()) {
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
    if (!setUpSdkAgent()) {
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
    if (!setUpSdkAgent()) {
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
    if (!setUpSdkAgent()) {
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

}  // namespace

int main(int argc, char** argv) {
    return runBenchmarksThenStopAgent(argc, argv);
}
