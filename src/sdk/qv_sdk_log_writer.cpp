// Staging buffers and the background thread of the SDK log.
#include "sdk/qv_sdk_log_writer.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "sdk/qv_sdk.h"

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
    char* bufs[2] = {nullptr, nullptr};
    size_t used[2] = {0, 0};
    int active = 0;
    bool stopping = false;
    bool signalled = false;         // the thread was woken for a filling buffer
    std::thread* thread = nullptr;  // null in a forked child: the parent's thread is not there
    long long dropped = 0;
    long long droppedReported = 0;
};

Writer& writer() {
    static Writer* w = new Writer;
    return *w;
}

// Writes whole lines with one write() where the stream has a descriptor: a process forked after
// the log was opened shares the file's offset, and a write that stdio split in two would let the
// other process's lines land in the middle of a line.
void writeLines(FILE* fp, const char* p, size_t n) {
    const int fd = fileno(fp);
    if (fd < 0) {
        fwrite(p, 1, n, fp);
        return;
    }
    fflush(fp);  // anything written through the stream itself goes first
    while (n > 0) {
        const ssize_t k = write(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return;  // a full disk: the lines are lost, as with a failed fwrite
        p += k;
        n -= static_cast<size_t>(k);
    }
}

// Swaps the buffers and writes the one that was being filled, outside the staging lock, so
// appends go on meanwhile. Caller holds io.
void drainLocked(Writer& w) {
    FILE* fp;
    int idx;
    size_t n;
    long long newlyDropped;
    {
        std::lock_guard<std::mutex> lk(w.stage);
        fp = w.fp;
        idx = w.active;
        n = w.used[idx];
        w.active ^= 1;
        w.signalled = false;
        newlyDropped = w.dropped - w.droppedReported;
        w.droppedReported = w.dropped;
    }
    if (fp == nullptr) return;
    if (n > 0) writeLines(fp, w.bufs[idx], n);
    if (newlyDropped > 0) {
        char t[21], line[256];
        qv_sdk_log_time(t, sizeof(t));
        const int len = snprintf(line, sizeof(line),
                                 "%s |%d |ERROR |%s : %d |%lld log lines dropped: the disk did not keep up\n",
                                 t, static_cast<int>(getpid()), __func__, __LINE__, newlyDropped);
        if (len > 0) writeLines(fp, line, std::min(static_cast<size_t>(len), sizeof(line) - 1));
    }
    fflush(fp);
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

// Caller holds stage. Started on first use (and again in a forked child).
void startThreadLocked(Writer& w) {
    if (w.thread != nullptr || w.stopping) return;
    try {
        w.thread = new std::thread(run);
    } catch (const std::exception&) {
        // Lines stay staged until a flush, or are dropped when the buffer fills.
    }
}

// Only the file lock is held across a fork, so the stream is never copied mid-write. Staging is
// not locked: a fork copies the whole address space, and application threads appending lines
// must not wait for that.
void atForkPrepare() {
    writer().io.lock();
}

void atForkParent() {
    writer().io.unlock();
}

// The child has one thread; a parent thread may have held the staging lock, or waited on the
// condition variable, at the fork. Both are made afresh (their old state belongs to threads
// that do not exist here), and the staged lines are dropped: the parent writes them.
void atForkChild() {
    Writer& w = writer();
    new (&w.stage) std::mutex;
    new (&w.wake) std::condition_variable;
    w.thread = nullptr;  // the parent's object: neither joinable nor deletable here
    w.signalled = false;
    w.used[0] = w.used[1] = 0;
    w.io.unlock();
}

// Lines still staged when the process exits without qv_free reach the file, as a stdio buffer's
// would.
void flushAtExit() {
    qvSdkLogWriterFlush();
}

void registerProcessHandlers() {
    static std::once_flag once;
    std::call_once(once, [] {
        pthread_atfork(atForkPrepare, atForkParent, atForkChild);
        atexit(flushAtExit);
    });
}

}  // namespace

bool qvSdkLogWriterOpen(FILE* fp) {
    qvSdkLogWriterClose();
    registerProcessHandlers();
    Writer& w = writer();
    char* a = static_cast<char*>(qvlb_malloc(QV_SDK_LOG_STAGE_BYTES, "SDK log staging buffer", 0));
    char* b = static_cast<char*>(qvlb_malloc(QV_SDK_LOG_STAGE_BYTES, "SDK log staging buffer", 1));
    std::lock_guard<std::mutex> lk(w.stage);
    w.fp = fp;
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
    // Every application thread appends here several times per request: spin briefly rather than
    // sleep on a lock held for one memcpy.
    std::unique_lock<std::mutex> lk(w.stage, std::defer_lock);
    qvlb_spin_then_block([&] { return lk.try_lock(); }, [&] { lk.lock(); });
    if (w.fp == nullptr) return QVSdkLogAppend::NotOpen;
    if (w.bufs[0] == nullptr) {
        // No staging memory: write through, as a plain stream would.
        FILE* fp = w.fp;
        lk.unlock();
        fwrite(line, 1, len, fp);
        return QVSdkLogAppend::Written;
    }
    startThreadLocked(w);
    size_t& used = w.used[w.active];
    if (len > QV_SDK_LOG_STAGE_BYTES - used) {
        ++w.dropped;
        return QVSdkLogAppend::Dropped;
    }
    memcpy(w.bufs[w.active] + used, line, len);
    used += len;
    if (!w.signalled && used >= QV_SDK_LOG_STAGE_BYTES / 2) {
        w.signalled = true;
        // Woken after the lock is released, so that it does not take the CPU only to wait for it.
        lk.unlock();
        w.wake.notify_one();
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
    std::lock_guard<std::mutex> lk(w.stage);
    w.stopping = false;
    w.fp = nullptr;
    qvlb_free(w.bufs[0], "SDK log staging buffer", 0);
    qvlb_free(w.bufs[1], "SDK log staging buffer", 1);
    w.bufs[0] = w.bufs[1] = nullptr;
    w.used[0] = w.used[1] = 0;
}

long long qvSdkLogWriterDropped() {
    Writer& w = writer();
    std::lock_guard<std::mutex> lk(w.stage);
    return w.dropped;
}
