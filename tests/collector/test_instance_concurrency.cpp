// Two application instances in one process, as the proxy runs them: each keeps its own collector
// connections, settings and threads.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "collector_fixture.h"
#include "foundation/qvlb_instance.h"

namespace {

const std::string kOkReply = "qv_ctrl_msg_rep:result=Ok;\n";
const std::string kStart =
    "qv_control_req:action=start_instrumentation;ASReportInterval=1;qvMonitorInterval=1;";

std::string settingsFor(int port) {
    return "tier=T1\nserver=S1\ninstance=I1\nqvcHost=127.0.0.1\nqvcPort=" + std::to_string(port) + "\n";
}

// Index of the first connection to peer whose first line begins with prefix, or -1.
int connWith(const LoopbackPeer& peer, const std::string& prefix) {
    for (int i = 0; i < peer.connectionCount(); ++i)
        if (peer.bytes(i).rfind(prefix, 0) == 0 && contains(peer.bytes(i), "\n")) return i;
    return -1;
}

// Answers the handshake on connection 0, starts a test run with testIdx n and waits for the data
// and auto-sensor connections; returns their first lines.
std::string startRun(LoopbackPeer& peer, int n) {
    if (!peer.waitForContains(0, "qv_ctrl_msg_req:", kWaitMs) || !peer.sendTo(0, kOkReply) ||
        !peer.sendTo(0, kStart + "tierID=" + std::to_string(n) + ";testIdx=" + std::to_string(n) + "\n"))
        return "";
    std::string lines;
    for (const std::string prefix : {"qv_data_msg_req:", "auto_sensor_thread_hotspot_data_req:"}) {
        if (!peer.waitFor([&] { return connWith(peer, prefix) >= 0; }, kWaitMs)) return "";
        const std::string b = peer.bytes(connWith(peer, prefix));
        lines += b.substr(0, b.find('\n') + 1);
    }
    return lines;
}

class InstanceConcurrency : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        qv_collector_register_hooks();
        qv_store(controlPollTimeoutMs, 100LL);
        qv_store(controlReconnectPauseMs, 20LL);
        qv_store(controlRetryIntervalMs, 50LL);
        qv_store(dataConnRetryIntervalMs, 200);
        qv_store(monitorReportSecondMs, 10LL);
        char dir[] = "/tmp/qv_instance_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        otherHome_ = std::string(dir) + "/";
        ASSERT_EQ(mkdir((otherHome_ + "config").c_str(), 0700), 0);
    }
    void TearDown() override {
        CollectorTest::TearDown();
        std::filesystem::remove_all(otherHome_);
    }
    std::string otherHome_;
};

TEST_F(InstanceConcurrency, EachInstanceHasItsOwnConnectionsSettingsAndThreads) {
    LoopbackPeer otherPeer;
    ASSERT_TRUE(otherPeer.start());
    std::ofstream(otherHome_ + "config/qvsettings.conf") << settingsFor(otherPeer.port());
    home_.write("config/qvsettings.conf", settingsFor(peer_.port()));

    // The process's own instance, started as an application process starts it.
    agent_init("pool", 1, "proc", nullptr);
    ASSERT_NE(qvApplication, nullptr);
    QVProxyInstance_t* own = qvApplication;

    QVInstanceState* other = qvlb_instance_create();
    ASSERT_NE(other, nullptr);
    QVProxyInstance_t* otherApp = nullptr;
    std::string otherLines;
    std::thread proxyThread([&] {
        QVInstanceScope scope(other);
        ASSERT_EQ(qvApplication, nullptr);
        ASSERT_EQ(agent_init_instance(), 0);
        otherApp = qvApplication;
        qvSetSharedStr(&otherApp->QVSys.qvHomePath, otherHome_.c_str(), "qvHomePath");
        ASSERT_EQ(qv_agent_start_control_thread(), 0);
        otherLines = startRun(otherPeer, 22);
    });
    const std::string ownLines = startRun(peer_, 11);
    proxyThread.join();

    // Each collector sees only its own instance: its port and test run on both request lines.
    auto expectOwnValues = [](const std::string& lines, int port, int n) {
        EXPECT_TRUE(contains(lines, ";tierID=" + std::to_string(n) +
                                        ";QVCollectorIP=127.0.0.1;QVCollectorPort=" + std::to_string(port) +
                                        ";testIdx=" + std::to_string(n) + ";pid="))
            << lines;
        EXPECT_TRUE(
            contains(lines, "QVCollectorPort=" + std::to_string(port) + ",testIdx=" + std::to_string(n)))
            << lines;
    };
    expectOwnValues(ownLines, peer_.port(), 11);
    expectOwnValues(otherLines, otherPeer.port(), 22);
    ASSERT_NE(otherApp, own);
    EXPECT_EQ(qv_load(own->Server.TestRunIDValue), 11);
    EXPECT_EQ(qv_load(otherApp->Server.TestRunIDValue), 22);
    EXPECT_EQ(qvApplication, own);

    // Stopping the other instance ends its threads only: the own control connection still answers.
    {
        QVInstanceScope scope(other);
        qv_agent_shutdown_instance();
        EXPECT_EQ(control_thread_id, nullptr);
        EXPECT_EQ(data_thread_id, nullptr);
        EXPECT_EQ(autoSensor_thread_id, nullptr);
    }
    EXPECT_EQ(qv_load(qvAgentStopping), 0);
    ASSERT_TRUE(peer_.sendTo(0, "qv_control_req:action=modify;tierID=12\n"));
    EXPECT_TRUE(peer_.waitForContains(0, kModifyOk, kWaitMs));
    EXPECT_EQ(qv_load(own->QVBCISetting.tierID), 12);
    qvlb_instance_destroy(other);
}

}  // namespace
