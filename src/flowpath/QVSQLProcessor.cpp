// The SQL processor: query ids, query meta records (22), the database call bookkeeping on the
// per-thread record, the record escaping, and the DBIPName keyword.
#include "flowpath/QVSQLProcessor.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "collector/QVDataDispatcher.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"

namespace {

struct SQLProcessorState {
    QVSQLProcessor_t processor = {};
    apr_thread_mutex_t* lock = nullptr;
};

}  // namespace

QV_INSTANCE_STATE(SQLProcessorState, sqlProcessorState)

QVSQLProcessor_t& qvSQLProcessorOfInstance() {
    return sqlProcessorState().processor;
}

apr_thread_mutex_t*& qvSQLLockOfInstance() {
    return sqlProcessorState().lock;
}

namespace {

constexpr int kMetaRecordType = 22;
constexpr long long kLastDefaultQueryId = 5;
// A cut meta record: the area, then "...\n".
constexpr int kMetaCutSuffixLen = 4;

int fpTraceLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.fpTraceLevel) : 0;
}

apr_thread_mutex_t* sqlLock() {
    return qv_load_acquire(sqllock);
}

qvlb_hashmap_t* lookupMap() {
    return qv_load_acquire(QVSQLProcessor.preparedQueryIDLookup);
}

// The query table and counters without touching DBIPName: the lazy path runs on application
// threads, where setting DBIPName could undo a keyword the control thread has just applied.
bool initQueryTable() {
    if (lookupMap() != nullptr) return true;
    if (qvlb_create_nested_mutex(&sqllock, nullptr) != APR_SUCCESS || sqlLock() == nullptr) {
        QV_TRACE_IF(fpTraceLevel() > 0, "FLOWPATH", "Error", "Unable to create sqllock");
        return false;
    }
    QVLockGuard guard(sqlLock());
    if (lookupMap() != nullptr) return true;
    qvlb_hashmap_t* map = create_hashmap(nullptr);
    if (map == nullptr) {
        QV_TRACE_IF(fpTraceLevel() > 0, "FLOWPATH", "Error", "Unable to create preparedQueryIDLookup");
        return false;
    }
    qv_store(QVSQLProcessor.isDefaultQueryRecordsDumped, 0);
    qv_store(QVSQLProcessor.preparedQueryRecordID, kMetaRecordType);
    qv_store(QVSQLProcessor.sqlQueryID, kLastDefaultQueryId);
    // Published last: a thread that sees the map sees the values above.
    qv_store_release(QVSQLProcessor.preparedQueryIDLookup, map);
    return true;
}

void freeIdHolder(const char* key, void* value, void* ctx) {
    (void)key;
    (void)ctx;
    qvlb_free(value, "SQL query id", -1);
}

struct EscapePiece {
    const char* text;
    int len;
};

EscapePiece escapeOf(unsigned char c) {
    switch (c) {
        case '\n':
        case ',':  // commas separate record fields, so none may pass; the line-feed code is deliberate
            return {"&#010;", 6};
        case '\r':
            return {"&#011;", 6};
        case '"':
            return {"&#034;", 6};
        case '&':
            return {"&amp;", 5};
        case '\'':
            return {"&#039;", 6};
        case ':':
            return {"&#58;", 5};
        case '\\':
            return {"&#092;", 6};
        case '^':
            return {"&#094;", 6};
        case '|':
            return {"&#124;", 6};
        default:
            return {nullptr, 1};
    }
}

}  // namespace

void QVSQLProcessorInit() {
    QV_TRACE_IF(fpTraceLevel() == 4, "FLOWPATH", "Info", "Method called");
    initQueryTable();
    // Start-up runs before the control thread applies keywords, so only an unset name is filled.
    if (qv_load_acquire(QVSQLProcessor.DBIPName) == nullptr) QVSQLProcessorKeywordInit();
    QV_TRACE_IF(fpTraceLevel() == 4, "FLOWPATH", "Info", "Method exit");
}

const char* getDBIPName() {
    const char* name = qv_load_acquire(QVSQLProcessor.DBIPName);
    return name ? name : QV_DEFAULT_DBIP_NAME;
}

int setDBIPName(char* dBIPName, char* keyword, int index) {
    (void)keyword;
    (void)index;
    QV_TRACE_IF(fpTraceLevel() == 4, "FLOWPATH", "Info", "Method called");
    if (dBIPName == nullptr) return -1;
    std::string_view value(dBIPName);
    if (value.empty() || value == "-" || value == "NA") {
        qvSetSharedStr(&QVSQLProcessor.DBIPName, QV_DEFAULT_DBIP_NAME, "DBIPName");
    } else {
        char name[1024];
        snprintf(name, sizeof(name), "%s%s", QV_DBIP_NAME_PREFIX, dBIPName);
        qvSetSharedStr(&QVSQLProcessor.DBIPName, name, "DBIPName");
    }
    QV_TRACE_IF(fpTraceLevel() > 0, "FLOWPATH", "Info", "DBIPName = %s", getDBIPName());
    QV_TRACE_IF(fpTraceLevel() == 4, "FLOWPATH", "Info", "Method exit");
    return 0;
}

void QVSQLProcessorKeywordInit() {
    qvSetSharedStr(&QVSQLProcessor.DBIPName, QV_DEFAULT_DBIP_NAME, "DBIPName");
}

void dbMethodEntry(QVPerThreadData_t* qvTD, long long startTime, const char* originalQuery,
                   const char* backendName) {
    QV_TRACE_IF(fpTraceLevel() == 4, "FLOWPATH", "Info", "Method called");
    if (!initQueryTable()) return;
    if (validateConditionsAtDiscovery(qvTD, originalQuery)) return;
    if (qvTD == nullptr) return;
    long long sqlId = dumpSQLQuery(qvTD, nullptr, originalQuery);
    dumpDBCallOutRecordForEntry(qvTD, startTime, sqlId, backendName);
    QV_TRACE_IF(fpTraceLevel() == 4, "FLOWPATH", "Info", "Method exit");
}

char validateConditionsAtDiscovery(QVPerThreadData_t* qvTD, const char* query) {
    // Checked once without the lock so that only the first calls of the process contend.
    if (qv_load_acquire(QVSQLProcessor.isDefaultQueryRecordsDumped) == 0 && initQueryTable()) {
        QVLockGuard guard(sqlLock());
        if (qv_load(QVSQLProcessor.isDefaultQueryRecordsDumped) == 0) dumpDefaultQueryRecords();
    }
    if (query == nullptr) {
        int currentTestrun = qvApplication ? qv_load(qvApplication->Server.TestRunIDValue) : 0;
        int localTestrun = qvTD ? static_cast<int>(qvTD->tlTestRunNumber) : 0;
        long long fpi = qvTD ? qvTD->flowpathInstance : 0;
        QV_TRACE_IF(fpTraceLevel() > 0, "FLOWPATH", "Warning",
                    "DB query is coming null, so returning without dumping DB Record %ccurrentTestrun= %d "
                    "LocalTestrun= %d, flowpathInstanceID= %lld",
                    ' ', currentTestrun, localTestrun, fpi);
        return 1;
    }
    return 0;
}

long long dumpSQLQuery(QVPerThreadData_t* qvTD, const char* sqlt, const char* sql) {
    (void)sqlt;
    if (sql == nullptr) return -1;
    char escaped[QV_SQL_ESCAPE_AREA_SIZE];
    escapeHTML(escaped, sizeof(escaped), sql);
    return checkAndProcessQuery(escaped, qvTD ? qvTD->flowpathInstance : 0);
}

long long checkAndProcessQuery(const char* queryStr, long long flowpathInstance) {
    qvlb_hashmap_t* map = lookupMap();
    if (queryStr == nullptr || map == nullptr) return -1;
    // Known queries (the common case) are found under the map's reader lock only.
    if (auto* id = static_cast<long long*>(search_hashmap(map, queryStr))) return *id;
    // A new text: looked up again and inserted under sqllock, so two threads meeting it at once
    // agree on one id and one meta record.
    QVLockGuard guard(sqlLock());
    if (auto* id = static_cast<long long*>(search_hashmap(map, queryStr))) return *id;
    long long id = generateNextSqlQueryID();
    dumpOneQueryRecord(queryStr, id, flowpathInstance);
    return id;
}

long long generateNextSqlQueryID() {
    return __atomic_add_fetch(&QVSQLProcessor.sqlQueryID, 1, __ATOMIC_RELAXED);
}

int dumpOneQueryRecord(const char* QUERY, long long id, long long fpi) {
    if (QUERY == nullptr) return -1;
    int index = static_cast<int>(id);
    // Sent before it is stored: a thread that finds the id in the table (without sqllock) may
    // then write flowpath records naming it, and those must follow the meta record.
    dumpDBMetaRecord(fpi, id, QUERY, qv_load(QVSQLProcessor.preparedQueryRecordID));
    qvlb_hashmap_t* map = lookupMap();
    if (map == nullptr) return -1;
    auto* holder = static_cast<long long*>(qvlb_malloc(sizeof(long long), "SQL query id", index));
    if (holder == nullptr) return -1;  // logged by qvlb_malloc
    *holder = id;
    if (modify_hashmap(map, QUERY, holder) != 0) {
        // The map copies the key; a failure here is that copy.
        QV_TRACE_IF(true, "MEMORY", "Error", "Out of Memory (size = %d): %s for index %d\n",
                    static_cast<int>(std::min<size_t>(strlen(QUERY) + 1, INT_MAX)), "SQL query text", index);
        qvlb_free(holder, "SQL query id", index);
        return -1;
    }
    return 0;
}

int dumpDBMetaRecord(long long flowpathInstance, long long id, const char* escapeSql, int metaRecordId) {
    // The area plus room for the "...\n" of a cut line.
    char record[QV_SQL_META_AREA_SIZE + kMetaCutSuffixLen];
    int full = snprintf(record, QV_SQL_META_AREA_SIZE, "%d,%lld,%lld,%s\n", metaRecordId, flowpathInstance,
                        id, escapeSql ? escapeSql : "");
    if (full < 0) return -1;
    int sendLen = full;
    if (full > QV_SQL_META_AREA_SIZE) {
        // The area's terminating zero byte stays inside the record, as the collector expects.
        memcpy(record + QV_SQL_META_AREA_SIZE, "...\n", kMetaCutSuffixLen);
        sendLen = QV_SQL_META_AREA_SIZE + kMetaCutSuffixLen;
    }
    // full == QV_SQL_META_AREA_SIZE sends the area whole: its last byte is the zero byte.
    QV_TRACE_IF(fpTraceLevel() > 2, "FLOWPATH", "Info", "Query meta record id = %lld, length = %d", id,
                sendLen);
    return dumpData(record, sendLen);
}

void dumpDefaultQueryRecords() {
    int recordType = qv_load(QVSQLProcessor.preparedQueryRecordID);
    long long id = 1;
    for (const char* query : qvDefaultQueries) dumpDBMetaRecord(0, id++, query, recordType);
    qv_store_release(QVSQLProcessor.isDefaultQueryRecordsDumped, 1);
    QV_TRACE_IF(fpTraceLevel() > 0, "FLOWPATH", "Info", "Default query records dumped");
}

void dumpDBCallOutRecordForEntry(QVPerThreadData_t* qvTD, long long startTime, long long sqlId,
                                 const char* backendName) {
    (void)backendName;
    if (qvTD == nullptr) return;
    // Unbalanced exits may have driven the depth below zero; wrap-around is not ours to cause.
    if (qvTD->tlSQLObj.DBCallDepth == INT_MAX) return;
    if (++qvTD->tlSQLObj.DBCallDepth == 1) {
        qvTD->tlSQLObj.startTime = startTime;
        qvTD->tlSQLObj.sqlId = sqlId;
    }
}

int escapeHTML(char* sb, int len, const char* msgData) {
    if (sb == nullptr || len <= 0) return 0;
    sb[0] = '\0';
    if (msgData == nullptr) return 0;
    // count may pass len by up to one piece; long long keeps that from overflowing near INT_MAX.
    long long count = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(msgData); *p != 0 && count < len;
         ++p) {
        EscapePiece piece = escapeOf(*p);
        long long room = len - count;
        // Like a bounded print: at most room - 1 bytes of the piece, then the terminator.
        long long written = piece.len < room ? piece.len : room - 1;
        if (piece.text != nullptr)
            memcpy(sb + count, piece.text, static_cast<size_t>(written));
        else if (written > 0)
            sb[count] = static_cast<char>(*p);
        sb[count + written] = '\0';
        count += piece.len;
    }
    return count > INT_MAX ? INT_MAX : static_cast<int>(count);
}

void qvSQLProcessorResetForTest() {
    // The text itself is retired by qvSetSharedStr and freed by the settings-records reset.
    qvSetSharedStr(&QVSQLProcessor.DBIPName, nullptr, "DBIPName");
    if (QVSQLProcessor.preparedQueryIDLookup != nullptr) {
        foreach_hashmap(QVSQLProcessor.preparedQueryIDLookup, freeIdHolder, nullptr);
        destroy_hashmap(QVSQLProcessor.preparedQueryIDLookup);
    }
    // sqllock lives in the control pool for the life of the process.
    QVSQLProcessor = QVSQLProcessor_t{};
}

const char* const qvDefaultQueries[QV_DEFAULT_QUERY_COUNT] = {"Unknown", "XA TRANSACTION START",
                                                              "XA TRANSACTION COMMIT", "XA TRANSACTION END",
                                                              "XA TRANSACTION ROLLBACK"};
