// Rule globals and the application of the global, custom, header and pattern rules to a request.
#include "qvbt/qvbt_rule_execute.h"

#include <apr_time.h>

#include <cstdio>
#include <cstring>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "qvbt/qvbt_custom_rule.h"
#include "qvbt/qvbt_utils.h"

QV_INSTANCE_STATE_DEFINE(QVBTRuleState, qvbtRuleState)

struct QVBTRetiredRule {
    void* ptr;
    void (*fn)(void*);
    QVBTRetiredRule* next;
};

namespace {

using Retired = QVBTRetiredRule;

int bt_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

// The instance whose readers the thread's outermost guard counts in, with the guards' depth and
// the slot counted. Keyed by instance: a thread may act for several, one after the other.
thread_local QVBTRuleState* read_state = nullptr;
thread_local int read_depth = 0;
thread_local unsigned int read_slot = 0;

void push_retired(Retired** head, void* ptr, void (*fn)(void*)) {
    if (ptr == nullptr) return;
    auto* r = static_cast<Retired*>(qvlb_malloc(sizeof(Retired), "retired BT rule", -1));
    if (r == nullptr) return;
    r->ptr = ptr;
    r->fn = fn;
    r->next = *head;
    *head = r;
}

void free_retired(Retired* r) {
    while (r != nullptr) {
        Retired* next = r->next;
        if (r->fn) r->fn(r->ptr);
        qvlb_free(r, "retired BT rule", -1);
        r = next;
    }
}

// Bounded, always terminated text building without the cost of a format parser (names are built
// on every request).
class Cut {
  public:
    Cut(char* out, int cap) : out_(out), cap_(cap > 0 ? static_cast<size_t>(cap) : 0) {
        if (cap_ > 0) out_[0] = '\0';
    }
    Cut& add(const char* s, size_t maxn = 255) {
        if (s == nullptr || cap_ == 0) return *this;
        size_t n = strnlen(s, maxn);
        if (n > cap_ - 1 - len_) n = cap_ - 1 - len_;
        memcpy(out_ + len_, s, n);
        len_ += n;
        out_[len_] = '\0';
        return *this;
    }
    size_t length() const { return len_; }

  private:
    char* out_;
    size_t cap_;
    size_t len_ = 0;
};

void copy_text(char* out, int outSize, const char* src) {
    Cut(out, outSize).add(src, static_cast<size_t>(outSize));
}

// Mode 3/4 with segment numbers: base followed by the chosen segments of url joined by '/'.
char* append_segments(const QVBTGlobalRule* rule, const char* url, const char* base, char* out, int limit) {
    // A copy: splitting must not touch the caller's URL.
    char copy[256];
    copy_text(copy, sizeof(copy), url);
    const char* segs[32];
    int nseg = 0;
    for (char* p = copy; *p != '\0' && nseg < 32;) {
        while (*p == '/') ++p;
        if (*p == '\0') break;
        segs[nseg++] = p;
        while (*p != '\0' && *p != '/') ++p;
        if (*p == '/') *p++ = '\0';
    }
    char joined[256];
    Cut j(joined, sizeof(joined));
    const int listLen = rule->uri_seg_no_list_length < 32 ? rule->uri_seg_no_list_length : 32;
    for (int i = 0; i < listLen; ++i) {
        const int n = rule->uri_seg_no_list[i];
        if (n > nseg) break;
        if (n < 1) continue;
        if (i > 0) j.add("/");
        j.add(segs[n - 1]);
    }
    Cut(out, limit).add(base).add(joined);
    return out;
}

}  // namespace

apr_thread_mutex_t* qvbt_rule_lock() {
    apr_thread_mutex_t*& lock = qvbtRuleState().rule_lock;
    if (qv_load_acquire(lock) == nullptr) qvlb_create_nested_mutex(&lock, nullptr);
    return qv_load_acquire(lock);
}

QVBTRuleReadGuard::QVBTRuleReadGuard() {
    QVBTRuleState& st = qvbtRuleState();
    if (read_depth > 0 && read_state == &st) {
        read_depth++;
        return;
    }
    outerState_ = read_state;
    outerDepth_ = read_depth;
    outerSlot_ = read_slot;
    read_state = &st;
    read_depth = 1;
    for (;;) {
        // The phase is checked again after counting: a reader counted in a slot whose phase had
        // already moved on might be missed by the reclaim, so it counts itself again.
        const unsigned int p = __atomic_load_n(&st.read_phase, __ATOMIC_SEQ_CST);
        __atomic_fetch_add(&st.readers[p & 1], 1, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(&st.read_phase, __ATOMIC_SEQ_CST) == p) {
            read_slot = p & 1;
            return;
        }
        __atomic_fetch_sub(&st.readers[p & 1], 1, __ATOMIC_SEQ_CST);
    }
}

QVBTRuleReadGuard::~QVBTRuleReadGuard() {
    if (--read_depth > 0) return;
    __atomic_fetch_sub(&read_state->readers[read_slot], 1, __ATOMIC_SEQ_CST);
    read_state = outerState_;
    read_depth = outerDepth_;
    read_slot = outerSlot_;
}

void qvbt_retire(void* ptr, void (*fn)(void*)) {
    QVLockGuard guard(qvbt_rule_lock());
    push_retired(&qvbtRuleState().retired_head, ptr, fn);
}

void qvbt_retire_until_reset(void* ptr, void (*fn)(void*)) {
    QVLockGuard guard(qvbt_rule_lock());
    push_retired(&qvbtRuleState().kept_head, ptr, fn);
}

void qvbt_reclaim() {
    // Inside a read of any instance: the wait below could be for this very thread.
    if (read_depth > 0) return;
    QVLockGuard guard(qvbt_rule_lock());
    QVBTRuleState& st = qvbtRuleState();
    Retired* list = st.retired_head;
    if (list == nullptr) return;
    st.retired_head = nullptr;
    // Everything in the list was unpublished before this point: readers entering from now on
    // cannot reach it, and those counted under the old phase are waited for.
    const unsigned int p = __atomic_fetch_add(&st.read_phase, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&st.readers[p & 1], __ATOMIC_SEQ_CST) != 0) apr_sleep(50);
    free_retired(list);
}

void qvbt_free_rule_record(void* p) {
    qvlb_free(p, "BT rule", -1);
}

void qvbt_free_state_machine(void* p) {
    auto* m = static_cast<qvlbStateMachine*>(p);
    qvlb_state_machine_free(m);
    qvlb_free(m, "BT state machine", -1);
}

char* qvbt_execute_global_rule(const char* url, const char* query, const char* method, const char* header,
                               char* out, int outSize) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (out == nullptr || outSize <= 0) return nullptr;
    out[0] = '\0';
    QVBTRuleReadGuard reading;
    const QVBTGlobalRule* rule = qv_load_acquire(global_rule);
    if (rule == nullptr) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "global_rule is NULL.");
        copy_text(out, outSize, "Others");
        return out;
    }
    switch (rule->rule_mode) {
        case 1:
            // The URL itself, cut at 255 characters like the segment cut does.
            Cut(out, outSize).add(url);
            return out;
        case 2:
            return qvbt_get_bt_name_from_url_r(rule, url, out, outSize);
        case 3:
        case 4:
            break;
        default:
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Unknown global rule mode %d", rule->rule_mode);
            return nullptr;
    }
    const int limit = outSize < 256 ? outSize : 256;
    char base[256];
    if (rule->rule_mode == 3 && rule->seg_type != 3)
        Cut(base, sizeof(base)).add(url);
    else
        qvbt_get_bt_name_from_url_r(rule, url, base, sizeof(base));
    const char* extra = nullptr;
    switch (rule->seg_type) {
        case 3:
            return append_segments(rule, url, base, out, limit);
        case 4:
            extra = method;
            break;
        case 5:
            extra = qvbt_get_param_value_r(rule, query);
            break;
        case 6:
            extra = header;
            break;
        default:
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Unknown segment type %d", rule->seg_type);
            return nullptr;
    }
    Cut name(out, limit);
    name.add(base);
    if (extra != nullptr && extra[0] != '\0') name.add(".").add(extra);
    return out;
}

char* qvbt_execute_custom_rule(const char* url, const char* query, const char* method, char* out,
                               int outSize) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (out == nullptr || outSize <= 0) return nullptr;
    QVBTRuleReadGuard reading;
    const char* name = search_match_machine(qv_load_acquire(trie_node), url, query, method);
    copy_text(out, outSize, name ? name : "others");
    return out;
}

char* qvbt_execute_header_rule(const char* url, char* out, int outSize) {
    (void)url;
    if (out == nullptr || outSize <= 0) return nullptr;
    QVBTRuleReadGuard reading;
    const QVBTHeaderBasedRule* rule = qv_load_acquire(header_rule);
    copy_text(out, outSize, rule ? rule->headerValue : "");
    return out;
}

char* qvbt_execute_pattern_rule(const char* url, const char* query, const char* method, const char* header,
                                char* out, int outSize) {
    (void)url;
    (void)query;
    (void)method;
    (void)header;
    (void)outSize;
    return out;
}

void qvbt_rule_execute_reset_for_test() {
    QVLockGuard guard(qvbt_rule_lock());
    qvbt_retire(global_rule, qvbt_free_rule_record);
    qvbt_retire(header_rule, qvbt_free_rule_record);
    qvbt_retire(stateMachine, qvbt_free_state_machine);
    QVBTRuleState& st = qvbtRuleState();
    free_retired(st.retired_head);
    free_retired(st.kept_head);
    st.retired_head = nullptr;
    st.kept_head = nullptr;
    global_rule = nullptr;
    header_rule = nullptr;
    stateMachine = nullptr;
    bt_rule = QVBT_RULE_NONE;
    maxStates = 128;
    skipCount = 0;
    allSlow = 3000;
    allVerySlow = 5000;
    qvbt_custom_rule_reset_for_test();
}
