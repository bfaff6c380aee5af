// Tests of the control thread against loopback peers standing in for collectors: handshake,
// replies, command framing, start and stop, heartbeats, liveness, failover, reroute and proxy mode.
#include "collector/control_thread.h"

#include <regex>

#include "collector_fixture.h"
#include "core/QVSys.h"

namespace {

const std::string kOkReply = "qv_ctrl_msg_rep:result=Ok;\n";

// A port nobody listens on: connects to it are refused.
int deadPort() {
    LoopbackPeer p;
    return p.start() ? p.port() : 0;  // closed again on return
}

// Index of the first connection to p after `after` whose first line arrived and begins with
// prefix, or -1.
int firstWith(const LoopbackPeer& p, const std::string& prefix, int after = -1) {
    for (int i = after + 1; i < p.connectionCount(); ++i) {
        const std::string b = p.bytes(i);
        if (contains(b, "\n") && b.rfind(prefix, 0) == 0) return i;
    }
    return -1;
}

// Waits for that connection and answers its first line with reply; its index, or -1.
int answer(LoopbackPeer& p, const std::string& reply = "", const std::string& prefix = "", int after = -1) {
    int i = -1;
    p.waitFor([&] { return (i = firstWith(p, prefix, after)) >= 0; }, kWaitMs);
    return i >= 0 && (reply.empty() || p.sendTo(i, reply)) ? i : -1;
}

bool closedByAgent(const LoopbackPeer& p, int i, int ms = kWaitMs) {
    return p.waitFor([&] { return p.closed(i); }, ms);
}

std::string reEscape(const std::string& s) {
    return std::regex_replace(s, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

std::string firstLine(const std::string& s) {
    return s.substr(0, s.find('\n') + 1);
}

// Settings lines naming the collector at port (and a backup).
std::string at(int port, int backupPort = 0) {
    std::string s = "qvcHost=127.0.0.1\nqvcPort=" + std::to_string(port) + "\n";
    if (backupPort != 0)
        s += "backupQvcHostName=127.0.0.1\nbackupQvcPort=" + std::to_string(backupPort) + "\n";
    return s;
}

class ControlThread : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        qv_collector_register_hooks();
        // Runs inside start-up just before the control thread starts: its first lines are logged.
        qvAgentHooks.initBTSubsystem = [] { qv_store(qvApplication->QVSys.controlTraceLevel, 1); };
        qv_store(controlPollTimeoutMs, 100LL);
        qv_store(controlReconnectPauseMs, 20LL);
        qv_store(controlRetryIntervalMs, 50LL);
        qv_store(dataConnRetryIntervalMs, 200);
    }
    void writeConf(const std::string& extra) {
        home_.write("config/qvsettings.conf", "tier=T1\nserver=S1\ninstance=I1\n" + extra);
    }
    void startAgent(const std::string& conf) {
        writeConf(conf);
        agent_init("pool", 1, "proc", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        app_ = qvApplication;
        qv_store(app_->QVSys.dataBuffMaxCount, 16);
        qv_store(app_->QVSys.bciDataBufferMaxSize, 4096);
    }
    // Starts the agent against peer_ and answers its handshake.
    void connectAgent() {
        startAgent(at(peer_.port()));
        ASSERT_EQ(answer(peer_, kOkReply), 0);
    }
    // Whether text is the expected handshake line (BCITimeStamp varies).
    bool isHandshake(const std::string& text, int requestType, const std::string& lastConn,
                     const std::string& dest, const std::string& server = "S1") const {
        const std::string re =
            reEscape("qv_ctrl_msg_req:appName=pool;qvAppServerHost=" + server + ";tierName=T1;bciVersion=" +
                     std::string(getQvBuild()) + ";bciStartTime=" + std::to_string(getBCIStartUpTime()) +
                     ";qvHome=" + home_.path() + ";pid=" + std::to_string(getpid()) + ";BCITimeStamp=") +
            "[0-9]{16,}" +
            reEscape(";agentType=php;serverIp=127.0.0.1;hostName=" + std::string(getHandshakeHostName()) +
                     ";isAgentLess=N;jvmType=php;javaVersion=1.0;javaHome=/apps/java;machineType=Windows;"
                     "requestType=" +
                     std::to_string(requestType) + ";lastConnectionTimeStamp=") +
            lastConn + reEscape(";connDuration=") + "[0-9]+" +
            reEscape(";connDestination=" + dest + ";agentName=pool\n");
        return std::regex_match(text, std::regex(re));
    }
};

TEST_F(ControlThread, HandshakeIsExactAndRepliesDriveRetryFlagsOrReconnect) {
    LoopbackPeer& qvc = peer_;
    startAgent(at(qvc.port()));
    ASSERT_EQ(answer(qvc), 0);
    EXPECT_TRUE(isHandshake(qvc.bytes(0), 1, "-1", "")) << qvc.bytes(0);  // and nothing after it

    qv_store(app_->Server.retryForDataConn, 1);
    qv_store(app_->Server.retryForAutoSensorConn, 1);
    ASSERT_TRUE(qvc.sendTo(0, "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;policy=x\n"));
    ASSERT_TRUE(waitUntil([&] {
        return qv_load(app_->Server.retryForDataConn) == 0 &&
               qv_load(app_->Server.retryForAutoSensorConn) == 0;
    }));

    // The collector goes away: a new connection carries the time and destination of the last one.
    qvc.dropConnection(0);
    ASSERT_EQ(answer(qvc, "", "", 0), 1);
    EXPECT_TRUE(isHandshake(qvc.bytes(1), 1, "[0-9]{13,}", "127.0.0.1:" + std::to_string(qvc.port())))
        << qvc.bytes(1);
    ASSERT_TRUE(qvc.sendTo(1, "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n"));
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->Server.retryForDataConn) == 1; }));

    // An invalid reply closes the connection and the agent connects again.
    qvc.dropConnection(1);
    ASSERT_EQ(answer(qvc, "garbage\n", "", 1), 2);
    ASSERT_TRUE(closedByAgent(qvc, 2));
    // A known prefix with an unknown result.
    ASSERT_EQ(answer(qvc, "qv_ctrl_msg_rep:result=Fail;\n", "", 2), 3);
    ASSERT_TRUE(closedByAgent(qvc, 3));
    ASSERT_EQ(answer(qvc, "", "", 3), 4);
}

TEST_F(ControlThread, CommandFramingAcrossReadsAndBadLines) {
    LoopbackPeer& qvc = peer_;
    startAgent(at(qvc.port()));
    // A command right behind the reply, in the same packet, is handled by the command loop.
    ASSERT_EQ(answer(qvc, kOkReply + "qv_control_req:action=modify;AgentTraceLevel=4\n"), 0);
    const size_t hs = firstLine(qvc.bytes(0)).size();  // the refusal may be in already
    auto replies = [&](size_t n, int ms = kWaitMs) {
        return qvc.waitFor([&] { return qvc.byteCount(0) >= hs + n * kRefusal.size(); }, ms);
    };
    ASSERT_TRUE(replies(1));

    // Two commands in one read.
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=modify;a=1\nqv_control_req:action=modify;b=2\n"));
    ASSERT_TRUE(replies(3));
    // One command split across reads is handled once its newline arrives.
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=mod"));
    EXPECT_FALSE(replies(4, 300));
    ASSERT_TRUE(qvc.sendTo(0, "ify;c=3\n"));
    ASSERT_TRUE(replies(4));

    // Over-long (larger than the receive buffer), binary and malformed lines: ignored, logged,
    // the connection stays and the next command is answered. A NUL ends a line's text.
    ASSERT_TRUE(qvc.sendTo(0, std::string(100000, 'x') + "\n"));
    ASSERT_TRUE(qvc.sendTo(0, std::string(QV_CONTROL_BUFFER_SIZE - 1, 'y')));
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=modify;tail\n"));  // the end of the long line
    ASSERT_TRUE(qvc.sendTo(0, std::string("\x00\x01\xfe\xff binary\n", 12) + ";;;==\n\n\r\n"));
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=start_instrumentatio\nno prefix at all\n"));
    ASSERT_TRUE(qvc.sendTo(0, std::string("qv_control_req:action=modify\0;AgentTraceLevel=4\n", 48)));
    ASSERT_TRUE(replies(5));
    std::string expected;
    for (int i = 0; i < 5; ++i) expected += kRefusal;
    EXPECT_EQ(qvc.bytes(0).substr(hs), expected);
    EXPECT_FALSE(closedByAgent(qvc, 0, 50));
    EXPECT_EQ(qv_load(app_->QVSys.agentTraceLevel), 0);
    EXPECT_TRUE(logged("Control message longer than"));
    EXPECT_TRUE(logged("Unknown message received from QVC, ignored: 'no prefix at all'"));
}

TEST_F(ControlThread, SilenceBeyondThresholdClosesAllConnections) {
    connectAgent();
    ASSERT_TRUE(peer_.sendTo(
        0, "qv_control_req:action=start_instrumentation;ASReportInterval=1;qvcHeartBeatThreshold=400\n"));
    // Heartbeats from the collector keep the agent content until both connections are open.
    int data = -1, as = -1;
    ASSERT_TRUE(peer_.waitFor(
        [&] {
            peer_.sendTo(0, "qv_control_req:action=reconnect;heartBeat;\n");
            data = firstWith(peer_, "qv_data_msg_req:");
            as = firstWith(peer_, "auto_sensor_thread_hotspot_data_req:");
            return data > 0 && as > 0;
        },
        kWaitMs));
    for (int conn : {0, data, as}) EXPECT_TRUE(closedByAgent(peer_, conn)) << conn;
    // And the agent comes back.
    EXPECT_GT(answer(peer_, "", "qv_ctrl_msg_req:", 0), 0);
}

TEST_F(ControlThread, SwitchesToBackupAfterRetryLimit) {
    startAgent(at(deadPort(), peer_.port()));
    ASSERT_EQ(answer(peer_, kOkReply), 0);
    EXPECT_TRUE(isHandshake(firstLine(peer_.bytes(0)), 3, "-1", "")) << peer_.bytes(0);
    EXPECT_EQ(qv_load(active_qvc_idx), 1u);
}

TEST_F(ControlThread, HeartbeatsCountAndUnansweredOnesSwitchOver) {
    LoopbackPeer &primary = peer_, backup;
    ASSERT_TRUE(backup.start());
    qv_store(controlPollTimeoutMs, 20LL);
    startAgent(at(primary.port(), backup.port()));
    ASSERT_EQ(answer(primary, kOkReply), 0);
    const size_t hs = firstLine(primary.bytes(0)).size();
    const std::string hb0 = "qv_control_req:action=reconnect;heartBeat 0;\n";
    const std::string hb1 = "qv_control_req:action=reconnect;heartBeat 1;\n";
    ASSERT_TRUE(primary.waitForContains(0, hb1, kWaitMs));
    EXPECT_EQ(primary.bytes(0).substr(hs, hb0.size() + hb1.size()), hb0 + hb1);
    // The answer resets the count: the next heartbeat is number 0 again.
    ASSERT_TRUE(primary.sendTo(0, "qv_control_rep:action:result=Ok;\n"));
    ASSERT_TRUE(primary.waitFor(
        [&] { return primary.bytes(0).find(hb0, hs + hb0.size()) != std::string::npos; }, kWaitMs));
    // Ten heartbeats left unanswered switch to the backup, which the data connection follows.
    ASSERT_EQ(answer(backup, kOkReply), 0);
    EXPECT_TRUE(closedByAgent(primary, 0));
    EXPECT_TRUE(contains(primary.bytes(0), "qv_control_req:action=reconnect;heartBeat 9;\n"));
    qv_store(controlPollTimeoutMs, 100LL);
    ASSERT_TRUE(backup.sendTo(0, "qv_control_req:action=start_instrumentation;ASReportInterval=0\n"));
    EXPECT_GT(answer(backup, "", "qv_data_msg_req:"), 0);
}

TEST_F(ControlThread, ReroutesToNewCollectorAndInClusterModeAfterFallBackToMaster) {
    LoopbackPeer &a = peer_, master, node;
    ASSERT_TRUE(master.start() && node.start());
    connectAgent();
    ASSERT_TRUE(a.sendTo(0, "qv_control_req:action=reroute_ctrl_con;qvcHost=127.0.0.1;qvcPort=" +
                                std::to_string(master.port()) +
                                ";tier=ALL;server=S2;instance=ALL;clusterMode=0\n"));
    ASSERT_EQ(answer(master, kOkReply), 0);
    EXPECT_TRUE(closedByAgent(a, 0));
    EXPECT_TRUE(isHandshake(firstLine(master.bytes(0)), 2, "[0-9]{13,}",
                            "127.0.0.1:" + std::to_string(a.port()), "S2"))
        << master.bytes(0);
    EXPECT_EQ(home_.read("config/qvsettings.conf"), "tier=T1\nserver=S2\ninstance=I1\n" + at(master.port()));

    const std::string reroute =
        "qv_control_req:action=reroute_ctrl_con;qvcHost=127.0.0.1;clusterMode=1;qvcPort=";
    // The cluster node named first is down: the agent falls back to the master (entry 0).
    ASSERT_TRUE(master.sendTo(0, reroute + std::to_string(deadPort()) + "\n"));
    ASSERT_EQ(answer(master, kOkReply, "", 0), 1);
    ASSERT_TRUE(waitUntil([] { return qv_load(isMasterQvc) == 1; }));
    ASSERT_TRUE(master.sendTo(1, reroute + std::to_string(node.port()) + "\n"));
    ASSERT_EQ(answer(node, kOkReply), 0);
    EXPECT_EQ(qv_load(isMasterQvc), 0);
}

TEST_F(ControlThread, RequestLinesCarryCurrentValuesAfterReconnectAndNewStart) {
    LoopbackPeer& qvc = peer_;
    qv_store(monitorReportSecondMs, 10LL);
    // Monitor records every interval, so the reporting thread notices a closed connection.
    qvReporterHooks.generateBT = [](char* buf, int* len) {
        *len += snprintf(buf + *len, 8, "74,1\n");
        return true;
    };
    connectAgent();
    // The request lines of both connections made after `after` name tier id and test run n.
    auto expectLines = [&](int after, int n) {
        auto v = [&](char sep) {
            return ";tierID=" + std::to_string(n) +
                   ";QVCollectorIP=127.0.0.1;QVCollectorPort=" + std::to_string(qvc.port()) + sep +
                   "testIdx=" + std::to_string(n) + ";pid=";
        };
        const int data = answer(qvc, "", "qv_data_msg_req:", after),
                  as = answer(qvc, "", "auto_sensor_thread_hotspot_data_req:", after);
        ASSERT_GT(data, after);
        ASSERT_GT(as, after);
        EXPECT_TRUE(contains(firstLine(qvc.bytes(data)), v(';'))) << qvc.bytes(data);
        EXPECT_TRUE(contains(firstLine(qvc.bytes(as)), v(','))) << qvc.bytes(as);
    };
    const std::string start =
        "qv_control_req:action=start_instrumentation;ASReportInterval=1;qvMonitorInterval=1;";
    ASSERT_TRUE(qvc.sendTo(0, start + "tierID=1;testIdx=1\n"));
    expectLines(0, 1);

    // Both connections are made again after a modify changed the values.
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=modify;tierID=2;testIdx=2\n"));
    ASSERT_TRUE(qvc.waitForContains(0, kModifyOk, kWaitMs));
    const int before = qvc.connectionCount() - 1;
    for (int i = 1; i <= before; ++i) qvc.dropConnection(i);
    std::atomic<bool> run{true};
    std::thread writer([&] {  // data to send, so the data thread notices the close
        for (; run; std::this_thread::sleep_for(std::chrono::milliseconds(5))) dumpData("\n2,x\n", 5);
    });
    expectLines(before, 2);
    run = false;
    writer.join();

    // A new test run with other keywords.
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=stop_instrumentation\n"));
    ASSERT_TRUE(qvc.waitForContains(0, kStopReply, kWaitMs));
    ASSERT_TRUE(waitUntil([&] {
        return qv_load(app_->QVBCISetting.data_thread_running) == 0 &&
               qv_load(app_->QVBCISetting.autoSensor_thread_running) == 0;
    }));
    const int stopped = qvc.connectionCount() - 1;
    ASSERT_TRUE(qvc.sendTo(0, start + "tierID=3;testIdx=3\n"));
    expectLines(stopped, 3);
}

TEST_F(ControlThread, SettingsFileChangeEndsRetriesAndShutdownEndsWaits) {
    qv_store(controlRetryIntervalMs, 1500LL);
    startAgent(at(deadPort()));
    ASSERT_TRUE(waitUntil([&] { return logged("Socket was not created and retry after 60seconds"); }));
    writeConf("# moved\n" + at(peer_.port()));
    ASSERT_EQ(answer(peer_, kOkReply), 0);
    EXPECT_FALSE(logged("Max number of retry attempt reached"));

    // A retry wait of an hour: only the shutdown's interruption ends it before the test times out.
    qv_store(controlRetryIntervalMs, 3600000LL);
    writeConf(at(deadPort()));
    const int failures = countLogged("Socket was not created");
    peer_.dropConnection(0);
    ASSERT_TRUE(waitUntil([&] { return countLogged("Socket was not created") > failures; }));
    qv_agent_shutdown();
    EXPECT_EQ(control_thread_id, nullptr);
}

TEST_F(ControlThread, ProxyModeConnectsToUnixSocket) {
    LoopbackPeer proxy;
    ASSERT_TRUE(proxy.start(home_.file("px.sock")));
    startAgent("qvcHost=127.0.0.1\nqvcPort=1\nproxyMode=1\nproxyConType=1\nproxySocketPath=" +
               home_.file("px.sock") + "\n");
    ASSERT_EQ(answer(proxy, kOkReply, "qv_ctrl_msg_req:appName=pool;"), 0);
}

// The control thread runs a test run's commands while application threads write records.
class ControlConcurrency : public ControlThread {};

TEST_F(ControlConcurrency, StartCommandsAndStopWhileApplicationThreadsWrite) {
    LoopbackPeer& qvc = peer_;
    connectAgent();
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=start_instrumentation;ASReportInterval=0;testIdx=42\n"));
    const int data = answer(qvc, "", "qv_data_msg_req:");
    ASSERT_GT(data, 0);
    EXPECT_TRUE(contains(qvc.bytes(data), ";testIdx=42;"));
    EXPECT_TRUE(qvc.waitForContains(0, kStartReply, kWaitMs));
    std::atomic<bool> run{true};
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t)
        writers.emplace_back([&, t] {
            const std::string rec = "\n2,thread" + std::to_string(t) + "\n";
            while (run) {
                dumpData(rec.data(), static_cast<int>(rec.size()));
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    for (int i = 0; i < 20; ++i) {
        qvc.sendTo(0, "qv_control_req:action=modify;AgentTraceLevel=" + std::to_string(i % 3) + "\n");
        qvc.sendTo(0, "qv_control_req:action=reconnect;heartBeat;dataConnState=1;x\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(qvc.waitForContains(data, "\n2,thread0\n", kWaitMs));
    ASSERT_TRUE(qvc.sendTo(0, "qv_control_req:action=stop_instrumentation\n"));
    ASSERT_TRUE(qvc.waitForContains(data, "10,\n", kWaitMs));
    run = false;
    for (std::thread& t : writers) t.join();
    ASSERT_TRUE(qvc.waitForContains(0, kStopReply, kWaitMs));
    EXPECT_EQ(qv_load(app_->Server.testRunRunning), 0);
}

}  // namespace
