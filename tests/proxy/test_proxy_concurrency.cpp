// Two application instances served at once by one proxy, in this process (so that the thread
// sanitizer sees the loop thread, both instances' control and data threads and the relay): each
// instance's collector connection carries its own identity and only its own workers' flowpaths.
#include "proxy/proxy_harness.h"
#include "proxy/qv_proxy_server.h"

namespace {

using proxytest::connectUnix;

bool sendAll(int fd, const std::string& s) {
    return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(s.size());
}

// Reads from fd until what came contains needle (bounded by the harness's wait).
bool readUntil(int fd, const std::string& needle) {
    std::string got;
    return e2e::waitUntil([&] {
        char buf[4096];
        const ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n > 0) got.append(buf, static_cast<size_t>(n));
        return got.find(needle) != std::string::npos;
    });
}

std::string frames(const std::string& tier, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) {
        const long fpi = 1000 + i;  // both instances use the same numbers
        const std::string m = tier + ".handle";
        out += proxytest::startFrame(fpi, "/" + tier + "/" + std::to_string(i)) +
               proxytest::entryFrame(fpi, m) + proxytest::exitFrame(fpi, m) + proxytest::endFrame(fpi) +
               proxytest::resetFrame(fpi);
    }
    return out;
}

// One worker process of tier: introduces itself, waits for the relayed start, sends n
// transactions on its data connection.
void worker(const std::string& sock, const std::string& tier, int pid, int n, bool* ok) {
    const std::string id = "appName=shop;qvAppServerHost=host1;tierName=" + tier;
    const int ctl = connectUnix(sock);
    *ok = ctl >= 0 && sendAll(ctl, "qv_ctrl_msg_req:" + id + ";pid=" + std::to_string(pid) + "\n") &&
          readUntil(ctl, "qv_control_req:action=start_instrumentation");
    const int data = *ok ? connectUnix(sock) : -1;
    *ok = *ok && data >= 0 &&
          sendAll(data, "qv_data_msg_req:" + id + ";pid=" + std::to_string(pid) + "\n" + frames(tier, n));
    if (data >= 0) close(data);
    if (ctl >= 0) close(ctl);
}

}  // namespace

TEST(ProxyConcurrency, TwoInstancesAtOnceKeepTheirOwnIdentityAndFlowpaths) {
    TempAgentHome home;
    std::filesystem::create_directories(home.path() + "logs");
    e2e::Collector qvc;
    ASSERT_TRUE(
        qvc.start(home.path() + "qvc", {"--no-default-keywords", "--no-start", "--heartbeat-interval", "0"}));
    home.write("config/proxysetting.conf", "qvcHost=127.0.0.1\nqvcPort=" + std::to_string(qvc.port()) + "\n");
    QVProxyOptions opts;
    opts.port = 0;
    opts.socketPath = home.path() + "px.sock";
    ASSERT_EQ(qvProxyInit(opts), 0);

    constexpr int kTx = 40;
    bool ok1 = false, ok2 = false;
    std::thread w1(worker, opts.socketPath, "T1", 101, kTx, &ok1);
    std::thread w2(worker, opts.socketPath, "T2", 202, kTx, &ok2);
    // Both instances introduced themselves to the collector: the test starts for both.
    EXPECT_TRUE(e2e::waitUntil([&] { return qvc.events().find("control-2 ") != std::string::npos; }));
    qvc.send("start bciInstrSessionPct=100\n");
    w1.join();
    w2.join();
    EXPECT_TRUE(ok1 && ok2);

    // Each instance's data connection: its own request line and only its own flowpaths.
    auto dataOf = [&](int n) { return qvc.file("data-" + std::to_string(n) + ".rec"); };
    EXPECT_TRUE(e2e::waitUntil(
        [&] { return e2e::countRecords(dataOf(1), 4) + e2e::countRecords(dataOf(2), 4) >= 2 * kTx; }));
    for (int n : {1, 2}) {
        const std::string d = dataOf(n);
        const std::string tier = d.find("tierName=T1;") != std::string::npos ? "T1" : "T2";
        const std::string other = tier == "T1" ? "/T2/" : "/T1/";
        EXPECT_EQ(e2e::countRecords(d, 4), kTx) << d;
        EXPECT_EQ(e2e::countOf(d, "/" + tier + "/"), 2 * kTx) << d;  // BT and header records
        EXPECT_EQ(e2e::countOf(d, other), 0) << d;
    }
    EXPECT_NE(dataOf(1).find("tierName=T1;") == std::string::npos,
              dataOf(2).find("tierName=T1;") == std::string::npos);

    qvProxyShutdown([] { resetWholeAgent(); });
    qvc.kill(SIGTERM);
    resetWholeAgent();
}
