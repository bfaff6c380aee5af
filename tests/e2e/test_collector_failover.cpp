// End to end when the collector stops and starts test runs or is killed and restarted while
// requests run (the control-thread tests cover silence, heartbeats, backups and reroute; the
// dispatcher tests what buffered records become). The agent runs in this process (qv_init without
// its pause); the collectors are real processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_harness.h"

namespace {

using e2e::Collector;
using e2e::countRecords;

// Every complete line of a data capture after its request line is a record ("<type>,...") or a
// heartbeat (empty): a record cut in two by a reconnection would show up here.
void expectWellFormed(const std::string& data) {
    static const std::regex record(R"(\d+,.*)");
    const auto lines = e2e::completeLines(data);
    for (size_t i = 1; i < lines.size(); ++i)
        if (!lines[i].empty()) {
            EXPECT_TRUE(std::regex_match(lines[i], record)) << "line " << i << ": " << lines[i];
        }
}

// The flowpath ids (second field, without a force mark) of one record type in a data capture.
std::set<std::string> flowpathIds(const std::string& data, int type) {
    const std::string prefix = std::to_string(type) + ",";
    std::set<std::string> ids;
    for (const auto& line : e2e::completeLines(data))
        if (line.compare(0, prefix.size(), prefix) == 0) {
            std::string id =
                line.substr(prefix.size(), line.find_first_of(",:", prefix.size()) - prefix.size());
            if (!id.empty() && id.back() == 'F') id.pop_back();
            ids.insert(id);
        }
    return ids;
}

class CollectorFailoverConcurrency : public e2e::AgentTest {};

// Request threads, stopped and joined on every way out of a test.
struct RequestThreads {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    void join() {
        stop = true;
        for (auto& th : threads)
            if (th.joinable()) th.join();
    }
    ~RequestThreads() { join(); }
};

// Requests in the middle of methods and callouts while the collector stops and starts the test
// run fifty times: every stop writes them out and resets their records, every start sweeps the
// registry generations no flowpath holds, and the requests go on with their handles throughout
// (every other one waits in a callout until the run stopped and started again).
TEST_F(CollectorFailoverConcurrency, RequestsStraddleFiftyStopsAndStarts) {
    Collector qvc;
    // No monitor reporting thread: this test is about the flowpath records.
    ASSERT_TRUE(qvc.start(home_.path() + "qvc", {"--keyword", "ASReportInterval=0"}));
    home_.settings(qvc.port());
    e2e::startAgent();
    ASSERT_TRUE(e2e::waitDataConnection(qvc, 1)) << qvc.events();
    RequestThreads requests;
    std::atomic<int> held{0};
    for (int t = 0; t < 4; ++t)
        requests.threads.emplace_back([&] {
            char url[] = "/straddle", work[] = "Shop::handle", db[] = "s-db", sql[] = "select 9",
                 http[] = "s-api", path[] = "/p";
            for (int i = 0; !requests.stop.load(); ++i) {
                qvBTHandle h = qv_bt_begin(url, nullptr);
                if (h == nullptr) {  // no test run at the moment
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    continue;
                }
                qv_method_entry(h, work);
                qvIPCallOutHandle d = qv_ip_db_callout_begin(h, db, sql);
                if (i % 2 == 0) {
                    for (bool running : {false, true})
                        e2e::waitUntil([&] { return requests.stop.load() || e2e::testRunning() == running; });
                    ++held;
                }
                qv_ip_db_callout_end(h, d);
                qv_ip_http_callout_end(h, qv_ip_http_callout_begin(h, http, path));
                qv_method_exit(h, work);
                qv_bt_end(h);
            }
        });
    // Each start waits for the stopped run's last record (10): its data thread has written out
    // the requests in progress by then.
    std::string script;
    for (int i = 1; i <= 50; ++i)
        script += "stop\nwait-records 10 " + std::to_string(i) +
                  "\nstart\nwait-reply qv_control_rep:action=start_instrumentation\n";
    qvc.send(script + "quit\n");
    ASSERT_EQ(qvc.waitExit(), 0) << qvc.events();
    requests.join();
    EXPECT_GT(held.load(), 0);
    for (int run = 1; run <= 51; ++run) expectWellFormed(qvc.file("data-" + std::to_string(run) + ".rec"));
}

// Request threads keep going while the collector is killed and comes back: nothing blocks or
// crashes, no record arrives twice or torn, and every request after the reconnection is delivered.
TEST_F(CollectorFailoverConcurrency, RequestThreadsRunThroughAKillAndRestart) {
    Collector first, second;
    ASSERT_TRUE(first.start(home_.path() + "qvc1", {}));
    const int port = first.port();
    home_.settings(port);
    e2e::startAgent();
    ASSERT_TRUE(e2e::waitDataConnection(first, 1)) << first.events();

    std::atomic<int> phase{0};  // 0 before the kill, 1 meanwhile, 2 once the new run delivers
    std::atomic<int> accepted[3] = {0, 0, 0};
    RequestThreads requests;
    for (int t = 0; t < 4; ++t)
        requests.threads.emplace_back([&] {
            while (!requests.stop.load()) {
                const int p = phase.load();
                if (e2e::oneTransaction("/conc/phase" + std::to_string(p))) ++accepted[p];
                std::this_thread::yield();
            }
        });
    ASSERT_TRUE(e2e::waitUntil([&] { return countRecords(first.file("data-1.rec"), 4) >= 200; }));
    phase = 1;
    first.kill(SIGKILL);
    ASSERT_TRUE(e2e::waitUntil([] { return !e2e::testRunning(); }));
    ASSERT_TRUE(second.start(home_.path() + "qvc2", {}, port));
    ASSERT_TRUE(e2e::waitDataConnection(second, 1)) << second.events();
    ASSERT_TRUE(e2e::waitUntil([] { return e2e::testRunning(); }));
    phase = 2;
    ASSERT_TRUE(e2e::waitUntil([&] { return accepted[2].load() >= 200; }));
    requests.join();
    second.send("stop\nwait-records 10 1\nquit\n");
    ASSERT_EQ(second.waitExit(), 0) << second.events();

    const std::string before = first.file("data-1.rec"), after = second.file("data-1.rec");
    expectWellFormed(after);
    EXPECT_EQ(e2e::countOf(after, ",/conc/phase2,"), accepted[2].load());
    EXPECT_LE(e2e::countOf(before + after, ",/conc/phase0,"), accepted[0].load());
    EXPECT_LE(e2e::countOf(before + after, ",/conc/phase1,"), accepted[1].load());
    // Every flowpath the new run saw begin also ends there. A flowpath in progress when the first
    // run stopped had its header written out then (to the dead connection), so its end record may
    // arrive here alone: at most one per request thread.
    const std::set<std::string> headers = flowpathIds(after, 2), ends = flowpathIds(after, 4);
    EXPECT_TRUE(std::includes(ends.begin(), ends.end(), headers.begin(), headers.end()));
    size_t endsAlone = 0;
    for (const auto& id : ends) endsAlone += headers.count(id) == 0;
    EXPECT_LE(endsAlone, requests.threads.size());
}

}  // namespace
