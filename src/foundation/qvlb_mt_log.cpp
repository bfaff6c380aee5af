// The process trace log: record formatting, the alternating file pair and its rollover, and
// the exported writers the language extension calls.
#include "foundation/qvlb_mt_log.h"

#include <apr_allocator.h>
#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

MTTraceLogKey* trace_log_key = nullptr;
int qv_mem_trace_level = 0;
QVTraceLogBindings qvlbTraceBindings = {};

namespace {

constexpr int kRecordMax = 8192;
constexpr long long kDefaultTraceMaxSize = 10LL * 1024 * 1024;
// log_file_size is an int: keep the effective limit far enough below INT_MAX that concurrent
// writers overshooting it cannot overflow the counter.
constexpr long long kTraceMaxSizeCap = 1LL << 30;

// Writers hold this shared while they use a stream; only closing or publishing a stream takes
// it exclusively. That keeps a stream from being closed under a writer that fetched it just
// before a rollover, while writers never wait for each other. Writer-preferring so that a
// steady stream of records cannot starve a rollover; readers never take it recursively.
// Reached through a pointer: a forked child replaces it (see the fork handlers below).
pthread_rwlock_t g_first_stream_guard = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
pthread_rwlock_t* g_stream_guard = &g_first_stream_guard;

class StreamShared {
  public:
    StreamShared() : rw_(qv_load(g_stream_guard)) { pthread_rwlock_rdlock(rw_); }
    ~StreamShared() { pthread_rwlock_unlock(rw_); }
    StreamShared(const StreamShared&) = delete;
    StreamShared& operator=(const StreamShared&) = delete;

  private:
    pthread_rwlock_t* rw_;
};

class StreamExclusive {
  public:
    StreamExclusive() : rw_(qv_load(g_stream_guard)) { pthread_rwlock_wrlock(rw_); }
    ~StreamExclusive() { pthread_rwlock_unlock(rw_); }
    StreamExclusive(const StreamExclusive&) = delete;
    StreamExclusive& operator=(const StreamExclusive&) = delete;

  private:
    pthread_rwlock_t* rw_;
};

// Fork handling. A lock held by another thread at a fork stays held for ever in the child, and
// glibc cannot unlock a recursive mutex or a write-locked rwlock there (the child's thread id
// differs). So the prepare handler takes every lock of the log (a fork never copies a rollover
// or a record half done), and the child swaps in spare locks made before the fork, abandoning
// the held ones. The child then writes its own files, named with its own process id, from its
// first record on.
apr_thread_mutex_t* g_spare_lock = nullptr;
apr_thread_mutex_t* g_spare_mem_lock = nullptr;
pthread_rwlock_t* g_spare_guard = nullptr;
pthread_rwlock_t* g_abandoned_guard = nullptr;  // kept reachable: it is never used again
MTTraceLogKey* g_fork_key = nullptr;            // the handle locked by the prepare handler
MTTraceLogKey* g_child_key = nullptr;           // a child's handle still writing the parent's files
int g_names_pid = 0;                            // the process whose id the file names carry

pthread_rwlock_t* new_stream_guard() {
    auto* rw = static_cast<pthread_rwlock_t*>(malloc(sizeof(pthread_rwlock_t)));
    if (rw == nullptr) return nullptr;
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    const int rc = pthread_rwlock_init(rw, &attr);
    pthread_rwlockattr_destroy(&attr);
    if (rc != 0) {
        free(rw);
        return nullptr;
    }
    return rw;
}

// Spares come from a pool of their own, used only here (fork handlers run one at a time): a child
// that forks again must not need the shared pool lock, which a thread of its parent may have held.
void make_spare(apr_thread_mutex_t** m) {
    static apr_allocator_t* allocator = nullptr;  // kept here: the pool's own memory may be mmapped
    static apr_pool_t* pool = nullptr;
    if (*m != nullptr) return;
    if (allocator == nullptr && apr_allocator_create(&allocator) != APR_SUCCESS) allocator = nullptr;
    if (allocator != nullptr && pool == nullptr &&
        apr_pool_create_unmanaged_ex(&pool, nullptr, allocator) != APR_SUCCESS)
        pool = nullptr;
    if (pool != nullptr && apr_thread_mutex_create(m, APR_THREAD_MUTEX_NESTED, pool) != APR_SUCCESS)
        *m = nullptr;
}

void fork_prepare() {
    // Spares first: making them allocates.
    make_spare(&g_spare_lock);
    make_spare(&g_spare_mem_lock);
    if (g_spare_guard == nullptr) g_spare_guard = new_stream_guard();
    MTTraceLogKey* key = qv_load(trace_log_key);
    g_fork_key = key;
    if (key != nullptr) {
        apr_thread_mutex_lock(key->lock);
        apr_thread_mutex_lock(key->mem_lock);
    }
    pthread_rwlock_wrlock(g_stream_guard);
}

void fork_parent() {
    pthread_rwlock_unlock(g_stream_guard);
    if (g_fork_key != nullptr) {
        apr_thread_mutex_unlock(g_fork_key->mem_lock);
        apr_thread_mutex_unlock(g_fork_key->lock);
    }
    g_fork_key = nullptr;
}

// Runs in the child's only thread: no lock is taken, nothing waits.
void fork_child() {
    MTTraceLogKey* key = g_fork_key;
    g_fork_key = nullptr;
    if (g_spare_guard == nullptr ||
        (key != nullptr && (g_spare_lock == nullptr || g_spare_mem_lock == nullptr))) {
        // No spare for a held lock: the child does without the log rather than hang on it.
        qv_store(trace_log_key, static_cast<MTTraceLogKey*>(nullptr));
        return;
    }
    g_abandoned_guard = g_stream_guard;
    g_stream_guard = g_spare_guard;
    g_spare_guard = nullptr;
    if (key == nullptr) return;
    key->lock = g_spare_lock;
    key->mem_lock = g_spare_mem_lock;
    g_spare_lock = g_spare_mem_lock = nullptr;
    qv_store(g_child_key, key);
}

// "<name>_<parent pid>" or "<name>_<parent pid>.<rest>" gets the child's id in place of the
// parent's; a name without it gets "_<pid>" appended.
void child_file_name(char* path, size_t size, int parentPid, int childPid) {
    char parentId[24];
    snprintf(parentId, sizeof(parentId), "_%d", parentPid);
    const size_t idLen = strlen(parentId);
    const size_t len = strlen(path);
    if (len < 2) return;
    const size_t suffix = len - 2;  // "_0" or "_1"
    char* base_end = path + suffix;
    char* found = nullptr;
    for (char* p = strstr(path, parentId); p != nullptr && p < base_end; p = strstr(p + 1, parentId))
        if (p + idLen == base_end || p[idLen] == '.') found = p;
    char rebuilt[sizeof(MTTraceLogKey::log_file[0])];
    if (found != nullptr)
        snprintf(rebuilt, sizeof(rebuilt), "%.*s_%d%s", static_cast<int>(found - path), path, childPid,
                 found + idLen);
    else
        snprintf(rebuilt, sizeof(rebuilt), "%.*s_%d%s", static_cast<int>(suffix), path, childPid, base_end);
    snprintf(path, size, "%s", rebuilt);
}

// A forked child's first record: leaves the parent's files to the parent. Caller holds key->lock.
void move_to_child_files(MTTraceLogKey* key, int* log_file_size) {
    const int self = static_cast<int>(getpid());
    {
        StreamExclusive guard;
        for (FILE*& fp : key->fp) {
            FILE* open = qv_load(fp);
            if (open != nullptr) fclose(open);  // the child's copy of the stream
            qv_store(fp, static_cast<FILE*>(nullptr));
        }
        for (char* name : key->log_file) child_file_name(name, sizeof(key->log_file[0]), g_names_pid, self);
        qv_store(key->cur_index, 0);
        key->print_header = 1;
    }
    g_names_pid = self;
    __atomic_store_n(log_file_size, 0, __ATOMIC_RELAXED);
}

const char* nz(const char* s) {
    return s ? s : "(null)";
}

template <class T>
T bound_value(const T* p) {
    const T* ptr = qv_load(p);
    return ptr ? qv_load(*ptr) : T{};
}

long long trace_max_size() {
    const long long v = bound_value(qvlbTraceBindings.traceMaxSize);
    if (v <= 0) return kDefaultTraceMaxSize;
    return v > kTraceMaxSizeCap ? kTraceMaxSizeCap : v;
}

const char* build_string() {
    char* const* p = qv_load(qvlbTraceBindings.qvBuild);
    const char* b = p ? qv_load_acquire(*p) : nullptr;  // published with a release store
    return b ? b : "";
}

FILE* current_stream(MTTraceLogKey* key) {
    const int idx = qv_load(key->cur_index);
    return qv_load(key->fp[idx & 1]);
}

void write_record(MTTraceLogKey* key, const char* thread_name, long long thread_id, const char* module,
                  const char* severity, const char* file, int line, const char* fname, const char* format,
                  va_list ap) {
    char buf[kRecordMax];
    char date[128];
    get_cur_date_time_r(date, sizeof(date));
    const int tr = bound_value(qvlbTraceBindings.testRunId);
    int prefix;
    if (tr != 0)
        prefix = snprintf(buf, sizeof(buf), "\n%s|TR%d|%s|%lld|%s|%s|%d|%s|%s|", date, tr, nz(thread_name),
                          thread_id, nz(module), nz(file), line, nz(fname), nz(severity));
    else
        prefix = snprintf(buf, sizeof(buf), "\n%s|******|%s|%lld|%s|%s|%d|%s|%s|", date, nz(thread_name),
                          thread_id, nz(module), nz(file), line, nz(fname), nz(severity));
    if (prefix < 0 || prefix >= kRecordMax) return;

    int msg = 0;
    if (format != nullptr)
        msg = vsnprintf(buf + prefix, static_cast<size_t>(kRecordMax - prefix), format, ap);
    else
        buf[prefix] = '\0';
    buf[kRecordMax - 1] = '\0';
    if (msg < 0) msg = static_cast<int>(strlen(buf)) - prefix;
    // A cut record keeps its final NUL byte and is exactly kRecordMax bytes long.
    if (msg > kRecordMax - prefix) msg = kRecordMax - prefix;
    const size_t total = static_cast<size_t>(prefix + msg);

    if (qvlb_open_mt_trace_log(key, &key->log_file_size) == nullptr) return;
    StreamShared guard;
    FILE* fp = current_stream(key);
    if (fp == nullptr) return;
    const size_t written = fwrite(buf, 1, total, fp);
    __atomic_fetch_add(&key->log_file_size, static_cast<int>(written), __ATOMIC_RELAXED);
    fflush(fp);
}

}  // namespace

MTTraceLogKey* qvlb_init_mt_trace_log_ex(const char* base_dir, const char* log_file, int log_level,
                                         int max_log_file_size) {
    (void)log_level;
    (void)max_log_file_size;
    if (log_file == nullptr) return nullptr;
    qvlb_apr_init();
    auto* key = static_cast<MTTraceLogKey*>(qvlb_calloc(sizeof(MTTraceLogKey), "MTTraceLogKey", -1));
    if (key == nullptr) return nullptr;
    const char* dir = base_dir ? base_dir : ".";
    snprintf(key->log_file[0], sizeof(key->log_file[0]), "%s/%s_0", dir, log_file);
    snprintf(key->log_file[1], sizeof(key->log_file[1]), "%s/%s_1", dir, log_file);
    key->testidx = 0;
    key->print_header = 1;
    key->cur_index = 0;
    static pthread_once_t handlers = PTHREAD_ONCE_INIT;
    pthread_once(&handlers, [] { pthread_atfork(fork_prepare, fork_parent, fork_child); });
    g_names_pid = static_cast<int>(getpid());
    if (qvlb_create_nested_mutex(&key->lock, nullptr) != APR_SUCCESS ||
        qvlb_create_nested_mutex(&key->mem_lock, nullptr) != APR_SUCCESS) {
        if (key->lock) apr_thread_mutex_destroy(key->lock);
        qvlb_free(key, "MTTraceLogKey", -1);
        return nullptr;
    }
    return key;
}

FILE* qvlb_open_mt_trace_log(MTTraceLogKey* key, int* log_file_size) {
    if (key == nullptr || log_file_size == nullptr) return nullptr;
    if (qv_load(g_child_key) == key) {
        QVLockGuard guard(key->lock);
        if (qv_load(g_child_key) == key) {
            move_to_child_files(key, log_file_size);
            qv_store(g_child_key, static_cast<MTTraceLogKey*>(nullptr));
        }
    }
    const long long max = trace_max_size();
    if (__atomic_load_n(log_file_size, __ATOMIC_RELAXED) >= max) {
        QVLockGuard guard(key->lock);
        if (__atomic_load_n(log_file_size, __ATOMIC_RELAXED) >= max) roll_over_file(key, log_file_size);
    }
    if (current_stream(key) == nullptr) qv_open_log_file(key, log_file_size, 1);
    return current_stream(key);
}

void qv_open_log_file(MTTraceLogKey* key, int* log_file_size, char takeLock) {
    if (key == nullptr || log_file_size == nullptr) return;
    QVLockGuard guard(takeLock ? key->lock : nullptr);
    const int idx = qv_load(key->cur_index) & 1;
    if (qv_load(key->fp[idx]) != nullptr) return;
    __atomic_store_n(log_file_size, 0, __ATOMIC_RELAXED);
    // Close-on-exec so a forking host process does not leak the descriptor into its children.
    FILE* fp = fopen(key->log_file[idx], "ae");
    if (fp == nullptr) return;
    if (key->print_header) {
        // Written before the stream is published, so the header always comes first.
        static const char kHeader[] =
            "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line "
            "number|Function|Severity|"
            "Message\n";
        const char* build = build_string();
        size_t n = fwrite(kHeader, 1, sizeof(kHeader) - 1, fp);
        n += fwrite(build, 1, strlen(build), fp);
        __atomic_fetch_add(log_file_size, static_cast<int>(n), __ATOMIC_RELAXED);
        fflush(fp);
        key->print_header = 0;
    }
    StreamExclusive publish;
    qv_store(key->fp[idx], fp);
}

void roll_over_file(MTTraceLogKey* key, int* log_file_size) {
    if (key == nullptr) return;
    const int close_index = qv_load(key->cur_index) == 0 ? 1 : 0;
    {
        StreamExclusive guard;
        FILE* old = qv_load(key->fp[close_index]);
        if (old != nullptr) {
            fclose(old);
            qv_store(key->fp[close_index], static_cast<FILE*>(nullptr));
            unlink(key->log_file[close_index]);
        }
        key->print_header = 1;
        qv_store(key->cur_index, close_index);
    }
    qv_open_log_file(key, log_file_size, 0);
}

char* get_cur_date_time_r(char* buf, int len) {
    if (buf == nullptr || len <= 0) return buf;
    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr) {
        snprintf(buf, static_cast<size_t>(len), "Error");
        return buf;
    }
    snprintf(buf, static_cast<size_t>(len), "%02d/%02d/%02d %02d:%02d:%02d", tmv.tm_mon + 1, tmv.tm_mday,
             (tmv.tm_year + 1900) % 2000, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
    return buf;
}

char* get_cur_date_time() {
    static char buf[100];
    return get_cur_date_time_r(buf, sizeof(buf));
}

int qvlb_agent_trace_level() {
    return bound_value(qvlbTraceBindings.agentTraceLevel);
}

int getTraceLevel() {
    return qvlb_agent_trace_level();
}

void qvlb_mt_trace_log(MTTraceLogKey* key, const char* thread_name, long long thread_id, const char* module,
                       const char* severity, const char* file, int line, const char* fname,
                       const char* format, ...) {
    if (key == nullptr) return;
    va_list ap;
    va_start(ap, format);
    write_record(key, thread_name, thread_id, module, severity, file, line, fname, format, ap);
    va_end(ap);
}

extern "C" QV_EXPORT void qvlb_mt_trace_log_win(int level, const char* thread_name, long long thread_id,
                                                const char* module, const char* severity, const char* file,
                                                int line, const char* fname, const char* format, ...) {
    MTTraceLogKey* key = qv_load(trace_log_key);
    if (key == nullptr || qvlb_agent_trace_level() < level) return;
    va_list ap;
    va_start(ap, format);
    write_record(key, thread_name, thread_id, module, severity, file, line, fname, format, ap);
    va_end(ap);
}

extern "C" QV_EXPORT void qvlb_mt_trace_log_win_ai(int level, const char* thread_name, long long thread_id,
                                                   const char* module, const char* severity, const char* file,
                                                   int line, const char* fname, const char* format, ...) {
    MTTraceLogKey* key = qv_load(trace_log_key);
    if (key == nullptr || bound_value(qvlbTraceBindings.autoInstrTraceLevel) < level) return;
    va_list ap;
    va_start(ap, format);
    write_record(key, thread_name, thread_id, module, severity, file, line, fname, format, ap);
    va_end(ap);
}

extern "C" QV_EXPORT void qvlb_mt_trace_log_win_dd(int level, const char* thread_name, long long thread_id,
                                                   const char* module, const char* severity, const char* file,
                                                   int line, const char* fname, const char* format, ...) {
    MTTraceLogKey* key = qv_load(trace_log_key);
    if (key == nullptr || bound_value(qvlbTraceBindings.ddTraceLevel) < level) return;
    va_list ap;
    va_start(ap, format);
    write_record(key, thread_name, thread_id, module, severity, file, line, fname, format, ap);
    va_end(ap);
}

// level is deliberately ignored: memory tracing being on is enough.
extern "C" QV_EXPORT void qvlb_mt_trace_log_mem(int level, const char* thread_name, long long thread_id,
                                                const char* module, const char* severity, const char* file,
                                                int line, const char* fname, const char* format, ...) {
    (void)level;
    MTTraceLogKey* key = qv_load(trace_log_key);
    if (key == nullptr || qv_load(qv_mem_trace_level) < 1) return;
    va_list ap;
    va_start(ap, format);
    write_record(key, thread_name, thread_id, module, severity, file, line, fname, format, ap);
    va_end(ap);
}

void qvlb_trace_log_reset_for_test() {
    MTTraceLogKey* key = trace_log_key;
    qv_store(trace_log_key, static_cast<MTTraceLogKey*>(nullptr));
    qv_store(g_child_key, static_cast<MTTraceLogKey*>(nullptr));
    if (key == nullptr) return;
    {
        StreamExclusive guard;
        for (FILE*& fp : key->fp) {
            if (fp != nullptr) fclose(fp);
            fp = nullptr;
        }
    }
    if (key->lock) apr_thread_mutex_destroy(key->lock);
    if (key->mem_lock) apr_thread_mutex_destroy(key->mem_lock);
    qvlb_free(key, "MTTraceLogKey", -1);
}
