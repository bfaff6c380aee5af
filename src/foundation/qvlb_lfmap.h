// Insert-mostly string map whose lookups take no lock: open addressing over atomic entry
// pointers, writers serialised by a mutex, growth by publishing a new table. Used where a hot
// path looks names up while another thread may be adding one (business transactions).
#ifndef QVLB_LFMAP_H
#define QVLB_LFMAP_H

#include <cstddef>

struct qvlb_lfmap_t;

// Creates an empty map with room for about initial_capacity entries before its first growth
// (0 picks a small default). Returns null when memory is short.
qvlb_lfmap_t* qvlb_lfmap_create(unsigned int initial_capacity);

// Value stored under key, or null (also for a null map or key). Lock-free and allocation-free:
// safe to call from any thread while another thread inserts, including during a growth. A
// lookup that runs concurrently with the insertion of the same key may miss it; callers that
// must not create duplicates repeat the lookup under their own lock or use put_if_absent.
void* qvlb_lfmap_get(const qvlb_lfmap_t* map, const char* key);

// Stores value (non-null) under key. An existing entry gets the new value (atomic store);
// otherwise a new entry owning a copy of key is published. The entry's allocation is labelled
// purpose in memory tracing (null: "lfmap entry"). Writers are serialised. Returns 0, or -1 for
// a null argument or when memory is short (the map is then unchanged).
int qvlb_lfmap_put(qvlb_lfmap_t* map, const char* key, void* value, const char* purpose);

// Returns the value already stored under key, or stores value (non-null) and returns it. Two
// threads racing on one key get the same value back. Null for a null argument or when memory
// is short.
void* qvlb_lfmap_put_if_absent(qvlb_lfmap_t* map, const char* key, void* value, const char* purpose);

// Entries in the map (a relaxed snapshot).
unsigned int qvlb_lfmap_count(const qvlb_lfmap_t* map);

// Calls fn(key, value, ctx) for each entry of the current table without locking. Entries
// inserted during the walk may or may not be seen. fn may call any function of the map.
void qvlb_lfmap_foreach(const qvlb_lfmap_t* map, void (*fn)(const char* key, void* value, void* ctx),
                        void* ctx);

// Frees the map, its tables and its entries (values are not freed). No other thread may use
// the map any more. Null does nothing.
void qvlb_lfmap_destroy(qvlb_lfmap_t* map);

#endif
