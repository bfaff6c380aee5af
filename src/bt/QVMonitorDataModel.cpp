// Per-thread monitor models: creation with their locks and arrays, the registry the reporting
// thread walks, and the per-request BT update on the application thread.
#include "bt/QVMonitorDataModel.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_map>

#include "bt/QVBTMonitorDataCounters.h"
#include "bt/QVMonitorCommon.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVTlsPoolReserve.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {

const char* const kModule = "BT_MONITOR";
constexpr int kInitialArrayBytes = QV_MONITOR_INITIAL_ARRAY_SIZE * 8;

constexpr int kChunkModels = 4096;
constexpr int kMaxChunks = 4096;  // 16 M models; registration fails beyond

// The model registry of one application instance.
struct ModelRegistryState {
    qvlb_hashmap_t* modelMap = nullptr;  // threadBasedModelMap
    // Every model ever made, so the test reset can free those a destroyed registry no longer
    // reaches. Under the registry lock.
    QVMonitorDataModel** allModels = nullptr;
    int allModelCount = 0;
    int allModelCap = 0;
    // The registered models in registration order, readable without any lock so that a merge
    // never holds up a registration: fixed chunks that never move, filled under the registry lock,
    // with the count published last (release). registeredCount drops to 0 when the registry is
    // emptied; the chunks are kept for the next registrations. A reader that raced with that
    // merges a model just unregistered, which is harmless (models are never freed while the agent
    // runs).
    QVMonitorDataModel** registeredChunks[kMaxChunks] = {};
    int registeredCount = 0;
    // Next "#k" to try per thread identifier, so that the thousandth record sharing a number is
    // registered without probing the keys of the 999 before it. Under the registry lock; emptied
    // with the registry; made on first use. Only a hint: the key is still checked before use.
    std::unordered_map<long long, int>* keySuffixes = nullptr;
    ~ModelRegistryState();
};

}  // namespace

QV_INSTANCE_STATE(ModelRegistryState, modelRegistryState)

qvlb_hashmap_t*& qvThreadBasedModelMapOfInstance() {
    return modelRegistryState().modelMap;
}

namespace {

// The process's own hints are never destroyed, as agent threads may still register while the
// process exits.
ModelRegistryState::~ModelRegistryState() {
    if (this != &modelRegistryState_own) delete keySuffixes;
}

#define allModels (modelRegistryState().allModels)
#define allModelCount (modelRegistryState().allModelCount)
#define allModelCap (modelRegistryState().allModelCap)
#define registeredChunks (modelRegistryState().registeredChunks)
#define registeredCount (modelRegistryState().registeredCount)

// Null when memory is short. Caller holds the registry lock.
std::unordered_map<long long, int>* keySuffixes() {
    std::unordered_map<long long, int>*& map = modelRegistryState().keySuffixes;
    if (map == nullptr) map = new (std::nothrow) std::unordered_map<long long, int>;
    return map;
}

// Slot for registration number i, allocating its chunk when needed. Caller holds the registry lock.
bool reserveRegisteredSlot(int i) {
    const int chunk = i / kChunkModels;
    if (chunk >= kMaxChunks) return false;
    if (qv_load_acquire(registeredChunks[chunk]) != nullptr) return true;
    auto* fresh = static_cast<QVMonitorDataModel**>(
        qvlb_calloc(sizeof(QVMonitorDataModel*) * kChunkModels, "registeredModels", chunk));
    if (fresh == nullptr) return false;
    qv_store_release(registeredChunks[chunk], fresh);
    return true;
}

// Makes room for one more entry in *arr, doubling it when full. Caller holds the registry lock.
bool reserveOne(QVMonitorDataModel*** arr, int count, int* cap, const char* purpose) {
    if (count < *cap) return true;
    int grown = *cap == 0 ? 64 : *cap * 2;
    void* p = qvlb_realloc(*arr, sizeof(QVMonitorDataModel*) * static_cast<size_t>(grown), purpose, grown);
    if (p == nullptr) return false;
    *arr = static_cast<QVMonitorDataModel**>(p);
    *cap = grown;
    return true;
}

int btLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

int methodLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.methodMonTraceLevel) : 0;
}

qvlb_hashmap_t* registry() {
    return qv_load_acquire(threadBasedModelMap);
}

// Caller holds the registry lock.
qvlb_hashmap_t* ensureRegistry() {
    qvlb_hashmap_t* map = registry();
    if (map == nullptr) {
        map = create_hashmap(nullptr);
        qv_store_release(threadBasedModelMap, map);
    }
    return map;
}

void freeModel(QVMonitorDataModel* m) {
    if (m == nullptr) return;
    for (int i = 0; i < m->currentSizeOfBTArray && m->btmDataArray; i++)
        qvlb_free(m->btmDataArray[i], "QVBTMonitorDataCounters", i);
    for (int i = 0; i < m->currentSizeOfMethodArray && m->mmDataArray; i++)
        qvlb_free(m->mmDataArray[i], "mm", i);
    for (int i = 0; i < m->currentSizeOfBackendArray && m->ipmDataArray; i++)
        qvlb_free(m->ipmDataArray[i], "ipm", i);
    qvlb_free(m->btmDataArray, "btmDataArray", -1);
    qvlb_free(m->mmDataArray, "mmDataArray", -1);
    qvlb_free(m->ipmDataArray, "ipmDataArray", -1);
    qvlb_destroy_mutex(&m->lockForBT);
    qvlb_destroy_mutex(&m->lockForMM);
    qvlb_destroy_mutex(&m->lockForIP);
    qvlb_free(m, "QVMonitorDataModel", -1);
}

QVMonitorDataModel* createModel() {
    auto* m =
        static_cast<QVMonitorDataModel*>(qvlb_calloc(sizeof(QVMonitorDataModel), "QVMonitorDataModel", -1));
    if (m == nullptr) return nullptr;
    m->lastUpdateTimeStamp = my_gettimeofday();
    bool ok = initLock(&m->lockForMM) == 0 && initLock(&m->lockForBT) == 0 && initLock(&m->lockForIP) == 0;
    m->btmDataArray =
        static_cast<QVBTMonitorDataCounters**>(qvlb_calloc(kInitialArrayBytes, "btmDataArray", -1));
    m->mmDataArray =
        static_cast<QVMethodMonitorDataCounters**>(qvlb_calloc(kInitialArrayBytes, "mmDataArray", -1));
    m->ipmDataArray =
        static_cast<QVBackendMonitorDataCounters**>(qvlb_calloc(kInitialArrayBytes, "ipmDataArray", -1));
    if (!ok || m->btmDataArray == nullptr || m->mmDataArray == nullptr || m->ipmDataArray == nullptr) {
        freeModel(m);
        return nullptr;
    }
    m->currentSizeOfBTArray = QV_MONITOR_INITIAL_ARRAY_SIZE;
    m->currentSizeOfBackendArray = QV_MONITOR_INITIAL_ARRAY_SIZE;
    m->currentSizeOfMethodArray = QV_MONITOR_INITIAL_ARRAY_SIZE;
    return m;
}

// Caller holds the registry lock. Returns false (model not registered) when memory is short.
bool registerModel(long long threadId, QVMonitorDataModel* m) {
    qvlb_hashmap_t* map = ensureRegistry();
    if (map == nullptr) return false;
    // Room in both lists first, so a model is in both or in neither.
    if (!reserveOne(&allModels, allModelCount, &allModelCap, "allModels") ||
        !reserveRegisteredSlot(registeredCount))
        return false;
    char key[48];
    snprintf(key, sizeof(key), "%lld", threadId);
    // A number already taken by an earlier block's record: keep both models under distinct keys.
    int* hint = nullptr;
    try {
        if (std::unordered_map<long long, int>* suffixes = keySuffixes())
            hint = &suffixes->try_emplace(threadId, 2).first->second;
    } catch (const std::bad_alloc&) {
        // Without the hint the keys are probed from "#2".
    }
    int k = hint != nullptr ? *hint : 2;
    if (search_hashmap(map, key) != nullptr) {
        do snprintf(key, sizeof(key), "%lld#%d", threadId, k++);
        while (search_hashmap(map, key) != nullptr);
    }
    if (modify_hashmap(map, key, m) != 0) return false;
    if (hint != nullptr) *hint = k;
    allModels[allModelCount++] = m;
    qv_store_release(registeredChunks[registeredCount / kChunkModels][registeredCount % kChunkModels], m);
    qv_store_release(registeredCount, registeredCount + 1);
    QV_TRACE_IF(btLevel() > 1, kModule, "Info", "Registered monitor model %p of thread ID %lld under '%s'",
                static_cast<void*>(m), threadId, key);
    return true;
}

// Block of btId in m, made on first use; null when the array cannot grow or memory is short.
// Caller holds m->lockForBT.
QVBTMonitorDataCounters* btBlock(QVMonitorDataModel* m, int btId) {
    if (btId < 0) return nullptr;
    if (btId >= m->currentSizeOfBTArray || m->btmDataArray == nullptr)
        m->currentSizeOfBTArray =
            handleSizeDataArrOf(&m->btmDataArray, m->currentSizeOfBTArray, btId, "btmDataArray");
    if (btId >= m->currentSizeOfBTArray || m->btmDataArray == nullptr) return nullptr;
    QVBTMonitorDataCounters* c = m->btmDataArray[btId];
    if (c == nullptr) {
        c = static_cast<QVBTMonitorDataCounters*>(
            qvlb_calloc(sizeof(QVBTMonitorDataCounters), "QVBTMonitorDataCounters", btId));
        if (c == nullptr) return nullptr;
        initQVBTMonitorDataCounters(c);
        m->btmDataArray[btId] = c;
    }
    return c;
}

// The array and its size are read under the lock: the owning thread may be growing it.
template <class T>
void freeBlocks(apr_thread_mutex_t* lock, T** const& arr, const int& size, const char* purpose) {
    QVLockGuard guard(lock);
    if (arr == nullptr) return;
    for (int i = 0; i < size; i++) {
        qvlb_free(arr[i], purpose, i);
        arr[i] = nullptr;
    }
}

}  // namespace

void initThreadBasedModelMap() {
    QVLockGuard guard(qvMonitorRegistryLock());
    ensureRegistry();
}

void initQVMonitorDataModel(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QV_TRACE_IF(btLevel() == 4, kModule, "Info", "Method called");
    if (qv_load_acquire(qvTD->tlMonitorDataModel) != nullptr) return;
    // Made outside the registry lock: initLock takes it, and allocation need not be serialised.
    QVMonitorDataModel* m = createModel();
    if (m == nullptr) {
        QV_TRACE_IF(btLevel() > 0, kModule, "Error", "Could not create the monitor model of thread ID %lld",
                    qvTD->tlThreadId);
        return;
    }
    adoptMonitorDataModel(qvTD, m);
    QV_TRACE_IF(btLevel() == 4, kModule, "Info", "Method exit");
}

QVMonitorDataModel* newMonitorDataModel() {
    return createModel();
}

void adoptMonitorDataModel(QVPerThreadData_t* qvTD, QVMonitorDataModel* model) {
    if (model == nullptr) return;
    QVLockGuard guard(qvMonitorRegistryLock());
    if (qvTD == nullptr || qv_load_acquire(qvTD->tlMonitorDataModel) != nullptr ||
        !registerModel(qvTD->tlThreadId, model)) {
        freeModel(model);
        return;
    }
    qv_store_release(qvTD->tlMonitorDataModel, model);
}

void registerMonitorDataModel(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    QVMonitorDataModel* m = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (m == nullptr) return;
    QVLockGuard guard(qvMonitorRegistryLock());
    if (!registerModel(qvTD->tlThreadId, m))
        QV_TRACE_IF(
            true, "MEMORY", "Error",
            "Monitor model of thread ID %lld not registered: out of memory; its counts are not reported",
            qvTD->tlThreadId);
}

void discardMonitorDataModel(QVMonitorDataModel* model) {
    freeModel(model);
}

int checkAndInitMonitorDataModel(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return -1;
    if (qv_load_acquire(qvTD->tlMonitorDataModel) != nullptr) return 0;
    {
        QVLockGuard guard(qvMonitorRegistryLock());
        char key[48];
        snprintf(key, sizeof(key), "%lld", qvTD->tlThreadId);
        auto* found = static_cast<QVMonitorDataModel*>(search_hashmap(registry(), key));
        if (found != nullptr) {
            qv_store_release(qvTD->tlMonitorDataModel, found);
            return 0;
        }
    }
    initQVMonitorDataModel(qvTD);
    return qv_load_acquire(qvTD->tlMonitorDataModel) != nullptr ? 1 : -1;
}

void destroyQVMonitorDataModel() {
    QVLockGuard guard(qvMonitorRegistryLock());
    qvlb_hashmap_t* map = registry();
    if (map == nullptr || count_hashmap(map) == 0) {
        QV_TRACE_IF(methodLevel() > 0, "METHOD_MON", "Info",
                    "Returning without destroying the MonitorDataModel, as no threads present in this.");
        return;
    }
    clear_hashmap(map);
    if (std::unordered_map<long long, int>* suffixes = modelRegistryState().keySuffixes) suffixes->clear();
    qv_store_release(registeredCount, 0);
    QV_TRACE_IF(methodLevel() > 0, "METHOD_MON", "Info", "Sucessfully destroyed the MonitorDataModel. %p",
                static_cast<void*>(map));
}

int qvMonitorModelCount() {
    qvlb_hashmap_t* map = registry();
    return map ? static_cast<int>(count_hashmap(map)) : 0;
}

void forEachMonitorDataModel(void (*fn)(QVMonitorDataModel* model, void* ctx), void* ctx) {
    if (fn == nullptr) return;
    // No registry lock: a merge walks one model per record ever made, and registrations (a new
    // block of records) must not wait for it.
    const int n = qv_load_acquire(registeredCount);
    for (int i = 0; i < n; i++) {
        QVMonitorDataModel** chunk = qv_load_acquire(registeredChunks[i / kChunkModels]);
        QVMonitorDataModel* m = qv_load_acquire(chunk[i % kChunkModels]);
        if (m != nullptr) fn(m, ctx);
    }
}

void updatePropertiesOfBT(QVPerThreadData_t* qvTD, int btId) {
    if (qvTD == nullptr) return;
    QV_TRACE_IF(btLevel() > 1, kModule, "Info", "Updating properties started for thread ID : %lld",
                qvTD->tlThreadId);
    QVMonitorDataModel* m = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (m == nullptr || btId < 0) return;
    qv_store(m->lastUpdateTimeStamp, my_gettimeofday());
    {
        QVLockGuard guard(m->lockForBT);
        QVBTMonitorDataCounters* c = btBlock(m, btId);
        if (c == nullptr) {
            QV_TRACE_IF(btLevel() > 0, kModule, "Error", "No counter block for BT id %d; request not counted",
                        btId);
            return;
        }
        updateBTDataCounters(c, qvTD->tlCategory, qvTD->tlDuration, qvTD->tlFpCPUTime, qvTD->syncTime,
                             qvTD->waitTime, qvTD->qTimeInMS);
    }
    QV_TRACE_IF(btLevel() > 1, kModule, "Info", "Updating properties started for thread ID : %lld completed.",
                qvTD->tlThreadId);
}

void updateChildFPCpuTimeOfBT(QVPerThreadData_t* qvTD, int btId, int duration, char category,
                              long long cpuTime) {
    (void)duration;
    (void)category;
    if (qvTD == nullptr) return;
    QVMonitorDataModel* m = qv_load_acquire(qvTD->tlMonitorDataModel);
    if (m == nullptr || btId < 0) return;
    qv_store(m->lastUpdateTimeStamp, my_gettimeofday());
    QVLockGuard guard(m->lockForBT);
    QVBTMonitorDataCounters* c = btBlock(m, btId);
    if (c == nullptr) return;
    updateChildCPUTime(c, cpuTime);
}

void resetMonitorDataModelArrays(QVMonitorDataModel* model) {
    if (model == nullptr) return;
    freeBlocks(model->lockForBT, model->btmDataArray, model->currentSizeOfBTArray, "QVBTMonitorDataCounters");
    freeBlocks(model->lockForMM, model->mmDataArray, model->currentSizeOfMethodArray, "mm");
    freeBlocks(model->lockForIP, model->ipmDataArray, model->currentSizeOfBackendArray, "ipm");
}

void qvMonitorDataModelResetForTest() {
    // The record reserve's thread may still be making or registering models.
    qvTlsPoolReserveStop();
    QVLockGuard guard(qvMonitorRegistryLock());
    for (int i = 0; i < allModelCount; i++) freeModel(allModels[i]);
    qvlb_free(allModels, "allModels", -1);
    allModels = nullptr;
    allModelCount = 0;
    allModelCap = 0;
    for (int c = 0; c < kMaxChunks && registeredChunks[c] != nullptr; c++) {
        qvlb_free(registeredChunks[c], "registeredModels", c);
        registeredChunks[c] = nullptr;
    }
    registeredCount = 0;
    if (std::unordered_map<long long, int>* suffixes = modelRegistryState().keySuffixes) suffixes->clear();
    destroy_hashmap(registry());
    qv_store_release(threadBasedModelMap, static_cast<qvlb_hashmap_t*>(nullptr));
}
