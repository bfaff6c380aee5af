// Process-wide APR set-up, wall clock, environment, date text, directories and threads.
#include "foundation/qvlb_util.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <apr_general.h>
#include <apr_strings.h>
#include <apr_time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_instance.h"

apr_pool_t* control_pool = nullptr;
apr_pool_t* proxy_pool = nullptr;

std::recursive_mutex& qvlb_pool_lock() {
    // Function-local so it exists before any static initialiser of another file can log.
    static std::recursive_mutex m;
    return m;
}

void qvlb_apr_init() {
    static std::once_flag once;
    std::call_once(once, [] {
        apr_initialize();
        atexit(apr_terminate);
    });
    std::lock_guard<std::recursive_mutex> guard(qvlb_pool_lock());
    if (control_pool == nullptr) apr_pool_create(&control_pool, nullptr);
    if (proxy_pool == nullptr) apr_pool_create(&proxy_pool, nullptr);
}

long long my_gettimeofday() {
    return static_cast<long long>(apr_time_now() / 1000);
}

char* qvlb_get_env_var_value(const char* name, char* buf, int len) {
    if (name == nullptr || buf == nullptr || len <= 0) return nullptr;
    const char* v = std::getenv(name);
    if (v == nullptr) return nullptr;
    snprintf(buf, static_cast<size_t>(len), "%s", v);
    return buf;
}

char* qvlb_get_cur_date_time(char* buf, int len) {
    if (buf == nullptr || len <= 0) return buf;
    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr) {
        snprintf(buf, static_cast<size_t>(len), "Error");
        return buf;
    }
    snprintf(buf, static_cast<size_t>(len), "%02d%02d%02d%02d%02d%02d", tmv.tm_year + 1900, tmv.tm_mon + 1,
             tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
    return buf;
}

int qvlb_mkdir_p(const char* dir) {
    if (dir == nullptr || dir[0] == '\0') return -1;
    char path[4096];
    const size_t n = strlen(dir);
    if (n >= sizeof(path)) return -1;
    memcpy(path, dir, n + 1);
    // Create each prefix ending before a '/', then the whole path.
    for (size_t i = 1; i <= n; ++i) {
        if (path[i] != '/' && path[i] != '\0') continue;
        const char saved = path[i];
        path[i] = '\0';
        if (mkdir(path, 0755) != 0 && errno != EEXIST) return -1;
        path[i] = saved;
    }
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) return -1;
    return 0;
}

namespace {

struct InheritedInstance {
    apr_thread_start_t func;
    void* data;
    QVInstanceState* inst;
};

void* APR_THREAD_FUNC startWithInstance(apr_thread_t* thread, void* arg) {
    const InheritedInstance start = *static_cast<InheritedInstance*>(arg);
    delete static_cast<InheritedInstance*>(arg);
    qvlb_set_current_instance(start.inst);
    return start.func(thread, start.data);
}

}  // namespace

apr_status_t qvlb_thread_create(apr_thread_t** thread, apr_thread_start_t func, void* data, apr_pool_t* pool,
                                char* err_buf, int err_len) {
    if (thread != nullptr) *thread = nullptr;
    if (thread == nullptr || func == nullptr) {
        if (err_buf != nullptr && err_len > 0)
            snprintf(err_buf, static_cast<size_t>(err_len), "Invalid argument");
        return APR_EINVAL;
    }
    if (qvlb_fault(QV_FAULT_THREAD_CREATE)) {
        if (err_buf != nullptr && err_len > 0)
            snprintf(err_buf, static_cast<size_t>(err_len), "Injected thread creation failure");
        return APR_ENOMEM;
    }
    if (pool == nullptr) {
        qvlb_apr_init();
        pool = control_pool;
    }
    // A thread started for an instance of the proxy acts for that instance too.
    InheritedInstance* inherit = nullptr;
    if (QVInstanceState* inst = qvlb_current_instance(); inst != nullptr) {
        inherit = new (std::nothrow) InheritedInstance{func, data, inst};
        if (inherit == nullptr) {
            if (err_buf != nullptr && err_len > 0)
                snprintf(err_buf, static_cast<size_t>(err_len), "Out of memory");
            return APR_ENOMEM;
        }
        func = startWithInstance;
        data = inherit;
    }
    apr_status_t rv;
    {
        // Thread creation allocates from the pool (and makes a sub-pool of it).
        std::lock_guard<std::recursive_mutex> guard(qvlb_pool_lock());
        rv = apr_thread_create(thread, nullptr, func, data, pool);
    }
    if (rv != APR_SUCCESS) {
        delete inherit;
        *thread = nullptr;
        if (err_buf != nullptr && err_len > 0) apr_strerror(rv, err_buf, static_cast<apr_size_t>(err_len));
    }
    return rv;
}

bool qvlb_sleep_ms_interruptible(long long ms, const int* stop) {
    const long long step_ms = 20;
    long long left = ms;
    while (left > 0) {
        if (stop != nullptr && qv_load(*stop) != 0) return true;
        const long long d = left < step_ms ? left : step_ms;
        apr_sleep(static_cast<apr_interval_time_t>(d) * 1000);
        left -= d;
    }
    return stop != nullptr && qv_load(*stop) != 0;
}

void qvlb_lower_thread_priority() {
    // On Linux the nice value belongs to the thread named by its id, not to the whole process.
    const auto tid = static_cast<id_t>(syscall(SYS_gettid));
    (void)setpriority(PRIO_PROCESS, tid, 10);
}
