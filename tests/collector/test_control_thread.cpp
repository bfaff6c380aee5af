// Tests of the control thread against scripted collectors on loopback: handshake, replies,
// command framing, start and stop, heartbeats, liveness, failover, reroute and proxy mode.
#include "collector/control_thread.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "collector/NIODataDispatcher.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/collector_module.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_util.h"
#include "support/temp_home.h"

namespace {

constexpr int kWaitMs = 20000;  // safety net only; waits end as soon as the condition holds
const std::string kOkReply = "qv_ctrl_msg_rep:result=Ok;\n";
const std::string kRefusal = QV_MODIFY_REFUSED_REPLY;

// A collector on 127.0.0.1 driven by the test: records what each connection sends, answers each
// control handshake with autoReply (when set) and sends what the test asks for.
class ScriptedCollector {
  public:
    ~ScriptedCollector() { stop(); }
    bool start() {
        listenFd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 ||
            listen(listenFd_, 16) != 0 || getsockname(listenFd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            return false;
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { run(); });
        return true;
    }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        std::lock_guard<std::mutex> g(mu_);
        for (Conn& c : conns_)
            if (c.fd >= 0) close(c.fd), c.fd = -1;
        if (listenFd_ >= 0) close(listenFd_), listenFd_ = -1;
    }
    int port() const { return port_; }
    void setAutoReply(const std::string& r) {
        std::lock_guard<std::mutex> g(mu_);
        autoReply_ = r;
    }
    int count() const {
        std::lock_guard<std::mutex> g(mu_);
        return static_cast<int>(conns_.size());
    }
    std::string bytes(int i) const {
        std::lock_guard<std::mutex> g(mu_);
        return i >= 0 && i < static_cast<int>(conns_.size()) ? conns_[i].data : std::string();
    }
    bool closed(int i) const {
        std::lock_guard<std::mutex> g(mu_);
        return i >= 0 && i < static_cast<int>(conns_.size()) && conns_[i].fd < 0;
    }
    // Index of the nth connection whose bytes begin with prefix, or -1.
    int find(const std::string& prefix, int nth = 0) const {
        std::lock_guard<std::mutex> g(mu_);
        for (size_t i = 0; i < conns_.size(); ++i)
            if (conns_[i].data.rfind(prefix, 0) == 0 && nth-- == 0) return static_cast<int>(i);
        return -1;
    }
    bool send(int i, const std::string& text) {
        std::lock_guard<std::mutex> g(mu_);
        if (i < 0 || i >= static_cast<int>(conns_.size()) || conns_[i].fd < 0) return false;
        return ::send(conns_[i].fd, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }
    void closeConn(int i) {
        std::lock_guard<std::mutex> g(mu_);
        if (i >= 0 && i < static_cast<int>(conns_.size()) && conns_[i].fd >= 0)
            close(conns_[i].fd), conns_[i].fd = -1;
    }
    bool waitFor(const std::function<bool()>& pred, int ms = kWaitMs) const {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!pred()) {
            if (std::chrono::steady_clock::now() > end) return pred();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

  private:
    struct Conn {
        int fd;
        std::string data;
        bool answered;
    };
    void run() {
        char buf[65536];
        while (!stop_) {
            std::vector<pollfd> fds{{listenFd_, POLLIN, 0}};
            std::vector<int> idx{-1};
            {
                std::lock_guard<std::mutex> g(mu_);
                for (size_t i = 0; i < conns_.size(); ++i)
                    if (conns_[i].fd >= 0)
                        fds.push_back({conns_[i].fd, POLLIN, 0}), idx.push_back(static_cast<int>(i));
            }
            if (poll(fds.data(), fds.size(), 20) <= 0) continue;
            for (size_t k = 0; k < fds.size(); ++k) {
                if (!(fds[k].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                if (idx[k] < 0) {
                    const int fd = accept(listenFd_, nullptr, nullptr);
                    std::lock_guard<std::mutex> g(mu_);
                    if (fd >= 0) conns_.push_back({fd, {}, false});
                    continue;
                }
                std::lock_guard<std::mutex> g(mu_);
                Conn& c = conns_[static_cast<size_t>(idx[k])];
                if (c.fd != fds[k].fd) continue;  // closed by the test meanwhile
                const ssize_t n = read(c.fd, buf, sizeof(buf));
                if (n <= 0) {
                    close(c.fd);
                    c.fd = -1;
                    continue;
                }
                c.data.append(buf, static_cast<size_t>(n));
                if (!c.answered && c.data.find('\n') != std::string::npos) {
                    c.answered = true;
                    if (c.data.rfind("qv_ctrl_msg_req:", 0) == 0 && !autoReply_.empty())
                        ::send(c.fd, autoReply_.data(), autoReply_.size(), MSG_NOSIGNAL);
                }
            }
        }
    }
    int listenFd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mu_;
    std::vector<Conn> conns_;
    std::string autoReply_;
};

// A port nobody listens on: connects to it are refused.
int deadPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

std::string reEscape(const std::string& s) {
    return std::regex_replace(s, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

class ControlThread : public ::testing::Test {
  protected:
    void SetUp() override {
        qv_collector_register_hooks();
        // Runs inside start-up just before the control thread starts: its first lines are logged.
        qvAgentHooks.initBTSubsystem = [] { qv_store(qvApplication->QVSys.controlTraceLevel, 1); };
        qv_store(controlPollTimeoutMs, 100LL);
        qv_store(controlReconnectPauseMs, 20LL);
        qv_store(controlRetryIntervalMs, 50LL);
        qv_store(dataConnRetryIntervalMs, 200);
    }
    void TearDown() override {
        qv_agent_shutdown();
        qv_data_dispatcher_reset_for_test();
        nio_data_dispatcher_reset_for_test();
        control_thread_reset_for_test();
        server_reset_for_test();
        qvc_server_config_reset_for_test();
        qvAgentHooks = QVAgentHooks{};
        qv_agent_reset_for_test();
    }
    void writeConf(const std::string& extra) {
        home_.write("config/qvsettings.conf", "tier=T1\nserver=S1\ninstance=I1\n" + extra);
    }
    void startAgent() {
        agent_init("pool", 1, "proc", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        app_ = qvApplication;
        qv_store(app_->QVSys.dataBuffMaxCount, 16);
        qv_store(app_->QVSys.bciDataBufferMaxSize, 4096);
    }
    bool logged(const std::string& text) const { return home_.traceLogs().find(text) != std::string::npos; }
    int countLogged(const std::string& text) const {
        const std::string all = home_.traceLogs();
        int n = 0;
        for (size_t p = all.find(text); p != std::string::npos; p = all.find(text, p + 1)) ++n;
        return n;
    }
    bool waitLogged(const std::string& text) const {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (!logged(text) && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return logged(text);
    }
    // The expected handshake line as a regex (BCITimeStamp varies).
    std::string handshakeRe(int requestType, const std::string& lastConn, const std::string& dest,
                            const std::string& server = "S1") const {
        return reEscape("qv_ctrl_msg_req:appName=pool;qvAppServerHost=" + server +
                        ";tierName=T1;bciVersion=" + std::string(getQvBuild()) +
                        ";bciStartTime=" + std::to_string(getBCIStartUpTime()) + ";qvHome=" + home_.path() +
                        ";pid=" + std::to_string(getpid()) + ";BCITimeStamp=") +
               "[0-9]{16,}" +
               reEscape(";agentType=php;serverIp=127.0.0.1;hostName=" + std::string(getHandshakeHostName()) +
                        ";isAgentLess=N;jvmType=php;javaVersion=1.0;javaHome=/apps/java;machineType=Windows;"
                        "requestType=" +
                        std::to_string(requestType) + ";lastConnectionTimeStamp=") +
               lastConn + reEscape(";connDuration=") + "[0-9]+" +
               reEscape(";connDestination=" + dest + ";agentName=pool\n");
    }

    TempAgentHome home_;
    QVProxyInstance_t* app_ = nullptr;
};

std::string firstLine(const std::string& s) {
    const size_t nl = s.find('\n');
    return nl == std::string::npos ? s : s.substr(0, nl + 1);
}

TEST_F(ControlThread, HandshakeIsExactAndRepliesDriveRetryFlags) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    startAgent();
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; }));
    EXPECT_TRUE(std::regex_match(qvc.bytes(0), std::regex(handshakeRe(1, "-1", ""))));
    EXPECT_EQ(qvc.bytes(0), firstLine(qvc.bytes(0)));

    qv_store(app_->Server.retryForDataConn, 1);
    qv_store(app_->Server.retryForAutoSensorConn, 1);
    ASSERT_TRUE(qvc.send(0, "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;policy=x\n"));
    ASSERT_TRUE(qvc.waitFor([&] {
        return qv_load(app_->Server.retryForDataConn) == 0 &&
               qv_load(app_->Server.retryForAutoSensorConn) == 0;
    }));

    // The collector goes away: a new connection carries the time and destination of the last one.
    qvc.closeConn(0);
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(1).find('\n') != std::string::npos; }));
    EXPECT_TRUE(std::regex_match(
        qvc.bytes(1), std::regex(handshakeRe(1, "[0-9]{13,}", "127.0.0.1:" + std::to_string(qvc.port())))))
        << qvc.bytes(1);
    ASSERT_TRUE(qvc.send(1, "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qv_load(app_->Server.retryForDataConn) == 1; }));
    EXPECT_TRUE(waitLogged("Message receive,'qv_ctrl_msg_rep:result=Ok;status=RUNNING;'."));
}

TEST_F(ControlThread, InvalidReplyClosesAndReconnects) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    startAgent();
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; }));
    ASSERT_TRUE(qvc.send(0, "garbage\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.closed(0) && qvc.bytes(1).find('\n') != std::string::npos; }));
    EXPECT_TRUE(logged("Control connection was closed. Invalid message receive,'garbage?'."));
    EXPECT_TRUE(logged("Unexpected response received | Response = garbage?"));
    // A known prefix with an unknown result is invalid too.
    ASSERT_TRUE(qvc.send(1, "qv_ctrl_msg_rep:result=Fail;\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.closed(1) && qvc.count() >= 3; }));
}

TEST_F(ControlThread, CommandFramingAcrossReadsAndBadLines) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    // A command right behind the reply, in the same packet, is handled by the command loop.
    qvc.setAutoReply(kOkReply + "qv_control_req:action=modify;AgentTraceLevel=4\n");
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    startAgent();
    const std::string hs = [&] {
        qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; });
        return firstLine(qvc.bytes(0));
    }();
    auto replies = [&] { return qvc.bytes(0).substr(hs.size()); };
    ASSERT_TRUE(qvc.waitFor([&] { return replies() == kRefusal; }));

    // Two commands in one read.
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;a=1\nqv_control_req:action=modify;b=2\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return replies().size() >= 3 * kRefusal.size(); }));
    // One command split across reads is handled once its newline arrives.
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=mod"));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(replies().size(), 3 * kRefusal.size());
    ASSERT_TRUE(qvc.send(0, "ify;c=3\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return replies().size() >= 4 * kRefusal.size(); }));

    // Over-long (larger than the receive buffer), binary and malformed lines: ignored, logged,
    // the connection stays and the next command is answered.
    ASSERT_TRUE(qvc.send(0, std::string(100000, 'x') + "\n"));
    ASSERT_TRUE(qvc.send(0, std::string(QV_CONTROL_BUFFER_SIZE - 1, 'y')));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;tail\n"));  // the end of the long line
    ASSERT_TRUE(qvc.send(0, std::string("\x00\x01\xfe\xff binary\n", 12) + ";;;==\n\n\r\n"));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=modify;d=4\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return replies().size() >= 5 * kRefusal.size(); }));
    std::string expected;
    for (int i = 0; i < 5; ++i) expected += kRefusal;
    EXPECT_EQ(replies(), expected);
    EXPECT_EQ(qvc.count(), 1);
    EXPECT_FALSE(qvc.closed(0));
    EXPECT_TRUE(
        logged("Control message longer than 65535 bytes received from QVC; discarded up to its newline."));
    EXPECT_EQ(qv_load(app_->QVSys.agentTraceLevel), 0);
}

TEST_F(ControlThread, StartAndStopOverControlConnection) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    qvc.setAutoReply(kOkReply);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    startAgent();
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; }));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=start_instrumentation;ASReportInterval=0;testIdx=42\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.find("qv_data_msg_req:") >= 0; }));
    EXPECT_NE(qvc.bytes(0).find("qv_control_rep:action=start_instrumentation;status=starting;result=Ok;\n"),
              std::string::npos);
    const int data = qvc.find("qv_data_msg_req:");
    EXPECT_NE(qvc.bytes(data).find(";testIdx=42;"), std::string::npos);
    dumpData("\n2,record\n", 10);
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(data).find("\n2,record\n") != std::string::npos; }));

    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=stop_instrumentation\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(data).find("10,\n") != std::string::npos; }));
    ASSERT_TRUE(qvc.waitFor([&] {
        return qvc.bytes(0).find("qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n") !=
               std::string::npos;
    }));
    EXPECT_EQ(qv_load(app_->Server.testRunRunning), 0);
}

TEST_F(ControlThread, SilenceBeyondThresholdClosesAllConnections) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    qvc.setAutoReply(kOkReply);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    startAgent();
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; }));
    ASSERT_TRUE(qvc.send(
        0, "qv_control_req:action=start_instrumentation;ASReportInterval=0;qvcHeartBeatThreshold=400\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.find("qv_data_msg_req:") >= 0; }));
    const int data = qvc.find("qv_data_msg_req:");
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.closed(0) && qvc.closed(data); }));
    EXPECT_TRUE(logged(
        "Last Received heartbeat msg time is greater than qvcHeartBeatThreshold.Hence going to closing "
        "all connection.heartBeatDuration = "));
    // And the agent comes back.
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.find("qv_ctrl_msg_req:", 1) >= 0; }));
}

TEST_F(ControlThread, SwitchesToBackupAfterRetryLimit) {
    ScriptedCollector backup;
    ASSERT_TRUE(backup.start());
    backup.setAutoReply(kOkReply);
    const int dead = deadPort();
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(dead) +
              "\nbackupQvcHostName=127.0.0.1\nbackupQvcPort=" + std::to_string(backup.port()) + "\n");
    startAgent();
    ASSERT_TRUE(backup.waitFor([&] { return backup.bytes(0).find('\n') != std::string::npos; }));
    EXPECT_TRUE(std::regex_match(firstLine(backup.bytes(0)), std::regex(handshakeRe(3, "-1", ""))))
        << backup.bytes(0);
    EXPECT_TRUE(logged("[QV DR Feature]; Max number of retry attempt reached"));
    EXPECT_TRUE(logged("[QV DR Feature]; Got next QVC info: [host | port] = [127.0.0.1 | " +
                       std::to_string(backup.port()) + "]"));
    EXPECT_EQ(qv_load(active_qvc_idx), 1u);
}

TEST_F(ControlThread, HeartbeatsCountAndUnansweredOnesSwitchOver) {
    ScriptedCollector primary, backup;
    ASSERT_TRUE(primary.start());
    ASSERT_TRUE(backup.start());
    primary.setAutoReply(kOkReply);
    backup.setAutoReply(kOkReply);
    qv_store(controlPollTimeoutMs, 20LL);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(primary.port()) +
              "\nbackupQvcHostName=127.0.0.1\n"
              "backupQvcPort=" +
              std::to_string(backup.port()) + "\n");
    startAgent();
    const std::string hb0 = "qv_control_req:action=reconnect;heartBeat 0;\n";
    const std::string hb1 = "qv_control_req:action=reconnect;heartBeat 1;\n";
    ASSERT_TRUE(primary.waitFor([&] { return primary.bytes(0).find(hb1) != std::string::npos; }));
    const std::string hs = firstLine(primary.bytes(0));
    EXPECT_EQ(primary.bytes(0).substr(hs.size(), hb0.size() + hb1.size()), hb0 + hb1);
    // The answer resets the count: the next heartbeat is number 0 again.
    ASSERT_TRUE(primary.send(0, "qv_control_rep:action:result=Ok;\n"));
    ASSERT_TRUE(primary.waitFor(
        [&] { return primary.bytes(0).find(hb0, hs.size() + hb0.size()) != std::string::npos; }));
    // Ten heartbeats left unanswered switch to the backup.
    ASSERT_TRUE(backup.waitFor([&] { return backup.bytes(0).find('\n') != std::string::npos; }));
    EXPECT_NE(primary.bytes(0).find("qv_control_req:action=reconnect;heartBeat 9;\n"), std::string::npos);
    EXPECT_TRUE(primary.waitFor([&] { return primary.closed(0); }));
    EXPECT_TRUE(logged("heartbeat count reaches to the threshold = 10"));
}

TEST_F(ControlThread, RerouteConnectsToNewCollector) {
    ScriptedCollector a, b;
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(b.start());
    a.setAutoReply(kOkReply);
    b.setAutoReply(kOkReply);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(a.port()) + "\n");
    startAgent();
    ASSERT_TRUE(a.waitFor([&] { return a.bytes(0).find('\n') != std::string::npos; }));
    ASSERT_TRUE(a.send(0, "qv_control_req:action=reroute_ctrl_con;qvcHost=127.0.0.1;qvcPort=" +
                              std::to_string(b.port()) + ";tier=ALL;server=S2;instance=ALL;clusterMode=0\n"));
    ASSERT_TRUE(b.waitFor([&] { return b.bytes(0).find('\n') != std::string::npos; }));
    EXPECT_TRUE(a.closed(0));
    EXPECT_TRUE(std::regex_match(
        firstLine(b.bytes(0)),
        std::regex(handshakeRe(2, "[0-9]{13,}", "127.0.0.1:" + std::to_string(a.port()), "S2"))))
        << b.bytes(0);
    EXPECT_EQ(
        home_.read("config/qvsettings.conf"),
        "tier=T1\nserver=S2\ninstance=I1\nqvcHost=127.0.0.1\nqvcPort=" + std::to_string(b.port()) + "\n");
}

TEST_F(ControlThread, SettingsFileChangeEndsRetriesAndShutdownEndsWaits) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    qvc.setAutoReply(kOkReply);
    qv_store(controlRetryIntervalMs, 1500LL);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(deadPort()) + "\n");
    startAgent();
    ASSERT_TRUE(waitLogged("Socket was not created and retry after 60seconds"));
    writeConf("# moved\nqvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; }));
    EXPECT_FALSE(logged("Max number of retry attempt reached"));

    // A retry wait of an hour: only the shutdown's interruption ends it before the test times out.
    qv_store(controlRetryIntervalMs, 3600000LL);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(deadPort()) + "\n");
    const int failures = countLogged("Socket was not created");
    qvc.closeConn(0);
    ASSERT_TRUE(qvc.waitFor([&] { return countLogged("Socket was not created") > failures; }));
    qv_agent_shutdown();
    EXPECT_EQ(control_thread_id, nullptr);
}

TEST_F(ControlThread, ProxyModeConnectsToUnixSocket) {
    char dir[] = "/tmp/qv_px_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/px.sock";
    const int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    ASSERT_EQ(listen(lfd, 4), 0);
    std::string got;
    std::thread proxy([&] {
        const int fd = accept(lfd, nullptr, nullptr);
        char buf[4096];
        ssize_t n;
        while (got.find('\n') == std::string::npos && (n = read(fd, buf, sizeof(buf))) > 0)
            got.append(buf, n);
        send(fd, kOkReply.data(), kOkReply.size(), MSG_NOSIGNAL);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        close(fd);
    });
    writeConf("qvcHost=127.0.0.1\nqvcPort=1\nproxyMode=1\nproxyConType=1\nproxySocketPath=" + path + "\n");
    startAgent();
    proxy.join();
    EXPECT_EQ(got.rfind("qv_ctrl_msg_req:appName=pool;", 0), 0u) << got;
    EXPECT_TRUE(waitLogged("Control socket was created successfully with server(Proxy) 127.0.0.1:7892."));
    close(lfd);
    unlink(path.c_str());
    rmdir(dir);
}

// The control thread runs commands while application threads write records.
class ControlConcurrency : public ControlThread {};

TEST_F(ControlConcurrency, CommandsWhileApplicationThreadsWrite) {
    ScriptedCollector qvc;
    ASSERT_TRUE(qvc.start());
    qvc.setAutoReply(kOkReply);
    writeConf("qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    startAgent();
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(0).find('\n') != std::string::npos; }));
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=start_instrumentation;ASReportInterval=0\n"));
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.find("qv_data_msg_req:") >= 0; }));
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
    ASSERT_TRUE(qvc.send(0, "qv_control_req:action=stop_instrumentation\n"));
    const int data = qvc.find("qv_data_msg_req:");
    ASSERT_TRUE(qvc.waitFor([&] { return qvc.bytes(data).find("10,\n") != std::string::npos; }));
    run = false;
    for (std::thread& t : writers) t.join();
    EXPECT_NE(qvc.bytes(data).find("\n2,thread0\n"), std::string::npos);
}

}  // namespace
