// Session cookie and second cookie parsing, the session state written back to the extension, and
// the TLS-key map of records.
#include "flowpath/QVSessionCookie.h"

#include <charconv>
#include <climits>
#include <cstdio>
#include <string_view>

#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_mt_log.h"

namespace {

const char* const kModule = "FLOWPATH";

int fpLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.fpTraceLevel) : 0;
}

std::string_view trim(std::string_view v) {
    while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
    while (!v.empty() && (v.back() == ' ' || v.back() == '\t')) v.remove_suffix(1);
    return v;
}

// Unsigned decimal of the whole view, at most max; false for anything else.
bool parseUnsigned(std::string_view v, long long max, long long* out) {
    if (v.empty() || v.front() < '0' || v.front() > '9') return false;
    unsigned long long n = 0;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
    if (ec != std::errc() || end != v.data() + v.size() || n > static_cast<unsigned long long>(max))
        return false;
    *out = static_cast<long long>(n);
    return true;
}

}  // namespace

int parseQVCookieStr(const char* QVCookieStr, QVPerThreadData_t* qvTD) {
    if (QVCookieStr == nullptr || qvTD == nullptr) return -1;
    long long sid = -1, inst = 0, cnt = 0, ts = 0;
    std::string_view rest(QVCookieStr);
    while (!rest.empty()) {
        size_t semi = rest.find(';');
        std::string_view field = trim(rest.substr(0, semi));
        rest = semi == std::string_view::npos ? std::string_view() : rest.substr(semi + 1);
        if (field.empty()) continue;
        size_t eq = field.find('=');
        if (eq == std::string_view::npos) {
            QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Malformed session cookie ignored: '%s'",
                        QVCookieStr);
            return -1;
        }
        std::string_view key = trim(field.substr(0, eq));
        std::string_view value = trim(field.substr(eq + 1));
        long long* slot = nullptr;
        long long max = LLONG_MAX;
        if (key == "sid") {
            slot = &sid;
        } else if (key == "inst") {
            slot = &inst;
            max = 1;
        } else if (key == "cnt") {
            slot = &cnt;
            max = INT_MAX;
        } else if (key == "ts") {
            slot = &ts;
        } else {
            continue;
        }
        if (!parseUnsigned(value, max, slot)) {
            QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Malformed session cookie ignored: '%s'",
                        QVCookieStr);
            return -1;
        }
    }
    if (sid < 1) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Session cookie without session id ignored: '%s'",
                    QVCookieStr);
        return -1;
    }
    qvTD->qvSessionId = sid;
    qvTD->instrumented = static_cast<int>(inst);
    qvTD->totalFpcount = static_cast<int>(cnt);
    qvTD->last_fptimestamp_from_cookie = ts;
    QV_TRACE_IF(fpLevel() > 2, kModule, "Info",
                "Session cookie: sid = %lld, inst = %lld, cnt = %lld, ts = %lld", sid, inst, cnt, ts);
    return 0;
}

void setValue(const char* QVCookieStr, QVPerThreadData_t* qvTD) {
    if (QVCookieStr == nullptr || qvTD == nullptr) return;
    if (qvTD->qvSessionId != 0) {
        if (qvTD->totalFpcount < INT_MAX) qvTD->totalFpcount++;
    } else {
        qvTD->qvSessionId = qvTD->flowpathInstance;
        qvTD->instrumented = qvTD->tlIsFPCaptured != 0 ? 1 : 0;
        qvTD->totalFpcount = 1;
    }
    qvTD->last_fptimestamp_from_cookie = qvTD->tlFlowPathTimeStampInMS;
}

void clearQVSession(QVPerThreadData_t* qvTD) {
    if (qvTD == nullptr) return;
    qvTD->qvSessionId = 0;
    qvTD->instrumented = 0;
    qvTD->totalFpcount = 0;
    qvTD->last_fptimestamp_from_cookie = 0;
}

int getQVSessionCookie(const QVPerThreadData_t* qvTD, char* buf, int bufSize) {
    if (buf == nullptr || bufSize < 1) return -1;
    buf[0] = '\0';
    if (qvTD == nullptr || qvTD->qvSessionId == 0) return -1;
    int n = snprintf(buf, static_cast<size_t>(bufSize), "sid=%lld;inst=%d;cnt=%d;ts=%lld", qvTD->qvSessionId,
                     qvTD->instrumented, qvTD->totalFpcount, qvTD->last_fptimestamp_from_cookie);
    if (n < 0 || n >= bufSize) {
        buf[0] = '\0';
        return -1;
    }
    return n;
}

int parseWBCookieStr(const char* WBCookieStr, QVPerThreadData_t* qvTD) {
    if (WBCookieStr == nullptr || qvTD == nullptr) return -1;
    std::string_view v(WBCookieStr);
    size_t bar = v.find('|');
    long long sid = 0, page = 0;
    if (bar == std::string_view::npos || !parseUnsigned(trim(v.substr(0, bar)), LLONG_MAX, &sid) ||
        !parseUnsigned(trim(v.substr(bar + 1)), LLONG_MAX, &page)) {
        if (!v.empty())
            QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Malformed second cookie ignored: '%s'",
                        WBCookieStr);
        return -1;
    }
    qvTD->korSID = sid;
    qvTD->QVPageID = page;
    return 0;
}

int set_value(const char* TLS, QVPerThreadData_t* qvTD) {
    if (TLS == nullptr || TLS[0] == '\0' || qvTD == nullptr) return -1;
    qvlb_hashmap_t* map = qv_load_acquire(qvTDHashMap);
    if (map == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "No record map for key '%s'; record not stored", TLS);
        return -1;
    }
    return modify_hashmap(map, TLS, qvTD);
}

QVPerThreadData_t* searchqvTDfromHashMap(const char* TLS) {
    QVPerThreadData_t* found = nullptr;
    if (TLS != nullptr && TLS[0] != '\0')
        found = static_cast<QVPerThreadData_t*>(search_hashmap(qv_load_acquire(qvTDHashMap), TLS));
    QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "going to search tls in hasmap, key = %s, value = %p",
                TLS ? TLS : "(null)", static_cast<void*>(found));
    return found;
}
