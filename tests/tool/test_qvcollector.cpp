// The collector simulator as a real child process (the end-to-end harness runs it): a fake agent
// talks to it over loopback, and its decoder turns a hand-written record file into the expected
// text.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include "e2e/e2e_harness.h"

namespace {

using e2e::Collector;
constexpr int kWaitMs = 15000;  // generous: it only stops a broken run from hanging
const std::string kBinary = QV_BINARY_DIR "/tools/qvcollector";

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
    bool send(const std::string& s) {
        for (size_t off = 0; off < s.size();) {
            const ssize_t w = ::send(fd_, s.data() + off, s.size() - off, MSG_NOSIGNAL);
            if (w <= 0) return false;
            off += static_cast<size_t>(w);
        }
        return true;
    }
    // Reads until the received text (since the last call) ends with `tail`, the other end closes
    // or the limit passes; returns that text.
    std::string readUntil(const std::string& tail) {
        bool open = true;
        e2e::waitUntil(
            [&] {
                pollfd p{fd_, POLLIN, 0};
                char tmp[4096];
                const ssize_t r = open && poll(&p, 1, 10) == 1 ? read(fd_, tmp, sizeof(tmp)) : -1;
                if (r > 0) got_.append(tmp, static_cast<size_t>(r));
                open = open && (r != 0);
                return !open || got_.ends_with(tail);
            },
            kWaitMs);
        std::string out;
        out.swap(got_);
        return out;
    }

  private:
    int fd_ = -1;
    std::string got_;
};

// The decoder's stdout and exit status; its stderr goes to the file err.
std::pair<std::string, int> decode(const std::string& args, const std::string& err) {
    FILE* f = popen((kBinary + " decode " + args + " 2>" + err).c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; f != nullptr && (n = fread(buf, 1, sizeof(buf), f)) > 0;) out.append(buf, n);
    const int st = f != nullptr ? pclose(f) : -1;
    return {out, WIFEXITED(st) ? WEXITSTATUS(st) : -1};
}

// A temporary directory for the program's files, and the program started in it.
class QvCollector : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(kBinary)) GTEST_SKIP() << kBinary << " not built (target qvcollector)";
    }
    // Starts the program capturing into out/ with args; returns its port, 0 if it does not listen.
    int start(const std::vector<std::string>& args) {
        return qvc_.start(dir_.file("out"), args) ? qvc_.port() : 0;
    }
    // Waits until the capture file rel holds expected.
    bool waitForFile(const std::string& rel, const std::string& expected) {
        return e2e::waitUntil([&] { return qvc_.file(rel) == expected; }, kWaitMs);
    }
    TempAgentHome dir_;
    Collector qvc_;
};

const std::string kHandshake =
    "qv_ctrl_msg_req:appName=shop;qvAppServerHost=web;tierName=t;pid=4242;agentType=php;requestType=1;"
    "lastConnectionTimeStamp=-1;agentName=shop\n";
const std::string kNotRunning = "qv_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;\n";

TEST_F(QvCollector, AnswersHandshakeAndHeartbeatAndCapturesEveryConnection) {
    const int port =
        start({"--keyword", "testIdx=7", "--keyword", "qvMonitorInterval=5", "--heartbeat-interval", "0"});
    ASSERT_GT(port, 0);
    EXPECT_EQ(qvc_.file("port"), std::to_string(port) + "\n");

    Client ctrl(port);
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
    EXPECT_TRUE(waitForFile("data-1.rec", data));
    EXPECT_TRUE(waitForFile("as-1.rec", as));
    EXPECT_TRUE(waitForFile("other-1.log", garbage));
    EXPECT_TRUE(waitForFile("control-1.log", kHandshake + "qv_control_req:action=reconnect;heartBeat 0;\n"));

    // The same agent reconnecting while its test runs is told RUNNING and gets no second start.
    Client again(port);
    ASSERT_TRUE(again.send(kHandshake));
    EXPECT_EQ(again.readUntil("\n"), "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n");

    qvc_.kill(SIGTERM);
    EXPECT_EQ(qvc_.waitExit(), 0);
    const std::string err = qvc_.events();
    EXPECT_NE(err.find("flowpaths     1, discard marks (-99) 0"), std::string::npos) << err;
    EXPECT_EQ(qvc_.file("control-2.sent"), "qv_ctrl_msg_rep:result=Ok;status=RUNNING;\n");
}

TEST_F(QvCollector, ScriptSendsExactCommandTextsAndExitsAfterStop) {
    dir_.write("script",
               "# waits for two flowpaths before talking to the agent\n"
               "wait-records 2 2\n"
               "modify AgentTraceLevel=4;enableFPTrace=1\n"
               "meta x;y;z;5,7_3;1;2\n"
               "heartbeat dataConnState=0 AutosensorConnState=1\n"
               "reroute host=10.1.2.3 port=7891 tier=ALL\n"
               "raw qv_control_req:action=bogus\\x01\n"
               "silence 10\n"
               "stop\n");
    const int port = start({"--script", dir_.file("script"), "--no-start", "--exit-after-stop",
                            "--heartbeat-interval", "0", "--quiet"});
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
    EXPECT_EQ(qvc_.waitExit(), 0);
}

TEST_F(QvCollector, SilenceSwallowsHeartbeatRepliesAndDisconnectClosesControl) {
    // "raw entering-silence" and "silence" run in the same script step, so once the agent sees
    // the marker the collector is already silent.
    dir_.write("script", "wait-reply ready\nraw entering-silence\nsilence 300\nraw done\ndisconnect\nquit\n");
    const int port = start({"--script", dir_.file("script"), "--no-start", "--heartbeat-interval", "0"});
    ASSERT_GT(port, 0);
    Client ctrl(port);
    ASSERT_TRUE(ctrl.send(kHandshake));
    EXPECT_EQ(ctrl.readUntil("\n"), kNotRunning);
    ASSERT_TRUE(ctrl.send("ready\n"));
    EXPECT_EQ(ctrl.readUntil("entering-silence\n"), "entering-silence\n");
    ASSERT_TRUE(ctrl.send("qv_control_req:action=reconnect;heartBeat 3;\n"));
    EXPECT_EQ(ctrl.readUntil("done\n"), "done\n");  // no heartbeat reply in between
    EXPECT_EQ(ctrl.readUntil("never sent"), "");    // then closed by "disconnect"
    EXPECT_EQ(qvc_.waitExit(), 0);
    EXPECT_NE(qvc_.events().find("agent         heartbeats 1,"), std::string::npos);
}

TEST_F(QvCollector, StartKeywordsComeFromFileThenCommandLine) {
    dir_.write("kw", "# start keywords\ntestIdx=2\n\nkorEpochDiff=100\n");
    const int port =
        start({"--no-default-keywords", "--keywords-file", dir_.file("kw"), "--keyword", "testIdx=3",
               "--keyword", "ASReportInterval=5", "--heartbeat-interval", "0", "--quiet"});
    ASSERT_GT(port, 0);
    Client ctrl(port);
    ASSERT_TRUE(ctrl.send(kHandshake));
    const std::string start =
        "qv_control_req:action=start_instrumentation;testIdx=3;korEpochDiff=100;ASReportInterval=5;\n";
    EXPECT_EQ(ctrl.readUntil(start), kNotRunning + start);
    qvc_.kill(SIGINT);
    EXPECT_EQ(qvc_.waitExit(), 0);
}

TEST_F(QvCollector, ScriptErrorsAndTimedOutWaitsShowInTheExitCode) {
    dir_.write("bad", "sleep 10\nfrobnicate now\n");
    {
        Collector bad;
        EXPECT_FALSE(bad.start(dir_.file("o1"), {"--script", dir_.file("bad")}));
        EXPECT_EQ(bad.waitExit(), 1);
        EXPECT_NE(bad.events().find(":2: unknown command 'frobnicate'"), std::string::npos);
    }
    dir_.write("wait", "wait-records 2 5 50\nquit\n");
    EXPECT_GT(start({"--script", dir_.file("wait"), "--quiet"}), 0);
    EXPECT_EQ(qvc_.waitExit(), 2);
}

TEST_F(QvCollector, DecodePrintsCallTreesAndMonitorTables) {
    dir_.write("data-1.rec",
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
    dir_.write("as-1.rec",
               "74,1|2|2:t>s>a>/shop/cart|0.050000 200.000000 100.000000 300 3 0.0 0.000000\n"
               "75,1|2|4:t>s>a>ADO.NET_QuoteDB|5 0.100000 30.000000 30 30 1 0\n"
               "61,1|2|2:t>s>a>Cart->load|4 0.016667 80.000000 2147483647.000000 80 1\n");
    const auto [text, code] =
        decode("--flowpaths 2 " + dir_.file("data-1.rec") + " " + dir_.file("as-1.rec"), dir_.file("stderr"));
    EXPECT_EQ(code, 0);
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

TEST_F(QvCollector, DecodeSkipsMalformedInputWithoutFailing) {
    std::string bad =
        "2,\n2,x,y\n3,1001\n3,1001,1:77_9_0__:::_T1:2_E__e_\n4,1001,a,b,c,d,e,f,g\n"
        "4,1001,200,10,0,5,2,0,1:77_1_5____1:77_1_5____99999999999999999999_0_1__\n"
        "74,|\n74,1|2|x:|1 2\n75,1|2|3:a>b>c>d|zz\n61,,,,\n5,\n7,x,y\n22,0,z,q\n";
    bad += std::string(200000, 'A') + "\n";
    for (int i = 0; i < 4096; ++i) bad.push_back(static_cast<char>((i * 131) ^ (i >> 3)));
    dir_.write("bad.rec", bad);
    const auto [text, code] =
        decode(dir_.file("bad.rec") + " " + dir_.file("missing.rec"), dir_.file("stderr"));
    EXPECT_EQ(code, 1);  // the missing file, after decoding the other
    EXPECT_EQ(text.rfind("== records ==\n", 0), 0u) << text;
    EXPECT_NE(text.find("flowpath 1001"), std::string::npos) << text;
    EXPECT_NE(dir_.read("stderr").find("cannot open"), std::string::npos);
}

}  // namespace
