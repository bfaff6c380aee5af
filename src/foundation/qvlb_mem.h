// Memory-tracing allocation wrappers. Every allocation of the agent goes through them so that
// memory tracing (qv_mem_trace_level) can log it under "MEMORY" and count it.
#ifndef QVLB_MEM_H
#define QVLB_MEM_H

#include <cstddef>

// Allocations counted while qv_mem_trace_level is 2 (under the trace log's mem_lock).
extern long long malloc_counter;

// malloc/calloc/realloc/strdup/free with logging. purpose names the allocation in the log,
// index is a caller-chosen number printed with it (-1 when none). A failure logs
// "Out of Memory (size = %d): %s for index %d\n" under "MEMORY" (whatever the trace level)
// and returns null. qvlb_realloc of size 0 logs the zero-size line and returns null without
// freeing. qvlb_free(null) does nothing.
void* qvlb_malloc(size_t size, const char* purpose, int index);
void* qvlb_calloc(size_t size, const char* purpose, int index);
void* qvlb_realloc(void* ptr, size_t size, const char* purpose, int index);
// qvlb_realloc whose out-of-memory line may leave the size out: the record pool's hotspot table
// logs its failed growth as "Out of Memory: %s for index %d\n".
void* qvlb_realloc_logged(void* ptr, size_t size, const char* purpose, int index, bool sizeInLog);
char* qvlb_strdup(const char* s, const char* purpose, int index);
void qvlb_free(void* ptr, const char* purpose, int index);

// Replaces *dst by a copy of src (null src frees *dst and stores null). Returns *dst.
char* qvlb_replace_str(char** dst, const char* src, const char* purpose);

// Allocations counted so far (relaxed atomic read of malloc_counter).
long long qvlb_malloc_count();

// Zeroes malloc_counter. Tests only.
void qvlb_mem_reset_for_test();

#endif
