// Shared pieces of the collector tests: the exact reply bytes the collector sees, and a zeroed
// agent instance with a fixed identity (no start-up), its trace log in a temporary directory and
// a loopback collector, for the two dispatchers.
#ifndef QV_TESTS_COLLECTOR_FIXTURE_H
#define QV_TESTS_COLLECTOR_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "collector/NIODataDispatcher.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "support/loopback_peer.h"
#include "support/temp_home.h"

constexpr int kWaitMs = 20000;  // safety net only; waits end as soon as the condition holds
const std::string kRefusal =
    "qv_control_rep:result=Error:<Unable to process modify message because of stop instrument recieved or "
    "startInstrument not recieved.\n";
const std::string kModifyOk = "qv_control_rep:action=modify;result=Ok;\n";
const std::string kStartReply = "qv_control_rep:action=start_instrumentation;status=starting;result=Ok;\n";
const std::string kStopReply = "qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n";

class BareInstanceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&app_, 0, sizeof(app_));
        app_.agentName = const_cast<char*>("agentA");
        app_.QVSys.controlTraceLevel = 1;
        app_.QVSys.dataConnState = 1;
        app_.QVSys.autosensorConnState = 1;
        app_.QVBCISetting.appID = 3;
        app_.QVBCISetting.serverID = 4;
        app_.QVBCISetting.tierID = 5;
        app_.QVBCISetting.appServerName = const_cast<char*>("srv1");
        app_.QVBCISetting.tierName = const_cast<char*>("tierT");
        app_.QVBCISetting.qvcHost = const_cast<char*>("127.0.0.1");
        app_.Server.TestRunIDValue = 77;
        qvApplication = &app_;
        char tmpl[] = "/tmp/qv_collector_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        trace_log_key = qvlb_init_mt_trace_log_ex(dir_.c_str(), "trace", 1, 10);
        ASSERT_TRUE(peer_.start());
    }
    // Derived fixtures stop their threads first.
    void TearDown() override {
        qvlb_trace_log_reset_for_test();
        qvApplication = nullptr;
        if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << dir_;
    }
    std::string log() const {
        std::ifstream in(dir_ + "/trace_0");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    int discards() const { return qv_load(app_.QVSys.discardCount); }
    bool waitFor(const std::function<bool()>& pred) const { return peer_.waitFor(pred, kWaitMs); }
    bool waitCleared(const char& flag) const {
        return waitFor([&] { return qv_load(flag) == 0; });
    }

    QVProxyInstance_t app_;
    std::string dir_;
    LoopbackPeer peer_;
};

// Tests that run agent start-up in a temporary home (app_ is the instance); TearDown stops every
// collector thread and clears the modules and the agent.
class AgentHomeTest : public ::testing::Test {
  protected:
    void TearDown() override {
        qv_agent_shutdown();
        qv_data_dispatcher_reset_for_test();
        nio_data_dispatcher_reset_for_test();
        control_thread_reset_for_test();
        server_reset_for_test();
        qvc_server_config_reset_for_test();
        qvServerHooks = QVServerHooks{};
        qvReporterHooks = QVReporterHooks{};
        qvAgentHooks = QVAgentHooks{};
        qv_agent_reset_for_test();
    }
    int countLogged(const std::string& text) const {
        const std::string all = home_.traceLogs();
        int n = 0;
        for (size_t p = all.find(text); p != std::string::npos; p = all.find(text, p + 1)) ++n;
        return n;
    }
    bool logged(const std::string& text) const { return countLogged(text) > 0; }

    TempAgentHome home_;
    QVProxyInstance_t* app_ = nullptr;
};

// Polls pred every 5 ms until it holds or kWaitMs pass; returns its last value.
inline bool waitUntil(const std::function<bool()>& pred) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (!pred() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

// Index of the connection to peer whose first bytes are prefix, or -1.
inline int connWithPrefix(const LoopbackPeer& peer, const std::string& prefix) {
    for (int i = 0; i < peer.connectionCount(); ++i)
        if (peer.bytes(i).rfind(prefix, 0) == 0) return i;
    return -1;
}

inline bool contains(const std::string& hay, const std::string& needle) {
    return hay.find(needle) != std::string::npos;
}

#endif
