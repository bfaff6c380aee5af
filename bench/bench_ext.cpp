// Benchmarks of the extension interface: the cost of one traced method (entry and exit by id,
// durations from the monotonic clock) and of one request (begin and end, record returned), with
// the pool's size after them.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "backend/QVBackendMonitor.h"
#include "bt/QVBTMonitor.h"
#include "collector/QVDataDispatcher.h"
#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "mm/QVMethodMonitor.h"
#include "sdk/qv_ext.h"
#include "sdk/qv_sdk.h"

#include "bench_support.h"

namespace {

// A new request well before the non-service method limit.
constexpr int kPairsPerRequest = 20000;

bool setUpExt() {
    return setUpSdkAgent() && qv_ext_init() == QV_EXT_OK;
}

void BM_ExtMethodEntryExit(benchmark::State& state) {
    if (!setUpExt()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    const int method = qv_ext_method_register("bench.Ext.method");
    qv_ext_request r = 0;
    qv_ext_request_begin("/bench/ext", nullptr, &r);
    int pairs = 0;
    for (auto _ : state) {
        qv_ext_method_entry(r, method);
        qv_ext_method_exit(r, method);
        if (++pairs == kPairsPerRequest) {
            state.PauseTiming();
            qv_ext_request_end(r, 200, 0);
            qv_ext_request_begin("/bench/ext", nullptr, &r);
            pairs = 0;
            state.ResumeTiming();
        }
    }
    qv_ext_request_end(r, 200, 0);
}
BENCHMARK(BM_ExtMethodEntryExit);

// Begin and end of a request with one method; the pool does not grow however many run.
void BM_ExtRequest(benchmark::State& state) {
    if (!setUpExt()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    const int method = qv_ext_method_register("bench.Ext.method");
    for (auto _ : state) {
        qv_ext_request r = 0;
        qv_ext_request_begin("/bench/ext", nullptr, &r);
        qv_ext_method_entry(r, method);
        qv_ext_method_exit(r, method);
        qv_ext_request_end(r, 200, 0);
    }
    state.counters["pool_records"] = qv_load(g_tlsidx);
}
BENCHMARK(BM_ExtRequest);

}  // namespace

int main(int argc, char** argv) {
    return runBenchmarksThenStopAgent(argc, argv);
}
