// Proxy-side decoder: frame scan, per-type record decoding and the replay of each event
// through the flowpath engine for the instance the bytes came from.
#include "codec/qvlb_decode.h"

#include <apr_thread_mutex.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_map>
#include <unordered_set>

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

// The five decode records one decoder works on: the shared ones, or a connection's own.
struct Recs {
    MethodEntry_t& me;
    MethodExit_t& mx;
    transactionStart_t& ts;
    transactionEnd_t& te;
    transactionReset_t& tr;
};

Recs sharedRecs() {
    return Recs{MethodEntry, MethodExit, transactionStart, transactionEnd, transactionReset};
}

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

int decodeRecordLocked(Recs r, const char* buff, long long len, int type, int level) {
    switch (type) {
        case QV_MSG_METHOD_ENTRY: {
            if (len < static_cast<long long>(sizeof(MethodEntryVar_t))) return -1;
            memcpy(&r.me.var, buff, sizeof(MethodEntryVar_t));
            Field f[] = {
                {"methodName", "MethodEntry.methodName", r.me.var.methodName, &r.me.methodName},
                {"query_string", "MethodEntry.query_string", r.me.var.query_string, &r.me.query_string},
                {"urlParameter", "MethodEntry.urlParameter", r.me.var.urlParameter, &r.me.urlParameter},
            };
            return decodeStrings(buff, len, sizeof(MethodEntryVar_t), f, 3, -1, level);
        }
        case QV_MSG_METHOD_EXIT: {
            if (len < static_cast<long long>(sizeof(MethodExitVar_t))) return -1;
            memcpy(&r.mx.var, buff, sizeof(MethodExitVar_t));
            Field f[] = {
                {"methodName", "MethodExit.methodName", r.mx.var.methodName, &r.mx.methodName},
                {"backend_header", "MethodExit.backend_header", r.mx.var.backend_header,
                 &r.mx.backend_header},
            };
            return decodeStrings(buff, len, sizeof(MethodExitVar_t), f, 2, -1, level);
        }
        case QV_MSG_TRANSACTION_START: {
            if (len < static_cast<long long>(sizeof(transactionStartVar_t))) return -1;
            transactionStart_t& t = r.ts;
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
            memcpy(&r.te, buff, sizeof(transactionEnd_t));
            return 0;
        case QV_MSG_TRANSACTION_RESET:
            if (len < static_cast<long long>(sizeof(transactionReset_t))) return -1;
            memcpy(&r.tr, buff, sizeof(transactionReset_t));
            return 0;
        default:
            return -1;
    }
}

void freeStringsLocked(Recs r, int type) {
    auto drop = [](char*& s, const char* label) {
        if (s == nullptr) return;
        qvlb_free(s, label, -1);
        s = nullptr;
    };
    switch (type) {
        case QV_MSG_METHOD_ENTRY:
            drop(r.me.methodName, "MethodEntry.methodName");
            drop(r.me.query_string, "MethodEntry.query_string");
            drop(r.me.urlParameter, "MethodEntry.urlParameter");
            break;
        case QV_MSG_METHOD_EXIT:
            drop(r.mx.methodName, "MethodExit.methodName");
            drop(r.mx.backend_header, "MethodExit.backend_header");
            break;
        case QV_MSG_TRANSACTION_START:
            drop(r.ts.fp_header, "transactionStart.fp_header");
            drop(r.ts.url, "transactionStart.url");
            drop(r.ts.btHeaderValue, "transactionStart.btHeaderValue");
            drop(r.ts.qvCookieSet, "transactionStart.qvCookieSet");
            drop(r.ts.wbCookieSet, "transactionStart.wbCookieSet");
            drop(r.ts.correlationHeader, "transactionStart.correlationHeader");
            break;
        default:
            break;
    }
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

// Where a decoder finds, enters and removes its transactions: the raw-byte keys of the shared
// records, or a connection's own table (QVDecodeConn).
struct Keys {
    qvlb_hashmap_t* map;
    QVDecodeConn* conn;  // null: shared records, keys as the raw bytes of the instance
};

QVPerThreadData_t* findTx(const Keys& k, long fpi);
void addTx(const Keys& k, long fpi, QVPerThreadData_t* td);
void endedTx(const Keys& k, long fpi);
void removeTx(const Keys& k, long fpi);

// Replays the decoded message of type from the records r.
void dispatchLocked(Recs r, int type, const Keys& k) {
    switch (type) {
        case QV_MSG_METHOD_ENTRY: {
            const MethodEntry_t& m = r.me;
            // The method id and start time travel but are not used: the proxy resolves the method
            // by name in its own registry and times the entry itself.
            QVPerThreadData_t* td = findTx(k, m.var.flowpathinstance);
            if (td != nullptr)
                qvMethodEntry(nullptr, td, m.methodName, m.query_string, m.urlParameter, m.var.threadId,
                              nullptr, nullptr, 0);
            break;
        }
        case QV_MSG_METHOD_EXIT: {
            const MethodExit_t& m = r.mx;
            QVPerThreadData_t* td = findTx(k, m.var.flowpathinstance);
            if (td != nullptr)
                qvMethodExit(nullptr, td, m.methodName, m.var.cpuTime, m.var.statusCode, m.backend_header,
                             m.var.duration, m.var.threadId, m.var.isCallout, nullptr, m.var.eventType);
            break;
        }
        case QV_MSG_TRANSACTION_START: {
            const transactionStart_t& t = r.ts;
            char fpiText[64];
            long fpi = t.var.flowpathinstance;
            if (k.conn != nullptr) fpi = qvlbDecodeConnAssignId(k.conn, fpi);
            snprintf(fpiText, sizeof(fpiText), "%ld", fpi);
            void* td = startFP(fpiText, t.url, t.btHeaderValue, nullptr, t.qvCookieSet, t.wbCookieSet,
                               t.correlationHeader, t.var.qTimeMS, t.var.startTimeFP);
            if (td != nullptr) addTx(k, t.var.flowpathinstance, static_cast<QVPerThreadData_t*>(td));
            break;
        }
        case QV_MSG_TRANSACTION_END: {
            QVPerThreadData_t* td = findTx(k, r.te.flowpathinstance);
            // The entry stays: the Reset that follows finds the record through it.
            if (td != nullptr) {
                endFP(td, r.te.statuscode, nullptr);
                endedTx(k, r.te.flowpathinstance);
            }
            break;
        }
        default: {
            // The reset acts on the transaction of the last End frame, not on the instance the
            // Reset frame names: the application sends them in that order.
            QVPerThreadData_t* td = findTx(k, r.te.flowpathinstance);
            if (td != nullptr) {
                reset(td);
                removeTx(k, r.te.flowpathinstance);
            }
            break;
        }
    }
}

}  // namespace

struct QVDecodeIdSet {
    std::unordered_set<long> inFlight;
};

namespace {

// One transaction of a connection; the node's address is stable, so key is the map's key.
struct ConnTx {
    char key[48];
    QVPerThreadData_t* td;
    long traced;  // the instance number its records carry
    bool ended;
};

}  // namespace

struct QVDecodeConn {
    MethodEntry_t me{};
    MethodExit_t mx{};
    transactionStart_t ts{};
    transactionEnd_t te{};
    transactionReset_t tr{};
    QVProxyInstance_t* inst = nullptr;
    QVDecodeIdSet* ids = nullptr;
    unsigned long long id = 0;
    long long maxFrame = QV_MSG_MAX_FRAME;
    std::unordered_map<long, ConnTx> txs;  // by the instance number the worker sent
    long pendingTraced = 0;                // number given to the Start being handled
    long long open = 0;
    QVDecodeConnStats stats{};
};

namespace {

Recs connRecs(QVDecodeConn* c) {
    return Recs{c->me, c->mx, c->ts, c->te, c->tr};
}

void connKey(const QVDecodeConn* c, long fpi, char* key, size_t cap) {
    snprintf(key, cap, "%llx:%ld", c->id, fpi);
}

QVPerThreadData_t* findTx(const Keys& k, long fpi) {
    char key[48];
    if (k.conn == nullptr)
        fpiTlsMapKey(fpi, key);
    else
        connKey(k.conn, fpi, key, sizeof(key));
    auto* td = static_cast<QVPerThreadData_t*>(search_hashmap(k.map, key));
    if (td == nullptr || k.conn == nullptr) return td;
    // A test stop gives every busy record back; one that serves another transaction now is not ours.
    auto it = k.conn->txs.find(fpi);
    return it != k.conn->txs.end() && td->flowpathInstance == it->second.traced ? td : nullptr;
}

// Gives back a connection's transaction: map entry, in-flight number, and its record when asked.
void dropConnTx(QVDecodeConn* c, ConnTx& tx, bool releaseRecord) {
    modify_hashmap(c->inst->fpi_tls_map, tx.key, nullptr);
    if (c->ids != nullptr) c->ids->inFlight.erase(tx.traced);
    if (!tx.ended) --c->open;
    // A record the test stop took back may already serve another transaction.
    if (releaseRecord && tx.td->flowpathInstance == tx.traced) reset(tx.td);
}

void addTx(const Keys& k, long fpi, QVPerThreadData_t* td) {
    if (k.conn == nullptr) {
        char key[9];
        fpiTlsMapKey(fpi, key);
        modify_hashmap(k.map, key, td);
        return;
    }
    QVDecodeConn* c = k.conn;
    auto old = c->txs.find(fpi);
    if (old != c->txs.end()) {
        // The worker reused a number it never reset: the older transaction is unreachable now.
        dropConnTx(c, old->second, true);
        c->txs.erase(old);
    }
    ConnTx& tx = c->txs[fpi];
    connKey(c, fpi, tx.key, sizeof(tx.key));
    tx.td = td;
    tx.traced = c->pendingTraced;
    tx.ended = false;
    if (c->ids != nullptr) c->ids->inFlight.insert(tx.traced);
    ++c->open;
    ++c->stats.started;
    modify_hashmap(k.map, tx.key, td);
}

void endedTx(const Keys& k, long fpi) {
    if (k.conn == nullptr) return;
    auto it = k.conn->txs.find(fpi);
    if (it == k.conn->txs.end() || it->second.ended) return;
    it->second.ended = true;
    --k.conn->open;
    ++k.conn->stats.ended;
}

void removeTx(const Keys& k, long fpi) {
    if (k.conn == nullptr) {
        char key[9];
        fpiTlsMapKey(fpi, key);
        modify_hashmap(k.map, key, nullptr);
        return;
    }
    auto it = k.conn->txs.find(fpi);
    if (it == k.conn->txs.end()) return;
    dropConnTx(k.conn, it->second, false);  // reset already gave the record back
    k.conn->txs.erase(it);
}

// Decodes and replays one frame from r; map may be null only for a Transaction Start.
int handleFrame(Recs r, const Keys& k, char* buff, long long len, int type, int level) {
    if (type < QV_MSG_METHOD_ENTRY || type > QV_MSG_TRANSACTION_RESET) {
        DECODE_TRACE(level, "Unknown message type ;)");
        return -1;
    }
    traceStart(level, type);
    if (decodeRecordLocked(r, buff, len, type, level) != 0) return -1;
    if (k.map == nullptr && type != QV_MSG_TRANSACTION_START) {
        freeStringsLocked(r, type);
        return -1;
    }
    dispatchLocked(r, type, k);
    freeStringsLocked(r, type);
    traceDone(level, type);
    return 0;
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
    return decodeRecordLocked(sharedRecs(), buff, len, type, ctlLevel());
}

void freeFrameStrings(int type) {
    QVLockGuard guard(lockHandle());
    freeStringsLocked(sharedRecs(), type);
}

int readDataMessage(char* buff, long long len, int type, int appIndex) {
    const int level = ctlLevel();
    DECODE_TRACE(level, "Method called");
    if (buff == nullptr && type >= QV_MSG_METHOD_ENTRY && type <= QV_MSG_TRANSACTION_RESET) return -1;
    QVLockGuard guard(lockHandle());
    QVProxyInstance_t* inst = qvlbGetDecodeInstance(appIndex);
    Keys k{inst != nullptr ? qv_load_acquire(inst->fpi_tls_map) : nullptr, nullptr};
    if (inst == nullptr) {
        if (type < QV_MSG_METHOD_ENTRY || type > QV_MSG_TRANSACTION_RESET) {
            DECODE_TRACE(level, "Unknown message type ;)");
        } else if (decodeRecordLocked(sharedRecs(), buff, len, type, level) == 0) {
            // Decoded all the same, so that the shared records show the frame.
            freeStringsLocked(sharedRecs(), type);
        }
        return -1;
    }
    const int rc = handleFrame(sharedRecs(), k, buff, len, type, level);
    if (rc == 0) DECODE_TRACE(level, "Method exit");
    return rc;
}

QVDecodeIdSet* qvlbDecodeIdSetCreate() {
    return new (std::nothrow) QVDecodeIdSet();
}

void qvlbDecodeIdSetDestroy(QVDecodeIdSet* ids) {
    delete ids;
}

QVDecodeConn* qvlbDecodeConnCreate(QVProxyInstance_t* inst, QVDecodeIdSet* ids, unsigned long long connId,
                                   long long maxFrame) {
    if (inst == nullptr) return nullptr;
    auto* c = new (std::nothrow) QVDecodeConn();
    if (c == nullptr) return nullptr;
    c->inst = inst;
    c->ids = ids;
    c->id = connId;
    c->maxFrame = maxFrame < QV_MSG_MAX_FRAME ? maxFrame : QV_MSG_MAX_FRAME;
    return c;
}

long qvlbDecodeConnAssignId(QVDecodeConn* c, long fpi) {
    long t = fpi;
    if (c->ids != nullptr) {
        while (c->ids->inFlight.count(t) != 0) t = static_cast<long>(static_cast<unsigned long>(t) + 1UL);
    }
    if (t != fpi) ++c->stats.renumbered;
    c->pendingTraced = t;
    return t;
}

size_t qvlbDecodeConnFeed(QVDecodeConn* c, char* buf, size_t n) {
    if (c == nullptr || buf == nullptr) return n;
    const int level = ctlLevel();
    const Keys k{qv_load_acquire(c->inst->fpi_tls_map), c};
    size_t i = 0;
    while (i < n) {
        if (buf[i] != '^') {
            ++i;
            ++c->stats.garbage;
            continue;
        }
        if (n - i < 1 + sizeof(msgHdr_t)) break;  // header not complete yet
        msgHdr_t hdr;
        memcpy(&hdr, buf + i + 1, sizeof(hdr));
        const long long total = hdr.total_len;
        if (hdr.header_len != QV_MSG_HEADER_LEN || hdr.msg_type < QV_MSG_METHOD_ENTRY ||
            hdr.msg_type > QV_MSG_TRANSACTION_RESET || total < kMinScan || total > c->maxFrame) {
            ++i;
            ++c->stats.garbage;
            continue;
        }
        if (static_cast<long long>(n - i) < total) break;  // the rest of the frame is still coming
        ++c->stats.frames;
        if (handleFrame(connRecs(c), k, buf + i + QV_MSG_RECORD_OFFSET, total - QV_MSG_HEADER_LEN - 2,
                        hdr.msg_type, level) != 0)
            ++c->stats.garbage;
        i += static_cast<size_t>(total);
    }
    return i;
}

void qvlbDecodeConnClose(QVDecodeConn* c, int endStatus, long long* interruptedEnded,
                         long long* interruptedReset) {
    if (c == nullptr) return;
    const bool running = qv_load(c->inst->Server.testRunRunning) != 0;
    for (auto& [fpi, tx] : c->txs) {
        (void)fpi;
        const bool mine = tx.td->flowpathInstance == tx.traced;
        if (!tx.ended && mine) {
            if (running) {
                endFP(tx.td, endStatus, nullptr);
                if (interruptedEnded != nullptr) ++*interruptedEnded;
            } else if (interruptedReset != nullptr) {
                ++*interruptedReset;
            }
        }
        dropConnTx(c, tx, true);
    }
    c->txs.clear();
    const Recs r = connRecs(c);
    freeStringsLocked(r, QV_MSG_METHOD_ENTRY);
    freeStringsLocked(r, QV_MSG_METHOD_EXIT);
    freeStringsLocked(r, QV_MSG_TRANSACTION_START);
    delete c;
}

const QVDecodeConnStats& qvlbDecodeConnStats(const QVDecodeConn* c) {
    return c->stats;
}

long long qvlbDecodeConnOpen(const QVDecodeConn* c) {
    return c->open;
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
        freeStringsLocked(sharedRecs(), QV_MSG_METHOD_ENTRY);
        freeStringsLocked(sharedRecs(), QV_MSG_METHOD_EXIT);
        freeStringsLocked(sharedRecs(), QV_MSG_TRANSACTION_START);
        memset(&MethodEntry, 0, sizeof(MethodEntry));
        memset(&MethodExit, 0, sizeof(MethodExit));
        memset(&transactionStart, 0, sizeof(transactionStart));
        memset(&transactionEnd, 0, sizeof(transactionEnd));
        memset(&transactionReset, 0, sizeof(transactionReset));
    }
    for (int i = 0; i < QV_DECODE_MAX_INSTANCES; ++i) qv_store_release(instances[i], nullptr);
}
