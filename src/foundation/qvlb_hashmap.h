// String-keyed hash map shared between threads: lookups may run while another thread inserts
// or removes. Wraps an APR hash table; every entry owns a copy of its key, so a caller's key
// buffer may be reused as soon as modify_hashmap returns.
#ifndef QVLB_HASHMAP_H
#define QVLB_HASHMAP_H

#include <apr_pools.h>

struct qvlb_hashmap_t;

// Creates an empty map. The map's own memory is malloc'ed (pool is accepted for the callers'
// convenience and may be null). Returns null when memory is short.
qvlb_hashmap_t* create_hashmap(apr_pool_t* pool);

// Creates an empty map split into stripes (each with its own table and lock) by a hash of the
// key, so threads changing different keys seldom meet on a lock. For maps that every request
// writes; the other functions take it like any map. Null when memory is short.
qvlb_hashmap_t* create_hashmap_striped(apr_pool_t* pool, unsigned int stripes);

// Value stored under key, or null. Takes only a shared (reader) lock: readers never wait for
// each other. Null map or key returns null.
void* search_hashmap(qvlb_hashmap_t* map, const char* key);

// Stores value under key (replacing any value); a null value removes the entry. Writers are
// serialised. Returns 0, or -1 for a null map/key or when memory is short.
int modify_hashmap(qvlb_hashmap_t* map, const char* key, void* value);

// Entries in the map.
unsigned int count_hashmap(qvlb_hashmap_t* map);

// Calls fn(key, value, ctx) for each entry under the reader lock; fn must not call any function
// of this map (the lock is not recursive and writers take precedence over new readers).
void foreach_hashmap(qvlb_hashmap_t* map, void (*fn)(const char* key, void* value, void* ctx), void* ctx);

// Removes every entry (values are not freed).
void clear_hashmap(qvlb_hashmap_t* map);

// Frees the map and its key copies (values are not freed). Null does nothing.
void destroy_hashmap(qvlb_hashmap_t* map);

#endif
