// Base fixture of the core tests: a temporary agent home; whatever agent start-up made in it is
// reset after the test.
#ifndef QV_TESTS_CORE_FIXTURE_H
#define QV_TESTS_CORE_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "support/temp_home.h"

class AgentHomeTest : public ::testing::Test {
  protected:
    void TearDown() override {
        qvAgentHooks = QVAgentHooks{};
        qvlb_fault_reset();
        qv_agent_reset_for_test();
    }
    // Start-up (connect as agent_init takes it) with the control thread's log lines on.
    void start(int connect) {
        agent_init("pool", connect, "proc", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        qvApplication->QVSys.controlTraceLevel = 1;
    }
    bool logged(const std::string& text) const { return home_.traceLogs().find(text) != std::string::npos; }

    TempAgentHome home_;
};

#endif
