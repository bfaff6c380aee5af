// The extension interface (include/qv_ext.h): generation-checked request handles over the
// flowpath engine, method and backend ids, monotonic times on the collector's time base, and a
// fresh agent instance in a forked child.
#include "sdk/qv_ext.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <unordered_map>

#include "backend/QVBackendMonitor.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"
#include "sdk/qv_modules.h"
#include "sdk/qv_sdk.h"

namespace {

constexpr int kMaxNames = 65535;
constexpr int kMaxDepth = 256;
constexpr int kMaxCallouts = 16;

// ---- Names registered once, referred to by id ----

struct NameEntry {
    char* name = nullptr;  // immutable once published
    int kind = 0;          // backends: QV_EXT_BACKEND_*
    // The registry record of the name, found on first use. Records outlive registry generations,
    // so one pointer serves every test run; a forked child forgets them (new instance).
    std::atomic<methodPropProperties*> record{nullptr};
};

struct NameTable {
    NameEntry entries[kMaxNames + 1];  // [0] unused: ids start at 1
    std::atomic<int> count{0};
    std::mutex lock;  // registration only
    std::unordered_map<std::string, int> byName;
};
NameTable methods;
NameTable backends;

int registerName(NameTable& t, const char* name, int kind) {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.byName.find(name);
    if (it != t.byName.end()) return it->second;
    const int id = t.count.load(std::memory_order_relaxed) + 1;
    if (id > kMaxNames) return QV_EXT_E_CAPACITY;
    const size_t len = strlen(name);
    char* copy = new (std::nothrow) char[len + 1];
    if (copy == nullptr) return QV_EXT_E_CAPACITY;
    memcpy(copy, name, len + 1);
    t.entries[id].name = copy;
    t.entries[id].kind = kind;
    t.byName.emplace(std::string(name, len), id);
    t.count.store(id, std::memory_order_release);
    return id;
}

NameEntry* entryOf(NameTable& t, int id) {
    return id >= 1 && id <= t.count.load(std::memory_order_acquire) ? &t.entries[id] : nullptr;
}

void forgetRecords(NameTable& t) {
    const int n = t.count.load(std::memory_order_relaxed);
    for (int i = 1; i <= n; i++) t.entries[i].record.store(nullptr, std::memory_order_relaxed);
}

// ---- Clock: monotonic, mapped onto the agent's wall-clock milliseconds once ----

long long monoNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

std::atomic<long long> wallAtAnchorMs{0};
std::atomic<long long> monoAtAnchorNs{0};

// The agent clock (what my_gettimeofday gives) at monotonic time ns: steps of the wall clock
// after start-up do not reach request times.
long long agentMsAt(long long ns) {
    return wallAtAnchorMs.load(std::memory_order_relaxed) +
           (ns - monoAtAnchorNs.load(std::memory_order_relaxed)) / 1000000;
}

// ---- Requests ----

struct Frame {
    int id;
    long long startNs;
};

struct Callout {
    int backendId;
    long long startNs;
};

struct Slot {
    // Even: free; odd: a request runs. Bumped at begin and end, so a handle names one request.
    std::atomic<uint32_t> gen{0};
    QVPerThreadData_t* td = nullptr;
    // What the record held at begin: a test stop gives running records back to the pool, where
    // another request may take this one.
    long long fpi = 0;
    long long startMs = 0;
    int depth = 0;  // may exceed kMaxDepth; frames beyond it are not kept
    int callouts = 0;
    Frame frames[kMaxDepth];
    Callout open[kMaxCallouts];
};

constexpr uint32_t kSlots = 1024;
Slot slots[kSlots];

qv_ext_request handleOf(uint32_t index, uint32_t gen) {
    return (static_cast<uint64_t>(gen) << 32) | (index + 1);
}

Slot* slotOf(qv_ext_request h) {
    const uint64_t index = (h & 0xffffffffu) - 1;
    if (index >= kSlots) return nullptr;
    Slot& s = slots[index];
    return s.gen.load(std::memory_order_acquire) == static_cast<uint32_t>(h >> 32) ? &s : nullptr;
}

// The lowest free slot, so a process touches only as many slots as it runs requests at once.
Slot* claimSlot(uint32_t* index) {
    for (uint32_t i = 0; i < kSlots; i++) {
        uint32_t g = slots[i].gen.load(std::memory_order_relaxed);
        if ((g & 1u) == 0 && slots[i].gen.compare_exchange_strong(g, g + 1, std::memory_order_acq_rel)) {
            *index = i;
            return &slots[i];
        }
    }
    return nullptr;
}

void releaseSlot(Slot* s) {
    s->td = nullptr;
    s->depth = 0;
    s->callouts = 0;
    s->gen.fetch_add(1, std::memory_order_release);
}

// ---- State, argument errors, fork ----

enum : int { kNotStarted, kRunning, kStopped };
std::atomic<int> state{kNotStarted};
// Set in a forked child; its first request start builds the child's agent.
std::atomic<int> forkedChild{0};
std::mutex childStartLock;
// The instance the agent acts for: null (the process's own) until a forked child made its own.
std::atomic<QVInstanceState*> extInstance{nullptr};

std::atomic<int> loggedCodes{0};

int fail(int code, const char* func, const char* what) {
    const int bit = 1 << (-code);
    if ((loggedCodes.fetch_or(bit, std::memory_order_relaxed) & bit) == 0)
        qvlb_mt_trace_log_win(0, "ext", 0, "EXT", "Error", __FILE__, __LINE__, func,
                              "%s (code %d); later errors of this code are not logged", what, code);
    return code;
}

// Registrations and a child's start-up are not cut in half by a fork.
void beforeFork() {
    childStartLock.lock();
    methods.lock.lock();
    backends.lock.lock();
}

void afterForkInParent() {
    backends.lock.unlock();
    methods.lock.unlock();
    childStartLock.unlock();
}

// In the child only the forking thread runs: plain stores, nothing freed. Requests of the parent
// become stale, and no record or id of the parent's agent is used again.
void afterForkInChild() {
    afterForkInParent();
    if (state.load(std::memory_order_relaxed) != kRunning) return;
    for (Slot& s : slots) {
        const uint32_t g = s.gen.load(std::memory_order_relaxed);
        if ((g & 1u) != 0) releaseSlot(&s);
    }
    forgetRecords(methods);
    forgetRecords(backends);
    forkedChild.store(1, std::memory_order_relaxed);
}

// The child's own agent: a new instance (the parent's settings, pools, connections and threads
// stay behind, unused) with its own control thread, which reads the settings file and connects.
void startChildAgent() {
    std::lock_guard<std::mutex> guard(childStartLock);
    if (forkedChild.load(std::memory_order_relaxed) == 0) return;
    // The process id the handshake and the send buffers name is the child's from now on.
    qv_store(pid, static_cast<long long>(getpid()));
    QVInstanceState* inst = qvlb_instance_create();
    if (inst != nullptr) {
        QVInstanceScope scope(inst);
        if (agent_init_instance() == 0) qv_agent_start_control_thread();
    }
    extInstance.store(inst, std::memory_order_release);
    forkedChild.store(0, std::memory_order_relaxed);
}

// Resolves the slot of a request handle for an event call; code is set when there is none.
Slot* requestOf(qv_ext_request h, const char* func, int* code) {
    if (state.load(std::memory_order_acquire) != kRunning) {
        *code = fail(QV_EXT_E_STATE, func, "Agent not started or shut down");
        return nullptr;
    }
    if (h == 0) {
        *code = QV_EXT_NOT_TRACED;
        return nullptr;
    }
    Slot* s = slotOf(h);
    if (s == nullptr) *code = fail(QV_EXT_E_HANDLE, func, "Unknown or ended request handle");
    return s;
}

// Milliseconds from the flowpath's start to monotonic time ns, as the engine's records count them.
long long sinceStartMs(const QVPerThreadData_t* td, long long ns) {
    return agentMsAt(ns) - qv_load(qvApplication->Server.korEpochDiffTime) - td->tlFlowPathTimeStampInMS;
}

// What every call on a request starts with: its time, its slot (null: return code) and the
// agent instance to act for.
struct EventCall {
    EventCall(qv_ext_request h, const char* func)
        : ns(monoNs()), slot(requestOf(h, func, &code)), scope(extInstance.load(std::memory_order_acquire)) {}
    long long ns;
    int code = QV_EXT_OK;
    Slot* slot;
    QVInstanceScope scope;
};

methodPropProperties* methodEntryOf(NameEntry* m, QVPerThreadData_t* td, long long ns) {
    methodPropProperties* rec = m->record.load(std::memory_order_acquire);
    methodPropProperties* got =
        qvMethodEntry(rec, td, m->name, td->tlURL, nullptr, 0, nullptr, nullptr, agentMsAt(ns));
    if (got != nullptr && got != rec) m->record.store(got, std::memory_order_release);
    return got;
}

void methodExitOf(Slot* s, NameEntry* m, long long ns) {
    long long durationMs = 0;
    if (s->depth <= kMaxDepth) durationMs = (ns - s->frames[s->depth - 1].startNs) / 1000000;
    s->depth--;
    qvMethodExit(m->record.load(std::memory_order_acquire), s->td, m->name, 0, -1, nullptr, durationMs, 0, 0,
                 nullptr, 1);
}

methodPropProperties* backendRecordOf(NameEntry* b, QVPerThreadData_t* td) {
    methodPropProperties* rec = b->record.load(std::memory_order_acquire);
    if (rec != nullptr) return rec;
    rec = ipCallOutSearchUpdate(b->name, b->kind, td->hasMapNodePtr);
    if (rec != nullptr) b->record.store(rec, std::memory_order_release);
    return rec;
}

void calloutEndOf(Slot* s, int error, long long ns) {
    const Callout c = s->open[--s->callouts];
    NameEntry* b = entryOf(backends, c.backendId);
    QVPerThreadData_t* td = s->td;
    methodPropProperties* rec = nullptr;
    long long durationMs = (ns - c.startNs) / 1000000;
    {
        QVLockGuard guard(td->sequenceBlobLock);
        // A flowpath written out at a test stop holds no generation: nothing more to record.
        if (td->hasMapNodePtr == nullptr) return;
        rec = backendRecordOf(b, td);
        if (rec == nullptr) return;
        const int depth = b->kind == QV_EXT_BACKEND_DB ? --td->tlSQLObj.DBCallDepth : --td->httpCallOutDepth;
        if (depth >= 1) return;
        td->seqNum++;
        updateFPSeqBlobWithTierCallOutRecord(td, sinceStartMs(td, c.startNs), durationMs, rec);
    }
    updateCounterAndDurationForBackend(td, rec, durationMs, error != 0 ? 1 : 0);
}

}  // namespace

void qv_ext_reset_for_test() {
    for (Slot& s : slots)
        if ((s.gen.load(std::memory_order_relaxed) & 1u) != 0) releaseSlot(&s);
    forgetRecords(methods);
    forgetRecords(backends);
    state.store(kNotStarted);
    forkedChild.store(0);
    extInstance.store(nullptr);
    loggedCodes.store(0);
}

extern "C" {

QV_EXPORT int qv_ext_init(void) {
    int expected = kNotStarted;
    if (!state.compare_exchange_strong(expected, kRunning, std::memory_order_acq_rel))
        return expected == kRunning ? QV_EXT_OK : fail(QV_EXT_E_STATE, __func__, "Agent was shut down");
    static pthread_once_t handlers = PTHREAD_ONCE_INIT;
    pthread_once(&handlers, [] { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); });
    monoAtAnchorNs.store(monoNs(), std::memory_order_relaxed);
    wallAtAnchorMs.store(my_gettimeofday(), std::memory_order_relaxed);
    qvlb_register_modules();
    agent_init("qvsdk", 1, "qvsdk", "skd");
    return QV_EXT_OK;
}

QV_EXPORT void qv_ext_shutdown(void) {
    if (state.exchange(kStopped) != kRunning) return;
    QVInstanceState* inst = extInstance.load(std::memory_order_acquire);
    if (inst == nullptr) {
        qv_agent_shutdown();  // also right in a child that never started its own agent
    } else {
        QVInstanceScope scope(inst);
        qv_agent_shutdown_instance();
    }
    for (Slot& s : slots)
        if ((s.gen.load(std::memory_order_relaxed) & 1u) != 0) releaseSlot(&s);
}

QV_EXPORT int qv_ext_method_register(const char* name) {
    if (name == nullptr || name[0] == '\0') return fail(QV_EXT_E_ARG, __func__, "Null or empty method name");
    return registerName(methods, name, 0);
}

QV_EXPORT int qv_ext_backend_register(const char* name, int kind) {
    if (name == nullptr || name[0] == '\0' || (kind != QV_EXT_BACKEND_HTTP && kind != QV_EXT_BACKEND_DB))
        return fail(QV_EXT_E_ARG, __func__, "Null or empty backend name, or unknown kind");
    return registerName(backends, name, kind);
}

QV_EXPORT int qv_ext_request_begin(const char* url, const char* bt_header_value, qv_ext_request* request) {
    if (request != nullptr) *request = 0;
    if (state.load(std::memory_order_acquire) != kRunning)
        return fail(QV_EXT_E_STATE, __func__, "Agent not started or shut down");
    if (request == nullptr || url == nullptr || url[0] == '\0')
        return fail(QV_EXT_E_ARG, __func__, "Null or empty url, or null request");
    if (forkedChild.load(std::memory_order_relaxed) != 0) startChildAgent();
    QVInstanceScope scope(extInstance.load(std::memory_order_acquire));
    uint32_t index = 0;
    Slot* s = claimSlot(&index);
    if (s == nullptr) return QV_EXT_NOT_TRACED;
    const long long ns = monoNs();
    // The engine takes the texts as char* and only reads them.
    void* td = startFP(nullptr, const_cast<char*>(url), const_cast<char*>(bt_header_value), nullptr, nullptr,
                       nullptr, nullptr, 0, agentMsAt(ns));
    if (td == nullptr) {
        s->gen.fetch_add(1, std::memory_order_release);
        return QV_EXT_NOT_TRACED;
    }
    s->td = static_cast<QVPerThreadData_t*>(td);
    {
        QVLockGuard guard(s->td->sequenceBlobLock);
        s->fpi = s->td->flowpathInstance;
        s->startMs = s->td->tlFlowPathTimeStampInMS;
    }
    *request = handleOf(index, s->gen.load(std::memory_order_relaxed));
    return QV_EXT_OK;
}

QV_EXPORT int qv_ext_method_entry(qv_ext_request request, int method_id) {
    EventCall call(request, __func__);
    Slot* const s = call.slot;
    if (s == nullptr) return call.code;
    const long long ns = call.ns;
    NameEntry* m = entryOf(methods, method_id);
    if (m == nullptr) return fail(QV_EXT_E_ARG, __func__, "Unknown method id");
    if (s->depth < kMaxDepth) s->frames[s->depth] = Frame{method_id, ns};
    s->depth++;
    methodEntryOf(m, s->td, ns);
    return QV_EXT_OK;
}

QV_EXPORT int qv_ext_method_exit(qv_ext_request request, int method_id) {
    EventCall call(request, __func__);
    Slot* const s = call.slot;
    if (s == nullptr) return call.code;
    const long long ns = call.ns;
    NameEntry* m = entryOf(methods, method_id);
    if (m == nullptr || s->depth == 0 || (s->depth <= kMaxDepth && s->frames[s->depth - 1].id != method_id))
        return fail(QV_EXT_E_ARG, __func__, "Method exit without its entry");
    methodExitOf(s, m, ns);
    return QV_EXT_OK;
}

QV_EXPORT int qv_ext_callout_begin(qv_ext_request request, int backend_id, const char* detail) {
    EventCall call(request, __func__);
    Slot* const s = call.slot;
    if (s == nullptr) return call.code;
    const long long ns = call.ns;
    NameEntry* b = entryOf(backends, backend_id);
    if (b == nullptr || s->callouts == kMaxCallouts ||
        (b->kind == QV_EXT_BACKEND_DB && (detail == nullptr || detail[0] == '\0')))
        return fail(QV_EXT_E_ARG, __func__, "Unknown backend id, callouts nested too deep or no SQL text");
    QVPerThreadData_t* td = s->td;
    s->open[s->callouts++] = Callout{backend_id, ns};
    QVLockGuard guard(td->sequenceBlobLock);
    if (td->hasMapNodePtr == nullptr) return QV_EXT_OK;
    if (b->kind == QV_EXT_BACKEND_DB) {
        dbMethodEntry(td, sinceStartMs(td, ns), detail, b->name);
    } else {
        td->httpCallOutDepth++;
    }
    return QV_EXT_OK;
}

QV_EXPORT int qv_ext_callout_end(qv_ext_request request, int error) {
    EventCall call(request, __func__);
    Slot* const s = call.slot;
    if (s == nullptr) return call.code;
    const long long ns = call.ns;
    if (s->callouts == 0) return fail(QV_EXT_E_ARG, __func__, "Callout end without its begin");
    calloutEndOf(s, error, ns);
    return QV_EXT_OK;
}

QV_EXPORT int qv_ext_request_end(qv_ext_request request, int http_status, int error) {
    EventCall call(request, __func__);
    Slot* const s = call.slot;
    if (s == nullptr) return call.code;
    const long long ns = call.ns;
    if (http_status < 0 || http_status > 999) return fail(QV_EXT_E_ARG, __func__, "HTTP status out of range");
    while (s->callouts > 0) calloutEndOf(s, error, ns);
    while (s->depth > 0) {
        const int id = s->depth <= kMaxDepth ? s->frames[s->depth - 1].id : 0;
        NameEntry* m = entryOf(methods, id);
        if (m == nullptr) {  // beyond the kept frames: only the count goes down
            s->depth--;
            continue;
        }
        methodExitOf(s, m, ns);
    }
    QVPerThreadData_t* td = s->td;
    bool stillOurs;
    {
        QVLockGuard guard(td->sequenceBlobLock);
        stillOurs = td->flowpathInstance == s->fpi && td->tlFlowPathTimeStampInMS == s->startMs;
    }
    if (stillOurs) {
        endFPEx(td, http_status, nullptr, agentMsAt(ns), error);
        reset(td);
    }
    releaseSlot(s);
    return QV_EXT_OK;
}

}  // extern "C"
