// Staging buffers and the background thread of the SDK log.
#include "sdk/qv_sdk_log_writer.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <condition_variable>
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

// Heap-allocated and never destroyed: at process exit the thread may still wait on the condition
// variable, and destroying a condition variable with a waiter is undefined.
struct Writer {
    // Lock order: io before stage. stage guards the buffers, fp and the flags; io serialises the
    // writes to the file so staged lines reach it in order.
    std::mutex io;
    std::mutex stage;
    std::condition_variable wake;
    FILE* fp = nullptr;
    int fd = -1;  // fp's descriptor while open (qv_load: a forked child reads it without a lock)
    char* bufs[2] = {nullptr, nullptr};
    size_t used[2] = {0, 0};
    int active = 0;
    bool stopping = false;
    bool signalled = false;  // the thread was woken for a filling buffer
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

// Swaps the buffers and writes the one that was being filled, outside the staging lock, so
// appends go on meanwhile. Caller holds io, so the other buffer is empty after the swap.
void drainLocked(Writer& w) {
    int fd;
    int idx;
    size_t n;
    {
        std::lock_guard<std::mutex> lk(w.stage);
        fd = w.fd;
        idx = w.active;
        n = w.used[idx];
        w.active ^= 1;
        w.signalled = false;
    }
    if (fd >= 0 && n > 0) writeLines(fd, w.bufs[idx], n);
    std::lock_guard<std::mutex> lk(w.stage);
    w.used[idx] = 0;
}

void run() {
    Writer& w = writer();
    for (;;) {
        {
            std::unique_lock<std::mutex> lk(w.stage);
            w.wake.wait_for(lk, kWriteEvery, [&] { return w.stopping || w.signalled; });
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
    w.signalled = false;
    w.used[0] = w.used[1] = 0;
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
    if (a == nullptr || b == nullptr) {
        qvlb_free(a, "SDK log staging buffer", 0);
        qvlb_free(b, "SDK log staging buffer", 1);
        return false;
    }
    w.bufs[0] = a;
    w.bufs[1] = b;
    w.used[0] = w.used[1] = 0;
    w.active = 0;
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
    for (;;) {
        {
            // Every application thread appends here several times per request: spin briefly
            // rather than sleep on a lock held for one memcpy.
            std::unique_lock<std::mutex> lk(w.stage, std::defer_lock);
            qvlb_spin_then_block([&] { return lk.try_lock(); }, [&] { lk.lock(); });
            if (w.fp == nullptr) return QVSdkLogAppend::NotOpen;
            if (w.bufs[0] == nullptr || len > QV_SDK_LOG_STAGE_BYTES) {
                // No staging memory (or a line no buffer holds): write through, in order.
                lk.unlock();
                std::lock_guard<std::mutex> io(w.io);
                drainLocked(w);
                writeLines(qv_load(w.fd), line, len);
                return QVSdkLogAppend::Written;
            }
            startThreadLocked(w);
            size_t& used = w.used[w.active];
            if (len <= QV_SDK_LOG_STAGE_BYTES - used) {
                memcpy(w.bufs[w.active] + used, line, len);
                used += len;
                if (!w.signalled && used >= QV_SDK_LOG_STAGE_BYTES / 2) {
                    w.signalled = true;
                    // Woken after the lock is released, so that it does not take the CPU only to
                    // wait for it.
                    lk.unlock();
                    w.wake.notify_one();
                }
                return QVSdkLogAppend::Written;
            }
        }
        // Both buffers are full: the disk is behind. This caller writes the staged lines itself
        // (after a write in progress) and then stages its line in the emptied buffer.
        std::lock_guard<std::mutex> io(w.io);
        drainLocked(w);
    }
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
    qvSdkLogWriterFlush();
    std::thread* t;
    {
        std::lock_guard<std::mutex> lk(w.stage);
        t = w.thread;
        w.thread = nullptr;
        w.stopping = true;
    }
    w.wake.notify_all();
    if (t != nullptr) {
        t->join();
        delete t;
    }
    std::lock_guard<std::mutex> io(w.io);
    drainLocked(w);  // lines staged while the thread stopped
    drainLocked(w);
    std::lock_guard<std::mutex> lk(w.stage);
    w.stopping = false;
    w.fp = nullptr;
    qv_store(w.fd, -1);
    qvlb_free(w.bufs[0], "SDK log staging buffer", 0);
    qvlb_free(w.bufs[1], "SDK log staging buffer", 1);
    w.bufs[0] = w.bufs[1] = nullptr;
    w.used[0] = w.used[1] = 0;
}
