// Business-transaction objects and the two maps that hold them: the config map (every BT ever
// made, including those only the threshold file named) and the manager map (live BTs, i.e. those
// with an identifier).
#ifndef QVBT_BT_OBJECT_H
#define QVBT_BT_OBJECT_H

#include <apr_thread_mutex.h>

struct qvlb_lfmap_t;

// Response-time thresholds in milliseconds: below slow normal, from slow to below very_slow
// slow, from very_slow on very slow. Fields of a shared BTObject are written with qv_store and
// read with qv_load (the threshold reader may run while requests end).
struct Threshold {
    int slow;
    int very_slow;
};

// One business transaction. Allocated once, zeroed, never freed while the agent runs; referenced
// from both maps, the BT monitor's array and per-thread records. bt_name never changes after
// creation. bt_id, is_meta_data_dumped, bt_threshold and the diagnostics window (bt_startTime,
// bt_endTime, dd_IntervalTime, AIFlag) may be written while other threads read them: access
// them with qv_load / qv_store.
struct BTObject {
    char bt_name[129];  // at most 128 characters, NUL-terminated
    char bt_category;   // not written by the BT subsystem
    int is_meta_data_dumped;
    int bt_id;  // 0 until assigned; 1 is "Others"
    long long bt_startTime;
    long long bt_endTime;
    long long dd_IntervalTime;
    char AIFlag;
    Threshold bt_threshold;
    int enableBodyCapture;
    int maxBodySize;
};

// Name -> BTObject*. Lookups take no lock; entries are never removed.
struct BTObjectMap {
    qvlb_lfmap_t* hash;
};

// Every BT object ever made.
struct QVBTConfigModel {
    BTObjectMap bt_obj_map;
    int max_bt_count;    // largest identifier a URL-named BT may receive (keyword maxBTCount); qv_load
    int total_bt_count;  // last identifier handed out; starts at 1 (Others); written under the
                         // manager lock, read anywhere with qv_load
};

// The live BTs.
struct QVBTManager {
    apr_thread_mutex_t* bt_obj_map_lock;  // nested; serialises identifier assignment
    BTObjectMap bt_obj_map;
};

// One of each per application instance (see foundation/qvlb_instance.h).
QVBTConfigModel& qvbtConfigOfInstance();
QVBTManager& qvbtManagerOfInstance();
#define config (qvbtConfigOfInstance())
#define manager (qvbtManagerOfInstance())

// Zeroes config and manager, sets max_bt_count 256 and total_bt_count 1, and creates both maps
// and the manager lock. The maps of an earlier call are retired (freed by qvbt_reclaim); their
// objects are never freed, and a later call makes no new object for a name seen before but
// takes the old one back with a fresh state. Returns 0, or -1 when memory is short. Start-up
// thread.
int qvbt_bt_maps_init();

// Allocates a zeroed object named name (cut at 128 characters; null gives ""), with the given
// thresholds; bt_id is set only when id > 0. Returns null (logged in the memory trace) when memory
// is short. The caller owns the object (in practice: stores it in a map for the process's life).
BTObject* make_new_bt_obj(const char* name, int id, int slow, int very_slow);

// Stores obj under a private copy of key in map (the copy is labelled "Key '%s' for qvbt hash" in
// memory tracing). An existing entry gets the new object. Returns 0, or -1 for a null argument,
// a map not created or when memory is short. Writers are serialised inside the map.
int insert_in_hasmap(const char* key, BTObject* obj, BTObjectMap* map);

// Live BT of name, or null. No lock, no allocation; any thread.
BTObject* find_bt_obj_in_manager_map(const char* name);

// Finds or makes the object of name in the config map (a new one gets slow/very_slow). When
// id > 0 it also sets bt_id and enters the object into the manager map. Returns null when name
// is null or memory is short. Called by the rule readers and, under the manager lock, by
// updateBTObject; two concurrent callers for one new name get the same object.
BTObject* find_bt_obj_in_config_map(const char* name, int id, int slow, int very_slow);

// Destroys both maps and frees every BT object ever made; config and manager are zeroed. Tests
// only: nothing may reference a BT object afterwards.
void qvbt_bt_object_reset_for_test();

#endif
