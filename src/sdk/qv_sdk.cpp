// The exported SDK: argument checks and log lines around the flowpath engine, the callout
// bookkeeping of database and HTTP calls, the stored-transaction table and the SDK log file.
#include "sdk/qv_sdk.h"

#include <apr_strings.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <type_traits>

#include "backend/QVBackendMonitor.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"
#include "sdk/qv_modules.h"
#include "sdk/qv_sdk_log_writer.h"

qvSDKLog* qv_sdk_log = nullptr;
int g_qv_sdk_log_init = 0;
apr_pool_t* sdk_pool = nullptr;
apr_thread_mutex_t* bt_lock = nullptr;
apr_hash_t* g_bt_hash = nullptr;
int dbBackendId = 0;

namespace {

struct LevelText {
    const char* text;
    size_t len;
};
// Level words of levels 1..5 with the separator that follows them.
const LevelText kLevelWords[] = {
    {"DEBUG |", 7}, {"INFO |", 6}, {"WARNING |", 9}, {"CRITICAL |", 10}, {"ERROR |", 7}};
const char kHeaderLine[] = "#Date      TimeStamp|PID   |level|function_name:line|format\n";

// qvMethodEntry's URL argument is fixed for SDK calls.
char sdkUrl[] = "/test";

// "<time> |<pid> |" of the second it was made for: localtime and getpid once per second per
// thread instead of once per line. Zero-initialised (len 0: not formed yet), so the per-thread
// copy needs no initialisation guard. A forked child forgets its copy (forgetPrefix), so its
// first line already carries its own process id.
struct PrefixCache {
    time_t second;
    int len;
    char text[64];
};
thread_local PrefixCache tlPrefix;

// Runs in a forked child, whose only thread is the one that forked.
void forgetPrefix() {
    tlPrefix = PrefixCache{};
}

__attribute__((noinline)) void copyLong(char* dst, const char* src, size_t n) {
    memcpy(dst, src, n);
}

// Copies n bytes. Pieces of a log line are short: up to 32 bytes they are moved with two
// overlapping fixed-size copies (inlined as plain moves), longer ones go to the library. Left to
// itself the compiler turned these copies into "rep movs" sequences, whose start-up cost
// dominated a line.
inline void copyBytes(char* dst, const char* src, size_t n) {
    if (n >= 16) {
        if (n > 32) {
            copyLong(dst, src, n);
            return;
        }
        memcpy(dst, src, 16);
        memcpy(dst + n - 16, src + n - 16, 16);
    } else if (n >= 8) {
        memcpy(dst, src, 8);
        memcpy(dst + n - 8, src + n - 8, 8);
    } else if (n >= 4) {
        memcpy(dst, src, 4);
        memcpy(dst + n - 4, src + n - 4, 4);
    } else if (n > 0) {
        dst[0] = src[0];
        dst[n / 2] = src[n / 2];
        dst[n - 1] = src[n - 1];
    }
}

// "00".."99" and "00".."ff": two digits at a time.
struct DigitPairs {
    char text[512];
};
constexpr DigitPairs makePairs(unsigned base) {
    DigitPairs t{};
    for (unsigned i = 0; i < base * base; ++i) {
        t.text[2 * i] = "0123456789abcdef"[i / base];
        t.text[2 * i + 1] = "0123456789abcdef"[i % base];
    }
    return t;
}
constexpr DigitPairs kDecPairs = makePairs(10);
constexpr DigitPairs kHexPairs = makePairs(16);

// Appends to a fixed buffer [p, end), cutting whatever does not fit.
struct LineWriter {
    char* p;
    char* end;

    void bytes(const char* s, size_t n) {
        const size_t room = static_cast<size_t>(end - p);
        if (n > room) n = room;
        copyBytes(p, s, n);
        p += n;
    }
    template <size_t N>
    void lit(const char (&s)[N]) {
        if (static_cast<size_t>(end - p) >= N - 1) {
            memcpy(p, s, N - 1);  // constant size: a few moves
            p += N - 1;
        } else {
            bytes(s, N - 1);
        }
    }
    void str(const char* s) {
        if (s == nullptr)
            lit("(null)");
        else
            bytes(s, strlen(s));
    }
    // Decimal (or, with hex, lowercase hexadecimal) text of value, two digits per step. Hand-made
    // rather than std::to_chars, whose instantiations would become exported symbols of the library.
    template <class T>
    void num(T value, bool hex = false) {
        using U = std::make_unsigned_t<T>;
        U mag = static_cast<U>(value);
        bool negative = false;
        if constexpr (std::is_signed_v<T>) {
            if (value < 0) {
                negative = true;
                mag = static_cast<U>(U{0} - mag);
            }
        }
        char digits[24];
        char* d = digits + sizeof(digits);
        const unsigned base = hex ? 16u : 10u;
        const char* pairs = hex ? kHexPairs.text : kDecPairs.text;
        while (mag >= base) {
            const unsigned two = static_cast<unsigned>(mag % (base * base));
            mag = static_cast<U>(mag / (base * base));
            d -= 2;
            d[0] = pairs[2 * two];
            d[1] = pairs[2 * two + 1];
        }
        if (mag != 0 || d == digits + sizeof(digits)) *--d = "0123456789abcdef"[mag];
        if (negative) *--d = '-';
        bytes(d, static_cast<size_t>(digits + sizeof(digits) - d));
    }
};

// One conversion of a message format and the literal text before it.
struct FastConv {
    const char* text;  // literal text before the conversion
    size_t textLen;
    char conv;  // '%', 's', 'p', 'd', 'i' or 'u'
    char longs;
};
// Conversions per message handled without printf; messages have a handful.
constexpr int kFastConvMax = 16;

// Splits fmt into its conversions when every one is among those printf-free formatting handles
// (%s, %p, %d, %i, %u, the integer ones also with l or ll, and %%); *tail is the text after the
// last (tailLen bytes). False at anything else (flags, widths, other letters) or past
// kFastConvMax: the caller then formats with vsnprintf. The arguments are not touched here, so
// that fall-back needs no copy of them (copying a va_list stalls the line on a store it has to
// wait for).
bool parseFast(const char* fmt, FastConv* convs, int* count, const char** tail, size_t* tailLen) {
    int n = 0;
    const char* run = fmt;
    const char* f = strchrnul(fmt, '%');
    for (; *f != '\0'; f = strchrnul(f + 1, '%')) {
        if (n == kFastConvMax) return false;
        FastConv& sp = convs[n++];
        sp.text = run;
        sp.textLen = static_cast<size_t>(f - run);
        ++f;
        int longs = 0;
        while (*f == 'l' && longs < 2) {
            ++longs;
            ++f;
        }
        const char c = *f;
        const bool integer = c == 'd' || c == 'i' || c == 'u';
        if (!integer && (longs != 0 || (c != '%' && c != 's' && c != 'p'))) return false;
        sp.conv = c;
        sp.longs = static_cast<char>(longs);
        run = f + 1;
    }
    *count = n;
    *tail = run;
    *tailLen = static_cast<size_t>(f - run);  // f is at the terminating NUL
    return true;
}

// printf's output for formats parseFast accepted.
void formatFast(LineWriter& w, const FastConv* convs, int count, const char* tail, size_t tailLen,
                va_list ap) {
    for (int i = 0; i < count; i++) {
        const FastConv& sp = convs[i];
        w.bytes(sp.text, sp.textLen);
        switch (sp.conv) {
            case '%':
                w.lit("%");
                break;
            case 's':
                w.str(va_arg(ap, const char*));
                break;
            case 'p': {
                const void* v = va_arg(ap, const void*);
                if (v == nullptr) {
                    w.lit("(nil)");
                } else {
                    w.lit("0x");
                    w.num(reinterpret_cast<uintptr_t>(v), true);
                }
                break;
            }
            case 'u':
                if (sp.longs == 0)
                    w.num(va_arg(ap, unsigned int));
                else if (sp.longs == 1)
                    w.num(va_arg(ap, unsigned long));
                else
                    w.num(va_arg(ap, unsigned long long));
                break;
            default:  // 'd', 'i'
                if (sp.longs == 0)
                    w.num(va_arg(ap, int));
                else if (sp.longs == 1)
                    w.num(va_arg(ap, long));
                else
                    w.num(va_arg(ap, long long));
                break;
        }
    }
    w.bytes(tail, tailLen);
}

const PrefixCache& currentPrefix() {
    PrefixCache& c = tlPrefix;
    time_t now = time(nullptr);
    if (now != c.second || c.len == 0) {
        char t[21];
        qv_sdk_log_time(t, sizeof(t));
        int n = snprintf(c.text, sizeof(c.text), "%s |%d |", t, static_cast<int>(getpid()));
        c.len =
            n < 0 ? 0 : (n >= static_cast<int>(sizeof(c.text)) ? static_cast<int>(sizeof(c.text)) - 1 : n);
        c.second = now;
    }
    return c;
}

void closeLogFile(qvSDKLog* rec) {
    if (rec == nullptr || rec->file_fp == nullptr) return;
    qvSdkLogWriterClose();
    fflush(rec->file_fp);
    fclose(rec->file_fp);
    rec->file_fp = nullptr;
}

// Releases the stored-transaction table, its lock and sdk_pool.
void releaseTable() {
    apr_thread_mutex_t* lock = qv_load_acquire(bt_lock);
    if (lock != nullptr) apr_thread_mutex_destroy(lock);
    qv_store_release(bt_lock, nullptr);
    apr_hash_t* table = qv_load_acquire(g_bt_hash);
    if (table != nullptr) apr_hash_clear(table);
    qv_store_release(g_bt_hash, nullptr);
    if (sdk_pool != nullptr) apr_pool_destroy(sdk_pool);
    sdk_pool = nullptr;
}

// Releases the log record; later log calls find none.
void releaseLog() {
    qvSDKLog* rec = qv_load_acquire(qv_sdk_log);
    qv_store_release(qv_sdk_log, nullptr);
    qv_store(g_qv_sdk_log_init, 0);
    closeLogFile(rec);
    qvlb_free(rec, "qvSDKLog", -1);
}

// Now on the collector's time base minus the flowpath start (the wall clock on the SDK path,
// where the start is stored as minus the offset).
long long relativeNow(const QVPerThreadData_t* td, long long* clockMinusOffset) {
    long long offset = qvApplication != nullptr ? qv_load(qvApplication->Server.korEpochDiffTime) : 0;
    long long now = my_gettimeofday() - offset;
    if (clockMinusOffset != nullptr) *clockMinusOffset = now;
    return now - td->tlFlowPathTimeStampInMS;
}

bool empty(const char* s) {
    return s == nullptr || s[0] == '\0';
}

const char kSearchUpdate[] = "ipCallOutSearchUpdate";

// The finding half of ipCallOutSearchUpdate: *added tells that the record is new, and then the
// caller must give it room in the backend monitor.
methodPropProperties* findOrAddIpCallOut(char* ip_name, int type, node_t* node, bool* added) {
    *added = false;
    if (empty(ip_name)) return nullptr;
    QV_SDK_LOG_AS(kSearchUpdate, 2, "Method Called");
    // A known name (every call but a backend's first) is found without the registry lock; the
    // test and the insert of a new one form one step under it.
    methodPropProperties* rec = getMethodPropFromMethodName(ip_name, node);
    if (rec == nullptr) {
        QVMethodHashMapGuard guard;
        rec = getMethodPropFromMethodName(ip_name, node);
        if (rec == nullptr) {
            QV_SDK_LOG_AS(kSearchUpdate, 1, "Adding ip_name = [%s], to hashmap", ip_name);
            // A name that a newer generation knows comes back as that record, which keeps its
            // type: only a record made here takes the next id.
            const int nextId = qv_load(qvMethodRegistryState().methodId);
            rec = updateMethodHashMap(ip_name, 0, 0, node);
            if (rec == nullptr) return nullptr;
            if (rec->methodId >= nextId) {
                qv_store(rec->type, static_cast<char>(type));
                *added = true;
            }
        }
    }
    if (!*added) QV_SDK_LOG_AS(kSearchUpdate, 1, "ip_name found in hashmap, ip_name = [%s]", ip_name);
    return rec;
}

// Room in the backend monitor for a backend just added; outside every lock but its own.
void growForNewBackend(methodPropProperties* rec) {
    QV_SDK_LOG_AS(kSearchUpdate, 1, "Going to increament backend data array");
    checkAndIncrementAggrBackendDataArray(rec);
    QV_SDK_LOG_AS(kSearchUpdate, 1, "Method End");
}

// A record holds a registry generation while it runs a flowpath (see QVMethodHashMap.h).
// Caller holds its sequenceBlobLock.
bool runsFlowpath(const char* func, const QVPerThreadData_t* td, const void* handle) {
    if (td->hasMapNodePtr != nullptr) return true;
    QV_SDK_LOG_AS(func, 1, "bt_handle = [%p] runs no transaction; callout not recorded", handle);
    return false;
}

// Start of a callout of type (1 HTTP, 2 database) to host: the backend record, and when the
// handle runs a flowpath its start time and, for a database, the query. A handle whose flowpath
// has ended (at a test stop, say) still gets the backend, so the end it is paired with is valid.
methodPropProperties* beginCallout(const char* func, void* handle, char* host, int type, char* query) {
    auto* td = static_cast<QVPerThreadData_t*>(handle);
    methodPropProperties* backend = nullptr;
    bool added = false;
    {
        QVLockGuard guard(td->sequenceBlobLock);
        // The generation is used only while the lock keeps the record from releasing it.
        backend = findOrAddIpCallOut(host, type, td->hasMapNodePtr, &added);
        if (backend != nullptr && runsFlowpath(func, td, handle)) {
            long long clock = 0;
            const long long curTimeStampMS = relativeNow(td, &clock);
            td->tlTierStartTime = curTimeStampMS;
            if (type == 2) {
                QV_SDK_LOG_AS(func, 1, "curTimeStampMS = [%lld]", curTimeStampMS);
                dbMethodEntry(td, curTimeStampMS, query, host);
            } else {
                td->httpCallOutDepth++;
                QV_SDK_LOG_AS(func, 1,
                              "myGettimeofday = [%lld], curTimeStampMS = [%lld], httpCallOutDepth = [%d]",
                              clock, curTimeStampMS, td->httpCallOutDepth);
            }
        }
    }
    if (added) growForNewBackend(backend);
    return backend;
}

// End of a callout: the callout record once the outermost callout of its kind ended, then the
// backend's count (outside the record's lock: the monitor may grow its arrays).
void endCallout(const char* func, void* handle, void* ip_handle, int type) {
    auto* td = static_cast<QVPerThreadData_t*>(handle);
    auto* backend = static_cast<methodPropProperties*>(ip_handle);
    long long duration = 0;
    bool closed = false;
    {
        QVLockGuard guard(td->sequenceBlobLock);
        if (!runsFlowpath(func, td, handle)) return;
        long long clock = 0;
        const long long curTimeStampMS = relativeNow(td, &clock);
        duration = curTimeStampMS - td->tlTierStartTime;
        td->seqNum++;
        int depth;
        if (type == 2) {
            QV_SDK_LOG_AS(func, 1, "myGettimeofday = [%lld], curTimeStampMS = [%lld], duration = [%lld]",
                          clock, curTimeStampMS, duration);
            depth = --td->tlSQLObj.DBCallDepth;
        } else {
            depth = --td->httpCallOutDepth;
            QV_SDK_LOG_AS(func, 1, "qvTD->seqNum = [%ld], httpCallOutDepth = [%d]",
                          static_cast<long>(td->seqNum), depth);
        }
        if (depth < 1) {
            if (type == 2) {
                qv_store(dbBackendId, backend->methodId);
                QV_SDK_LOG_AS(func, 1, "dbBackendId = [%d]", backend->methodId);
            }
            updateFPSeqBlobWithTierCallOutRecord(td, td->tlTierStartTime, duration, backend);
            closed = true;
        }
    }
    if (closed) updateCounterAndDurationForBackend(td, backend, duration, 0);
}

}  // namespace

void qv_sdk_log_time(char* time_str, size_t time_str_size) {
    if (time_str == nullptr || time_str_size == 0) return;
    time_str[0] = '\0';
    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr) return;
    if (strftime(time_str, time_str_size, "%d-%b-%y %T", &tmv) == 0) time_str[0] = '\0';
}

int qv_sdk_trace_log(int level, const char* func_name, int line, const char* format, ...) {
    qvSDKLog* rec = qv_load_acquire(qv_sdk_log);
    FILE* fp = rec != nullptr ? rec->file_fp : nullptr;
    if (fp == nullptr) {
        fprintf(stderr, "ERROR |%s: %d |qv_sdk_log->file_fp is (null) \n", __func__, __LINE__);
        return -1;
    }
    char out[QV_SDK_LOG_LINE_MAX];
    LineWriter w{out, out + sizeof(out) - 1};  // the newline always fits
    if (level >= 1 && level <= 5) {
        const PrefixCache& pfx = currentPrefix();
        w.bytes(pfx.text, static_cast<size_t>(pfx.len));
        w.bytes(kLevelWords[level - 1].text, kLevelWords[level - 1].len);
        w.str(func_name);
        w.lit(" : ");
        w.num(line);
        w.lit(" |");
        // Counted without a lock, as the count is never used: a relaxed read and write rather
        // than a locked add on a line every logging thread shares (two threads may lose a count).
        const unsigned counted = static_cast<unsigned>(qv_load(rec->cur_file_size));
        qv_store(rec->cur_file_size, static_cast<int>(counted + static_cast<unsigned>(w.p - out)));
    }
    if (format != nullptr) {
        va_list ap;
        va_start(ap, format);
        FastConv convs[kFastConvMax];
        int count = 0;
        const char* tail = nullptr;
        size_t tailLen = 0;
        if (parseFast(format, convs, &count, &tail, &tailLen)) {
            formatFast(w, convs, count, tail, tailLen, ap);
        } else {
            char* const msg = w.p;
            const size_t room = static_cast<size_t>(w.end - msg) + 1;  // vsnprintf counts the NUL
            int n = vsnprintf(msg, room, format, ap);
            if (n > 0) w.p = msg + (static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1);
        }
        va_end(ap);
    }
    *w.p++ = '\n';
    const size_t pos = static_cast<size_t>(w.p - out);
    if (qvSdkLogWriterAppend(out, pos) == QVSdkLogAppend::NotOpen) fwrite(out, 1, pos, fp);
    return 0;
}

void qv_sdk_create_file_name() {
    qvSDKLog* rec = qv_load_acquire(qv_sdk_log);
    if (rec == nullptr) return;
    closeLogFile(rec);
    char dateTime[32];
    qvlb_get_cur_date_time(dateTime, sizeof(dateTime));
    const int procId = static_cast<int>(getpid());
    int n0 = snprintf(rec->file_name[0], QV_SDK_FILE_NAME_SIZE, "%sqv_sdk_%s_%d.log_0", QV_SDK_LOG_DIR,
                      dateTime, procId);
    snprintf(rec->file_name[1], QV_SDK_FILE_NAME_SIZE, "%sqv_sdk_%s_%d.log_1", QV_SDK_LOG_DIR, dateTime,
             procId);
    // A cut name could create a file somewhere unintended: treat it as unopenable.
    FILE* fp = n0 >= 0 && n0 < QV_SDK_FILE_NAME_SIZE ? fopen(rec->file_name[0], "w") : nullptr;
    if (fp == nullptr) {
        fprintf(stderr, "ERROR |%s: %d |Unable to open file: %s\n", __func__, __LINE__, rec->file_name[0]);
        return;
    }
    fwrite(kHeaderLine, 1, sizeof(kHeaderLine) - 1, fp);
    qv_store(rec->cur_file_size, qv_load(rec->cur_file_size) + static_cast<int>(sizeof(kHeaderLine) - 1));
    fflush(fp);
    qvSdkLogWriterOpen(fp);
    rec->file_fp = fp;
}

qvSDKLog* qv_sdk_log_init() {
    qvSDKLog* rec = qv_load_acquire(qv_sdk_log);
    if (rec == nullptr) {
        rec = static_cast<qvSDKLog*>(qvlb_calloc(sizeof(qvSDKLog), "qvSDKLog", -1));
        if (rec == nullptr) {
            fprintf(stderr, "ERROR |%s: %d |Memory allocation of qvSDKLog failed\n", __func__, __LINE__);
            return nullptr;
        }
    }
    qv_store(g_qv_sdk_log_init, 1);
    static pthread_once_t handlers = PTHREAD_ONCE_INIT;
    pthread_once(&handlers, [] { pthread_atfork(nullptr, nullptr, forgetPrefix); });
    rec->max_file_size = 10485760;
    rec->log = qv_sdk_trace_log;
    qv_store_release(qv_sdk_log, rec);
    qv_sdk_create_file_name();
    if (rec->file_fp == nullptr) fprintf(stderr, "ERROR |%s: %d |Method Exit\n", __func__, __LINE__);
    return rec;
}

void qv_sdk_log_flush() {
    qvSDKLog* rec = qv_load_acquire(qv_sdk_log);
    if (rec != nullptr && rec->file_fp != nullptr) qvSdkLogWriterFlush();
}

methodPropProperties* ipCallOutSearchUpdate(char* ip_name, int type, node_t* node) {
    bool added = false;
    methodPropProperties* rec = findOrAddIpCallOut(ip_name, type, node, &added);
    // Outside the registry lock: the backend monitor takes its own lock.
    if (added) growForNewBackend(rec);
    return rec;
}

void qv_init_internal(int pauseSeconds) {
    if (qv_load(g_qv_sdk_log_init) == 0) qv_sdk_log_init();
    qvlb_register_modules();
    agent_init("qvsdk", 1, "qvsdk", "skd");
    qvlb_apr_init();
    if (sdk_pool == nullptr && apr_pool_create(&sdk_pool, nullptr) != APR_SUCCESS) sdk_pool = nullptr;
    // Logged as the exported function, whose work this is.
    QV_SDK_LOG_AS("qv_init", 2, "Method Called, sdk_pool created");
    if (sdk_pool != nullptr) {
        apr_thread_mutex_t* lock = qv_load_acquire(bt_lock);
        if (lock == nullptr &&
            apr_thread_mutex_create(&lock, APR_THREAD_MUTEX_NESTED, sdk_pool) == APR_SUCCESS)
            qv_store_release(bt_lock, lock);
        if (qv_load_acquire(g_bt_hash) == nullptr) qv_store_release(g_bt_hash, apr_hash_make(sdk_pool));
    }
    QV_SDK_LOG_AS("qv_init", 1, "Method End");
    if (pauseSeconds > 0)
        qvlb_sleep_ms_interruptible(static_cast<long long>(pauseSeconds) * 1000, &qvAgentStopping);
}

void qv_sdk_reset_for_test() {
    releaseTable();
    releaseLog();
    qv_store(dbBackendId, 0);
    tlPrefix = PrefixCache{};
}

extern "C" {

QV_EXPORT void qv_init(void) {
    qv_init_internal(QV_SDK_INIT_PAUSE_SECS);
}

QV_EXPORT void qv_free(void) {
    QV_SDK_LOG(2, "Method Called");
    // The agent's threads end here, while everything they use still exists: left running, they
    // would meet the process's exit tearing their pools and locks down.
    qv_agent_shutdown();
    releaseTable();
    QV_SDK_LOG(1, "Method End");
    // The log record and its file stay: lines logged later (and after a new qv_init) go on into
    // the same file, and nothing that still holds the record is left dangling.
    qv_sdk_log_flush();
}

QV_EXPORT qvBTHandle qv_bt_begin(char* bt_name, char* correlation_header) {
    if (empty(bt_name)) {
        QV_SDK_LOG(5, "ERROR: Invalid Argument Passed, bt_name = [%s]", bt_name);
        return nullptr;
    }
    QV_SDK_LOG(2, "Method Called, bt_name = [%s], correlation_header = [%p]", bt_name,
               static_cast<void*>(correlation_header));
    void* handle = startFP(nullptr, bt_name, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0);
    QV_SDK_LOG(1, "Method End, bt_handle = [%p]", handle);
    return handle;
}

QV_EXPORT void qv_method_entry(qvBTHandle bt_handle, char* method) {
    if (bt_handle == nullptr || empty(method)) {
        QV_SDK_LOG(5, "ERROR: Invalid Arguments, bt_handle = [%p], method = [%s]", bt_handle, method);
        return;
    }
    QV_SDK_LOG(2, "Method Called, bt_handle = [%p], method = [%s]", bt_handle, method);
    qvMethodEntry(nullptr, static_cast<QVPerThreadData_t*>(bt_handle), method, sdkUrl, nullptr, 0, nullptr,
                  nullptr, 0);
    QV_SDK_LOG(1, "Method End");
}

QV_EXPORT void qv_method_exit(qvBTHandle bt_handle, char* method) {
    if (bt_handle == nullptr || empty(method)) {
        QV_SDK_LOG(5, "ERROR: Invalid Arguments, bt_handle = [%p], method = [%s]", bt_handle, method);
        return;
    }
    QV_SDK_LOG(2, "Method Called, bt_handle = [%p], method = [%s]", bt_handle, method);
    qvMethodExit(nullptr, static_cast<QVPerThreadData_t*>(bt_handle), method, 0, 200, nullptr, 0, 0, 0,
                 nullptr, 1);
    QV_SDK_LOG(1, "Method End");
}

QV_EXPORT int qv_bt_end(qvBTHandle bt_handle) {
    if (bt_handle == nullptr) {
        QV_SDK_LOG(5, "ERROR: Invalid Argument Passed, bt_handle = [%p]", bt_handle);
        return -1;
    }
    QV_SDK_LOG(2, "Method Called, bt_handle = [%p]", bt_handle);
    endFP(static_cast<QVPerThreadData_t*>(bt_handle), 200, nullptr);
    QV_SDK_LOG(1, "Method End");
    return 0;
}

QV_EXPORT void qv_bt_store(qvBTHandle bt_handle, char* unique_bt_id) {
    if (bt_handle == nullptr || empty(unique_bt_id)) {
        QV_SDK_LOG(5, "ERROR: Invalid Arguments Passed, bt_handle = [%p], unique_bt_id = [%s]", bt_handle,
                   unique_bt_id);
        return;
    }
    apr_hash_t* table = qv_load_acquire(g_bt_hash);
    if (table == nullptr) return;  // before qv_init or after qv_free
    bool stored = false;
    {
        // The test for an existing id and the insertion form one step, and lookups take the
        // lock too: an APR hash read during an insertion is a data race.
        QVLockGuard guard(qv_load_acquire(bt_lock));
        if (apr_hash_get(table, unique_bt_id, APR_HASH_KEY_STRING) == nullptr) {
            // A copy, so the caller's buffer may go away while the entry lives.
            char* key = apr_pstrdup(sdk_pool, unique_bt_id);
            if (key == nullptr) return;  // pool exhausted: nothing stored
            apr_hash_set(table, key, APR_HASH_KEY_STRING, bt_handle);
            stored = true;
            QV_SDK_LOG(1, "Business transaction stored successfully.");
        }
    }
    if (!stored) {
        QV_SDK_LOG(5, "ERROR: Business transaction already exists. unique_bt_id = [%s]", unique_bt_id);
        return;
    }
    QV_SDK_LOG(2, "Method END");
}

QV_EXPORT qvBTHandle qv_bt_get(char* unique_bt_id) {
    if (empty(unique_bt_id)) {
        QV_SDK_LOG(5, "ERROR: Invalid Argument Passed, unique_bt_id = [%s]", unique_bt_id);
        return nullptr;
    }
    QV_SDK_LOG(2, "Method Called, unique_bt_id = [%s]", unique_bt_id);
    void* handle = nullptr;
    apr_hash_t* table = qv_load_acquire(g_bt_hash);
    if (table != nullptr) {
        QVLockGuard guard(qv_load_acquire(bt_lock));
        handle = apr_hash_get(table, unique_bt_id, APR_HASH_KEY_STRING);
    }
    QV_SDK_LOG(1, "Method End, bt_handle = [%p]", handle);
    return handle;
}

QV_EXPORT int qv_bt_add_error(qvBTHandle, int, char*, int) {
    return 0;
}

QV_EXPORT qvIPCallOutHandle qv_ip_db_callout_begin(qvBTHandle bt_handle, char* db_host, char* db_query) {
    if (bt_handle == nullptr || empty(db_host) || empty(db_query)) {
        QV_SDK_LOG(1, "Error: Invalid argument passed. bt_handle = [%p], db_host = [%s], db_query = [%s]",
                   bt_handle, db_host, db_query);
        return nullptr;
    }
    QV_SDK_LOG(2, "Method Called, bt_handle = [%p], db_host = [%s], db_query = [%s]", bt_handle, db_host,
               db_query);
    return beginCallout(__func__, bt_handle, db_host, 2, db_query);
}

QV_EXPORT int qv_ip_db_callout_end(qvBTHandle bt_handle, qvIPCallOutHandle ip_handle) {
    if (bt_handle == nullptr || ip_handle == nullptr) {
        QV_SDK_LOG(5, "Error: Invalid argument passed. bt_handle = [%p], ip_handle = [%p]", bt_handle,
                   ip_handle);
        return -1;
    }
    endCallout(__func__, bt_handle, ip_handle, 2);
    return 0;
}

QV_EXPORT qvIPCallOutHandle qv_ip_http_callout_begin(qvBTHandle bt_handle, char* http_host, char* url) {
    if (bt_handle == nullptr || empty(http_host) || empty(url)) {
        QV_SDK_LOG(5, "Error: Invalid argument passed. bt_handle = [%p], http_host = [%s], url = [%s]",
                   bt_handle, http_host, url);
        return nullptr;
    }
    QV_SDK_LOG(2, "Method Called, bt_handle = [%p], http_host = [%s], url = [%s]", bt_handle, http_host, url);
    methodPropProperties* backend = beginCallout(__func__, bt_handle, http_host, 1, nullptr);
    if (backend != nullptr) QV_SDK_LOG(1, "Method end, mPP = [%p]", static_cast<void*>(backend));
    return backend;
}

QV_EXPORT int qv_ip_http_callout_end(qvBTHandle bt_handle, qvIPCallOutHandle ip_handle) {
    if (bt_handle == nullptr || ip_handle == nullptr) {
        QV_SDK_LOG(5, "Error: Invalid argument passed.bt_handle = [%p], ip_handle = [%p]", bt_handle,
                   ip_handle);
        return -1;
    }
    endCallout(__func__, bt_handle, ip_handle, 1);
    return 0;
}

}  // extern "C"
