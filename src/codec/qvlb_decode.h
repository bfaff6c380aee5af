// Proxy-side decoder: scans the bytes an application process sent for frames and replays each
// event (transaction start/end/reset, method entry/exit) against this process's flowpath code.
#ifndef QVLB_DECODE_H
#define QVLB_DECODE_H

#include "codec/qvlb_encode.h"

struct QVProxyInstance_t;

// The decoder's records of the full message types: the fixed record followed by the message's
// strings (null when absent). One of each exists per process, shared by every connection; a
// message's strings are allocated when it is decoded and freed once it has been handled.
struct MethodEntry_t {
    MethodEntryVar_t var;
    char* methodName;
    char* query_string;
    char* urlParameter;
};

struct MethodExit_t {
    MethodExitVar_t var;
    char* methodName;
    char* backend_header;
};

struct transactionStart_t {
    transactionStartVar_t var;
    char* fp_header;
    char* url;
    char* btHeaderValue;
    char* qvCookieSet;
    char* wbCookieSet;
    char* correlationHeader;
};

// The shared decode records. transactionEnd keeps the instance of the most recent Transaction
// End, which the next Transaction Reset acts on. Exposed for tests: read them only while no
// decoder runs.
extern MethodEntry_t MethodEntry;
extern MethodExit_t MethodExit;
extern transactionStart_t transactionStart;
extern transactionEnd_t transactionEnd;
extern transactionReset_t transactionReset;

// Most application instances one proxy process decodes for.
constexpr int QV_DECODE_MAX_INSTANCES = 64;

// Makes inst the application instance of index appIndex (0 .. QV_DECODE_MAX_INSTANCES-1) for
// decodeMessage; null unbinds it. The instance's fpi_tls_map maps each running transaction to its
// record; the caller creates it (create_hashmap) and keeps inst alive while it is bound.
// Returns 0, or -1 for an index out of range. Any thread.
int qvlbSetDecodeInstance(int appIndex, QVProxyInstance_t* inst);
// Instance bound to appIndex, or null.
QVProxyInstance_t* qvlbGetDecodeInstance(int appIndex);

// Scans readBytes bytes of buff for frames and handles each complete one with readDataMessage.
// A "^" starts a frame when at least 17 bytes remain; a frame whose total_len does not fit the
// remaining bytes is stepped over by two bytes while one is counted (so the scan stops up to
// one byte early per such step; it never reads past buff + readBytes). Nothing is carried over
// to the next call: a frame cut at the end is lost. Frames for an unbound appIndex are dropped.
// Always returns 0; null or empty input does nothing. Serialised with every other decoder
// call (the shared records make it non-reentrant across threads); the flowpath calls it makes
// run on the calling thread.
int decodeMessage(char* buff, int readBytes, int appIndex);

// Handles one frame: buff points at its fixed record (frame offset 14) and holds len bytes
// (fixed record, string bodies, end mark, filler). Decodes the record and its strings into the
// shared record of the type and calls the flowpath function of the type for the transaction
// found in the instance's fpi_tls_map (Transaction Start creates the entry, Reset removes it).
// Returns 0 when the frame was handled, -1 when it was dropped: lengths that do not fit len
// (negative lengths included), a failed string allocation, an unbound instance, no
// fpi_tls_map (except for a Transaction Start), or an unknown type. buff must hold len bytes.
int readDataMessage(char* buff, long long len, int type, int appIndex);

// The two halves of readDataMessage, for tests: decodeFrameRecord copies the fixed record and
// allocates the strings into the shared record of type (returns 0, or -1 when the frame is
// dropped; nothing stays allocated then); freeFrameStrings frees them again.
int decodeFrameRecord(const char* buff, long long len, int type);
void freeFrameStrings(int type);

// Key of a flowpath instance in fpi_tls_map: its 8 raw bytes up to the first zero byte,
// zero-terminated (key must hold 9 bytes). Instances whose bytes agree up to their first zero
// byte share a key.
void fpiTlsMapKey(long flowpathinstance, char key[9]);

// One worker connection of the proxy: its own five decode records (so a Reset acts on the last
// End of this connection) and its own transactions. Each transaction is entered in the
// instance's fpi_tls_map under a copied key made of the connection id and the flowpath
// instance, so two connections that use the same instance never meet. Used by one thread at a
// time (the proxy loop thread); the flowpath calls it makes act for the calling thread's instance,
// which must be the connection's.
struct QVDecodeConn;
// The flowpath instances in flight in one application instance, shared by its connections: a
// Transaction Start whose instance is already in flight on another connection gets the next free
// number instead (the records carry that number). Loop thread only.
struct QVDecodeIdSet;

struct QVDecodeConnStats {
    long long frames;      // frames handed to the decoder
    long long started;     // transactions started
    long long ended;       // transactions ended by their own End frame
    long long renumbered;  // starts that got another instance number
    long long garbage;     // bytes skipped outside frames, or frames that were refused
};

QVDecodeIdSet* qvlbDecodeIdSetCreate();
void qvlbDecodeIdSetDestroy(QVDecodeIdSet* ids);

// A connection's decoder for inst (whose fpi_tls_map must exist) with the given id, unique for
// the process's life; frames longer than maxFrame (at most QV_MSG_MAX_FRAME) are refused. Null
// when out of memory.
QVDecodeConn* qvlbDecodeConnCreate(QVProxyInstance_t* inst, QVDecodeIdSet* ids, unsigned long long connId,
                                   long long maxFrame = QV_MSG_MAX_FRAME);

// Decodes every whole frame at the start of buf (n bytes) and returns how many bytes were used;
// the caller keeps the rest (an incomplete frame) and calls again when more bytes arrived. Bytes
// outside frames are skipped. A header that cannot start a frame (header_len other than 12, a
// type above 4, total_len below 17 or above the connection's frame limit) is skipped byte by byte.
size_t qvlbDecodeConnFeed(QVDecodeConn* c, char* buf, size_t n);

// The connection is gone. Its transactions not yet ended are ended with endStatus while the
// instance's test run is running (*interruptedEnded), else only given back (*interruptedReset);
// every record it still holds is given back, its map entries removed. Then frees c.
void qvlbDecodeConnClose(QVDecodeConn* c, int endStatus, long long* interruptedEnded,
                         long long* interruptedReset);

const QVDecodeConnStats& qvlbDecodeConnStats(const QVDecodeConn* c);
// Transactions of c started and not yet ended.
long long qvlbDecodeConnOpen(const QVDecodeConn* c);

// Number under which a Transaction Start of fpi on c is traced (fpi, or the next number not in
// flight in the instance). Internal to the decoder.
long qvlbDecodeConnAssignId(QVDecodeConn* c, long fpi);

// Clears the shared records (freeing any strings) and unbinds every instance. Tests only.
void qvlb_decode_reset_for_test();

#endif
