// Relaxed loads and stores of plain settings fields shared between the control thread (which
// writes them) and every other thread (which polls them). Keeps the records plain so the
// keyword table can address fields by offset, without data races.
#ifndef QVLB_ATOMIC_H
#define QVLB_ATOMIC_H

template <class T>
inline T qv_load(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_RELAXED);
}

template <class T, class U>
inline void qv_store(T& v, U value) {
    __atomic_store_n(&v, static_cast<T>(value), __ATOMIC_RELAXED);
}

template <class T>
inline T qv_load_acquire(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}

template <class T, class U>
inline void qv_store_release(T& v, U value) {
    __atomic_store_n(&v, static_cast<T>(value), __ATOMIC_RELEASE);
}

#endif
