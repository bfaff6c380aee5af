// Benchmarks of the proxy-mode codec: building and encoding a Method Entry frame, and decoding a
// buffer of mixed frames on one core (string allocation included, flowpath replay excluded).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "codec/qvlb_decode.h"
#include "codec/qvlb_encode.h"
#include "collector/QVDataDispatcher.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"

#include "bench_support.h"

namespace {

QVProxyInstance_t g_app;
const char kName30[] = "Application.Controller.handle1";  // 30 characters
static_assert(sizeof(kName30) == 31);

void setUpApp() {
    qvApplication = &g_app;  // trace levels 0, no test run
}

// Frame building alone, into the caller's buffer.
void BM_BuildMethodEntryFrame30(benchmark::State& state) {
    char buf[1024];
    long fpi = 1000;
    for (auto _ : state) {
        benchmark::DoNotOptimize(buildMethodEntryFrame(buf, sizeof(buf), 7, ++fpi, 42, kName30, nullptr,
                                                       nullptr, 1700000000000LL));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_BuildMethodEntryFrame30);

// The encoder as the flowpath engine calls it, with no data connection: sendBufferDataCon drops
// the frame. Arg 0: the dispatcher was never set up (no send lock: the frame is dropped before
// any lock); arg 1: the dispatcher is set up (its send lock is taken, the socket found absent).
// Also checks that no encode allocates.
void BM_MethodEntryEncode30(benchmark::State& state) {
    setUpApp();
    if (state.range(0) == 1) {
        g_app.QVSys.dataBuffMaxCount = 4;
        g_app.QVSys.bciDataBufferMaxSize = 4096;
        buff_list_init();
    }
    long fpi = 1000;
    g_allocs = 0;
    g_counting = true;
    for (auto _ : state) MethodEntryEncode(7, ++fpi, 42, kName30, nullptr, nullptr, 1700000000000LL);
    g_counting = false;
    state.counters["allocs"] = static_cast<double>(g_allocs.load());
}
BENCHMARK(BM_MethodEntryEncode30)->Arg(0)->Arg(1);

// A mixed stream as an application sends it: per transaction one start (URL, cookie,
// correlation header), eight entries and exits (30-character names, some with a query), an end
// and a reset. About 1 MiB.
std::string mixedStream() {
    std::string s;
    std::vector<char> buf(QV_MSG_MAX_FRAME);
    std::mt19937 rng(7);
    for (long fpi = 1; s.size() < (1u << 20); ++fpi) {
        int n = buildTransactionStartFrame(
            buf.data(), buf.size(), 3, fpi, nullptr, "/shop/catalog/item?id=12345&ref=home", nullptr,
            "QVSession=abcdef0123456789", nullptr, "corr-7f3e9a", 1700000000000LL);
        s.append(buf.data(), static_cast<size_t>(n));
        for (int m = 0; m < 8; ++m) {
            const char* q = (rng() % 4 == 0) ? "select * from items where id = ?" : nullptr;
            n = buildMethodEntryFrame(buf.data(), buf.size(), m, fpi, 42, kName30, q, nullptr,
                                      1700000000000LL);
            s.append(buf.data(), static_cast<size_t>(n));
            n = buildMethodExitFrame(buf.data(), buf.size(), m, 200, 1, 0, 42, 3, fpi, 1, kName30, nullptr);
            s.append(buf.data(), static_cast<size_t>(n));
        }
        n = buildTransactionEndFrame(buf.data(), buf.size(), 200, fpi);
        s.append(buf.data(), static_cast<size_t>(n));
        n = buildTransactionResetFrame(buf.data(), buf.size(), fpi);
        s.append(buf.data(), static_cast<size_t>(n));
    }
    return s;
}

// decodeMessage over the stream for an instance with a populated fpi_tls_map in which no frame's
// transaction is found, and no test run (startFP declines at once): every frame is scanned,
// decoded, its strings allocated and freed and its transaction looked up; the flowpath engine's
// own work is not part of the figure.
void BM_DecodeMixed(benchmark::State& state) {
    setUpApp();
    static qvlb_hashmap_t* map = nullptr;
    if (map == nullptr) {
        map = create_hashmap(nullptr);
        // Eight-byte keys: the stream's instances (below 65536) have keys of at most two bytes, so
        // none of these is ever found.
        for (int k = 0; k < 1000; ++k) {
            char key[9] = {
                'q', 'v', 'k', 'e', 'y', static_cast<char>(1 + k % 200), static_cast<char>(1 + k / 200),
                0,   0};
            key[7] = 'x';
            modify_hashmap(map, key, &g_app);
        }
    }
    g_app.fpi_tls_map = map;
    qvlbSetDecodeInstance(0, &g_app);
    std::string stream = mixedStream();
    for (auto _ : state) decodeMessage(stream.data(), static_cast<int>(stream.size()), 0);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(stream.size()));
}
BENCHMARK(BM_DecodeMixed)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
