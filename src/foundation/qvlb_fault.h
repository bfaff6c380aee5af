// Fault-injection points for the tests: allocation, socket, poll and thread-creation failures.
// Compiled in when QV_FAULT_POINTS is defined (the default build); production packaging may
// turn them off, and then qvlb_fault() is constant false.
#ifndef QVLB_FAULT_H
#define QVLB_FAULT_H

enum QVFaultPoint {
    QV_FAULT_MALLOC = 0,
    QV_FAULT_CONNECT,
    QV_FAULT_SEND,
    QV_FAULT_RECV,
    QV_FAULT_POLL,
    QV_FAULT_THREAD_CREATE,
    QV_FAULT_COUNT
};

#ifdef QV_FAULT_POINTS
// True when the point should fail now. Cheap when nothing is armed (one relaxed load).
bool qvlb_fault(QVFaultPoint point);
// Arms point: the next `skip` hits pass, then `count` hits fail (count < 0: all fail).
void qvlb_fault_arm(QVFaultPoint point, int skip, int count);
// Disarms every point.
void qvlb_fault_reset();
// The calling thread never fails at any point: for background threads whose timing is not the
// test's (preparing record blocks ahead), so they cannot take a failure armed for the test's calls.
void qvlb_fault_exempt_this_thread();
#else
inline bool qvlb_fault(QVFaultPoint) {
    return false;
}
inline void qvlb_fault_arm(QVFaultPoint, int, int) {}
inline void qvlb_fault_reset() {}
inline void qvlb_fault_exempt_this_thread() {}
#endif

#endif
