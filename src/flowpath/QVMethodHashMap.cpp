// The versioned method registry: find-or-create with the backend fold-over, method metadata,
// generations with their reference counts, and the sweep of retired generations.
#include "flowpath/QVMethodHashMap.h"

#include <cstdio>
#include <cstring>

#include "collector/QVDataDispatcher.h"
#include "core/QVBCISettings.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "flowpath/QVInstrProfile.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

node_t* methodHashMapNode = nullptr;
node_t* methodHashMapNodeTemp = nullptr;
int methodId = QV_FIRST_METHOD_ID;
methodPropProperties* DefaultMethod = nullptr;
QVMethodRegistryHooks qvMethodRegistryHooks = {};

namespace {

const char* const kModule = "FLOWPATH";
const char* const kRecordPurpose = "methodPropProperties";
const char* const kNodePurpose = "node_t";
const char* const kTextPurpose = "methodPropProperties text";

// Retired generations, oldest first. Only touched under methodEntryLock.
node_t* head = nullptr;
node_t* tail = nullptr;
int retiredCount = 0;

// Texts replaced by setMethodPropText, kept until the registry is reset because a flowpath on
// another thread may still be printing the old one. Under methodEntryLock.
struct RetiredText {
    char* text;
    RetiredText* next;
};
RetiredText* retiredTexts = nullptr;

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

// Looks name up in node, then in the current generation cur: a name known to a newer generation
// shares that record (added to node) rather than getting a second id.
methodPropProperties* findShared(node_t* node, node_t* cur, const char* name) {
    if (methodPropProperties* m = findIn(node, name)) return m;
    if (cur == nullptr || cur == node) return nullptr;
    methodPropProperties* m = findIn(cur, name);
    if (m != nullptr) apr_hash_set(node->dynamic_ptr, m->methodName, APR_HASH_KEY_STRING, m);
    return m;
}

// A generation made empty, with its own pool so its maps go away with it.
node_t* newGeneration() {
    qvlb_apr_init();
    auto* node = static_cast<node_t*>(qvlb_calloc(sizeof(node_t), kNodePurpose, -1));
    if (node == nullptr) return nullptr;
    if (apr_pool_create_unmanaged_ex(&node->pool, nullptr, nullptr) != APR_SUCCESS) {
        qvlb_free(node, kNodePurpose, -1);
        return nullptr;
    }
    node->type = 1;
    return node;
}

void freeGeneration(node_t* node) {
    if (node == nullptr) return;
    // A generation that does not own its maps leaves them to their owner.
    if (node->type == 1 && node->pool != nullptr) apr_pool_destroy(node->pool);
    qvlb_free(node, kNodePurpose, -1);
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

}  // namespace

void getMethodHashMapLock() {
    if (methodEntryLock) apr_thread_mutex_lock(methodEntryLock);
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
        auto* r = static_cast<RetiredText*>(qvlb_malloc(sizeof(RetiredText), kTextPurpose, -1));
        if (r == nullptr) {
            qvlb_free(copy, kTextPurpose, -1);
            return -1;
        }
        r->text = old;
        r->next = retiredTexts;
        retiredTexts = r;
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
    m->methodId = methodId;
    qv_store(methodId, methodId + 1);
    m->isEntryPoint = isEntryPointPtr;
    m->type = static_cast<char>(type);
    apr_hash_set(node->dynamic_ptr, m->methodName, APR_HASH_KEY_STRING, m);
    // Every record is also in the current generation, so a name created through an older
    // generation keeps its one id once that generation is gone.
    if (cur != nullptr && cur != node && cur->dynamic_ptr != nullptr && findIn(cur, m->methodName) == nullptr)
        apr_hash_set(cur->dynamic_ptr, m->methodName, APR_HASH_KEY_STRING, m);
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
    QVMethodHashMapGuard guard;
    return findIn(node ? node : methodHashMapNode, mName);
}

void saveNodeAndIncrementMethodRefCount(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVMethodHashMapGuard guard;
    node_t* cur = methodHashMapNode;
    if (cur == nullptr) return;
    qvTD->hasMapNodePtr = cur;
    cur->ref_count++;
    if (cur->ref_count >= 100)
        QV_TRACE_IF(fpLevel() > 0, kModule, "Info",
                    "MethodHaspMap Reference count reached 100. [methodHashMapNode->ref_count = %d]",
                    cur->ref_count);
}

void qvDecrementMethodRefCount(node_t* node) {
    if (node == nullptr) return;
    QVMethodHashMapGuard guard;
    if (node->ref_count > 0)
        node->ref_count--;
    else
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Reference count of method hash map %p is already 0",
                    static_cast<void*>(node));
}

node_t* switchToCurrentMethodHashMapNode(QVPerThreadData_t* qvTD) {
    QVMethodHashMapGuard guard;
    node_t* cur = methodHashMapNode;
    if (qvTD == nullptr || cur == nullptr || qvTD->hasMapNodePtr == cur) return cur;
    if (qvTD->hasMapNodePtr != nullptr && qvTD->hasMapNodePtr->ref_count > 0)
        qvTD->hasMapNodePtr->ref_count--;
    qvTD->hasMapNodePtr = cur;
    cur->ref_count++;
    return cur;
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
    node->next = nullptr;
    if (tail == nullptr) {
        head = tail = node;
    } else {
        tail->next = node;
        tail = node;
    }
    retiredCount++;
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
    node_t* node = newGeneration();
    if (node == nullptr) return -1;
    node->ptr = apr_hash_copy(node->pool, cur->ptr ? cur->ptr : apr_hash_make(node->pool));
    node->dynamic_ptr =
        apr_hash_copy(node->pool, cur->dynamic_ptr ? cur->dynamic_ptr : apr_hash_make(node->pool));
    if (node->ptr == nullptr || node->dynamic_ptr == nullptr) {
        freeGeneration(node);
        return -1;
    }
    methodHashMapNodeTemp = node;
    resetmethodHashMapNode(node, type);
    cur->timeStamp = my_gettimeofday();
    addNodeToLinklist(cur);
    qv_store_release(methodHashMapNode, node);
    methodHashMapNodeTemp = nullptr;
    QV_TRACE_IF(fpLevel() > 1, kModule, "Info", "Added to linklist and make copy., methodHashMapNode = %p",
                static_cast<void*>(node));
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method exit");
    return 0;
}

int checkForLinkList() {
    QVMethodHashMapGuard guard;
    return head != nullptr ? 1 : 0;
}

int getRetiredMethodHashMapCount() {
    QVMethodHashMapGuard guard;
    return retiredCount;
}

int checkAndDeleteNode() {
    QV_TRACE_IF(fpLevel() == 4, kModule, "Info", "Method called");
    QVMethodHashMapGuard guard;
    if (head == nullptr) {
        QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Linklist is empty. hence retuning");
        return 0;
    }
    int freed = 0;
    node_t* prev = nullptr;
    node_t* n = head;
    while (n != nullptr) {
        node_t* next = n->next;
        if (n->ref_count == 0) {
            if (prev == nullptr)
                head = next;
            else
                prev->next = next;
            if (tail == n) tail = prev;
            QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                        "Node removed from linklist. [node = %p, ref_count = %d]", static_cast<void*>(n),
                        n->ref_count);
            freeGeneration(n);
            retiredCount--;
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
            node_t* node = newGeneration();
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
    for (node_t* n = head; n != nullptr;) {
        node_t* next = n->next;
        freeGeneration(n);
        n = next;
    }
    freeGeneration(cur);
    freeGeneration(methodHashMapNodeTemp);
    for (RetiredText* r = retiredTexts; r != nullptr;) {
        RetiredText* next = r->next;
        qvlb_free(r->text, kTextPurpose, -1);
        qvlb_free(r, kTextPurpose, -1);
        r = next;
    }
    retiredTexts = nullptr;
    head = tail = nullptr;
    retiredCount = 0;
    methodHashMapNode = nullptr;
    methodHashMapNodeTemp = nullptr;
    methodId = QV_FIRST_METHOD_ID;
    DefaultMethod = nullptr;
    qvMethodRegistryHooks = {};
}
