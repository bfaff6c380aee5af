// Tests of the control thread against scripted collectors on loopback: handshake, replies,
// command framing, start and stop, heartbeats, liveness, failover, reroute and proxy mode.
#include "collector/control_thread.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <regex>

#include "collector_fixture.h"
#include "core/QVSys.h"

namespace {

const std::string kOkReply = "qv_ctrl_msg_rep:result=Ok;\n";

// Binds a TCP socket on 127.0.0.1 to a free port; returns the fd (or -1) and sets *port.
int bindLoopback(int* port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return -1;
    *port = ntohs(a.sin_port);
    return fd;
}

// A port nobody listens on: connects to it are refused.
int deadPort() {
    int port = 0;
    close(bindLoopback(&port));
    return port;
}

// A collector on 127.0.0.1 that the test drives step by step: accepts connections, reads what
// they send and answers. Every wait ends when its condition holds or after ms.
class ScriptedCollector {
  public:
    ~ScriptedCollector() {
        for (Conn& c : conns_) close(c.fd);
        close(listenFd_);
    }
    // Listens on 127.0.0.1, or on the Unix-domain socket unixPath when one is given.
    bool start(const std::string& unixPath = "") {
        listenFd_ = unixPath.empty() ? bindLoopback(&port_) : socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", unixPath.c_str());
        if (!unixPath.empty() && bind(listenFd_, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0)
            return false;
        return listenFd_ >= 0 && listen(listenFd_, 16) == 0;
    }
    int port() const { return port_; }
    int count() const { return static_cast<int>(conns_.size()); }
    const std::string& bytes(int i) const { return conns_[static_cast<size_t>(i)].data; }
    // Accepts the next connection whose first line begins with prefix (others are kept but not
    // answered) and answers that line with reply. Returns the connection's index, or -1.
    int accept(const std::string& reply = "", const std::string& prefix = "") {
        for (pollfd p{listenFd_, POLLIN, 0}; poll(&p, 1, kWaitMs) == 1;) {
            conns_.push_back({::accept(listenFd_, nullptr, nullptr), true, ""});
            const int i = count() - 1;
            if (readUntil(i, [&] { return contains(bytes(i), "\n"); }) && bytes(i).rfind(prefix, 0) == 0)
                return reply.empty() || send(i, reply) ? i : -1;
        }
        return -1;
    }
    // Reads connection i until pred holds, the peer closes or ms pass; returns pred().
    bool readUntil(int i, const std::function<bool()>& pred, int ms = kWaitMs) {
        Conn& c = conns_[static_cast<size_t>(i)];
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        char buf[65536];
        for (pollfd p{c.fd, POLLIN, 0}; !pred() && c.open && std::chrono::steady_clock::now() < end;) {
            if (poll(&p, 1, 10) != 1) continue;
            const ssize_t n = read(c.fd, buf, sizeof(buf));
            if (n > 0) c.data.append(buf, static_cast<size_t>(n));
            c.open = n > 0;
        }
        return pred();
    }
    bool readContains(int i, const std::string& text) {
        return readUntil(i, [&] { return contains(bytes(i), text); });
    }
    bool closedByAgent(int i, int ms = kWaitMs) {
        return readUntil(
            i, [&] { return !conns_[static_cast<size_t>(i)].open; }, ms);
    }
    bool send(int i, const std::string& text) {
        const Conn& c = conns_[static_cast<size_t>(i)];
        return ::send(c.fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    void closeConn(int i) { shutdown(conns_[static_cast<size_t>(i)].fd, SHUT_RDWR); }

  private:
    struct Conn {
        int fd;
        bool open;
        std::string data;
    };
    int listenFd_ = -1;
    int port_ = 0;
    std::vector<Conn> conns_;
};

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
    // Starts the agent against qvc and answers its handshake.
    void connectAgent(ScriptedCollector& qvc) {
        ASSERT_TRUE(qvc.start());
        startAgent(at(qvc.port()));
        ASSERT_EQ(qvc.accept(kOkReply), 0);
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
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    startAgent(at(qvc.port()));
    ASSERT_EQ(qvc.accept(), 0);
    EXPECT_TRUE(isHandshake(qvc.bytes(0), 1, "-1", "")) << qvc.bytes(0);  // and nothing after it

    qv_store(app_->Server.retryForDataConn, 1);
    qv_store(app_->Server.retryForAutoSensorConn, 1);
    ASSERT_TRUE(qvc.send(0, "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;policy=x\n"));
    ASSERT_TRUE(waitUntil([&] {
        return qv_load(app_->Server.retryForDataConn) == 0 &&
               qv_load(app_->Server.retryForAutoSensorConn) == 0;
    }));

    // The collector goes away: a new connection carries the time and destination of the last one.
    qvc.closeConn(0);
    ASSERT_EQ(qvc.accept(), 1);
    EXPECT_TRUE(isHandshake(qvc.bytes(1), 1, "[0-9]{13,}", "127.0.0.1:" + std::to_string(qvc.port())))
        << qvc.bytes(1);
    ASSERT_TRUE(qvc.send(1, "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n"));
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->Server.retryForDataConn) == 1; }));

    // An invalid reply closes the connection and the agent connects again.
    qvc.closeConn(1);
    ASSERT_EQ(qvc.accept("garbage\n"), 2);
    ASSERT_TRUE(qvc.closedByAgent(2));
    ASSERT_EQ(qvc.accept("qv_ctrl_msg_rep:result=Fail;\n"), 3);  // a known prefix with an unknown result
    ASSERT_TRUE(qvc.closedByAgent(3));
    ASSERT_EQ(qvc.accept(), 4);
}

TEST_F(ControlThread, CommandFramingAcrossReadsAndBadLines) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    startAgent(at(qvc.port()));
    // A command right behind the reply, in the same packet, is handled by the command loop.
    ASSERT_EQ(qvc.accept(kOkReply + "qv_control_req:action=modify;AgentTraceLevel=4\n"), 0);
    const size_t hs = qvc.bytes(0).size();
    auto replies = [&](size_t n) {
        return qvc.readUntil(0, [&] { return qvc.bytes(0).size() >= hs + n * kRefusal.size(); });
    };
    ASSERT_TRUE(replies(1));

    // Two commands in one read.
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;a=1\nqv_control_req:action=modify;b=2\n"));
    ASSERT_TRUE(replies(3));
    // One command split across reads is handled once its newline arrives.
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=mod"));
    EXPECT_FALSE(qvc.readUntil(
        0, [&] { return qvc.bytes(0).size() > hs + 3 * kRefusal.size(); }, 300));
    ASSERT_TRUE(qvc.send(0, "ify;c=3\n"));
    ASSERT_TRUE(replies(4));

    // Over-long (larger than the receive buffer), binary and malformed lines: ignored, logged,
    // the connection stays and the next command is answered.
    ASSERT_TRUE(qvc.send(0, std::string(100000, 'x') + "\n"));
    ASSERT_TRUE(qvc.send(0, std::string(QV_CONTROL_BUFFER_SIZE - 1, 'y')));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;tail\n"));  // the end of the long line
    ASSERT_TRUE(qvc.send(0, std::string("\x00\x01\xfe\xff binary\n", 12) + ";;;==\n\n\r\n"));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;d=4\n"));
    ASSERT_TRUE(replies(5));
    std::string expected;
    for (int i = 0; i < 5; ++i) expected += kRefusal;
    EXPECT_EQ(qvc.bytes(0).substr(hs), expected);
    EXPECT_FALSE(qvc.closedByAgent(0, 50));
}

TEST_F(ControlThread, SilenceBeyondThresholdClosesAllConnections) {
    ScriptedCollector qvc;
    connectAgent(qvc);
    ASSERT_TRUE(qvc.send(
        0, "qv_control_req:action=start_instrumentation;ASReportInterval=0;qvcHeartBeatThreshold=400\n"));
    const int data = qvc.accept("", "qv_data_msg_req:");
    ASSERT_GT(data, 0);
    ASSERT_TRUE(qvc.closedByAgent(0));
    ASSERT_TRUE(qvc.closedByAgent(data));
    // And the agent comes back.
    ASSERT_GT(qvc.accept("", "qv_ctrl_msg_req:"), data);
}

TEST_F(ControlThread, SwitchesToBackupAfterRetryLimit) {
    ScriptedCollector backup;
    ASSERT_TRUE(backup.start());
    startAgent(at(deadPort(), backup.port()));
    ASSERT_EQ(backup.accept(kOkReply), 0);
    EXPECT_TRUE(isHandshake(firstLine(backup.bytes(0)), 3, "-1", "")) << backup.bytes(0);
    EXPECT_EQ(qv_load(active_qvc_idx), 1u);
}

TEST_F(ControlThread, HeartbeatsCountAndUnansweredOnesSwitchOver) {
    ScriptedCollector primary, backup;
    ASSERT_TRUE(primary.start());
    ASSERT_TRUE(backup.start());
    qv_store(controlPollTimeoutMs, 20LL);
    startAgent(at(primary.port(), backup.port()));
    ASSERT_EQ(primary.accept(kOkReply), 0);
    const size_t hs = primary.bytes(0).size();
    const std::string hb0 = "qv_control_req:action=reconnect;heartBeat 0;\n";
    const std::string hb1 = "qv_control_req:action=reconnect;heartBeat 1;\n";
    ASSERT_TRUE(primary.readContains(0, hb1));
    EXPECT_EQ(primary.bytes(0).substr(hs, hb0.size() + hb1.size()), hb0 + hb1);
    // The answer resets the count: the next heartbeat is number 0 again.
    ASSERT_TRUE(primary.send(0, "qv_control_rep:action:result=Ok;\n"));
    ASSERT_TRUE(primary.readUntil(
        0, [&] { return primary.bytes(0).find(hb0, hs + hb0.size()) != std::string::npos; }));
    // Ten heartbeats left unanswered switch to the backup.
    ASSERT_EQ(backup.accept(kOkReply), 0);
    EXPECT_TRUE(primary.closedByAgent(0));
    EXPECT_TRUE(contains(primary.bytes(0), "qv_control_req:action=reconnect;heartBeat 9;\n"));
}

TEST_F(ControlThread, ReroutesToNewCollectorAndInClusterModeAfterFallBackToMaster) {
    ScriptedCollector a, master, node;
    ASSERT_TRUE(master.start() && node.start());
    connectAgent(a);
    ASSERT_TRUE(a.send(0, "qv_control_req:action=reroute_ctrl_con;qvcHost=127.0.0.1;qvcPort=" +
                              std::to_string(master.port()) +
                              ";tier=ALL;server=S2;instance=ALL;clusterMode=0\n"));
    ASSERT_EQ(master.accept(kOkReply), 0);
    EXPECT_TRUE(a.closedByAgent(0));
    EXPECT_TRUE(isHandshake(firstLine(master.bytes(0)), 2, "[0-9]{13,}",
                            "127.0.0.1:" + std::to_string(a.port()), "S2"))
        << master.bytes(0);
    EXPECT_EQ(home_.read("config/qvsettings.conf"), "tier=T1\nserver=S2\ninstance=I1\n" + at(master.port()));

    const std::string reroute =
        "qv_control_req:action=reroute_ctrl_con;qvcHost=127.0.0.1;clusterMode=1;qvcPort=";
    // The cluster node named first is down: the agent falls back to the master (entry 0).
    ASSERT_TRUE(master.send(0, reroute + std::to_string(deadPort()) + "\n"));
    ASSERT_EQ(master.accept(kOkReply), 1);
    ASSERT_TRUE(waitUntil([] { return qv_load(isMasterQvc) == 1; }));
    ASSERT_TRUE(master.send(1, reroute + std::to_string(node.port()) + "\n"));
    ASSERT_EQ(node.accept(kOkReply), 0);
    EXPECT_EQ(qv_load(isMasterQvc), 0);
}

TEST_F(ControlThread, RequestLinesCarryCurrentValuesAfterReconnectAndNewStart) {
    ScriptedCollector qvc;
    qv_store(monitorReportSecondMs, 10LL);
    // Monitor records every interval, so the reporting thread notices a closed connection.
    qvReporterHooks.generateBT = [](char* buf, int* len) {
        *len += snprintf(buf + *len, 8, "74,1\n");
        return true;
    };
    connectAgent(qvc);
    // Connection after `after` whose request line begins with prefix (accepted now if need be).
    auto conn = [&](const std::string& prefix, int after) {
        for (int i = after + 1; i < qvc.count(); ++i)
            if (qvc.bytes(i).rfind(prefix, 0) == 0) return i;
        return qvc.accept("", prefix);
    };
    // The request lines of both connections made after `after` name tier id and test run n.
    auto expectLines = [&](int after, int n) {
        auto v = [&](char sep) {
            return ";tierID=" + std::to_string(n) +
                   ";QVCollectorIP=127.0.0.1;QVCollectorPort=" + std::to_string(qvc.port()) + sep +
                   "testIdx=" + std::to_string(n) + ";pid=";
        };
        const int data = conn("qv_data_msg_req:", after),
                  as = conn("auto_sensor_thread_hotspot_data_req:", after);
        ASSERT_GT(data, after);
        ASSERT_GT(as, after);
        EXPECT_TRUE(contains(firstLine(qvc.bytes(data)), v(';'))) << qvc.bytes(data);
        EXPECT_TRUE(contains(firstLine(qvc.bytes(as)), v(','))) << qvc.bytes(as);
    };
    const std::string start =
        "qv_control_req:action=start_instrumentation;ASReportInterval=1;qvMonitorInterval=1;";
    ASSERT_TRUE(qvc.send(0, start + "tierID=1;testIdx=1\n"));
    expectLines(0, 1);

    // Both connections are made again after a modify changed the values.
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;tierID=2;testIdx=2\n"));
    ASSERT_TRUE(qvc.readContains(0, kModifyOk));
    const int before = qvc.count() - 1;
    for (int i = 1; i <= before; ++i) qvc.closeConn(i);
    std::atomic<bool> run{true};
    std::thread writer([&] {  // data to send, so the data thread notices the close
        for (; run; std::this_thread::sleep_for(std::chrono::milliseconds(5))) dumpData("\n2,x\n", 5);
    });
    expectLines(before, 2);
    run = false;
    writer.join();

    // A new test run with other keywords.
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=stop_instrumentation\n"));
    ASSERT_TRUE(qvc.readContains(0, kStopReply));
    ASSERT_TRUE(waitUntil([&] {
        return qv_load(app_->QVBCISetting.data_thread_running) == 0 &&
               qv_load(app_->QVBCISetting.autoSensor_thread_running) == 0;
    }));
    const int stopped = qvc.count() - 1;
    ASSERT_TRUE(qvc.send(0, start + "tierID=3;testIdx=3\n"));
    expectLines(stopped, 3);
}

TEST_F(ControlThread, SettingsFileChangeEndsRetriesAndShutdownEndsWaits) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    qv_store(controlRetryIntervalMs, 1500LL);
    startAgent(at(deadPort()));
    ASSERT_TRUE(waitUntil([&] { return logged("Socket was not created and retry after 60seconds"); }));
    writeConf("# moved\n" + at(qvc.port()));
    ASSERT_EQ(qvc.accept(kOkReply), 0);
    EXPECT_FALSE(logged("Max number of retry attempt reached"));

    // A retry wait of an hour: only the shutdown's interruption ends it before the test times out.
    qv_store(controlRetryIntervalMs, 3600000LL);
    writeConf(at(deadPort()));
    const int failures = countLogged("Socket was not created");
    qvc.closeConn(0);
    ASSERT_TRUE(waitUntil([&] { return countLogged("Socket was not created") > failures; }));
    qv_agent_shutdown();
    EXPECT_EQ(control_thread_id, nullptr);
}

TEST_F(ControlThread, ProxyModeConnectsToUnixSocket) {
    ScriptedCollector proxy;
    ASSERT_TRUE(proxy.start(home_.file("px.sock")));
    startAgent("qvcHost=127.0.0.1\nqvcPort=1\nproxyMode=1\nproxyConType=1\nproxySocketPath=" +
               home_.file("px.sock") + "\n");
    ASSERT_EQ(proxy.accept(kOkReply, "qv_ctrl_msg_req:appName=pool;"), 0);
}

// The control thread runs a test run's commands while application threads write records.
class ControlConcurrency : public ControlThread {};

TEST_F(ControlConcurrency, StartCommandsAndStopWhileApplicationThreadsWrite) {
    ScriptedCollector qvc;
    connectAgent(qvc);
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=start_instrumentation;ASReportInterval=0;testIdx=42\n"));
    const int data = qvc.accept("", "qv_data_msg_req:");
    ASSERT_GT(data, 0);
    EXPECT_TRUE(contains(qvc.bytes(data), ";testIdx=42;"));
    EXPECT_TRUE(qvc.readContains(0, kStartReply));
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
        qvc.send(0, "qv_control_req:action=modify;AgentTraceLevel=" + std::to_string(i % 3) + "\n");
        qvc.send(0, "qv_control_req:action=reconnect;heartBeat;dataConnState=1;x\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(qvc.readContains(data, "\n2,thread0\n"));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=stop_instrumentation\n"));
    ASSERT_TRUE(qvc.readContains(data, "10,\n"));
    run = false;
    for (std::thread& t : writers) t.join();
    ASSERT_TRUE(qvc.readContains(0, kStopReply));
    EXPECT_EQ(qv_load(app_->Server.testRunRunning), 0);
}

}  // namespace
