// Keyword and registry wiring of the method monitor.
#include "mm/mm_module.h"

#include "core/qvlb_keywords.h"
#include "flowpath/QVMethodHashMap.h"
#include "mm/QVMethodMonitor.h"

void qv_mm_register_hooks() {
    qvlb_set_keyword_parser("qvVectorSeparator", setQVVectorSeperator);
    qvMethodRegistryHooks.checkAndIncrementAggrMethodDataArray = checkAndIncrementAggrMethodDataArray;
}
