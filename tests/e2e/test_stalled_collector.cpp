// End to end with a collector that stops reading the data connection: the agent's sends time
// out, it reconnects with its records kept, and stop, start and the process's exit complete.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <string>
#include <thread>

#include "e2e/e2e_harness.h"
#include "foundation/qvlb_sock.h"
#include "support/loopback_peer.h"

namespace {

const std::string kStart =
    "qv_control_req:action=start_instrumentation;testIdx=1;status=running;bciInstrSessionPct=100;"
    "ASReportInterval=0;bciDataBufferMaxSize=65536;bciDataBufferMaxCount=8\n";
const std::string kStartReply = "qv_control_rep:action=start_instrumentation;status=starting;result=Ok;\n";
const std::string kStopReply = "qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n";
// The socket buffers of a loopback connection hold a few megabytes: more than that must be
// queued before a collector that reads nothing stalls the agent's sender.
constexpr long long kFloodBytes = 12 * 1024 * 1024;

// Progress on stderr: a failed or hung run shows how far it came.
void step(const char* what) {
    fprintf(stderr, "step: %s\n", what);
}

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "FAILED at: %s\n", what);
    _exit(1);
}

bool isDataConn(const LoopbackPeer& qvc, int i) {
    const std::string b = qvc.bytes(i);
    return b.rfind("qv_data_msg_req:", 0) == 0 && b.find('\n') != std::string::npos;
}

// Runs a few requests, then queues filler records (paced, so that few are dropped) until
// kFloodBytes went into the agent's buffers. The collector reads none of the data connections
// from index from on: each is paused as soon as its request line arrived. Returns how many
// there were.
int floodStalled(LoopbackPeer& qvc, int from) {
    e2e::runTransactions(5, "/stall/cart");
    const std::string filler = "\n2,filler," + std::string(4000, 'f') + "\n";
    long long queued = 0;
    int seen = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (queued < kFloodBytes) {
        if (std::chrono::steady_clock::now() > end) fail("flood");
        for (int i = from; i < qvc.connectionCount(); ++i) {
            if (!isDataConn(qvc, i)) continue;
            qvc.pauseReading(i, true);
            ++seen;
            from = i + 1;
        }
        if (dumpData(filler.data(), static_cast<int>(filler.size())) == 0)
            queued += static_cast<long long>(filler.size());
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return seen;
}

// The death test's child: the whole run, then exit while the data connection is stalled.
void runAgainstStalledCollector() {
    alarm(240);  // the watchdog: a hang ends the process by SIGALRM
    LoopbackPeer qvc;
    qvc.setSlowReading(4096, 0, 0);
    if (!qvc.start()) fail("collector");
    e2e::AgentHome home;
    home.settings(qvc.port());
    qv_store(qvlbSendTimeoutMs, 500);
    e2e::startAgent();
    auto control = [&](const std::string& text, int n) {
        return e2e::waitUntil([&] { return e2e::countOf(qvc.bytes(0), text) == n; });
    };
    if (!qvc.waitForContains(0, "qv_ctrl_msg_req:", e2e::kWaitMs)) fail("handshake");
    qvc.sendTo(0, "qv_ctrl_msg_rep:result=Ok;\n" + kStart);
    if (!control(kStartReply, 1)) fail("start");
    step("stall and reconnect");
    // Each stalled connection is given up after the send timeout and a new one made.
    if (floodStalled(qvc, 1) < 2) fail("reconnect");
    step("stop");
    qvc.sendTo(0, "qv_control_req:action=stop_instrumentation\n");
    if (!control(kStopReply, 1)) fail("stop");
    if (!e2e::waitUntil([] { return qv_load(qvApplication->QVBCISetting.data_thread_running) == 0; }))
        fail("data thread end");
    step("start again");
    const int from = qvc.connectionCount();
    qvc.sendTo(0, kStart);
    if (!control(kStartReply, 2)) fail("start again");
    if (floodStalled(qvc, from) < 1) fail("data connection of the new run");
    step("exit");
    qv_free();
    // Nothing of the agent may still run while the exit tears its pools and locks down.
    if (control_thread_id != nullptr || data_thread_id != nullptr) fail("agent threads left running");
    qvc.stop();
    exit(0);
}

TEST(StalledCollector, StopStartReconnectAndExitComplete) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The agent keeps its records for the life of the process by design, and this child ends
    // without the resets the other tests run: its exit is not a place to look for leaks.
    const char* asan = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(asan != nullptr ? asan : "") + ":detect_leaks=0").c_str(), 1);
    EXPECT_EXIT(runAgainstStalledCollector(), ::testing::ExitedWithCode(0), "step: exit");
}

}  // namespace
