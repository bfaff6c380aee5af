// Business-transaction objects, the config and manager maps, and the lookups over them.
#include "qvbt/qvbt_bt_object.h"

#include <cstdio>
#include <cstring>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_lfmap.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "qvbt/qvbt_rule_execute.h"

namespace {

struct BTObjectState {
    QVBTConfigModel configModel = {};
    QVBTManager btManager = {};
    // Serialises find-or-make in the config map, so two threads (or a reader and a request) that
    // meet the same new name make one object.
    apr_thread_mutex_t* config_lock = nullptr;
    // Every object ever made, by name, for the life of the instance: a start makes new maps but
    // takes the objects of names seen before from here, so holders of an object never see it freed
    // and repeated starts do not allocate again.
    qvlb_lfmap_t* all_objects = nullptr;
};

}  // namespace

QV_INSTANCE_STATE(BTObjectState, btObjectState)

QVBTConfigModel& qvbtConfigOfInstance() {
    return btObjectState().configModel;
}

QVBTManager& qvbtManagerOfInstance() {
    return btObjectState().btManager;
}

namespace {

#define config_lock (btObjectState().config_lock)
#define all_objects (btObjectState().all_objects)

int bt_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

const char kObjPurpose[] = "BTObject";

void free_obj(const char*, void* value, void*) {
    qvlb_free(value, kObjPurpose, -1);
}

void destroy_map(void* map) {
    qvlb_lfmap_destroy(static_cast<qvlb_lfmap_t*>(map));
}

// Gives a known object the state make_new_bt_obj gives a new one. Its name stays.
void renew_obj(BTObject* obj, int id, int slow, int very_slow) {
    qv_store(obj->bt_category, 0);
    qv_store(obj->is_meta_data_dumped, 0);
    qv_store(obj->bt_id, id > 0 ? id : 0);
    qv_store(obj->bt_startTime, 0);
    qv_store(obj->bt_endTime, 0);
    qv_store(obj->dd_IntervalTime, 0);
    qv_store(obj->AIFlag, 0);
    qv_store(obj->bt_threshold.slow, slow);
    qv_store(obj->bt_threshold.very_slow, very_slow);
    qv_store(obj->enableBodyCapture, 0);
    qv_store(obj->maxBodySize, 0);
}

}  // namespace

int qvbt_bt_maps_init() {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (qvlb_create_nested_mutex(&config_lock, nullptr) != APR_SUCCESS) return -1;
    // A lock made by an earlier initialisation is reused: a thread may still be waiting on it.
    if (qv_load_acquire(manager.bt_obj_map_lock) == nullptr &&
        qvlb_create_nested_mutex(&manager.bt_obj_map_lock, nullptr) != APR_SUCCESS)
        return -1;
    qvlb_lfmap_t* cfg = qvlb_lfmap_create(512);
    qvlb_lfmap_t* mgr = qvlb_lfmap_create(512);
    qvlb_lfmap_t* pool = qv_load_acquire(all_objects) == nullptr ? qvlb_lfmap_create(512) : nullptr;
    qvlb_lfmap_t* oldCfg = nullptr;
    qvlb_lfmap_t* oldMgr = nullptr;
    {
        // Both locks, in the order updateBTObject takes them: no insertion or locked walk is
        // still using a map once it is swapped out.
        QVLockGuard managerGuard(qv_load_acquire(manager.bt_obj_map_lock));
        QVLockGuard guard(config_lock);
        if (all_objects == nullptr) {
            qv_store_release(all_objects, pool);
            pool = nullptr;
        }
        // Field by field, never memset: request threads read these while a start re-initialises them.
        qv_store(config.max_bt_count, 256);
        qv_store(config.total_bt_count, 1);
        oldCfg = qv_load_acquire(config.bt_obj_map.hash);
        oldMgr = qv_load_acquire(manager.bt_obj_map.hash);
        qv_store_release(config.bt_obj_map.hash, cfg);
        qv_store_release(manager.bt_obj_map.hash, mgr);
    }
    // Lock-free lookups may still walk the old maps; their objects stay in all_objects. Retired
    // outside the map locks: the rule readers take the rule lock before them.
    qvbt_retire(oldCfg, destroy_map);
    qvbt_retire(oldMgr, destroy_map);
    qvlb_lfmap_destroy(pool);
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method exit");
    return (cfg != nullptr && mgr != nullptr && all_objects != nullptr) ? 0 : -1;
}

BTObject* make_new_bt_obj(const char* name, int id, int slow, int very_slow) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    auto* obj = static_cast<BTObject*>(qvlb_calloc(sizeof(BTObject), kObjPurpose, id));
    if (obj == nullptr) return nullptr;
    if (name != nullptr) {
        strncpy(obj->bt_name, name, 128);
        obj->bt_name[128] = '\0';
    }
    if (id > 0) obj->bt_id = id;
    obj->bt_threshold.slow = slow;
    obj->bt_threshold.very_slow = very_slow;
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info",
                "New BT object made, name = %s, id = %d, slow = %d, very slow = %d", obj->bt_name, id, slow,
                very_slow);
    return obj;
}

int insert_in_hasmap(const char* key, BTObject* obj, BTObjectMap* map) {
    if (key == nullptr || obj == nullptr || map == nullptr) return -1;
    qvlb_lfmap_t* hash = qv_load_acquire(map->hash);
    if (hash == nullptr) return -1;
    char purpose[192];
    snprintf(purpose, sizeof(purpose), "Key '%.128s' for qvbt hash", key);
    if (qvlb_lfmap_put(hash, key, obj, purpose) != 0) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Could not store BT '%s' in its map", key);
        return -1;
    }
    return 0;
}

BTObject* find_bt_obj_in_manager_map(const char* name) {
    QVBTRuleReadGuard reading;
    return static_cast<BTObject*>(qvlb_lfmap_get(qv_load_acquire(manager.bt_obj_map.hash), name));
}

BTObject* find_bt_obj_in_config_map(const char* name, int id, int slow, int very_slow) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (name == nullptr) return nullptr;
    // Map keys are the stored names, which are cut at 128 characters.
    char key[129];
    strncpy(key, name, 128);
    key[128] = '\0';
    QVLockGuard guard(qv_load_acquire(config_lock));
    auto* obj = static_cast<BTObject*>(qvlb_lfmap_get(qv_load_acquire(config.bt_obj_map.hash), key));
    if (obj == nullptr) {
        obj = static_cast<BTObject*>(qvlb_lfmap_get(all_objects, key));
        if (obj != nullptr) {
            renew_obj(obj, id, slow, very_slow);
        } else {
            obj = make_new_bt_obj(key, id, slow, very_slow);
            if (obj == nullptr) return nullptr;
            if (qvlb_lfmap_put(all_objects, key, obj, "BT object by name") != 0) {
                // Not reachable through any map: nothing else can hold it yet.
                qvlb_free(obj, kObjPurpose, id);
                return nullptr;
            }
        }
        if (insert_in_hasmap(key, obj, &config.bt_obj_map) != 0) return nullptr;
    }
    if (id > 0) {
        qv_store(obj->bt_id, id);
        insert_in_hasmap(key, obj, &manager.bt_obj_map);
    }
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method exit");
    return obj;
}

void qvbt_bt_object_reset_for_test() {
    qvlb_lfmap_destroy(qv_load(config.bt_obj_map.hash));
    qvlb_lfmap_destroy(qv_load(manager.bt_obj_map.hash));
    qvlb_lfmap_foreach(all_objects, free_obj, nullptr);
    qvlb_lfmap_destroy(all_objects);
    all_objects = nullptr;
    apr_thread_mutex_t* lock = manager.bt_obj_map_lock;
    memset(&config, 0, sizeof(config));
    memset(&manager, 0, sizeof(manager));
    // Locks live in the control pool; keep them for the next initialisation.
    manager.bt_obj_map_lock = lock;
}
