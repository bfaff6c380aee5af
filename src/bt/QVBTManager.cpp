// BT subsystem start-up, request naming, identifier assignment and the BT metadata record.
#include "bt/QVBTManager.h"

#include <apr_time.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "bt/QVBTMonitor.h"
#include "bt/QVBTRuleReader.h"
#include "collector/QVDataDispatcher.h"
#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "qvbt/qvbt_custom_rule.h"
#include "qvbt/qvbt_rule_execute.h"

namespace {

int bt_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

struct PatternTable {
    int size;
    BTObject** objs;  // size entries; immutable once published
};

const char kTablePurpose[] = "BT pattern table";

struct PatternTableState {
    PatternTable* patternTable = nullptr;   // published, read with acquire
    PatternTable* buildingTable = nullptr;  // reader thread only
};

}  // namespace

QV_INSTANCE_STATE(PatternTableState, patternTableState)

namespace {

#define patternTable (patternTableState().patternTable)
#define buildingTable (patternTableState().buildingTable)

void free_table(void* p) {
    auto* t = static_cast<PatternTable*>(p);
    if (t == nullptr) return;
    qvlb_free(t->objs, kTablePurpose, t->size);
    qvlb_free(t, kTablePurpose, -1);
}

// Opens (or, with DD off, clears) the dynamic-diagnostics window of obj. Fields are atomic: several
// threads may stamp one known BT at once.
void stamp_dd_window(BTObject* obj, bool open) {
    if (!open) {
        qv_store(obj->bt_startTime, 0);
        qv_store(obj->bt_endTime, 0);
        qv_store(obj->dd_IntervalTime, 0);
        qv_store(obj->AIFlag, 0);
        return;
    }
    const long long now = apr_time_sec(apr_time_now());
    const long long interval = qv_load(QVDynamicSettings.ddAIInterval);
    long long end = 0;
    if (__builtin_add_overflow(now, interval, &end)) end = interval > 0 ? LLONG_MAX : LLONG_MIN;
    qv_store(obj->bt_startTime, now);
    qv_store(obj->dd_IntervalTime, interval);
    qv_store(obj->bt_endTime, end);
    qv_store(obj->AIFlag, 1);
}

bool dd_enabled() {
    return qv_load(QVDynamicSettings.enableDDAI) == 1;
}

}  // namespace

namespace {

// What updateBTObject did under bt_obj_map_lock, traced once the lock is released: a trace line
// is a file write, and every request naming a new BT (all of them, after a reconnect) waits for
// that lock.
struct BTRegistration {
    bool missed = false;  // not found on the second look either
    int maxCount = 0;
    bool toOthers = false;
    int addedId = 0;  // the id the BT was made live under, 0 when none
    char rec[160];
    int recLen = 0;
};

// Formats the BT's meta-data record ("7,<id>,<name>") into rec; its length, 0 when it does not fit.
int formatBtMetaData(const BTObject* obj, int id, char* rec, size_t size) {
    const int n = snprintf(rec, size, "7,%d,%s\n", id, obj->bt_name);
    return n > 0 && n < static_cast<int>(size) ? n : 0;
}

void traceDumpedMetaData(const char* rec, int n) {
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Dumping BT meta data record: %.*s", n - 1, rec);
}

BTObject* registerBTLocked(char* name, BTRegistration* done) {
    BTObject* obj = find_bt_obj_in_manager_map(name);
    if (obj != nullptr) return obj;

    const int maxCount = qv_load(config.max_bt_count);
    done->missed = true;
    done->maxCount = maxCount;
    const int total = qv_load(config.total_bt_count);
    int id = 1;
    bool newId = true;
    if (total >= maxCount || total < 1) {
        done->toOthers = true;
        memcpy(name, "Others", sizeof("Others"));
        id = 1;
        newId = false;
    } else {
        id = total + 1;
        qv_store(config.total_bt_count, id);
    }

    obj = find_bt_obj_in_config_map(name, -1, qv_load(allSlow), qv_load(allVerySlow));
    if (obj == nullptr) {
        if (newId) qv_store(config.total_bt_count, id - 1);
        return nullptr;
    }
    if (qv_load(obj->is_meta_data_dumped) == 0) {
        qv_store(obj->bt_id, id);
        stamp_dd_window(obj, dd_enabled());
        if (insert_in_hasmap(name, obj, &manager.bt_obj_map) != 0) {
            // Not live: give the identifier back so the next request can try again.
            qv_store(obj->bt_id, 0);
            if (newId) qv_store(config.total_bt_count, id - 1);
            return nullptr;
        }
        done->addedId = id;
        done->recLen = formatBtMetaData(obj, id, done->rec, sizeof(done->rec));
        if (done->recLen > 0) dumpData(done->rec, done->recLen);
        qv_store(obj->is_meta_data_dumped, 1);
    } else if (newId) {
        // Already live under another identifier (made live by a pattern rule meanwhile): no new id.
        qv_store(config.total_bt_count, id - 1);
    }
    checkAndIncrementAggrBTDataArray(obj);
    return obj;
}

}  // namespace

void dumpBtMetaData(BTObject* obj, int id) {
    if (obj == nullptr) return;
    char rec[160];
    const int n = formatBtMetaData(obj, id, rec, sizeof(rec));
    if (n == 0) return;
    traceDumpedMetaData(rec, n);
    dumpData(rec, n);
}

BTObject* updateBTObject(char* name) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (name == nullptr) return nullptr;
    // Stored names are cut at 128 characters; look up what would have been stored.
    if (strnlen(name, 129) > 128) name[128] = '\0';

    BTObject* obj = find_bt_obj_in_manager_map(name);
    if (obj != nullptr) {
        if (dd_enabled()) stamp_dd_window(obj, true);
        QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "bt_obj found, returning bt_obj of name = %s, id = %d",
                    obj->bt_name, qv_load(obj->bt_id));
        return obj;
    }

    BTRegistration done;
    {
        QVLockGuard guard(qv_load_acquire(manager.bt_obj_map_lock));
        obj = registerBTLocked(name, &done);
    }
    if (!done.missed) return obj;
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "bt_obj not found in manager map. and max count:%d",
                done.maxCount);
    QV_TRACE_IF(bt_level() > 0 && done.toOthers, "BT_MON", "Info",
                "max_bt_count '%d' reached, assiging id '%d' to Others", done.maxCount, 1);
    if (done.addedId > 0) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Adding BT in manager map, name = %s, id = %d", name,
                    done.addedId);
        if (done.recLen > 0) traceDumpedMetaData(done.rec, done.recLen);
    }
    QV_TRACE_IF(bt_level() == 4 && obj != nullptr, "BT_MON", "Info", "Method exit");
    return obj;
}

BTObject* qvbt_pattern_bt_obj(int id) {
    const PatternTable* t = qv_load_acquire(patternTable);
    if (t != nullptr && id >= 0 && id < t->size && t->objs[id] != nullptr) return t->objs[id];
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "aggDataArraySize(%d) <= id(%d), hence no btobj found",
                t ? t->size : qv_load(QVBTMonitor.aggDataArraySize), id);
    return nullptr;
}

BTObject* get_obj_from_bt_name(const char* url, const char* query, const char* btHeaderValue,
                               apr_thread_mutex_t* lock) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    char name[256];
    {
        // The rules are read only inside this block: updateBTObject may wait for locks.
        QVBTRuleReadGuard reading;
        if (qv_load_acquire(bt_rule) == QVBT_RULE_PATTERN) {
            // "<url>?<query>" cut at 255 characters; the '?' is there even for an empty query.
            char text[256];
            size_t len = 0;
            for (const char* part : {url, "?", query}) {
                if (part == nullptr) continue;
                const size_t n = strnlen(part, sizeof(text) - 1 - len);
                memcpy(text + len, part, n);
                len += n;
            }
            text[len] = '\0';
            int id = qvlb_state_machine_get(qv_load_acquire(stateMachine), text, static_cast<int>(len),
                                            qv_load(skipCount));
            if (id == -2) {
                QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info",
                            "Pattern rule : Got id = '%d', excluding for complete_url = '%s'", id, text);
                return nullptr;
            }
            if (id < 1) {
                QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error",
                            "Pattern rule : Got id = '%d', setting to 1 for complete_url = '%s'", id, text);
                id = 1;
            }
            return qvbt_pattern_bt_obj(id);
        }

        const QVBTHeaderBasedRule* hdr = qv_load_acquire(header_rule);
        const bool headerNaming = hdr != nullptr && hdr->headerValue[0] != '\0';
        if (headerNaming && btHeaderValue != nullptr) {
            snprintf(name, 129, "%s", btHeaderValue);
        } else if (headerNaming || !qvbt_custom_naming()) {
            // A header rule without the header's value falls back to the global rule.
            if (qvbt_execute_global_rule(url, nullptr, nullptr, nullptr, name, sizeof(name)) == nullptr)
                snprintf(name, sizeof(name), "Others");
            name[128] = '\0';
            QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Updated btName is:%s", name);
        } else {
            // Neither the query nor the method reaches the custom rules on this path.
            qvbt_execute_custom_rule(url, nullptr, nullptr, name, 129);
        }
    }
    QVLockGuard guard(lock);
    return updateBTObject(name);
}

int qvbt_pattern_table_begin(int size) {
    free_table(buildingTable);
    buildingTable = nullptr;
    if (size <= 0) size = 1;
    auto* t = static_cast<PatternTable*>(qvlb_calloc(sizeof(PatternTable), kTablePurpose, -1));
    if (t == nullptr) return -1;
    t->objs = static_cast<BTObject**>(
        qvlb_calloc(sizeof(BTObject*) * static_cast<size_t>(size), kTablePurpose, size));
    if (t->objs == nullptr) {
        qvlb_free(t, kTablePurpose, -1);
        return -1;
    }
    t->size = size;
    buildingTable = t;
    return 0;
}

int qvbt_pattern_table_store(int id, BTObject* obj) {
    if (buildingTable == nullptr || obj == nullptr || id < 1 || id >= buildingTable->size) return -1;
    buildingTable->objs[id] = obj;
    return 0;
}

void qvbt_pattern_table_end(int publish) {
    if (!publish || buildingTable == nullptr) {
        free_table(buildingTable);
        buildingTable = nullptr;
        return;
    }
    PatternTable* old = qv_load_acquire(patternTable);
    qv_store_release(patternTable, buildingTable);
    buildingTable = nullptr;
    qvbt_retire(old, free_table);
}

void QVBTConfigModelInit() {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (qvbt_bt_maps_init() != 0)
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "BT maps could not be created");
    QVBTMonitorInit();

    const char* home = getQVHome();
    if (home == nullptr) home = "";
    char path[1024];
    qvbt_set_home_file_source(true);
    snprintf(path, sizeof(path), "%s/BTThresholdFile.txt", home);
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Reading BT threshold file '%s'", path);
    qvbt_read_threshold_file(path);

    snprintf(path, sizeof(path), "%s/BTRuleFile.txt", home);
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Reading BT rule file '%s'", path);
    qvbt_read_rule_file(path);
    qvbt_set_home_file_source(false);

    if (qv_load(bt_rule) == QVBT_RULE_NONE) {
        char line[] = QVBT_DEFAULT_GLOBAL_RULE;
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Setting defult BT rule = %s", line);
        parse_global_rule(line);
    }
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "max_bt_count = %d, total_bt_count = %d, BTRuleFile = %s",
                qv_load(config.max_bt_count), qv_load(config.total_bt_count), path);
    // Everything this start replaced (rules, automatons, tables, maps) goes once no request
    // still reads it.
    qvbt_reclaim();
}

void qvbt_manager_reset_for_test() {
    qvbt_rule_reader_reset_for_test();
    {
        QVLockGuard guard(qvbt_rule_lock());
        free_table(buildingTable);
        buildingTable = nullptr;
        qvbt_retire(patternTable, free_table);
        patternTable = nullptr;
    }
    qvbt_rule_execute_reset_for_test();
    qvBTMonitorResetForTest();
    qvbt_bt_object_reset_for_test();
}
