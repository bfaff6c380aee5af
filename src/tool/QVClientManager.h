// Metadata cache replay: serves the collector's "qv_meta_data_req:action=send_meta_data;" request
// and the data thread's replay on a new connection by sending again, from the tables that own
// them, the method (5), header (6), BT (7), SQL (22) and resource (26) metadata records.
#ifndef QVCLIENTMANAGER_H
#define QVCLIENTMANAGER_H

// Fields of a request split at ';' (field 0 is the command itself); later text is not split.
#define QV_CM_MAX_FIELDS 64
// Selectors of one request (field 4 split at ','); later ones are logged and ignored.
#define QV_CM_MAX_SELECTORS 7
#define QV_CM_ERROR_SIZE 1024
// A request longer than this is refused as invalid (a control line is at most 64 KiB anyway).
#define QV_CM_MAX_REQUEST 65536

// Destinations of a replay.
#define QV_CM_DEST_CONTROL 0
#define QV_CM_DEST_DATA 1
#define QV_CM_DEST_BOTH 2

// Error texts (formats) returned on the control connection.
#define QV_CM_INVALID_REQUEST "Invalid Request : '%s'\n"
#define QV_CM_INVALID_SELECTOR "Invalid Request recieved from client : '%s'\n"
#define QV_CM_WRONG_TIMESTAMP                                                                 \
    "Wrong Timestamp : RecordField- %d Paased timeStamp- %lld Should be more than last sent " \
    "metadata timestamp %lld"
#define QV_CM_NO_TEST_RUNNING                                                                           \
    "qv_meta_data_rep:action=send_meta_data;result=Error :<Unable to write current Cached Record = %s " \
    ", on data connection, because currently there is no test running.>\n"

// Longest name or key written into a cached header or resource record (longer ones are cut).
#define QV_CM_META_NAME_MAX 4000

// One request in progress. There is one, QVClientManager, guarded by a nested mutex that every
// public function below takes (so a control-thread request and a data-thread replay never mix).
struct QVClientManager_t {
    // Time (ms, collector time base) of the last replay; kept across requests. A request's
    // selectors are all checked against the value of the requests before it.
    long long lastSentMetadataTimeStamp;
    long long targetTimeStamp;                         // time given in the current selector, -1 when none
    char* allFieldsOfClientMessage[QV_CM_MAX_FIELDS];  // point into the manager's copy of the request
    int allFieldsOfClientMessageLength;
    char* allRecords[QV_CM_MAX_SELECTORS];
    int allRecordsLength;
    char* typeOfRecord;                   // selector being handled
    int destination;                      // > 0 data connection, 0 or 2 control connection
    int traceLevel;                       // above 1 every replayed record is logged
    long long startIndex;                 // first id to send, -1 when the selector names none
    char errorMessage[QV_CM_ERROR_SIZE];  // the error to answer next; empty if none
    char stopSendingData;                 // set when the control connection failed or the agent stops
    char* requestCopy;                    // owned copy of the request being split (qvlb_malloc)
    int recordsSent;                      // records (marker included) sent for the current request
};
// One per application instance (see foundation/qvlb_instance.h).
QVClientManager_t& qvClientManagerOfInstance();
#define QVClientManager (qvClientManagerOfInstance())

// Resets the manager for a new request (lastSentMetadataTimeStamp is kept). Frees the request
// copy of the previous request.
void initQVClientManager();

// Serves one metadata request line (msg is not modified; null or empty is logged and ignored):
// resets the manager, parses and replays. Each error is answered on the control connection in its
// own text as it occurs. The caller then replies "qv_meta_data_rep:status=complete;".
// Installed as qvServerHooks.processClientMessage. Control thread.
void processClientMessage(char* msg);

// Replays everything to the data connection (marker "All" first). Installed as
// qvDispatcherHooks.dumpALLMetaDataOnTestSatrt; the data thread calls it on a new connection when
// doNotDumpMetaData is 1.
void dumpALLMetaDataOnTestSatrt();

// Splits msg (copied into the manager) and serves it: fewer than 5 fields replay everything;
// otherwise field 5 is the destination, field 6 the trace level (decimal, as atoi reads them) and
// field 4 the comma-separated selectors (blanks around each trimmed), each handled by
// handleCurrRecord and its error (errorMessage) sent before the next. A selector list without a
// selector, or a request over QV_CM_MAX_REQUEST bytes, sets QV_CM_INVALID_REQUEST.
void parseCurrentRequestMessage(char* msg);

// One selector: "ALL..." sends the summary and replays everything; "Summary" sends the summary;
// a selector beginning with "5", "6", "7", "21" (SQL, sent as 22 records), "32", "33", "34", "35"
// or "41" goes to checkAndSendCachedRecord with that type. Anything else sets
// QV_CM_INVALID_SELECTOR; the other selectors are still served.
void handleCurrRecord(char* selector);

// Serves a typed selector: the number after ':' is the time, the one after '_' (or "_+") the id
// (text without digits reads as 0). With a time earlier than lastSentMetadataTimeStamp sets
// QV_CM_WRONG_TIMESTAMP and sends nothing; without an id sends marker 11 (named by the type) and
// every record of type; with an id only that record.
void checkAndSendCachedRecord(int type, char* selector);

// Replays type (5, 6, 7, 21 or 22, 26, 32-35, 41) from the start id: every record with an id of
// at least index when all is set, else only the record with id index. Records go out in id order.
// Returns the number of records sent; 0 for an unknown type.
int findRecordTypeAndSendCachedData(long long index, int type, char all);

// The per-type replays behind findRecordTypeAndSendCachedData. Each formats the qualifying
// records under the owning table's lock into a private batch and sends them after releasing it,
// so a slow collector never holds up the application threads on that lock. Return the count sent.
int collectAndSendOnlyCached5Records(long long index, char all);   // method registry
int collectAndSendOnlyCached6Records(long long index, char all);   // header cache of this module
int collectAndSendOnlyCached7Records(long long index, char all);   // BTs whose metadata was sent
int collectAndSendOnlyCached22Records(long long index, char all);  // SQL queries, defaults included
int collectAndSendOnlyCached26Records(long long index, char all);  // resource cache of this module
// Exception and page records have no table: accepted and counted, nothing is sent. Return 0.
int collectAndSendOnlyCached32Records(long long index, char all);
int collectAndSendOnlyCached33Records(long long index, char all);
int collectAndSendOnlyCached34Records(long long index, char all);
int collectAndSendOnlyCached35Records(long long index, char all);
int collectAndSendOnlyCached41Records(long long index, char all);

// Replays every type in the order 5, 6, 7, 22, 26, 32, 33, 34, 35, 41 after the marker "All".
void handleAllMetaDataSending();

// Sends the summary block (sizes of the cached tables) on the control connection.
void sendSummaryReport();

// Sends the marker record "11,<now minus korEpochDiffTime>,<name>\n" to the destination.
void dump11Record(const char* name);

// Queues rec (len bytes) for the data connection through dumpData; while no test is running
// (controlCommunicationBusyFlag 0) replies QV_CM_NO_TEST_RUNNING (record shown without its line
// feed) on the control connection instead. Returns the dumpData code (0 queued, negative dropped),
// 1 when answered with the error, 2 when that reply could not be sent either.
int dumpOnDataConnection(const char* rec, int len);

// Sizes reported by the summary. Each takes the owning table's lock (or none for lock-free ones).
int qvCachedMethodCount();
int qvCachedBTCount();
int qvCachedSQLCount();
int qvCachedHeaderCount();
int qvCachedResourceCount();

// Remember a header (6) or resource (26) metadata record so that a replay can send it again; the
// producers of those records call them when they announce one. The first record of an id wins;
// the key or name is copied (cut at QV_CM_META_NAME_MAX bytes). A known id costs one lock-free
// lookup and no allocation. Any thread. Return 0, or -1 for a null key, id below 1 or no memory.
int qvCacheHeaderMetaRecord(const char* key, int id);
int qvCacheResourceMetaRecord(int id, const char* name);

// Frees the header and resource caches and the request copy and zeroes the manager. Tests only;
// nothing may be replaying or caching.
void qvClientManagerResetForTest();

#endif
