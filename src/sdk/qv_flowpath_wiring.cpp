// Adapters between the flowpath engine's hook table and the BT, method and backend layers.
#include "sdk/qv_flowpath_wiring.h"

#include <climits>

#include "backend/QVBackendMonitor.h"
#include "bt/QVBTManager.h"
#include "bt/QVBTMonitor.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "foundation/qvlb_atomic.h"
#include "mm/QVMethodMonitor.h"
#include "qvbt/qvbt_bt_object.h"
#include "qvbt/qvbt_utils.h"

namespace {

int categoryOfBT(const BTObject* bt, long long duration, int statusCode) {
    // Without a BT there are no thresholds: only the error statuses give a category other than 10.
    Threshold t{INT_MAX, INT_MAX};
    if (bt != nullptr) {
        t.slow = qv_load(bt->bt_threshold.slow);
        t.very_slow = qv_load(bt->bt_threshold.very_slow);
    }
    return findCategoryOfBT(t, duration, statusCode);
}

int btIdOf(const BTObject* bt) {
    return bt ? qv_load(bt->bt_id) : 0;
}

char doNotDiscardAnyTransaction() {
    return qv_load(QVBTMonitor.doNotDisacrdAnyTransaction);
}

}  // namespace

void qv_wire_flowpath_hooks() {
    qvFlowpathHooks.get_obj_from_bt_name = get_obj_from_bt_name;
    qvFlowpathHooks.findCategoryOfBT = categoryOfBT;
    qvFlowpathHooks.getBTId = btIdOf;
    qvFlowpathHooks.getBTHeaderName = getBTHeaderName;
    qvFlowpathHooks.updateCounterAndDurationForBT = updateCounterAndDurationForBT;
    qvFlowpathHooks.updateCounterAndDurationForMethod = updateCounterAndDurationForMethod;
    qvFlowpathHooks.updateCounterAndDurationForBackend = updateCounterAndDurationForBackend;
    qvFlowpathHooks.doNotDiscardAnyTransaction = doNotDiscardAnyTransaction;
}
