// Benchmarks of the data dispatcher: the producer's cost per record, end-to-end throughput to a
// loopback reader, and a count of allocations made by dumpData after start-up.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "collector/QVDataDispatcher.h"
#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"

#include "bench_support.h"

namespace {

QVProxyInstance_t g_app;
qvc_servers g_server;

// Default pool: 1000 buffers of 100 KiB.
void setUpAgent() {
    static bool done = false;
    if (done) return;
    done = true;
    memset(&g_app, 0, sizeof(g_app));
    g_app.agentName = const_cast<char*>("bench");
    g_app.QVSys.dataBuffMaxCount = 1000;
    g_app.QVSys.bciDataBufferMaxSize = 102400;
    g_app.QVSys.dataConnState = 1;
    g_app.QVBCISetting.qvcHost = const_cast<char*>("127.0.0.1");
    qvApplication = &g_app;
    buff_list_init();
}

// Gives every queued buffer back as if sent. Only while no data thread runs.
void drainUnsent() {
    movePartialToReadList();
    while (QVCollectorBB != nullptr) {
        QVCollectorBB->use_len = 0;
        QVCollectorBB->send_len = 0;
        moveToWriteList();
    }
}

char g_record[200];

void fillRecord() {
    memset(g_record, 'x', sizeof(g_record));
    memcpy(g_record, "\n2,4611686018427387904,12,34,56,", 32);
    g_record[sizeof(g_record) - 1] = '\n';
}

void BM_DumpData200(benchmark::State& state) {
    setUpAgent();
    fillRecord();
    drainUnsent();
    g_allocs = 0;
    g_counting = true;
    for (auto _ : state) {
        benchmark::DoNotOptimize(dumpData(g_record, sizeof(g_record)));
        if (writeListSize < 4) {
            state.PauseTiming();
            g_counting = false;
            drainUnsent();
            g_counting = true;
            state.ResumeTiming();
        }
    }
    g_counting = false;
    state.counters["mallocs_after_startup"] = static_cast<double>(g_allocs.load());
    state.counters["discards"] = qv_load(g_app.QVSys.discardCount);
    drainUnsent();
}
BENCHMARK(BM_DumpData200);

void BM_TwoProducersToLoopback(benchmark::State& state) {
    setUpAgent();
    fillRecord();
    drainUnsent();
    Reader reader;
    if (!reader.start()) {
        state.SkipWithError("no loopback listener");
        return;
    }
    g_server = {1, static_cast<unsigned int>(reader.port()), const_cast<char*>("127.0.0.1")};
    qvc_server_arr = &g_server;
    server_arr_size = 1;
    active_qvc_idx = 0;
    g_app.QVBCISetting.qvcPort = reader.port();
    qv_store(g_app.Server.testRunRunning, 1);
    qv_store(g_app.Server.retryForDataConn, 1);
    check_data_thread();
    while (reader.bytes() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Let the 99 record go out before measuring.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    constexpr int kPerProducer = 500000;  // 2 x 100 MB per iteration
    const long long perIteration = 2LL * kPerProducer * static_cast<long long>(sizeof(g_record));
    for (auto _ : state) {
        const long long target = reader.bytes() + perIteration;
        std::thread producers[2];
        for (std::thread& t : producers) {
            t = std::thread([] {
                // A real producer drops a record when the pool is full; here it waits so that
                // every byte is delivered and the rate is the pipeline's.
                for (int i = 0; i < kPerProducer; ++i)
                    while (dumpData(g_record, sizeof(g_record)) != 0) std::this_thread::yield();
            });
        }
        for (std::thread& t : producers) t.join();
        flushData();
        while (reader.bytes() < target) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    state.SetBytesProcessed(state.iterations() * perIteration);
    state.counters["full_pool_retries"] = qv_load(g_app.QVSys.discardCount);

    qv_store(g_app.Server.testRunRunning, 0);
    qv_data_thread_stop();
    reader.stop();
    qvc_server_arr = nullptr;
    server_arr_size = 0;
}
BENCHMARK(BM_TwoProducersToLoopback)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
