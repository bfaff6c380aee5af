// Parsing of the BT rule and threshold sources into the rule globals, automatons and BT objects.
#include "bt/QVBTRuleReader.h"

#include <apr_strings.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "bt/QVBTManager.h"
#include "bt/QVBTMonitor.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "qvbt/qvbt_custom_rule.h"
#include "qvbt/qvbt_rule_execute.h"
#include "qvbt/qvbt_utils.h"

namespace {

constexpr int kLineSize = 1024;

// One pattern line as parsed; lives only while its line is handled.
struct QVBTPatternBasedRule {
    char transactionName[256];
    int transactionId;
    char matchType;
    char pattern[256];
    char excludeMode;
    char patternMode;
    char parameter[256];
    char httpMethod[256];
    char BTHeaderName[256];
    char BTHeaderValue[256];
};

int bt_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

struct RuleReaderState {
    // The automaton the pattern pass is building; published by qvbt_read_rule_file.
    qvlbStateMachine* building_machine = nullptr;
};

}  // namespace

QV_INSTANCE_STATE(RuleReaderState, ruleReaderState)

namespace {

#define building_machine (ruleReaderState().building_machine)

void drop_building_machine() {
    qvbt_free_state_machine(building_machine);
    building_machine = nullptr;
}

// Set by start-up while it reads the files of the agent home (qvbt_set_home_file_source).
thread_local bool force_file_source = false;

bool file_mode() {
    if (force_file_source) return true;
    if (qvApplication == nullptr) return false;
    // The keyword stores the first character of its value.
    const char c = qv_load(qvApplication->QVBCISetting.fileBasedKeywordMode);
    return c != '\0' && c != '0';
}

// Splits buf in place at '|' (runs count as one, empty fields vanish) into at most maxFields.
int split_fields(char* buf, const char* sep, char** fields, int maxFields) {
    int n = 0;
    char* last = nullptr;
    for (char* tok = apr_strtok(buf, sep, &last); tok != nullptr && n < maxFields;
         tok = apr_strtok(nullptr, sep, &last))
        fields[n++] = tok;
    return n;
}

void copy_field(char* dst, size_t cap, const char* src) {
    snprintf(dst, cap, "%s", src ? src : "");
}

// The source as text: the file's content in file-based mode (into fileBuf), else source itself.
const char* source_text(char* source, char* fileBuf, bool* ok) {
    *ok = true;
    fileBuf[0] = '\0';
    if (source == nullptr) return fileBuf;
    if (!file_mode()) return source;
    *ok = getLineFromFile(source, fileBuf) == 0;
    return fileBuf;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

// Calls fn(key, value) for each "&&"-separated "key=value" pair of item (at most 10). Returns
// false when a pair has an empty key or value, or fn refuses it.
template <class Fn>
bool for_each_pair(std::string_view item, Fn fn) {
    for (int count = 0; count < 10 && !item.empty(); ++count) {
        const size_t amp = item.find("&&");
        const std::string_view pair = trim(item.substr(0, amp));
        const size_t eq = pair.find('=');
        if (eq == std::string_view::npos) return false;
        const std::string_view key = trim(pair.substr(0, eq));
        const std::string_view value = trim(pair.substr(eq + 1));
        if (key.empty() || value.empty() || !fn(key, value)) return false;
        if (amp == std::string_view::npos) break;
        item.remove_prefix(amp + 2);
    }
    return true;
}

void copy_view(char* dst, size_t cap, std::string_view v) {
    const size_t n = v.size() < cap - 1 ? v.size() : cap - 1;
    memcpy(dst, v.data(), n);
    dst[n] = '\0';
}

int match_criteria_not_found(const char* criteria) {
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Match criteria not found returning in field[7] = %s",
                criteria);
    return -1;
}

int parse_uri_criteria(const char* criteria, unsigned int priority) {
    QVBTCustomRule& r = custom_rule;
    r.match_only_uri_count++;
    const std::string_view c(criteria);
    const size_t open = c.find('[');
    const size_t close = c.find(']', open == std::string_view::npos ? 0 : open);
    if (open == std::string_view::npos || close == std::string_view::npos)
        return match_criteria_not_found(criteria);
    unsigned char op = 255;
    char value[256] = "";
    char reverse = 0;
    const bool ok =
        for_each_pair(c.substr(open + 1, close - open - 1), [&](std::string_view k, std::string_view v) {
            char text[256];
            copy_view(text, sizeof(text), v);
            if (k == "input1")
                op = getOperationType(text);
            else if (k == "input2")
                copy_view(value, sizeof(value), v);
            else if (k == "input3")
                reverse = v == "ActivateReverseCondition" ? 1 : 0;
            else
                return false;
            return true;
        });
    // An unknown operation could never match; refuse it like a malformed criterion.
    if (!ok || op == 255) return match_criteria_not_found(criteria);
    r.UriOperationType = static_cast<char>(op);
    copy_field(r.MatchUriValue, sizeof(r.MatchUriValue), value);
    r.activateReversCondition = reverse;
    QVBTLexiconEntry* e = qvbt_add_lexicon_entry(&r, QVBT_CUSTOM_URI, value, priority, r.setRuleName, op);
    if (e == nullptr) return -1;
    e->reverse = reverse;
    return 0;
}

int parse_param_criteria(const char* criteria, unsigned int priority) {
    QVBTCustomRule& r = custom_rule;
    URIParamObject items[10];
    int count = 0;
    std::string_view c(criteria);
    // Items are bracketed and separated by ','; commas inside brackets (inList values) stay.
    while (count < 10) {
        const size_t open = c.find('[');
        if (open == std::string_view::npos) break;
        const size_t close = c.find(']', open);
        if (close == std::string_view::npos) return match_criteria_not_found(criteria);
        URIParamObject& p = items[count];
        memset(&p, 0, sizeof(p));
        p.parameterOperation = static_cast<char>(255);
        const bool ok =
            for_each_pair(c.substr(open + 1, close - open - 1), [&](std::string_view k, std::string_view v) {
                char text[256];
                copy_view(text, sizeof(text), v);
                if (k == "input1")
                    p.checkExistence = v == "checkForExistance" ? 1 : 0;
                else if (k == "input2")
                    copy_view(p.parameterName, sizeof(p.parameterName), v);
                else if (k == "input3")
                    p.parameterOperation = static_cast<char>(getOperationType(text));
                else if (k == "input4")
                    copy_view(p.parameterValue, sizeof(p.parameterValue), v);
                else
                    return false;
                return true;
            });
        if (!ok || p.parameterName[0] == '\0' ||
            (!p.checkExistence && static_cast<unsigned char>(p.parameterOperation) == 255))
            return match_criteria_not_found(criteria);
        ++count;
        c.remove_prefix(close + 1);
    }
    if (count == 0) return match_criteria_not_found(criteria);
    if (r.match_only_param_count + static_cast<unsigned int>(count) > QVBT_MAX_URI_PARAM_OBJ) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error",
                    "Too many parameter criteria in custom rules, rule '%s' ignored", r.rule_name);
        return -1;
    }
    const int first = static_cast<int>(r.match_only_param_count);
    for (int i = 0; i < count; ++i) {
        auto* p =
            static_cast<URIParamObject*>(qvlb_malloc(sizeof(URIParamObject), "URIParamObject", first + i));
        if (p == nullptr) return -1;
        *p = items[i];
        r.matchingURIParamObj[r.match_only_param_count++] = p;
    }
    r.chkExistence = items[0].checkExistence;
    const unsigned char constraint =
        items[0].checkExistence ? 0 : static_cast<unsigned char>(items[0].parameterOperation);
    QVBTLexiconEntry* e = qvbt_add_lexicon_entry(&r, QVBT_CUSTOM_PARAM, items[0].parameterName, priority,
                                                 r.setRuleName, constraint);
    if (e == nullptr) return -1;
    e->paramFirst = first;
    e->paramCount = count;
    return 0;
}

}  // namespace

int getLineFromFile(const char* path, char* buffer) {
    const int level = qvlb_control_trace_level();
    if (buffer == nullptr) return -1;
    memset(buffer, 0, kLineSize);
    struct stat st;
    // The whole file must fit the 1024-byte buffer with its terminator; reading part of a rule
    // file would apply half a configuration.
    if (path == nullptr || stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kLineSize - 1) {
        QV_TRACE_IF(level > 0, "CONTROL_THREAD", "Error", "Error in opening file %s\n",
                    path ? path : "(null)");
        return -1;
    }
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) {
        QV_TRACE_IF(level > 0, "CONTROL_THREAD", "Error", "Error in opening file %s\n", path);
        return -1;
    }
    const size_t want = static_cast<size_t>(st.st_size);
    const size_t got = want > 0 ? fread(buffer, 1, want, fp) : 0;
    fclose(fp);
    if (got != want) {
        QV_TRACE_IF(level > 0, "CONTROL_THREAD", "Error", "Error in writing, Bytes read = %d",
                    static_cast<int>(got));
        memset(buffer, 0, kLineSize);
        return -1;
    }
    return 0;
}

char* getNextLine(char* line, int size, char** cursor) {
    if (line == nullptr || size <= 0 || cursor == nullptr || *cursor == nullptr || **cursor == '\0') {
        QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Buffer passed is empty");
        return nullptr;
    }
    const char* p = *cursor;
    const char* nl = strchr(p, '\n');
    const size_t len = nl ? static_cast<size_t>(nl - p) : strlen(p);
    size_t cap = static_cast<size_t>(size - 1);
    if (cap > kLineSize - 1) cap = kLineSize - 1;
    const size_t n = len < cap ? len : cap;
    memcpy(line, p, n);
    line[n] = '\0';
    *cursor = const_cast<char*>(nl ? nl + 1 : p + len);
    return line;
}

int parse_exclusion_rule(char* line) {
    (void)line;
    return 0;
}

int parse_skip_character(char* line) {
    QVLockGuard guard(qvbt_rule_lock());
    const char* bar = line ? strchr(line, '|') : nullptr;
    if (bar != nullptr) {
        int v = qvParseInt(bar + 1);
        qv_store(skipCount, v < 0 ? 0 : v);
    }
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "skipCount = %d", qv_load(skipCount));
    return qv_load(skipCount);
}

int parse_max_state(char* line) {
    QVLockGuard guard(qvbt_rule_lock());
    const char* bar = line ? strchr(line, '|') : nullptr;
    if (bar != nullptr) qv_store(maxStates, qvParseInt(bar + 1));
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "maxStates = %d", qv_load(maxStates));
    return qv_load(maxStates);
}

int parse_header_rule(char* line) {
    const char* bar = line ? strchr(line, '|') : nullptr;
    if (bar == nullptr) return -1;
    auto* rule = static_cast<QVBTHeaderBasedRule*>(qvlb_calloc(sizeof(QVBTHeaderBasedRule), "BT rule", -1));
    if (rule == nullptr) return -1;
    copy_field(rule->headerName, sizeof(rule->headerName), bar + 1);
    QVLockGuard guard(qvbt_rule_lock());
    QVBTHeaderBasedRule* old = qv_load_acquire(header_rule);
    qv_store_release(header_rule, rule);
    // getBTHeaderName hands out the record's name, so it outlives any read guard.
    qvbt_retire_until_reset(old, qvbt_free_rule_record);
    return 0;
}

int parse_global_rule(char* line) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    char buf[kLineSize];
    copy_field(buf, sizeof(buf), line);
    char* f[10];
    int n = split_fields(buf, "|", f, 10);
    if (n < 9) {
        QV_TRACE_IF(
            qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Error",
            "Number of fields in BTRule File for Global rule is less than 8, Hence applying Default rule");
        copy_field(buf, sizeof(buf), QVBT_DEFAULT_GLOBAL_RULE);
        n = split_fields(buf, "|", f, 10);
    }
    auto* rule = static_cast<QVBTGlobalRule*>(qvlb_calloc(sizeof(QVBTGlobalRule), "BT rule", -1));
    if (rule == nullptr) return 0;
    const int base = qvParseInt(f[1]);
    rule->rule_mode = base;
    if (strstr(f[4], "FromFirst") != nullptr)
        rule->include_uri_in_name_order = 1;
    else if (strstr(f[4], "FromLast") != nullptr)
        rule->include_uri_in_name_order = 2;
    if (strcmp(f[5], "-") != 0) rule->include_uri_in_name_segment = qvParseInt(f[5]);
    const char* extra = f[6];
    const char* arg = f[7];
    if (extra[0] != '\0' && strcmp(extra, "-") != 0) {
        rule->rule_mode = base == 1 ? 3 : 4;
        if (strcmp(extra, "Request-Method") == 0) {
            rule->seg_type = 4;
        } else if (strcmp(extra, "Request-Parameter-Value") == 0) {
            rule->seg_type = 5;
            snprintf(rule->parameter, sizeof(rule->parameter), "%.64s", arg);
            // Each formatted within 64 bytes: a 64-character name loses its '=' (and so never matches).
            if (snprintf(rule->parameter_at_start, 64, "%s=", rule->parameter) < 0)
                rule->parameter_at_start[0] = '\0';
            if (snprintf(rule->parameter_at_end, 64, "&%s=", rule->parameter) < 0)
                rule->parameter_at_end[0] = '\0';
            rule->parameter_at_start_len = static_cast<int>(strlen(rule->parameter_at_start));
            rule->parameter_at_end_len = static_cast<int>(strlen(rule->parameter_at_end));
        } else if (strcmp(extra, "Request-Header") == 0) {
            rule->seg_type = 6;
            snprintf(rule->header, sizeof(rule->header), "%.256s", arg);
        } else if (strcmp(extra, "Request-URI-Segments-Numbers") == 0) {
            rule->seg_type = 3;
            char list[kLineSize];
            copy_field(list, sizeof(list), arg);
            char* nums[32];
            const int k = split_fields(list, ",", nums, 32);
            for (int i = 0; i < k; ++i) rule->uri_seg_no_list[i] = qvParseInt(nums[i]);
            rule->uri_seg_no_list_length = k;
        }
    }
    QV_TRACE_IF(
        bt_level() > 0, "BT_MON", "Info",
        "include_uri_in_name_order = %d, include_uri_in_name_segment = %d,rule_mode = %d, seg_type = %d, "
        "uri_seg_no_list_length = %d",
        rule->include_uri_in_name_order, rule->include_uri_in_name_segment, rule->rule_mode, rule->seg_type,
        rule->uri_seg_no_list_length);
    QVLockGuard guard(qvbt_rule_lock());
    QVBTGlobalRule* old = qv_load_acquire(global_rule);
    qv_store_release(global_rule, rule);
    qvbt_retire(old, qvbt_free_rule_record);
    return 0;
}

int parse_custom_rule(char* line) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    char buf[kLineSize];
    copy_field(buf, sizeof(buf), line);
    char* f[64];
    const int n = split_fields(buf, "|", f, 64);
    if (n != 9) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error",
                    "Number of fields in BTRule File for custom rule is != 9, Hence applying Default rule");
        return -1;
    }
    const char* criteria = f[7];
    if (criteria[0] == '\0' || strcmp(criteria, "-") == 0) return match_criteria_not_found(criteria);
    QVLockGuard guard(qvbt_rule_lock());
    QVBTCustomRule& r = custom_rule;
    const int mode = qvParseInt(f[1]);
    copy_field(r.rule_name, sizeof(r.rule_name), f[2]);
    copy_field(r.setRuleName, sizeof(r.setRuleName), f[3]);
    r.setEnabled = strcmp(f[5], "1") == 0 ? 1 : 0;
    const int prio = qvParseInt(f[6]);
    r.priority = prio < 0 ? 0u : static_cast<unsigned int>(prio);
    switch (mode) {
        case QVBT_CUSTOM_METHOD: {
            r.rule_mode = mode;
            copy_field(r.HTTPMethod, sizeof(r.HTTPMethod), criteria);
            const unsigned char code = getHTTPMethodValue(criteria);
            qvbt_add_lexicon_entry(&r, mode, criteria, r.priority, r.setRuleName, code);
            r.matchHttpMethod = static_cast<char>(code);
            return code == 255 ? match_criteria_not_found(criteria) : 0;
        }
        case QVBT_CUSTOM_URI:
            r.rule_mode = mode;
            return parse_uri_criteria(criteria, r.priority);
        case QVBT_CUSTOM_PARAM:
            r.rule_mode = mode;
            return parse_param_criteria(criteria, r.priority);
        default:
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Invalid rule mode given in field 1 = %d", mode);
            return -1;
    }
}

int parse_pattern_rule(char* line, int* firstPattern) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (line == nullptr || firstPattern == nullptr) return -1;
    if (line[0] == '#') {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Returning found commented line = [%s]", line);
        return -1;
    }
    char buf[kLineSize];
    copy_field(buf, sizeof(buf), line);
    char* f[64];
    const int n = split_fields(buf, "|", f, 64);
    if (n < 6) {
        QV_TRACE_IF(qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Error",
                    "Number of fields in BTRule File for pattern based is  < 6, hence BTname = others");
        return -1;
    }
    QVBTPatternBasedRule r;
    memset(&r, 0, sizeof(r));
    copy_field(r.transactionName, sizeof(r.transactionName), f[1]);
    r.transactionId = qvParseInt(f[2]);
    r.matchType = qvParseInt(f[3]) == 1 ? 1 : 0;
    copy_field(r.pattern, sizeof(r.pattern), f[4]);
    r.excludeMode = qvParseInt(f[5]) != 0 ? 1 : 0;
    if (r.excludeMode) r.transactionId = -2;
    if (n > 7) {
        r.patternMode = static_cast<char>(qvParseInt(f[6]));
        if (r.patternMode == 1) {
            snprintf(r.pattern, sizeof(r.pattern), "%s*%s*", f[4], f[7]);
            copy_field(r.parameter, sizeof(r.parameter), f[7]);
        } else if (r.patternMode == 2) {
            copy_field(r.httpMethod, sizeof(r.httpMethod), f[7]);
        } else if (r.patternMode == 3) {
            if (n < 9) {
                QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error",
                            "num_fields = %d is equal to 8 but less than 9", n);
                return -1;
            }
            snprintf(r.pattern, sizeof(r.pattern), "%s*%s*", f[4], f[7]);
            copy_field(r.parameter, sizeof(r.parameter), f[7]);
            copy_field(r.httpMethod, sizeof(r.httpMethod), f[8]);
        }
    }
    if (n > 9 && strcmp(f[9], "-") != 0 && strcmp(f[9], "NA") != 0) {
        char* eq = strchr(f[9], '=');
        if (eq != nullptr) *eq = '\0';
        copy_field(r.BTHeaderName, sizeof(r.BTHeaderName), f[9]);
        copy_field(r.BTHeaderValue, sizeof(r.BTHeaderValue), eq ? eq + 1 : "");
    }
    QV_TRACE_IF(
        bt_level() > 0, "BT_MON", "Info",
        "Pattern rule '%s': patternMode = %d, httpMethod = '%s', header = '%s=%s' (not used for matching)",
        r.transactionName, r.patternMode, r.httpMethod, r.BTHeaderName, r.BTHeaderValue);

    QVLockGuard guard(qvbt_rule_lock());
    const int slow = qv_load(allSlow);
    const int verySlow = qv_load(allVerySlow);
    if (*firstPattern) {
        drop_building_machine();
        auto* m =
            static_cast<qvlbStateMachine*>(qvlb_calloc(sizeof(qvlbStateMachine), "BT state machine", -1));
        if (m == nullptr || qvlb_state_machine_init(m, qv_load(maxStates)) != 0) {
            qvlb_free(m, "BT state machine", -1);
            return -1;
        }
        building_machine = m;
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "State machine initialized with maxStates '%d'",
                    m->max_state);
        if (qvbt_pattern_table_begin(qv_load(QVBTMonitor.aggDataArraySize)) != 0) {
            drop_building_machine();
            return -1;
        }
        *firstPattern = 0;
        BTObject* others = find_bt_obj_in_config_map("Others", 1, slow, verySlow);
        if (qvbt_pattern_table_store(1, others) == 0) checkAndIncrementAggrBTDataArray(others);
    }
    if (building_machine == nullptr) return -1;
    const int sc = qv_load(skipCount);
    QV_TRACE_IF(
        bt_level() > 0, "BT_MON", "Info",
        "Adding BT to state machine. Pattern = %s, transactionId = '%d', matchType = %d, skipCount = %d",
        r.pattern, r.transactionId, r.matchType, sc);
    // A pattern the automaton refuses (a character outside 32..127, or no room) matches nothing,
    // yet the line still defines its BT and identifier.
    if (qvlb_state_machine_add(building_machine, r.pattern, static_cast<int>(strlen(r.pattern)),
                               r.transactionId, r.matchType, sc) != 0)
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Pattern '%s' could not be added to the state machine",
                    r.pattern);
    BTObject* obj = find_bt_obj_in_config_map(r.transactionName, r.transactionId, slow, verySlow);
    // Exclusions (-2), 0 (the all-transactions entry) and ids past the monitor's array have no entry.
    if (qvbt_pattern_table_store(r.transactionId, obj) == 0)
        checkAndIncrementAggrBTDataArray(obj);
    else
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info",
                    "BT '%s' with id %d is not stored in the BT monitor's array", r.transactionName,
                    r.transactionId);
    return 0;
}

int qvbt_read_rule_file(char* source) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    QVLockGuard guard(qvbt_rule_lock());
    char fileBuf[kLineSize];
    bool readOk = true;
    const char* text = source_text(source, fileBuf, &readOk);
    char line[kLineSize];
    bool seen1 = false;
    bool seen7 = false;
    qvbt_clear_custom_rule();
    // A source describes the whole rule set: sizes and skip count not given in it are the defaults.
    qv_store(skipCount, 0);
    qv_store(maxStates, 128);

    char* cur = const_cast<char*>(text);
    while (getNextLine(line, sizeof(line), &cur) != nullptr) {
        const int type = qvParseInt(line);
        switch (type) {
            case 1:
                seen1 = true;
                break;
            case 2:
                parse_custom_rule(line);
                break;
            case 3:
                parse_exclusion_rule(line);
                break;
            case 4:
                parse_skip_character(line);
                break;
            case 5:
                parse_max_state(line);
                break;
            case 7:
                seen7 = true;
                break;
            case 8:
            case 9:
            case 10:
            case 11:
                QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error",
                            "BT rule type %d is not supported, line ignored: %s", type, line);
                break;
            default:
                break;
        }
    }

    bool patternOk = false;
    if (seen7) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Rule 7 found, now parsing it.");
        int first = 1;
        cur = const_cast<char*>(text);
        while (getNextLine(line, sizeof(line), &cur) != nullptr)
            if (line[0] == '7' && line[1] == '|' && parse_pattern_rule(line, &first) == 0) patternOk = true;
    }
    if (patternOk && building_machine != nullptr) {
        qvbt_pattern_table_end(1);
        qvlbStateMachine* old = qv_load_acquire(stateMachine);
        qv_store_release(stateMachine, building_machine);
        building_machine = nullptr;
        qvbt_retire(old, qvbt_free_state_machine);
    } else {
        patternOk = false;
        qvbt_pattern_table_end(0);
        drop_building_machine();
    }

    if (patternOk) qvbt_clear_custom_rule();
    qvlb_init_automaton(&trie_node, &custom_rule);

    bool globalOk = false;
    if (seen1 && !patternOk) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info",
                    "Rule 7 and rule 9 was not found, but rule 1 found, now parsing it.");
        cur = const_cast<char*>(text);
        while (getNextLine(line, sizeof(line), &cur) != nullptr) {
            if (line[0] == '1' && line[1] == '|') {
                parse_global_rule(line);
                globalOk = true;
                break;
            }
        }
    }
    const int rule = patternOk ? QVBT_RULE_PATTERN : (globalOk ? QVBT_RULE_GLOBAL : QVBT_RULE_NONE);
    qv_store_release(bt_rule, rule);
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "After btrule file parsing, applicable bt rule = %d.",
                rule);
    qvbt_reclaim();
    return 0;
}

int qvbt_read_threshold_file(char* source) {
    QV_TRACE_IF(bt_level() == 4, "BT_MON", "Info", "Method called");
    if (source == nullptr || source[0] == '\0') {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "File name is null or empty");
        return -1;
    }
    QVLockGuard guard(qvbt_rule_lock());
    char fileBuf[kLineSize];
    bool readOk = true;
    const char* text = source_text(source, fileBuf, &readOk);
    if (!readOk) return -1;
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "Default values for allSlow = %d, allVerySlow = %d",
                qv_load(allSlow), qv_load(allVerySlow));
    char line[kLineSize];
    char* cur = const_cast<char*>(text);
    while (getNextLine(line, sizeof(line), &cur) != nullptr) {
        if (line[0] == '#') continue;
        char buf[kLineSize];
        copy_field(buf, sizeof(buf), line);
        char* f[64];
        const int n = split_fields(buf, "|", f, 64);
        if (n != 3) {
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Invalid threshold line = '%s', num_fields = %d",
                        line, n);
            continue;
        }
        const int slow = qvParseInt(f[1]);
        const int verySlow = qvParseInt(f[2]);
        if (slow < 1 || verySlow < 1) {
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Invalid value(s): slow '%d', very slow '%d'",
                        slow, verySlow);
            continue;
        }
        if (slow >= verySlow) {
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Invalid values: slow '%d' >= very slow '%d'",
                        slow, verySlow);
            continue;
        }
        if (strcasecmp(f[0], "ALL") == 0) {
            qv_store(allSlow, slow);
            qv_store(allVerySlow, verySlow);
            QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info",
                        "Overwriting default values for all: slow '%d', very slow '%d'", slow, verySlow);
            continue;
        }
        BTObject* obj = find_bt_obj_in_config_map(f[0], -1, slow, verySlow);
        if (obj == nullptr) continue;
        qv_store(obj->bt_threshold.slow, slow);
        qv_store(obj->bt_threshold.very_slow, verySlow);
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Info", "For BT = '%s' slow = %d, verySlow = '%d'", f[0], slow,
                    verySlow);
    }
    return 0;
}

void qvbt_rule_reader_reset_for_test() {
    QVLockGuard guard(qvbt_rule_lock());
    drop_building_machine();
}

void qvbt_set_home_file_source(bool on) {
    force_file_source = on;
}
