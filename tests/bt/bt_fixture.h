// Shared pieces of the BT tests: the BT layer alone on a bare instance in a temporary home, and
// the whole agent with the flowpath and BT hooks wired (the flowpath fixture underneath).
#ifndef QV_TESTS_BT_FIXTURE_H
#define QV_TESTS_BT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bt/QVBTManager.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "bt/bt_module.h"
#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "flowpath/flowpath_fixture.h"
#include "foundation/qvlb_mt_log.h"

inline std::vector<long long> thresholds(const BTObject* o) {
    return ints(o->bt_threshold.slow, o->bt_threshold.very_slow);
}

// A zeroed instance whose home is a temporary directory, with the BT trace (file bt_0) and the
// data buffers; no agent start-up.
class BTConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&app_, 0, sizeof(app_));
        qvApplication = &app_;
        app_.QVSys.qvHomePath = homePath_.data();
        app_.QVSys.btMonitorTraceLevel = 1;
        app_.QVSys.controlTraceLevel = 1;
        app_.QVSys.dataBuffMaxCount = 4;
        app_.QVSys.bciDataBufferMaxSize = 1 << 20;
        QVBTErrorArrayInit();
        trace_log_key = qvlb_init_mt_trace_log_ex(home_.path().c_str(), "bt", 1, 10);
        ASSERT_EQ(buff_list_init(), 0);
    }
    void TearDown() override {
        qvbt_manager_reset_for_test();
        qv_data_dispatcher_reset_for_test();
        initQVDynamicSettings();
        qvlb_trace_log_reset_for_test();
        qvApplication = nullptr;
    }
    std::string log() const { return home_.read("bt_0"); }
    void fileMode() { app_.QVBCISetting.fileBasedKeywordMode = '1'; }

    TempAgentHome home_;
    std::string homePath_ = home_.path();
    QVProxyInstance_t app_;
};

// The agent started with the flowpath and BT layers wired in.
class BTAgentTest : public AgentTest {
  protected:
    void SetUp() override {
        qv_flowpath_register_hooks();
        qv_bt_register_hooks();
        startAgent(1);
    }
    void TearDown() override {
        qvlb_fault_reset();
        qvbt_manager_reset_for_test();
        qvMonitorDataModelResetForTest();
        qvMonitorCommonResetForTest();
        AgentTest::TearDown();
    }
};

#endif
