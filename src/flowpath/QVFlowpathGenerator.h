// The flowpath engine: flowpath ids and the capture decision, flowpath start, end and reset with
// the header record, and method entry and exit writing the sequence blob and its records (2, 3, 4).
#ifndef QVFLOWPATHGENERATOR_H
#define QVFLOWPATHGENERATOR_H

#include <apr_thread_mutex.h>

struct QVPerThreadData_t;
struct BTObject;
struct methodPropProperties;

// Category of a flowpath whose BT is excluded (outside the categories of the BT thresholds).
#define QV_FP_CATEGORY_EXCLUDED 157
// Status of a type-4 record whose earlier records the receiver must discard.
#define QV_FP_STATUS_DISCARD (-99)
// Bytes of the longest URL kept in an asynchronous entry of the blob.
#define QV_SEQ_ASYNC_URL_MAX 1024
// Bytes of the upstream tier sequence kept from a callout header (terminator included).
#define QV_TIER_SEQ_SIZE 64
// Default backend naming rule: the backend name is the host text itself.
#define QV_BACKEND_RULE_HOST "Host"
// Backend a database callout reports as when its exit names none.
#define QV_DB_CALLOUT_BACKEND_NAME "ADO.NET_QuoteDB"

// Calls the engine makes into the layers above it (BT naming and categories, the monitors, the
// proxy encoders). The sdk layer fills the table (qv_wire_flowpath_hooks) before start-up; an
// empty entry is skipped with the behaviour of the feature being off (no BT naming: no BT and
// not excluded; no category: 10; no counters; no encoder: nothing forwarded).
struct QVFlowpathHooks {
    // BT of a request (URL without query, query or null, BT header value or null, the record's
    // updateBTLock). Null means the BT is excluded.
    BTObject* (*get_obj_from_bt_name)(const char* url, const char* query, const char* btHeaderValue,
                                      apr_thread_mutex_t* lock);
    // Category (10 normal, 11 slow, 12 very slow, 13 error) of a request of BT bt (may be null:
    // no thresholds) lasting duration ms with statusCode.
    int (*findCategoryOfBT)(const BTObject* bt, long long duration, int statusCode);
    // bt_id of bt (0 for null).
    int (*getBTId)(const BTObject* bt);
    // Header name of the header-based BT rule, or null when there is none.
    char* (*getBTHeaderName)();
    bool (*updateCounterAndDurationForBT)(QVPerThreadData_t* qvTD);
    bool (*updateCounterAndDurationForMethod)(QVPerThreadData_t* qvTD, methodPropProperties* mpp,
                                              long long duration);
    // 0 when counted, 1 when not (the backend monitor's convention).
    char (*updateCounterAndDurationForBackend)(QVPerThreadData_t* qvTD, methodPropProperties* mpp,
                                               long long duration, char isError);
    // The BT monitor's doNotDisacrdAnyTransaction byte (non-zero: keep every flowpath).
    char (*doNotDiscardAnyTransaction)();
    // Told of every resource meta record (26) sent, so the metadata cache can replay it.
    int (*onResourceMetaRecord)(int id, const char* name);
    // Proxy-mode encoders of the agent message format (one frame each, sent to the proxy).
    void (*transactionStartEncode)(int qTimeMS, long flowpathinstance, char* fp_header, char* url,
                                   char* btHeaderValue, char* qvCookieSet, char* wbCookieSet,
                                   char* correlationHeader, long long startTimeFP);
    void (*transactionEndEncode)(int statuscode, long flowpathinstance);
    void (*transactionResetEncode)(long flowpathinstance);
    void (*MethodEntryEncode)(int mid, long flowpathinstance, long threadId, char* methodName,
                              char* query_string, char* urlParameter, long long startTime);
    void (*MethodExitEncode)(int mid, int statusCode, int eventType, int isCallout, long threadId,
                             long duration, long flowpathinstance, long cpuTime, char* methodName,
                             char* backend_header);
};
extern QVFlowpathHooks qvFlowpathHooks;

// ---- Flowpath ids and capture ----

// New flowpath instance id: flowPathInstanceInitialID + ((timeStampMask & t) << (seqNoDigits & 63))
// + (seqNumMask & s), t the collector-time milliseconds, s the value before the second of two
// atomic advances of QVSys.rSeq (the first result is discarded). Arithmetic wraps, never
// overflows. Any thread. 0 while there is no instance record.
long long generate_flowpath_instance();

// Sets the four id parameters from a mask "<initialID hex>%20<timeStampMask hex>%20<seqNoDigits
// dec>%20<seqNumMask hex>" (split in place; fewer than 3 delimiters is logged as an error and the
// missing fields count as 0). Control thread. Null: nothing.
void parse_flowpath_mask(char* qvflowpathMask);

// Splits read_buf in place at each occurrence of token (its first character overwritten with a
// NUL), at most max_flds times: fields[0] is the start, fields[i] follows the i-th delimiter, the
// rest stays in the last field. fields must hold max_flds + 1 pointers. Returns the number of
// delimiters found; 0 for null arguments or an empty token.
int tokenize_flowpathmasks(char* read_buf, char** fields, char* token, int max_flds);

// Capture decision: sampled in when bciInstrSessionPct > 99, or > 0 and randomNum() % 100 is
// below it; tlIsFPCaptured = sampled or forced (tlIsForceDump); captureMethodForAllFP forces 1.
// Null qvTD: nothing.
void setFPCaptured(QVPerThreadData_t* qvTD, long long fpi);

// One random byte (0..255) from APR's generator; 0 if it fails.
int randomNum();

// ---- Flowpath lifecycle ----

// Starts a flowpath and returns its record (QVPerThreadData_t*), or null while no test run is
// running, instrumentation is being stopped, there is no instance record, or the pool has no
// record. flowpathinstance (may be null): an upstream flowpath string; 'F'/'f' forces the dump,
// an '_' makes it a callout header (setTierCallOut, new id), otherwise its decimal value is the
// id. In a process that only forwards to a proxy the start is encoded and the record returned
// without anything else. TLS (may be null) is the key under which the record is stored when
// enableProxyServer is 1. QVCookieStr / WBCookieStr / correlationIdHeader may be null. The caller
// owns the record until endFP/reset; it stays busy in the pool after endFP (only reset or test
// stop give it back). Thread-safe; allocates only for new BTs, new methods and the fpiToTLS key.
void* startFP(char* flowpathinstance, char* url, char* btHeaderValue, char* TLS, char* QVCookieStr,
              char* WBCookieStr, char* correlationIdHeader, long long qTimeInMS, long long startTimeFP);

// startFP(flowpathinstance, url, null, null, null, null, null, -1, 0) with the record's address
// written into buf as a decimal number ("%lld"; "0" when none). buf must hold 21 bytes. Null
// buf: nothing is started.
void startFPTemp(char* flowpathinstance, char* url, char* buf);

// The record's flowpathInstanceStr (owned by the record), or null for a null record.
char* getFPInstanceFromTL(QVPerThreadData_t* qvTD);

// Ends the flowpath: closes the pseudo-method, sets tlDuration, the category (157 when the BT is
// excluded) and writes the rest of the blob (dumpCompleteFlowpathSeqBlock), counts the BT, gives
// back the registry generation reference and removes the fpiToTLS entry. The record is not given
// back to the pool. Forwarding process: only encodes the end. With enableProxyServer 1 the record
// is looked up by TLS. A null record, a stopped test run or a flowpath already ended: nothing.
void endFP(QVPerThreadData_t* qvTD, int statusCode, char* TLS);

// endFP with the end time endTime (agent clock milliseconds as startFP's startTimeFP; 0: now),
// and with isError non-zero the category error (13) unless the BT is excluded.
void endFPEx(QVPerThreadData_t* qvTD, int statusCode, char* TLS, long long endTime, int isError);

// Gives the record back to the pool (after resetting it). A flowpath that was started and not
// ended first gives back its generation reference and fpiToTLS entry. Forwarding process: the
// reset is encoded first. A null record or a stopped test run: nothing. The caller must not use
// the record afterwards.
void reset(QVPerThreadData_t* qvTD);

// Writes the flowpath header record (type 2, 14 fields) through dumpData and sets
// tlIsFPHeaderDumped. Takes sequenceBlobLock (nested). Null: nothing.
void dumpFPHeaderRecord(QVPerThreadData_t* qvTD);

// Writes the resource meta record "26,<id>,<name>\n" (name cut at 4000 bytes; null prints "").
void dumpResourceMetaRecord(int id, const char* name);

// Test stop (pool hook): a flowpath still running is ended as incomplete: category from its
// thresholds (157 when excluded), written with dumpCompleteFlowpathSeqBlock, generation
// reference and fpiToTLS entry given back. Records not started or already ended: nothing.
void dumpIncompleteFPAtTestStop(QVPerThreadData_t* qvTD);

// Takes the flowpath chain from an upstream callout header "<first>_<prev>[_<tierSeq>]": first
// and prev flowpath instances (decimal, an 'F'/'f' after the digits is ignored; prev defaults to
// first) and the upstream tier sequence (digits and dots, cut at QV_TIER_SEQ_SIZE - 1 bytes,
// default "1"). A malformed number reads as 0, which makes the flowpath a first tier. Null:
// nothing. The caller owns qvTD.
void setTierCallOut(QVPerThreadData_t* qvTD, const char* header);

// Sets the request's URL and parameters and its BT: url is split at its first '?' into tlURL and
// tlURLParameters (each cut to 511 bytes, line breaks blanked); an explicit query (non-null)
// replaces the parameters. The BT is named through the hook; null means excluded
// (tlIsBTExcluded 1). httpMethod is accepted for the rule engines and not used here.
void setFPHeaderValues(QVPerThreadData_t* qvTD, const char* url, const char* query, const char* httpMethod,
                       const char* btHeaderValue);

// URL decoding into out (outSize bytes, always terminated when outSize > 0): "%XX" becomes its
// byte (an invalid escape is copied as it stands); line breaks, raw or decoded, become blanks
// because the text ends up in newline-framed records. The ForHttp variant also turns '+' into a
// blank (form encoding). Returns the bytes written, or -1 for null arguments / outSize < 1.
int escapeURLEncoding(const char* in, char* out, int outSize);
int escapeURLEncodingForHttp(const char* in, char* out, int outSize);

// ---- Method entry and exit ----

// Records a method entry in qvTD's flowpath and returns the method, or null when nothing was
// recorded (null record, test run stopped, empty name, record not found by TLS, record running no
// flowpath (ended, written out at a test stop or never started), method unknown).
// methodPtr (may be null) is used when the record holds the current registry generation;
// otherwise the method is found or created by name. url: the request URL or, for a database
// callout, the query; urlParameter replaces tlURLParameters when non-null; startTime 0 means now.
// forceDump 1 writes the event even when the flowpath is not captured. Forwarding process: the
// entry is encoded and methodPtr returned. Takes sequenceBlobLock for the record's state; no
// allocation for a known method.
methodPropProperties* qvMethodEntryEx(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, char* url,
                                      char* urlParameter, long long threadID, char* pName, char forceDump,
                                      char* TLS, long long startTime);

// Records a method exit (wall time methodWallTime, CPU time fpCPUTime or < 0 when unknown) and
// returns the method, or null as for the entry (here the method is only looked up). Keeps the
// highest statusCode; resolves a callout's backend (backendName null: QV_DB_CALLOUT_BACKEND_NAME
// for a database method; otherwise the name by the "Host" rule), counts the
// monitors and writes exit and callout records. isCalOutDone: the tier callout was made.
methodPropProperties* qvMethodExitEx(void* methodPtr, QVPerThreadData_t* qvTD, char* mName,
                                     long long fpCPUTime, int statusCode, char* backendName,
                                     long long methodWallTime, char forceDump, long long threadId,
                                     int isCalOutDone, char* TLS);

// Entry points of the SDK and the proxy decoder: as the Ex forms with forceDump 0. event_type is
// carried to the proxy in a forwarding process and otherwise not used.
methodPropProperties* qvMethodEntry(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, char* url,
                                    char* urlParameter, long long threadID, char* pName, char* TLS,
                                    long long startTime);
methodPropProperties* qvMethodExit(void* methodPtr, QVPerThreadData_t* qvTD, char* mName, long long fpCPUTime,
                                   int statusCode, char* backendName, long long methodWallTime,
                                   long long threadID, int isCalloutDone, char* TLS, int event_type);

// ---- Sequence blob ----
// Every append below takes sequenceBlobLock (nested, so callers may hold it). When an entry
// would not fit the 16384-byte blob (one byte is kept for the terminator) the blob is written
// out (dumpIncompleteFlowpathSeqBlock) before it is appended, so no value of
// maxCharactersInSeqBlob can overflow the blob. After each append checkToDumpFPSeqBlob runs.
// No allocation. Null qvTD: nothing.

// One method event: eventID 0 entry ("%d_%d_%lld_%d_" when pageID >= 0, asynchronous
// "%d:%lld:1:%s_%d_%lld__" with urlStr cut at QV_SEQ_ASYNC_URL_MAX bytes, else
// "%d:%lld_%d_%lld__"); eventID 1, 3, 4 exit ("%d:%lld_%d_%lld____" when cpuTime < 0, else
// "%d:%lld_%d_%lld_%lld___"); other eventIDs append nothing.
void updateFPSeqBlob(QVPerThreadData_t* qvTD, int mid, long long startTime, int eventID, int pageID,
                     long long cpuTime, int isAsyncCall, long long threadID, char* urlStr);

// One callout record ("E..." when tlStatusCode > 399, else "T..."): database (type 2)
// seqNum:id:duration:10:sqlId:start[:status]; other callouts seq:id:duration:1:0:start
// [:id when enableIPResourceURL][:status for "E"], seq being tierCallOutSeqNum when non-zero
// (then cleared), else seqNum. Null mPP: nothing.
void updateFPSeqBlobWithTierCallOutRecord(QVPerThreadData_t* qvTD, long long methodStartTime,
                                          long long duration, methodPropProperties* mPP);

// Appends the exception marker "e<seqNum>_".
void appendExceptionRecordInSeqBlob(QVPerThreadData_t* qvTD);

// Writes the blob out (dumpIncompleteFlowpathSeqBlock) when it holds at least
// maxCharactersInSeqBlob bytes (and at least one).
void checkToDumpFPSeqBlob(QVPerThreadData_t* qvTD);

// Writes the header record if not yet written, then "3,<fpi>[F],<blob>\n", and empties the blob.
void dumpIncompleteFlowpathSeqBlock(QVPerThreadData_t* qvTD);

// End of flowpath: an excluded BT writes nothing when no header was written, else marks the
// status -99; a flowpath not captured (and not kept by doNotDiscardAnyTransaction) of category 10
// writes nothing without a header, else is marked -99; a slower one is written. Then the header
// if needed and "4,<fpi>[F],<status>,<category>,<cpu>,<resp>,<bt_id>,<type>,<blob>\n"; the blob is
// emptied. A record that cannot be formatted is dropped and logged.
void dumpCompleteFlowpathSeqBlock(QVPerThreadData_t* qvTD, int category, long long fpCPUTime,
                                  long long respTime);

// QVFlowpathGenerator.maxCharactersInSeqBlob = value (any value is safe), logged as "Value of
// maxCharactersInSeqBlob : '%d' set.". Any thread.
void setMaxCharactersInSeqBlob(int value);
int getMaxCharactersInSeqBlob();

// ---- Keyword handlers and helpers ----

// Keyword maxCharInSeqBlob: setMaxCharactersInSeqBlob of the value's number. -1 for null value.
int setMaxCharInSeqBlob(char* value, char* keyword, int index);
// Keyword qvFlowpathMasks: parse_flowpath_mask of a copy of the value (cut at 1023 bytes).
int setqvFlowpathMasks(char* value, char* keyword, int index);

// Backend name of a callout target by naming rule: "Host" (and any rule not known here) gives the
// target text itself, cut to outSize - 1 bytes, line breaks and ',' blanked. Returns the length,
// or -1 for null arguments / outSize < 1.
int settingBackendName(const char* backendName, const char* rule, char* out, int outSize);

// Frees the upstream tier-sequence storage and clears the hook table. Tests only; no flowpath
// may be running.
void qvFlowpathGeneratorResetForTest();

#endif
