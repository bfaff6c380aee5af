// Backend count and maximum consulted by the method registry, and the maxIPCount keyword.
#include "backend/QVBackendManager.h"

#include <climits>

#include "backend/QVBackendMonitor.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"

namespace {

int ipTraceLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.backendMonTraceLevel) : 0;
}

}  // namespace

int backendLimitReached(int* maxCount, int* counter) {
    int max = qv_load(QVBackendMonitor.maxIPCount);
    int count = qv_load(QVBackendMonitor.backendIDCounter);
    if (maxCount != nullptr) *maxCount = max;
    if (counter != nullptr) *counter = count;
    return count >= max ? 1 : 0;
}

void incrementBackendCounter() {
    int cur = qv_load(QVBackendMonitor.backendIDCounter);
    while (cur < INT_MAX && !__atomic_compare_exchange_n(&QVBackendMonitor.backendIDCounter, &cur, cur + 1,
                                                         true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
}

int getBackendIDCounter() {
    return qv_load(QVBackendMonitor.backendIDCounter);
}

int parseMaxIPCount(char* value, char* keyword, int index) {
    (void)keyword;
    (void)index;
    QV_TRACE_IF(ipTraceLevel() > 0, "BACKEND_MON", "Info", "parseMaxBTCount method called. value %s",
                value ? value : "(null)");
    if (value == nullptr) return -1;
    setMaxIPCount(qvParseInt(value));
    return 0;
}

void setMaxIPCount(int count) {
    if (count >= 1) {
        qv_store(QVBackendMonitor.maxIPCount, count);
        QV_TRACE_IF(ipTraceLevel() > 0, "BACKEND_MON", "Info", "maxIPCount = %d", count);
        return;
    }
    QV_TRACE_IF(
        ipTraceLevel() > 0, "BACKEND_MON", "Error",
        "parseMaxIPCount method - Invalid maxIPCount specified by User.Current Value  : %d  Specified "
        "maxIPCount value : %d",
        qv_load(QVBackendMonitor.maxIPCount), count);
}
