// Harness of the end-to-end tests: the collector simulator (tools/qvcollector) as a child process
// fed with script commands on its stdin, the agent started in this process without qv_init's
// pause, and readers for the collector's capture files.
#ifndef QV_E2E_HARNESS_H
#define QV_E2E_HARNESS_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "sdk/qv_sdk.h"
#include "support/agent_reset.h"
#include "support/temp_home.h"

namespace e2e {

namespace fs = std::filesystem;

// Upper bound of every wait: it only stops a broken run from hanging; waits end as soon as their
// condition holds.
constexpr int kWaitMs = 60000;

inline std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Complete lines of text (a trailing line without its newline is left out).
inline std::vector<std::string> completeLines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text.substr(0, text.rfind('\n') + 1));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline int countOf(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++n;
    return n;
}

// Complete lines of text that are records of type (begin with "<type>,").
inline int countRecords(const std::string& text, int type) {
    return countOf("\n" + text.substr(0, text.rfind('\n') + 1), "\n" + std::to_string(type) + ",");
}

// Polls pred every 5 ms until it holds or ms pass; returns its last value.
inline bool waitUntil(const std::function<bool()>& pred, int ms = kWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// qvcollector as a child process: commands go to its stdin (--interactive), events to
// <out>/events.log, capture files to <out>.
class Collector {
  public:
    Collector() = default;
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    ~Collector() { kill(SIGKILL); }

    // Starts the collector on port (0: a free one) with the extra options args, capturing into
    // out (created). Returns once it listens; false when it did not start.
    bool start(const fs::path& out, const std::vector<std::string>& args, int port = 0) {
        out_ = out;
        fs::create_directories(out_);
        const fs::path portFile = out_ / "port";
        fs::remove(portFile);
        std::vector<std::string> argv = {
            "qvcollector", "--port",      std::to_string(port), "--port-file", portFile.string(),
            "--out",       out_.string(), "--summary-interval", "0",           "--interactive"};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargv;
        for (std::string& a : argv) cargv.push_back(a.data());
        cargv.push_back(nullptr);
        const std::string events = (out_ / "events.log").string();
        int in[2];
        if (pipe2(in, O_CLOEXEC) != 0) return false;
        pid_ = fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls: the agent's threads run in the parent. The agent's
            // sockets must not live on in the child, or closing them would not end a connection.
            dup2(in[0], 0);
            const int err = open(events.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (err >= 0) dup2(err, 2);
            const int devnull = open("/dev/null", O_WRONLY);
            if (devnull >= 0) dup2(devnull, 1);
            close_range(3, ~0U, 0);
            execv(QV_BINARY_DIR "/tools/qvcollector", cargv.data());
            _exit(127);
        }
        close(in[0]);
        stdin_ = in[1];
        if (pid_ < 0 || !waitUntil([&] { return !readFile(portFile).empty() || !alive(); }, 10000) ||
            !alive())
            return false;
        port_ = std::stoi(readFile(portFile));
        return port_ > 0;
    }

    int port() const { return port_; }

    // Queues script commands (one per line). Commands written in one call are read together, so
    // a wait-reply written after the command that causes the reply is in place in time.
    void send(const std::string& commands) {
        for (size_t done = 0; stdin_ >= 0 && done < commands.size();) {
            const ssize_t w = write(stdin_, commands.data() + done, commands.size() - done);
            if (w <= 0) return;
            done += static_cast<size_t>(w);
        }
    }

    bool alive() {
        int st = 0;
        if (pid_ <= 0 || waitpid(pid_, &st, WNOHANG) != pid_) return pid_ > 0;
        exitCode_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        pid_ = -1;
        if (stdin_ >= 0) close(stdin_);
        stdin_ = -1;
        return false;
    }

    // Exit status once the collector ended (2: a wait of its script timed out), or -1 when it
    // still runs after ms.
    int waitExit(int ms = kWaitMs) {
        return waitUntil([&] { return !alive(); }, ms) ? exitCode_ : -1;
    }

    void kill(int sig) {
        if (pid_ > 0 && ::kill(pid_, sig) == 0 && (sig == SIGKILL || sig == SIGTERM)) waitExit(10000);
    }

    std::string file(const std::string& name) const { return readFile(out_ / name); }
    std::string events() const { return file("events.log"); }

  private:
    fs::path out_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int port_ = 0;
    int exitCode_ = -1;
};

// Waits until data connection n of the collector delivered its new-connection record (the agent
// makes its send buffers when its first data connection opens).
inline bool waitDataConnection(const Collector& c, int n) {
    return waitUntil(
        [&] { return c.file("data-" + std::to_string(n) + ".rec").find("\n99,") != std::string::npos; });
}

// Agent home in a temporary directory with the settings file naming the collector(s).
class AgentHome : public TempAgentHome {
  public:
    AgentHome() { fs::create_directories(path() + "logs"); }
    void settings(int port, const std::string& extra = "") const {
        write("config/qvsettings.conf",
              "tier=E2E\nserver=loopback\ninstance=e2e\nqvcHost=127.0.0.1\nqvcPort=" + std::to_string(port) +
                  "\n" + extra);
    }
};

// Every wait of the agent shortened (the defaults are a minute and more), then start-up as
// qv_init without its pause: the control thread connects at once (or, without a settings file
// yet, once one is written).
inline void startAgent() {
    qv_store(controlRetryIntervalMs, 100LL);
    qv_store(dataConnRetryIntervalMs, 100);
    qv_store(monitorReportSecondMs, 100LL);
    qv_store(stopDrainMinuteMs, 100LL);
    qv_store(controlPollTimeoutMs, 100LL);
    qv_store(controlReconnectPauseMs, 20LL);
    qv_init_internal(0);
}

// True while the agent is in a test run. Once the collector closes the control connection the
// agent re-reads its settings file, which ends the test run: ask only while the collector lives.
inline bool testRunning() {
    return qvApplication != nullptr && qv_load(qvApplication->Server.testRunRunning) == 1;
}

// One request: a nested method, a database and an HTTP callout. False when no test run took it.
inline bool oneTransaction(const std::string& url) {
    std::string u = url;
    char outer[] = "Shop::handle", inner[] = "Repo::load", db[] = "e2e-db", sql[] = "select 1",
         http[] = "e2e-api", path[] = "/api";
    qvBTHandle h = qv_bt_begin(u.data(), nullptr);
    if (h == nullptr) return false;
    qv_method_entry(h, outer);
    qv_method_entry(h, inner);
    qv_ip_db_callout_end(h, qv_ip_db_callout_begin(h, db, sql));
    qv_method_exit(h, inner);
    qv_ip_http_callout_end(h, qv_ip_http_callout_begin(h, http, path));
    qv_method_exit(h, outer);
    qv_bt_end(h);
    return true;
}

// Runs n transactions; a refused one (no test run yet) is retried until one is accepted or ms
// pass. Returns how many ran.
inline int runTransactions(int n, const std::string& url = "/e2e/shop", int ms = kWaitMs) {
    int done = 0;
    while (done < n && waitUntil([&] { return oneTransaction(url); }, ms)) ++done;
    return done;
}

// Base of the end-to-end cases: an agent home and one agent per process (ctest runs every case in
// its own process; a second case in the same process is skipped), shut down at the end.
class AgentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        static bool claimed = false;
        if (claimed) GTEST_SKIP() << "the agent starts once per process; run the cases with ctest";
        claimed = claimed_ = true;
    }
    void TearDown() override {
        if (claimed_) resetWholeAgent();
        // QV_E2E_KEEP=<dir>: a failed case leaves its agent home (trace logs, capture files) there.
        const char* keep = getenv("QV_E2E_KEEP");
        if (keep == nullptr || *keep == '\0' || !HasFailure()) return;
        std::error_code ec;
        fs::create_directories(keep, ec);
        fs::copy(home_.path(),
                 fs::path(keep) / ::testing::UnitTest::GetInstance()->current_test_info()->name(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
    }
    std::string traceLog() const { return home_.traceLogs(); }

    AgentHome home_;
    bool claimed_ = false;
};

}  // namespace e2e

#endif
