// End to end with a real collector process: the agent (started in this process as qv_init does,
// without its pause) talks to tools/qvcollector over loopback through the whole test-run
// lifecycle and the collector's scripted commands (bad lines: the control-thread tests).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/e2e_harness.h"

namespace {

using e2e::countOf;
using e2e::countRecords;
constexpr size_t npos = std::string::npos;

struct EndToEnd : e2e::AgentTest {
    e2e::Collector qvc_;
};

TEST_F(EndToEnd, FullLifecycleHandshakeStartDataMonitorsMetadataModifyStopAndStartAgain) {
    // The command handler's log lines are checked; a report every 5 shortened seconds.
    ASSERT_TRUE(qvc_.start(home_.path() + "qvc", {"--keyword", "ControlThreadTraceLevel=1", "--keyword",
                                                  "qvMonitorInterval=5", "--keyword", "setthresholdTime=1"}));
    home_.settings(qvc_.port());
    e2e::startAgent();

    // The collector starts the test run when the agent's handshake arrives; records are buffered
    // once the data connection made the send buffers.
    ASSERT_TRUE(e2e::waitDataConnection(qvc_, 1)) << qvc_.events();
    ASSERT_EQ(e2e::runTransactions(20, "/shop/cart/add"), 20);
    qvc_.send(
        "wait-records 4 20\nmeta e2e;0;0;5,7;1\nwait-reply qv_meta_data_rep:status=complete\n"
        "modify enableBTMonitorTrace=2\nwait-reply qv_control_rep:action=modify;result=Ok;\n");
    // Monitor records on the auto-sensor connection, the BT by name, before the first run stops.
    ASSERT_TRUE(e2e::waitUntil([&] {
        const std::string as = qvc_.file("as-1.rec");
        return as.find("/shop/cart") != npos && countRecords(as, 75) >= 1;
    })) << qvc_.file("as-1.rec");
    EXPECT_EQ(qvc_.file("as-1.rec").rfind("auto_sensor_thread_hotspot_data_req:", 0), 0u);
    qvc_.send(
        "stop\nwait-reply qv_control_rep:action=stop_instrumentation\nwait-records 10 1\n"
        "start\nwait-reply qv_control_rep:action=start_instrumentation\n");
    // A begin is refused from the stop until the second start is applied.
    ASSERT_TRUE(e2e::waitUntil([&] {
        return countOf(qvc_.file("control-1.sent"), "start_instrumentation") == 2;
    })) << qvc_.events();
    ASSERT_EQ(e2e::runTransactions(5, "/shop/checkout/pay"), 5);
    qvc_.send("wait-records 4 25\nstop\nwait-records 10 2\nquit\n");
    ASSERT_EQ(qvc_.waitExit(), 0) << qvc_.events();

    // One control connection for everything: handshake first, then the replies in order.
    const std::string ctrl = qvc_.file("control-1.log");
    EXPECT_EQ(ctrl.rfind("qv_ctrl_msg_req:appName=qvsdk;", 0), 0u) << ctrl;
    size_t at = 0;
    for (const char* reply :
         {";agentType=php;", ";requestType=1;lastConnectionTimeStamp=-1;",
          "qv_control_rep:action=start_instrumentation;status=starting;result=Ok;\n",
          "qv_meta_data_rep:status=complete;\n", "qv_control_rep:action=modify;result=Ok;\n",
          "qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n",
          "qv_control_rep:action=start_instrumentation;", "qv_control_rep:action=stop_instrumentation;"}) {
        at = ctrl.find(reply, at);
        ASSERT_NE(at, npos) << "missing or out of order: " << reply << ctrl;
    }
    EXPECT_EQ(qvc_.events().find("control-2"), npos) << "the control connection was made again";

    // One data connection per test run, each ending with the data-over record.
    const std::string data1 = qvc_.file("data-1.rec"), data2 = qvc_.file("data-2.rec");
    EXPECT_EQ(data1.rfind("qv_data_msg_req:", 0), 0u);
    EXPECT_EQ(countRecords(data1, 2), 20);
    EXPECT_EQ(countRecords(data1, 4), 20);
    EXPECT_EQ(countRecords(data2, 4), 5);
    for (const std::string& d : {data1, data2}) EXPECT_EQ(d.substr(d.rfind('\n', d.size() - 2) + 1), "10,\n");
    // The replay: the 11 marker, then the cached method and BT records once more.
    EXPECT_EQ(countRecords(data1, 11), 2) << data1;
    EXPECT_EQ(countRecords(data1, 7), 2);
    EXPECT_EQ(countOf(data1, "\n5,Shop::handle,"), 2);
    EXPECT_GE(countRecords(data2, 7), 1);  // a new BT of the second run

    // The modify reached the keyword table; the second start reset it to the start keywords.
    EXPECT_NE(traceLog().find("enableBTMonitorTrace"), npos);
    EXPECT_EQ(qv_load(qvApplication->QVSys.btMonitorTraceLevel), 1);
    EXPECT_EQ(qv_load(qvApplication->QVSys.discardCount), 0);
}

}  // namespace
