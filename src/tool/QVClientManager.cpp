// Metadata cache replay: request parsing, selectors, the per-type replays from the owning tables,
// the summary, and the header and resource caches that no lower table keeps.
#include "tool/QVClientManager.h"

#include <apr_hash.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "collector/QVDataDispatcher.h"
#include "collector/control_thread.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_lfmap.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"
#include "qvbt/qvbt_bt_object.h"

namespace {

const char* const kModule = "CONTROL_THREAD";
const char* const kBatchPurpose = "Metadata replay batch";
const char* const kRequestPurpose = "Metadata request copy";
const char* const kHeaderPurpose = "Cached header record";
const char* const kResourcePurpose = "Cached resource record";

// Largest record a replay formats: a method or resource name of 4000 bytes plus its fields, or
// a cut SQL record (3068 + 4).
constexpr size_t kMaxRecord = 4160;

struct ClientManagerState {
    QVClientManager_t client = {};
    apr_thread_mutex_t* lock = nullptr;
    // Header and resource records kept for replay, by id.
    qvlb_lfmap_t* headers = nullptr;
    qvlb_lfmap_t* resources = nullptr;
    ~ClientManagerState();
};

}  // namespace

QV_INSTANCE_STATE_DEFINE(ClientManagerState, clientManagerState)

QVClientManager_t& qvClientManagerOfInstance() {
    return clientManagerState().client;
}

namespace {

#define managerLock (clientManagerState().lock)
#define headerCache (clientManagerState().headers)
#define resourceCache (clientManagerState().resources)

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

apr_thread_mutex_t* managerMutex() {
    if (qv_load_acquire(managerLock) == nullptr) qvlb_create_nested_mutex(&managerLock, nullptr);
    return qv_load_acquire(managerLock);
}

// Every public entry takes the manager (nested), so the control thread's requests and the data
// thread's replay at connection never share the manager's fields.
class ManagerGuard {
  public:
    ManagerGuard() : guard_(managerMutex()) {}

  private:
    QVLockGuard guard_;
};

long long collectorNow() {
    QVProxyInstance_t* app = qvApplication;
    long long diff = app != nullptr ? qv_load(app->Server.korEpochDiffTime) : 0;
    return my_gettimeofday() - diff;
}

bool stopping() {
    QVClientManager_t& m = QVClientManager;
    if (m.stopSendingData == 0 && qv_load(qvAgentStopping) != 0) m.stopSendingData = 1;
    return m.stopSendingData != 0;
}

// Sends errorMessage as it is (an error text of its own) and empties it.
void sendErrorMessage() {
    char* e = QVClientManager.errorMessage;
    const size_t used = strnlen(e, QV_CM_ERROR_SIZE - 1);
    if (used == 0) return;
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Metadata request error: %s", e);
    controlConnectionSendBuffer(e, static_cast<int>(used));
    e[0] = '\0';
}

// Sets errorMessage to one error text. A text cut by the buffer keeps the line feed its format
// ends with.
__attribute__((format(printf, 1, 2))) void setError(const char* fmt, ...) {
    char* e = QVClientManager.errorMessage;
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(e, QV_CM_ERROR_SIZE, fmt, ap);
    va_end(ap);
    const size_t fl = strlen(fmt);
    if (n >= QV_CM_ERROR_SIZE && fl > 0 && fmt[fl - 1] == '\n') e[QV_CM_ERROR_SIZE - 2] = '\n';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

// Formats into out (cap bytes); the length, or -1 when it does not fit.
__attribute__((format(printf, 3, 4))) int formatRecord(char* out, size_t cap, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(out, cap, fmt, ap);
    va_end(ap);
    return (n < 0 || static_cast<size_t>(n) >= cap) ? -1 : n;
}

// Records collected under a table's lock and sent after it is released, in id order.
class RecordBatch {
  public:
    RecordBatch() = default;
    ~RecordBatch() {
        qvlb_free(text_, kBatchPurpose, -1);
        qvlb_free(entries_, kBatchPurpose, -1);
    }
    RecordBatch(const RecordBatch&) = delete;
    RecordBatch& operator=(const RecordBatch&) = delete;

    // Copies rec; false (logged by the allocator) when memory is short, the batch keeps the rest.
    bool add(long long id, const char* rec, int len) {
        if (rec == nullptr || len <= 0) return true;
        if (!grow(reinterpret_cast<void**>(&text_), &textCap_, textLen_ + static_cast<size_t>(len), 1))
            return false;
        if (!grow(reinterpret_cast<void**>(&entries_), &entryCap_, count_ + 1, sizeof(Entry))) return false;
        memcpy(text_ + textLen_, rec, static_cast<size_t>(len));
        entries_[count_++] = Entry{id, textLen_, len};
        textLen_ += static_cast<size_t>(len);
        return true;
    }

    // Sends every record once per id, lowest id first; returns how many were sent.
    int send();

  private:
    struct Entry {
        long long id;
        size_t off;
        int len;
    };

    static bool grow(void** buf, size_t* cap, size_t need, size_t unit) {
        if (need <= *cap) return true;
        size_t next = *cap == 0 ? 64 : *cap;
        while (next < need) {
            if (next > (SIZE_MAX / 2) / unit) return false;
            next *= 2;
        }
        void* p = qvlb_realloc(*buf, next * unit, kBatchPurpose, -1);
        if (p == nullptr) return false;
        *buf = p;
        *cap = next;
        return true;
    }

    char* text_ = nullptr;
    size_t textLen_ = 0;
    size_t textCap_ = 0;
    Entry* entries_ = nullptr;
    size_t count_ = 0;
    size_t entryCap_ = 0;
};

// Sends one record to the request's destination. False once the replay is abandoned.
bool sendRecord(const char* rec, int len) {
    QVClientManager_t& m = QVClientManager;
    if (stopping()) return false;
    if (m.destination > 0 && dumpOnDataConnection(rec, len) == 2) m.stopSendingData = 1;
    if ((m.destination == QV_CM_DEST_CONTROL || m.destination == QV_CM_DEST_BOTH) &&
        controlConnectionSendBuffer(rec, len) != 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                    "Control connection failed while sending cached records; replay abandoned.");
        m.stopSendingData = 1;
    }
    if (m.stopSendingData != 0) return false;
    m.recordsSent++;
    return true;
}

int RecordBatch::send() {
    std::sort(entries_, entries_ + count_, [](const Entry& a, const Entry& b) { return a.id < b.id; });
    int sent = 0;
    for (size_t i = 0; i < count_; ++i) {
        if (i > 0 && entries_[i].id == entries_[i - 1].id) continue;
        if (!sendRecord(text_ + entries_[i].off, entries_[i].len)) break;
        ++sent;
    }
    return sent;
}

bool qualifies(long long id, long long index, char all) {
    return all != 0 ? id >= index : id == index;
}

// ---- Header and resource caches ----

struct CachedMeta {
    int id;
    int len;  // bytes of the text that follows the record header
};

char* cachedText(CachedMeta* e) {
    return reinterpret_cast<char*>(e + 1);
}

qvlb_lfmap_t* cacheMap(qvlb_lfmap_t** slot, bool create) {
    qvlb_lfmap_t* m = qv_load_acquire(*slot);
    if (m != nullptr || !create) return m;
    qvlb_lfmap_t* made = qvlb_lfmap_create(0);
    if (made == nullptr) return nullptr;
    qvlb_lfmap_t* expected = nullptr;
    if (!__atomic_compare_exchange_n(slot, &expected, made, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        qvlb_lfmap_destroy(made);
        return expected;
    }
    return made;
}

int cacheRecord(qvlb_lfmap_t** slot, int id, const char* text, const char* purpose) {
    if (text == nullptr || id < 1) return -1;
    qvlb_lfmap_t* map = cacheMap(slot, true);
    if (map == nullptr) return -1;
    char key[16];
    snprintf(key, sizeof(key), "%d", id);
    if (qvlb_lfmap_get(map, key) != nullptr) return 0;
    size_t n = strnlen(text, QV_CM_META_NAME_MAX);
    auto* e = static_cast<CachedMeta*>(qvlb_malloc(sizeof(CachedMeta) + n + 1, purpose, id));
    if (e == nullptr) return -1;
    e->id = id;
    e->len = static_cast<int>(n);
    memcpy(cachedText(e), text, n);
    cachedText(e)[n] = '\0';
    void* stored = qvlb_lfmap_put_if_absent(map, key, e, purpose);
    if (stored != e) qvlb_free(e, purpose, id);
    return stored != nullptr ? 0 : -1;
}

struct CacheWalk {
    RecordBatch* batch;
    long long index;
    char all;
    bool header;  // 6 "key,id"; otherwise 26 "id,name"
};

void collectCached(const char*, void* value, void* ctx) {
    auto* w = static_cast<CacheWalk*>(ctx);
    auto* e = static_cast<CachedMeta*>(value);
    if (e == nullptr || !qualifies(e->id, w->index, w->all)) return;
    char rec[kMaxRecord];
    int n = w->header ? formatRecord(rec, sizeof(rec), "6,%.*s,%d\n", e->len, cachedText(e), e->id)
                      : formatRecord(rec, sizeof(rec), "26,%d,%.*s\n", e->id, e->len, cachedText(e));
    QV_TRACE_IF(QVClientManager.traceLevel > 1, kModule, "Info", "%s iteration: key=%s, id = %d\n",
                w->header ? "headerMap" : "resourceMap", cachedText(e), e->id);
    if (n > 0) w->batch->add(e->id, rec, n);
}

int replayCache(qvlb_lfmap_t** slot, long long index, char all, bool header) {
    RecordBatch batch;
    CacheWalk walk{&batch, index, all, header};
    qvlb_lfmap_foreach(cacheMap(slot, false), collectCached, &walk);
    return batch.send();
}

void freeCache(qvlb_lfmap_t** slot, const char* purpose) {
    qvlb_lfmap_t* map = qv_load_acquire(*slot);
    if (map == nullptr) return;
    qvlb_lfmap_foreach(
        map, [](const char*, void* value, void* ctx) { qvlb_free(value, static_cast<const char*>(ctx), -1); },
        const_cast<char*>(purpose));
    qvlb_lfmap_destroy(map);
    qv_store_release(*slot, nullptr);
}

// ---- BT and SQL walks ----

struct BTWalk {
    RecordBatch* batch;
    long long index;
    char all;
    int count;
};

// Only BTs whose metadata went out are cached records; pattern-rule BTs never announce one.
bool btReplayable(const BTObject* bt, int* id) {
    if (bt == nullptr || qv_load(bt->is_meta_data_dumped) != 1) return false;
    *id = qv_load(bt->bt_id);
    return *id > 0;
}

void collectBT(const char* key, void* value, void* ctx) {
    auto* w = static_cast<BTWalk*>(ctx);
    auto* bt = static_cast<BTObject*>(value);
    int id = 0;
    if (!btReplayable(bt, &id)) return;
    w->count++;
    if (w->batch == nullptr || !qualifies(id, w->index, w->all)) return;
    char rec[kMaxRecord];
    int n = formatRecord(rec, sizeof(rec), "7,%d,%s\n", id, bt->bt_name);
    QV_TRACE_IF(QVClientManager.traceLevel > 1, kModule, "Info", "btObjectMap iteration: key=%s, btId = %d\n",
                key, id);
    if (n > 0) w->batch->add(id, rec, n);
}

struct SQLWalk {
    RecordBatch* batch;
    long long index;
    char all;
};

// The query meta record with instance 0, cut like the live one: a line longer than its 3068-byte
// area keeps the area's zero byte and ends in "...\n".
void addSQLRecord(RecordBatch* batch, long long id, const char* text) {
    char rec[QV_SQL_META_AREA_SIZE + 4];
    int full = snprintf(rec, QV_SQL_META_AREA_SIZE, "22,0,%lld,%s\n", id, text != nullptr ? text : "");
    if (full < 0) return;
    int len = full;
    if (full > QV_SQL_META_AREA_SIZE) {
        memcpy(rec + QV_SQL_META_AREA_SIZE, "...\n", 4);
        len = QV_SQL_META_AREA_SIZE + 4;
    }
    batch->add(id, rec, len);
}

void collectSQL(const char* key, void* value, void* ctx) {
    auto* w = static_cast<SQLWalk*>(ctx);
    auto* id = static_cast<long long*>(value);
    if (id == nullptr || !qualifies(*id, w->index, w->all)) return;
    QV_TRACE_IF(QVClientManager.traceLevel > 1, kModule, "Info",
                "preparedQueryIDLookup iteration: key=%s, queryId = %lld\n", key, *id);
    addSQLRecord(w->batch, *id, key);
}

void finishReplay() {
    QVClientManager_t& m = QVClientManager;
    if (m.recordsSent > 0) m.lastSentMetadataTimeStamp = collectorNow();
    qvlb_free(m.requestCopy, kRequestPurpose, -1);
    m.requestCopy = nullptr;
}

}  // namespace

void initQVClientManager() {
    ManagerGuard guard;
    QVClientManager_t& m = QVClientManager;
    const long long last = m.lastSentMetadataTimeStamp;
    qvlb_free(m.requestCopy, kRequestPurpose, -1);
    memset(&m, 0, sizeof(m));
    m.lastSentMetadataTimeStamp = last;
    m.targetTimeStamp = -1;
    m.startIndex = -1;
    m.destination = QV_CM_DEST_CONTROL;
}

void processClientMessage(char* msg) {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    ManagerGuard guard;
    initQVClientManager();
    if (msg == nullptr || msg[0] == '\0') {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Empty metadata request ignored.");
        return;
    }
    parseCurrentRequestMessage(msg);
    sendErrorMessage();
    finishReplay();
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method exit");
}

void dumpALLMetaDataOnTestSatrt() {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    ManagerGuard guard;
    initQVClientManager();
    QVClientManager.destination = QV_CM_DEST_DATA;
    handleAllMetaDataSending();
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                "Cached metadata replayed on the new data connection: %d records",
                QVClientManager.recordsSent);
    finishReplay();
}

void parseCurrentRequestMessage(char* msg) {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    if (msg == nullptr) return;
    ManagerGuard guard;
    QVClientManager_t& m = QVClientManager;
    const size_t len = strnlen(msg, QV_CM_MAX_REQUEST + 1);
    if (len > QV_CM_MAX_REQUEST) {
        setError(QV_CM_INVALID_REQUEST, msg);
        return;
    }
    qvlb_free(m.requestCopy, kRequestPurpose, -1);
    m.requestCopy = static_cast<char*>(qvlb_malloc(len + 1, kRequestPurpose, -1));
    if (m.requestCopy == nullptr) return;
    memcpy(m.requestCopy, msg, len + 1);

    // Empty fields count: a field's position is its meaning.
    m.allFieldsOfClientMessageLength = 0;
    char* p = m.requestCopy;
    while (m.allFieldsOfClientMessageLength < QV_CM_MAX_FIELDS) {
        m.allFieldsOfClientMessage[m.allFieldsOfClientMessageLength++] = p;
        if (m.allFieldsOfClientMessageLength == QV_CM_MAX_FIELDS) break;
        char* semi = strchr(p, ';');
        if (semi == nullptr) break;
        *semi = '\0';
        p = semi + 1;
    }
    const int fields = m.allFieldsOfClientMessageLength;
    if (fields < 5) {
        handleAllMetaDataSending();
        return;
    }
    // Numbers as the collector writes them; text without digits reads as 0.
    if (fields >= 6) m.destination = qvParseInt(m.allFieldsOfClientMessage[5]);
    if (fields >= 7) m.traceLevel = qvParseInt(m.allFieldsOfClientMessage[6]);
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Value of traceLevel : '%d', destination : '%d' set.",
                m.traceLevel, m.destination);

    m.allRecordsLength = 0;
    char* s = m.allFieldsOfClientMessage[4];
    while (s != nullptr) {
        char* comma = strchr(s, ',');
        if (comma != nullptr) *comma = '\0';
        std::string_view sel = trim(s);
        if (!sel.empty()) {
            if (m.allRecordsLength < QV_CM_MAX_SELECTORS) {
                // Trimmed in place: the selector is handed on as a C string.
                char* start = s + (sel.data() - s);
                start[sel.size()] = '\0';
                m.allRecords[m.allRecordsLength++] = start;
            } else {
                QV_TRACE_IF(ctlLevel() > 0, kModule, "Error",
                            "More than %d record selectors in metadata request; '%.*s' ignored.",
                            QV_CM_MAX_SELECTORS, static_cast<int>(sel.size()), sel.data());
            }
        }
        s = comma != nullptr ? comma + 1 : nullptr;
    }
    if (m.allRecordsLength == 0) {
        setError(QV_CM_INVALID_REQUEST, msg);
        return;
    }
    // Each selector's error is answered before the next selector is served.
    for (int i = 0; i < m.allRecordsLength && !stopping(); ++i) {
        handleCurrRecord(m.allRecords[i]);
        sendErrorMessage();
    }
}

void handleCurrRecord(char* selector) {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    ManagerGuard guard;
    QVClientManager_t& m = QVClientManager;
    if (selector == nullptr) return;
    m.typeOfRecord = selector;
    std::string_view sel(selector);
    if (sel.starts_with("ALL")) {
        sendSummaryReport();
        handleAllMetaDataSending();
        return;
    }
    if (sel == "Summary") {
        sendSummaryReport();
        return;
    }
    // A selector is its record type followed by anything (an id, a time).
    static const struct {
        const char* prefix;
        int type;
    } kTypes[] = {{"5", 5},   {"6", 6},   {"7", 7},   {"21", 21}, {"32", 32},
                  {"33", 33}, {"34", 34}, {"35", 35}, {"41", 41}};
    for (const auto& t : kTypes) {
        if (sel.starts_with(t.prefix)) {
            checkAndSendCachedRecord(t.type, selector);
            return;
        }
    }
    setError(QV_CM_INVALID_SELECTOR, selector);
}

void checkAndSendCachedRecord(int type, char* selector) {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    if (selector == nullptr) return;
    ManagerGuard guard;
    QVClientManager_t& m = QVClientManager;
    const char* colon = strchr(selector, ':');
    const char* under = strchr(selector, '_');
    // The number right after ':' is the time, the one after '_' (or "_+") the id.
    m.targetTimeStamp = colon != nullptr ? qvParseLongLong(colon + 1) : -1;
    if (under != nullptr && under[1] == '+') ++under;
    m.startIndex = under != nullptr ? qvParseLongLong(under + 1) : -1;
    if (colon != nullptr && m.targetTimeStamp < m.lastSentMetadataTimeStamp) {
        setError(QV_CM_WRONG_TIMESTAMP, type, m.targetTimeStamp, m.lastSentMetadataTimeStamp);
        return;
    }
    if (under == nullptr) {
        char name[16];
        snprintf(name, sizeof(name), "%d", type);
        dump11Record(name);
        findRecordTypeAndSendCachedData(0, type, 1);
    } else {
        findRecordTypeAndSendCachedData(m.startIndex, type, 0);
    }
}

int findRecordTypeAndSendCachedData(long long index, int type, char all) {
    ManagerGuard guard;
    switch (type) {
        case 5:
            return collectAndSendOnlyCached5Records(index, all);
        case 6:
            return collectAndSendOnlyCached6Records(index, all);
        case 7:
            return collectAndSendOnlyCached7Records(index, all);
        case 21:
        case 22:
            return collectAndSendOnlyCached22Records(index, all);
        case 26:
            return collectAndSendOnlyCached26Records(index, all);
        case 32:
            return collectAndSendOnlyCached32Records(index, all);
        case 33:
            return collectAndSendOnlyCached33Records(index, all);
        case 34:
            return collectAndSendOnlyCached34Records(index, all);
        case 35:
            return collectAndSendOnlyCached35Records(index, all);
        case 41:
            return collectAndSendOnlyCached41Records(index, all);
        default:
            QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "No cached records of type %d", type);
            return 0;
    }
}

int collectAndSendOnlyCached5Records(long long index, char all) {
    ManagerGuard guard;
    RecordBatch batch;
    {
        QVMethodHashMapGuard registry;
        node_t* node = qv_load_acquire(methodHashMapNode);
        apr_hash_t* map = node != nullptr ? node->dynamic_ptr : nullptr;
        for (apr_hash_index_t* hi = map != nullptr ? apr_hash_first(nullptr, map) : nullptr; hi != nullptr;
             hi = apr_hash_next(hi)) {
            void* value = nullptr;
            apr_hash_this(hi, nullptr, nullptr, &value);
            auto* mp = static_cast<methodPropProperties*>(value);
            if (mp == nullptr || mp->methodName == nullptr || !qualifies(mp->methodId, index, all)) continue;
            QV_TRACE_IF(QVClientManager.traceLevel > 1, kModule, "Info",
                        "methodHashMap iteration: key=%s, isEntryPoint = %d, methodId = %d\n", mp->methodName,
                        qv_load(mp->isEntryPoint), mp->methodId);
            char rec[kMaxRecord];
            // Cut like the live record, so a replay carries the same bytes.
            int n = formatRecord(rec, sizeof(rec), "5,%.*s,%d\n", QV_METHOD_META_NAME_MAX, mp->methodName,
                                 mp->methodId);
            if (n > 0 && !batch.add(mp->methodId, rec, n)) break;
            if (all == 0) break;
        }
    }
    return batch.send();
}

int collectAndSendOnlyCached6Records(long long index, char all) {
    ManagerGuard guard;
    return replayCache(&headerCache, index, all, true);
}

int collectAndSendOnlyCached7Records(long long index, char all) {
    ManagerGuard guard;
    RecordBatch batch;
    BTWalk walk{&batch, index, all, 0};
    {
        QVLockGuard bt(qv_load_acquire(manager.bt_obj_map_lock));
        qvlb_lfmap_foreach(qv_load_acquire(manager.bt_obj_map.hash), collectBT, &walk);
    }
    return batch.send();
}

int collectAndSendOnlyCached22Records(long long index, char all) {
    ManagerGuard guard;
    RecordBatch batch;
    if (qv_load_acquire(QVSQLProcessor.isDefaultQueryRecordsDumped) != 0) {
        long long id = 1;
        for (const char* q : qvDefaultQueries) {
            if (qualifies(id, index, all)) addSQLRecord(&batch, id, q);
            ++id;
        }
    }
    SQLWalk walk{&batch, index, all};
    foreach_hashmap(qv_load_acquire(QVSQLProcessor.preparedQueryIDLookup), collectSQL, &walk);
    return batch.send();
}

int collectAndSendOnlyCached26Records(long long index, char all) {
    ManagerGuard guard;
    return replayCache(&resourceCache, index, all, false);
}

int collectAndSendOnlyCached32Records(long long, char) {
    return 0;
}
int collectAndSendOnlyCached33Records(long long, char) {
    return 0;
}
int collectAndSendOnlyCached34Records(long long, char) {
    return 0;
}
int collectAndSendOnlyCached35Records(long long, char) {
    return 0;
}
int collectAndSendOnlyCached41Records(long long, char) {
    return 0;
}

void handleAllMetaDataSending() {
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Method called");
    ManagerGuard guard;
    dump11Record("All");
    for (int type : {5, 6, 7, 22, 26, 32, 33, 34, 35, 41}) {
        if (stopping()) break;
        findRecordTypeAndSendCachedData(0, type, 1);
    }
}

void sendSummaryReport() {
    char text[1024];
    int n = formatRecord(text, sizeof(text),
                         "-------------------SummaryReport(CachedRecords)---------------------: \n"
                         "Total no. of instrumented Methods(5 Records) : %d \n"
                         "Total no. of Cached Pages(41 Records) : %d, \n"
                         "Total Number of Cached URLs(7 Records) : %d, \n"
                         "Total Number of cached SQL Query(22 Records) : %d, \n"
                         "Total Number of Cached Headers(6 Records) : %d, \n"
                         "Total Number of Cached Exception Classes(32 Records) : %d, \n"
                         "Total Number of Cached ThrowingClasses(33 Records) : %d, \n"
                         "Total Number of Cached ThrowingMethods(34 Records) : %d, \n"
                         "Total Number of Cached Exception Messages (35 Records): %d \n"
                         "-------------------SummaryReport(CachedRecords)---------------------\n",
                         qvCachedMethodCount(), 0, qvCachedBTCount(), qvCachedSQLCount(),
                         qvCachedHeaderCount(), 0, 0, 0, 0);
    if (n > 0 && controlConnectionSendBuffer(text, n) != 0)
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Error", "Unable to send the cached records summary.");
}

void dump11Record(const char* name) {
    char rec[256];
    int n =
        formatRecord(rec, sizeof(rec), "%d,%lld,%.200s\n", 11, collectorNow(), name != nullptr ? name : "");
    if (n > 0) sendRecord(rec, n);
}

int dumpOnDataConnection(const char* rec, int len) {
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr || rec == nullptr || len <= 0) return 0;
    if (qv_load(app->Server.controlCommunicationBusyFlag) == 0) {
        // Shown without its line feed so the reply stays one line (a cut SQL record stops at its
        // zero byte).
        char shown[kMaxRecord];
        size_t n = std::min(static_cast<size_t>(len), sizeof(shown) - 1);
        if (n > 0 && rec[n - 1] == '\n') --n;
        memcpy(shown, rec, n);
        shown[n] = '\0';
        char reply[kMaxRecord + 256];
        int r = formatRecord(reply, sizeof(reply), QV_CM_NO_TEST_RUNNING, shown);
        if (r <= 0) return 2;
        return controlConnectionSendBuffer(reply, r) == 0 ? 1 : 2;
    }
    return dumpData(rec, len);
}

int qvCachedMethodCount() {
    QVMethodHashMapGuard registry;
    node_t* node = qv_load_acquire(methodHashMapNode);
    return node != nullptr && node->dynamic_ptr != nullptr
               ? static_cast<int>(apr_hash_count(node->dynamic_ptr))
               : 0;
}

int qvCachedBTCount() {
    BTWalk walk{nullptr, 0, 1, 0};
    QVLockGuard bt(qv_load_acquire(manager.bt_obj_map_lock));
    qvlb_lfmap_foreach(qv_load_acquire(manager.bt_obj_map.hash), collectBT, &walk);
    return walk.count;
}

int qvCachedSQLCount() {
    int defaults = qv_load_acquire(QVSQLProcessor.isDefaultQueryRecordsDumped) != 0 ? 5 : 0;
    return defaults + static_cast<int>(count_hashmap(qv_load_acquire(QVSQLProcessor.preparedQueryIDLookup)));
}

int qvCachedHeaderCount() {
    return static_cast<int>(qvlb_lfmap_count(cacheMap(&headerCache, false)));
}

int qvCachedResourceCount() {
    return static_cast<int>(qvlb_lfmap_count(cacheMap(&resourceCache, false)));
}

int qvCacheHeaderMetaRecord(const char* key, int id) {
    return cacheRecord(&headerCache, id, key, kHeaderPurpose);
}

int qvCacheResourceMetaRecord(int id, const char* name) {
    return cacheRecord(&resourceCache, id, name, kResourcePurpose);
}

ClientManagerState::~ClientManagerState() {
    // The process's own caches live until exit: the data thread may still replay them then.
    if (this == &clientManagerState_own) return;
    freeCache(&headers, kHeaderPurpose);
    freeCache(&resources, kResourcePurpose);
    qvlb_free(client.requestCopy, kRequestPurpose, -1);
}

void qvClientManagerResetForTest() {
    ManagerGuard guard;
    freeCache(&headerCache, kHeaderPurpose);
    freeCache(&resourceCache, kResourcePurpose);
    qvlb_free(QVClientManager.requestCopy, kRequestPurpose, -1);
    memset(&QVClientManager, 0, sizeof(QVClientManager));
}
