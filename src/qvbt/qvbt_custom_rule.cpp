// Custom BT rules: lexicon building, the compiled rule automaton, and request matching.
#include "qvbt/qvbt_custom_rule.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "qvbt/qvbt_rule_execute.h"
#include "qvbt/qvbt_utils.h"

namespace {

struct CustomRuleState {
    QVBTCustomRule rule = {};
    qvlbTrie* trie = nullptr;
};

}  // namespace

QV_INSTANCE_STATE(CustomRuleState, customRuleState)

QVBTCustomRule& qvbtCustomRuleOfInstance() {
    return customRuleState().rule;
}

qvlbTrie*& qvbtTrieNodeOfInstance() {
    return customRuleState().trie;
}

namespace {

int bt_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

const char kTriePurpose[] = "custom rule automaton";

void free_trie(void* p) {
    auto* t = static_cast<qvlbTrie*>(p);
    if (t == nullptr) return;
    qvlb_free(t->rules, kTriePurpose, -1);
    qvlb_free(t->params, kTriePurpose, -1);
    qvlb_free(t, kTriePurpose, -1);
}

// Regular-expression subset: c, '.', '*' (after an atom), '^', '$'. Recursion depth is bounded
// by the pattern length (at most 255 from the rule file).
bool match_here(const char* re, const char* s, const char* end);

bool match_star(char c, const char* re, const char* s, const char* end) {
    do {
        if (match_here(re, s, end)) return true;
    } while (s < end && (*s++ == c || c == '.'));
    return false;
}

bool match_here(const char* re, const char* s, const char* end) {
    if (re[0] == '\0') return true;
    if (re[1] == '*') return match_star(re[0], re + 2, s, end);
    if (re[0] == '$' && re[1] == '\0') return s == end;
    if (s < end && (re[0] == '.' || re[0] == *s)) return match_here(re + 1, s + 1, end);
    return false;
}

bool match_regex(const char* re, const char* s, const char* end) {
    if (re[0] == '^') return match_here(re + 1, s, end);
    do {
        if (match_here(re, s, end)) return true;
    } while (s++ < end);
    return false;
}

bool in_list(std::string_view subject, std::string_view list) {
    while (true) {
        const size_t comma = list.find(',');
        std::string_view item = list.substr(0, comma);
        while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
        while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
        if (item == subject) return true;
        if (comma == std::string_view::npos) return false;
        list.remove_prefix(comma + 1);
    }
}

// Finds parameter name in query ("a=1&b&c=3"); on success *value is its value (empty when the
// parameter has no '=').
bool find_param(std::string_view query, std::string_view name, std::string_view* value) {
    while (!query.empty()) {
        const size_t amp = query.find('&');
        std::string_view pair = query.substr(0, amp);
        const size_t eq = pair.find('=');
        if (pair.substr(0, eq) == name) {
            *value = eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1);
            return true;
        }
        if (amp == std::string_view::npos) break;
        query.remove_prefix(amp + 1);
    }
    return false;
}

bool rule_matches(const qvlbTrie* t, const QVBTLexiconEntry& r, const char* url, const char* query,
                  const char* method) {
    switch (r.ruleMode) {
        case QVBT_CUSTOM_METHOD: {
            if (method == nullptr || r.constraint == 255) return false;
            return getHTTPMethodValue(method) == r.constraint;
        }
        case QVBT_CUSTOM_URI: {
            const char* u = url ? url : "";
            const bool hit = qvbt_match_operation(r.constraint, u, static_cast<int>(strlen(u)), r.keyword);
            return r.reverse ? !hit : hit;
        }
        case QVBT_CUSTOM_PARAM: {
            if (query == nullptr || r.paramCount <= 0) return false;
            for (int i = 0; i < r.paramCount; ++i) {
                const URIParamObject& p = t->params[r.paramFirst + i];
                std::string_view value;
                if (!find_param(query, p.parameterName, &value)) return false;
                if (p.checkExistence) continue;
                if (!qvbt_match_operation(p.parameterOperation, value.data(), static_cast<int>(value.size()),
                                          p.parameterValue))
                    return false;
            }
            return true;
        }
        default:
            return false;
    }
}

}  // namespace

bool qvbt_match_operation(int op, const char* subject, int subjectLen, const char* value) {
    if (subject == nullptr || subjectLen < 0) return false;
    if (value == nullptr) value = "";
    const std::string_view s(subject, static_cast<size_t>(subjectLen));
    const std::string_view v(value);
    switch (op) {
        case 4:
            return s == v;
        case 1:
            return s.substr(0, v.size()) == v;
        case 2:
            return s.size() >= v.size() && s.substr(s.size() - v.size()) == v;
        case 3:
            return s.find(v) != std::string_view::npos;
        case 5:
            return match_regex(value, subject, subject + subjectLen);
        case 6:
            return !s.empty();
        case 7:
            return in_list(s, v);
        default:
            return false;
    }
}

QVBTLexiconEntry* qvbt_add_lexicon_entry(QVBTCustomRule* rule, int ruleMode, const char* keyword,
                                         unsigned int priority, const char* btName,
                                         unsigned char constraint) {
    if (rule == nullptr) return nullptr;
    if (rule->dictionary == nullptr) {
        rule->dictionary = static_cast<QVBTLexicon*>(qvlb_calloc(sizeof(QVBTLexicon), "BT rule lexicon", -1));
        if (rule->dictionary == nullptr) return nullptr;
    }
    QVBTLexicon* lex = rule->dictionary;
    if (lex->count >= QVBT_MAX_LEXICON) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error",
                    "Custom rule lexicon is full (%d entries), keyword '%s' ignored", QVBT_MAX_LEXICON,
                    keyword ? keyword : "");
        return nullptr;
    }
    QVBTLexiconEntry* e = &lex->entries[lex->count++];
    memset(e, 0, sizeof(*e));
    e->ruleMode = ruleMode;
    snprintf(e->keyword, sizeof(e->keyword), "%s", keyword ? keyword : "");
    e->constraint = constraint;
    e->priority = priority;
    e->enabled = rule->setEnabled;
    snprintf(e->btName, sizeof(e->btName), "%s", btName ? btName : "");
    rule->keyword_count = static_cast<unsigned int>(lex->count);
    return e;
}

int qvlb_init_automaton(qvlbTrie** trie, QVBTCustomRule* rule) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (trie == nullptr || rule == nullptr) return -1;
    const QVBTLexicon* lex = rule->dictionary;
    int enabled = 0;
    for (int i = 0; lex != nullptr && i < lex->count; ++i) enabled += lex->entries[i].enabled ? 1 : 0;
    QVLockGuard guard(qvbt_rule_lock());
    qvlbTrie* old = qv_load_acquire(*trie);
    if (rule->rule_mode == 0) {
        qv_store_release(*trie, static_cast<qvlbTrie*>(nullptr));
        qvbt_retire(old, free_trie);
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "No custom rule, custom naming is off");
        return 0;
    }
    auto* t = static_cast<qvlbTrie*>(qvlb_calloc(sizeof(qvlbTrie), kTriePurpose, -1));
    const int nparams = static_cast<int>(rule->match_only_param_count);
    if (t != nullptr) {
        t->ruleMode = rule->rule_mode;
        t->rules = static_cast<QVBTLexiconEntry*>(
            qvlb_calloc(sizeof(QVBTLexiconEntry) * static_cast<size_t>(enabled > 0 ? enabled : 1),
                        kTriePurpose, enabled));
        t->params = static_cast<URIParamObject*>(qvlb_calloc(
            sizeof(URIParamObject) * static_cast<size_t>(nparams > 0 ? nparams : 1), kTriePurpose, nparams));
    }
    if (t == nullptr || t->rules == nullptr || t->params == nullptr) {
        free_trie(t);
        return -1;
    }
    for (int i = 0; i < nparams && i < QVBT_MAX_URI_PARAM_OBJ; ++i)
        if (rule->matchingURIParamObj[i] != nullptr) t->params[i] = *rule->matchingURIParamObj[i];
    t->paramCount = nparams;
    // Stable insertion by priority keeps line order among equal priorities.
    for (int i = 0; lex != nullptr && i < lex->count; ++i) {
        const QVBTLexiconEntry& e = lex->entries[i];
        if (!e.enabled) continue;
        int pos = t->count;
        while (pos > 0 && t->rules[pos - 1].priority > e.priority) {
            t->rules[pos] = t->rules[pos - 1];
            --pos;
        }
        t->rules[pos] = e;
        ++t->count;
    }
    qv_store_release(*trie, t);
    qvbt_retire(old, free_trie);
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Custom rule automaton built with %d rules", t->count);
    return 0;
}

bool qvbt_custom_naming() {
    QVBTRuleReadGuard reading;
    const qvlbTrie* t = qv_load_acquire(trie_node);
    return t != nullptr && t->ruleMode != 0;
}

const char* search_match_machine(const qvlbTrie* trie, const char* url, const char* query,
                                 const char* method) {
    if (trie == nullptr) return nullptr;
    for (int i = 0; i < trie->count; ++i)
        if (rule_matches(trie, trie->rules[i], url, query, method)) return trie->rules[i].btName;
    return nullptr;
}

void qvbt_clear_custom_rule() {
    qvlb_free(custom_rule.dictionary, "BT rule lexicon", -1);
    for (URIParamObject*& p : custom_rule.matchingURIParamObj) {
        qvlb_free(p, "URIParamObject", -1);
        p = nullptr;
    }
    memset(&custom_rule, 0, sizeof(custom_rule));
}

void qvbt_custom_rule_reset_for_test() {
    QVLockGuard guard(qvbt_rule_lock());
    free_trie(trie_node);
    trie_node = nullptr;
    qvbt_clear_custom_rule();
}
