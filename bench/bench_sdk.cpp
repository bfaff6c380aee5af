// Benchmarks of the exported SDK: a method entry and exit pair with its four log lines, an empty
// transaction with a known BT (begin and end with their records), and the allocations of both.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
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
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "mm/QVMethodMonitor.h"
#include "sdk/qv_sdk.h"

#include "bench_support.h"

namespace {

char g_bt[] = "/bench/sdk";
char g_method[] = "bench.Sdk.method";

// As in the engine's benchmark: a new transaction well before the non-service method limit.
constexpr int kPairsPerTransaction = 20000;

// Keeps the SDK log from growing without bound: it is emptied with each new transaction.
void truncateSdkLog() {
    qvSDKLog* log = qv_sdk_log;
    if (log == nullptr || log->file_fp == nullptr) return;
    qv_sdk_log_flush();
    if (ftruncate(fileno(log->file_fp), 0) == 0) fseek(log->file_fp, 0, SEEK_SET);
}

qvBTHandle restart(qvBTHandle h) {
    truncateSdkLog();
    qv_bt_end(h);
    reset(static_cast<QVPerThreadData_t*>(h));
    return qv_bt_begin(g_bt, nullptr);
}

void BM_SdkMethodEntryExit(benchmark::State& state) {
    if (!setUpSdkAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    qvBTHandle h = qv_bt_begin(g_bt, nullptr);
    qv_method_entry(h, g_method);  // the method is known from here on
    qv_method_exit(h, g_method);
    int pairs = 1;
    for (auto _ : state) {
        qv_method_entry(h, g_method);
        qv_method_exit(h, g_method);
        if (++pairs == kPairsPerTransaction) {
            state.PauseTiming();
            h = restart(h);
            pairs = 0;
            state.ResumeTiming();
        }
    }
    qv_bt_end(h);
    reset(static_cast<QVPerThreadData_t*>(h));
}
BENCHMARK(BM_SdkMethodEntryExit);

// One SDK log line with arguments, and one without, as qv_method_entry writes them.
void BM_SdkLogLine(benchmark::State& state) {
    if (!setUpSdkAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    const bool withArgs = state.range(0) != 0;
    long lines = 0;
    for (auto _ : state) {
        if (withArgs)
            qv_sdk_trace_log(2, "qv_method_entry", 123, "Method Called, bt_handle = [%p], method = [%s]",
                             static_cast<void*>(&lines), g_method);
        else
            qv_sdk_trace_log(1, "qv_method_entry", 125, "Method End");
        if ((++lines & 0xfffff) == 0) {
            state.PauseTiming();
            truncateSdkLog();
            state.ResumeTiming();
        }
    }
}
BENCHMARK(BM_SdkLogLine)->Arg(1)->Arg(0);

// Begin and end of an empty transaction of a known BT, header and end records included. The
// record is not given back at qv_bt_end; reset does that outside the measured time, so the pool
// does not grow.
void BM_SdkBtBeginEnd(benchmark::State& state) {
    if (!setUpSdkAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    qvBTHandle warm = qv_bt_begin(g_bt, nullptr);  // the BT is known from here on
    qv_bt_end(warm);
    reset(static_cast<QVPerThreadData_t*>(warm));
    long transactions = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        qvBTHandle h = qv_bt_begin(g_bt, nullptr);
        qv_bt_end(h);
        const auto t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        reset(static_cast<QVPerThreadData_t*>(h));
        if ((++transactions & 0xffff) == 0) truncateSdkLog();
    }
    state.counters["pool_records"] = qv_load(g_tlsidx);
}
BENCHMARK(BM_SdkBtBeginEnd)->UseManualTime();

// Allocations per SDK method pair and per empty transaction once method and BT are known.
void BM_SdkAllocations(benchmark::State& state) {
    if (!setUpSdkAgent()) {
        state.SkipWithError("agent set-up failed");
        return;
    }
    constexpr int kPairs = 10000;
    constexpr int kTransactions = 1000;
    long pairAllocs = 0, txAllocs = 0;
    for (auto _ : state) {
        qvBTHandle h = qv_bt_begin(g_bt, nullptr);
        qv_method_entry(h, g_method);
        qv_method_exit(h, g_method);
        g_allocs = 0;
        g_counting = true;
        for (int i = 0; i < kPairs; ++i) {
            qv_method_entry(h, g_method);
            qv_method_exit(h, g_method);
        }
        g_counting = false;
        pairAllocs += g_allocs.load();
        qv_bt_end(h);
        reset(static_cast<QVPerThreadData_t*>(h));
        truncateSdkLog();
        g_allocs = 0;
        for (int i = 0; i < kTransactions; ++i) {
            g_counting = true;
            h = qv_bt_begin(g_bt, nullptr);
            qv_bt_end(h);
            g_counting = false;
            reset(static_cast<QVPerThreadData_t*>(h));
        }
        txAllocs += g_allocs.load();
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["mallocs_per_method_pair"] = static_cast<double>(pairAllocs) / (n * kPairs);
    state.counters["mallocs_per_transaction"] = static_cast<double>(txAllocs) / (n * kTransactions);
}
BENCHMARK(BM_SdkAllocations)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return runBenchmarksThenStopAgent(argc, argv);
}
