// Proxy-side decoder: frame scan, per-type record decoding and the replay of each event
// through the flowpath engine for the instance the bytes came from.
#include "codec/qvlb_decode.h"

#include <apr_thread_mutex.h>

#include <cstdio>
#include <cstring>

#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"

MethodEntry_t MethodEntry;
MethodExit_t MethodExit;
transactionStart_t transactionStart;
transactionEnd_t transactionEnd;
transactionReset_t transactionReset;

namespace {

const char kModule[] = "CONTROL_THREAD";

// Smallest count of remaining bytes at which a "^" is taken as the start of a frame.
constexpr long long kMinScan = 17;

QVProxyInstance_t* instances[QV_DECODE_MAX_INSTANCES];  // atomic pointers

// Serialises every user of the shared records; nested, so decodeMessage may hold it around
// readDataMessage.
apr_thread_mutex_t* decodeLock = nullptr;

apr_thread_mutex_t* lockHandle() {
    apr_thread_mutex_t* m = qv_load_acquire(decodeLock);
    if (m != nullptr) return m;
    qvlb_create_nested_mutex(&decodeLock, nullptr);
    return qv_load_acquire(decodeLock);
}

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

#define DECODE_TRACE(level, ...) QV_TRACE_IF((level) == 4, kModule, "Info", __VA_ARGS__)

// One string field of a record: its length on the wire and where its copy goes.
struct Field {
    const char* name;   // "Allocating memory for <name>"
    const char* label;  // "<label> = %s"
    int len;            // L
    char** slot;
};

void freeFields(Field* f, int n) {
    for (int i = 0; i < n; ++i) {
        if (*f[i].slot == nullptr) continue;
        qvlb_free(*f[i].slot, f[i].label, -1);
        *f[i].slot = nullptr;
    }
}

// Copies the string bodies that follow the fixed record (at rec + S) into fresh allocations.
// wbAdvanceIndex >= 0 marks a Transaction Start: after its last string the position moves by the
// length of field wbAdvanceIndex instead of its own, which only shifts the end-mark check.
// Returns 0, or -1 with nothing left allocated.
int decodeStrings(const char* rec, long long len, long long S, Field* f, int n, int wbAdvanceIndex,
                  int level) {
    long long sum = 0;
    for (int i = 0; i < n; ++i) {
        if (f[i].len < 0) return -1;  // a negative length would make the bounds below lie
        sum += f[i].len;
    }
    if (len - sum - S < 0) return -1;
    long long off = S;
    int present = 0;
    for (int i = 0; i < n; ++i) {
        if (f[i].len == 0) continue;
        DECODE_TRACE(level, "Allocating memory for %s", f[i].name);
        char* s = static_cast<char*>(qvlb_malloc(static_cast<size_t>(f[i].len), f[i].label, -1));
        if (s == nullptr) {
            // A message with a string missing would replay as a different event: drop it whole.
            freeFields(f, n);
            return -1;
        }
        memcpy(s, rec + off, static_cast<size_t>(f[i].len) - 1);
        s[f[i].len - 1] = '\0';
        *f[i].slot = s;
        DECODE_TRACE(level, "%s = %s", f[i].label, s);
        ++present;
        const int advanceBy = (i == n - 1 && wbAdvanceIndex >= 0) ? f[wbAdvanceIndex].len : f[i].len;
        off += advanceBy - 1;
    }
    if (level == 4) {
        if (off >= 0 && off < len && rec[off] == '\n') {
            if (off + 1 + present == len) DECODE_TRACE(level, "Data Processed Successfully.");
        } else {
            DECODE_TRACE(level, "End of message not found where expected (offset %lld of %lld)", off, len);
        }
    }
    return 0;
}

int decodeRecordLocked(const char* buff, long long len, int type, int level) {
    switch (type) {
        case QV_MSG_METHOD_ENTRY: {
            if (len < static_cast<long long>(sizeof(MethodEntryVar_t))) return -1;
            memcpy(&MethodEntry.var, buff, sizeof(MethodEntryVar_t));
            Field f[] = {
                {"methodName", "MethodEntry.methodName", MethodEntry.var.methodName, &MethodEntry.methodName},
                {"query_string", "MethodEntry.query_string", MethodEntry.var.query_string,
                 &MethodEntry.query_string},
                {"urlParameter", "MethodEntry.urlParameter", MethodEntry.var.urlParameter,
                 &MethodEntry.urlParameter},
            };
            return decodeStrings(buff, len, sizeof(MethodEntryVar_t), f, 3, -1, level);
        }
        case QV_MSG_METHOD_EXIT: {
            if (len < static_cast<long long>(sizeof(MethodExitVar_t))) return -1;
            memcpy(&MethodExit.var, buff, sizeof(MethodExitVar_t));
            Field f[] = {
                {"methodName", "MethodExit.methodName", MethodExit.var.methodName, &MethodExit.methodName},
                {"backend_header", "MethodExit.backend_header", MethodExit.var.backend_header,
                 &MethodExit.backend_header},
            };
            return decodeStrings(buff, len, sizeof(MethodExitVar_t), f, 2, -1, level);
        }
        case QV_MSG_TRANSACTION_START: {
            if (len < static_cast<long long>(sizeof(transactionStartVar_t))) return -1;
            transactionStart_t& t = transactionStart;
            memcpy(&t.var, buff, sizeof(transactionStartVar_t));
            Field f[] = {
                {"fp_header", "transactionStart.fp_header", t.var.fp_header, &t.fp_header},
                {"url", "transactionStart.url", t.var.url, &t.url},
                {"btHeaderValue", "transactionStart.btHeaderValue", t.var.btHeaderValue, &t.btHeaderValue},
                {"qvCookieSet", "transactionStart.qvCookieSet", t.var.qvCookieSet, &t.qvCookieSet},
                {"wbCookieSet", "transactionStart.wbCookieSet", t.var.wbCookieSet, &t.wbCookieSet},
                {"correlationHeader", "transactionStart.correlationHeader", t.var.correlationHeader,
                 &t.correlationHeader},
            };
            return decodeStrings(buff, len, sizeof(transactionStartVar_t), f, 6, 4, level);
        }
        case QV_MSG_TRANSACTION_END:
            if (len < static_cast<long long>(sizeof(transactionEnd_t))) return -1;
            memcpy(&transactionEnd, buff, sizeof(transactionEnd_t));
            return 0;
        case QV_MSG_TRANSACTION_RESET:
            if (len < static_cast<long long>(sizeof(transactionReset_t))) return -1;
            memcpy(&transactionReset, buff, sizeof(transactionReset_t));
            return 0;
        default:
            return -1;
    }
}

void freeStringsLocked(int type) {
    auto drop = [](char*& s, const char* label) {
        if (s == nullptr) return;
        qvlb_free(s, label, -1);
        s = nullptr;
    };
    switch (type) {
        case QV_MSG_METHOD_ENTRY:
            drop(MethodEntry.methodName, "MethodEntry.methodName");
            drop(MethodEntry.query_string, "MethodEntry.query_string");
            drop(MethodEntry.urlParameter, "MethodEntry.urlParameter");
            break;
        case QV_MSG_METHOD_EXIT:
            drop(MethodExit.methodName, "MethodExit.methodName");
            drop(MethodExit.backend_header, "MethodExit.backend_header");
            break;
        case QV_MSG_TRANSACTION_START:
            drop(transactionStart.fp_header, "transactionStart.fp_header");
            drop(transactionStart.url, "transactionStart.url");
            drop(transactionStart.btHeaderValue, "transactionStart.btHeaderValue");
            drop(transactionStart.qvCookieSet, "transactionStart.qvCookieSet");
            drop(transactionStart.wbCookieSet, "transactionStart.wbCookieSet");
            drop(transactionStart.correlationHeader, "transactionStart.correlationHeader");
            break;
        default:
            break;
    }
}

QVPerThreadData_t* findTransaction(qvlb_hashmap_t* map, long fpi) {
    char key[9];
    fpiTlsMapKey(fpi, key);
    return static_cast<QVPerThreadData_t*>(search_hashmap(map, key));
}

void traceStart(int level, int type) {
    switch (type) {
        case QV_MSG_METHOD_ENTRY:
            DECODE_TRACE(level, "Msg type 0, Method Entry");
            break;
        case QV_MSG_METHOD_EXIT:
            DECODE_TRACE(level, "Msg type 1, Method Exit");
            break;
        case QV_MSG_TRANSACTION_START:
            DECODE_TRACE(level, "Msg type 2, Transaction Start");
            break;
        case QV_MSG_TRANSACTION_END:
            DECODE_TRACE(level, "Message Type 3, Transaction End");
            break;
        case QV_MSG_TRANSACTION_RESET:
            DECODE_TRACE(level, "Message Type 4, Transaction Reset");
            break;
        default:
            break;
    }
}

void traceDone(int level, int type) {
    switch (type) {
        case QV_MSG_METHOD_ENTRY:
            DECODE_TRACE(level, "Message Type 0, Method Entry processed.");
            break;
        case QV_MSG_METHOD_EXIT:
            DECODE_TRACE(level, "Message Type 1, Method Exit processed.");
            break;
        case QV_MSG_TRANSACTION_START:
            DECODE_TRACE(level, "Message Type 2, Transaction Start processed.");
            break;
        case QV_MSG_TRANSACTION_END:
            DECODE_TRACE(level, "Message Type 3, Transaction End processed.");
            break;
        default:
            DECODE_TRACE(level, "Message Type 4, Transaction Reset processed.");
            break;
    }
}

// Replays the decoded message of type; the shared record of the type is filled.
void dispatchLocked(int type, qvlb_hashmap_t* map) {
    switch (type) {
        case QV_MSG_METHOD_ENTRY: {
            const MethodEntry_t& m = MethodEntry;
            // The method id and start time travel but are not used: the proxy resolves the method
            // by name in its own registry and times the entry itself.
            QVPerThreadData_t* td = findTransaction(map, m.var.flowpathinstance);
            if (td != nullptr)
                qvMethodEntry(nullptr, td, m.methodName, m.query_string, m.urlParameter, m.var.threadId,
                              nullptr, nullptr, 0);
            break;
        }
        case QV_MSG_METHOD_EXIT: {
            const MethodExit_t& m = MethodExit;
            QVPerThreadData_t* td = findTransaction(map, m.var.flowpathinstance);
            if (td != nullptr)
                qvMethodExit(nullptr, td, m.methodName, m.var.cpuTime, m.var.statusCode, m.backend_header,
                             m.var.duration, m.var.threadId, m.var.isCallout, nullptr, m.var.eventType);
            break;
        }
        case QV_MSG_TRANSACTION_START: {
            const transactionStart_t& t = transactionStart;
            char fpiText[64];
            snprintf(fpiText, sizeof(fpiText), "%ld", t.var.flowpathinstance);
            void* td = startFP(fpiText, t.url, t.btHeaderValue, nullptr, t.qvCookieSet, t.wbCookieSet,
                               t.correlationHeader, t.var.qTimeMS, t.var.startTimeFP);
            if (td != nullptr) {
                char key[9];
                fpiTlsMapKey(t.var.flowpathinstance, key);
                modify_hashmap(map, key, td);
            }
            break;
        }
        case QV_MSG_TRANSACTION_END: {
            QVPerThreadData_t* td = findTransaction(map, transactionEnd.flowpathinstance);
            // The entry stays: the Reset that follows finds the record through it.
            if (td != nullptr) endFP(td, transactionEnd.statuscode, nullptr);
            break;
        }
        default: {
            // The reset acts on the transaction of the last End frame, not on the instance the
            // Reset frame names: the application sends them in that order.
            char key[9];
            fpiTlsMapKey(transactionEnd.flowpathinstance, key);
            auto* td = static_cast<QVPerThreadData_t*>(search_hashmap(map, key));
            if (td != nullptr) {
                reset(td);
                modify_hashmap(map, key, nullptr);
            }
            break;
        }
    }
}

}  // namespace

void fpiTlsMapKey(long flowpathinstance, char key[9]) {
    memcpy(key, &flowpathinstance, 8);
    key[8] = '\0';
}

int qvlbSetDecodeInstance(int appIndex, QVProxyInstance_t* inst) {
    if (appIndex < 0 || appIndex >= QV_DECODE_MAX_INSTANCES) return -1;
    qv_store_release(instances[appIndex], inst);
    return 0;
}

QVProxyInstance_t* qvlbGetDecodeInstance(int appIndex) {
    if (appIndex < 0 || appIndex >= QV_DECODE_MAX_INSTANCES) return nullptr;
    return qv_load_acquire(instances[appIndex]);
}

int decodeFrameRecord(const char* buff, long long len, int type) {
    if (buff == nullptr) return -1;
    QVLockGuard guard(lockHandle());
    return decodeRecordLocked(buff, len, type, ctlLevel());
}

void freeFrameStrings(int type) {
    QVLockGuard guard(lockHandle());
    freeStringsLocked(type);
}

int readDataMessage(char* buff, long long len, int type, int appIndex) {
    const int level = ctlLevel();
    DECODE_TRACE(level, "Method called");
    if (type < QV_MSG_METHOD_ENTRY || type > QV_MSG_TRANSACTION_RESET) {
        DECODE_TRACE(level, "Unknown message type ;)");
        return -1;
    }
    if (buff == nullptr) return -1;
    QVLockGuard guard(lockHandle());
    traceStart(level, type);
    if (decodeRecordLocked(buff, len, type, level) != 0) return -1;
    QVProxyInstance_t* inst = qvlbGetDecodeInstance(appIndex);
    qvlb_hashmap_t* map = inst != nullptr ? qv_load_acquire(inst->fpi_tls_map) : nullptr;
    if (inst == nullptr || (map == nullptr && type != QV_MSG_TRANSACTION_START)) {
        freeStringsLocked(type);
        return -1;
    }
    dispatchLocked(type, map);
    freeStringsLocked(type);
    traceDone(level, type);
    DECODE_TRACE(level, "Method exit");
    return 0;
}

int decodeMessage(char* buff, int readBytes, int appIndex) {
    if (buff == nullptr || readBytes <= 0) return 0;
    const int level = ctlLevel();
    DECODE_TRACE(level, "Method called");
    QVLockGuard guard(lockHandle());
    const char* const end = buff + readBytes;
    char* p = buff;
    long long n = readBytes;
    // n can exceed the bytes really left (the two-byte step counts one), so every access is
    // also bounded by end.
    while (n > 0 && p < end) {
        const long long avail = end - p;
        if (*p != '^' || n < kMinScan || avail < kMinScan) {
            ++p;
            --n;
            continue;
        }
        msgHdr_t hdr;
        memcpy(&hdr, p + 1, sizeof(hdr));
        DECODE_TRACE(level, "found ^ , bytes read = %d", static_cast<int>(n));
        DECODE_TRACE(level, "hdr_len = %d, total_len = %d, type = %d", hdr.header_len, hdr.total_len,
                     hdr.msg_type);
        const long long total = hdr.total_len;
        if (total > hdr.header_len && total >= 1 && total <= n && total <= avail) {
            // header_len is not checked to be 12, but the record never reaches past the frame.
            long long len = total - static_cast<long long>(hdr.header_len) - 2;
            if (len > total - QV_MSG_RECORD_OFFSET) len = total - QV_MSG_RECORD_OFFSET;
            if (total >= QV_MSG_RECORD_OFFSET)
                readDataMessage(p + QV_MSG_RECORD_OFFSET, len, hdr.msg_type, appIndex);
            p += total;
            n -= total;
        } else {
            // A frame not (yet) complete: step over the mark and the next byte, counting one.
            p += 2;
            n -= 1;
        }
    }
    DECODE_TRACE(level, "Method exit");
    return 0;
}

void qvlb_decode_reset_for_test() {
    {
        QVLockGuard guard(qv_load_acquire(decodeLock));
        freeStringsLocked(QV_MSG_METHOD_ENTRY);
        freeStringsLocked(QV_MSG_METHOD_EXIT);
        freeStringsLocked(QV_MSG_TRANSACTION_START);
        memset(&MethodEntry, 0, sizeof(MethodEntry));
        memset(&MethodExit, 0, sizeof(MethodExit));
        memset(&transactionStart, 0, sizeof(transactionStart));
        memset(&transactionEnd, 0, sizeof(transactionEnd));
        memset(&transactionReset, 0, sizeof(transactionReset));
    }
    for (int i = 0; i < QV_DECODE_MAX_INSTANCES; ++i) qv_store_release(instances[i], nullptr);
}
