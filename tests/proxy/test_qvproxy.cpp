// The proxy server end to end, every part a real process: tools/qvproxy between worker processes
// in proxy mode (tools/qvworker) and tools/qvcollector. Workers reach it on TCP and on its Unix
// socket; the cases assert on what the collector captured and on the proxy's status query.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <regex>
#include <thread>

#include "proxy/proxy_harness.h"

namespace {

using e2e::countOf;
using e2e::countRecords;
using e2e::waitUntil;
using proxytest::Capture;
using proxytest::Instance;
using proxytest::Worker;

class QvProxy : public proxytest::ProxyTest {};

// Flowpath headers (2) whose URL is url.
int headersOf(const std::string& data, const std::string& url) {
    return countOf(data, "," + url + ",");
}

int tcpConnect(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when the peer closed fd (end of stream or reset); whatever it sent is read and dropped.
bool closedByPeer(int fd) {
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    return poll(&p, 1, 0) > 0 && read(fd, buf, sizeof(buf)) <= 0;
}

std::string frameHeader(int totalLen, int type) {
    const int hdr[3] = {12, totalLen, type};
    return "^" + std::string(reinterpret_cast<const char*>(hdr), sizeof(hdr)) + "|";
}

TEST_F(QvProxy, EightWorkersOfTwoInstancesShareOneCollectorSessionPerInstance) {
    e2e::Collector qvc;
    ASSERT_NO_FATAL_FAILURE(startBoth(qvc, {"--keyword", "qvMonitorInterval=1"}));
    Instance a("TierA", "ServerA"), b("TierB", "ServerB");
    a.settings(proxy_.port());
    b.settings(proxy_.port(), proxy_.socketPath());
    Worker workers[8];
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(workers[i].start(i % 2 == 0 ? a : b, false));
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(workers[i].ready()) << i << proxy_.log();

    const auto url = [](int i) { return std::string(i % 2 == 0 ? "/a/w" : "/b/w") + std::to_string(i); };
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(workers[i].command(Worker::runCommand(150 + 10 * i, 3, url(i))));
    long long traced[8], sent[2] = {0, 0};
    for (int i = 0; i < 8; ++i) {
        traced[i] = workers[i].answer("traced ");
        ASSERT_EQ(traced[i], 150 + 10 * i);
        sent[i % 2] += traced[i];
    }

    const Instance* inst[2] = {&a, &b};
    const auto delivered = [&] {
        auto caps = proxytest::capturesByTier(out("qvc"));
        for (int k = 0; k < 2; ++k) {
            const Capture& c = caps[inst[k]->tier];
            bool foreign = false;
            if (countRecords(c.data, 4) < sent[k] ||
                proxytest::btCount(c.as, inst[k]->vectorPrefix(), true, &foreign) < sent[k])
                return false;
        }
        return true;
    };
    ASSERT_TRUE(waitUntil(delivered)) << qvc.events() << proxy_.status();

    auto caps = proxytest::capturesByTier(out("qvc"));
    ASSERT_EQ(caps.size(), 2u) << qvc.events();
    const std::string status = proxy_.status();
    EXPECT_EQ(proxytest::jsonNumber(status, "workers"), 8) << status;
    for (int k = 0; k < 2; ++k) {
        const Instance &me = *inst[k], &other = *inst[1 - k];
        SCOPED_TRACE(me.tier);
        const Capture& c = caps[me.tier];
        // One collector session for the four workers, under the instance's identity.
        EXPECT_TRUE(c.controls == 1 && c.datas == 1 && c.ases == 1) << qvc.events();
        EXPECT_EQ(c.control.rfind("qv_ctrl_msg_req:appName=qvsdk;qvAppServerHost=" + me.server +
                                      ";tierName=" + me.tier + ";",
                                  0),
                  0u)
            << c.control;
        for (const char* method : {"\n5,Worker::handle,", "\n5,Worker::step1,", "\n5,Worker::step2,"})
            EXPECT_EQ(countOf(c.data, method), 1) << method;
        // Every flowpath of its workers with its BT, none of the other instance's; ids never repeat.
        for (int i = 0; i < 8; ++i) {
            EXPECT_EQ(headersOf(c.data, url(i)), i % 2 == k ? traced[i] : 0) << url(i);
            EXPECT_EQ(c.data.find("," + url(i) + "\n") != std::string::npos, i % 2 == k) << url(i);
        }
        const auto heads = proxytest::flowpathIds(c.data, 2);
        EXPECT_EQ(heads, proxytest::flowpathIds(c.data, 4));
        EXPECT_EQ(std::set<std::string>(heads.begin(), heads.end()).size(), static_cast<size_t>(sent[k]));
        // The monitors count each transaction once, under this instance's names only.
        bool foreign = false;
        EXPECT_EQ(proxytest::btCount(c.as, me.vectorPrefix(), true, &foreign), sent[k]);
        EXPECT_EQ(proxytest::btCount(c.as, me.vectorPrefix(), false, &foreign), sent[k]);
        EXPECT_FALSE(foreign) << c.as;
        EXPECT_EQ((c.data + c.as).find(other.server), std::string::npos);
        const std::string detail = proxytest::instanceStatus(status, me.tier);
        EXPECT_EQ(proxytest::jsonNumber(detail, "workers"), 4) << detail;
        EXPECT_EQ(proxytest::jsonNumber(detail, "flowpaths_ended"), sent[k]) << detail;
    }

    stopAll(workers);
}

// Workers come and go a hundred times, each killed with transactions open in the middle of
// methods, while four others keep the proxy busy.
TEST_F(QvProxy, WorkersKilledMidTransactionLeaveNoOpenRecordsNorDescriptors) {
    e2e::Collector qvc;
    ASSERT_NO_FATAL_FAILURE(startBoth(qvc));
    // One instance, its workers on TCP (a) and on the Unix socket (b).
    Instance a("TierA", "ServerA"), b("TierA", "ServerA");
    a.settings(proxy_.port());
    b.settings(proxy_.port(), proxy_.socketPath());
    Worker load[4];
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(load[i].start(i % 2 == 0 ? a : b)) << proxy_.log();
    // The level: the load workers and the instance's connections to the collector.
    int descriptors = 0;
    ASSERT_TRUE(waitUntil([&] {
        const Capture c = proxytest::capturesByTier(out("qvc"))[a.tier];
        descriptors = proxy_.descriptors();  // before the status query's own connection
        return proxy_.figure("workers") == 4 && c.controls == 1 && c.datas == 1 && c.ases == 1;
    })) << proxy_.status();

    std::atomic<bool> stop{false};
    std::atomic<long long> loadTraced{0};
    std::vector<std::thread> busy;
    for (int i = 0; i < 4; ++i)
        busy.emplace_back([&, i] {
            while (!stop.load()) {
                const long long n = load[i].run(20, 3, "/load/w" + std::to_string(i));
                if (n < 0) return;
                loadTraced += n;
            }
        });

    long long interrupted = 0;
    for (int round = 0; round < 25 && !HasFatalFailure(); ++round) {
        Worker victims[4];
        for (int v = 0; v < 4; ++v) ASSERT_TRUE(victims[v].start((round + v) % 2 == 0 ? a : b, false));
        for (int v = 0; v < 4; ++v) {
            ASSERT_TRUE(victims[v].ready()) << proxy_.log();
            ASSERT_GE(victims[v].run((round + v) % 4, 2, "/victim/done"), 0);
            const long long opened = victims[v].open(1 + (round + v) % 3, "/victim/open");
            ASSERT_GE(opened, 1);
            interrupted += opened;
        }
        for (Worker& v : victims) v.process().kill(SIGKILL);
        ASSERT_TRUE(proxy_.process().alive()) << proxy_.log();
    }
    stop = true;
    for (auto& t : busy) t.join();
    ASSERT_GT(loadTraced.load(), 0);

    // Once the killed workers' connections are closed: nothing open, every interrupted flowpath
    // accounted for, descriptors as before.
    const auto settled = [&] {
        const int fds = proxy_.descriptors();  // as above
        const std::string s = proxy_.status();
        return proxytest::jsonNumber(s, "workers") == 4 && proxytest::jsonNumber(s, "open_flowpaths") == 0 &&
               proxytest::jsonNumber(s, "interrupted_ended") +
                       proxytest::jsonNumber(s, "interrupted_reset") ==
                   interrupted &&
               fds == descriptors;
    };
    EXPECT_TRUE(waitUntil(settled)) << "interrupted " << interrupted << ", descriptors " << descriptors
                                    << " now " << proxy_.descriptors() << ", " << proxy_.status();

    stopAll(load);
}

// The collector is killed while transactions are open and workers go on, then comes back on the
// same port: every record is delivered once or counted as discarded.
TEST_F(QvProxy, KilledCollectorLosesNothingUncounted) {
    e2e::Collector first, second;
    ASSERT_NO_FATAL_FAILURE(startBoth(first, {}, {}, "qvc1"));
    const int port = first.port();
    Instance a("TierA", "ServerA"), b("TierA", "ServerA");
    a.settings(proxy_.port());
    b.settings(proxy_.port(), proxy_.socketPath());
    Worker workers[4];
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(workers[i].start(i % 2 == 0 ? a : b)) << proxy_.log();

    long long before = 0, across = 0, during = 0, after = 0;
    for (Worker& w : workers) before += w.run(50, 3, "/before/kill");
    ASSERT_EQ(before, 200);
    const auto endRecords = [&](const std::string& dir) {
        return countRecords(proxytest::capturesByTier(out(dir))[a.tier].data, 4);
    };
    ASSERT_TRUE(waitUntil([&] { return endRecords("qvc1") == before; })) << first.events();
    for (Worker& w : workers) across += w.open(3, "/open/across");
    ASSERT_EQ(across, 12);
    first.kill(SIGKILL);
    for (Worker& w : workers) during += w.run(50, 3, "/during/outage");

    ASSERT_TRUE(second.start(out("qvc2"), {}, port));
    ASSERT_TRUE(e2e::waitDataConnection(second, 1)) << second.events();
    for (Worker& w : workers) {
        EXPECT_EQ(w.close(), 3);
        after += w.run(50, 3, "/after/restart", true);
    }
    ASSERT_EQ(after, 200);
    std::string data;
    ASSERT_TRUE(waitUntil([&] {
        data = proxytest::capturesByTier(out("qvc2"))[a.tier].data;
        return headersOf(data, "/after/restart") == after;
    })) << second.events();

    // Nothing twice, nothing torn; what did not arrive is in the discard count.
    const auto seen = [&](const std::string& url) { return headersOf(data, url); };
    EXPECT_EQ(seen("/before/kill"), 0);
    EXPECT_LE(seen("/open/across"), across);
    EXPECT_LE(seen("/during/outage"), during);
    const long long missing = across - seen("/open/across") + during - seen("/during/outage");
    ASSERT_TRUE(waitUntil([&] { return proxy_.figure("discarded") >= missing; }))
        << "missing " << missing << ", " << proxy_.status();
    static const std::regex record(R"(\d+,.*|qv_data_msg_req:.*)");
    for (const auto& line : e2e::completeLines(data))
        if (!line.empty()) {
            EXPECT_TRUE(std::regex_match(line, record)) << line;
        }
    const auto heads = proxytest::flowpathIds(data, 2), ends = proxytest::flowpathIds(data, 4);
    EXPECT_TRUE(std::includes(ends.begin(), ends.end(), heads.begin(), heads.end()));

    stopAll(workers);
}

// Garbage, impossible frame lengths, a silent connection and more connections than allowed each
// cost only their own connection: the proxy serves a good worker throughout and afterwards.
TEST_F(QvProxy, HostileConnectionsAffectOnlyThemselves) {
    e2e::Collector qvc;
    ASSERT_NO_FATAL_FAILURE(startBoth(qvc, {}, {"--max-connections", "16", "--max-buffer", "131072"}));
    Instance a("TierA", "ServerA");
    a.settings(proxy_.port());
    Worker good;
    ASSERT_TRUE(good.start(a)) << proxy_.log();

    // A connection that never speaks, held for the whole case.
    const int silent = tcpConnect(proxy_.port());
    ASSERT_GE(silent, 0);
    // Garbage, with start marks, before any request line.
    const int garbage = tcpConnect(proxy_.port());
    ASSERT_GE(garbage, 0);
    std::string junk;
    for (int i = 0; i < 200000; ++i) junk.push_back(static_cast<char>(i % 7 == 0 ? '^' : (i * 131) & 0xff));
    (void)!write(garbage, junk.data(), junk.size());
    // A worker's handshake and data request, then frames whose total_len cannot be right (too
    // small, negative, far beyond the receive buffer) and a good transaction: it is found.
    const int ctrl = tcpConnect(proxy_.port());
    const int data = tcpConnect(proxy_.port());
    ASSERT_GE(ctrl, 0);
    ASSERT_GE(data, 0);
    const std::string hello =
        "qv_ctrl_msg_req:appName=qvsdk;qvAppServerHost=ServerA;tierName=TierA;pid=424242;agentType=php\n";
    ASSERT_EQ(write(ctrl, hello.data(), hello.size()), static_cast<ssize_t>(hello.size()));
    const std::string req =
        "qv_data_msg_req:appName=qvsdk;qvAppServerHost=ServerA;tierName=TierA;pid=424242\n\n";
    std::string frames = req + frameHeader(3, 0) + std::string(48, 'x') + frameHeader(-40, 2) +
                         std::string(48, 'y') + frameHeader(0x7fffffff, 1) + std::string(70000, 'z') +
                         proxytest::startFrame(77, "/hostile/resync") + proxytest::endFrame(77);
    (void)!write(data, frames.data(), frames.size());

    // More connections than allowed: the surplus is closed, the good worker goes on.
    std::vector<int> flood;
    for (int i = 0; i < 24; ++i) flood.push_back(tcpConnect(proxy_.port()));
    EXPECT_TRUE(waitUntil([&] {
        return std::any_of(flood.begin(), flood.end(), [](int fd) { return fd < 0 || closedByPeer(fd); });
    })) << "no connection beyond --max-connections was refused";

    EXPECT_EQ(good.run(100, 3, "/good/during"), 100);
    for (int fd : flood)
        if (fd >= 0) close(fd);
    for (int fd : {garbage, ctrl, data}) close(fd);
    Worker late;
    ASSERT_TRUE(late.start(a)) << proxy_.log();
    EXPECT_EQ(late.run(20, 3, "/good/after"), 20);
    ASSERT_TRUE(waitUntil([&] {
        const std::string d = proxytest::capturesByTier(out("qvc"))[a.tier].data;
        return headersOf(d, "/good/during") == 100 && headersOf(d, "/good/after") == 20 &&
               headersOf(d, "/hostile/resync") == 1;
    })) << qvc.events()
        << proxy_.status() << proxytest::capturesByTier(out("qvc"))[a.tier].data;
    EXPECT_TRUE(proxy_.process().alive());
    close(silent);

    EXPECT_TRUE(late.quit());
    stopAll({&good, 1});
}

}  // namespace
