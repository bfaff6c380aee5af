// The BT naming rules in force (global URL rule, header rule, pattern automaton, custom rule)
// and the functions that apply them to a request.
#ifndef QVBT_RULE_EXECUTE_H
#define QVBT_RULE_EXECUTE_H

#include <apr_thread_mutex.h>

#include "qvbt/qvlb_state_machine.h"

// The URL naming rule (rule-file type 1).
struct QVBTGlobalRule {
    int rule_mode;   // 1 whole URL, 2 segment cut, 3 whole URL + extra part, 4 segment cut + extra part
    int match_type;  // not read by the naming
    char parameter[65];
    char parameter_at_start[65];  // "<parameter>="
    int parameter_at_start_len;
    char parameter_at_end[65];  // "&<parameter>="
    int parameter_at_end_len;
    char header[257];
    int include_uri_in_name_order;    // 1 FromFirst, 2 FromLast
    int include_uri_in_name_segment;  // '/'-segments kept by the segment cut
    int seg_type;             // 3 URI segment numbers, 4 request method, 5 parameter value, 6 request header
    int uri_seg_no_list[32];  // 1-based segment numbers
    int uri_seg_no_list_length;
};

// Header-based naming: the name is the request header headerName, active only while headerValue
// is not empty.
struct QVBTHeaderBasedRule {
    char headerName[256];
    char headerValue[256];
};

// bt_rule values.
constexpr int QVBT_RULE_NONE = 0;
constexpr int QVBT_RULE_GLOBAL = 1;
constexpr int QVBT_RULE_PATTERN = 7;

struct QVBTRetiredRule;

// The rules of one application instance (see foundation/qvlb_instance.h).
struct QVBTRuleState {
    // Rules in force. The pointers are published with a release store once their record is
    // complete and read with qv_load_acquire inside a QVBTRuleReadGuard; a replaced record is
    // retired and freed by qvbt_reclaim once no reader can hold it. Ints are read and written with
    // qv_load/qv_store.
    QVBTGlobalRule* global_rule = nullptr;       // null until a global rule was parsed
    QVBTHeaderBasedRule* header_rule = nullptr;  // null unless parse_header_rule ran
    qvlbStateMachine* stateMachine = nullptr;    // pattern automaton; null without pattern rules
    int bt_rule = QVBT_RULE_NONE;                // QVBT_RULE_*
    int maxStates = 128;                         // initial automaton size (default 128)
    int skipCount = 0;                           // leading pattern characters ignored (default 0)
    int allSlow = 3000;                          // default thresholds (3000 / 5000 ms)
    int allVerySlow = 5000;

    apr_thread_mutex_t* rule_lock = nullptr;
    QVBTRetiredRule* retired_head = nullptr;  // freed by the next reclaim
    QVBTRetiredRule* kept_head = nullptr;     // freed by the reset
    // Readers count themselves in the slot of the phase they entered under; a reclaim moves the
    // phase on and waits for the old slot to empty. Only the outermost guard of a thread counts.
    unsigned int read_phase = 0;
    long long readers[2] = {0, 0};
};
QVBTRuleState& qvbtRuleState();

#define global_rule (qvbtRuleState().global_rule)
#define header_rule (qvbtRuleState().header_rule)
#define stateMachine (qvbtRuleState().stateMachine)
#define bt_rule (qvbtRuleState().bt_rule)
#define maxStates (qvbtRuleState().maxStates)
#define skipCount (qvbtRuleState().skipCount)
#define allSlow (qvbtRuleState().allSlow)
#define allVerySlow (qvbtRuleState().allVerySlow)

// Serialises the writers of the rule globals (the rule and threshold readers). Nested; created on
// first use. Never taken by requests.
apr_thread_mutex_t* qvbt_rule_lock();

// Marks the calling thread as reading the rules in force (the rule records, automatons, pattern
// table and BT maps) of the instance it acts for, for the guard's life, so qvbt_reclaim keeps them
// valid meanwhile. Nests; no lock, no allocation: two atomic operations for the outermost guard
// of an instance.
class QVBTRuleReadGuard {
  public:
    QVBTRuleReadGuard();
    ~QVBTRuleReadGuard();
    QVBTRuleReadGuard(const QVBTRuleReadGuard&) = delete;
    QVBTRuleReadGuard& operator=(const QVBTRuleReadGuard&) = delete;

  private:
    // The thread's read of another instance that this guard interrupted, restored at its end.
    QVBTRuleState* outerState_ = nullptr;
    int outerDepth_ = 0;
    unsigned int outerSlot_ = 0;
};

// Queues ptr (already unpublished) for release with fn by the next qvbt_reclaim. Null ptr:
// nothing. When memory is short the pointer is kept forever (a small leak, never a
// use-after-free). Writer thread.
void qvbt_retire(void* ptr, void (*fn)(void*));
// As qvbt_retire, for records whose fields callers keep pointers to after their read (the header
// rule's name): released only by the reset.
void qvbt_retire_until_reset(void* ptr, void (*fn)(void*));
// Releases everything retired so far once every reader that may still hold it has left its read
// guard (waits for them: they stay briefly and never wait for the writer). Writer thread, outside
// any read guard (from inside one it does nothing).
void qvbt_reclaim();
// Release functions for qvbt_retire: a rule record allocated with qvlb_calloc, and a heap
// qvlbStateMachine with its rows.
void qvbt_free_rule_record(void* p);
void qvbt_free_state_machine(void* p);

// Applies the global rule to the request: the name goes into out (outSize bytes, always
// NUL-terminated when outSize > 0) and out is returned. Without a global rule the name is
// "Others". Returns null (out empty) for an unknown rule mode or extra-part kind, or a null/empty
// out. Modes 3 and 4 build at most 255 characters. url, query, method, header may be null.
// Any thread; no allocation.
char* qvbt_execute_global_rule(const char* url, const char* query, const char* method, const char* header,
                               char* out, int outSize);

// Names the request by the custom-rule automaton in force: the first matching rule's BT name, or
// "others" when none matches (or no automaton). Returns out (null for a null/empty out).
char* qvbt_execute_custom_rule(const char* url, const char* query, const char* method, char* out,
                               int outSize);

// Copies the header rule's headerValue into out (empty without a header rule). Returns out.
char* qvbt_execute_header_rule(const char* url, char* out, int outSize);

// Pattern rules are applied by the BT manager itself; this only satisfies the rule interface.
// Returns out unchanged.
char* qvbt_execute_pattern_rule(const char* url, const char* query, const char* method, const char* header,
                                char* out, int outSize);

// Resets every rule global to its default and frees current and retired rules, automatons and
// custom rule. Tests only: no request may be naming.
void qvbt_rule_execute_reset_for_test();

#endif
