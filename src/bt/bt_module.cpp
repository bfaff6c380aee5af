// Hands the BT and monitor layer's start-up steps, pool steps and keyword handlers to the layers
// below it.
#include "bt/bt_module.h"

#include "bt/QVBTManager.h"
#include "bt/QVBTMonitor.h"
#include "bt/QVMonitorDataModel.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "flowpath/QVPerThreadData.h"

void qv_bt_register_hooks() {
    qvAgentHooks.initThreadBasedModelMap = initThreadBasedModelMap;
    qvAgentHooks.initBTSubsystem = QVBTConfigModelInit;
    qvFlowpathPoolHooks.initQVMonitorDataModel = initQVMonitorDataModel;
    qvFlowpathPoolHooks.createMonitorDataModel = newMonitorDataModel;
    qvFlowpathPoolHooks.registerMonitorDataModel = registerMonitorDataModel;
    qvFlowpathPoolHooks.discardMonitorDataModel = discardMonitorDataModel;
    qvFlowpathPoolHooks.resetMonitorDataModelArrays = resetMonitorDataModelArrays;
    qvlb_set_keyword_parser("enableBTMonitor", parseBTMonitorKeyword);
    qvlb_set_keyword_parser("maxBTCount", parseMaxBTCount);
    qvlb_set_keyword_parser("BTAggDataArraySize", parseBTAggDataArraySize);
    qvlb_set_keyword_parser("enableBTMonitorError", parseBTMonitorErrorLevel);
    qvlb_set_keyword_parser("doNotDiscardFlowPaths", parseDoNotDiscardVal);
}
