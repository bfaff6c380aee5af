// RAII over nested APR mutexes. Every lock in the agent is an apr_thread_mutex_t* created
// APR_THREAD_MUTEX_NESTED; these wrappers make the standard guards work on them.
#ifndef QVLB_MUTEX_H
#define QVLB_MUTEX_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>

// One pause of a spin-wait loop: lets a hyperthread sibling run and saves power.
inline void qvlb_cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#else
    asm volatile("" ::: "memory");
#endif
}

// Calls tryLock() up to rounds times with growing pauses between attempts; true once it succeeded.
template <class TryLock>
bool qvlb_spin_try(TryLock tryLock, int rounds) {
    for (int round = 0; round < rounds; round++) {
        if (tryLock()) return true;
        const int pauses = 1 << (round < 6 ? round : 6);
        for (int i = 0; i < pauses; i++) qvlb_cpu_relax();
    }
    return false;
}

// Takes a lock by calling tryLock() with growing pauses between attempts (about 50 to 150 us in
// all) and then block() once. The agent's critical sections last well under a microsecond, and
// a waiter that goes to sleep can take milliseconds to be woken again on a busy or virtual
// machine: spinning first keeps application threads from sleeping on a lock that is free a
// moment later.
template <class TryLock, class Block>
void qvlb_spin_then_block(TryLock tryLock, Block block) {
    if (!qvlb_spin_try(tryLock, 64)) block();
}

// Locks an APR mutex through qvlb_spin_then_block. Null does nothing.
inline void qvlb_mutex_lock(apr_thread_mutex_t* m) {
    if (m == nullptr) return;
    qvlb_spin_then_block([m] { return apr_thread_mutex_trylock(m) == APR_SUCCESS; },
                         [m] { apr_thread_mutex_lock(m); });
}

// BasicLockable view of an APR mutex, for std::lock_guard / std::unique_lock / std::scoped_lock.
// A null mutex locks as a no-op (start-up order leaves some locks absent in tests).
class QVMutexRef {
  public:
    explicit QVMutexRef(apr_thread_mutex_t* m) : m_(m) {}
    void lock() { qvlb_mutex_lock(m_); }
    void unlock() {
        if (m_) apr_thread_mutex_unlock(m_);
    }
    bool try_lock() { return m_ == nullptr || apr_thread_mutex_trylock(m_) == APR_SUCCESS; }

  private:
    apr_thread_mutex_t* m_;
};

// Scoped lock of one APR mutex; nothing when the mutex is null.
class QVLockGuard {
  public:
    explicit QVLockGuard(apr_thread_mutex_t* m) : m_(m) { m_.lock(); }
    ~QVLockGuard() { m_.unlock(); }
    QVLockGuard(const QVLockGuard&) = delete;
    QVLockGuard& operator=(const QVLockGuard&) = delete;

  private:
    QVMutexRef m_;
};

// Creates a nested mutex into *m from pool if *m is still null. Safe to call from several
// threads at once: exactly one mutex is created. A null pool uses the agent's control pool
// (created on demand). Returns APR_SUCCESS or the APR error.
apr_status_t qvlb_create_nested_mutex(apr_thread_mutex_t** m, apr_pool_t* pool);

// Destroys *m (if any) and nulls it. Destroying runs the mutex's pool clean-up, so it takes the
// lock that serialises pool use. The memory stays in the pool. Nobody may hold or use the mutex.
void qvlb_destroy_mutex(apr_thread_mutex_t** m);

#endif
