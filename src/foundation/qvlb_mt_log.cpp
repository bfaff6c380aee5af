// The process trace log: record formatting, the alternating file pair and its rollover, and
// the exported writers the language extension calls.
#include "foundation/qvlb_mt_log.h"

#include <pthread.h>

#include <cstdarg>
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
pthread_rwlock_t g_stream_guard = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

class StreamShared {
  public:
    StreamShared() { pthread_rwlock_rdlock(&g_stream_guard); }
    ~StreamShared() { pthread_rwlock_unlock(&g_stream_guard); }
    StreamShared(const StreamShared&) = delete;
    StreamShared& operator=(const StreamShared&) = delete;
};

class StreamExclusive {
  public:
    StreamExclusive() { pthread_rwlock_wrlock(&g_stream_guard); }
    ~StreamExclusive() { pthread_rwlock_unlock(&g_stream_guard); }
    StreamExclusive(const StreamExclusive&) = delete;
    StreamExclusive& operator=(const StreamExclusive&) = delete;
};

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
