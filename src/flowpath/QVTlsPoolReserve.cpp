// The background thread that keeps one block of records ready for create_tls_pool.
#include "flowpath/QVTlsPoolReserve.h"

#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {

const char* const kPoolPurpose = "Create TLS pool of QVPerThreadData_t";

// The process's own is never destroyed: the thread may still wait on the condition variable when
// the process exits, and destroying a condition variable with a waiter is undefined.
struct Reserve {
    std::mutex lock;
    std::condition_variable wake;
    std::thread* thread = nullptr;  // leaked, not deleted, when it belongs to a parent process
    pid_t owner = 0;                // process that started thread
    bool wanted = false;
    bool stopping = false;
    // Up to eight blocks ready (9.4 MB), one more than blocks taken so far: on a loaded machine
    // this thread can wait for a CPU longer than requests take to use up four blocks (an SDK
    // process uses a record per transaction), while a process whose records are given back
    // never needs more than one.
    static constexpr int kReadyMax = 8;
    QVTlsPreparedBlock ready[kReadyMax] = {};
    int readyCount = 0;
    int taken = 0;
    int readyWanted() const { return taken + 1 < kReadyMax ? taken + 1 : kReadyMax; }
    // Blocks whose models wait for registration, oldest first.
    struct Pending {
        QVPerThreadData_t* pool;
        uint64_t slots;
    };
    static constexpr int kPendingMax = 64;
    Pending pending[kPendingMax];
    int pendingCount = 0;
};

// One reserve per application instance, its thread acting for that instance. Built in place, so
// that its destruction is up to ~ReserveState.
struct ReserveState {
    alignas(Reserve) unsigned char storage[sizeof(Reserve)];
    ReserveState() { new (storage) Reserve(); }
    ~ReserveState();
    ReserveState(const ReserveState&) = delete;
    ReserveState& operator=(const ReserveState&) = delete;
    Reserve& get() { return *std::launder(reinterpret_cast<Reserve*>(storage)); }
};

}  // namespace

QV_INSTANCE_STATE(ReserveState, reserveState)

namespace {

// The process's own reserve is never destroyed (see Reserve); another instance's is, unless its
// thread still runs.
ReserveState::~ReserveState() {
    if (this != &reserveState_own && get().thread == nullptr) get().~Reserve();
}

Reserve& reserve() {
    return reserveState().get();
}

// Takes r.lock if it comes free within a short spin. Application threads never sleep on it: the
// reserve's thread could be preempted while holding it.
bool lockBriefly(std::unique_lock<std::mutex>& lk) {
    return qvlb_spin_try([&] { return lk.try_lock(); }, 32);
}

}  // namespace

void qvTlsFaultIn(void* p, size_t bytes) {
    auto* c = static_cast<volatile char*>(p);
    for (size_t at = 0; at < bytes; at += 4096) c[at] = 0;
    if (bytes > 0) c[bytes - 1] = 0;
}

bool qvTlsPreparedBlockBuild(QVTlsPreparedBlock* b) {
    memset(b, 0, sizeof(*b));
    const int proxyMode = tlsPoolProxyMode();
    b->withLocks = !tlsPoolForwardsOnly();
    b->withModels = proxyMode != 1 && qvFlowpathPoolHooks.createMonitorDataModel != nullptr;
    b->pool = static_cast<QVPerThreadData_t*>(
        qvlb_calloc(sizeof(QVPerThreadData_t) * QV_TLS_POOL_BLOCK, kPoolPurpose, -1));
    if (b->pool == nullptr) return false;
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) {
        QVPerThreadData_t* slot = &b->pool[i];
        if (b->withLocks) {
            qvlb_create_nested_mutex(&slot->sequenceBlobLock, nullptr);
            qvlb_create_nested_mutex(&slot->updateBTLock, nullptr);
        }
        if (b->withModels) b->models[i] = qvFlowpathPoolHooks.createMonitorDataModel();
        // Fault in the pages that linking and a transaction's start and end write, here rather
        // than in a request (under tlsMutex, for the linking). Not the whole record: most of a
        // blob's pages are never written, and the SDK keeps every record.
        slot->busy_next = nullptr;
        slot->tlsIdx = 0;
        resetAllThreadLocals(slot, nullptr);
        slot->sequenceBlob[0] = '\0';
    }
    return true;
}

namespace {

// Registers every pending block. Caller holds lk, which is released while registering.
void registerPending(Reserve& r, std::unique_lock<std::mutex>& lk) {
    while (r.pendingCount > 0) {
        const Reserve::Pending p = r.pending[0];
        r.pendingCount--;
        memmove(r.pending, r.pending + 1, sizeof(r.pending[0]) * static_cast<size_t>(r.pendingCount));
        lk.unlock();
        qvTlsRegisterBlockModels(p.pool, p.slots);
        lk.lock();
    }
}

// Not at a lowered priority: on a busy machine such a thread fell behind the requests it serves.
void run(Reserve* reserveOfInstance, QVInstanceState* inst) {
    qvlb_fault_exempt_this_thread();
    QVInstanceScope acting(inst);
    Reserve& r = *reserveOfInstance;
    std::unique_lock<std::mutex> lk(r.lock);
    for (;;) {
        const auto wantsBlock = [&] { return r.wanted && r.readyCount < r.readyWanted(); };
        r.wake.wait(lk, [&] { return r.stopping || r.pendingCount > 0 || wantsBlock(); });
        if (r.stopping) return;
        registerPending(r, lk);
        if (r.stopping) return;
        if (!wantsBlock()) continue;
        lk.unlock();
        QVTlsPreparedBlock b;
        const bool ok = qvTlsPreparedBlockBuild(&b);
        lk.lock();
        if (!ok) {
            // The next request tries again; meanwhile a request finding no block carves its own.
            r.wanted = false;
            QV_TRACE_IF(true, "MEMORY", "Error", "Could not prepare a block of %d records",
                        QV_TLS_POOL_BLOCK);
            continue;
        }
        if (r.stopping) {
            qvTlsPreparedBlockDiscard(&b);
            return;
        }
        if (r.readyCount < Reserve::kReadyMax)
            r.ready[r.readyCount++] = b;
        else
            qvTlsPreparedBlockDiscard(&b);  // given a carved one meanwhile
        if (r.readyCount >= r.readyWanted()) r.wanted = false;
    }
}

// Caller holds r.lock. A child process inherits the parent's state but not its thread.
void forgetParentThread(Reserve& r) {
    if (r.thread == nullptr || r.owner == getpid()) return;
    r.thread = nullptr;  // the parent's object: neither joinable nor deletable here
    r.readyCount = 0;    // the child's copies of the blocks are its own memory, kept unused
    r.wanted = false;
    // Registrations the parent had queued: the child's copies of those records need them too.
    std::unique_lock<std::mutex> lk(r.lock, std::adopt_lock);
    registerPending(r, lk);
    lk.release();
}

}  // namespace

bool qvTlsPoolReserveTake(QVTlsPreparedBlock* out) {
    if (out == nullptr) return false;
    Reserve& r = reserve();
    std::unique_lock<std::mutex> lk(r.lock, std::defer_lock);
    if (!lockBriefly(lk)) return false;
    forgetParentThread(r);
    if (r.readyCount == 0) return false;
    *out = r.ready[--r.readyCount];
    if (r.taken < Reserve::kReadyMax) r.taken++;
    return true;
}

bool qvTlsPoolReserveGive(QVTlsPreparedBlock* block) {
    if (block == nullptr || block->pool == nullptr) return false;
    Reserve& r = reserve();
    std::unique_lock<std::mutex> lk(r.lock, std::defer_lock);
    if (!lockBriefly(lk)) return false;
    forgetParentThread(r);
    if (r.stopping || r.readyCount == Reserve::kReadyMax) return false;
    r.ready[r.readyCount++] = *block;
    block->pool = nullptr;
    return true;
}

bool qvTlsPoolReserveRequest(QVPerThreadData_t* pool, uint64_t slots) {
    Reserve& r = reserve();
    bool taken = pool == nullptr;
    {
        std::unique_lock<std::mutex> lk(r.lock, std::defer_lock);
        if (!lockBriefly(lk)) return pool == nullptr;
        forgetParentThread(r);
        if (r.stopping) return pool == nullptr;
        if (r.thread == nullptr) {
            try {
                r.thread = new std::thread(run, &r, qvlb_current_instance());
                r.owner = getpid();
            } catch (const std::exception&) {
                QV_TRACE_IF(true, "MEMORY", "Error", "Could not start the record reserve thread");
                return pool == nullptr;
            }
        }
        r.wanted = true;
        if (pool != nullptr && r.pendingCount < Reserve::kPendingMax) {
            r.pending[r.pendingCount++] = {pool, slots};
            taken = true;
        }
    }
    // Woken once the lock is free, so it does not run only to wait for it.
    r.wake.notify_one();
    return taken;
}

void qvTlsRegisterBlockModels(QVPerThreadData_t* pool, uint64_t slots) {
    if (pool == nullptr || qvFlowpathPoolHooks.registerMonitorDataModel == nullptr) return;
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++)
        if ((slots >> i) & 1) qvFlowpathPoolHooks.registerMonitorDataModel(&pool[i]);
}

void qvTlsPoolReserveStop() {
    Reserve& r = reserve();
    std::thread* t = nullptr;
    {
        std::lock_guard<std::mutex> lk(r.lock);
        forgetParentThread(r);
        t = r.thread;
        r.thread = nullptr;
        r.stopping = true;
    }
    r.wake.notify_all();
    if (t != nullptr) {
        t->join();
        delete t;
    }
    std::unique_lock<std::mutex> lk(r.lock);
    registerPending(r, lk);
    while (r.readyCount > 0) qvTlsPreparedBlockDiscard(&r.ready[--r.readyCount]);
    r.wanted = false;
    r.stopping = false;
}

void qvTlsPreparedBlockDiscard(QVTlsPreparedBlock* block) {
    if (block == nullptr || block->pool == nullptr) return;
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++) {
        QVPerThreadData_t* slot = &block->pool[i];
        qvlb_destroy_mutex(&slot->sequenceBlobLock);
        qvlb_destroy_mutex(&slot->updateBTLock);
        if (block->models[i] != nullptr && qvFlowpathPoolHooks.discardMonitorDataModel != nullptr)
            qvFlowpathPoolHooks.discardMonitorDataModel(block->models[i]);
        block->models[i] = nullptr;
    }
    qvlb_free(block->pool, kPoolPurpose, -1);
    block->pool = nullptr;
}
