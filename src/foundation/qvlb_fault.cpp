// Fault-injection points: per-point counters armed by the tests, read on the hot path with a
// single relaxed load of the armed mask.
#include "foundation/qvlb_fault.h"

#ifdef QV_FAULT_POINTS

#include <atomic>
#include <mutex>

namespace {

struct FaultState {
    int skip;
    int count;  // < 0: fail forever
};

std::atomic<unsigned> g_armed{0};
std::mutex g_fault_mutex;
FaultState g_state[QV_FAULT_COUNT];
thread_local bool tlExempt = false;

}  // namespace

bool qvlb_fault(QVFaultPoint point) {
    if (point < 0 || point >= QV_FAULT_COUNT) return false;
    const unsigned bit = 1u << point;
    if ((g_armed.load(std::memory_order_relaxed) & bit) == 0 || tlExempt) return false;
    // Armed points are a test-only slow path; a mutex keeps skip/count consistent between threads.
    std::lock_guard<std::mutex> guard(g_fault_mutex);
    FaultState& s = g_state[point];
    if ((g_armed.load(std::memory_order_relaxed) & bit) == 0) return false;
    if (s.skip > 0) {
        --s.skip;
        return false;
    }
    if (s.count < 0) return true;
    if (s.count > 0) {
        if (--s.count == 0) g_armed.fetch_and(~bit, std::memory_order_relaxed);
        return true;
    }
    g_armed.fetch_and(~bit, std::memory_order_relaxed);
    return false;
}

void qvlb_fault_exempt_this_thread() {
    tlExempt = true;
}

void qvlb_fault_arm(QVFaultPoint point, int skip, int count) {
    if (point < 0 || point >= QV_FAULT_COUNT) return;
    std::lock_guard<std::mutex> guard(g_fault_mutex);
    g_state[point].skip = skip < 0 ? 0 : skip;
    g_state[point].count = count;
    const unsigned bit = 1u << point;
    if (count == 0)
        g_armed.fetch_and(~bit, std::memory_order_relaxed);
    else
        g_armed.fetch_or(bit, std::memory_order_relaxed);
}

void qvlb_fault_reset() {
    std::lock_guard<std::mutex> guard(g_fault_mutex);
    for (FaultState& s : g_state) s = FaultState{0, 0};
    g_armed.store(0, std::memory_order_relaxed);
}

#endif
