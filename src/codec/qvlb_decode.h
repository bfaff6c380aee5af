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

// Clears the shared records (freeing any strings) and unbinds every instance. Tests only.
void qvlb_decode_reset_for_test();

#endif
