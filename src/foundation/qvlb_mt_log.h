// The agent's trace log: one pair of alternating files per process, shared by all threads,
// pipe-separated records with a fixed header.
#ifndef QVLB_MT_LOG_H
#define QVLB_MT_LOG_H

#include <apr_thread_mutex.h>
#include <cstdio>

#include "qv_sdk.h"

struct MTTraceLogKey {
    int cur_index;           // current file: 0 or 1
    char log_file[2][1024];  // full paths of file 0 and file 1
    char print_header;       // write the header block when the current file is next opened
    int testidx;
    int threadidx;
    int log_level;          // accepted at creation, not stored
    int max_log_file_size;  // accepted at creation, not stored
    int log_file_size;      // bytes written to the current file since it was opened
    FILE* fp[2];
    apr_thread_mutex_t* lock;      // opening and rollover
    apr_thread_mutex_t* mem_lock;  // allocation counters of the memory-tracing wrappers
};

// The process log; null until the agent opens it. Owned by the process, never freed
// (except by qvlb_trace_log_reset_for_test). A fork waits for a rollover or record in progress;
// the child gets fresh locks and, from its first record on, files of its own: the parent's names
// with the child's process id in place of the parent's ("_<pid>" added when a name has none).
extern MTTraceLogKey* trace_log_key;
// Memory tracing: 0 off, >= 1 logs every allocation under "MEMORY", 2 also counts them.
extern int qv_mem_trace_level;

// Values the log reads that belong to the settings records of higher layers. Core points
// them at the instance record's fields when it creates it; a null pointer reads as 0
// (trace size: 10 MiB, build: empty, test run: 0). Reads are relaxed atomic loads, so a
// setting changed by the control thread is picked up without a data race.
struct QVTraceLogBindings {
    const int* agentTraceLevel;
    const int* autoInstrTraceLevel;
    const int* ddTraceLevel;
    const long long* traceMaxSize;
    char* const* qvBuild;
    const int* testRunId;  // TestRunIDValue of the collector state
};
extern QVTraceLogBindings qvlbTraceBindings;

// Creates the handle for files "<base_dir>/<log_file>_0" and "_1" (each cut to 1024 bytes).
// Opens nothing yet. Returns null if log_file is null or memory is short.
MTTraceLogKey* qvlb_init_mt_trace_log_ex(const char* base_dir, const char* log_file, int log_level,
                                         int max_log_file_size);

// Writes one record through key (nothing if key is null). No level test: the caller does it.
void qvlb_mt_trace_log(MTTraceLogKey* key, const char* thread_name, long long thread_id, const char* module,
                       const char* severity, const char* file, int line, const char* fname,
                       const char* format, ...) __attribute__((format(printf, 9, 10)));

// Returns the current stream, rolling over first when *log_file_size reached the maximum
// size (traceMaxSize; 10 MiB when unbound or not positive, at most 1 GiB). May return null (the
// record is then dropped). The stream is closed at the next-but-one rollover; the writers here
// hold an internal stream guard while writing, so other callers should only test the result.
FILE* qvlb_open_mt_trace_log(MTTraceLogKey* key, int* log_file_size);
// Opens the current file if it is not open (with key->lock when takeLock is non-zero).
void qv_open_log_file(MTTraceLogKey* key, int* log_file_size, char takeLock);
// Switches to the other file; called with key->lock held.
void roll_over_file(MTTraceLogKey* key, int* log_file_size);

// Local time "MM/DD/YY hh:mm:ss" into buf; "Error" when the local time can't be had.
char* get_cur_date_time_r(char* buf, int len);
// Same into one static buffer (not thread-safe).
char* get_cur_date_time();

// Level readers used by the call-site macros below.
int qvlb_agent_trace_level();
// agentTraceLevel of the instance's system settings (0 while unbound).
int getTraceLevel();

// Closes both files and frees the handle; trace_log_key becomes null. Tests only.
void qvlb_trace_log_reset_for_test();

// Call-site helper: one trace statement guarded by the handle test and the caller's level test.
// Thread name and id are null and 0 when the agent itself logs.
#define QV_TRACE_IF(cond, module, severity, ...)                                                    \
    do {                                                                                            \
        if (trace_log_key != nullptr && (cond))                                                     \
            qvlb_mt_trace_log(trace_log_key, nullptr, 0, module, severity, __FILE_NAME__, __LINE__, \
                              __func__, __VA_ARGS__);                                               \
    } while (0)

#endif
