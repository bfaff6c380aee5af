// qvreliability: measures how the agent behaves when its collector fails. Part 1 runs SDK
// transactions on several threads while tools/qvcollector is killed and restarted, timing every SDK
// call and accounting for every flowpath end record; part 2 counts the process's descriptors and
// threads around many control reconnections. Prints the figures the README reports.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "sdk/qv_sdk.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

long long nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

long long nowMs() {
    return nowNs() / 1000000;
}

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool waitUntil(const std::function<bool()>& pred, long long ms) {
    const long long deadline = nowMs() + ms;
    for (;;) {
        if (pred()) return true;
        if (nowMs() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// The collector simulator as a child: commands on its stdin, events in <out>/events.log.
class Collector {
  public:
    ~Collector() { stop(SIGKILL); }

    bool start(const std::string& binary, const fs::path& out, int port,
               const std::vector<std::string>& keywords, bool autoStart = true) {
        out_ = out;
        fs::create_directories(out_);
        const fs::path portFile = out_ / "port";
        std::vector<std::string> argv = {binary,
                                         "--port",
                                         std::to_string(port),
                                         "--port-file",
                                         portFile.string(),
                                         "--out",
                                         out_.string(),
                                         "--summary-interval",
                                         "0",
                                         "--interactive",
                                         "--keyword",
                                         "qvMonitorInterval=5"};
        if (!autoStart) argv.push_back("--no-start");
        for (const std::string& k : keywords) {
            argv.push_back("--keyword");
            argv.push_back(k);
        }
        std::vector<char*> cargv;
        for (std::string& a : argv) cargv.push_back(a.data());
        cargv.push_back(nullptr);
        const std::string events = (out_ / "events.log").string();
        int in[2];
        if (pipe2(in, O_CLOEXEC) != 0) return false;
        // posix_spawn shares the address space until the exec: a fork would copy this process's
        // page tables, stalling the application threads being measured for milliseconds.
        // None of the agent's sockets may stay open in the collector.
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, in[0], 0);
        posix_spawn_file_actions_addopen(&fa, 2, events.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclosefrom_np(&fa, 3);
        pid_t pid = -1;
        const int rc = posix_spawn(&pid, cargv[0], &fa, nullptr, cargv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        pid_ = rc == 0 ? pid : -1;
        close(in[0]);
        if (pid_ < 0) {
            close(in[1]);
            return false;
        }
        stdin_ = in[1];
        if (!waitUntil([&] { return !readFile(portFile).empty() || !alive(); }, 10000) || !alive())
            return false;
        port_ = std::atoi(readFile(portFile).c_str());
        return port_ > 0;
    }

    void send(const std::string& commands) {
        if (stdin_ >= 0 && write(stdin_, commands.data(), commands.size()) < 0)
            perror("qvreliability: write");
    }

    bool alive() {
        if (pid_ <= 0) return false;
        int st = 0;
        if (waitpid(pid_, &st, WNOHANG) == pid_) {
            pid_ = -1;
            if (stdin_ >= 0) close(stdin_);
            stdin_ = -1;
            return false;
        }
        return true;
    }

    void stop(int sig) {
        if (pid_ <= 0) return;
        kill(pid_, sig);
        waitUntil([&] { return !alive(); }, 10000);
    }

    int port() const { return port_; }
    std::string file(const std::string& name) const { return readFile(out_ / name); }

  private:
    fs::path out_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int port_ = 0;
};

// ---- SDK call timing -------------------------------------------------------------------------

enum Call { kBegin, kEntry, kExit, kDbBegin, kDbEnd, kHttpBegin, kHttpEnd, kEnd, kCalls };
const char* const kCallNames[kCalls] = {
    "qv_bt_begin",          "qv_method_entry",          "qv_method_exit",         "qv_ip_db_callout_begin",
    "qv_ip_db_callout_end", "qv_ip_http_callout_begin", "qv_ip_http_callout_end", "qv_bt_end"};

// Call times in log-linear buckets (32 per power of two, within 3 %), for the percentiles.
struct Histogram {
    static constexpr int kBuckets = 64 + 58 * 32;
    long long n[kBuckets] = {};

    static int index(long long v) {
        if (v < 64) return v < 0 ? 0 : static_cast<int>(v);
        const int log2 = 63 - __builtin_clzll(static_cast<unsigned long long>(v));
        return 64 + (log2 - 6) * 32 + static_cast<int>(v >> (log2 - 5)) - 32;
    }
    // Largest value a bucket holds.
    static long long upper(int i) {
        if (i < 64) return i;
        const int shift = (i - 64) / 32 + 1;
        return ((static_cast<long long>(32 + (i - 64) % 32) + 1) << shift) - 1;
    }
    void add(long long v) { ++n[index(v)]; }
    void merge(const Histogram& o) {
        for (int i = 0; i < kBuckets; i++) n[i] += o.n[i];
    }
    // The value that q of the samples do not exceed (bucket upper bound).
    long long quantile(double q, long long total) const {
        const long long want = static_cast<long long>(static_cast<double>(total) * q + 0.999999);
        long long seen = 0;
        for (int i = 0; i < kBuckets; i++)
            if ((seen += n[i]) >= want && n[i] > 0) return upper(i);
        return 0;
    }
};

struct CallStats {
    Histogram wall[kCalls];
    Histogram asleep[kCalls];
    long long count[kCalls] = {};
    long long totalNs[kCalls] = {};
    long long maxNs[kCalls] = {};
    long long over1ms[kCalls] = {};
    long long maxAtMs[kCalls] = {};       // when the slowest call started (steady clock)
    long long maxBlockedNs[kCalls] = {};  // time asleep in a call
    long long blockedOver1ms[kCalls] = {};

    void add(Call c, long long startNs, long long ns, long long blockedNs) {
        ++count[c];
        wall[c].add(ns);
        asleep[c].add(blockedNs);
        totalNs[c] += ns;
        if (ns > 1000000) ++over1ms[c];
        if (ns > maxNs[c]) {
            maxNs[c] = ns;
            maxAtMs[c] = startNs / 1000000;
        }
        if (blockedNs > 1000000) ++blockedOver1ms[c];
        maxBlockedNs[c] = std::max(maxBlockedNs[c], blockedNs);
    }
    void merge(const CallStats& o) {
        for (int c = 0; c < kCalls; ++c) {
            count[c] += o.count[c];
            wall[c].merge(o.wall[c]);
            asleep[c].merge(o.asleep[c]);
            totalNs[c] += o.totalNs[c];
            over1ms[c] += o.over1ms[c];
            blockedOver1ms[c] += o.blockedOver1ms[c];
            maxBlockedNs[c] = std::max(maxBlockedNs[c], o.maxBlockedNs[c]);
            if (o.maxNs[c] > maxNs[c]) {
                maxNs[c] = o.maxNs[c];
                maxAtMs[c] = o.maxAtMs[c];
            }
        }
    }
};

long long cpuNs(const struct rusage& r) {
    return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000000000LL +
           (r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1000LL;
}

// Time of a call spent asleep, i.e. blocked. A call during which the thread never gave up its CPU
// of its own accord was not asleep at all: whatever it took beyond its own CPU time, it waited
// for a CPU. Otherwise the time off a CPU is counted as asleep, which overstates it by any wait
// for a CPU after the wake-up. Calls too short to matter are not looked at again.
long long asleepNs(const struct rusage& before, long long ns, struct rusage* after) {
    if (ns <= 100000) return 0;
    if (getrusage(RUSAGE_THREAD, after) != 0) return ns;
    if (after->ru_nvcsw == before.ru_nvcsw) return 0;
    return std::max(0LL, ns - (cpuNs(*after) - cpuNs(before)));
}

// --slow-calls: every call over 1 ms is printed with what the thread went through meanwhile
// (CPU time, time asleep, page faults, waits, preemptions), which tells a lock wait from a fault
// from the scheduler.
bool gReportSlowCalls = false;

template <class F>
auto timed(CallStats& s, Call c, F f) {
    struct rusage before {};
    getrusage(RUSAGE_THREAD, &before);
    const long long t0 = nowNs();
    auto r = f();
    const long long ns = nowNs() - t0;
    struct rusage after {};
    const long long asleep = asleepNs(before, ns, &after);
    if (gReportSlowCalls && ns > 1000000) {
        fprintf(stderr,
                "slow call: %s on thread %ld at %.6f s: %.3f ms (on a CPU %.3f ms, asleep %.3f ms), %ld page "
                "faults, %ld waits, %ld preemptions\n",
                kCallNames[c], static_cast<long>(syscall(SYS_gettid)), t0 / 1e9, ns / 1e6,
                (cpuNs(after) - cpuNs(before)) / 1e6, asleep / 1e6,
                after.ru_minflt - before.ru_minflt + after.ru_majflt - before.ru_majflt,
                after.ru_nvcsw - before.ru_nvcsw, after.ru_nivcsw - before.ru_nivcsw);
    }
    s.add(c, t0, ns, asleep);
    return r;
}

struct Ended {
    std::string fpi;
    long long atMs;
};

struct Worker {
    std::unique_ptr<CallStats> stats =
        std::make_unique<CallStats>();  // large: on the heap, made before the run
    std::vector<Ended> ended;
    long long refused = 0;
};

std::atomic<long long> g_attempted{0};

// One request as the example application makes it: two nested methods, a database and an HTTP
// callout.
void oneTransaction(Worker& w, int thread, long long n) {
    char url[64], outer[] = "Rel::handle", inner[] = "Rel::load", db[] = "rel-db",
                  sql[] = "select * from t where id = ?", http[] = "rel-api", path[] = "/v1/x";
    snprintf(url, sizeof(url), "/rel/t%d/k%lld", thread, n % 4);
    qvBTHandle h = timed(*w.stats, kBegin, [&] { return qv_bt_begin(url, nullptr); });
    if (h == nullptr) {
        ++w.refused;
        return;
    }
    timed(*w.stats, kEntry, [&] { return qv_method_entry(h, outer), 0; });
    timed(*w.stats, kEntry, [&] { return qv_method_entry(h, inner), 0; });
    qvIPCallOutHandle d = timed(*w.stats, kDbBegin, [&] { return qv_ip_db_callout_begin(h, db, sql); });
    timed(*w.stats, kDbEnd, [&] { return qv_ip_db_callout_end(h, d); });
    timed(*w.stats, kExit, [&] { return qv_method_exit(h, inner), 0; });
    qvIPCallOutHandle a =
        timed(*w.stats, kHttpBegin, [&] { return qv_ip_http_callout_begin(h, http, path); });
    timed(*w.stats, kHttpEnd, [&] { return qv_ip_http_callout_end(h, a); });
    timed(*w.stats, kExit, [&] { return qv_method_exit(h, outer), 0; });
    // The record stays the transaction's until the test run ends, so its id can be read here.
    std::string fpi(static_cast<QVPerThreadData_t*>(h)->flowpathInstanceStr);
    timed(*w.stats, kEnd, [&] { return qv_bt_end(h); });
    w.ended.push_back({std::move(fpi), nowMs()});
}

// Ids of the flowpath end records ("4,<id>,...") in the complete lines of a capture.
void collectEnds(const std::string& data, std::unordered_map<std::string, int>* seen, long long* malformed) {
    size_t start = 0;
    for (size_t nl = data.find('\n'); nl != std::string::npos; nl = data.find('\n', start)) {
        const std::string_view line(data.data() + start, nl - start);
        start = nl + 1;
        if (line.empty() || line.starts_with("qv_data_msg_req:")) continue;
        size_t i = 0;
        while (i < line.size() && line[i] >= '0' && line[i] <= '9') ++i;
        if (i == 0 || i >= line.size() || line[i] != ',') {
            ++*malformed;
            continue;
        }
        if (line.starts_with("4,")) {
            const size_t comma = line.find(',', 2);
            ++(*seen)[std::string(line.substr(2, comma == std::string_view::npos ? line.npos : comma - 2))];
        }
    }
}

void shortenAgentWaits() {
    qv_store(controlRetryIntervalMs, 100LL);
    qv_store(dataConnRetryIntervalMs, 100);
    qv_store(monitorReportSecondMs, 100LL);
    qv_store(stopDrainMinuteMs, 100LL);
    qv_store(controlPollTimeoutMs, 100LL);
    qv_store(controlReconnectPauseMs, 20LL);
}

bool dataThreadRunning() {
    return qv_load(qvApplication->QVBCISetting.data_thread_running) != 0;
}

bool testRunning() {
    return qv_load(qvApplication->Server.testRunRunning) != 0;
}

// Ends the test run on collector c and waits until the agent's data thread delivered its last
// record and closed the connection.
bool stopTestRun(Collector& c) {
    c.send("stop\n");
    if (!waitUntil([&] { return !testRunning(); }, 30000)) return false;
    if (!waitUntil([&] { return !dataThreadRunning(); }, 30000)) return false;
    return waitUntil(
        [&] {
            const std::string ev = c.file("events.log");
            size_t closes = 0, opens = 0;
            for (size_t at = ev.find("data-"); at != std::string::npos; at = ev.find("data-", at + 1)) {
                const size_t eol = ev.find('\n', at);
                const std::string_view l(ev.data() + at, (eol == std::string::npos ? ev.size() : eol) - at);
                if (l.find(" opened:") != std::string_view::npos) ++opens;
                if (l.find(" closed:") != std::string_view::npos) ++closes;
            }
            return closes >= opens;
        },
        30000);
}

struct FdCount {
    int total = 0;
    std::map<std::string, int> byKind;  // socket, pipe, anon_inode, file
};

FdCount countFds() {
    FdCount out;
    for (const auto& e : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        std::string target = fs::read_symlink(e.path(), ec).string();
        std::string kind = target.rfind("socket:", 0) == 0      ? "socket"
                           : target.rfind("pipe:", 0) == 0      ? "pipe"
                           : target.rfind("anon_inode", 0) == 0 ? "anon_inode"
                                                                : "file";
        ++out.total;
        ++out.byKind[kind];
    }
    return out;
}

int countThreads() {
    int n = 0;
    for (const auto& e : fs::directory_iterator("/proc/self/task")) n += e.is_directory() ? 1 : 0;
    return n;
}

std::string describe(const FdCount& f) {
    std::string s = std::to_string(f.total) + " (";
    bool first = true;
    for (const auto& [k, v] : f.byKind) {
        s += (first ? "" : ", ") + k + " " + std::to_string(v);
        first = false;
    }
    return s + ")";
}

struct Options {
    long long transactions = 100000;
    int kills = 20;
    int threads = 4;
    int cycles = 1000;
    long long downMs = 200;
    long long rate = 2000;  // transactions per second, all threads together; 0: as fast as possible
    std::string collector;
    std::string work;
    bool keep = false;
    std::vector<std::string> keywords;  // extra start keywords for the collector
};

bool parseArgs(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool v = i + 1 < argc;
        if (a == "--transactions" && v) {
            o->transactions = std::atoll(argv[++i]);
        } else if (a == "--kills" && v) {
            o->kills = std::atoi(argv[++i]);
        } else if (a == "--threads" && v) {
            o->threads = std::atoi(argv[++i]);
        } else if (a == "--cycles" && v) {
            o->cycles = std::atoi(argv[++i]);
        } else if (a == "--rate" && v) {
            o->rate = std::atoll(argv[++i]);
        } else if (a == "--down-ms" && v) {
            o->downMs = std::atoll(argv[++i]);
        } else if (a == "--collector" && v) {
            o->collector = argv[++i];
        } else if (a == "--work" && v) {
            o->work = argv[++i];
        } else if (a == "--keyword" && v) {
            o->keywords.push_back(argv[++i]);
        } else if (a == "--keep") {
            o->keep = true;
        } else if (a == "--slow-calls") {
            gReportSlowCalls = true;
        } else {
            fprintf(stderr,
                    "usage: qvreliability [--transactions N (100000)] [--kills K (20)] [--threads T (4)]\n"
                    "                     [--rate TX_PER_S (2000)] [--down-ms MS (200)] [--cycles C (1000)]\n"
                    "                     [--collector PATH] [--keyword K=V]...\n"
                    "                     [--work DIR] [--keep] [--slow-calls]\n");
            return false;
        }
    }
    return o->transactions > 0 && o->kills >= 0 && o->threads > 0 && o->threads <= 64 && o->cycles >= 0 &&
           o->downMs >= 0 && o->rate >= 0;
}

// Part 1. Returns true when every figure held.
bool runKillPart(const Options& o, const fs::path& work) {
    printf(
        "== part 1: %lld transactions on %d threads at %lld/s, collector killed %d times (%lld ms down each) "
        "==\n",
        o.transactions, o.threads, o.rate, o.kills, o.downMs);
    std::vector<std::unique_ptr<Collector>> incarnations;
    incarnations.push_back(std::make_unique<Collector>());
    if (!incarnations.back()->start(o.collector, work / "kill-0", 0, o.keywords)) {
        fprintf(stderr, "qvreliability: the collector did not start\n");
        return false;
    }
    const int port = incarnations.back()->port();
    fs::create_directories(work / "home" / "config");
    fs::create_directories(work / "home" / "logs");
    fs::create_directories(work / "home" / "etc");
    std::ofstream(work / "home" / "etc" / "version") << "1.0.0 reliability\n";
    std::ofstream(work / "home" / "config" / "qvsettings.conf")
        << "tier=Rel\nserver=loopback\ninstance=rel\nqvcHost=127.0.0.1\nqvcPort=" << port << "\n";
    const std::string home = (work / "home").string() + "/";
    setenv("QVHOME", home.c_str(), 1);
    shortenAgentWaits();
    qv_init_internal(0);
    if (!waitUntil([&] { return incarnations.back()->file("data-1.rec").find("\n99,") != std::string::npos; },
                   30000)) {
        fprintf(stderr, "qvreliability: no data connection\n");
        return false;
    }

    std::vector<Worker> workers(static_cast<size_t>(o.threads));
    std::vector<std::thread> threads;
    const long long startMs = nowMs();
    for (int t = 0; t < o.threads; ++t) {
        threads.emplace_back([&, t] {
            // Each thread keeps its share of the rate, as request threads of a server would.
            const long long periodNs = o.rate > 0 ? 1000000000LL * o.threads / o.rate : 0;
            long long next = nowNs();
            for (;;) {
                const long long n = g_attempted.fetch_add(1);
                if (n >= o.transactions) break;
                oneTransaction(workers[static_cast<size_t>(t)], t, n);
                next += periodNs;
                const long long wait = next - nowNs();
                if (wait > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
            }
        });
    }
    std::vector<long long> killAtMs;
    for (int k = 1; k <= o.kills; ++k) {
        const long long at = o.transactions * k / (o.kills + 1);
        while (g_attempted.load() < at) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        killAtMs.push_back(nowMs());
        incarnations.back()->stop(SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(o.downMs));
        incarnations.push_back(std::make_unique<Collector>());
        if (!incarnations.back()->start(o.collector, work / ("kill-" + std::to_string(k)), port,
                                        o.keywords)) {
            fprintf(stderr, "qvreliability: restart %d failed\n", k);
            return false;
        }
    }
    for (auto& th : threads) th.join();
    const long long runMs = nowMs() - startMs;
    // The last collector starts a test run again once the agent reconnected; end it there so the
    // data thread writes out what it holds.
    Collector& last = *incarnations.back();
    waitUntil([&] { return testRunning() && dataThreadRunning(); }, 30000);
    const bool stopped = stopTestRun(last);

    auto allStats = std::make_unique<CallStats>();
    CallStats& all = *allStats;
    long long refused = 0;
    std::vector<Ended> ended;
    for (Worker& w : workers) {
        all.merge(*w.stats);
        refused += w.refused;
        ended.insert(ended.end(), w.ended.begin(), w.ended.end());
    }
    std::unordered_map<std::string, int> seen;
    long long malformed = 0;
    for (size_t k = 0; k < incarnations.size(); ++k)
        for (int n = 1;; ++n) {
            const fs::path f = work / ("kill-" + std::to_string(k)) / ("data-" + std::to_string(n) + ".rec");
            if (!fs::exists(f)) break;
            collectEnds(readFile(f), &seen, &malformed);
        }
    long long delivered = 0, duplicates = 0, strangers = 0;
    std::unordered_set<std::string> mine;
    for (const Ended& e : ended) mine.insert(e.fpi);
    for (const auto& [fpi, n] : seen) {
        if (mine.count(fpi) == 0) {
            ++strangers;
            continue;
        }
        ++delivered;
        duplicates += n - 1;
    }
    // Where the missing ones ended, relative to the kill that followed them.
    std::map<long long, long long> missingBeforeKill;  // ms before the next kill (bucketed) -> count
    long long missing = 0, missingAfterLastKill = 0;
    for (const Ended& e : ended) {
        if (seen.count(e.fpi) != 0) continue;
        ++missing;
        auto next = std::lower_bound(killAtMs.begin(), killAtMs.end(), e.atMs);
        if (next == killAtMs.end()) {
            ++missingAfterLastKill;
            continue;
        }
        const long long before = *next - e.atMs;
        ++missingBeforeKill[before < 10 ? 10 : before < 100 ? 100 : before < 1000 ? 1000 : 100000];
    }
    const long long discarded = qv_load(qvApplication->QVSys.discardCount);

    printf(
        "run: %.1f s, %lld transactions attempted, %zu traced, %lld refused by qv_bt_begin (no test run "
        "while the agent reconnected)\n",
        runMs / 1000.0, o.transactions, ended.size(), refused);
    printf("SDK call latency (all threads):\n");
    printf("  %-26s %8s %8s %9s %9s %6s %11s %11s %8s\n", "call", "calls", "mean us", "p99.9 us", "max us",
           ">1 ms", "p99.9 asleep", "max asleep", "asleep>1");
    long long maxNs = 0, over = 0, maxBlocked = 0, blockedOver = 0;
    int slowest = 0;
    for (int c = 0; c < kCalls; ++c) {
        if (all.count[c] == 0) continue;
        printf("  %-26s %8lld %8.2f %9.1f %9.1f %6lld %11.1f %11.1f %8lld\n", kCallNames[c], all.count[c],
               all.totalNs[c] / 1000.0 / static_cast<double>(all.count[c]),
               all.wall[c].quantile(0.999, all.count[c]) / 1000.0, all.maxNs[c] / 1000.0, all.over1ms[c],
               all.asleep[c].quantile(0.999, all.count[c]) / 1000.0, all.maxBlockedNs[c] / 1000.0,
               all.blockedOver1ms[c]);
        over += all.over1ms[c];
        blockedOver += all.blockedOver1ms[c];
        maxBlocked = std::max(maxBlocked, all.maxBlockedNs[c]);
        if (all.maxNs[c] > maxNs) {
            maxNs = all.maxNs[c];
            slowest = c;
        }
    }
    long long nearestKill = -1;
    for (long long k : killAtMs)
        if (nearestKill < 0 || std::llabs(k - all.maxAtMs[slowest]) < std::llabs(nearestKill))
            nearestKill = k - all.maxAtMs[slowest];
    printf("  slowest call: %s, %.3f ms, %lld ms from the nearest kill\n", kCallNames[slowest], maxNs / 1e6,
           nearestKill < 0 ? -nearestKill : nearestKill);
    printf(
        "records: %zu flowpaths ended, %lld end records delivered (%lld duplicated, %lld unknown ids), %lld "
        "missing, discardCount %lld, malformed lines %lld, test run stopped cleanly: %s\n",
        ended.size(), delivered, duplicates, strangers, missing, discarded, malformed,
        stopped ? "yes" : "no");
    if (missing > 0) {
        printf("  missing ones by time from their end to the next kill:");
        for (const auto& [bucket, n] : missingBeforeKill) printf(" <%lld ms: %lld;", bucket, n);
        printf(" after the last kill: %lld\n", missingAfterLastKill);
    }
    // Blocking is what the agent makes the caller wait for: time asleep in a call. Time spent
    // runnable while other threads had both CPUs is the scheduler's, and shown beside it.
    const bool latencyOk = maxBlocked <= 1000000;
    const bool recordsOk = missing <= discarded && duplicates == 0 && malformed == 0;
    {
        std::ifstream st("/proc/self/status");
        for (std::string l; std::getline(st, l);)
            if (l.rfind("VmHWM:", 0) == 0 || l.rfind("VmRSS:", 0) == 0) printf("memory: %s\n", l.c_str());
        printf("memory: %d per-transaction records made\n", qv_load(g_tlsidx));
    }
    printf(
        "figure: no SDK call blocks longer than 1 ms: %s (%lld calls asleep over 1 ms, longest asleep %.3f "
        "ms; by the wall clock %lld calls over 1 ms, longest %.3f ms)\n",
        latencyOk ? "met" : "MISSED", blockedOver, maxBlocked / 1e6, over, maxNs / 1e6);
    printf(
        "figure: every end record delivered or counted in discardCount: %s (missing %lld, discardCount "
        "%lld)\n",
        recordsOk ? "met" : "MISSED", missing, discarded);
    return latencyOk && recordsOk;
}

// Part 2. Returns true when descriptors and threads are unchanged.
bool runReconnectPart(const Options& o, const fs::path& work) {
    printf("== part 2: %d control reconnections (collector drops the connection, then starts a run) ==\n",
           o.cycles);
    Collector c;
    if (!c.start(o.collector, work / "cycles", 0, o.keywords, false)) return false;
    // The agent still points at part 1's port: move it, as a settings edit would.
    std::ofstream(work / "home" / "config" / "qvsettings.conf")
        << "tier=Rel\nserver=loopback\ninstance=rel\nqvcHost=127.0.0.1\nqvcPort=" << c.port() << "\n";
    auto dataConns = [&] {
        int n = 0;
        while (c.file("data-" + std::to_string(n + 1) + ".rec").find("\n99,") != std::string::npos) ++n;
        return n;
    };
    // One cycle: the collector closes the control connection; the agent reconnects, its test run
    // and data thread end; the collector starts a run, which makes a new data connection.
    auto cycle = [&](int i) {
        if (i > 0) {
            c.send("disconnect\n");
            if (!waitUntil([&] { return !testRunning() && !dataThreadRunning(); }, 30000)) return false;
        }
        c.send("start\n");
        return waitUntil([&] { return dataConns() >= i + 1 && testRunning(); }, 30000);
    };
    // Descriptors are compared in the same state: connected, no test run, data and auto-sensor
    // threads ended (their connections closed).
    auto quiesce = [&] {
        return stopTestRun(c) &&
               waitUntil(
                   [&] {
                       return !dataThreadRunning() &&
                              qv_load(qvApplication->QVBCISetting.autoSensor_thread_running) == 0;
                   },
                   30000);
    };
    if (!cycle(0) || !quiesce()) {
        fprintf(stderr, "qvreliability: the agent did not reach the new collector\n");
        return false;
    }
    const FdCount before = countFds();
    const int threadsBefore = countThreads();
    const long long t0 = nowMs();
    int done = 0;
    for (int i = 1; i <= o.cycles; ++i, ++done)
        if (!cycle(i)) {
            fprintf(stderr, "qvreliability: cycle %d did not complete\n", i);
            break;
        }
    const bool quiet = quiesce();
    const FdCount after = countFds();
    const int threadsAfter = countThreads();
    printf("cycles: %d in %.1f s\n", done, (nowMs() - t0) / 1000.0);
    printf("open descriptors before: %s, after: %s\n", describe(before).c_str(), describe(after).c_str());
    printf("threads before: %d, after: %d\n", threadsBefore, threadsAfter);
    const bool ok = done == o.cycles && quiet && before.total == after.total && threadsBefore == threadsAfter;
    printf("figure: %d reconnect cycles leave the open descriptors unchanged: %s\n", done,
           ok ? "met" : "MISSED");
    stopTestRun(c);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseArgs(argc, argv, &o)) return 2;
    if (o.collector.empty()) {
        std::error_code ec;
        o.collector = (fs::read_symlink("/proc/self/exe", ec).parent_path() / "qvcollector").string();
    }
    fs::path work = o.work;
    if (work.empty()) {
        std::string tmpl = (fs::temp_directory_path() / "qvreliability.XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) return 1;
        work = tmpl;
    }
    fs::create_directories(work);
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    bool ok = runKillPart(o, work);
    if (o.cycles > 0) ok = runReconnectPart(o, work) && ok;
    qv_agent_shutdown();
    if (o.keep)
        printf("files kept in %s\n", work.c_str());
    else
        fs::remove_all(work);
    return ok ? 0 : 1;
}
