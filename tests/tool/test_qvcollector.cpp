// The collector simulator as a real child process: a fake agent talks to it over loopback, and
// its decoder turns a hand-written record file into the expected text.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Generous limits: they only stop a broken run from hanging.
constexpr int kWaitMs = 15000;

std::string binary() {
    return QV_BINARY_DIR "/tools/qvcollector";
}

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const fs::path& p, const std::string& content) {
    std::ofstream out(p, std::ios::binary);
    out << content;
}

class TempDir {
  public:
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "qvc_test_XXXXXX").string();
        if (mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

// The program as a child with stdout on a pipe and stderr in a file.
class Child {
  public:
    bool start(const std::vector<std::string>& args, const fs::path& errFile) {
        int out[2];
        if (pipe(out) != 0) return false;
        pid_ = fork();
        if (pid_ < 0) return false;
        if (pid_ == 0) {
            dup2(out[1], 1);
            const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (err >= 0) dup2(err, 2);
            const int devnull = open("/dev/null", O_RDONLY);
            if (devnull >= 0) dup2(devnull, 0);
            std::vector<char*> argv;
            std::string bin = binary();
            argv.push_back(bin.data());
            std::vector<std::string> copy = args;
            for (auto& a : copy) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        outFd_ = out[0];
        return true;
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (outFd_ >= 0) close(outFd_);
    }
    // Everything the child wrote on stdout until it closed it (or the limit passed).
    std::string readStdoutToEnd() {
        std::string all;
        char buf[4096];
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{outFd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            const ssize_t r = read(outFd_, buf, sizeof(buf));
            if (r <= 0) break;
            all.append(buf, static_cast<size_t>(r));
        }
        return all;
    }
    // First stdout line ("listening 127.0.0.1:<port>") parsed to the port; 0 on failure.
    int readPort() {
        std::string line;
        char c;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{outFd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            if (read(outFd_, &c, 1) != 1) return 0;
            if (c == '\n') break;
            line.push_back(c);
        }
        const std::string prefix = "listening 127.0.0.1:";
        if (line.rfind(prefix, 0) != 0) return 0;
        return atoi(line.c_str() + prefix.size());
    }
    // Exit status after the child ends by itself; -1 if it does not within the limit.
    int waitExit() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    void signal(int sig) { kill(pid_, sig); }

  private:
    pid_t pid_ = -1;
    int outFd_ = -1;
};

// A fake agent connection.
class Client {
  public:
    explicit Client(int port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~Client() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    bool send(const std::string& s) {
        size_t off = 0;
        while (off < s.size()) {
            const ssize_t w = ::send(fd_, s.data() + off, s.size() - off, MSG_NOSIGNAL);
            if (w <= 0) return false;
            off += static_cast<size_t>(w);
        }
        return true;
    }
    // Reads until the received text (since the last call) ends with `tail`; returns that text.
    std::string readUntil(const std::string& tail) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (std::chrono::steady_clock::now() < deadline) {
            if (got_.size() >= tail.size() && got_.compare(got_.size() - tail.size(), tail.size(), tail) == 0)
                break;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            char buf[4096];
            const ssize_t r = recv(fd_, buf, sizeof(buf), 0);
            if (r <= 0) break;
            got_.append(buf, static_cast<size_t>(r));
        }
        std::string out;
        out.swap(got_);
        return out;
    }

  private:
    int fd_ = -1;
    std::string got_;
};

bool waitForFile(const fs::path& p, const std::string& expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (readFile(p) == expected) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

const std::string kHandshake =
    "qv_ctrl_msg_req:appName=shop;qvAppServerHost=web;tierName=t;pid=4242;agentType=php;requestType=1;"
    "lastConnectionTimeStamp=-1;agentName=shop\n";
const std::string kNotRunning = "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;\n";

#define REQUIRE_BINARY()                                                                          \
    do {                                                                                          \
        if (!fs::exists(binary())) GTEST_SKIP() << binary() << " not built (target qvcollector)"; \
    } while (0)

TEST(QvCollector, AnswersHandshakeAndHeartbeatAndCapturesEveryConnection) {
    REQUIRE_BINARY();
    TempDir dir;
    const fs::path out = dir.path() / "out";
    Child child;
    ASSERT_TRUE(child.start(
        {"--out", out.string(), "--port-file", (dir.path() / "port").string(), "--keyword", "testIdx=7",
         "--keyword", "qvMonitorInterval=5", "--heartbeat-interval", "0", "--summary-interval", "0"},
        dir.path() / "stderr"));
    const int port = child.readPort();
    ASSERT_GT(port, 0);
    EXPECT_EQ(readFile(dir.path() / "port"), std::to_string(port) + "\n");

    Client ctrl(port);
    ASSERT_TRUE(ctrl.ok());
    // The handshake may arrive in pieces.
    ASSERT_TRUE(ctrl.send(kHandshake.substr(0, 20)));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(ctrl.send(kHandshake.substr(20)));
    const std::string start =
        "qv_control_req:action=start_instrumentation;testIdx=7;status=running;bciInstrSessionPct=100;"
        "enableBTMonitorTrace=1;enableBTMonitor=1;enableBackendMonitor=1;qvMonitorInterval=5;\n";
    EXPECT_EQ(ctrl.readUntil(start), kNotRunning + start);
    ASSERT_TRUE(ctrl.send("qv_control_req:action=reconnect;heartBeat 0;\n"));
    EXPECT_EQ(ctrl.readUntil("\n"), "qv_control_rep:action:result=Ok;\n");

    // Binary garbage on its own connection changes nothing for the others.
    Client junk(port);
    std::string garbage(3000, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>(i * 7);
    ASSERT_TRUE(junk.send(garbage));

    const std::string data =
        "qv_data_msg_req:appName=shop;testIdx=7;pid=4242\n\n\n99,NewConnection,FPGVersion:1.0\n"
        "2,1001,1700000000,77,77.1,2,/cart,,0,0,0,,0,0\n4,1001,200,10,0,5,2,0,1:77_0_0__1:77_1_5____\n";
    const std::string as =
        "auto_sensor_thread_hotspot_data_req:appName=shop;QVCollectorPort=1,testIdx=7\n"
        "74,1|2|0:t>s>a>AllTransactions|1.0 5.0 5.0 5 1 0.0 0.0\n";
    Client dataConn(port);
    Client asConn(port);
    ASSERT_TRUE(dataConn.send(data.substr(0, 7)));  // classified only once its first line is complete
    ASSERT_TRUE(asConn.send(as));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(dataConn.send(data.substr(7)));
    EXPECT_TRUE(waitForFile(out / "data-1.rec", data));
    EXPECT_TRUE(waitForFile(out / "as-1.rec", as));
    EXPECT_TRUE(waitForFile(out / "other-1.log", garbage));
    EXPECT_TRUE(
        waitForFile(out / "control-1.log", kHandshake + "qv_control_req:action=reconnect;heartBeat 0;\n"));

    // The same agent reconnecting while its test runs is told RUNNING and gets no second start.
    Client again(port);
    ASSERT_TRUE(again.send(kHandshake));
    EXPECT_EQ(again.readUntil("\n"), "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n");

    child.signal(SIGTERM);
    EXPECT_EQ(child.waitExit(), 0);
    const std::string err = readFile(dir.path() / "stderr");
    EXPECT_NE(err.find("flowpaths     1, discard marks (-99) 0"), std::string::npos) << err;
    EXPECT_EQ(readFile(out / "control-2.sent"), "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n");
}

TEST(QvCollector, ScriptSendsExactCommandTextsAndExitsAfterStop) {
    REQUIRE_BINARY();
    TempDir dir;
    writeFile(dir.path() / "script",
              "# waits for two flowpaths before talking to the agent\n"
              "wait-records 2 2\n"
              "modify AgentTraceLevel=4;enableFPTrace=1\n"
              "meta x;y;z;5,7_3;1;2\n"
              "heartbeat dataConnState=0 AutosensorConnState=1\n"
              "reroute host=10.1.2.3 port=7891 tier=ALL\n"
              "raw qv_control_req:action=bogus\\x01\n"
              "silence 10\n"
              "stop\n");
    Child child;
    ASSERT_TRUE(
        child.start({"--out", (dir.path() / "out").string(), "--script", (dir.path() / "script").string(),
                     "--no-start", "--exit-after-stop", "--heartbeat-interval", "0", "--quiet"},
                    dir.path() / "stderr"));
    const int port = child.readPort();
    ASSERT_GT(port, 0);
    Client ctrl(port);
    ASSERT_TRUE(ctrl.send(kHandshake));
    EXPECT_EQ(ctrl.readUntil("\n"), kNotRunning);  // --no-start: the reply only

    Client dataConn(port);
    ASSERT_TRUE(
        dataConn.send("qv_data_msg_req:appName=shop\n2,1,1,1,1.1,1,/a,,0,0,0,,0,0\n"
                      "2,2,1,1,1.1,1,/a,,0,0,0,,0,0\n"));
    const std::string stop = "qv_control_req:action=stop_instrumentation;\n";
    EXPECT_EQ(ctrl.readUntil(stop),
              "qv_control_req:action=modify;AgentTraceLevel=4;enableFPTrace=1;\n"
              "qv_meta_data_req:action=send_meta_data;x;y;z;5,7_3;1;2\n"
              "qv_control_req:action=reconnect;heartBeat;dataConnState=0;AutosensorConnState=1;\n"
              "qv_control_req:action=reroute_ctrl_con;qvcHost=10.1.2.3;qvcPort=7891;tier=ALL;\n"
              "qv_control_req:action=bogus\x01\n" +
                  stop);
    // Acknowledged stop, then the data connection's data-over record: the simulator ends.
    ASSERT_TRUE(ctrl.send("qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n"));
    ASSERT_TRUE(dataConn.send("10,\n"));
    EXPECT_EQ(child.waitExit(), 0);
}

TEST(QvCollector, SilenceSwallowsHeartbeatRepliesAndDisconnectClosesControl) {
    REQUIRE_BINARY();
    TempDir dir;
    // "raw entering-silence" and "silence" run in the same script step, so once the agent sees
    // the marker the collector is already silent.
    writeFile(dir.path() / "script",
              "wait-reply ready\nraw entering-silence\nsilence 300\nraw done\ndisconnect\nquit\n");
    Child child;
    ASSERT_TRUE(
        child.start({"--out", (dir.path() / "out").string(), "--script", (dir.path() / "script").string(),
                     "--no-start", "--heartbeat-interval", "0", "--summary-interval", "0"},
                    dir.path() / "stderr"));
    const int port = child.readPort();
    ASSERT_GT(port, 0);
    Client ctrl(port);
    ASSERT_TRUE(ctrl.send(kHandshake));
    EXPECT_EQ(ctrl.readUntil("\n"), kNotRunning);
    ASSERT_TRUE(ctrl.send("ready\n"));
    EXPECT_EQ(ctrl.readUntil("entering-silence\n"), "entering-silence\n");
    ASSERT_TRUE(ctrl.send("qv_control_req:action=reconnect;heartBeat 3;\n"));
    EXPECT_EQ(ctrl.readUntil("done\n"), "done\n");  // no heartbeat reply in between
    EXPECT_EQ(ctrl.readUntil("never sent"), "");    // then closed by "disconnect"
    EXPECT_EQ(child.waitExit(), 0);
    EXPECT_NE(readFile(dir.path() / "stderr").find("agent         heartbeats 1,"), std::string::npos);
}

TEST(QvCollector, StartKeywordsComeFromFileThenCommandLine) {
    REQUIRE_BINARY();
    TempDir dir;
    writeFile(dir.path() / "kw", "# start keywords\ntestIdx=2\n\nkorEpochDiff=100\n");
    Child child;
    ASSERT_TRUE(child.start({"--out", (dir.path() / "out").string(), "--no-default-keywords",
                             "--keywords-file", (dir.path() / "kw").string(), "--keyword", "testIdx=3",
                             "--keyword", "ASReportInterval=5", "--heartbeat-interval", "0", "--quiet"},
                            dir.path() / "stderr"));
    const int port = child.readPort();
    ASSERT_GT(port, 0);
    Client ctrl(port);
    ASSERT_TRUE(ctrl.send(kHandshake));
    const std::string start =
        "qv_control_req:action=start_instrumentation;testIdx=3;korEpochDiff=100;ASReportInterval=5;\n";
    EXPECT_EQ(ctrl.readUntil(start), kNotRunning + start);
    child.signal(SIGINT);
    EXPECT_EQ(child.waitExit(), 0);
}

TEST(QvCollector, ScriptErrorsAndTimedOutWaitsShowInTheExitCode) {
    REQUIRE_BINARY();
    TempDir dir;
    writeFile(dir.path() / "bad", "sleep 10\nfrobnicate now\n");
    {
        Child child;
        ASSERT_TRUE(
            child.start({"--out", (dir.path() / "o1").string(), "--script", (dir.path() / "bad").string()},
                        dir.path() / "stderr1"));
        EXPECT_EQ(child.waitExit(), 1);
        EXPECT_NE(readFile(dir.path() / "stderr1").find(":2: unknown command 'frobnicate'"),
                  std::string::npos);
    }
    writeFile(dir.path() / "wait", "wait-records 2 5 50\nquit\n");
    Child child;
    ASSERT_TRUE(child.start(
        {"--out", (dir.path() / "o2").string(), "--script", (dir.path() / "wait").string(), "--quiet"},
        dir.path() / "stderr2"));
    EXPECT_GT(child.readPort(), 0);
    EXPECT_EQ(child.waitExit(), 2);
}

TEST(QvCollector, DecodePrintsCallTreesAndMonitorTables) {
    REQUIRE_BINARY();
    TempDir dir;
    writeFile(dir.path() / "data-1.rec",
              "qv_data_msg_req:appName=shop\n\n"
              "5,index.php,1\n5,Cart->load,2\n5,PDO->query,3\n5,ADO.NET_QuoteDB,4\n5,curl_exec,5\n"
              "7,2,/shop/cart\n22,0,6,SELECT * FROM cart WHERE id=?\n"
              "2,1001,1700000000,77,77.1,2,/shop/cart?id=7,,0,0,0,,0,0\n"
              "3,1001,1:77_0_0__2:77_0_5__3:77_0_10__\n"
              "4,1001,500,13,0,120,2,0,3:77_1_30____T7:4:30:10:6:10_2:77_1_80____5:77_0_90__5:77_1_25____"
              "E9:5:25:1:0:90:500_1:77_1_120____\n"
              "2,1002,1700000001,78,78.1,2,/shop/cart,,0,0,0,,0,0\n"
              "4,1002,-99,10,0,3,2,0,1:78_0_0__e1_\n"
              "2,1003,1700000002,79,79.1,2,/shop/cart,,0,0,0,,0,0\n");
    writeFile(dir.path() / "as-1.rec",
              "74,1|2|2:t>s>a>/shop/cart|0.050000 200.000000 100.000000 300 3 0.0 0.000000\n"
              "75,1|2|4:t>s>a>ADO.NET_QuoteDB|5 0.100000 30.000000 30 30 1 0\n"
              "61,1|2|2:t>s>a>Cart->load|4 0.016667 80.000000 2147483647.000000 80 1\n");
    Child child;
    ASSERT_TRUE(child.start({"decode", "--flowpaths", "2", (dir.path() / "data-1.rec").string(),
                             (dir.path() / "as-1.rec").string()},
                            dir.path() / "stderr"));
    const std::string text = child.readStdoutToEnd();
    EXPECT_EQ(child.waitExit(), 0);
    EXPECT_EQ(
        text,
        "== records ==\n"
        "     2        3  flowpath header\n"
        "     3        1  sequence\n"
        "     4        2  flowpath end\n"
        "     5        5  method\n"
        "     7        1  BT\n"
        "    22        1  SQL\n"
        "    61        1  method monitor\n"
        "    74        1  BT monitor\n"
        "    75        1  backend monitor\n"
        "  blank lines 1, other lines 1, malformed records 0\n"
        "\n"
        "== flowpaths (2 shown; 1 more flowpath records not shown) ==\n"
        "\n"
        "flowpath 1001  BT 2 /shop/cart  url /shop/cart?id=7\n"
        "  thread 77  start 1700000000 s\n"
        "  status 500  error  response 120 ms\n"
        "     at ms    dur ms  calls\n"
        "        +0       120  index.php\n"
        "        +5        80    Cart->load\n"
        "       +10        30      PDO->query\n"
        "       +10        30        -> DB ADO.NET_QuoteDB  ok  sql 6: SELECT * FROM cart WHERE id=?\n"
        "       +90        25    curl_exec\n"
        "       +90        25      -> callout curl_exec  error 500\n"
        "\n"
        "flowpath 1002  BT 2 /shop/cart  url /shop/cart\n"
        "  thread 78  start 1700000001 s\n"
        "  status -99 (discard mark: earlier records of this flowpath are void)  normal  response 3 ms\n"
        "     at ms    dur ms  calls\n"
        "        +0         ?  index.php (no exit)\n"
        "                        !! exception (seq 1)\n"
        "\n"
        "== BT monitor (74) ==\n"
        "     id  name           req/s    avg ms    min ms    max ms   count   err/s  errors  slow %\n"
        "      2  /shop/cart     0.050     200.0     100.0       300       3   0.000       ?       ?\n"
        "\n"
        "== backend monitor (75) ==\n"
        "     id  name              calls/s    avg ms    min ms    max ms   count  errors     total\n"
        "      4  ADO.NET_QuoteDB     0.100      30.0        30        30       1       0         5\n"
        "\n"
        "== method monitor (61) ==\n"
        "     id  name         calls/s    avg ms    min ms    max ms   count     total\n"
        "      2  Cart->load     0.017      80.0         -        80       1         4\n");
}

TEST(QvCollector, DecodeSkipsMalformedInputWithoutFailing) {
    REQUIRE_BINARY();
    TempDir dir;
    std::string bad =
        "2,\n2,x,y\n3,1001\n3,1001,1:77_9_0__:::_T1:2_E__e_\n4,1001,a,b,c,d,e,f,g\n"
        "4,1001,200,10,0,5,2,0,1:77_1_5____1:77_1_5____99999999999999999999_0_1__\n"
        "74,|\n74,1|2|x:|1 2\n75,1|2|3:a>b>c>d|zz\n61,,,,\n5,\n7,x,y\n22,0,z,q\n";
    bad += std::string(200000, 'A') + "\n";
    for (int i = 0; i < 4096; ++i) bad.push_back(static_cast<char>((i * 131) ^ (i >> 3)));
    writeFile(dir.path() / "bad.rec", bad);
    Child child;
    ASSERT_TRUE(
        child.start({"decode", (dir.path() / "bad.rec").string(), (dir.path() / "missing.rec").string()},
                    dir.path() / "stderr"));
    const std::string text = child.readStdoutToEnd();
    EXPECT_EQ(child.waitExit(), 1);  // the missing file, after decoding the other
    EXPECT_EQ(text.rfind("== records ==\n", 0), 0u) << text;
    EXPECT_NE(text.find("flowpath 1001"), std::string::npos) << text;
    EXPECT_NE(readFile(dir.path() / "stderr").find("cannot open"), std::string::npos);
}

}  // namespace
