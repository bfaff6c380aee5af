// The extension interface end to end with a real collector: true times in the records, records
// returned to the pool, a forked child traced on its own, and the answers to wrong arguments.
#include <utility>

#include "e2e/e2e_harness.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_util.h"
#include "sdk/qv_ext.h"

namespace {

using Clock = std::chrono::steady_clock;

long long msBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration_cast<std::chrono::microseconds>(b - a).count() / 1000;
}

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string f; std::getline(in, f, ',');) out.push_back(f);
    return out;
}

// Record 2 of the first flowpath whose URL is url and the first record 4 of its id after it
// (ids of quick successive requests may repeat), split into fields.
struct Flowpath {
    std::vector<std::string> header, end;
};
Flowpath flowpathOf(const std::string& records, const std::string& url) {
    Flowpath fp;
    for (const std::string& l : e2e::completeLines(records)) {
        if (fp.header.empty() && l.rfind("2,", 0) == 0 && fields(l).size() > 6 && fields(l)[6] == url)
            fp.header = fields(l);
        else if (!fp.header.empty() && l.rfind("4," + fp.header[1] + ",", 0) == 0)
            return {fp.header, fields(l)};
    }
    return fp;
}

// Registry id of a method from its meta record "5,<name>,<id>".
std::string methodIdOf(const std::string& records, const std::string& name) {
    const size_t at = records.find("\n5," + name + ",");
    if (at == std::string::npos) return "?";
    const size_t from = at + 4 + name.size();
    return records.substr(from, records.find('\n', from) - from);
}

// Duration in the blob's exit entry "<id>:0_1_<duration>_0___" of method id.
long long exitDuration(const std::string& blob, const std::string& id) {
    const std::string key = id + ":0_1_";
    const size_t at = blob.find(key);
    return at == std::string::npos ? -1 : std::stoll(blob.substr(at + key.size()));
}

struct ExtEndToEnd : e2e::AgentTest {
    void TearDown() override {
        qv_ext_shutdown();
        e2e::AgentTest::TearDown();
        qv_ext_reset_for_test();
    }
    // Collector, settings and start-up with the agent's waits shortened; returns once traced.
    void start() {
        ASSERT_TRUE(qvc_.start(home_.path() + "qvc", {"--heartbeat-interval", "0"}));
        home_.settings(qvc_.port());
        qv_store(controlRetryIntervalMs, 100LL);
        qv_store(dataConnRetryIntervalMs, 100);
        qv_store(controlPollTimeoutMs, 100LL);
        qv_store(controlReconnectPauseMs, 20LL);
        ASSERT_EQ(qv_ext_init(), QV_EXT_OK);
        ASSERT_TRUE(e2e::waitDataConnection(qvc_, 1)) << qvc_.events();
    }
    qv_ext_request begin(const std::string& url) {
        qv_ext_request r = 0;
        e2e::waitUntil([&] { return qv_ext_request_begin(url.c_str(), nullptr, &r) == QV_EXT_OK; });
        return r;
    }
    e2e::Collector qvc_;
};

TEST_F(ExtEndToEnd, RecordsCarryMeasuredTimesStatusAndErrorAndEveryRecordGoesBack) {
    const int handle = qv_ext_method_register("Shop::handle");
    const int db = qv_ext_backend_register("ext-db", QV_EXT_BACKEND_DB);
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(qv_ext_method_register("Shop::handle"), handle);

    const long long epoch = qv_load(qvApplication->Server.korEpochDiffTime);
    const long long startSecLo = (my_gettimeofday() - epoch) / 1000;
    const auto outerLo = Clock::now();
    const qv_ext_request r = begin("/ext/slow");
    ASSERT_NE(r, 0u);
    const auto innerLo = Clock::now();
    ASSERT_EQ(qv_ext_method_entry(r, handle), QV_EXT_OK);
    const auto methodLo = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    const auto methodHi = Clock::now();
    ASSERT_EQ(qv_ext_method_exit(r, handle), QV_EXT_OK);
    ASSERT_EQ(qv_ext_callout_begin(r, db, "select 1"), QV_EXT_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(qv_ext_callout_end(r, 1), QV_EXT_OK);
    const auto innerHi = Clock::now();
    ASSERT_EQ(qv_ext_request_end(r, 404, 0), QV_EXT_OK);
    const auto outerHi = Clock::now();
    const long long startSecHi = (my_gettimeofday() - epoch) / 1000;

    // A failed request with status 200 is an error; a plain one is not.
    qv_ext_request failed = begin("/ext/failed");
    ASSERT_EQ(qv_ext_method_entry(failed, handle), QV_EXT_OK);  // left open: the end closes it
    ASSERT_EQ(qv_ext_request_end(failed, 200, 1), QV_EXT_OK);
    for (int i = 0; i < 500; i++) {
        qv_ext_request q = begin("/ext/many");
        ASSERT_EQ(qv_ext_method_entry(q, handle), QV_EXT_OK);
        ASSERT_EQ(qv_ext_method_exit(q, handle), QV_EXT_OK);
        ASSERT_EQ(qv_ext_request_end(q, 200, 0), QV_EXT_OK);
    }
    EXPECT_EQ(qv_load(gBusyTLSCnt), 0);
    EXPECT_EQ(qv_load(g_tlsidx), QV_TLS_POOL_BLOCK) << "records not reused";

    qvc_.send("wait-records 4 502\nstop\nwait-records 10 1\nquit\n");
    ASSERT_EQ(qvc_.waitExit(), 0) << qvc_.events();
    const std::string data = qvc_.file("data-1.rec");
    const Flowpath slow = flowpathOf(data, "/ext/slow");
    ASSERT_EQ(slow.end.size(), 9u) << data;
    // "4,<fpi>,<status>,<category>,<cpu>,<resp>,<bt_id>,<type>,<blob>"
    EXPECT_EQ(slow.end[2], "404");
    const long long resp = std::stoll(slow.end[5]);
    EXPECT_GE(resp, msBetween(innerLo, innerHi) - 1);
    EXPECT_LE(resp, msBetween(outerLo, outerHi) + 1);
    const long long startSec = std::stoll(slow.header[2]);
    EXPECT_GE(startSec, startSecLo);
    EXPECT_LE(startSec, startSecHi);
    const long long method = exitDuration(slow.end[8], methodIdOf(data, "Shop::handle"));
    EXPECT_GE(method, msBetween(methodLo, methodHi) - 1) << slow.end[8];
    EXPECT_LE(method, msBetween(innerLo, innerHi) + 1) << slow.end[8];
    EXPECT_NE(slow.end[8].find(":10:"), std::string::npos) << "database callout record: " << slow.end[8];

    const Flowpath bad = flowpathOf(data, "/ext/failed");
    ASSERT_EQ(bad.end.size(), 9u);
    EXPECT_EQ(bad.end[2], "200");
    EXPECT_EQ(bad.end[3], "13");
    EXPECT_NE(bad.end[8].find(methodIdOf(data, "Shop::handle") + ":0_1_"), std::string::npos);
    EXPECT_EQ(e2e::countRecords(data, 4), 502);
}

TEST_F(ExtEndToEnd, ForkedChildGetsItsOwnAgent) {
    const int handle = qv_ext_method_register("Worker::run");
    ASSERT_NO_FATAL_FAILURE(start());
    const qv_ext_request inParent = begin("/parent/before");
    ASSERT_NE(inParent, 0u);

    const pid_t child = fork();
    if (child == 0) {
        // The parent's request is not the child's; the child's first request starts its agent,
        // which connects on its own and is traced once the collector starts it.
        int rc = qv_ext_method_entry(inParent, handle) == QV_EXT_E_HANDLE ? 0 : 10;
        qv_ext_request r = 0;
        // Records go out once the data connection is open, as in the parent.
        // (The start command may even arrive before the first begin is through.)
        if (rc == 0 && qv_ext_request_begin("/child/first", nullptr, &r) == QV_EXT_OK)
            qv_ext_request_end(r, 200, 0);
        if (rc == 0 && !e2e::waitDataConnection(qvc_, 2)) rc = 14;
        if (rc == 0 && (r = begin("/child/work")) == 0) rc = 11;
        if (rc == 0 &&
            (qv_ext_method_entry(r, handle) != QV_EXT_OK || qv_ext_method_exit(r, handle) != QV_EXT_OK ||
             qv_ext_request_end(r, 201, 0) != QV_EXT_OK))
            rc = 12;
        // Until the collector has the record: the child's threads end with the process.
        if (rc == 0 &&
            !e2e::waitUntil([&] { return qvc_.file("data-2.rec").find(",201,") != std::string::npos; }))
            rc = 13;
        _exit(rc);
    }
    ASSERT_GT(child, 0);
    ASSERT_EQ(qv_ext_request_end(inParent, 200, 0), QV_EXT_OK);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0) << qvc_.events();
    const qv_ext_request after = begin("/parent/after");
    ASSERT_EQ(qv_ext_request_end(after, 200, 0), QV_EXT_OK);

    qvc_.send("wait-records 4 3\nstop\nquit\n");
    ASSERT_EQ(qvc_.waitExit(), 0) << qvc_.events();
    // Each process on its own control and data connection, with its own process id.
    EXPECT_NE(qvc_.file("control-2.log").find("pid=" + std::to_string(child)), std::string::npos)
        << qvc_.file("control-2.log");
    const std::string parentData = qvc_.file("data-1.rec"), childData = qvc_.file("data-2.rec");
    EXPECT_FALSE(flowpathOf(parentData, "/parent/before").end.empty());
    EXPECT_FALSE(flowpathOf(parentData, "/parent/after").end.empty());
    EXPECT_TRUE(flowpathOf(parentData, "/child/work").header.empty());
    EXPECT_FALSE(flowpathOf(childData, "/child/work").end.empty()) << childData;
    EXPECT_NE(childData.find("\n5,Worker::run,"), std::string::npos);
}

TEST_F(ExtEndToEnd, WrongArgumentsAndStaleHandlesAreAnsweredAndLoggedOnce) {
    qv_ext_request r = 7;
    EXPECT_EQ(qv_ext_request_begin("/x", nullptr, &r), QV_EXT_E_STATE);
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(qv_ext_method_register(nullptr), QV_EXT_E_ARG);
    EXPECT_EQ(qv_ext_backend_register("h", 3), QV_EXT_E_ARG);
    const int m = qv_ext_method_register("A::b"), http = qv_ext_backend_register("api", QV_EXT_BACKEND_HTTP);
    const int dbId = qv_ext_backend_register("db", QV_EXT_BACKEND_DB);
    ASSERT_NO_FATAL_FAILURE(start());

    const qv_ext_request ended = begin("/ext/ended");
    ASSERT_EQ(qv_ext_request_end(ended, 200, 0), QV_EXT_OK);
    const qv_ext_request live = begin("/ext/live");  // same slot, newer request
    const qv_ext_request forged = live ^ (uint64_t{2} << 32);
    const std::pair<int, int> cases[] = {
        {qv_ext_request_begin(nullptr, nullptr, &r), QV_EXT_E_ARG},
        {qv_ext_request_begin("", nullptr, &r), QV_EXT_E_ARG},
        {qv_ext_request_begin("/x", nullptr, nullptr), QV_EXT_E_ARG},
        {qv_ext_method_entry(ended, m), QV_EXT_E_HANDLE},
        {qv_ext_method_entry(forged, m), QV_EXT_E_HANDLE},
        {qv_ext_method_entry(~uint64_t{0}, m), QV_EXT_E_HANDLE},
        {qv_ext_request_end(ended, 200, 0), QV_EXT_E_HANDLE},
        {qv_ext_callout_end(ended, 0), QV_EXT_E_HANDLE},
        {qv_ext_method_entry(0, m), QV_EXT_NOT_TRACED},
        {qv_ext_request_end(0, 200, 0), QV_EXT_NOT_TRACED},
        {qv_ext_method_entry(live, 0), QV_EXT_E_ARG},
        {qv_ext_method_entry(live, 99999), QV_EXT_E_ARG},
        {qv_ext_method_exit(live, m), QV_EXT_E_ARG},
        {qv_ext_callout_end(live, 0), QV_EXT_E_ARG},
        {qv_ext_callout_begin(live, m + 100, "x"), QV_EXT_E_ARG},
        {qv_ext_callout_begin(live, dbId, nullptr), QV_EXT_E_ARG},
        {qv_ext_callout_begin(live, http, nullptr), QV_EXT_OK},
        {qv_ext_method_entry(live, m), QV_EXT_OK},
        {qv_ext_method_exit(live, m + 1), QV_EXT_E_ARG},
        {qv_ext_request_end(live, 1000, 0), QV_EXT_E_ARG},
        {qv_ext_request_end(live, 500, 0), QV_EXT_OK},  // closes the open method and callout
        {qv_ext_request_end(live, 500, 0), QV_EXT_E_HANDLE},
    };
    for (size_t i = 0; i < std::size(cases); i++) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    qv_ext_shutdown();
    EXPECT_EQ(qv_ext_request_begin("/x", nullptr, &r), QV_EXT_E_STATE);
    EXPECT_EQ(qv_ext_init(), QV_EXT_E_STATE);
    EXPECT_EQ(e2e::countOf(traceLog(), "Unknown or ended request handle"), 1) << traceLog();
}

}  // namespace
