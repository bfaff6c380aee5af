// URL segment cut, query-parameter lookup, method/operation codes and request categories.
#include "qvbt/qvbt_utils.h"

#include <strings.h>

#include <cstring>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "qvbt/qvbt_rule_execute.h"

namespace {

int bt_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.btMonitorTraceLevel) : 0;
}

// Copies at most n bytes of src into out (outSize bytes), NUL-terminated.
void copy_cut(char* out, int outSize, const char* src, size_t n) {
    if (static_cast<size_t>(outSize - 1) < n) n = static_cast<size_t>(outSize - 1);
    memcpy(out, src, n);
    out[n] = '\0';
}

}  // namespace

char* qvbt_get_bt_name_from_url_r(const QVBTGlobalRule* rule, const char* url, char* out, int outSize) {
    if (out == nullptr || outSize <= 0) return nullptr;
    out[0] = '\0';
    if (url == nullptr) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "URL is empty");
        return out;
    }
    const size_t len = strnlen(url, 255);
    if (rule == nullptr) {
        copy_cut(out, outSize, url, len);
        return out;
    }
    const int n = rule->include_uri_in_name_segment;
    if (n <= 0) return out;
    int count = 0;
    if (rule->include_uri_in_name_order != 2) {
        for (size_t i = 0; i < len; ++i) {
            if (url[i] == '/' && ++count > n) {
                copy_cut(out, outSize, url, i);
                return out;
            }
        }
        copy_cut(out, outSize, url, len);
        return out;
    }
    for (size_t i = len; i-- > 0;) {
        if (url[i] == '/' && ++count == n) {
            copy_cut(out, outSize, url + i, len - i);
            return out;
        }
    }
    copy_cut(out, outSize, url, len);
    return out;
}

char* get_bt_name_from_url(const char* url, char* out, int outSize) {
    QVBTRuleReadGuard reading;
    return qvbt_get_bt_name_from_url_r(qv_load_acquire(global_rule), url, out, outSize);
}

char* qvbt_get_param_value_r(const QVBTGlobalRule* rule, const char* query) {
    // One buffer per thread: the value is copied into the name at once, and no other thread can
    // overwrite it in between.
    thread_local char value[64];
    if (query == nullptr || rule == nullptr || rule->parameter[0] == '\0') return nullptr;
    const char* start = nullptr;
    if (rule->parameter_at_start_len > 0 &&
        strncmp(query, rule->parameter_at_start, static_cast<size_t>(rule->parameter_at_start_len)) == 0) {
        start = query;
    } else {
        const char* found = strstr(query, rule->parameter_at_end);
        if (found == nullptr) return nullptr;
        start = found + 1;
    }
    const char* eq = strchr(start, '=');
    if (eq == nullptr) return nullptr;
    const char* v = eq + 1;
    const char* amp = strchr(v, '&');
    const size_t n = amp ? static_cast<size_t>(amp - v) : strlen(v);
    copy_cut(value, sizeof(value), v, n);
    return value;
}

char* get_param_value(const char* query) {
    QVBTRuleReadGuard reading;
    return qvbt_get_param_value_r(qv_load_acquire(global_rule), query);
}

unsigned char getHTTPMethodValue(const char* method) {
    if (method == nullptr) {
        QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Method passed is NULL");
        return 255;
    }
    static const char* const kMethods[] = {"GET", "POST", "PUT", "DELETE"};
    for (unsigned char i = 0; i < 4; ++i)
        if (strcasecmp(method, kMethods[i]) == 0) return i;
    QV_TRACE_IF(bt_level() > 0, "BT_MON", "Error", "Invalid method name is passed");
    return 255;
}

unsigned char getOperationType(const char* text) {
    if (text == nullptr) return 255;
    struct Op {
        const char* name;
        unsigned char code;
    };
    static const Op kOps[] = {{"EQUALS", 4},        {"startswith", 1}, {"endswith", 2}, {"contains", 3},
                              {"matchesRegExp", 5}, {"notEmpty", 6},   {"inList", 7}};
    for (const Op& op : kOps)
        if (strncasecmp(text, op.name, strlen(op.name)) == 0) return op.code;
    return 255;
}

unsigned char getBTCategoryBasedOnThresold(Threshold threshold, long long duration) {
    if (duration < threshold.slow) return QVBT_CATEGORY_NORMAL;
    if (duration < threshold.very_slow) return QVBT_CATEGORY_SLOW;
    return QVBT_CATEGORY_VERY_SLOW;
}

unsigned char findCategoryOfBT(Threshold threshold, long long duration, int statusCode) {
    if (qvApplication != nullptr && statusCode >= 0 && statusCode < 600 &&
        qv_load(qvApplication->QVBCISetting.btErrorArray[statusCode]) == 'F')
        return QVBT_CATEGORY_ERROR;
    return getBTCategoryBasedOnThresold(threshold, duration);
}

char* getBTHeaderName() {
    QVBTHeaderBasedRule* rule = qv_load_acquire(header_rule);
    if (rule == nullptr || rule->headerName[0] == '\0') return nullptr;
    return rule->headerName;
}
