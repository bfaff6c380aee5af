// libFuzzer harness for the proxy's worker connections: each input is split into reads of
// arbitrary sizes for two connections of one application instance, which receive them as the
// proxy does (a bounded receive buffer per connection, whole frames handed to the connection's
// decoder, the rest kept for the next read; a full buffer that holds no whole frame ends the
// connection). When the input ends both connections close. Every record a connection held must
// be back in the pool then, and no transaction of it left in the instance's map. Built by
// `make fuzz-build`, run by `make fuzz`; the test run replays fuzz/corpus_conn and
// fuzz/regressions_conn through it (fuzz/replay_main.cpp).
//
// Input: one byte whose low bit says whether the test run is running (open transactions are
// ended at the close, else only given back), then reads, each a byte (its high bit picks the
// connection), a byte (with the low seven bits of the first, the read size minus one) and the
// bytes read.
#include <cstdint>
#include <cstring>

#include "codec/qvlb_decode.h"
#include "flowpath/QVPerThreadData.h"
#include "fuzz_agent.h"

namespace {

constexpr size_t kBufferSize = 65536;  // the proxy's --max-buffer in small

QVProxyInstance_t* app = nullptr;
QVDecodeIdSet* ids = nullptr;
unsigned long long nextConnId = 1;

struct Conn {
    QVDecodeConn* dec = nullptr;
    char buf[kBufferSize];
    size_t used = 0;
    long long ended = 0, reset = 0;

    void open() {
        dec = qvlbDecodeConnCreate(app, ids, nextConnId++);
        used = 0;
    }
    void close() {
        if (dec == nullptr) return;
        const long long open = qvlbDecodeConnOpen(dec);
        long long e = 0, r = 0;
        qvlbDecodeConnClose(dec, 500, &e, &r);
        // Every transaction left open is accounted for once, ended or reset.
        if (e + r != open) __builtin_trap();
        ended += e;
        reset += r;
        dec = nullptr;
    }
    void receive(const uint8_t* data, size_t n) {
        while (n > 0 && dec != nullptr) {
            const size_t take = n < kBufferSize - used ? n : kBufferSize - used;
            memcpy(buf + used, data, take);
            used += take;
            data += take;
            n -= take;
            const size_t done = qvlbDecodeConnFeed(dec, buf, used);
            if (done > used) __builtin_trap();
            if (done == 0 && used == kBufferSize) {
                close();  // a frame larger than the buffer can never complete
                return;
            }
            memmove(buf, buf + done, used - done);
            used -= done;
        }
    }
};

Conn conns[2];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    app = startFuzzAgent();
    if (app != nullptr) ids = qvlbDecodeIdSetCreate();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (app == nullptr || ids == nullptr) return 0;
    const int busyBefore = qv_load(gBusyTLSCnt);
    if (size == 0) return 0;
    qv_store(app->Server.testRunRunning, data[0] & 1);
    for (Conn& c : conns) c.open();
    for (size_t at = 1; at + 2 <= size;) {
        Conn& c = conns[data[at] >> 7];
        size_t n = ((static_cast<size_t>(data[at] & 0x7f) << 8) | data[at + 1]) + 1;
        at += 2;
        if (n > size - at) n = size - at;
        if (c.dec == nullptr) c.open();  // the worker reconnects
        c.receive(data + at, n);
        at += n;
    }
    for (Conn& c : conns) c.close();
    if (qv_load(gBusyTLSCnt) != busyBefore || count_hashmap(app->fpi_tls_map) != 0) __builtin_trap();
    return 0;
}
