// Allocation wrappers that log every allocation under "MEMORY" when memory tracing is on.
#include "foundation/qvlb_mem.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"

long long malloc_counter = 0;

namespace {

int clamp_int(size_t v) {
    return v > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(v);
}

const char* label(const char* purpose) {
    return purpose ? purpose : "(null)";
}

void log_out_of_memory(size_t size, const char* purpose, int index) {
    // Failures are always logged, whatever the memory trace level.
    QV_TRACE_IF(true, "MEMORY", "Error", "Out of Memory (size = %d): %s for index %d\n", clamp_int(size),
                label(purpose), index);
}

void note_allocation(void* p, size_t size, const char* purpose, int index) {
    const int level = qv_load(qv_mem_trace_level);
    if (level <= 0) return;
    QV_TRACE_IF(true, "MEMORY", "Info", "QVLB_MALLOC'ed (%s) done. ptr = $%p$, size = %d for index %d",
                label(purpose), p, clamp_int(size), index);
    if (level == 2) {
        MTTraceLogKey* key = trace_log_key;
        QVLockGuard guard(key ? key->mem_lock : nullptr);
        // Atomic as well, so the count stays exact when no log handle (and so no mem_lock) exists.
        __atomic_fetch_add(&malloc_counter, 1, __ATOMIC_RELAXED);
    }
}

}  // namespace

void* qvlb_malloc(size_t size, const char* purpose, int index) {
    void* p = qvlb_fault(QV_FAULT_MALLOC) ? nullptr : std::malloc(size ? size : 1);
    if (p == nullptr) {
        log_out_of_memory(size, purpose, index);
        return nullptr;
    }
    note_allocation(p, size, purpose, index);
    return p;
}

void* qvlb_calloc(size_t size, const char* purpose, int index) {
    void* p = qvlb_fault(QV_FAULT_MALLOC) ? nullptr : std::calloc(1, size ? size : 1);
    if (p == nullptr) {
        log_out_of_memory(size, purpose, index);
        return nullptr;
    }
    note_allocation(p, size, purpose, index);
    return p;
}

void* qvlb_realloc(void* ptr, size_t size, const char* purpose, int index) {
    return qvlb_realloc_logged(ptr, size, purpose, index, true);
}

void* qvlb_realloc_logged(void* ptr, size_t size, const char* purpose, int index, bool sizeInLog) {
    if (size == 0) {
        QV_TRACE_IF(true, "MEMORY", "Error", "Trying to realloc a negative or 0 size (%d) for index  %d\n", 0,
                    index);
        return nullptr;
    }
    void* p = qvlb_fault(QV_FAULT_MALLOC) ? nullptr : std::realloc(ptr, size);
    if (p == nullptr) {
        if (sizeInLog)
            log_out_of_memory(size, purpose, index);
        else
            QV_TRACE_IF(true, "MEMORY", "Error", "Out of Memory: %s for index %d\n", label(purpose), index);
        return nullptr;
    }
    note_allocation(p, size, purpose, index);
    return p;
}

char* qvlb_strdup(const char* s, const char* purpose, int index) {
    if (s == nullptr) return nullptr;
    const size_t n = strlen(s) + 1;
    char* p = static_cast<char*>(qvlb_malloc(n, purpose, index));
    if (p != nullptr) memcpy(p, s, n);
    return p;
}

void qvlb_free(void* ptr, const char* purpose, int index) {
    if (ptr == nullptr) return;
    QV_TRACE_IF(qv_load(qv_mem_trace_level) > 0, "MEMORY", "Info",
                "QVLB_FREE'ed (%s) done. ptr = $%p$ for index %d", label(purpose), ptr, index);
    std::free(ptr);
}

char* qvlb_replace_str(char** dst, const char* src, const char* purpose) {
    if (dst == nullptr) return nullptr;
    char* copy = src ? qvlb_strdup(src, purpose, -1) : nullptr;
    qvlb_free(*dst, purpose, -1);
    *dst = copy;
    return *dst;
}

long long qvlb_malloc_count() {
    return qv_load(malloc_counter);
}

void qvlb_mem_reset_for_test() {
    qv_store(malloc_counter, 0);
}
