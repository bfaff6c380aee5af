// Many start/stop cycles from the collector process leave the agent's heap where it was: what a
// start replaces (BT rules and automatons, BT maps, settings texts) is freed or reused.
#include <malloc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "e2e/e2e_harness.h"

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

size_t heapInUse() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

// The least of some samples: the agent's own threads hold buffers for a moment now and then.
size_t heapFloor() {
    size_t least = heapInUse();
    for (int i = 0; i < 50; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        least = std::min(least, heapInUse());
    }
    return least;
}

class StartCycles : public e2e::AgentTest {
  protected:
    // Runs n stop/start cycles and returns once the agent answered the last start (the collector
    // has then sent `total` starts).
    bool cycles(int n, int total) {
        std::string script;
        for (int i = 0; i < n; ++i)
            script +=
                "stop\nwait-reply qv_control_rep:action=stop_instrumentation\n"
                "start\nwait-reply qv_control_rep:action=start_instrumentation\n";
        qvc_.send(script);
        const bool done = e2e::waitUntil(
            [&] {
                return e2e::countOf(qvc_.file("control-1.log"),
                                    "action=start_instrumentation;status=starting") == total;
            },
            600000);
        return done && e2e::runTransactions(1, "/cycle/a/b") == 1;
    }
    e2e::Collector qvc_;
};

}  // namespace

TEST_F(StartCycles, StartStopCyclesLeaveTheHeapFlat) {
    ASSERT_TRUE(qvc_.start(home_.path() + "qvc",
                           {"--heartbeat-interval", "0", "--keyword", "lmWDir=/tmp/lm", "--keyword",
                            "qvExceptionFilterList=a.B,c.D", "--keyword", "DBIPName=cycledb"}));
    home_.write("BTRuleFile.txt", "7|Shop|5|0|/shop*|0\n7|Api|6|1|*/api|0\n");
    home_.write("BTThresholdFile.txt", "Shop|10|20\n");
    home_.settings(qvc_.port());
    e2e::startAgent();
    ASSERT_TRUE(e2e::waitDataConnection(qvc_, 1)) << qvc_.events();
    ASSERT_TRUE(cycles(20, 21)) << qvc_.events();
    const size_t before = heapFloor();
    ASSERT_TRUE(cycles(1000, 1021)) << qvc_.events();
    const size_t after = heapFloor();
    // A start used to keep at least 67 KB; allow well under a hundred bytes a cycle.
    EXPECT_LT(after, before + 64 * 1024) << "grew by " << (after - before) << " bytes";
}
