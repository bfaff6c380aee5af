// The versioned method registry: every method, callout backend and pseudo-method a flowpath can
// name gets a small process-wide id here, and the set of methods is changed by building a new
// generation so that running flowpaths keep the generation they started with.
#ifndef QVMETHODHASHMAP_H
#define QVMETHODHASHMAP_H

#include <apr_hash.h>
#include <apr_pools.h>

struct QVPerThreadData_t;
struct QVMethodIndex;

// Name under which DefaultMethod (the outermost pseudo-method of every flowpath) is registered.
#define QV_DEFAULT_METHOD_NAME "Profiler.Korlund.BeginRequest"
// Name every backend past the backend monitor's maximum folds into.
#define QV_OTHERS_METHOD_NAME "Others"
// Bytes a caller's name buffer must hold so the fold-over can write "Others" into it.
#define QV_OTHERS_NAME_MIN_BUF 7

// isEntryPoint bits.
#define QV_EP_SERVICE 1
#define QV_EP_CALLOUT 2
#define QV_EP_MONITORED 4
#define QV_EP_CUSTOM_CALLOUT 8

// One argument description of a method (kept for the collector).
struct methodArgList_t {
    int argIndex;
    char* argType;
    char* argName;
    methodArgList_t* next;
};

// One registered method. Records are shared by every generation that contains them and live
// until qvMethodRegistryResetForTest, so a pointer obtained from the registry stays valid.
// methodName and methodId never change after creation. The other fields may be changed by a
// profile load or a generation reset while flowpaths read them: read and write the int/char
// fields with qv_load/qv_store, and the text and pointer fields with qv_load_acquire /
// qv_store_release. A replaced text is not freed while the registry lives.
struct methodPropProperties {
    char type;          // 0 ordinary, 1 HTTP callout, 2 database callout
    char callOutValue;  // 1 forces the entry event into the blob, 4 the exit event
    char* moduleName;
    char* methodName;  // registry key
    char* customCalloutName;
    char* aliasMethodName;  // printed by monitor records when set
    char* methodRetType;
    int methodId;
    int isEntryPoint;  // QV_EP_* bits
    int usedFlag;      // 1 once a flowpath entered or left the method
    int instrumentationProp;
    int instrumentationStatus;
    int isAsyncCall;
    int methodArgsListCount;
    methodArgList_t* methodArgList;
    methodPropProperties* customCalloutptr;  // the callout a custom-callout method reports as
};

// One generation of the registry. The maps live in the generation's own pool (pool), so a
// retired generation of type 1 is freed together with its maps by destroying that pool; the
// records in them are shared and never freed with a generation.
// index mirrors dynamic_ptr for lookups without methodEntryLock (an open-addressing table of
// record pointers private to the registry): every name put into dynamic_ptr (always under the
// lock) is put into index too, and names are never removed. It is set before the generation is
// published, never changed, and freed with the node whatever its type. Null (a generation built
// elsewhere) only means every lookup takes the lock.
struct node_t {
    apr_hash_t* ptr;          // methods from the instrumentation profile, by name
    apr_hash_t* dynamic_ptr;  // every method known to this generation, by methodName
    int ref_count;            // flowpaths holding this generation (atomic operations only)
    char type;                // 1: owns its maps (freed with the node)
    long long timeStamp;      // wall clock (ms) when retired
    node_t* next;             // next retired generation
    apr_pool_t* pool;         // owner of ptr and dynamic_ptr (null when the maps are borrowed)
    QVMethodIndex* index;     // methodName -> record, read without the lock (see above)
};

// Ids start here; 0 never names a method (per-flowpath fields use 0 for "none").
#define QV_FIRST_METHOD_ID 1

struct QVRetiredMethodText;

// The registry of one application instance (see foundation/qvlb_instance.h).
struct QVMethodRegistryState {
    // The current generation. Changed only under methodEntryLock with a release store; flowpaths
    // may compare against it without the lock using qv_load_acquire(methodHashMapNode).
    node_t* methodHashMapNode = nullptr;
    // A generation being built; null outside makeHashmapCopyAndaddToLL.
    node_t* methodHashMapNodeTemp = nullptr;
    // Next id to hand out. Changed only under methodEntryLock (with qv_store); read with qv_load.
    // Not a macro like the others: methodId names a field of every record.
    int methodId = QV_FIRST_METHOD_ID;
    // The outermost pseudo-method of every flowpath; set by initMethodRegistry before any flowpath
    // can start, then never changed (until the test reset).
    methodPropProperties* DefaultMethod = nullptr;
    // Retired generations, oldest first. Only touched under methodEntryLock.
    node_t* head = nullptr;
    node_t* tail = nullptr;
    int retiredCount = 0;
    // Texts replaced by setMethodPropText, kept until the registry is reset because a flowpath on
    // another thread may still be printing the old one. Under methodEntryLock.
    QVRetiredMethodText* retiredTexts = nullptr;
    // Flowpaths between reading methodHashMapNode and counting their reference on it. A retired
    // generation is only freed while none is, so no reference is ever counted on freed memory:
    // a flowpath that starts after the sweep's check reads the generation that replaced it.
    int referencesInFlight = 0;
};
QVMethodRegistryState& qvMethodRegistryState();

#define methodHashMapNode (qvMethodRegistryState().methodHashMapNode)
#define methodHashMapNodeTemp (qvMethodRegistryState().methodHashMapNodeTemp)
#define DefaultMethod (qvMethodRegistryState().DefaultMethod)

// Calls the registry makes upward into the backend and method monitors, filled by their
// register function. A null entry is skipped (no limit, nothing to grow).
// backendLimitReached and incrementBackendCounter run with methodEntryLock held: they must not
// take a lock that is held anywhere while calling into the registry. The two array hooks run
// without the registry lock.
struct QVMethodRegistryHooks {
    // Non-zero once the backend counter reached the maximum backend count; stores both values
    // (for the trace "max count is:%d and backendID counter is:%d") when the pointers are set.
    int (*backendLimitReached)(int* maxCount, int* counter);
    // One more backend was registered.
    void (*incrementBackendCounter)();
    // Make room in the backend monitor arrays for this backend's id.
    void (*checkAndIncrementAggrBackendDataArray)(methodPropProperties* backend);
    // Make room in the method monitor arrays for this monitored method's id.
    void (*checkAndIncrementAggrMethodDataArray)(methodPropProperties* method);
};
extern QVMethodRegistryHooks qvMethodRegistryHooks;

// Takes / releases methodEntryLock (nested: the holder may call any registry function). Prefer
// QVMethodHashMapGuard. Nothing while the lock does not exist.
void getMethodHashMapLock();
void releaseMethodHashMapLock();

// Scoped hold of methodEntryLock.
class QVMethodHashMapGuard {
  public:
    QVMethodHashMapGuard() { getMethodHashMapLock(); }
    ~QVMethodHashMapGuard() { releaseMethodHashMapLock(); }
    QVMethodHashMapGuard(const QVMethodHashMapGuard&) = delete;
    QVMethodHashMapGuard& operator=(const QVMethodHashMapGuard&) = delete;
};

// Creates methodEntryLock if absent, the first generation (type 1) if there is none, and
// DefaultMethod (QV_DEFAULT_METHOD_NAME, a service entry point). Then loads, when present,
// "<home>/config/entrypoints.conf" and "<home>/config/instrprofile.conf" (QVInstrProfile.h) into
// a new generation. Idempotent for the first steps; start-up calls it once (agent hook).
// Returns 0, or -1 when memory is short (logged).
int initMethodRegistry();

// Find or create mName in generation node (null: the current generation, resolved under the
// lock; otherwise a generation the caller holds a reference on, or the lock). A name node
// already knows is found without taking the lock and without allocating; anything else takes
// the lock as below. updateFlag 1 marks mName as a
// backend: past the backend monitor's maximum it folds into "Others", and the caller's buffer is
// overwritten with "Others" when mNameSize (bytes writable at mName) is at least 7; callers that
// pass no size promise QV_OTHERS_NAME_MIN_BUF bytes. A newly created backend is counted and
// given room in the backend monitor. type is stored on a new method. Thread-safe: two threads
// meeting the same new name get one record. Null/empty name or no generation: null.
methodPropProperties* searchAndUpdateMethodHashMap(char* mName, node_t* node, int updateFlag, int type,
                                                   int mNameSize = QV_OTHERS_NAME_MIN_BUF);

// The find-or-create step of searchAndUpdateMethodHashMap for a caller that already holds the
// lock (the profile loader). Never calls the backend array hook: when *createdBackend comes back
// true the caller must call qvMethodRegistryHooks.checkAndIncrementAggrBackendDataArray for the
// result after releasing the lock. createdBackend may be null (the hook is then the caller's
// business anyway).
methodPropProperties* qvFindOrCreateMethodLocked(char* mName, node_t* node, int updateFlag, int type,
                                                 int mNameSize, bool* createdBackend);

// Replaces the text *field of a registered method by a copy of text (null or empty clears it).
// The new copy is published with a release store; the old one is kept until the registry is
// reset, since readers on other threads may still hold it. Caller holds the lock. Returns 0, or
// -1 when memory is short (field unchanged).
int setMethodPropText(char** field, const char* text);

// Lookup only, in node's dynamic_ptr (null node: the current generation, under the lock).
// A given node must be held by the caller (a reference or the lock); a name it knows is then
// found without the lock, and a miss is confirmed under the lock. Returns the record or null.
methodPropProperties* getMethodPropFromMethodName(const char* mName, node_t* node);

// Creates and registers backendName in node (null: current generation): the next methodId,
// isEntryPointPtr and type stored, inserted into dynamic_ptr. While the data thread runs
// (data_thread_running 1) the metadata record "5,<name>,<id>\n" goes to dumpData; a name longer
// than QV_METHOD_META_NAME_MAX bytes is cut to that length in the record (the registry keeps the
// whole name). An existing name returns its record unchanged. Takes the lock itself (callers
// normally already hold it). Null/empty name, no generation or no memory: null.
methodPropProperties* updateMethodHashMap(const char* backendName, int isEntryPointPtr, int type,
                                          node_t* node);
#define QV_METHOD_META_NAME_MAX 4000

// qvTD->hasMapNodePtr = current generation, whose ref_count is incremented (atomically, without
// the lock: every flowpath start comes here).
// Logs "MethodHaspMap Reference count reached 100. ..." at 100 references and more. Null qvTD
// or no generation: nothing.
void saveNodeAndIncrementMethodRefCount(QVPerThreadData_t* qvTD);

// Decrements node's ref_count atomically (never below 0; an unbalanced call is logged).
// Pass the generation the flowpath holds (qvTD->hasMapNodePtr). Null: nothing.
void qvDecrementMethodRefCount(node_t* node);

// Gives back the reference qvTD holds and clears qvTD->hasMapNodePtr, so that the record never
// points at a generation it holds no reference on (a later sweep may free it). Whoever uses the
// record next takes the current generation. Caller owns the record (holds its sequenceBlobLock).
// Null qvTD, or a record without a generation: nothing.
void releaseNodeAndDecrementMethodRefCount(QVPerThreadData_t* qvTD);

// Moves qvTD's reference from its generation to the current one (increment the new, decrement
// the old, hasMapNodePtr updated; atomically, without the lock) and returns that generation. For a
// flowpath that finds its generation stale. A record without a generation just takes one.
node_t* switchToCurrentMethodHashMapNode(QVPerThreadData_t* qvTD);

// Under the lock: retires the current generation (timeStamp stamped, appended to the retired
// list), makes a copy of its two maps that shares the records, resets every method in it by
// type (1: usedFlag/instrumentationStatus 0, instrumentationProp 3 for plain methods; 2: usedFlag
// 0, monitored bit cleared; 3: usedFlag 0, callout bit, callOutValue and type cleared; other
// values: no reset) and makes the copy current. Retired generations are not swept here (callers
// call checkAndDeleteNode after). Returns 0, or -1 when there is no current generation or memory
// is short (the current generation then stays as it was).
int makeHashmapCopyAndaddToLL(int type);

// The per-method reset of makeHashmapCopyAndaddToLL over both maps of node. Lock held inside.
void resetmethodHashMapNode(node_t* node, int type);

// Under the lock: unlinks and frees every retired generation whose ref_count is 0 (maps freed
// when its type is 1). Returns the number of generations freed. Frees nothing (and returns 0)
// while a flowpath is in the middle of taking its reference: the next sweep frees them.
int checkAndDeleteNode();

// 1 when the retired list is not empty, else 0. Under the lock.
int checkForLinkList();

// Appends node to the retired list (lock held inside). Null: nothing.
void addNodeToLinklist(node_t* node);

// Retired generations not yet freed. Under the lock.
int getRetiredMethodHashMapCount();

// Frees every generation and record and resets all globals of this module (the hook table too).
// methodEntryLock itself belongs to core and is kept. Tests only; no other thread may be using
// the registry.
void qvMethodRegistryResetForTest();

#endif
