// Start-up and test-stop steps of the flowpath layer, handed to core and the data dispatcher.
#include "flowpath/flowpath_module.h"

#include "collector/QVDataDispatcher.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVTlsPoolReserve.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {

void createFpiToTLS() {
    // Every request adds and removes its entry: one lock for all would make them wait for each
    // other (and for a holder the scheduler preempted).
    if (fpiToTLS == nullptr) fpiToTLS = create_hashmap_striped(control_pool, 32);
}

void createTlsPool() {
    // Under the pool lock so the head store is ordered before any thread that takes a record.
    qvlb_create_nested_mutex(&tlsMutex, nullptr);
    QVLockGuard guard(tlsMutex);
    gFreeTLSHead = create_tls_pool(gBusyTLSCnt);
}

void initMethodRegistryHook() {
    initMethodRegistry();
}

}  // namespace

void qv_flowpath_register_hooks() {
    qvAgentHooks.createFpiToTLS = createFpiToTLS;
    qvAgentHooks.createTlsPool = createTlsPool;
    qvAgentHooks.stopRecordReserve = qvTlsPoolReserveStop;
    qvAgentHooks.initMethodRegistry = initMethodRegistryHook;
    qvDispatcherHooks.dumpFpFromBusyList = dumpFpFromBusyList;
    qvFlowpathPoolHooks.dumpIncompleteFPAtTestStop = dumpIncompleteFPAtTestStop;
    qvlb_set_keyword_parser("maxCharInSeqBlob", setMaxCharInSeqBlob);
    qvlb_set_keyword_parser("qvFlowpathMasks", setqvFlowpathMasks);
}
