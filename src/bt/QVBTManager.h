// The BT subsystem's start-up and the naming of requests: live BTs, identifier assignment with the
// "Others" overflow, the BT metadata record, and the id -> object table of the pattern rules.
#ifndef QVBTMANAGER_H
#define QVBTMANAGER_H

#include <apr_thread_mutex.h>

#include "qvbt/qvbt_bt_object.h"

// The default global rule: names a request by its first two URL segments.
#define QVBT_DEFAULT_GLOBAL_RULE \
    "1|2|Default|Segments-Of-URI-With-Dynamic-Part-Of-Request|FromFirst|2|Request-Header|CustomeHeader|-"

// Start-up of the BT subsystem (agent start-up hook initBTSubsystem): creates the maps and the
// manager lock, initialises the BT monitor, reads "<home>/BTThresholdFile.txt" and then
// "<home>/BTRuleFile.txt" (qvHomePath), and applies the default global rule when no rule was found.
// Start-up thread.
void QVBTConfigModelInit();

// Names the request (URL without query, query string, value of the BT header; any may be null) and
// returns its BT object. Null means excluded (pattern exclusion, or a pattern identifier without
// an object). Under pattern rules no lock is taken; otherwise updateBTObject runs with lock (the
// caller's per-thread lock; may be null) held. A known BT costs one lookup and no other lock.
// Any thread; no allocation unless a new BT is made.
BTObject* get_obj_from_bt_name(const char* url, const char* query, const char* btHeaderValue,
                               apr_thread_mutex_t* lock);

// Finds or creates the live BT of name (a buffer of at least 129 bytes; overwritten with "Others"
// when max_bt_count identifiers are used up). New BTs get identifiers 2..max_bt_count in order of
// first appearance, their metadata record and room in the BT monitor's array. Concurrent callers
// meeting one new name get one object with one identifier. Returns null for a null name or when
// memory is short. Any thread.
BTObject* updateBTObject(char* name);

// Sends the metadata record "7,<id>,<name>\n" of obj through dumpData. Null obj: nothing.
void dumpBtMetaData(BTObject* obj, int id);

// Object of pattern identifier id, or null when the id has none (logged with the BT monitor's
// array size). Lock-free.
BTObject* qvbt_pattern_bt_obj(int id);

// Pattern identifier table, built by the rule reader while it parses pattern lines and published
// once complete. Reader thread, with qvbt_rule_lock() held.
// Starts a new table with room for ids below size (the BT monitor's array size). Returns 0 or -1.
int qvbt_pattern_table_begin(int size);
// Stores obj at id when 1 <= id < size of the table being built; returns 0, or -1 when refused.
int qvbt_pattern_table_store(int id, BTObject* obj);
// Publishes the table being built (publish non-zero) or drops it; the previous one is retired.
void qvbt_pattern_table_end(int publish);

// Resets the BT maps, rule globals, pattern table and BT monitor. Tests only; no request may be
// naming.
void qvbt_manager_reset_for_test();

#endif
