// Proxy-mode frames: the binary records an application process sends to its proxy instead of
// building flowpaths itself, and the five encoders that write them to the data connection.
#ifndef QVLB_ENCODE_H
#define QVLB_ENCODE_H

#include <cstddef>

// Wire layout (native little-endian byte order, records sent as raw images, padding zeroed):
//   "^" | msgHdr_t (12) | "|" | fixed record (S) | string bodies | "\n" | filler (k)
// Each string field of a fixed record holds L = strlen + 1, or 0 for an absent string; a body
// is L - 1 bytes without terminator. total_len = 12 + S + 3 + sum(L), so every frame ends in
// k filler bytes (k = present strings), which the receiver steps over with total_len.

struct msgHdr_t {
    int header_len;  // always 12
    int total_len;   // whole frame, filler included
    int msg_type;    // QV_MSG_*
};

enum QVMsgType {
    QV_MSG_METHOD_ENTRY = 0,
    QV_MSG_METHOD_EXIT = 1,
    QV_MSG_TRANSACTION_START = 2,
    QV_MSG_TRANSACTION_END = 3,
    QV_MSG_TRANSACTION_RESET = 4,
};

struct MethodEntryVar_t {
    int mid;
    long flowpathinstance;
    long threadId;
    long long startTime;
    int methodName;  // string lengths L
    int query_string;
    int urlParameter;
};

struct MethodExitVar_t {
    int statusCode;
    int mid;
    int eventType;
    int isCallout;
    long threadId;
    long duration;
    long flowpathinstance;
    long cpuTime;
    int methodName;  // string lengths L
    int backend_header;
};

struct transactionStartVar_t {
    int fp_header;  // string lengths L
    int url;
    int btHeaderValue;
    int qvCookieSet;
    int wbCookieSet;
    int correlationHeader;
    long flowpathinstance;
    long qTimeMS;
    long long startTimeFP;
};

struct transactionEnd_t {
    int statuscode;
    long flowpathinstance;
};

struct transactionReset_t {
    long flowpathinstance;
};

// The frame is the records' raw image: any layout change breaks the peer.
static_assert(sizeof(msgHdr_t) == 12 && offsetof(msgHdr_t, total_len) == 4 &&
              offsetof(msgHdr_t, msg_type) == 8);
static_assert(sizeof(MethodEntryVar_t) == 48 && offsetof(MethodEntryVar_t, flowpathinstance) == 8 &&
              offsetof(MethodEntryVar_t, threadId) == 16 && offsetof(MethodEntryVar_t, startTime) == 24 &&
              offsetof(MethodEntryVar_t, methodName) == 32 &&
              offsetof(MethodEntryVar_t, query_string) == 36 &&
              offsetof(MethodEntryVar_t, urlParameter) == 40);
static_assert(sizeof(MethodExitVar_t) == 56 && offsetof(MethodExitVar_t, mid) == 4 &&
              offsetof(MethodExitVar_t, eventType) == 8 && offsetof(MethodExitVar_t, isCallout) == 12 &&
              offsetof(MethodExitVar_t, threadId) == 16 && offsetof(MethodExitVar_t, duration) == 24 &&
              offsetof(MethodExitVar_t, flowpathinstance) == 32 && offsetof(MethodExitVar_t, cpuTime) == 40 &&
              offsetof(MethodExitVar_t, methodName) == 48 && offsetof(MethodExitVar_t, backend_header) == 52);
static_assert(sizeof(transactionStartVar_t) == 48 && offsetof(transactionStartVar_t, url) == 4 &&
              offsetof(transactionStartVar_t, btHeaderValue) == 8 &&
              offsetof(transactionStartVar_t, qvCookieSet) == 12 &&
              offsetof(transactionStartVar_t, wbCookieSet) == 16 &&
              offsetof(transactionStartVar_t, correlationHeader) == 20 &&
              offsetof(transactionStartVar_t, flowpathinstance) == 24 &&
              offsetof(transactionStartVar_t, qTimeMS) == 32 &&
              offsetof(transactionStartVar_t, startTimeFP) == 40);
static_assert(sizeof(transactionEnd_t) == 16 && offsetof(transactionEnd_t, flowpathinstance) == 8);
static_assert(sizeof(transactionReset_t) == 8 && offsetof(transactionReset_t, flowpathinstance) == 0);
static_assert(sizeof(long) == 8 && sizeof(long long) == 8 && sizeof(int) == 4, "LP64 only");

// Bytes before the fixed record: "^", the header and "|".
constexpr int QV_MSG_HEADER_LEN = 12;
constexpr int QV_MSG_RECORD_OFFSET = 14;
// Largest frame an encoder sends; a larger one is dropped and counted.
constexpr int QV_MSG_MAX_FRAME = 131072;

// Results of the frame builders besides a frame length.
constexpr int QV_FRAME_TOO_LARGE = -1;  // over QV_MSG_MAX_FRAME: never sent
constexpr int QV_FRAME_NO_ROOM = -2;    // fits the format but not the caller's buffer

// Frame builders: write one complete frame (filler zeroed) into out (cap bytes) and return its
// length (= total_len). Null strings are absent strings. Nothing is written when the result is
// negative (QV_FRAME_TOO_LARGE, QV_FRAME_NO_ROOM, or QV_FRAME_NO_ROOM for a null out). No
// allocation, no shared state: any thread.
int buildMethodEntryFrame(char* out, size_t cap, int mid, long flowpathinstance, long threadId,
                          const char* methodName, const char* query_string, const char* urlParameter,
                          long long startTime);
int buildMethodExitFrame(char* out, size_t cap, int mid, int statusCode, int eventType, int isCallout,
                         long threadId, long duration, long flowpathinstance, long cpuTime,
                         const char* methodName, const char* backend_header);
int buildTransactionStartFrame(char* out, size_t cap, int qTimeMS, long flowpathinstance,
                               const char* fp_header, const char* url, const char* btHeaderValue,
                               const char* qvCookieSet, const char* wbCookieSet,
                               const char* correlationHeader, long long startTimeFP);
int buildTransactionEndFrame(char* out, size_t cap, int statuscode, long flowpathinstance);
int buildTransactionResetFrame(char* out, size_t cap, long flowpathinstance);

// The encoders: build one frame and hand it whole to sendBufferDataCon, which writes it to the
// data connection (serialised with every other writer) or drops it when there is none. They
// return nothing and never fail visibly. A frame over QV_MSG_MAX_FRAME is not sent: it is logged
// (module "CONTROL_THREAD", level Error) and counted (qvlbOversizedFrameCount). Any thread; no
// shared state and no allocation. Frames up to 1 KiB are built in a 1 KiB stack buffer; a larger
// frame is built in a 128 KiB buffer on the calling thread's stack, so a thread that sends such
// frames needs that much stack to spare.
void MethodEntryEncode(int mid, long flowpathinstance, long threadId, const char* methodName,
                       const char* query_string, const char* urlParameter, long long startTime);
void MethodExitEncode(int mid, int statusCode, int eventType, int isCallout, long threadId, long duration,
                      long flowpathinstance, long cpuTime, const char* methodName,
                      const char* backend_header);
void transactionStartEncode(int qTimeMS, long flowpathinstance, const char* fp_header, const char* url,
                            const char* btHeaderValue, const char* qvCookieSet, const char* wbCookieSet,
                            const char* correlationHeader, long long startTimeFP);
void transactionEndEncode(int statuscode, long flowpathinstance);
void transactionResetEncode(long flowpathinstance);

// Frames not sent because they exceeded QV_MSG_MAX_FRAME since start (or the last reset).
long long qvlbOversizedFrameCount();

// Zeroes the counter. Tests only.
void qvlb_encode_reset_for_test();

#endif
