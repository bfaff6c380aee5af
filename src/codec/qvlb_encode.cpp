// Proxy-mode encoders: one frame per flowpath event, built on the caller's stack and written
// whole to the data connection.
#include "codec/qvlb_encode.h"

#include <cstring>

#include "collector/QVDataDispatcher.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"

namespace {

const char kModule[] = "CONTROL_THREAD";

// Method entries and exits with ordinary names fit easily; only long URLs, cookies or headers
// need the large buffer, and only then does the thread pay for its stack.
constexpr size_t kSmallFrame = 1024;

long long oversizedFrames = 0;  // atomic

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

struct Str {
    const char* s;
    size_t n;  // strlen when s is set
};

// Measures the strings and returns the frame length, or QV_FRAME_TOO_LARGE. strnlen keeps a
// huge (or unterminated-looking) string from being scanned further than the frame could hold.
template <size_t N>
long long measure(size_t recordSize, Str (&f)[N]) {
    unsigned long long total = QV_MSG_HEADER_LEN + recordSize + 3;
    for (Str& x : f) {
        if (x.s == nullptr) continue;
        x.n = strnlen(x.s, QV_MSG_MAX_FRAME);
        total += x.n + 1;
    }
    return total > static_cast<unsigned long long>(QV_MSG_MAX_FRAME) ? QV_FRAME_TOO_LARGE
                                                                     : static_cast<long long>(total);
}

int lenField(const Str& x) {
    return x.s != nullptr ? static_cast<int>(x.n + 1) : 0;
}

// Writes the frame; the caller checked that total bytes fit out.
template <size_t N>
int assemble(char* out, int total, int type, const void* record, size_t recordSize, const Str (&f)[N]) {
    char* p = out;
    *p++ = '^';
    const msgHdr_t hdr{QV_MSG_HEADER_LEN, total, type};
    memcpy(p, &hdr, sizeof(hdr));
    p += sizeof(hdr);
    *p++ = '|';
    memcpy(p, record, recordSize);
    p += recordSize;
    size_t present = 0;
    for (const Str& x : f) {
        if (x.s == nullptr) continue;
        memcpy(p, x.s, x.n);
        p += x.n;
        ++present;
    }
    *p++ = '\n';
    // The filler the off-by-k length leaves: its content means nothing, send zeros.
    memset(p, 0, present);
    return total;
}

// Shared tail of the builders: size checks, then assembly.
template <class Rec, size_t N>
int finishBuild(char* out, size_t cap, int type, Rec& rec, Str (&f)[N], long long total) {
    if (total < 0) return QV_FRAME_TOO_LARGE;
    if (out == nullptr || cap < static_cast<size_t>(total)) return QV_FRAME_NO_ROOM;
    return assemble(out, static_cast<int>(total), type, &rec, sizeof(rec), f);
}

void traceFrame(int level, int type, int len) {
    if (level != 4) return;
    // One fixed text per type, as the proxy-side log readers expect them.
    switch (type) {
        case QV_MSG_METHOD_ENTRY:
            QV_TRACE_IF(true, kModule, "Info", "Msg type 0, Method Entry %d", len);
            break;
        case QV_MSG_METHOD_EXIT:
            QV_TRACE_IF(true, kModule, "Info", "Msg type 1, Method Entry %d", len);
            break;
        case QV_MSG_TRANSACTION_START:
            QV_TRACE_IF(true, kModule, "Info", "Msg type 2, Method Entry %d", len);
            break;
        case QV_MSG_TRANSACTION_END:
            QV_TRACE_IF(true, kModule, "Info", "Msg type 3, Method Entry %d", len);
            break;
        default:
            QV_TRACE_IF(true, kModule, "Info", "Msg type 4, Method Entry %d", len);
            break;
    }
}

void sendFrame(int level, int type, const char* buf, int len) {
    if (len < 0) {
        const long long dropped = __atomic_add_fetch(&oversizedFrames, 1, __ATOMIC_RELAXED);
        QV_TRACE_IF(level > 0, kModule, "Error",
                    "Msg type %d: frame larger than %d bytes, not sent (frames dropped so far = %lld)", type,
                    QV_MSG_MAX_FRAME, dropped);
        return;
    }
    traceFrame(level, type, len);
    sendBufferDataCon(buf, len);
}

// Kept out of line so that the 128 KiB buffer is on the stack only while a large frame is sent.
template <class Build>
[[gnu::noinline]] void sendFromLargeBuffer(int level, int type, const Build& build) {
    char big[QV_MSG_MAX_FRAME];
    sendFrame(level, type, big, build(big, sizeof(big)));
}

template <class Build>
void encode(int type, const Build& build) {
    const int level = ctlLevel();
    QV_TRACE_IF(level == 4, kModule, "Info", "Method called");
    char buf[kSmallFrame];
    const int len = build(buf, sizeof(buf));
    if (len == QV_FRAME_NO_ROOM)
        sendFromLargeBuffer(level, type, build);
    else
        sendFrame(level, type, buf, len);
    QV_TRACE_IF(level == 4, kModule, "Info", "Method exit");
}

}  // namespace

int buildMethodEntryFrame(char* out, size_t cap, int mid, long flowpathinstance, long threadId,
                          const char* methodName, const char* query_string, const char* urlParameter,
                          long long startTime) {
    Str f[] = {{methodName, 0}, {query_string, 0}, {urlParameter, 0}};
    MethodEntryVar_t rec;
    const long long total = measure(sizeof(rec), f);
    memset(&rec, 0, sizeof(rec));  // padding travels too
    rec.mid = mid;
    rec.flowpathinstance = flowpathinstance;
    rec.threadId = threadId;
    rec.startTime = startTime;
    rec.methodName = lenField(f[0]);
    rec.query_string = lenField(f[1]);
    rec.urlParameter = lenField(f[2]);
    return finishBuild(out, cap, QV_MSG_METHOD_ENTRY, rec, f, total);
}

int buildMethodExitFrame(char* out, size_t cap, int mid, int statusCode, int eventType, int isCallout,
                         long threadId, long duration, long flowpathinstance, long cpuTime,
                         const char* methodName, const char* backend_header) {
    Str f[] = {{methodName, 0}, {backend_header, 0}};
    MethodExitVar_t rec;
    const long long total = measure(sizeof(rec), f);
    memset(&rec, 0, sizeof(rec));
    rec.statusCode = statusCode;
    rec.mid = mid;
    rec.eventType = eventType;
    rec.isCallout = isCallout;
    rec.threadId = threadId;
    rec.duration = duration;
    rec.flowpathinstance = flowpathinstance;
    rec.cpuTime = cpuTime;
    rec.methodName = lenField(f[0]);
    rec.backend_header = lenField(f[1]);
    return finishBuild(out, cap, QV_MSG_METHOD_EXIT, rec, f, total);
}

int buildTransactionStartFrame(char* out, size_t cap, int qTimeMS, long flowpathinstance,
                               const char* fp_header, const char* url, const char* btHeaderValue,
                               const char* qvCookieSet, const char* wbCookieSet,
                               const char* correlationHeader, long long startTimeFP) {
    Str f[] = {{fp_header, 0},   {url, 0},         {btHeaderValue, 0},
               {qvCookieSet, 0}, {wbCookieSet, 0}, {correlationHeader, 0}};
    transactionStartVar_t rec;
    const long long total = measure(sizeof(rec), f);
    memset(&rec, 0, sizeof(rec));
    rec.fp_header = lenField(f[0]);
    rec.url = lenField(f[1]);
    rec.btHeaderValue = lenField(f[2]);
    rec.qvCookieSet = lenField(f[3]);
    rec.wbCookieSet = lenField(f[4]);
    rec.correlationHeader = lenField(f[5]);
    rec.flowpathinstance = flowpathinstance;
    rec.qTimeMS = qTimeMS;  // widened: the receiver reads a long
    rec.startTimeFP = startTimeFP;
    return finishBuild(out, cap, QV_MSG_TRANSACTION_START, rec, f, total);
}

int buildTransactionEndFrame(char* out, size_t cap, int statuscode, long flowpathinstance) {
    Str f[1] = {{nullptr, 0}};
    transactionEnd_t rec;
    memset(&rec, 0, sizeof(rec));
    rec.statuscode = statuscode;
    rec.flowpathinstance = flowpathinstance;
    return finishBuild(out, cap, QV_MSG_TRANSACTION_END, rec, f, measure(sizeof(rec), f));
}

int buildTransactionResetFrame(char* out, size_t cap, long flowpathinstance) {
    Str f[1] = {{nullptr, 0}};
    transactionReset_t rec;
    memset(&rec, 0, sizeof(rec));
    rec.flowpathinstance = flowpathinstance;
    return finishBuild(out, cap, QV_MSG_TRANSACTION_RESET, rec, f, measure(sizeof(rec), f));
}

void MethodEntryEncode(int mid, long flowpathinstance, long threadId, const char* methodName,
                       const char* query_string, const char* urlParameter, long long startTime) {
    encode(QV_MSG_METHOD_ENTRY, [&](char* b, size_t c) {
        return buildMethodEntryFrame(b, c, mid, flowpathinstance, threadId, methodName, query_string,
                                     urlParameter, startTime);
    });
}

void MethodExitEncode(int mid, int statusCode, int eventType, int isCallout, long threadId, long duration,
                      long flowpathinstance, long cpuTime, const char* methodName,
                      const char* backend_header) {
    encode(QV_MSG_METHOD_EXIT, [&](char* b, size_t c) {
        return buildMethodExitFrame(b, c, mid, statusCode, eventType, isCallout, threadId, duration,
                                    flowpathinstance, cpuTime, methodName, backend_header);
    });
}

void transactionStartEncode(int qTimeMS, long flowpathinstance, const char* fp_header, const char* url,
                            const char* btHeaderValue, const char* qvCookieSet, const char* wbCookieSet,
                            const char* correlationHeader, long long startTimeFP) {
    encode(QV_MSG_TRANSACTION_START, [&](char* b, size_t c) {
        return buildTransactionStartFrame(b, c, qTimeMS, flowpathinstance, fp_header, url, btHeaderValue,
                                          qvCookieSet, wbCookieSet, correlationHeader, startTimeFP);
    });
}

void transactionEndEncode(int statuscode, long flowpathinstance) {
    encode(QV_MSG_TRANSACTION_END,
           [&](char* b, size_t c) { return buildTransactionEndFrame(b, c, statuscode, flowpathinstance); });
}

void transactionResetEncode(long flowpathinstance) {
    encode(QV_MSG_TRANSACTION_RESET,
           [&](char* b, size_t c) { return buildTransactionResetFrame(b, c, flowpathinstance); });
}

long long qvlbOversizedFrameCount() {
    return __atomic_load_n(&oversizedFrames, __ATOMIC_RELAXED);
}

void qvlb_encode_reset_for_test() {
    __atomic_store_n(&oversizedFrames, 0, __ATOMIC_RELAXED);
}
