// Staging buffers and the background thread of the SDK log.
#include "sdk/qv_sdk_log_writer.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"

namespace {

constexpr auto kWriteEvery = std::chrono::milliseconds(200);

// Added to a buffer's claimed count while it does not take lines; far beyond any count of lines.
constexpr uint64_t kSealed = uint64_t{1} << 62;

// Heap-allocated and never destroyed: at process exit the thread may still wait on the condition
// variable, and destroying a condition variable with a waiter is undefined.
//
// A line is staged without a lock: an append claims its bytes in the active buffer with one
// atomic add, copies the line, then adds its length to the buffer's copied count. An application
// thread preempted in the middle of an append (a machine with more runnable threads than CPUs)
// then holds up nobody; with a staging lock every other logging thread slept until it ran again.
// The writer seals the buffer it swaps out and writes it once every claimed byte is copied.
struct Writer {
    // Lock order: io before stage. io serialises the writes to the file so staged lines reach it
    // in order; stage guards opening, closing, the thread and the condition variable.
    std::mutex io;
    std::mutex stage;
    std::condition_variable wake;
    FILE* fp = nullptr;
    int fd = -1;  // fp's descriptor while open (qv_load: a forked child reads it without a lock)
    char* bufs[2] = {nullptr, nullptr};
    std::atomic<uint64_t> claimed[2] = {0, kSealed};  // bytes claimed, plus kSealed while sealed
    std::atomic<uint64_t> copied[2] = {0, 0};         // bytes copied, plus the unused tail of a full one
    std::atomic<uint64_t> linesEnd[2] = {0, 0};       // where the lines of a full buffer end
    std::atomic<int> active{0};
    std::atomic<int> appending{0};  // appends in progress; closing waits for them
    std::atomic<bool> open{false};
    std::atomic<bool> signalled{false};  // the thread was woken for a filling buffer
    std::atomic<bool> threadStarted{false};
    bool stopping = false;
    std::thread* thread = nullptr;
    int forkedChild = 0;  // 1 in a forked child: lines are written at once (qv_load)
};

Writer& writer() {
    static Writer* w = new Writer;
    return *w;
}

// Writes the bytes with as few write() calls as the kernel allows (one for a line or a batch):
// a process forked after the log was opened shares the file's offset, and a write split in two
// would let the other process's lines land in the middle of a line.
void writeLines(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t k = write(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return;  // a full disk: the lines are lost, as with a failed fwrite
        p += k;
        n -= static_cast<size_t>(k);
    }
}

// Both buffers empty, buffer 0 taking lines.
void resetBuffers(Writer& w) {
    for (int i = 0; i < 2; i++) {
        w.copied[i].store(0);
        w.linesEnd[i].store(0);
        w.claimed[i].store(i == 0 ? 0 : kSealed);
    }
    w.active.store(0);
}

// Swaps the buffers and writes the one that was being filled; appends go on in the other one
// meanwhile. Caller holds io, so the other buffer is empty (and sealed) before the swap.
void drainLocked(Writer& w) {
    if (w.bufs[0] == nullptr) return;
    const int idx = w.active.load();
    const int other = idx ^ 1;
    w.copied[other].store(0);
    w.linesEnd[other].store(0);
    w.signalled.store(false);  // before the swap, so a half-full new buffer wakes the thread again
    w.claimed[other].store(0);
    w.active.store(other);
    const uint64_t claimed = w.claimed[idx].fetch_add(kSealed);
    const uint64_t full = claimed < QV_SDK_LOG_STAGE_BYTES ? claimed : QV_SDK_LOG_STAGE_BYTES;
    // Appends that claimed their bytes before the seal finish copying: a few instructions, unless
    // their thread was preempted.
    while (w.copied[idx].load(std::memory_order_acquire) < full) std::this_thread::yield();
    const size_t n = claimed <= QV_SDK_LOG_STAGE_BYTES ? claimed : w.linesEnd[idx].load();
    const int fd = qv_load(w.fd);
    if (fd >= 0 && n > 0) writeLines(fd, w.bufs[idx], n);
}

void run() {
    Writer& w = writer();
    for (;;) {
        {
            std::unique_lock<std::mutex> lk(w.stage);
            w.wake.wait_for(lk, kWriteEvery, [&] { return w.stopping || w.signalled.load(); });
            if (w.stopping) return;
        }
        std::lock_guard<std::mutex> io(w.io);
        drainLocked(w);
    }
}

// Caller holds stage. Started on first use.
void startThreadLocked(Writer& w) {
    if (w.thread != nullptr || w.stopping) return;
    try {
        w.thread = new std::thread(run);
        w.threadStarted.store(true);
    } catch (const std::exception&) {
        // Lines stay staged until a flush, or until a caller finds the buffers full.
    }
}

// The child has one thread; a parent thread may have held a lock, or waited on the condition
// variable, at the fork. All are made afresh (their old state belongs to threads that do not
// exist here), and the staged lines are dropped: the parent writes them. Nothing is locked for
// the fork, so a fork never waits for the disk.
void atForkChild() {
    Writer& w = writer();
    new (&w.io) std::mutex;
    new (&w.stage) std::mutex;
    new (&w.wake) std::condition_variable;
    w.thread = nullptr;  // the parent's object: neither joinable nor deletable here
    w.threadStarted.store(false);
    w.signalled.store(false);
    w.appending.store(0);
    resetBuffers(w);
    qv_store(w.forkedChild, 1);
}

// Lines still staged when the process exits without qv_free reach the file, as a stdio buffer's
// would.
void flushAtExit() {
    qvSdkLogWriterFlush();
}

void registerProcessHandlers() {
    static std::once_flag once;
    std::call_once(once, [] {
        pthread_atfork(nullptr, nullptr, atForkChild);
        atexit(flushAtExit);
    });
}

// Copies the line into the active buffer. False when that buffer is full; *fullIdx is then the
// buffer to write out, or -1 when it was only being swapped out (try again at once).
bool stageLine(Writer& w, const char* line, size_t len, int* fullIdx) {
    const int idx = w.active.load();
    const uint64_t at = w.claimed[idx].fetch_add(len);
    if (at + len <= QV_SDK_LOG_STAGE_BYTES) {
        memcpy(w.bufs[idx] + at, line, len);
        w.copied[idx].fetch_add(len, std::memory_order_release);
        if (at + len >= QV_SDK_LOG_STAGE_BYTES / 2 && at < QV_SDK_LOG_STAGE_BYTES / 2 &&
            !w.signalled.exchange(true)) {
            // Without the lock: a wake-up lost to the thread's own check costs at most one
            // period, and the caller never waits here for the thread.
            w.wake.notify_one();
        }
        return true;
    }
    *fullIdx = -1;
    if (at >= kSealed) return false;
    if (at <= QV_SDK_LOG_STAGE_BYTES) {
        // The first append that does not fit: the lines end here, and the tail counts as copied.
        w.linesEnd[idx].store(at);
        w.copied[idx].fetch_add(QV_SDK_LOG_STAGE_BYTES - at, std::memory_order_release);
    }
    *fullIdx = idx;
    return false;
}

// Counts an append in progress for its length, so that closing waits for it.
struct AppendScope {
    explicit AppendScope(Writer& w) : w_(w) { w_.appending.fetch_add(1); }
    ~AppendScope() { w_.appending.fetch_sub(1); }
    Writer& w_;
};

}  // namespace

bool qvSdkLogWriterOpen(FILE* fp) {
    qvSdkLogWriterClose();
    registerProcessHandlers();
    Writer& w = writer();
    char* a = nullptr;
    char* b = nullptr;
    if (qv_load(w.forkedChild) == 0) {
        a = static_cast<char*>(qvlb_malloc(QV_SDK_LOG_STAGE_BYTES, "SDK log staging buffer", 0));
        b = static_cast<char*>(qvlb_malloc(QV_SDK_LOG_STAGE_BYTES, "SDK log staging buffer", 1));
    }
    std::lock_guard<std::mutex> lk(w.stage);
    w.fp = fp;
    qv_store(w.fd, fp != nullptr ? fileno(fp) : -1);
    resetBuffers(w);
    if (a == nullptr || b == nullptr) {
        qvlb_free(a, "SDK log staging buffer", 0);
        qvlb_free(b, "SDK log staging buffer", 1);
        w.open.store(fp != nullptr);
        return false;
    }
    w.bufs[0] = a;
    w.bufs[1] = b;
    w.open.store(fp != nullptr);
    return true;
}

QVSdkLogAppend qvSdkLogWriterAppend(const char* line, size_t len) {
    Writer& w = writer();
    if (qv_load(w.forkedChild) != 0) {
        // No writer thread here, and a child that leaves with _exit() must not lose its lines.
        const int fd = qv_load(w.fd);
        if (fd < 0) return QVSdkLogAppend::NotOpen;
        writeLines(fd, line, len);
        return QVSdkLogAppend::Written;
    }
    AppendScope scope(w);
    if (!w.open.load()) return QVSdkLogAppend::NotOpen;
    if (w.bufs[0] == nullptr || len > QV_SDK_LOG_STAGE_BYTES) {
        // No staging memory (or a line no buffer holds): write through, in order.
        std::lock_guard<std::mutex> io(w.io);
        drainLocked(w);
        drainLocked(w);
        writeLines(qv_load(w.fd), line, len);
        return QVSdkLogAppend::Written;
    }
    if (!w.threadStarted.load()) {
        std::unique_lock<std::mutex> lk(w.stage, std::try_to_lock);
        if (lk.owns_lock()) startThreadLocked(w);  // else the next line starts it
    }
    int fullIdx = -1;
    while (!stageLine(w, line, len, &fullIdx)) {
        if (fullIdx < 0) continue;
        // The buffer is full: the disk is behind, or the thread has not run. This caller writes
        // the staged lines itself (after a write in progress) unless the thread swapped them out
        // meanwhile, and then stages its line in the emptied buffer.
        std::lock_guard<std::mutex> io(w.io);
        if (w.active.load() == fullIdx) drainLocked(w);
    }
    return QVSdkLogAppend::Written;
}

void qvSdkLogWriterFlush() {
    Writer& w = writer();
    std::lock_guard<std::mutex> io(w.io);
    // Both buffers: the other one may hold lines a failed thread start left behind.
    drainLocked(w);
    drainLocked(w);
}

void qvSdkLogWriterClose() {
    Writer& w = writer();
    w.open.store(false);
    // Appends that saw the writer open finish before their buffer is written and freed.
    while (w.appending.load() != 0) std::this_thread::yield();
    qvSdkLogWriterFlush();
    std::thread* t;
    {
        std::lock_guard<std::mutex> lk(w.stage);
        t = w.thread;
        w.thread = nullptr;
        w.threadStarted.store(false);
        w.stopping = true;
    }
    w.wake.notify_all();
    if (t != nullptr) {
        t->join();
        delete t;
    }
    std::lock_guard<std::mutex> io(w.io);
    std::lock_guard<std::mutex> lk(w.stage);
    w.stopping = false;
    w.fp = nullptr;
    qv_store(w.fd, -1);
    qvlb_free(w.bufs[0], "SDK log staging buffer", 0);
    qvlb_free(w.bufs[1], "SDK log staging buffer", 1);
    w.bufs[0] = w.bufs[1] = nullptr;
    resetBuffers(w);
}
