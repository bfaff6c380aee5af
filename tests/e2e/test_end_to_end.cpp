// End to end with a real collector process: the agent (started in this process as qv_init does,
// without its pause) talks to tools/qvcollector over loopback through the whole test-run
// lifecycle and the collector's scripted commands, good and bad.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/e2e_harness.h"

namespace {

using e2e::Collector;
using e2e::countOf;
using e2e::countRecords;

// Start keywords of every case: the defaults plus a control trace level (the command handler's
// log lines are checked) and a report every 5 shortened seconds.
const std::vector<std::string> kKeywords = {"--keyword", "ControlThreadTraceLevel=1", "--keyword",
                                            "qvMonitorInterval=5"};

std::vector<std::string> with(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class EndToEnd : public e2e::AgentTest {
  protected:
    Collector qvc_;
};

TEST_F(EndToEnd, FullLifecycleHandshakeStartDataMonitorsMetadataModifyStopAndStartAgain) {
    ASSERT_TRUE(qvc_.start(home_.path() + "qvc", with(kKeywords, {"--keyword", "setthresholdTime=1"})));
    home_.settings(qvc_.port());
    e2e::startAgent();

    // The collector starts the test run when the agent's handshake arrives; records are buffered
    // once the data connection made the send buffers.
    ASSERT_TRUE(e2e::waitDataConnection(qvc_, 1)) << qvc_.events();
    ASSERT_EQ(e2e::runTransactions(20, "/shop/cart/add"), 20);
    qvc_.send(
        "wait-records 4 20\n"
        "meta e2e;0;0;5,7;1\n"
        "wait-reply qv_meta_data_rep:status=complete\n"
        "modify enableBTMonitorTrace=2\n"
        "wait-reply qv_control_rep:action=modify;result=Ok;\n"
        "wait-records 74 1\n"
        "stop\n"
        "wait-reply qv_control_rep:action=stop_instrumentation\n"
        "wait-records 10 1\n"
        "start\n"
        "wait-reply qv_control_rep:action=start_instrumentation\n");
    // A begin is refused from the stop until the second start is applied.
    ASSERT_TRUE(e2e::waitUntil([&] {
        return countOf(qvc_.file("control-1.sent"), "start_instrumentation") == 2;
    })) << qvc_.events();
    ASSERT_EQ(e2e::runTransactions(5, "/shop/checkout/pay"), 5);
    qvc_.send(
        "wait-records 4 25\n"
        "stop\n"
        "wait-records 10 2\n"
        "quit\n");
    ASSERT_EQ(qvc_.waitExit(), 0) << qvc_.events();

    // One control connection for everything: handshake first, then the replies in order.
    const std::string ctrl = qvc_.file("control-1.log");
    EXPECT_EQ(ctrl.rfind("qv_ctrl_msg_req:appName=qvsdk;", 0), 0u) << ctrl;
    EXPECT_NE(ctrl.find(";agentType=php;"), std::string::npos);
    EXPECT_NE(ctrl.find(";requestType=1;lastConnectionTimeStamp=-1;"), std::string::npos);
    const size_t start1 =
        ctrl.find("qv_control_rep:action=start_instrumentation;status=starting;result=Ok;\n");
    const size_t meta = ctrl.find("qv_meta_data_rep:status=complete;\n");
    const size_t modify = ctrl.find("qv_control_rep:action=modify;result=Ok;\n");
    const size_t stop1 = ctrl.find("qv_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n");
    const size_t start2 = ctrl.find("qv_control_rep:action=start_instrumentation;", stop1);
    const size_t stop2 = ctrl.find("qv_control_rep:action=stop_instrumentation;", start2);
    ASSERT_NE(start1, std::string::npos) << ctrl;
    EXPECT_LT(start1, meta);
    EXPECT_LT(meta, modify);
    EXPECT_LT(modify, stop1);
    EXPECT_LT(stop1, start2);
    EXPECT_LT(start2, stop2);
    EXPECT_NE(stop2, std::string::npos);
    EXPECT_EQ(qvc_.events().find("control-2"), std::string::npos) << "the control connection was made again";

    // One data connection per test run, each ending with the data-over record.
    const std::string data1 = qvc_.file("data-1.rec"), data2 = qvc_.file("data-2.rec");
    EXPECT_EQ(data1.rfind("qv_data_msg_req:", 0), 0u);
    EXPECT_EQ(countRecords(data1, 2), 20);
    EXPECT_EQ(countRecords(data1, 4), 20);
    EXPECT_EQ(countRecords(data2, 4), 5);
    for (const std::string* d : {&data1, &data2}) {
        const auto lines = e2e::completeLines(*d);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), "10,");
    }
    // The replay: the 11 marker, then the cached method and BT records once more.
    EXPECT_EQ(countRecords(data1, 11), 2) << data1;
    EXPECT_EQ(countRecords(data1, 7), 2);
    EXPECT_NE(data1.find("\n5,Shop::handle,"), data1.rfind("\n5,Shop::handle,"));
    EXPECT_GE(countRecords(data2, 7), 1);  // a new BT of the second run

    // Monitor records on the auto-sensor connection, the BT by name.
    const std::string as1 = qvc_.file("as-1.rec");
    EXPECT_EQ(as1.rfind("auto_sensor_thread_hotspot_data_req:", 0), 0u);
    EXPECT_NE(as1.find("/shop/cart"), std::string::npos) << as1;
    EXPECT_GE(countRecords(as1, 75), 1);

    // The modify reached the keyword table; the second start reset it to the start keywords.
    EXPECT_NE(traceLog().find("enableBTMonitorTrace"), std::string::npos);
    EXPECT_EQ(qv_load(qvApplication->QVSys.btMonitorTraceLevel), 1);
    EXPECT_EQ(qv_load(qvApplication->QVSys.discardCount), 0);
}

TEST_F(EndToEnd, ModifyBeforeStartIsRefusedAndChangesNothing) {
    ASSERT_TRUE(qvc_.start(home_.path() + "qvc", {"--no-start"}));
    home_.settings(qvc_.port());
    e2e::startAgent();
    qvc_.send(
        "modify AgentTraceLevel=4;enableBTMonitorTrace=3\n"
        "wait-reply qv_control_rep:result=Error:<Unable to process modify message\n"
        "quit\n");
    ASSERT_EQ(qvc_.waitExit(), 0) << qvc_.events();

    const std::string refusal = QV_MODIFY_REFUSED_REPLY;
    EXPECT_EQ(refusal.size(), 131u);
    const std::string ctrl = qvc_.file("control-1.log");
    const size_t handshakeEnd = ctrl.find('\n');
    ASSERT_NE(handshakeEnd, std::string::npos);
    EXPECT_EQ(ctrl.substr(handshakeEnd + 1), refusal) << "exactly the refusal after the handshake";
    EXPECT_EQ(qv_load(qvApplication->QVSys.agentTraceLevel), 0);
    EXPECT_EQ(qv_load(qvApplication->QVSys.btMonitorTraceLevel), 0);
    EXPECT_FALSE(e2e::testRunning());
}

TEST_F(EndToEnd, MalformedOverlongAndBinaryCommandLinesAreIgnoredAndLogged) {
    // A script file, so the 70000-byte line and the waits after it are all queued at once.
    const std::string script = home_.path() + "bad.script";
    home_.write("bad.script",
                "raw no prefix at all\\n\n"
                "raw qv_control_req:action=\\n\n"
                "raw qv_control_req:action=start_instrumentatio\\n\n"
                "raw \\x01\\x02\\xff\\xfe binary\\x00 after a NUL\\x7f\\n\n"
                "raw qv_control_req:action=modify\\x00;AgentTraceLevel=4\\n\n"
                "raw qv_control_req:action=reconnect;heartBeat\\n\n"
                "raw \\r\\n\\n;;;;\\n=\\n\n"
                "raw " +
                    std::string(70000, 'A') +
                    "\\n\n"
                    "raw qv_control_req:action=stop_instrumentation;" +
                    std::string(70000, 'B') +
                    "\\n\n"
                    "modify AgentTraceLevel=4\n"
                    "wait-reply qv_control_rep:result=Error:<Unable to process modify message\n"
                    "start\n"
                    "wait-reply qv_control_rep:action=start_instrumentation\n"
                    "wait-records 99 1\n"
                    "quit\n");
    ASSERT_TRUE(qvc_.start(home_.path() + "qvc", {"--no-start", "--script", script}));
    home_.settings(qvc_.port());
    e2e::startAgent();
    // Before any command arrives (the collector waits for the handshake, which follows this):
    // the command handler's log lines are wanted.
    qv_store(qvApplication->QVSys.controlTraceLevel, 1);
    ASSERT_EQ(qvc_.waitExit(), 0) << qvc_.events();

    // The same control connection answered the modify after the bad lines and took the start.
    const std::string ctrl = qvc_.file("control-1.log");
    EXPECT_NE(ctrl.find(QV_MODIFY_REFUSED_REPLY), std::string::npos) << ctrl;
    EXPECT_NE(ctrl.find("qv_control_rep:action=start_instrumentation;status=starting;result=Ok;"),
              std::string::npos);
    EXPECT_EQ(qvc_.events().find("control-2"), std::string::npos) << qvc_.events();
    EXPECT_EQ(ctrl.find("stop_instrumentation"), std::string::npos) << "an over-long stop was obeyed";
    EXPECT_EQ(qv_load(qvApplication->QVSys.agentTraceLevel), 0);
    EXPECT_TRUE(e2e::testRunning());

    const std::string log = traceLog();
    EXPECT_NE(log.find("Unknown message received from QVC, ignored: 'no prefix at all'"), std::string::npos);
    EXPECT_NE(log.find("Control message longer than"), std::string::npos);
    EXPECT_EQ(log.find(std::string(1, '\xff')), std::string::npos) << "binary bytes reached the trace log";
}

}  // namespace
