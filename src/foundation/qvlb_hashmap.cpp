// Thread-shared string-keyed map over an APR hash table: readers share a lock, writers
// serialise; every entry carries its own copy of the key.
#include "foundation/qvlb_hashmap.h"

#include <apr_hash.h>
#include <pthread.h>

#include <cstring>

#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {

// One allocation per entry: the value followed by the key text the hash table points at.
struct Entry {
    void* value;
    char* key;
};

const char kEntryPurpose[] = "hashmap entry";

}  // namespace

struct qvlb_hashmap_t {
    apr_pool_t* pool;  // private, unmanaged: no other thread ever allocates from it
    apr_hash_t* table;
    pthread_rwlock_t lock;
    qvlb_hashmap_t** stripes;  // a striped map: these hold the entries, the fields above are unused
    unsigned int stripeCount;
};

namespace {

class ReadGuard {
  public:
    explicit ReadGuard(qvlb_hashmap_t* m) : m_(m) {
        pthread_rwlock_t* l = &m_->lock;
        qvlb_spin_then_block([l] { return pthread_rwlock_tryrdlock(l) == 0; },
                             [l] { pthread_rwlock_rdlock(l); });
    }
    ~ReadGuard() { pthread_rwlock_unlock(&m_->lock); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

  private:
    qvlb_hashmap_t* m_;
};

class WriteGuard {
  public:
    explicit WriteGuard(qvlb_hashmap_t* m) : m_(m) {
        pthread_rwlock_t* l = &m_->lock;
        qvlb_spin_then_block([l] { return pthread_rwlock_trywrlock(l) == 0; },
                             [l] { pthread_rwlock_wrlock(l); });
    }
    ~WriteGuard() { pthread_rwlock_unlock(&m_->lock); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

  private:
    qvlb_hashmap_t* m_;
};

void remove_all(qvlb_hashmap_t* map) {
    // APR's iterator has already saved the next entry, so the current one may be removed.
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, map->table); hi != nullptr; hi = apr_hash_next(hi)) {
        void* v = nullptr;
        apr_hash_this(hi, nullptr, nullptr, &v);
        auto* e = static_cast<Entry*>(v);
        apr_hash_set(map->table, e->key, APR_HASH_KEY_STRING, nullptr);
        qvlb_free(e, kEntryPurpose, -1);
    }
}

struct ForeachCtx {
    void (*fn)(const char*, void*, void*);
    void* ctx;
};

int foreach_cb(void* rec, const void*, apr_ssize_t, const void* value) {
    auto* c = static_cast<ForeachCtx*>(rec);
    const auto* e = static_cast<const Entry*>(value);
    c->fn(e->key, e->value, c->ctx);
    return 1;
}

}  // namespace

qvlb_hashmap_t* create_hashmap(apr_pool_t* pool) {
    (void)pool;
    qvlb_apr_init();
    auto* map = static_cast<qvlb_hashmap_t*>(qvlb_calloc(sizeof(qvlb_hashmap_t), "hashmap", -1));
    if (map == nullptr) return nullptr;
    if (apr_pool_create_unmanaged_ex(&map->pool, nullptr, nullptr) != APR_SUCCESS) {
        qvlb_free(map, "hashmap", -1);
        return nullptr;
    }
    map->table = apr_hash_make(map->pool);
    // Writer-preferring: a steady stream of lookups must not starve an insert. Readers never
    // take the lock recursively (foreach callbacks may not call back into the map).
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    const int rc = pthread_rwlock_init(&map->lock, &attr);
    pthread_rwlockattr_destroy(&attr);
    if (map->table == nullptr || rc != 0) {
        apr_pool_destroy(map->pool);
        qvlb_free(map, "hashmap", -1);
        return nullptr;
    }
    return map;
}

namespace {

// The stripe of key (FNV-1a), or map itself when it is not striped.
qvlb_hashmap_t* stripeOf(qvlb_hashmap_t* map, const char* key) {
    if (map->stripes == nullptr) return map;
    unsigned int h = 2166136261u;
    for (const char* c = key; *c != '\0'; ++c) h = (h ^ static_cast<unsigned char>(*c)) * 16777619u;
    return map->stripes[h % map->stripeCount];
}

}  // namespace

qvlb_hashmap_t* create_hashmap_striped(apr_pool_t* pool, unsigned int stripes) {
    if (stripes == 0) return nullptr;
    auto* map = static_cast<qvlb_hashmap_t*>(qvlb_calloc(sizeof(qvlb_hashmap_t), "hashmap", -1));
    if (map == nullptr) return nullptr;
    map->stripes =
        static_cast<qvlb_hashmap_t**>(qvlb_calloc(sizeof(qvlb_hashmap_t*) * stripes, "hashmap stripes", -1));
    map->stripeCount = stripes;
    for (unsigned int i = 0; map->stripes != nullptr && i < stripes; i++) {
        map->stripes[i] = create_hashmap(pool);
        if (map->stripes[i] == nullptr) {
            destroy_hashmap(map);
            return nullptr;
        }
    }
    if (map->stripes == nullptr) {
        qvlb_free(map, "hashmap", -1);
        return nullptr;
    }
    return map;
}

void* search_hashmap(qvlb_hashmap_t* map, const char* key) {
    if (map == nullptr || key == nullptr) return nullptr;
    map = stripeOf(map, key);
    ReadGuard guard(map);
    auto* e = static_cast<Entry*>(apr_hash_get(map->table, key, APR_HASH_KEY_STRING));
    return e ? e->value : nullptr;
}

int modify_hashmap(qvlb_hashmap_t* map, const char* key, void* value) {
    if (map == nullptr || key == nullptr) return -1;
    map = stripeOf(map, key);
    // Allocate before locking so readers are not held up by the allocator (or its logging).
    Entry* fresh = nullptr;
    if (value != nullptr) {
        const size_t klen = strlen(key) + 1;
        fresh = static_cast<Entry*>(qvlb_malloc(sizeof(Entry) + klen, kEntryPurpose, -1));
        if (fresh == nullptr) return -1;
        fresh->value = value;
        fresh->key = reinterpret_cast<char*>(fresh + 1);
        memcpy(fresh->key, key, klen);
    }
    Entry* unused = nullptr;
    {
        WriteGuard guard(map);
        auto* e = static_cast<Entry*>(apr_hash_get(map->table, key, APR_HASH_KEY_STRING));
        if (value == nullptr) {
            if (e != nullptr) {
                apr_hash_set(map->table, e->key, APR_HASH_KEY_STRING, nullptr);
                unused = e;
            }
        } else if (e != nullptr) {
            e->value = value;
            unused = fresh;
        } else {
            apr_hash_set(map->table, fresh->key, APR_HASH_KEY_STRING, fresh);
        }
    }
    qvlb_free(unused, kEntryPurpose, -1);
    return 0;
}

unsigned int count_hashmap(qvlb_hashmap_t* map) {
    if (map == nullptr) return 0;
    if (map->stripes != nullptr) {
        unsigned int n = 0;
        for (unsigned int i = 0; i < map->stripeCount; i++) n += count_hashmap(map->stripes[i]);
        return n;
    }
    ReadGuard guard(map);
    return apr_hash_count(map->table);
}

void foreach_hashmap(qvlb_hashmap_t* map, void (*fn)(const char* key, void* value, void* ctx), void* ctx) {
    if (map == nullptr || fn == nullptr) return;
    if (map->stripes != nullptr) {
        for (unsigned int i = 0; i < map->stripeCount; i++) foreach_hashmap(map->stripes[i], fn, ctx);
        return;
    }
    ForeachCtx c{fn, ctx};
    ReadGuard guard(map);
    // apr_hash_do iterates with a local index, so concurrent readers do not share iterator state.
    apr_hash_do(foreach_cb, &c, map->table);
}

void clear_hashmap(qvlb_hashmap_t* map) {
    if (map == nullptr) return;
    if (map->stripes != nullptr) {
        for (unsigned int i = 0; i < map->stripeCount; i++) clear_hashmap(map->stripes[i]);
        return;
    }
    WriteGuard guard(map);
    remove_all(map);
}

void destroy_hashmap(qvlb_hashmap_t* map) {
    if (map == nullptr) return;
    if (map->stripes != nullptr) {
        for (unsigned int i = 0; i < map->stripeCount; i++) destroy_hashmap(map->stripes[i]);
        qvlb_free(map->stripes, "hashmap stripes", -1);
        qvlb_free(map, "hashmap", -1);
        return;
    }
    remove_all(map);
    pthread_rwlock_destroy(&map->lock);
    apr_pool_destroy(map->pool);
    qvlb_free(map, "hashmap", -1);
}
