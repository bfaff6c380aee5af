// Internals of the exported SDK (include/qv_sdk.h): its log file, its module state and the
// pieces tests and benchmarks reach directly. Extensions never include this header.
#ifndef QV_SDK_INTERNAL_H
#define QV_SDK_INTERNAL_H

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <cstddef>
#include <cstdio>

#include <qv_sdk.h>

#include "foundation/qvlb_atomic.h"

struct methodPropProperties;
struct node_t;

// Bytes of one SDK log file name (terminator included).
#define QV_SDK_FILE_NAME_SIZE 1025
// Longest SDK log line, newline included; a longer message is cut to fit.
#define QV_SDK_LOG_LINE_MAX 8192
// Directory of the SDK log, whatever the agent home; the SDK does not create it.
#define QV_SDK_LOG_DIR "/opt/korlund/quovix/logs/"
// Seconds qv_init pauses after start-up.
#define QV_SDK_INIT_PAUSE_SECS 30

// The SDK log record (QVSDK_LOG).
struct qvSDKLog {
    char file_name[2][QV_SDK_FILE_NAME_SIZE];  // "_0" and "_1"; only "_0" is ever opened
    int threadIdx;                             // unused
    int cur_file_size;  // prefix bytes written (qv_load/qv_store, no lock); never compared
    int max_file_size;  // 10485760; nothing reads it
    int (*log)(int level, const char* func_name, int line, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    FILE* file_fp;   // the open "_0" file, or null
    void* sdk_lock;  // unused: the log writer serialises the lines
};

// The SDK log record, or null before the log is set up. Kept by qv_free (it is never freed,
// except by qv_sdk_reset_for_test). Published with a release store; read it with qv_load_acquire.
extern qvSDKLog* qv_sdk_log;
// 1 once the log record was allocated; qv_free leaves it so, and a later qv_init logs on into
// the same file.
extern int g_qv_sdk_log_init;
// Created by qv_init, destroyed by qv_free: owns g_bt_hash, bt_lock and the stored id copies.
extern apr_pool_t* sdk_pool;
// Guards g_bt_hash (insertion and lookup). Nested; null before qv_init and after qv_free.
extern apr_thread_mutex_t* bt_lock;
// Stored transaction id -> qvBTHandle.
extern apr_hash_t* g_bt_hash;
// methodId of the backend of the last outermost database callout that ended (qv_load).
extern int dbBackendId;

// Writes one SDK log line through qv_sdk_log when the record and its writer exist, naming the
// calling function (QV_SDK_LOG) or func (QV_SDK_LOG_AS).
#define QV_SDK_LOG_AS(func, level, ...)                         \
    do {                                                        \
        qvSDKLog* qv_sdk_l_ = qv_load_acquire(qv_sdk_log);      \
        if (qv_sdk_l_ != nullptr && qv_sdk_l_->log != nullptr)  \
            qv_sdk_l_->log(level, func, __LINE__, __VA_ARGS__); \
    } while (0)
#define QV_SDK_LOG(level, ...) QV_SDK_LOG_AS(__func__, level, __VA_ARGS__)

// The work of qv_init without its fixed pause: SDK log (if not set up), module wiring,
// agent_init("qvsdk", 1, "qvsdk", "skd"), sdk_pool, bt_lock, g_bt_hash (its lines name
// qv_init); then sleeps
// pauseSeconds (0: none), ending early when qv_agent_shutdown sets qvAgentStopping. One thread,
// no other SDK call meanwhile.
void qv_init_internal(int pauseSeconds);

// Creates the log record (once) and opens its file; see qv_sdk_create_file_name. Returns the
// record (its file_fp null when the file could not be opened), or null when allocation failed
// ("ERROR |...|Memory allocation of qvSDKLog failed" on stderr). Not thread-safe (qv_init).
qvSDKLog* qv_sdk_log_init();

// Forms both file names "/opt/korlund/quovix/logs/qv_sdk_<YYYYMMDDhhmmss>_<pid>.log_0" and "_1"
// (QVHOME plays no part), opens "_0" for writing (truncating; the directory is not created) and
// writes the header line. A failure
// prints "ERROR |...|Unable to open file: <name>" on stderr and leaves file_fp null. Nothing
// while qv_sdk_log is null.
void qv_sdk_create_file_name();

// Writes one line: for levels 1..5 the prefix "<time> |<pid> |<LEVEL> |<func_name> : <line> |"
// (DEBUG, INFO, WARNING, CRITICAL, ERROR), then the message and "\n"; other levels no prefix.
// Formats %s (null prints "(null)"), %d, %i, %u (also with l or ll), %p and %% itself, as printf
// would; anything else (flags, widths, other conversions) goes through vsnprintf. The whole line
// is staged at once (qv_sdk_log_writer.h), so lines of different threads never mix; the caller
// waits for the disk only when the staging buffers are full, and no line is dropped. A forked
// child writes its lines at once, with its own process id. The time text is formed once per
// second per thread. Returns 0, or -1 (and a note on stderr) without an
// open file. Any thread.
int qv_sdk_trace_log(int level, const char* func_name, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Local time as "%d-%b-%y %T" into time_str (time_str_size bytes, normally 21); "" when the
// local time cannot be had. Null or zero-size buffer: nothing.
void qv_sdk_log_time(char* time_str, size_t time_str_size);

// Finds or creates the backend named ip_name in generation node (null: current;
// otherwise one the caller holds). Only a record created here gets type (1 HTTP, 2 database) and
// room in the backend monitor; a name a newer generation knows keeps its record as it is. The
// registry lock is released before the monitor is touched. Returns the record, or null for a
// null/empty name or when memory is short. Any thread.
methodPropProperties* ipCallOutSearchUpdate(char* ip_name, int type, node_t* node);

// Writes every staged line to the SDK log file and flushes it (tests read it while the SDK
// runs). Any thread.
void qv_sdk_log_flush();

// Releases everything this module holds (as qv_free, without its log lines) and clears every
// global, so a test can start again. Tests only; no SDK call may run meanwhile.
void qv_sdk_reset_for_test();

#endif
