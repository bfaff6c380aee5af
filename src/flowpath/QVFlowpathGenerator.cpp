// The flowpath engine: ids, capture, start/end/reset, the header record, method entry and exit,
// the sequence blob and its write-outs.
#include "flowpath/QVFlowpathGenerator.h"

#include <apr_general.h>

#include <atomic>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "collector/QVDataDispatcher.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "flowpath/QVSessionCookie.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

QVFlowpathHooks qvFlowpathHooks = {};

namespace {

const char* const kModule = "FLOWPATH";
const char* const kBeginRequest = QV_DEFAULT_METHOD_NAME;
constexpr int kBlobCap = static_cast<int>(sizeof(QVPerThreadData_t::sequenceBlob));
// Room for the fields around the blob in records 3 and 4.
constexpr int kRecordHeadRoom = 256;
constexpr int kHeaderRecordSize = 4096;
constexpr int kResourceNameMax = 4000;
constexpr int kCategoryNormal = 10;

// Upstream tier sequences, one QV_TIER_SEQ_SIZE slot per record (by tlsIdx), carved in chunks of
// 64 slots on first need: the record has only a pointer for it and must not allocate per flowpath.
constexpr int kTierSeqChunkSlots = QV_TLS_POOL_BLOCK;
constexpr int kTierSeqMaxChunks = 1 << 12;
// By tlsIdx, so one per record pool, i.e. per application instance.
struct TierSeqState {
    std::atomic<char*> tierSeqChunks[kTierSeqMaxChunks] = {};
    std::mutex tierSeqMutex;
};

}  // namespace

QV_INSTANCE_STATE(TierSeqState, tierSeqState)

namespace {

int fpLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app ? qv_load(app->QVSys.fpTraceLevel) : 0;
}

long long korEpoch() {
    QVProxyInstance_t* app = qvApplication;
    return app ? qv_load(app->Server.korEpochDiffTime) : 0;
}

// Times come from the wire and the collector (start times, epoch offsets): any value is possible,
// so differences wrap instead of overflowing.
long long wrapSub(long long a, long long b) {
    return static_cast<long long>(static_cast<unsigned long long>(a) - static_cast<unsigned long long>(b));
}

long long nowMs() {
    return wrapSub(my_gettimeofday(), korEpoch());
}

bool testRunning() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->Server.testRunRunning) != 0;
}

bool forwardsOnly() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->QVSys.proxyMode) != 0 && qv_load(QVProxy.proxyServerFlag) == 0;
}

bool keyedByTLS() {
    return qv_load(QVAgentSetting.enableProxyServer) == 1;
}

long long maxNonServiceMethods() {
    QVProxyInstance_t* app = qvApplication;
    return app ? qv_load(app->QVSys.bciMaxNonServiceMethodsPerFP) : 0;
}

int ipResourceURL() {
    QVProxyInstance_t* app = qvApplication;
    return app ? qv_load(app->QVSys.enableIPResourceURL) : 0;
}

int btIdOf(const BTObject* bt) {
    if (bt == nullptr || qvFlowpathHooks.getBTId == nullptr) return 0;
    return qvFlowpathHooks.getBTId(bt);
}

// ---- Blob entry formatting ----
// Entries are written through a plain pointer with no check per byte: every entry's size is
// bounded by kEntryBufSize (a URL of at most QV_SEQ_ASYNC_URL_MAX bytes plus numbers and
// separators within kEntryFixedMax), and the caller always provides that much room. Numbers are
// formatted by hand: printf is slow for the per-event path, and std::to_chars' instantiations
// would become exported symbols of the library.

// "00".."99": decimal text two digits per step.
struct DigitPairs {
    char text[200];
};
constexpr DigitPairs makeDigitPairs() {
    DigitPairs t{};
    for (int i = 0; i < 100; i++) {
        t.text[2 * i] = static_cast<char>('0' + i / 10);
        t.text[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return t;
}
constexpr DigitPairs kDigitPairs = makeDigitPairs();

struct Pow10Table {
    unsigned long long v[20];
};
constexpr Pow10Table makePow10() {
    Pow10Table t{};
    unsigned long long p = 1;
    for (int i = 0; i < 20; i++) {
        t.v[i] = p;
        if (i < 19) p *= 10;
    }
    return t;
}
constexpr Pow10Table kPow10 = makePow10();

// Decimal digits of v: from its bit length (1233 / 4096 is just above log10(2)), corrected by
// one comparison. v | 1 has the digits of v and keeps 0 at one digit.
int decimalDigits(unsigned long long v) {
    v |= 1;
    const int t = ((64 - __builtin_clzll(v)) * 1233) >> 12;
    return t + (v >= kPow10.v[t] ? 1 : 0);
}

void writeTwo(char* p, unsigned v) {
    memcpy(p, kDigitPairs.text + 2 * v, 2);
}

// Writes the digits of v (at least 10) so that they end just before end. Eight digits at a time
// from one 64-bit division, then 32-bit steps, which are cheaper: epoch milliseconds have 13
// digits.
__attribute__((noinline)) void writeDigits(char* end, unsigned long long v) {
    while (v >= 100000000ULL) {
        const unsigned long long q = v / 100000000ULL;
        const auto r = static_cast<unsigned>(v - q * 100000000ULL);
        const unsigned hi = r / 10000;
        const unsigned lo = r % 10000;
        end -= 8;
        writeTwo(end, hi / 100);
        writeTwo(end + 2, hi % 100);
        writeTwo(end + 4, lo / 100);
        writeTwo(end + 6, lo % 100);
        v = q;
    }
    auto w = static_cast<unsigned>(v);
    while (w >= 100) {
        end -= 2;
        writeTwo(end, w % 100);
        w /= 100;
    }
    if (w >= 10)
        writeTwo(end - 2, w);
    else
        end[-1] = static_cast<char>('0' + w);
}

// Longest text of a number: "-9223372036854775808".
constexpr int kNumMax = 20;
// Room every entry needs besides its URL. The longest, a database callout with its status, has
// six numbers and 12 bytes of fixed text.
constexpr int kEntryFixedMax = 8 * kNumMax + 32;
constexpr int kEntryBufSize = QV_SEQ_ASYNC_URL_MAX + kEntryFixedMax;
static_assert(kEntryBufSize < kBlobCap, "an entry always fits an empty blob");

// "%lld" of v at p (at most kNumMax bytes); returns the end.
inline char* putNum(char* p, long long v) {
    unsigned long long mag = static_cast<unsigned long long>(v);
    if (v < 0) {
        *p++ = '-';
        mag = 0ULL - mag;  // the magnitude of LLONG_MIN too
    }
    if (mag < 10) {
        *p = static_cast<char>('0' + mag);
        return p + 1;
    }
    char* end = p + decimalDigits(mag);
    writeDigits(end, mag);
    return end;
}

inline char* putChar(char* p, char c) {
    *p = c;
    return p + 1;
}

template <size_t N>
char* putLit(char* p, const char (&text)[N]) {
    memcpy(p, text, N - 1);
    return p + N - 1;
}

// Bytes of a fixed text field up to its terminator (or the whole field).
int fieldLen(const char* field, size_t cap) {
    return static_cast<int>(strnlen(field, cap));
}

// Copies src into dst (cap bytes), cut and terminated, with line breaks blanked so record framing
// survives whatever the caller passed.
void copyText(char* dst, size_t cap, const char* src) {
    if (cap == 0) return;
    size_t i = 0;
    if (src != nullptr) {
        for (; i + 1 < cap && src[i] != '\0'; i++) dst[i] = (src[i] == '\n' || src[i] == '\r') ? ' ' : src[i];
    }
    dst[i] = '\0';
}

int clampedBlobLen(QVPerThreadData_t* r) {
    int len = r->sequenceBlobLen;
    if (len < 0 || len > kBlobCap - 1) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Sequence blob length %d out of range; blob restarted",
                    len);
        r->sequenceBlobLen = 0;
        return 0;
    }
    return len;
}

void dumpIncompleteLocked(QVPerThreadData_t* r);

// Takes len bytes already written at the end of the blob. Caller holds sequenceBlobLock.
void commitLocked(QVPerThreadData_t* r, int len) {
    r->sequenceBlobLen += len;
    r->sequenceBlob[r->sequenceBlobLen] = '\0';
    if (r->sequenceBlobLen >= qv_load(QVFlowpathGenerator.maxCharactersInSeqBlob)) dumpIncompleteLocked(r);
}

// The one place bytes enter the blob. Caller holds sequenceBlobLock.
void appendLocked(QVPerThreadData_t* r, const char* text, int len) {
    if (len <= 0) return;
    if (len > kBlobCap - 1) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error",
                    "Entry of %d bytes larger than the sequence blob dropped", len);
        return;
    }
    if (clampedBlobLen(r) + len > kBlobCap - 1) dumpIncompleteLocked(r);
    memcpy(r->sequenceBlob + r->sequenceBlobLen, text, static_cast<size_t>(len));
    commitLocked(r, len);
}

// Formats one entry (format(dst) writes at most kEntryBufSize bytes at dst and returns the end)
// and appends it as appendLocked would. While the blob has room for the largest entry it is
// formatted in place, which spares a copy; otherwise in a local buffer that appendLocked then
// places, writing the blob out first when it does not fit. Inlined into each formatter, so the
// closure's fields stay in registers rather than being copied through memory for a call.
template <class Format>
inline __attribute__((always_inline)) void appendEntryLocked(QVPerThreadData_t* r, const Format& format) {
    const int used = clampedBlobLen(r);
    if (used + kEntryBufSize <= kBlobCap - 1) {
        char* at = r->sequenceBlob + used;
        const int len = static_cast<int>(format(at) - at);
        if (len > 0)
            commitLocked(r, len);
        else
            *at = '\0';
        return;
    }
    char buf[kEntryBufSize];
    appendLocked(r, buf, static_cast<int>(format(buf) - buf));
}

// Out of line: entry and exit share one copy of the formatting code.
__attribute__((noinline)) void appendMethodEventLocked(QVPerThreadData_t* r, int mid, long long startTime,
                                                       int eventID, int pageID, long long cpuTime,
                                                       int isAsyncCall, long long threadID,
                                                       const char* urlStr) {
    if (eventID != 0 && eventID != 1 && eventID != 3 && eventID != 4) return;
    // One digit, as printed by "%d".
    const char event = static_cast<char>('0' + eventID);
    // By value: the bytes written through p could otherwise alias the captures, forcing reloads.
    appendEntryLocked(r, [=](char* p) {
        p = putNum(p, mid);
        if (eventID == 0 && pageID >= 0) {
            p = putChar(p, '_');
            p = putChar(p, event);
            p = putChar(p, '_');
            p = putNum(p, startTime);
            p = putChar(p, '_');
            p = putNum(p, pageID);
            return putChar(p, '_');
        }
        p = putChar(p, ':');
        p = putNum(p, threadID);
        if (eventID == 0 && isAsyncCall != 0) {
            p = putLit(p, ":1:");
            const size_t urlLen = urlStr != nullptr ? strnlen(urlStr, QV_SEQ_ASYNC_URL_MAX) : 0;
            // memmove: a caller's URL could even lie in the blob being written.
            if (urlLen > 0) memmove(p, urlStr, urlLen);
            p += urlLen;
        }
        p = putChar(p, '_');
        p = putChar(p, event);
        p = putChar(p, '_');
        p = putNum(p, startTime);
        if (eventID == 0) return putLit(p, "__");
        if (cpuTime < 0) return putLit(p, "____");
        p = putChar(p, '_');
        p = putNum(p, cpuTime);
        return putLit(p, "___");
    });
}

void appendCalloutLocked(QVPerThreadData_t* r, long long methodStartTime, long long duration,
                         methodPropProperties* mPP) {
    appendEntryLocked(r, [&](char* p) {
        const bool error = r->tlStatusCode > 399;
        const int id = mPP->methodId;
        p = putChar(p, error ? 'E' : 'T');
        if (qv_load(mPP->type) == 2) {
            p = putNum(p, r->seqNum);
            p = putChar(p, ':');
            p = putNum(p, id);
            p = putChar(p, ':');
            p = putNum(p, duration);
            p = putLit(p, ":10:");
            p = putNum(p, r->tlSQLObj.sqlId);
            p = putChar(p, ':');
            p = putNum(p, methodStartTime);
            if (error) {
                p = putChar(p, ':');
                p = putNum(p, r->tlStatusCode);
            }
        } else {
            const long long seq = r->tierCallOutSeqNum != 0 ? r->tierCallOutSeqNum : r->seqNum;
            p = putNum(p, seq);
            p = putChar(p, ':');
            p = putNum(p, id);
            p = putChar(p, ':');
            p = putNum(p, duration);
            p = putLit(p, ":1:0:");
            p = putNum(p, methodStartTime);
            if (error) {
                p = putChar(p, ':');
                p = putNum(p, r->tlStatusCode);
            }
            if (ipResourceURL() != 0) {
                p = putChar(p, ':');
                p = putNum(p, id);
            }
            r->tierCallOutSeqNum = 0;
        }
        return putChar(p, '_');
    });
}

void dumpHeaderLocked(QVPerThreadData_t* r) {
    r->tlIsFPHeaderDumped = 1;
    const char* F = r->tlIsForceDump ? "F" : "";
    const bool firstTier = r->firstFlowpathInstance == 0;
    char chain[128];
    char tierSeq[QV_TIER_SEQ_SIZE + 32];
    if (firstTier) {
        snprintf(chain, sizeof(chain), "%lld%s", r->flowpathInstance, F);
        snprintf(tierSeq, sizeof(tierSeq), "%lld.1", r->tlThreadId);
    } else {
        snprintf(chain, sizeof(chain), "%lld%s:%lld%s:%lld%s", r->flowpathInstance, F,
                 r->firstFlowpathInstance, F, r->prevFlowpathInstance, F);
        snprintf(tierSeq, sizeof(tierSeq), "%.*s.1", QV_TIER_SEQ_SIZE - 1,
                 r->prevTierSeq ? r->prevTierSeq : "");
    }
    QVProxyInstance_t* app = qvApplication;
    const bool corr = app != nullptr && qv_load(app->QVSys.captureCorrelationEnabled) != 0;
    const int paramLen = fieldLen(r->tlURLParameters, sizeof(r->tlURLParameters));
    char line[kHeaderRecordSize];
    int n = snprintf(
        line, sizeof(line), "%d,%s,%lld,%lld,%s,%d,%.*s%s%.*s,%.*s,%lld,%lld,%lld,,%d,%lld\n", 2, chain,
        r->tlFlowPathTimeStampInMS / 1000, r->tlThreadId, tierSeq, btIdOf(r->tlBTObj),
        fieldLen(r->tlURL, sizeof(r->tlURL)), r->tlURL, paramLen > 0 ? "?" : "", paramLen, r->tlURLParameters,
        corr ? fieldLen(r->tlCorrelationIdHeader, sizeof(r->tlCorrelationIdHeader)) : 0,
        r->tlCorrelationIdHeader, r->qvSessionId, r->korSID, r->QVPageID, r->tlFlowpathType, r->qTimeInMS);
    if (n < 0 || n >= static_cast<int>(sizeof(line))) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Header record of FP '%lld' does not fit; dropped",
                    r->flowpathInstance);
        return;
    }
    dumpData(line, n);
}

// Formats "<head><blob>\n" into one buffer so the record reaches the dispatcher whole.
void dumpBlobRecord(QVPerThreadData_t* r, const char* head, int headLen) {
    char rec[kBlobCap + kRecordHeadRoom];
    int blobLen = clampedBlobLen(r);
    if (headLen < 0 || headLen + blobLen + 1 > static_cast<int>(sizeof(rec))) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Sequence record of FP '%lld' does not fit; dropped",
                    r->flowpathInstance);
        r->sequenceBlobLen = 0;
        return;
    }
    memcpy(rec, head, static_cast<size_t>(headLen));
    memcpy(rec + headLen, r->sequenceBlob, static_cast<size_t>(blobLen));
    rec[headLen + blobLen] = '\n';
    dumpData(rec, headLen + blobLen + 1);
    r->sequenceBlobLen = 0;
}

void dumpIncompleteLocked(QVPerThreadData_t* r) {
    if (!r->tlIsFPHeaderDumped) dumpHeaderLocked(r);
    char head[kRecordHeadRoom];
    int n = snprintf(head, sizeof(head), r->tlIsForceDump ? "%d,%lldF," : "%d,%lld,", 3, r->flowpathInstance);
    dumpBlobRecord(r, head, n < static_cast<int>(sizeof(head)) ? n : -1);
}

void dumpCompleteLocked(QVPerThreadData_t* r, int category, long long fpCPUTime, long long respTime) {
    if (r->tlIsBTExcluded) {
        if (!r->tlIsFPHeaderDumped) {
            QV_TRACE_IF(fpLevel() > 1, kModule, "Info",
                        "FP (%lld) was excluded as per BT and 3 record was not dumped, ignoring ...",
                        r->flowpathInstance);
            r->sequenceBlobLen = 0;
            return;
        }
        QV_TRACE_IF(fpLevel() > 1, kModule, "Info",
                    "FP (%lld) was excluded as per BT, some data has already dumped. Marking -99",
                    r->flowpathInstance);
        r->tlStatusCode = QV_FP_STATUS_DISCARD;
    }
    const char keepAll =
        qvFlowpathHooks.doNotDiscardAnyTransaction ? qvFlowpathHooks.doNotDiscardAnyTransaction() : 0;
    if (!r->tlIsFPCaptured && keepAll == 0) {
        if (category == kCategoryNormal && !r->tlIsFPHeaderDumped) {
            QV_TRACE_IF(fpLevel() > 1, kModule, "Info",
                        "FP '%lld' was not captured, neither it is slow, ignoring...", r->flowpathInstance);
            r->sequenceBlobLen = 0;
            return;
        }
        if (category == kCategoryNormal) {
            QV_TRACE_IF(fpLevel() > 1, kModule, "Info",
                        "FP (%lld) was not captured, some data has already dumped. Marking -99",
                        r->flowpathInstance);
            r->tlStatusCode = QV_FP_STATUS_DISCARD;
        } else {
            QV_TRACE_IF(fpLevel() > 1, kModule, "Info",
                        "FP '%lld' was not captured, but it is slow, capturing...", r->flowpathInstance);
        }
    }
    if (!r->tlIsFPHeaderDumped) dumpHeaderLocked(r);
    char head[kRecordHeadRoom];
    int n = snprintf(head, sizeof(head),
                     r->tlIsForceDump ? "%d,%lldF,%d,%d,%lld,%lld,%d,%d," : "%d,%lld,%d,%d,%lld,%lld,%d,%d,",
                     4, r->flowpathInstance, r->tlStatusCode, category, fpCPUTime, respTime,
                     btIdOf(r->tlBTObj), r->tlFlowpathType);
    dumpBlobRecord(r, head, n < static_cast<int>(sizeof(head)) ? n : -1);
}

// Category of a finished flowpath: 157 for an excluded BT, else by the BT's thresholds.
int categoryOf(QVPerThreadData_t* r) {
    if (r->tlIsBTExcluded) return QV_FP_CATEGORY_EXCLUDED;
    if (qvFlowpathHooks.findCategoryOfBT == nullptr) return kCategoryNormal;
    return qvFlowpathHooks.findCategoryOfBT(r->tlBTObj, r->tlDuration, r->tlStatusCode);
}

void setCategory(QVPerThreadData_t* r, int category) {
    r->tlCategory = static_cast<char>(category);
    r->btCategory = static_cast<signed char>(r->tlCategory);
}

// Gives back what a started flowpath holds outside its record. Caller holds sequenceBlobLock.
void releaseFlowpathLocked(QVPerThreadData_t* r) {
    releaseNodeAndDecrementMethodRefCount(r);
    if (r->flowpathInstanceStr[0] != '\0' && fpiToTLS != nullptr &&
        search_hashmap(fpiToTLS, r->flowpathInstanceStr) == r)
        modify_hashmap(fpiToTLS, r->flowpathInstanceStr, nullptr);
}

// A record holds a generation from its flowpath's start until the flowpath ends, is written out
// at a test stop or is reset. Events reaching it outside that time (a handle kept past its
// transaction) are dropped. Caller holds sequenceBlobLock.
bool holdsFlowpathLocked(const QVPerThreadData_t* r) {
    if (r->hasMapNodePtr != nullptr) return true;
    QV_TRACE_IF(fpLevel() > 1, kModule, "Info", "Record %p runs no flowpath; event ignored",
                static_cast<const void*>(r));
    return false;
}

// The method of an event: the caller's pointer while the record holds the current generation,
// otherwise by name in the current generation (the record moving to it first).
methodPropProperties* resolveMethod(QVPerThreadData_t* r, void* methodPtr, char* mName, bool create) {
    node_t* current = qv_load_acquire(methodHashMapNode);
    if (methodPtr != nullptr && r->hasMapNodePtr == current && !keyedByTLS())
        return static_cast<methodPropProperties*>(methodPtr);
    node_t* gen = r->hasMapNodePtr;
    if (gen != current) gen = switchToCurrentMethodHashMapNode(r);
    if (gen == nullptr) return nullptr;
    return create ? searchAndUpdateMethodHashMap(mName, gen, 0, 0) : getMethodPropFromMethodName(mName, gen);
}

// The backend a callout reports as (see qvMethodExitEx). Falls back to the method itself.
methodPropProperties* resolveBackend(QVPerThreadData_t* r, methodPropProperties* m, int type,
                                     const char* backendName) {
    char name[1024];
    if (backendName == nullptr || backendName[0] == '\0') {
        if (type != 2) return m;
        // A fixed name: DBIPName only renames database backends in the monitor's records.
        copyText(name, sizeof(name), QV_DB_CALLOUT_BACKEND_NAME);
    } else if (settingBackendName(backendName, QV_BACKEND_RULE_HOST, name, sizeof(name)) < 0) {
        return m;
    }
    if (name[0] == '\0') return m;
    methodPropProperties* b = searchAndUpdateMethodHashMap(name, r->hasMapNodePtr, 1, type, sizeof(name));
    return b ? b : m;
}

void countBackend(QVPerThreadData_t* r, methodPropProperties* b, long long duration) {
    if (qvFlowpathHooks.updateCounterAndDurationForBackend != nullptr)
        qvFlowpathHooks.updateCounterAndDurationForBackend(r, b, duration, 0);
}

char* tierSeqSlot(const QVPerThreadData_t* r) {
    long long idx = r->tlsIdx;
    if (idx < 0 || idx >= static_cast<long long>(kTierSeqMaxChunks) * kTierSeqChunkSlots) return nullptr;
    TierSeqState& st = tierSeqState();
    std::atomic<char*>& chunk = st.tierSeqChunks[idx / kTierSeqChunkSlots];
    char* c = chunk.load(std::memory_order_acquire);
    if (c == nullptr) {
        std::lock_guard<std::mutex> g(st.tierSeqMutex);
        c = chunk.load(std::memory_order_acquire);
        if (c == nullptr) {
            c = static_cast<char*>(qvlb_calloc(static_cast<size_t>(kTierSeqChunkSlots) * QV_TIER_SEQ_SIZE,
                                               "Tier sequence texts", -1));
            if (c == nullptr) return nullptr;
            chunk.store(c, std::memory_order_release);
        }
    }
    return c + (idx % kTierSeqChunkSlots) * QV_TIER_SEQ_SIZE;
}

// Decimal flowpath number of a chain field; an 'F'/'f' after the digits is the force marker.
long long chainNumber(std::string_view v) {
    if (!v.empty() && (v.back() == 'F' || v.back() == 'f')) v.remove_suffix(1);
    long long n = 0;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
    if (v.empty() || ec != std::errc() || end != v.data() + v.size() || n < 0) return 0;
    return n;
}

int decodeURL(const char* in, char* out, int outSize, bool plusIsBlank) {
    if (in == nullptr || out == nullptr || outSize < 1) return -1;
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    int o = 0;
    for (size_t i = 0; in[i] != '\0' && o < outSize - 1; i++) {
        char c = in[i];
        if (c == '%' && in[i + 1] != '\0' && in[i + 2] != '\0' && hex(in[i + 1]) >= 0 &&
            hex(in[i + 2]) >= 0) {
            c = static_cast<char>(hex(in[i + 1]) * 16 + hex(in[i + 2]));
            i += 2;
        } else if (c == '+' && plusIsBlank) {
            c = ' ';
        }
        out[o++] = (c == '\n' || c == '\r') ? ' ' : c;
    }
    out[o] = '\0';
    return o;
}

methodPropProperties* methodExit(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, long long fpCPUTime,
                                 int statusCode, char* backendName, long long methodWallTime, char forceDump,
                                 long long threadId, int isCalOutDone, char* TLS, int eventType) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    if (qvTD == nullptr || !testRunning()) return nullptr;
    if (mName == nullptr || mName[0] == '\0') {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Method Name for %lld is : '%s'.",
                    qvTD->flowpathInstance, mName ? mName : "");
        return nullptr;
    }
    if (forwardsOnly()) {
        if (qvFlowpathHooks.MethodExitEncode != nullptr) {
            int mid = methodPtr ? static_cast<methodPropProperties*>(methodPtr)->methodId : 0;
            qvFlowpathHooks.MethodExitEncode(mid, statusCode, eventType, isCalOutDone,
                                             static_cast<long>(threadId), static_cast<long>(methodWallTime),
                                             static_cast<long>(qvTD->flowpathInstance),
                                             static_cast<long>(fpCPUTime), mName, backendName);
        }
        return static_cast<methodPropProperties*>(methodPtr);
    }
    if (keyedByTLS()) {
        qvTD = searchqvTDfromHashMap(TLS);
        if (qvTD == nullptr) return nullptr;
    }
    QVLockGuard guard(qvTD->sequenceBlobLock);
    if (!holdsFlowpathLocked(qvTD)) return nullptr;
    if (statusCode >= 0 && statusCode > qvTD->tlStatusCode) qvTD->tlStatusCode = statusCode;

    methodPropProperties* m = resolveMethod(qvTD, methodPtr, mName, false);
    if (m == nullptr) return nullptr;
    if (qv_load(m->usedFlag) != 1) qv_store(m->usedFlag, 1);
    const int ep = qv_load(m->isEntryPoint);
    const int type = qv_load(m->type);
    const bool excluded = qvTD->tlIsBTExcluded != 0;
    // Only callout records carry the time of the exit: ordinary exits skip the clock.
    const long long relNow = (ep & (QV_EP_CALLOUT | QV_EP_CUSTOM_CALLOUT)) != 0
                                 ? wrapSub(nowMs(), qvTD->tlFlowPathTimeStampInMS)
                                 : 0;

    methodPropProperties* callout = nullptr;
    if ((ep & QV_EP_CALLOUT) != 0 && !excluded) {
        callout = resolveBackend(qvTD, m, type, backendName);
        qvTD->seqNum++;
        if (type != 2) {
            qvTD->httpCallOutDepth--;
            if (qvTD->tierCallOutSeqNum != 0 && isCalOutDone != 0) {
                if (ipResourceURL() != 0) dumpResourceMetaRecord(callout->methodId, callout->methodName);
                countBackend(qvTD, callout, methodWallTime);
            }
        } else {
            qvTD->tlSQLObj.DBCallDepth--;
            if (qvTD->tlSQLObj.DBCallDepth < 1) countBackend(qvTD, callout, methodWallTime);
        }
    }
    if ((ep & QV_EP_CUSTOM_CALLOUT) != 0) {
        methodPropProperties* target = qv_load_acquire(m->customCalloutptr);
        if (target == nullptr) target = m;
        qvTD->seqNum++;
        appendCalloutLocked(qvTD, relNow, methodWallTime, target);
        countBackend(qvTD, target, methodWallTime);
    }
    if ((ep & QV_EP_MONITORED) != 0 && qvFlowpathHooks.updateCounterAndDurationForMethod != nullptr)
        qvFlowpathHooks.updateCounterAndDurationForMethod(qvTD, m, methodWallTime);

    const bool forced = qv_load(m->callOutValue) == 4;
    if (qvTD->tlNonServiceMethodCount > maxNonServiceMethods()) {
        // Its entry was not written either.
        qvTD->tlNonServiceMethodCount--;
    } else if (!excluded && (qvTD->tlIsFPCaptured || forceDump == 1 || forced)) {
        qvTD->seqNum++;
        appendMethodEventLocked(qvTD, m->methodId, methodWallTime, 1, -1, fpCPUTime, qv_load(m->isAsyncCall),
                                threadId, nullptr);
    }
    if (callout != nullptr && ((type == 2 && qvTD->tlSQLObj.DBCallDepth < 1) ||
                               (type == 1 && qvTD->tierCallOutSeqNum != 0 && isCalOutDone != 0)))
        appendCalloutLocked(qvTD, relNow, methodWallTime, callout);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return m;
}

}  // namespace

// ---- Ids and capture ----

long long generate_flowpath_instance() {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return 0;
    QVSys_t& s = app->QVSys;
    const long long t = nowMs();
    // The counter is advanced twice per id; the first result is deliberately unused.
    auto* seq = reinterpret_cast<unsigned int*>(&s.rSeq);
    __atomic_fetch_add(seq, 1u, __ATOMIC_RELAXED);
    const unsigned int sNum = __atomic_fetch_add(seq, 1u, __ATOMIC_RELAXED);
    using u64 = unsigned long long;
    const u64 shift = static_cast<u64>(qv_load(s.seqNoDigits)) & 63u;
    const u64 id = static_cast<u64>(qv_load(s.flowPathInstanceInitialID)) +
                   (static_cast<u64>(qv_load(s.timeStampMask) & t) << shift) +
                   (static_cast<u64>(qv_load(s.seqNumMask)) & static_cast<u64>(sNum));
    const long long fpi = static_cast<long long>(id);
    QV_TRACE_IF(fpLevel() >= 2, kModule, "Info", "currTimeStamp = %lld\n", t);
    QV_TRACE_IF(fpLevel() >= 2, kModule, "Info", "flowPathInstanceInitialID = %lld",
                qv_load(s.flowPathInstanceInitialID));
    QV_TRACE_IF(fpLevel() >= 2, kModule, "Info", "Flowpath instance = %lld", fpi);
    return fpi;
}

int tokenize_flowpathmasks(char* read_buf, char** fields, char* token, int max_flds) {
    if (read_buf == nullptr || fields == nullptr || token == nullptr || token[0] == '\0' || max_flds < 0)
        return 0;
    const size_t tokLen = strlen(token);
    fields[0] = read_buf;
    int count = 0;
    char* p = read_buf;
    while (count < max_flds) {
        char* hit = strstr(p, token);
        if (hit == nullptr) break;
        *hit = '\0';
        p = hit + tokLen;
        fields[++count] = p;
    }
    return count;
}

void parse_flowpath_mask(char* qvflowpathMask) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    QVProxyInstance_t* app = qvApplication;
    if (qvflowpathMask == nullptr || app == nullptr) return;
    QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "qvflowpathMask = %s", qvflowpathMask);
    constexpr int kMaxDelims = 6;
    char* fields[kMaxDelims + 1] = {};
    char delim[] = "%20";
    int found = tokenize_flowpathmasks(qvflowpathMask, fields, delim, kMaxDelims);
    if (found < 3)
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "total fields of qvflowpathmask are less than 3");
    auto hexField = [&](int i) -> long long {
        return fields[i] ? static_cast<long long>(strtoull(fields[i], nullptr, 16)) : 0;
    };
    QVSys_t& s = app->QVSys;
    qv_store(s.flowPathInstanceInitialID, hexField(0));
    qv_store(s.timeStampMask, hexField(1));
    qv_store(s.seqNoDigits, fields[2] ? strtoll(fields[2], nullptr, 10) : 0);
    qv_store(s.seqNumMask, hexField(3));
    QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "flowPathInstanceInitialID = %lld",
                qv_load(s.flowPathInstanceInitialID));
    QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "timeStampMask = %lld", qv_load(s.timeStampMask));
    QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "seqNoDigits = %d", static_cast<int>(qv_load(s.seqNoDigits)));
    QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "seqNumMask = %d", static_cast<int>(qv_load(s.seqNumMask)));
}

int randomNum() {
    unsigned char b = 0;
    if (apr_generate_random_bytes(&b, 1) != APR_SUCCESS) return 0;
    return b;
}

void setFPCaptured(QVPerThreadData_t* qvTD, long long fpi) {
    QVProxyInstance_t* app = qvApplication;
    if (qvTD == nullptr) return;
    const int pct = app ? qv_load(app->QVSys.bciInstrSessionPct) : 0;
    // randomNum() is a byte, so small remainders are slightly likelier; kept as the sampling rule.
    const bool sampled = pct > 99 || (pct > 0 && randomNum() % 100 < pct);
    if (!sampled && qvTD->tlIsForceDump == 0) {
        qvTD->tlIsFPCaptured = 0;
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "FP '%lld' will not be captured", fpi);
    } else {
        qvTD->tlIsFPCaptured = 1;
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "FP '%lld' will be captured.", fpi);
    }
    const short all = app ? qv_load(app->QVSys.captureMethodForAllFP) : 0;
    if (all != 0) {
        qvTD->tlIsFPCaptured = 1;
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                    "FP '%lld' will be captured.Because captureMethodForAllFP = %d", fpi, all);
    }
}

// ---- Lifecycle ----

void setTierCallOut(QVPerThreadData_t* qvTD, const char* header) {
    if (qvTD == nullptr || header == nullptr) return;
    std::string_view rest(header);
    std::string_view parts[3];
    int n = 0;
    while (n < 3) {
        size_t us = rest.find('_');
        parts[n++] = rest.substr(0, us);
        if (us == std::string_view::npos) break;
        rest = rest.substr(us + 1);
    }
    qvTD->firstFlowpathInstance = chainNumber(parts[0]);
    qvTD->prevFlowpathInstance =
        n > 1 && !parts[1].empty() ? chainNumber(parts[1]) : qvTD->firstFlowpathInstance;
    char* slot = tierSeqSlot(qvTD);
    if (slot == nullptr) return;
    std::string_view seq = n > 2 ? parts[2] : std::string_view();
    size_t len = 0;
    while (len < seq.size() && len < QV_TIER_SEQ_SIZE - 1 &&
           ((seq[len] >= '0' && seq[len] <= '9') || seq[len] == '.'))
        len++;
    if (len == 0) {
        slot[0] = '1';
        slot[1] = '\0';
    } else {
        memcpy(slot, seq.data(), len);
        slot[len] = '\0';
    }
    qvTD->prevTierSeq = slot;
}

int escapeURLEncoding(const char* in, char* out, int outSize) {
    return decodeURL(in, out, outSize, false);
}

int escapeURLEncodingForHttp(const char* in, char* out, int outSize) {
    return decodeURL(in, out, outSize, true);
}

void setFPHeaderValues(QVPerThreadData_t* qvTD, const char* url, const char* query, const char* httpMethod,
                       const char* btHeaderValue) {
    (void)httpMethod;
    if (qvTD == nullptr) return;
    std::string_view u(url ? url : "");
    size_t q = u.find('?');
    std::string_view path = u.substr(0, q);
    size_t pathLen = path.size() < sizeof(qvTD->tlURL) - 1 ? path.size() : sizeof(qvTD->tlURL) - 1;
    for (size_t i = 0; i < pathLen; i++)
        qvTD->tlURL[i] = (path[i] == '\n' || path[i] == '\r') ? ' ' : path[i];
    qvTD->tlURL[pathLen] = '\0';
    if (query != nullptr)
        copyText(qvTD->tlURLParameters, sizeof(qvTD->tlURLParameters), query);
    else
        copyText(qvTD->tlURLParameters, sizeof(qvTD->tlURLParameters),
                 q == std::string_view::npos ? "" : url + q + 1);
    if (qvFlowpathHooks.get_obj_from_bt_name == nullptr) return;
    BTObject* bt = qvFlowpathHooks.get_obj_from_bt_name(
        qvTD->tlURL, qvTD->tlURLParameters[0] != '\0' ? qvTD->tlURLParameters : nullptr, btHeaderValue,
        qvTD->updateBTLock);
    qvTD->tlBTObj = bt;
    qvTD->tlIsBTExcluded = bt == nullptr ? 1 : 0;
}

void* startFP(char* flowpathinstance, char* url, char* btHeaderValue, char* TLS, char* QVCookieStr,
              char* WBCookieStr, char* correlationIdHeader, long long qTimeInMS, long long startTimeFP) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || qv_load(app->Server.testRunRunning) == 0 ||
        qv_load(app->Server.gettingstopInstrumenatation) != 0)
        return nullptr;
    QVPerThreadData_t* r = get_free_tls_slot();
    if (r == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "No record for a new flowpath; request not traced");
        return nullptr;
    }
    // The record is on the busy list already, where the test-stop walk may reach it, and a
    // handle of its previous transaction may still be in use.
    QVLockGuard guard(r->sequenceBlobLock);
    resetAllThreadLocals(r, tlsdatastruct);
    r->tlFlowPathTimeStampInMS = nowMs();
    // Session fields survive the record's reuse; a request only has the session its cookies name.
    clearQVSession(r);
    r->korSID = 0;
    r->QVPageID = 0;

    long long fpi;
    if (flowpathinstance != nullptr && flowpathinstance[0] != '\0') {
        if (strchr(flowpathinstance, 'F') != nullptr || strchr(flowpathinstance, 'f') != nullptr)
            r->tlIsForceDump = 1;
        if (strchr(flowpathinstance, '_') != nullptr) {
            setTierCallOut(r, flowpathinstance);
            fpi = generate_flowpath_instance();
        } else {
            fpi = qvParseLongLong(flowpathinstance);
        }
    } else {
        fpi = generate_flowpath_instance();
    }
    r->flowpathInstance = fpi;

    if (forwardsOnly()) {
        if (qvFlowpathHooks.transactionStartEncode != nullptr)
            qvFlowpathHooks.transactionStartEncode(static_cast<int>(qTimeInMS), static_cast<long>(fpi),
                                                   flowpathinstance, url, btHeaderValue, QVCookieStr,
                                                   WBCookieStr, correlationIdHeader, startTimeFP);
        return r;
    }
    if (TLS != nullptr && keyedByTLS()) set_value(TLS, r);

    parseWBCookieStr(WBCookieStr, r);
    char hdrValue[1024];
    const char* btHdr = nullptr;
    if (btHeaderValue != nullptr && qvFlowpathHooks.getBTHeaderName != nullptr &&
        qvFlowpathHooks.getBTHeaderName() != nullptr) {
        escapeURLEncodingForHttp(btHeaderValue, hdrValue, sizeof(hdrValue));
        btHdr = hdrValue;
    }
    setFPHeaderValues(r, url, nullptr, nullptr, btHdr);

    r->qTimeInMS = qTimeInMS;
    // The caller's start time rules, so a caller passing 0 gets a negative start (kept as is).
    r->tlFlowPathTimeStampInMS = wrapSub(startTimeFP, korEpoch());
    // Bounded by the field, not by the 1024 the header may be long: the rest is cut.
    if (correlationIdHeader != nullptr)
        escapeURLEncoding(correlationIdHeader, r->tlCorrelationIdHeader, sizeof(r->tlCorrelationIdHeader));
    snprintf(r->flowpathInstanceStr, sizeof(r->flowpathInstanceStr), "%lld", fpi);

    bool liveSession = false;
    if (QVCookieStr != nullptr && QVCookieStr[0] != '\0' && parseQVCookieStr(QVCookieStr, r) == 0) {
        const long long idle = wrapSub(r->tlFlowPathTimeStampInMS, r->last_fptimestamp_from_cookie) / 1000;
        if (r->instrumented || r->tlIsForceDump) r->tlIsFPCaptured = 1;
        const int maxCount = qv_load(app->QVSys.maxFPCountInSession);
        const long long idleMax = qv_load(app->QVSys.qvSessionIdleTimeOutSecs);
        if ((maxCount != 0 && r->totalFpcount > maxCount) || (idleMax != 0 && idleMax <= idle)) {
            QV_TRACE_IF(fpLevel() > 1, kModule, "Info",
                        "Going to expire session and reset values, qvTD->totalFpcount = %d, duration = %lld",
                        r->totalFpcount, idle);
            clearQVSession(r);
        } else {
            liveSession = true;
        }
    }
    if (!liveSession) setFPCaptured(r, fpi);
    // A live session counts this flowpath too, so the cookie written back carries the new count.
    setValue(QVCookieStr, r);

    if (fpiToTLS != nullptr) modify_hashmap(fpiToTLS, r->flowpathInstanceStr, r);
    saveNodeAndIncrementMethodRefCount(r);
    char beginRequest[] = QV_DEFAULT_METHOD_NAME;
    qvMethodEntryEx(DefaultMethod, r, beginRequest, url, nullptr, 0, nullptr, 1, TLS, startTimeFP);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit, FP '%lld'", fpi);
    return r;
}

void startFPTemp(char* flowpathinstance, char* url, char* buf) {
    if (buf == nullptr) return;
    void* r = startFP(flowpathinstance, url, nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0);
    snprintf(buf, 21, "%lld", static_cast<long long>(reinterpret_cast<intptr_t>(r)));
}

char* getFPInstanceFromTL(QVPerThreadData_t* qvTD) {
    return qvTD ? qvTD->flowpathInstanceStr : nullptr;
}

void endFP(QVPerThreadData_t* qvTD, int statusCode, char* TLS) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    if (qvTD == nullptr || !testRunning()) return;
    if (forwardsOnly()) {
        if (qvFlowpathHooks.transactionEndEncode != nullptr)
            qvFlowpathHooks.transactionEndEncode(statusCode, static_cast<long>(qvTD->flowpathInstance));
        return;
    }
    if (keyedByTLS()) {
        qvTD = searchqvTDfromHashMap(TLS);
        if (qvTD == nullptr) return;
    }
    QVLockGuard guard(qvTD->sequenceBlobLock);
    if (qvTD->setEndFPFlag != 0 || qvTD->flowpathInstanceStr[0] == '\0') {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "FP '%lld' was already ended or never started; ignored",
                    qvTD->flowpathInstance);
        return;
    }
    qvTD->tlDuration = wrapSub(nowMs(), qvTD->tlFlowPathTimeStampInMS);
    qvTD->setEndFPFlag = 1;
    char beginRequest[] = QV_DEFAULT_METHOD_NAME;
    qvMethodExitEx(DefaultMethod, qvTD, beginRequest, 0, statusCode, nullptr, qvTD->tlDuration, 1, 0, 0, TLS);

    const int category = categoryOf(qvTD);
    setCategory(qvTD, category);
    dumpCompleteLocked(qvTD, category, 0, qvTD->tlDuration);
    if (!qvTD->tlIsBTExcluded && qvFlowpathHooks.updateCounterAndDurationForBT != nullptr)
        qvFlowpathHooks.updateCounterAndDurationForBT(qvTD);
    // The generation this flowpath holds, not the current one: that one may be another flowpath's.
    releaseFlowpathLocked(qvTD);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
}

void reset(QVPerThreadData_t* qvTD) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    if (qvTD == nullptr || !testRunning()) return;
    if (forwardsOnly()) {
        if (qvFlowpathHooks.transactionResetEncode != nullptr)
            qvFlowpathHooks.transactionResetEncode(static_cast<long>(qvTD->flowpathInstance));
    } else {
        QVLockGuard guard(qvTD->sequenceBlobLock);
        if (qvTD->flowpathInstanceStr[0] != '\0' && qvTD->setEndFPFlag == 0) {
            qvTD->setEndFPFlag = 1;
            releaseFlowpathLocked(qvTD);
        }
    }
    resetAllThreadLocals(qvTD, tlsdatastruct);
    free_tls_slot(qvTD);
}

void dumpFPHeaderRecord(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    dumpHeaderLocked(qvTD);
}

void dumpResourceMetaRecord(int id, const char* name) {
    char line[kResourceNameMax + 64];
    int n = snprintf(line, sizeof(line), "%d,%lld,%.*s\n", 26, static_cast<long long>(id), kResourceNameMax,
                     name ? name : "");
    if (n <= 0 || n >= static_cast<int>(sizeof(line))) return;
    dumpData(line, n);
    if (qvFlowpathHooks.onResourceMetaRecord != nullptr) qvFlowpathHooks.onResourceMetaRecord(id, name);
}

void dumpIncompleteFPAtTestStop(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    if (qvTD->flowpathInstanceStr[0] == '\0' || qvTD->setEndFPFlag != 0) return;
    qvTD->setEndFPFlag = 1;
    qvTD->tlDuration = wrapSub(nowMs(), qvTD->tlFlowPathTimeStampInMS);
    const int category = categoryOf(qvTD);
    setCategory(qvTD, category);
    QV_TRACE_IF(fpLevel() > 1, kModule, "Info", "Test stop: writing running FP '%lld' with category %d",
                qvTD->flowpathInstance, category);
    dumpCompleteLocked(qvTD, category, 0, qvTD->tlDuration);
    releaseFlowpathLocked(qvTD);
}

// ---- Method entry and exit ----

methodPropProperties* qvMethodEntryEx(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, char* url,
                                      char* urlParameter, long long threadID, char* pName, char forceDump,
                                      char* TLS, long long startTime) {
    (void)pName;
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    if (qvTD == nullptr || !testRunning()) return nullptr;
    if (mName == nullptr || mName[0] == '\0') {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Method Name for %lld is : '%s'.",
                    qvTD->flowpathInstance, mName ? mName : "");
        return nullptr;
    }
    if (forwardsOnly()) {
        if (qvFlowpathHooks.MethodEntryEncode != nullptr) {
            int mid = methodPtr ? static_cast<methodPropProperties*>(methodPtr)->methodId : 0;
            qvFlowpathHooks.MethodEntryEncode(mid, static_cast<long>(qvTD->flowpathInstance),
                                              static_cast<long>(threadID), mName, url, urlParameter,
                                              startTime);
        }
        return static_cast<methodPropProperties*>(methodPtr);
    }
    if (keyedByTLS()) {
        qvTD = searchqvTDfromHashMap(TLS);
        if (qvTD == nullptr) return nullptr;
    }
    QVLockGuard guard(qvTD->sequenceBlobLock);
    if (!holdsFlowpathLocked(qvTD)) return nullptr;
    if (startTime == 0) startTime = my_gettimeofday();
    const long long relStart = wrapSub(wrapSub(startTime, korEpoch()), qvTD->tlFlowPathTimeStampInMS);

    methodPropProperties* m = resolveMethod(qvTD, methodPtr, mName, true);
    if (m == nullptr) return nullptr;
    if (qv_load(m->usedFlag) != 1) qv_store(m->usedFlag, 1);
    const int ep = qv_load(m->isEntryPoint);
    if ((ep & QV_EP_SERVICE) != 0)
        qvTD->tlServiceMethodDepth++;
    else
        qvTD->tlNonServiceMethodCount++;
    if (urlParameter != nullptr) copyText(qvTD->tlURLParameters, sizeof(qvTD->tlURLParameters), urlParameter);
    if (threadID != 0) qvTD->agentThreadID = threadID;

    const bool excluded = qvTD->tlIsBTExcluded != 0;
    if ((ep & QV_EP_CALLOUT) != 0 && !excluded) {
        if (qv_load(m->type) == 2)
            dbMethodEntry(qvTD, relStart, url, getDBIPName());
        else
            qvTD->httpCallOutDepth++;
    }
    const bool forced = qv_load(m->callOutValue) == 1;
    if (qvTD->tlNonServiceMethodCount <= maxNonServiceMethods() && !excluded &&
        (qvTD->tlIsFPCaptured || forceDump == 1 || forced)) {
        qvTD->seqNum++;
        appendMethodEventLocked(qvTD, m->methodId, relStart, 0, -1, -1, qv_load(m->isAsyncCall), threadID,
                                url);
    }
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return m;
}

methodPropProperties* qvMethodExitEx(void* methodPtr, QVPerThreadData_t* qvTD, char* mName,
                                     long long fpCPUTime, int statusCode, char* backendName,
                                     long long methodWallTime, char forceDump, long long threadId,
                                     int isCalOutDone, char* TLS) {
    return methodExit(methodPtr, qvTD, mName, fpCPUTime, statusCode, backendName, methodWallTime, forceDump,
                      threadId, isCalOutDone, TLS, 1);
}

methodPropProperties* qvMethodEntry(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, char* url,
                                    char* urlParameter, long long threadID, char* pName, char* TLS,
                                    long long startTime) {
    return qvMethodEntryEx(methodPtr, qvTD, mName, url, urlParameter, threadID, pName, 0, TLS, startTime);
}

methodPropProperties* qvMethodExit(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, long long fpCPUTime,
                                   int statusCode, char* backendName, long long methodWallTime,
                                   long long threadID, int isCalloutDone, char* TLS, int event_type) {
    return methodExit(methodPtr, qvTD, mName, fpCPUTime, statusCode, backendName, methodWallTime, 0, threadID,
                      isCalloutDone, TLS, event_type);
}

// ---- Sequence blob ----

void updateFPSeqBlob(QVPerThreadData_t* qvTD, int mid, long long startTime, int eventID, int pageID,
                     long long cpuTime, int isAsyncCall, long long threadID, char* urlStr) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    appendMethodEventLocked(qvTD, mid, startTime, eventID, pageID, cpuTime, isAsyncCall, threadID, urlStr);
}

void updateFPSeqBlobWithTierCallOutRecord(QVPerThreadData_t* qvTD, long long methodStartTime,
                                          long long duration, methodPropProperties* mPP) {
    if (qvTD == nullptr || mPP == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    appendCalloutLocked(qvTD, methodStartTime, duration, mPP);
}

void appendExceptionRecordInSeqBlob(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    char buf[kNumMax + 2];
    char* end = putChar(putNum(putChar(buf, 'e'), qvTD->seqNum), '_');
    appendLocked(qvTD, buf, static_cast<int>(end - buf));
}

void checkToDumpFPSeqBlob(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    int len = clampedBlobLen(qvTD);
    if (len > 0 && len >= qv_load(QVFlowpathGenerator.maxCharactersInSeqBlob)) dumpIncompleteLocked(qvTD);
}

void dumpIncompleteFlowpathSeqBlock(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    dumpIncompleteLocked(qvTD);
}

void dumpCompleteFlowpathSeqBlock(QVPerThreadData_t* qvTD, int category, long long fpCPUTime,
                                  long long respTime) {
    if (qvTD == nullptr) return;
    QVLockGuard guard(qvTD->sequenceBlobLock);
    dumpCompleteLocked(qvTD, category, fpCPUTime, respTime);
}

void setMaxCharactersInSeqBlob(int value) {
    qv_store(QVFlowpathGenerator.maxCharactersInSeqBlob, value);
    QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "Value of maxCharactersInSeqBlob : '%d' set.", value);
}

int getMaxCharactersInSeqBlob() {
    return qv_load(QVFlowpathGenerator.maxCharactersInSeqBlob);
}

// ---- Keywords and helpers ----

int setMaxCharInSeqBlob(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    setMaxCharactersInSeqBlob(qvParseInt(value));
    return 0;
}

int setqvFlowpathMasks(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    if (value == nullptr) return -1;
    char copy[1024];
    copyText(copy, sizeof(copy), value);
    parse_flowpath_mask(copy);
    return 0;
}

int settingBackendName(const char* backendName, const char* rule, char* out, int outSize) {
    if (backendName == nullptr || out == nullptr || outSize < 1) return -1;
    // Only the "Host" rule exists here: the backend is named by its host text.
    (void)rule;
    int i = 0;
    for (; i < outSize - 1 && backendName[i] != '\0'; i++) {
        char c = backendName[i];
        out[i] = (c == '\n' || c == '\r' || c == ',') ? ' ' : c;
    }
    out[i] = '\0';
    return i;
}

void qvFlowpathGeneratorResetForTest() {
    for (auto& chunk : tierSeqState().tierSeqChunks) {
        char* c = chunk.exchange(nullptr);
        if (c != nullptr) qvlb_free(c, "Tier sequence texts", -1);
    }
    qvFlowpathHooks = {};
}
