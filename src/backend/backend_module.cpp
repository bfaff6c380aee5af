// Keyword, registry and instance-info wiring of the backend monitor (and of the SQL capture
// record's DBIPName, whose only reader is the backend monitor).
#include "backend/backend_module.h"

#include "backend/QVBackendManager.h"
#include "backend/QVBackendMonitor.h"
#include "core/qvlb_keywords.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVSQLProcessor.h"
#include "mm/QVMethodMonitor.h"

void qv_backend_register_hooks() {
    qvlb_set_keyword_parser("maxIPCount", parseMaxIPCount);
    qvlb_set_keyword_parser("enableBackendMonitor", static_cast<qvKeywordParser>(setBackendMonitorEnabled));
    qvlb_set_keyword_parser("DBIPName", setDBIPName);
    qvlb_add_keyword_init_hook(QVBackendMonitorKeywordInit);
    qvlb_add_keyword_init_hook(QVSQLProcessorKeywordInit);
    qvMethodRegistryHooks.backendLimitReached = backendLimitReached;
    qvMethodRegistryHooks.incrementBackendCounter = incrementBackendCounter;
    qvMethodRegistryHooks.checkAndIncrementAggrBackendDataArray = checkAndIncrementAggrBackendDataArray;
    qvInstanceInfoHooks.refreshBackendVectorPrefix = refreshBackendVectorPrefix;
}
