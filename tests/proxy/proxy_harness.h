// Harness of the proxy server tests: tools/qvproxy, tools/qvcollector and tools/qvworker as real
// child processes, a client of the proxy's status query, and readers that split the collector's
// captures by application instance.
#ifndef QV_PROXY_HARNESS_H
#define QV_PROXY_HARNESS_H

#include <sys/socket.h>
#include <sys/un.h>

#include <map>
#include <set>
#include <span>

#include "codec/qvlb_encode.h"
#include "e2e/e2e_harness.h"
#include "support/piped_child.h"
#include "support/temp_home.h"

namespace proxytest {

namespace fs = std::filesystem;
using e2e::kWaitMs;

// The agent keeps process-lifetime state (pools, registries) that a leak check at a child's exit
// would report; the children's exits are not what these tests check.
inline std::string noLeakCheck() {
    const char* asan = getenv("ASAN_OPTIONS");
    return std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":detect_leaks=0";
}

inline std::string tool(const char* name) {
    return std::string(QV_BINARY_DIR) + "/tools/" + name;
}

// A connected Unix stream socket, -1 on failure.
inline int connectUnix(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

// Frames as a worker encodes them.
inline std::string frameOf(int len, const char* b) {
    return std::string(b, static_cast<size_t>(len));
}
inline std::string startFrame(long fpi, const std::string& url) {
    char b[1024];
    return frameOf(buildTransactionStartFrame(b, sizeof(b), 0, fpi, nullptr, url.c_str(), nullptr, nullptr,
                                              nullptr, nullptr, 0),
                   b);
}
inline std::string entryFrame(long fpi, const std::string& m) {
    char b[1024];
    return frameOf(buildMethodEntryFrame(b, sizeof(b), 1, fpi, 7, m.c_str(), nullptr, nullptr, 0), b);
}
inline std::string exitFrame(long fpi, const std::string& m) {
    char b[1024];
    return frameOf(buildMethodExitFrame(b, sizeof(b), 1, 200, 1, 0, 7, 3, fpi, 0, m.c_str(), nullptr), b);
}
inline std::string endFrame(long fpi) {
    char b[64];
    return frameOf(buildTransactionEndFrame(b, sizeof(b), 200, fpi), b);
}
inline std::string resetFrame(long fpi) {
    char b[64];
    return frameOf(buildTransactionResetFrame(b, sizeof(b), fpi), b);
}

// The value of "key" in a JSON object text (a number), -1 when absent.
inline long long jsonNumber(const std::string& json, const std::string& key) {
    const size_t at = json.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : atoll(json.c_str() + at + key.size() + 3);
}

// The part of a status reply's instances_detail entry of tier from its tier name on.
inline std::string instanceStatus(const std::string& status, const std::string& tier) {
    const size_t at = status.find("\"tier\":\"" + tier + "\"");
    return at == std::string::npos ? "" : status.substr(at, status.find('}', at) - at);
}

// qvproxy in its own agent home, reporting to the collector on collectorPort.
class Proxy {
  public:
    bool start(int collectorPort, const std::vector<std::string>& extraArgs = {}) {
        fs::create_directories(home_.path() + "logs");
        home_.write("config/proxysetting.conf",
                    "proxyPort=0\nqvcHost=127.0.0.1\nqvcPort=" + std::to_string(collectorPort) + "\n");
        home_.write("config/processes.conf", "qvsdk|1\n");
        socket_ = home_.path() + "qvproxy.sock";
        std::vector<std::string> args = {"--port", "0", "--socket", socket_, "--status-interval", "1"};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        if (!child_.start(tool("qvproxy"), args, {"QVHOME=" + home_.path(), noLeakCheck()},
                          home_.path() + "stderr.log"))
            return false;
        const std::string ready = child_.readLine();
        const size_t p = ready.find("port=");
        if (ready.rfind("qvproxy ready ", 0) != 0 || p == std::string::npos) return false;
        port_ = atoi(ready.c_str() + p + 5);
        return port_ > 0;
    }

    // One status query on the Unix socket: the JSON line, "" on failure.
    std::string status() const {
        const int fd = connectUnix(socket_);
        std::string reply;
        if (fd >= 0 && write(fd, "status\n", 7) == 7) {
            char buf[65536];
            pollfd p{fd, POLLIN, 0};
            while (reply.find('\n') == std::string::npos && poll(&p, 1, 10000) > 0) {
                const ssize_t n = read(fd, buf, sizeof(buf));
                if (n <= 0) break;
                reply.append(buf, static_cast<size_t>(n));
            }
        }
        if (fd >= 0) close(fd);
        return reply.substr(0, reply.find('\n'));
    }

    long long figure(const std::string& key) const { return jsonNumber(status(), key); }

    // Open descriptors of the proxy process.
    int descriptors() const {
        std::error_code ec;
        int n = 0;
        for (auto it = fs::directory_iterator("/proc/" + std::to_string(child_.pid()) + "/fd", ec);
             !ec && it != fs::directory_iterator(); it.increment(ec))
            ++n;
        return n;
    }

    PipedChild& process() { return child_; }
    int port() const { return port_; }
    const std::string& socketPath() const { return socket_; }
    std::string log() const { return home_.traceLogs() + home_.read("stderr.log"); }

  private:
    TempAgentHome home_;
    PipedChild child_;
    std::string socket_;
    int port_ = 0;
};

// One application instance: its identity (with the SDK's application name "qvsdk") and the agent
// home its workers share (the file names of their logs carry the process id).
struct Instance {
    std::string tier, server;
    TempAgentHome home;

    Instance(std::string t, std::string s) : tier(std::move(t)), server(std::move(s)) {
        fs::create_directories(home.path() + "logs");
    }
    // Workers reach the proxy on TCP, or on its Unix socket when unixPath is given.
    void settings(int proxyPort, const std::string& unixPath = "") const {
        std::string conf = "tier=" + tier + "\nserver=" + server +
                           "\nqvcHost=127.0.0.1\nqvcPort=1\nproxyMode=1\nproxyIP=127.0.0.1\nproxyPort=" +
                           std::to_string(proxyPort) + "\n";
        if (!unixPath.empty()) conf += "proxyConType=1\nproxySocketPath=" + unixPath + "\n";
        home.write("config/qvsettings.conf", conf);
    }
    std::string vectorPrefix() const { return tier + ">" + server + ">qvsdk>"; }
};

// A qvworker process of an instance; start() returns once it is ready to trace.
class Worker {
  public:
    // Starts the process; with wait, returns once it is ready (see ready()).
    bool start(const Instance& inst, bool wait = true) {
        return child_.start(tool("qvworker"), {}, {"QVHOME=" + inst.home.path(), noLeakCheck()},
                            inst.home.path() + "worker-stderr.log") &&
               (!wait || ready());
    }
    // True once the worker has its test run and data connection.
    bool ready() { return child_.readLine().rfind("ready", 0) == 0; }
    // Sends a command without waiting for its answer (answer() reads it): workers run at once.
    bool command(const std::string& line) { return child_.send(line + "\n"); }
    // The number after key in the next answer, -1 when it is missing.
    long long answer(const std::string& key) { return child_.answer(key); }
    // count transactions of pairs method pairs on url; returns how many were traced, -1 on a
    // missing answer. must: a refused transaction is retried until traced.
    long long run(long long count, int pairs, const std::string& url, bool must = false) {
        return command(runCommand(count, pairs, url, must)) ? answer("traced ") : -1;
    }
    static std::string runCommand(long long count, int pairs, const std::string& url, bool must = false) {
        return "run " + std::to_string(count) + " " + std::to_string(pairs) + " " + url +
               (must ? " must" : "");
    }
    long long open(long long count, const std::string& url) {
        return command("open " + std::to_string(count) + " " + url) ? answer("opened ") : -1;
    }
    long long close() { return command("close") ? answer("closed ") : -1; }
    bool quit() { return child_.send("quit\n") && child_.waitExit() == 0; }
    PipedChild& process() { return child_; }

  private:
    PipedChild child_;
};

// The collector's captures of one instance, concatenated per kind of connection, which are told
// apart by the tier name of their first line.
struct Capture {
    int controls = 0, datas = 0, ases = 0;  // connections
    std::string control, data, as;
};

inline std::map<std::string, Capture> capturesByTier(const std::string& outDir) {
    std::map<std::string, Capture> out;
    std::error_code ec;
    for (auto it = fs::directory_iterator(outDir, ec); !ec && it != fs::directory_iterator();
         it.increment(ec)) {
        const std::string name = it->path().filename().string(), text = e2e::readFile(it->path());
        const size_t t = text.find("tierName=");
        if (t == std::string::npos || t > text.find('\n')) continue;
        Capture& c = out[text.substr(t + 9, text.find_first_of(";,\n", t) - t - 9)];
        if (name.rfind("control-", 0) == 0 && name.ends_with(".log")) ++c.controls, c.control += text;
        if (name.rfind("data-", 0) == 0) ++c.datas, c.data += text;
        if (name.rfind("as-", 0) == 0) ++c.ases, c.as += text;
    }
    return out;
}

// Flowpath ids of the complete records of one type ("<type>,<id>,...").
inline std::multiset<std::string> flowpathIds(const std::string& data, int type) {
    const std::string prefix = std::to_string(type) + ",";
    std::multiset<std::string> ids;
    for (const auto& line : e2e::completeLines(data))
        if (line.rfind(prefix, 0) == 0)
            ids.insert(line.substr(prefix.size(), line.find(',', prefix.size()) - prefix.size()));
    return ids;
}

// Sum of the request counts (fifth value) of the 74 records: of the overall record, or of every
// other BT. foreign is set when a 74 record does not carry prefix.
inline long long btCount(const std::string& as, const std::string& prefix, bool overall, bool* foreign) {
    long long sum = 0;
    for (const auto& line : e2e::completeLines(as)) {
        const size_t colon = line.find(':'), bar = line.rfind('|');
        if (line.rfind("74,", 0) != 0 || colon == std::string::npos || bar == std::string::npos) continue;
        const std::string name = line.substr(colon + 1, bar - colon - 1);
        *foreign = *foreign || name.rfind(prefix, 0) != 0;
        if ((name == prefix + "AllTransactions") != overall) continue;
        std::istringstream values(line.substr(bar + 1));
        double v = 0;
        for (int i = 0; i < 5; ++i) values >> v;
        sum += static_cast<long long>(v);
    }
    return sum;
}

// Base of the cases: SIGPIPE off, so that a dead child's pipe does not end the test.
class ProxyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(fs::exists(tool("qvproxy"))) << "build the qvproxy target";
    }
    std::string out(const std::string& name) const { return work_.path() + name; }
    // The collector capturing into out(dir), then the proxy reporting to it.
    void startBoth(e2e::Collector& qvc, const std::vector<std::string>& qvcArgs = {},
                   const std::vector<std::string>& proxyArgs = {}, const std::string& dir = "qvc") {
        ASSERT_TRUE(qvc.start(out(dir), qvcArgs));
        ASSERT_TRUE(proxy_.start(qvc.port(), proxyArgs)) << proxy_.log();
    }
    // The workers quit, then the proxy ends cleanly on SIGTERM.
    void stopAll(std::span<Worker> workers) {
        for (Worker& w : workers) EXPECT_TRUE(w.quit());
        proxy_.process().kill(SIGTERM);
        EXPECT_EQ(proxy_.process().waitExit(), 0) << proxy_.log();
    }

    TempAgentHome work_;  // collector captures
    Proxy proxy_;
};

}  // namespace proxytest

#endif
