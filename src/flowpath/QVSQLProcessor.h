// The SQL processor: turns the SQL text of a database call into a small query id, tells the
// collector once per distinct query which text the id stands for (record 22), and keeps the
// outermost database call of a transaction on its per-thread record. Also the DBIPName keyword.
#ifndef QVSQLPROCESSOR_H
#define QVSQLPROCESSOR_H

#include <apr_thread_mutex.h>

struct qvlb_hashmap_t;
struct QVPerThreadData_t;

// Name of the database backend while no DBIPName keyword names one.
#define QV_DEFAULT_DBIP_NAME "ADO.NET_QuoteDB"
// Prefix put before a DBIPName keyword value.
#define QV_DBIP_NAME_PREFIX "ADO.NET_"

// Size of the area a query text is escaped into; longer texts are cut to one byte less.
#define QV_SQL_ESCAPE_AREA_SIZE 16384
// Size of the area a query meta record is formatted into.
#define QV_SQL_META_AREA_SIZE 3068

// One per application instance (see foundation/qvlb_instance.h).
struct QVSQLProcessor_t {
    char isDefaultQueryRecordsDumped;  // 1 once ids 1 to 5 were sent; under sqllock
    // Database backend name; shared text replaced through qvSetSharedStr (a reader may keep
    // using the previous text). Null means QV_DEFAULT_DBIP_NAME. Read it with getDBIPName.
    char* DBIPName;
    int preparedQueryRecordID;  // record type of query meta records (22)
    long long sqlQueryID;       // last query id handed out (5 at start-up); under sqllock
    // Escaped query text -> long long* id (own allocation, never freed while the process lives).
    qvlb_hashmap_t* preparedQueryIDLookup;
};

QVSQLProcessor_t& qvSQLProcessorOfInstance();
#define QVSQLProcessor (qvSQLProcessorOfInstance())

// Texts of the default queries, ids 1 to 5, sent before the first discovered query.
#define QV_DEFAULT_QUERY_COUNT 5
extern const char* const qvDefaultQueries[QV_DEFAULT_QUERY_COUNT];

// Guards the one-time sending of the default query records and the lookup-and-insert of a new
// query (so one text gets exactly one id). Created by QVSQLProcessorInit.
apr_thread_mutex_t*& qvSQLLockOfInstance();
#define sqllock (qvSQLLockOfInstance())

// Start-up: preparedQueryRecordID 22, sqlQueryID 5, isDefaultQueryRecordsDumped 0, DBIPName
// the default unless a keyword already set it, creates preparedQueryIDLookup and sqllock.
// Idempotent: once the lookup exists a later call changes nothing. Any thread; also run
// lazily by the first dbMethodEntry if start-up did not.
void QVSQLProcessorInit();

// Current database backend name, never null. Any thread; the text stays valid until the
// settings records are reset (tests).
const char* getDBIPName();

// Keyword handler of DBIPName (value, keyword, row index). A value other than "", "-" or "NA"
// sets DBIPName to "ADO.NET_" followed by the value, the whole name cut to 1023 characters;
// those three reset it to "ADO.NET_QuoteDB". Returns 0, or -1 for a null value (nothing
// changed). Control thread (one writer at a time); readers on other threads are safe.
int setDBIPName(char* dBIPName, char* keyword, int index);

// Keyword default, run before every start message: DBIPName back to "ADO.NET_QuoteDB".
void QVSQLProcessorKeywordInit();

// Entry of one database call on the transaction qvTD: sends the default records on the first
// call of the process, gives the query its id (sending its meta record if new) and updates
// qvTD->tlSQLObj (depth up by one; the outermost call sets startTime and sqlId). A null query
// or null qvTD records nothing. backendName is not used here. Any application thread; qvTD
// must be the caller's own record.
void dbMethodEntry(QVPerThreadData_t* qvTD, long long startTime, const char* originalQuery,
                   const char* backendName);

// Sends the five default query records if not yet sent (exactly once per process, under
// sqllock). Returns 1 (do not record) when query is null, after logging it; 0 otherwise.
// qvTD may be null (test run and instance then log as 0).
char validateConditionsAtDiscovery(QVPerThreadData_t* qvTD, const char* query);

// Escapes sql into a 16384-byte area and returns its query id (checkAndProcessQuery with the
// transaction's flowpathInstance, 0 for a null qvTD). sqlt is not used. Returns -1 for a null
// sql.
long long dumpSQLQuery(QVPerThreadData_t* qvTD, const char* sqlt, const char* sql);

// Id of an escaped query text; a text not seen before gets generateNextSqlQueryID, its meta
// record is sent and then it is stored. Lookup and insert are atomic: one text, one id, one
// meta record. Identity is the exact text. Returns -1 for a null text or before start-up.
long long checkAndProcessQuery(const char* queryStr, long long flowpathInstance);

// Increments sqlQueryID and returns the new value. Any thread.
long long generateNextSqlQueryID();

// Sends the meta record of QUERY under id and stores a copy of the text with its id in
// preparedQueryIDLookup. Caller holds sqllock. On memory shortage the record is still sent,
// the text is not remembered and "Out of Memory ..." goes to the memory trace. Returns 0,
// or -1 (nothing stored).
int dumpOneQueryRecord(const char* QUERY, long long id, long long fpi);

// Formats "%d,%lld,%lld,%s\n" (metaRecordId, flowpathInstance, id, escapeSql) into a
// 3068-byte area and hands it to dumpData. A longer line goes out as the area's 3067
// characters, its terminating zero byte and "...\n" (3072 bytes); a line of exactly 3068
// characters goes out as 3068 bytes ending in the zero byte. Null escapeSql sends "".
// Returns the dumpData code.
int dumpDBMetaRecord(long long flowpathInstance, long long id, const char* escapeSql, int metaRecordId);

// Sends ids 1 to 5 ("Unknown", "XA TRANSACTION START", "... COMMIT", "... END",
// "... ROLLBACK") with instance 0 and sets isDefaultQueryRecordsDumped. Caller holds sqllock.
void dumpDefaultQueryRecords();

// Call entry bookkeeping: tlSQLObj.DBCallDepth + 1; when the depth is now 1 also startTime and
// sqlId. backendName is not used. Null qvTD does nothing.
void dumpDBCallOutRecordForEntry(QVPerThreadData_t* qvTD, long long startTime, long long sqlId,
                                 const char* backendName);

// Escapes msgData into sb (len bytes) for records: LF and comma -> "&#010;", CR -> "&#011;",
// '"' -> "&#034;", '&' -> "&amp;", '\'' -> "&#039;", ':' -> "&#58;", '\\' -> "&#092;",
// '^' -> "&#094;", '|' -> "&#124;", any other byte itself. Each piece is written with the
// room left (len minus the count so far, the terminator included, so a piece that does not
// fit is cut) and the count grows by the piece's full length; escaping stops when the count
// reaches len. sb is always NUL-terminated within len bytes (for len >= 1). Returns the
// count: below len the whole text was written and the count is its length; len or more means
// the output was cut and holds len - 1 bytes. Null sb or len <= 0 writes nothing and returns
// 0; null msgData writes "". Pure function, any thread.
int escapeHTML(char* sb, int len, const char* msgData);

// Clears the record to its start values (DBIPName null, lookup and its ids freed, sqllock
// kept). Tests only; no other thread may use the processor.
void qvSQLProcessorResetForTest();

#endif
