// Time, environment, directories, thread creation and the agent's process-wide APR pools.
#ifndef QVLB_UTIL_H
#define QVLB_UTIL_H

#include <apr_pools.h>
#include <apr_thread_proc.h>

#include <mutex>

// The two pools created at start-up. Settings, locks and threads of the agent live in
// control_pool for the whole process.
extern apr_pool_t* control_pool;
extern apr_pool_t* proxy_pool;

// APR pools are not thread-safe: every allocation from control_pool or proxy_pool made after
// start-up (mutexes, threads) must hold this lock. Recursive, so helpers may nest.
std::recursive_mutex& qvlb_pool_lock();

// Initialises APR once per process (later calls are no-ops) and registers apr_terminate with
// atexit. Creates control_pool and proxy_pool if absent. Thread-safe.
void qvlb_apr_init();

// Wall clock in milliseconds (APR microseconds / 1000).
long long my_gettimeofday();

// Copies the value of environment variable name into buf (at most len-1 bytes, NUL-ended)
// and returns buf; returns null (buf untouched) when the variable is unset or an argument is null.
char* qvlb_get_env_var_value(const char* name, char* buf, int len);

// Local time as 14 digits YYYYMMDDhhmmss into buf; "Error" when the local time can't be had.
char* qvlb_get_cur_date_time(char* buf, int len);

// Creates dir and all missing parents (mode 0755). 0 on success (also when it exists), -1 on error.
int qvlb_mkdir_p(const char* dir);

// Starts a detached-by-default joinable APR thread running func(data) from pool (control_pool
// when null). On failure writes APR's error text into err_buf (err_len bytes) and returns the
// status; *thread is then null.
apr_status_t qvlb_thread_create(apr_thread_t** thread, apr_thread_start_t func, void* data, apr_pool_t* pool,
                                char* err_buf, int err_len);

// Sleeps up to ms milliseconds in short steps, returning early (true) once *stop becomes
// non-zero (relaxed atomic load); stop may be null. Used for the agent's long waits so shutdown and tests are
// prompt.
// Lowers the calling thread's scheduling priority (nice 10) so that the agent's background work
// (merging monitor counters, preparing record blocks) gives way to the application's threads on
// a busy machine. Failure is ignored: the thread then runs at the normal priority.
void qvlb_lower_thread_priority();

bool qvlb_sleep_ms_interruptible(long long ms, const int* stop);

#endif
