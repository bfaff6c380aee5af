// Shared pieces of the collector tests: the exact reply bytes the collector sees, and the base
// fixture (a temporary agent home and a loopback collector).
#ifndef QV_TESTS_COLLECTOR_FIXTURE_H
#define QV_TESTS_COLLECTOR_FIXTURE_H

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "collector/NIODataDispatcher.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/collector_module.h"
#include "collector/control_thread.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"
#include "support/loopback_peer.h"
#include "support/temp_home.h"

constexpr int kWaitMs = 20000;  // safety net only; waits end as soon as the condition holds
const std::string kRefusal =
    "qv_control_rep:result=Error:<Unable to process modify message because of stop instrument recieved or "
    "startInstrument not recieved.\n";
const std::string kModifyOk = "qv_control_rep:action=modify;result=Ok;\n";
const std::string kStartReply = "qv_control_rep:action=start_instrumentation;status=starting;result=Ok;\n";
const std::string kStopReply = "qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n";

inline bool contains(const std::string& hay, const std::string& needle) {
    return hay.find(needle) != std::string::npos;
}

// Polls pred every 5 ms until it holds or kWaitMs pass; returns its last value.
inline bool waitUntil(const std::function<bool()>& pred) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (!pred() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

// Either agent start-up runs (and app_ is set to its instance) or useBareInstance() installs a
// zeroed instance with a fixed identity. TearDown stops every collector thread and clears the
// modules and the agent.
class CollectorTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(peer_.start()); }
    void TearDown() override {
        qv_agent_shutdown();
        qv_data_dispatcher_reset_for_test();
        nio_data_dispatcher_reset_for_test();
        monitor_reporter_reset_for_test();
        control_thread_reset_for_test();
        server_reset_for_test();
        qvc_server_config_reset_for_test();
        qvServerHooks = QVServerHooks{};
        qvReporterHooks = QVReporterHooks{};
        qvAgentHooks = QVAgentHooks{};
        qvDispatcherHooks = QVDispatcherHooks{};
        if (qvApplication == &bare_) qvApplication = nullptr;
        qv_agent_reset_for_test();
        qvlbSendTimeoutMs = 30000;
    }
    // No start-up: the instance and the trace log (in the home's logs/) that the dispatchers need.
    void useBareInstance() {
        memset(&bare_, 0, sizeof(bare_));
        bare_.agentName = const_cast<char*>("agentA");
        bare_.QVSys.controlTraceLevel = 1;
        bare_.QVSys.dataConnState = 1;
        bare_.QVSys.autosensorConnState = 1;
        bare_.QVBCISetting.appID = 3;
        bare_.QVBCISetting.serverID = 4;
        bare_.QVBCISetting.tierID = 5;
        bare_.QVBCISetting.appServerName = const_cast<char*>("srv1");
        bare_.QVBCISetting.tierName = const_cast<char*>("tierT");
        bare_.QVBCISetting.qvcHost = const_cast<char*>("127.0.0.1");
        bare_.Server.TestRunIDValue = 77;
        qvApplication = app_ = &bare_;
        ASSERT_EQ(qvlb_mkdir_p(home_.file("logs").c_str()), 0);
        trace_log_key = qvlb_init_mt_trace_log_ex(home_.file("logs").c_str(), "trace", 1, 10);
    }
    // Points the collector list at the peer and marks a test run running.
    void runAgainstPeer() {
        ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", peer_.port()), 0);
        app_->QVBCISetting.qvcPort = peer_.port();
        qv_store(app_->Server.testRunRunning, 1);
    }
    int countLogged(const std::string& text) const {
        const std::string all = home_.traceLogs();
        int n = 0;
        for (size_t p = all.find(text); p != std::string::npos; p = all.find(text, p + 1)) ++n;
        return n;
    }
    bool logged(const std::string& text) const { return countLogged(text) > 0; }
    int discards() const { return qv_load(app_->QVSys.discardCount); }
    // Index of the first connection to the peer whose bytes begin with prefix, or -1.
    int connWithPrefix(const std::string& prefix) const {
        for (int i = 0; i < peer_.connectionCount(); ++i)
            if (peer_.bytes(i).rfind(prefix, 0) == 0) return i;
        return -1;
    }

    TempAgentHome home_;
    LoopbackPeer peer_;
    QVProxyInstance_t* app_ = nullptr;
    QVProxyInstance_t bare_;
};

// The dispatcher tests' base: the bare instance, no start-up.
class BareCollectorTest : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        useBareInstance();
    }
};

#endif
