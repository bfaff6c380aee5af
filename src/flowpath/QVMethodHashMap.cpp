// The versioned method registry: find-or-create with the backend fold-over, method metadata,
// generations with their reference counts and lock-free name index, and the sweep of retired
// generations.
#include "flowpath/QVMethodHashMap.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "collector/QVDataDispatcher.h"
#include "core/QVBCISettings.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "flowpath/QVInstrProfile.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

QV_INSTANCE_STATE_DEFINE(QVMethodRegistryState, qvMethodRegistryState)

// A text replaced by setMethodPropText (see QVMethodRegistryState::retiredTexts).
struct QVRetiredMethodText {
    char* text;
    QVRetiredMethodText* next;
};

QVMethodRegistryHooks qvMethodRegistryHooks = {};

namespace {

const char* const kModule = "FLOWPATH";
const char* const kRecordPurpose = "methodPropProperties";
const char* const kNodePurpose = "node_t";
const char* const kTextPurpose = "methodPropProperties text";
const char* const kIndexPurpose = "method index";

int fpLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.fpTraceLevel) : 0;
}

bool dataThreadRunning() {
    return qvApplication != nullptr && qv_load(qvApplication->QVBCISetting.data_thread_running) == 1;
}

apr_hash_t* lookupMap(node_t* node) {
    return node ? node->dynamic_ptr : nullptr;
}

methodPropProperties* findIn(node_t* node, const char* name) {
    apr_hash_t* map = lookupMap(node);
    if (map == nullptr) return nullptr;
    return static_cast<methodPropProperties*>(apr_hash_get(map, name, APR_HASH_KEY_STRING));
}

// ---- The lock-free index of a generation ----
// Linear probing over a power-of-two table kept under half full. A slot is written once: its
// tag, then its record with a release store, so a reader that sees the record sees the tag, and
// a record's methodName never changes. Writers hold methodEntryLock. A full-enough table is
// copied into a larger one that is then published; readers still on the old one finish safely,
// as old tables are freed only with the index (with the generation, which nobody then holds).
// The per-event path looks a name up twice per method call, so the hash takes eight bytes per
// step and the tag carries the name's length: equal tags mean equal lengths, and the names are
// then compared word by word without a library call.

struct IndexSlot {
    std::atomic<uint64_t> tag;  // hash bits above kLenBits, the name's length (saturated) below
    std::atomic<methodPropProperties*> m;
};

struct IndexTable {
    size_t mask;  // capacity - 1
    IndexTable* older;
};

constexpr int kLenBits = 16;
constexpr uint64_t kLenMask = (1ULL << kLenBits) - 1;

IndexSlot* slotsOf(IndexTable* t) {
    return reinterpret_cast<IndexSlot*>(t + 1);
}

size_t homeSlot(const IndexTable* t, uint64_t tag) {
    return static_cast<size_t>(tag >> kLenBits) & t->mask;
}

uint64_t load8(const char* p) {
    uint64_t w;
    memcpy(&w, p, 8);
    return w;
}

uint32_t load4(const char* p) {
    uint32_t w;
    memcpy(&w, p, 4);
    return w;
}

// The tag of name: its hash and its length.
uint64_t tagOf(const char* name) {
    const size_t len = strlen(name);
    uint64_t h = 0x9e3779b97f4a7c15ULL ^ len;
    uint64_t w = 0;
    if (len >= 8) {
        for (size_t i = 0; i + 8 < len; i += 8) {
            h = (h ^ load8(name + i)) * 0xbf58476d1ce4e5b9ULL;
            h ^= h >> 29;
        }
        // The last eight bytes, overlapping the words before when len is not a multiple of 8.
        w = load8(name + len - 8);
    } else if (len >= 4) {
        w = (static_cast<uint64_t>(load4(name)) << 32) | load4(name + len - 4);
    } else if (len > 0) {
        w = static_cast<uint64_t>(static_cast<unsigned char>(name[0])) << 16 |
            static_cast<uint64_t>(static_cast<unsigned char>(name[len / 2])) << 8 |
            static_cast<unsigned char>(name[len - 1]);
    }
    h = (h ^ w) * 0xbf58476d1ce4e5b9ULL;
    h ^= h >> 32;
    h *= 0xd6e8feb86659fd93ULL;
    h ^= h >> 32;
    return (h & ~kLenMask) | (len < kLenMask ? len : kLenMask);
}

// Whether a and b, which both have at least len bytes, have the same len bytes.
bool sameBytes(const char* a, const char* b, size_t len) {
    if (len >= 8) {
        for (size_t i = 0; i + 8 < len; i += 8)
            if (load8(a + i) != load8(b + i)) return false;
        return load8(a + len - 8) == load8(b + len - 8);
    }
    if (len >= 4) return load4(a) == load4(b) && load4(a + len - 4) == load4(b + len - 4);
    for (size_t i = 0; i < len; i++)
        if (a[i] != b[i]) return false;
    return true;
}

IndexTable* newIndexTable(size_t capacity) {
    void* mem = qvlb_calloc(sizeof(IndexTable) + capacity * sizeof(IndexSlot), kIndexPurpose, -1);
    if (mem == nullptr) return nullptr;
    auto* t = new (mem) IndexTable{capacity - 1, nullptr};
    IndexSlot* s = slotsOf(t);
    for (size_t i = 0; i < capacity; i++) new (&s[i]) IndexSlot{{0}, {nullptr}};
    return t;
}

// Writer side: a free slot is known to exist.
void placeInTable(IndexTable* t, uint64_t tag, methodPropProperties* m) {
    IndexSlot* s = slotsOf(t);
    size_t i = homeSlot(t, tag);
    while (s[i].m.load(std::memory_order_relaxed) != nullptr) i = (i + 1) & t->mask;
    s[i].tag.store(tag, std::memory_order_relaxed);
    s[i].m.store(m, std::memory_order_release);
}

}  // namespace

struct QVMethodIndex {
    std::atomic<IndexTable*> table;
    size_t count;  // under methodEntryLock
};

namespace {

QVMethodIndex* createIndex(unsigned int expected) {
    size_t capacity = 16;
    while (capacity < static_cast<size_t>(expected) * 2 && capacity < (static_cast<size_t>(1) << 30))
        capacity <<= 1;
    IndexTable* t = newIndexTable(capacity);
    if (t == nullptr) return nullptr;
    void* mem = qvlb_calloc(sizeof(QVMethodIndex), kIndexPurpose, -1);
    if (mem == nullptr) {
        qvlb_free(t, kIndexPurpose, -1);
        return nullptr;
    }
    auto* ix = new (mem) QVMethodIndex{};
    ix->table.store(t, std::memory_order_relaxed);
    return ix;
}

void destroyIndex(QVMethodIndex* ix) {
    if (ix == nullptr) return;
    for (IndexTable* t = ix->table.load(std::memory_order_relaxed); t != nullptr;) {
        IndexTable* older = t->older;
        qvlb_free(t, kIndexPurpose, -1);
        t = older;
    }
    qvlb_free(ix, kIndexPurpose, -1);
}

methodPropProperties* indexFind(const QVMethodIndex* ix, const char* name) {
    if (ix == nullptr || name == nullptr) return nullptr;
    const uint64_t tag = tagOf(name);
    const size_t len = static_cast<size_t>(tag & kLenMask);
    IndexTable* t = ix->table.load(std::memory_order_acquire);
    IndexSlot* s = slotsOf(t);
    size_t i = homeSlot(t, tag);
    // Under half full, so a free slot ends every probe; the table size bounds it regardless.
    for (size_t n = 0; n <= t->mask; n++, i = (i + 1) & t->mask) {
        methodPropProperties* m = s[i].m.load(std::memory_order_acquire);
        if (m == nullptr) return nullptr;
        if (s[i].tag.load(std::memory_order_relaxed) != tag) continue;
        // Equal tags: both names have len bytes, unless the length saturated.
        if (len < kLenMask ? sameBytes(m->methodName, name, len) : strcmp(m->methodName, name) == 0) return m;
    }
    return nullptr;
}

// Lock held; the name is not in the index yet. False when memory is short (the index then
// lacks the name, and lookups of it take the lock).
bool indexAdd(QVMethodIndex* ix, methodPropProperties* m) {
    IndexTable* t = ix->table.load(std::memory_order_relaxed);
    if ((ix->count + 1) * 2 > t->mask + 1) {
        if (t->mask + 1 >= (static_cast<size_t>(1) << 31)) return false;
        IndexTable* bigger = newIndexTable((t->mask + 1) * 2);
        if (bigger == nullptr) return false;
        IndexSlot* s = slotsOf(t);
        for (size_t i = 0; i <= t->mask; i++) {
            methodPropProperties* old = s[i].m.load(std::memory_order_relaxed);
            if (old != nullptr) placeInTable(bigger, s[i].tag.load(std::memory_order_relaxed), old);
        }
        bigger->older = t;
        ix->table.store(bigger, std::memory_order_release);
        t = bigger;
    }
    placeInTable(t, tagOf(m->methodName), m);
    ix->count++;
    return true;
}

// The lookup of the per-event path. node is alive because the caller holds it.
methodPropProperties* findLockFree(node_t* node, const char* name) {
    return node != nullptr ? indexFind(node->index, name) : nullptr;
}

// The one way a name enters a generation (lock held; the name is new to it).
void addToGeneration(node_t* node, methodPropProperties* m) {
    apr_hash_set(node->dynamic_ptr, m->methodName, APR_HASH_KEY_STRING, m);
    if (node->index != nullptr) indexAdd(node->index, m);
}

// Looks name up in node, then in the current generation cur: a name known to a newer generation
// shares that record (added to node) rather than getting a second id.
methodPropProperties* findShared(node_t* node, node_t* cur, const char* name) {
    if (methodPropProperties* m = findIn(node, name)) return m;
    if (cur == nullptr || cur == node) return nullptr;
    methodPropProperties* m = findIn(cur, name);
    if (m != nullptr) addToGeneration(node, m);
    return m;
}

// A generation made empty, with its own pool so its maps go away with it, and an index sized
// for about expected names.
node_t* newGeneration(unsigned int expected) {
    qvlb_apr_init();
    auto* node = static_cast<node_t*>(qvlb_calloc(sizeof(node_t), kNodePurpose, -1));
    if (node == nullptr) return nullptr;
    if (apr_pool_create_unmanaged_ex(&node->pool, nullptr, nullptr) != APR_SUCCESS) {
        qvlb_free(node, kNodePurpose, -1);
        return nullptr;
    }
    node->index = createIndex(expected);
    if (node->index == nullptr) {
        apr_pool_destroy(node->pool);
        qvlb_free(node, kNodePurpose, -1);
        return nullptr;
    }
    node->type = 1;
    return node;
}

void freeGeneration(node_t* node) {
    if (node == nullptr) return;
    // A generation that does not own its maps leaves them to their owner; the index is always
    // its own.
    if (node->type == 1 && node->pool != nullptr) apr_pool_destroy(node->pool);
    destroyIndex(node->index);
    qvlb_free(node, kNodePurpose, -1);
}

// Fills a copied generation's index from its dynamic map (lock held, before it is published).
void indexAll(node_t* node) {
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, node->dynamic_ptr); hi != nullptr;
         hi = apr_hash_next(hi)) {
        void* v = nullptr;
        apr_hash_this(hi, nullptr, nullptr, &v);
        auto* m = static_cast<methodPropProperties*>(v);
        if (m != nullptr) indexAdd(node->index, m);
    }
}

void freeRecord(methodPropProperties* m) {
    if (m == nullptr) return;
    qvlb_free(m->moduleName, kTextPurpose, -1);
    qvlb_free(m->methodName, kTextPurpose, -1);
    qvlb_free(m->customCalloutName, kTextPurpose, -1);
    qvlb_free(m->aliasMethodName, kTextPurpose, -1);
    qvlb_free(m->methodRetType, kTextPurpose, -1);
    for (methodArgList_t* a = m->methodArgList; a != nullptr;) {
        methodArgList_t* next = a->next;
        qvlb_free(a->argType, kTextPurpose, -1);
        qvlb_free(a->argName, kTextPurpose, -1);
        qvlb_free(a, kTextPurpose, -1);
        a = next;
    }
    qvlb_free(m, kRecordPurpose, -1);
}

void resetMap(apr_hash_t* map, int type) {
    if (map == nullptr) return;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, map); hi != nullptr; hi = apr_hash_next(hi)) {
        void* v = nullptr;
        apr_hash_this(hi, nullptr, nullptr, &v);
        auto* m = static_cast<methodPropProperties*>(v);
        if (m == nullptr) continue;
        switch (type) {
            case 1:
                qv_store(m->usedFlag, 0);
                qv_store(m->instrumentationStatus, 0);
                if (qv_load(m->isEntryPoint) == 0 && qv_load(m->callOutValue) < 1)
                    qv_store(m->instrumentationProp, 3);
                break;
            case 2:
                qv_store(m->usedFlag, 0);
                qv_store(m->isEntryPoint, qv_load(m->isEntryPoint) & ~QV_EP_MONITORED);
                break;
            case 3:
                qv_store(m->usedFlag, 0);
                qv_store(m->isEntryPoint, qv_load(m->isEntryPoint) & ~QV_EP_CALLOUT);
                qv_store(m->callOutValue, 0);
                qv_store(m->type, 0);
                break;
            default:
                break;
        }
    }
}

void sendMethodMetaRecord(const methodPropProperties* m) {
    if (!dataThreadRunning()) return;
    const size_t nameLen = strlen(m->methodName);
    int shown = static_cast<int>(nameLen);
    if (nameLen > QV_METHOD_META_NAME_MAX) {
        shown = QV_METHOD_META_NAME_MAX;
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error",
                    "Name of method %d (%zu bytes) cut to %d in its metadata record", m->methodId, nameLen,
                    shown);
    }
    char rec[QV_METHOD_META_NAME_MAX + 32];
    const int len = snprintf(rec, sizeof(rec), "5,%.*s,%d\n", shown, m->methodName, m->methodId);
    if (len <= 0 || static_cast<size_t>(len) >= sizeof(rec)) return;
    QV_TRACE_IF(fpLevel() > 1, kModule, "Info", "Going to send metadata, buf[%s]", rec);
    dumpData(rec, len);
}

// Counts a reference on the current generation without methodEntryLock (every flowpath takes
// one, and a lock there would make them queue). *count: the count after this reference.
node_t* takeCurrentGenerationReference(int* count) {
    QVMethodRegistryState& st = qvMethodRegistryState();
    __atomic_add_fetch(&st.referencesInFlight, 1, __ATOMIC_SEQ_CST);
    node_t* cur = __atomic_load_n(&methodHashMapNode, __ATOMIC_SEQ_CST);
    if (cur != nullptr) *count = __atomic_add_fetch(&cur->ref_count, 1, __ATOMIC_RELAXED);
    __atomic_sub_fetch(&st.referencesInFlight, 1, __ATOMIC_RELEASE);
    return cur;
}

// Gives back a reference the caller holds; never below 0. False when the count was already 0.
bool dropGenerationReference(node_t* node) {
    int v = __atomic_load_n(&node->ref_count, __ATOMIC_RELAXED);
    while (v > 0) {
        if (__atomic_compare_exchange_n(&node->ref_count, &v, v - 1, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED))
            return true;
    }
    return false;
}

// True once no flowpath is between reading the current generation and counting on it. Waits a
// few microseconds at most: such a window is a handful of instructions, unless its thread was
// preempted, and then the sweep is left for the next time.
bool noReferenceInFlight() {
    int& referencesInFlight = qvMethodRegistryState().referencesInFlight;
    for (int i = 0; i < 1000; i++) {
        // A read-modify-write, not a plain load: it is ordered with the flowpaths' sequentially
        // consistent steps, so one that is not counted here reads the new generation.
        if (__atomic_fetch_add(&referencesInFlight, 0, __ATOMIC_SEQ_CST) == 0) return true;
        qvlb_cpu_relax();
    }
    return false;
}

}  // namespace

void getMethodHashMapLock() {
    qvlb_mutex_lock(methodEntryLock);
}

void releaseMethodHashMapLock() {
    if (methodEntryLock) apr_thread_mutex_unlock(methodEntryLock);
}

int setMethodPropText(char** field, const char* text) {
    if (field == nullptr) return -1;
    char* copy = nullptr;
    if (text != nullptr && text[0] != '\0') {
        copy = qvlb_strdup(text, kTextPurpose, -1);
        if (copy == nullptr) return -1;
    }
    char* old = qv_load_acquire(*field);
    if (old != nullptr) {
        auto* r =
            static_cast<QVRetiredMethodText*>(qvlb_malloc(sizeof(QVRetiredMethodText), kTextPurpose, -1));
        if (r == nullptr) {
            qvlb_free(copy, kTextPurpose, -1);
            return -1;
        }
        QVMethodRegistryState& st = qvMethodRegistryState();
        r->text = old;
        r->next = st.retiredTexts;
        st.retiredTexts = r;
    }
    qv_store_release(*field, copy);
    return 0;
}

methodPropProperties* updateMethodHashMap(const char* backendName, int isEntryPointPtr, int type,
                                          node_t* node) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    if (backendName == nullptr || backendName[0] == '\0') return nullptr;
    QVMethodHashMapGuard guard;
    node_t* cur = methodHashMapNode;
    if (node == nullptr) node = cur;
    if (node == nullptr || node->dynamic_ptr == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "No method hash map generation, '%s' not registered",
                    backendName);
        return nullptr;
    }
    if (methodPropProperties* existing = findShared(node, cur, backendName)) return existing;
    auto* m =
        static_cast<methodPropProperties*>(qvlb_calloc(sizeof(methodPropProperties), kRecordPurpose, -1));
    if (m == nullptr) return nullptr;
    m->methodName = qvlb_strdup(backendName, kTextPurpose, -1);
    if (m->methodName == nullptr) {
        qvlb_free(m, kRecordPurpose, -1);
        return nullptr;
    }
    int& nextId = qvMethodRegistryState().methodId;
    m->methodId = nextId;
    qv_store(nextId, nextId + 1);
    m->isEntryPoint = isEntryPointPtr;
    m->type = static_cast<char>(type);
    addToGeneration(node, m);
    // Every record is also in the current generation, so a name created through an older
    // generation keeps its one id once that generation is gone.
    if (cur != nullptr && cur != node && cur->dynamic_ptr != nullptr && findIn(cur, m->methodName) == nullptr)
        addToGeneration(cur, m);
    QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Method '%s' registered with id %d", m->methodName,
                m->methodId);
    sendMethodMetaRecord(m);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return m;
}

methodPropProperties* qvFindOrCreateMethodLocked(char* mName, node_t* node, int updateFlag, int type,
                                                 int mNameSize, bool* createdBackend) {
    if (createdBackend) *createdBackend = false;
    if (mName == nullptr || mName[0] == '\0') return nullptr;
    QVMethodHashMapGuard guard;
    node_t* cur = methodHashMapNode;
    if (node == nullptr) node = cur;
    if (node == nullptr || node->dynamic_ptr == nullptr) return nullptr;
    if (methodPropProperties* m = findShared(node, cur, mName)) return m;
    const char* name = mName;
    if (updateFlag == 1 && qvMethodRegistryHooks.backendLimitReached != nullptr) {
        int maxCount = 0;
        int counter = 0;
        if (qvMethodRegistryHooks.backendLimitReached(&maxCount, &counter) != 0) {
            QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "max count is:%d and backendID counter is:%d",
                        maxCount, counter);
            // The caller's buffer deliberately names the backend it was folded into.
            if (mNameSize >= QV_OTHERS_NAME_MIN_BUF)
                memcpy(mName, QV_OTHERS_METHOD_NAME, sizeof(QV_OTHERS_METHOD_NAME));
            else
                QV_TRACE_IF(fpLevel() > 0, kModule, "Error",
                            "Backend name buffer of %d bytes too small for \"Others\", left unchanged",
                            mNameSize);
            name = QV_OTHERS_METHOD_NAME;
            if (methodPropProperties* others = findShared(node, cur, name)) return others;
        }
    }
    methodPropProperties* m = updateMethodHashMap(name, 0, type, node);
    if (m != nullptr && updateFlag != 0) {
        if (qvMethodRegistryHooks.incrementBackendCounter) qvMethodRegistryHooks.incrementBackendCounter();
        if (createdBackend) *createdBackend = true;
    }
    return m;
}

methodPropProperties* searchAndUpdateMethodHashMap(char* mName, node_t* node, int updateFlag, int type,
                                                   int mNameSize) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    // A name the generation knows is what the locked path would return first, whatever the flags.
    if (methodPropProperties* known = findLockFree(node, mName)) {
        QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
        return known;
    }
    bool created = false;
    methodPropProperties* m = qvFindOrCreateMethodLocked(mName, node, updateFlag, type, mNameSize, &created);
    // Outside the registry lock: the monitor takes its own locks to grow its arrays.
    if (created && qvMethodRegistryHooks.checkAndIncrementAggrBackendDataArray)
        qvMethodRegistryHooks.checkAndIncrementAggrBackendDataArray(m);
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return m;
}

methodPropProperties* getMethodPropFromMethodName(const char* mName, node_t* node) {
    if (mName == nullptr || mName[0] == '\0') return nullptr;
    if (methodPropProperties* known = findLockFree(node, mName)) return known;
    QVMethodHashMapGuard guard;
    return findIn(node ? node : methodHashMapNode, mName);
}

void saveNodeAndIncrementMethodRefCount(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    int count = 0;
    node_t* cur = takeCurrentGenerationReference(&count);
    if (cur == nullptr) return;
    qvTD->hasMapNodePtr = cur;
    if (count >= 100)
        QV_TRACE_IF(fpLevel() > 0, kModule, "Info",
                    "MethodHaspMap Reference count reached 100. [methodHashMapNode->ref_count = %d]", count);
}

void qvDecrementMethodRefCount(node_t* node) {
    if (node == nullptr) return;
    if (!dropGenerationReference(node))
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Reference count of method hash map %p is already 0",
                    static_cast<void*>(node));
}

void releaseNodeAndDecrementMethodRefCount(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr || qvTD->hasMapNodePtr == nullptr) return;
    qvDecrementMethodRefCount(qvTD->hasMapNodePtr);
    qvTD->hasMapNodePtr = nullptr;
}

node_t* switchToCurrentMethodHashMapNode(QVPerThreadData_t* qvTD) {
    node_t* cur = qv_load_acquire(methodHashMapNode);
    if (qvTD == nullptr || cur == nullptr || qvTD->hasMapNodePtr == cur) return cur;
    int count = 0;
    node_t* taken = takeCurrentGenerationReference(&count);
    if (taken == nullptr) return nullptr;
    if (qvTD->hasMapNodePtr != nullptr) dropGenerationReference(qvTD->hasMapNodePtr);
    qvTD->hasMapNodePtr = taken;
    return taken;
}

void resetmethodHashMapNode(node_t* node, int type) {
    if (node == nullptr) return;
    QVMethodHashMapGuard guard;
    resetMap(node->ptr, type);
    resetMap(node->dynamic_ptr, type);
}

void addNodeToLinklist(node_t* node) {
    if (node == nullptr) return;
    QVMethodHashMapGuard guard;
    QVMethodRegistryState& st = qvMethodRegistryState();
    node->next = nullptr;
    if (st.tail == nullptr) {
        st.head = st.tail = node;
    } else {
        st.tail->next = node;
        st.tail = node;
    }
    st.retiredCount++;
}

int makeHashmapCopyAndaddToLL(int type) {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    QVMethodHashMapGuard guard;
    node_t* cur = methodHashMapNode;
    if (cur == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "No current method hash map, no copy made");
        return -1;
    }
    // Built before the current one is retired, so a failure leaves the registry as it was.
    node_t* node = newGeneration(cur->dynamic_ptr ? apr_hash_count(cur->dynamic_ptr) : 0);
    if (node == nullptr) return -1;
    node->ptr = apr_hash_copy(node->pool, cur->ptr ? cur->ptr : apr_hash_make(node->pool));
    node->dynamic_ptr =
        apr_hash_copy(node->pool, cur->dynamic_ptr ? cur->dynamic_ptr : apr_hash_make(node->pool));
    if (node->ptr == nullptr || node->dynamic_ptr == nullptr) {
        freeGeneration(node);
        return -1;
    }
    indexAll(node);
    methodHashMapNodeTemp = node;
    resetmethodHashMapNode(node, type);
    cur->timeStamp = my_gettimeofday();
    addNodeToLinklist(cur);
    __atomic_store_n(&methodHashMapNode, node, __ATOMIC_SEQ_CST);  // see takeCurrentGenerationReference
    methodHashMapNodeTemp = nullptr;
    QV_TRACE_IF(fpLevel() > 1, kModule, "Info", "Added to linklist and make copy., methodHashMapNode = %p",
                static_cast<void*>(node));
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return 0;
}

int checkForLinkList() {
    QVMethodHashMapGuard guard;
    return qvMethodRegistryState().head != nullptr ? 1 : 0;
}

int getRetiredMethodHashMapCount() {
    QVMethodHashMapGuard guard;
    return qvMethodRegistryState().retiredCount;
}

int checkAndDeleteNode() {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    QVMethodHashMapGuard guard;
    QVMethodRegistryState& st = qvMethodRegistryState();
    node_t*& head = st.head;
    node_t*& tail = st.tail;
    if (head == nullptr) {
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Linklist is empty. hence retuning");
        return 0;
    }
    if (!noReferenceInFlight()) {
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                    "A flowpath is taking a generation; sweep left for later");
        return 0;
    }
    int freed = 0;
    node_t* prev = nullptr;
    node_t* n = head;
    while (n != nullptr) {
        node_t* next = n->next;
        if (__atomic_load_n(&n->ref_count, __ATOMIC_ACQUIRE) == 0) {
            if (prev == nullptr)
                head = next;
            else
                prev->next = next;
            if (tail == n) tail = prev;
            QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                        "Node removed from linklist. [node = %p, ref_count = %d]", static_cast<void*>(n), 0);
            freeGeneration(n);
            st.retiredCount--;
            freed++;
        } else {
            prev = n;
        }
        n = next;
    }
    QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Afetr clearing linklist, head = %p and tail = %p",
                static_cast<void*>(head), static_cast<void*>(tail));
    return freed;
}

int initMethodRegistry() {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    qvlb_apr_init();
    qvlb_create_nested_mutex(&methodEntryLock, control_pool);
    {
        QVMethodHashMapGuard guard;
        if (methodHashMapNode == nullptr) {
            node_t* node = newGeneration(0);
            if (node == nullptr) return -1;
            node->ptr = apr_hash_make(node->pool);
            node->dynamic_ptr = apr_hash_make(node->pool);
            qv_store_release(methodHashMapNode, node);
        }
        if (DefaultMethod == nullptr) {
            char name[] = QV_DEFAULT_METHOD_NAME;
            methodPropProperties* m = qvFindOrCreateMethodLocked(name, nullptr, 0, 0, sizeof(name), nullptr);
            if (m == nullptr) return -1;
            qv_store(m->isEntryPoint, qv_load(m->isEntryPoint) | QV_EP_SERVICE);
            DefaultMethod = m;
        }
    }
    loadDefaultInstrProfileFiles();
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return 0;
}

void qvMethodRegistryResetForTest() {
    QVMethodRegistryState& st = qvMethodRegistryState();
    // Every record is in the current generation (updateMethodHashMap keeps it so), which makes
    // its dynamic map the one list of records to free.
    node_t* cur = methodHashMapNode;
    if (cur != nullptr && cur->dynamic_ptr != nullptr) {
        for (apr_hash_index_t* hi = apr_hash_first(nullptr, cur->dynamic_ptr); hi != nullptr;
             hi = apr_hash_next(hi)) {
            void* v = nullptr;
            apr_hash_this(hi, nullptr, nullptr, &v);
            freeRecord(static_cast<methodPropProperties*>(v));
        }
    }
    for (node_t* n = st.head; n != nullptr;) {
        node_t* next = n->next;
        freeGeneration(n);
        n = next;
    }
    freeGeneration(cur);
    freeGeneration(methodHashMapNodeTemp);
    for (QVRetiredMethodText* r = st.retiredTexts; r != nullptr;) {
        QVRetiredMethodText* next = r->next;
        qvlb_free(r->text, kTextPurpose, -1);
        qvlb_free(r, kTextPurpose, -1);
        r = next;
    }
    st.retiredTexts = nullptr;
    st.head = st.tail = nullptr;
    st.retiredCount = 0;
    methodHashMapNode = nullptr;
    methodHashMapNodeTemp = nullptr;
    st.methodId = QV_FIRST_METHOD_ID;
    DefaultMethod = nullptr;
    qvMethodRegistryHooks = {};
}
