// Insert-mostly string map with lock-free lookups: linear probing over a power-of-two table of
// atomic entry pointers; a full-enough table is replaced by a larger one that readers pick up
// with an acquire load, while the old table stays readable until the map is destroyed.
#include "foundation/qvlb_lfmap.h"

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>

#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {

const char kDefaultEntryPurpose[] = "lfmap entry";
const char kTablePurpose[] = "lfmap table";
const char kMapPurpose[] = "lfmap";
constexpr size_t kMinCapacity = 16;

// Immutable once published, except value. The key text follows the struct in one allocation.
struct Entry {
    uint64_t hash;
    std::atomic<void*> value;
    size_t keylen;
};

const char* key_of(const Entry* e) {
    return reinterpret_cast<const char*>(e + 1);
}

// The slot array follows the header in one allocation.
struct Table {
    size_t capacity;  // power of two
    Table* retired_next;
};

std::atomic<Entry*>* slots(Table* t) {
    return reinterpret_cast<std::atomic<Entry*>*>(t + 1);
}
const std::atomic<Entry*>* slots(const Table* t) {
    return reinterpret_cast<const std::atomic<Entry*>*>(t + 1);
}

uint64_t hash_key(const char* key, size_t* len) {
    // FNV-1a: short keys, no allocation, good enough spread for URL-like names.
    uint64_t h = 1469598103934665603ULL;
    const char* p = key;
    for (; *p != '\0'; ++p) {
        h ^= static_cast<unsigned char>(*p);
        h *= 1099511628211ULL;
    }
    *len = static_cast<size_t>(p - key);
    return h;
}

Table* new_table(size_t capacity) {
    const size_t bytes = sizeof(Table) + capacity * sizeof(std::atomic<Entry*>);
    void* mem = qvlb_calloc(bytes, kTablePurpose, -1);
    if (mem == nullptr) return nullptr;
    auto* t = static_cast<Table*>(mem);
    t->capacity = capacity;
    t->retired_next = nullptr;
    for (size_t i = 0; i < capacity; ++i) new (&slots(t)[i]) std::atomic<Entry*>(nullptr);
    return t;
}

Entry* find_in(const Table* t, const char* key, size_t len, uint64_t h) {
    const size_t mask = t->capacity - 1;
    size_t i = static_cast<size_t>(h) & mask;
    // The load factor stays below one half, so a null slot always ends the probe; the bound is a
    // second safety net.
    for (size_t n = 0; n < t->capacity; ++n, i = (i + 1) & mask) {
        Entry* e = slots(t)[i].load(std::memory_order_acquire);
        if (e == nullptr) return nullptr;
        if (e->hash == h && e->keylen == len && memcmp(key_of(e), key, len) == 0) return e;
    }
    return nullptr;
}

// Writer-side placement into a table that has a free slot for h.
void place(Table* t, Entry* e) {
    const size_t mask = t->capacity - 1;
    size_t i = static_cast<size_t>(e->hash) & mask;
    while (slots(t)[i].load(std::memory_order_relaxed) != nullptr) i = (i + 1) & mask;
    slots(t)[i].store(e, std::memory_order_release);
}

}  // namespace

struct qvlb_lfmap_t {
    std::atomic<Table*> table;
    std::atomic<unsigned int> count;
    Table* retired;    // earlier tables, freed with the map (a reader may still walk one)
    apr_pool_t* pool;  // private, unmanaged: holds only the writer mutex
    apr_thread_mutex_t* write_lock;
};

qvlb_lfmap_t* qvlb_lfmap_create(unsigned int initial_capacity) {
    qvlb_apr_init();
    size_t cap = kMinCapacity;
    // Twice the requested count keeps the load factor under one half until then.
    while (cap < static_cast<size_t>(initial_capacity) * 2 && cap < (static_cast<size_t>(1) << 30)) cap <<= 1;
    void* mem = qvlb_calloc(sizeof(qvlb_lfmap_t), kMapPurpose, -1);
    if (mem == nullptr) return nullptr;
    auto* map = new (mem) qvlb_lfmap_t{};
    if (apr_pool_create_unmanaged_ex(&map->pool, nullptr, nullptr) != APR_SUCCESS) {
        map->~qvlb_lfmap_t();
        qvlb_free(mem, kMapPurpose, -1);
        return nullptr;
    }
    Table* t = new_table(cap);
    if (t == nullptr ||
        apr_thread_mutex_create(&map->write_lock, APR_THREAD_MUTEX_NESTED, map->pool) != APR_SUCCESS) {
        qvlb_free(t, kTablePurpose, -1);
        apr_pool_destroy(map->pool);
        map->~qvlb_lfmap_t();
        qvlb_free(mem, kMapPurpose, -1);
        return nullptr;
    }
    map->table.store(t, std::memory_order_release);
    return map;
}

void* qvlb_lfmap_get(const qvlb_lfmap_t* map, const char* key) {
    if (map == nullptr || key == nullptr) return nullptr;
    size_t len = 0;
    const uint64_t h = hash_key(key, &len);
    const Entry* e = find_in(map->table.load(std::memory_order_acquire), key, len, h);
    return e ? e->value.load(std::memory_order_acquire) : nullptr;
}

namespace {

// Called with the write lock held. Returns the entry of key, creating it with value when absent;
// *created tells which. Null when memory is short.
Entry* lookup_or_insert(qvlb_lfmap_t* map, const char* key, void* value, const char* purpose, bool* created) {
    *created = false;
    size_t len = 0;
    const uint64_t h = hash_key(key, &len);
    Table* t = map->table.load(std::memory_order_relaxed);
    if (Entry* e = find_in(t, key, len, h)) return e;

    const unsigned int n = map->count.load(std::memory_order_relaxed);
    if ((static_cast<size_t>(n) + 1) * 2 > t->capacity) {
        if (t->capacity >= (static_cast<size_t>(1) << 31)) return nullptr;
        Table* bigger = new_table(t->capacity * 2);
        if (bigger == nullptr) return nullptr;
        for (size_t i = 0; i < t->capacity; ++i) {
            Entry* e = slots(t)[i].load(std::memory_order_relaxed);
            if (e != nullptr) place(bigger, e);
        }
        // Readers holding the old table keep probing it safely; it is freed with the map.
        t->retired_next = map->retired;
        map->retired = t;
        map->table.store(bigger, std::memory_order_release);
        t = bigger;
    }

    void* mem = qvlb_malloc(sizeof(Entry) + len + 1, purpose ? purpose : kDefaultEntryPurpose, -1);
    if (mem == nullptr) return nullptr;
    auto* e = static_cast<Entry*>(mem);
    e->hash = h;
    new (&e->value) std::atomic<void*>(value);
    e->keylen = len;
    memcpy(reinterpret_cast<char*>(e + 1), key, len + 1);
    place(t, e);
    map->count.store(n + 1, std::memory_order_relaxed);
    *created = true;
    return e;
}

}  // namespace

int qvlb_lfmap_put(qvlb_lfmap_t* map, const char* key, void* value, const char* purpose) {
    if (map == nullptr || key == nullptr || value == nullptr) return -1;
    QVLockGuard guard(map->write_lock);
    bool created = false;
    Entry* e = lookup_or_insert(map, key, value, purpose, &created);
    if (e == nullptr) return -1;
    if (!created) e->value.store(value, std::memory_order_release);
    return 0;
}

void* qvlb_lfmap_put_if_absent(qvlb_lfmap_t* map, const char* key, void* value, const char* purpose) {
    if (map == nullptr || key == nullptr || value == nullptr) return nullptr;
    QVLockGuard guard(map->write_lock);
    bool created = false;
    Entry* e = lookup_or_insert(map, key, value, purpose, &created);
    return e ? e->value.load(std::memory_order_relaxed) : nullptr;
}

unsigned int qvlb_lfmap_count(const qvlb_lfmap_t* map) {
    return map ? map->count.load(std::memory_order_relaxed) : 0;
}

void qvlb_lfmap_foreach(const qvlb_lfmap_t* map, void (*fn)(const char* key, void* value, void* ctx),
                        void* ctx) {
    if (map == nullptr || fn == nullptr) return;
    const Table* t = map->table.load(std::memory_order_acquire);
    for (size_t i = 0; i < t->capacity; ++i) {
        Entry* e = slots(t)[i].load(std::memory_order_acquire);
        if (e != nullptr) fn(key_of(e), e->value.load(std::memory_order_acquire), ctx);
    }
}

void qvlb_lfmap_destroy(qvlb_lfmap_t* map) {
    if (map == nullptr) return;
    // Every entry lives in the current table; retired tables only share pointers to them.
    Table* t = map->table.load(std::memory_order_acquire);
    for (size_t i = 0; i < t->capacity; ++i)
        qvlb_free(slots(t)[i].load(std::memory_order_relaxed), "lfmap entry", -1);
    qvlb_free(t, kTablePurpose, -1);
    for (Table* r = map->retired; r != nullptr;) {
        Table* next = r->retired_next;
        qvlb_free(r, kTablePurpose, -1);
        r = next;
    }
    apr_pool_destroy(map->pool);
    map->~qvlb_lfmap_t();
    qvlb_free(map, kMapPurpose, -1);
}
