// Tests of the collector command handler: prefix dispatch, reply texts, the start, stop, modify,
// heartbeat and reroute sequences, over a real control socket to a loopback peer.
#include "collector/Server.h"

#include <sys/stat.h>

#include <utility>

#include "collector_fixture.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_sock.h"

namespace {

std::vector<std::string> hookCalls;

// The agent started without a control thread, its control socket adopted from a connection to the
// peer, which also receives the data and auto-sensor connections.
class ServerTest : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        qv_collector_register_hooks();
        agent_init("pool", 0, "proc", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        app_ = qvApplication;
        qv_store(app_->QVSys.controlTraceLevel, 1);
        qv_store(app_->QVSys.dataBuffMaxCount, 8);
        qv_store(app_->QVSys.bciDataBufferMaxSize, 4096);
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        char err[256];
        apr_socket_t* s = qvlb_create_client_con("127.0.0.1", peer_.port(), err, sizeof(err), pool_);
        ASSERT_NE(s, nullptr) << err;
        control_thread_adopt_socket_for_test(s, "127.0.0.1", peer_.port());
        ASSERT_TRUE(waitUntil([&] { return peer_.connectionCount() == 1; }));
        ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", peer_.port()), 0);
        hookCalls.clear();
    }
    void TearDown() override {
        CollectorTest::TearDown();
        if (pool_ != nullptr) apr_pool_destroy(pool_);
    }
    void handle(std::string line) { handleReceivedClientMessageFromQVCollector(line.data()); }
    std::string control() const { return peer_.bytes(0); }
    apr_pool_t* pool_ = nullptr;
};

TEST(ServerParse, PrefixesAreExactCaseSensitiveAndTestedInOrder) {
    // Kinds the handler tests below do not tell apart by their effect.
    const std::pair<const char*, QVCommandKind> cases[] = {
        {"qv_control_rep:action:result=Ok;", QV_CMD_HEARTBEAT_REPLY},
        {"qvc_req:action=discover_loaded_classes;", QV_CMD_CLASS_DISCOVERY},
        {"qv_control_rep:action=send_file_content;result=Error:x", QV_CMD_IGNORED_REPLY},
        {"qv_control_rep:action=instrumentation_profile;", QV_CMD_IGNORED_REPLY},
        {"qv_control_req:action=modifyAnything", QV_CMD_MODIFY},
        {"qv_control_req:action=reset_monitor;monitor_event_id=3", QV_CMD_RECOGNISED},
        {"qv_meta_data_req:action=get_heap_dump;", QV_CMD_RECOGNISED},
        // Case, a missing ';' the prefix requires, empty and null lines are unknown.
        {"QV_CONTROL_REQ:action=modify", QV_CMD_UNKNOWN},
        {"qv_control_req:action=abort", QV_CMD_UNKNOWN},
        {"", QV_CMD_UNKNOWN},
        {nullptr, QV_CMD_UNKNOWN},
    };
    for (const auto& [line, kind] : cases) EXPECT_EQ(qvClassifyCommand(line), kind) << (line ? line : "null");
}

TEST_F(ServerTest, ModifyOnlyWithinStartAndStopSequences) {
    handle("qv_control_req:action=modify;AgentTraceLevel=4");
    ASSERT_TRUE(waitUntil([&] { return control().size() >= kRefusal.size(); }));
    EXPECT_EQ(control(), kRefusal);
    EXPECT_EQ(qv_load(app_->QVSys.agentTraceLevel), 0);

    qvServerHooks.reinitBTConfig = [] { hookCalls.push_back("bt"); };
    qvServerHooks.reinitHttpCapture = [] { hookCalls.push_back("http"); };
    qvServerHooks.reinitMonitors = [] { hookCalls.push_back("monitors"); };
    qvServerHooks.resetMonitorDataModelFromTLS = [] { hookCalls.push_back("tls"); };
    qvServerHooks.totalMethodCount = [] {
        hookCalls.push_back("methodCount");
        return 7;
    };
    qvServerHooks.buildAgentHashMap = [] { hookCalls.push_back("agentMap"); };
    qvServerHooks.buildVectorPrefixes = [] { hookCalls.push_back("prefixes"); };
    qvServerHooks.setAllFlagAndCountVars = [] { hookCalls.push_back("flags"); };
    qvServerHooks.onStartInstrumentation = [] { hookCalls.push_back("start"); };
    qvServerHooks.setToStopThread = [](int stop) { hookCalls.push_back("stop" + std::to_string(stop)); };
    // A keyword handler that reports a changed hash map during a modify.
    const int row = NameToIndex("hdrListForValueAsId");
    ASSERT_GE(row, 0);
    const qvKeywordParser saved = keywordsMap[row].parser;
    keywordsMap[row].parser = [](char*, char*, int) {
        qv_store(qvAgentHashMapChanged, 1);
        return 0;
    };
    qv_store(app_->Server.diffTimeFromQVC, 55LL);

    handle("qv_control_req:action=start_instrumentation;ASReportInterval=0;status=running;AgentTraceLevel=2");
    ASSERT_TRUE(peer_.waitForContains(0, kStartReply, kWaitMs));
    EXPECT_EQ(control(), kRefusal + kStartReply);
    EXPECT_EQ(hookCalls, (std::vector<std::string>{"bt", "http", "monitors", "tls", "methodCount", "agentMap",
                                                   "prefixes", "flags", "start"}));
    EXPECT_EQ(qv_load(app_->Server.testRunRunning), 1);
    EXPECT_EQ(qv_load(app_->Server.retryForDataConn), 1);
    EXPECT_EQ(qv_load(app_->QVSys.agentTraceLevel), 2);
    // No TimeStampDiff and no korEpochDiff in the message: both time differences reset.
    EXPECT_EQ(qv_load(app_->Server.diffTimeFromQVC), 0);
    EXPECT_EQ(qv_load(app_->Server.originalKorEpochDiffTime), 1388534400000LL);
    ASSERT_TRUE(waitUntil([&] { return connWithPrefix("qv_data_msg_req:") >= 0; }));
    const int data = connWithPrefix("qv_data_msg_req:");

    hookCalls.clear();
    handle("qv_control_req:action=modify;AgentTraceLevel=3;hdrListForValueAsId=x");
    ASSERT_TRUE(peer_.waitForContains(0, kModifyOk, kWaitMs));
    EXPECT_EQ(qv_load(app_->QVSys.agentTraceLevel), 3);
    EXPECT_EQ(qv_load(app_->Server.isRuntimeApplied), 1);
    EXPECT_EQ(hookCalls, (std::vector<std::string>{"agentMap"}));
    keywordsMap[row].parser = saved;

    hookCalls.clear();
    handle("qv_control_req:action=stop_instrumentation");
    ASSERT_TRUE(peer_.waitForContains(0, kStopReply, kWaitMs));
    EXPECT_EQ(control(), kRefusal + kStartReply + kModifyOk + kStopReply);
    EXPECT_EQ(hookCalls, (std::vector<std::string>{"stop1"}));
    EXPECT_EQ(qv_load(app_->Server.testRunRunning), 0);
    ASSERT_TRUE(peer_.waitForContains(data, "10,\n", kWaitMs));
    EXPECT_EQ(qv_load(app_->Server.isTenRecordDump), 1);
    EXPECT_TRUE(logged("Flowpath counters: complete = "));  // status=running logs the counters

    // After the stop a modify is refused again.
    handle("qv_control_req:action=modify;AgentTraceLevel=1");
    ASSERT_TRUE(
        waitUntil([&] { return control() == kRefusal + kStartReply + kModifyOk + kStopReply + kRefusal; }));
    EXPECT_EQ(qv_load(app_->QVSys.agentTraceLevel), 3);
}

TEST_F(ServerTest, StartReplyCarriesResponseBufferAndStartsReporter) {
    qvServerHooks.onStartInstrumentation = [] {
        qvStoreText(qvApplication->Server.startInstrRespBuffer,
                    sizeof(qvApplication->Server.startInstrRespBuffer), "instrProfile=a.txt;size=0");
    };
    qv_store(app_->QVSys.ASDataBuffMinCount, 2);
    handle(
        "qv_control_req:action=start_instrumentation;ASReportInterval=60;korEpochDiff=1000;TimeStampDiff="
        "300;instrProfile=a.txt,b.txt;lmd=11,12;size=0,7");
    const std::string reply = kStartReply + "instrProfile=a.txt;size=0\n";
    ASSERT_TRUE(peer_.waitForContains(0, reply, kWaitMs));
    EXPECT_EQ(control(), reply);
    // The epoch difference less the collector's clock difference becomes the time base.
    EXPECT_EQ(qv_load(app_->Server.korEpochDiffTime), 700);
    EXPECT_EQ(qv_load(app_->Server.originalKorEpochDiffTime), 700);
    EXPECT_STREQ(QVInstrProfKeywords.instrProfile, "a.txt,b.txt");
    ASSERT_TRUE(waitUntil([&] { return connWithPrefix("auto_sensor_thread_hotspot_data_req:") >= 0; }));
    handle("qv_control_req:action=stop_instrumentation");
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.autoSensor_thread_running) == 0; }));
}

TEST_F(ServerTest, HeartbeatsFromCollectorAndUnsupportedCommands) {
    // Fewer than three fields: only the alive time changes.
    qv_store(app_->Server.lastHeartBeatRcvTime, 0LL);
    handle("qv_control_req:action=reconnect;heartBeat");
    EXPECT_GT(qv_load(app_->Server.lastHeartBeatRcvTime), 0);
    EXPECT_EQ(qv_load(app_->QVSys.dataConnState), 1);
    handle("qv_control_req:action=reconnect;heartBeat;dataConnState=0;AutosensorConnState=0");
    EXPECT_EQ(qv_load(app_->QVSys.dataConnState), 0);
    EXPECT_EQ(qv_load(app_->QVSys.autosensorConnState), 0);

    for (const char* line :
         {"download_file_req:f=a", "upload_file_req:f=a", "qvc_req:action=discover_loaded_classes;",
          "qv_meta_data_req:action=auto_instr_status;", "Dynamic_Diagnostics_req:action=ai_status;",
          "qv_control_req:action=abort;", "qv_control_req:action=bci_stat;", "no such command",
          "\x01\x02garbage\xff\x7f"})
        handle(line);
    EXPECT_TRUE(logged("Unknown message received from QVC, ignored: '\?\?garbage\?\?'"));

    // The metadata request goes to the cache's handler and is always answered.
    static std::string seen;
    qvServerHooks.processClientMessage = [](char* msg) { seen = msg; };
    handle("qv_meta_data_req:action=send_meta_data;a;b;c;5");
    ASSERT_TRUE(peer_.waitForContains(0, "qv_meta_data_rep:status=complete;\n", kWaitMs));
    EXPECT_EQ(control(), "qv_meta_data_rep:status=complete;\n");  // nothing else was answered
    EXPECT_EQ(seen, "qv_meta_data_req:action=send_meta_data;a;b;c;5");
}

TEST_F(ServerTest, RerouteAndSettingsFileRewrite) {
    EXPECT_EQ(updateQVSettingFile("h", 1, nullptr, nullptr, nullptr), -1);  // no file yet
    const std::string longLine = "tierX=" + std::string(3000, 'l') + "\n";
    home_.write("config/qvsettings.conf", longLine + "\tqvcHost=indented\nqvcHost=old\ninstance=I");
    // A directory the agent may not write to: nothing changes and the reason is logged.
    const std::string config = home_.file("config");
    ASSERT_EQ(chmod(home_.path().c_str(), 0755) | chmod(config.c_str(), 0555), 0);
    const bool root = geteuid() == 0;  // root writes anywhere: act as an ordinary user
    EXPECT_EQ(root ? seteuid(65534) : 0, 0);
    EXPECT_EQ(updateQVSettingFile("new", 0, "T", "", nullptr), -1);
    EXPECT_EQ(root ? seteuid(0) : 0, 0);
    ASSERT_EQ(chmod(config.c_str(), 0755), 0);
    EXPECT_TRUE(logged("qvsettings.conf' not updated: creating the new file failed: Permission denied"));
    ASSERT_EQ(updateQVSettingFile("new", 0, "T", "", nullptr), 0);
    // The over-long and indented lines are copied; absent keys are appended; port 0 keeps nothing.
    EXPECT_EQ(home_.read("config/qvsettings.conf"),
              longLine + "\tqvcHost=indented\nqvcHost=new\ninstance=I\ntier=T\n");
    // Through a symbolic link the file it names is rewritten, with its permissions; the link stays.
    home_.write("real.conf", "qvcHost=a\n");
    home_.remove("config/qvsettings.conf");
    ASSERT_EQ(chmod(home_.file("real.conf").c_str(), 0604), 0);
    ASSERT_EQ(symlink(home_.file("real.conf").c_str(), home_.file("config/qvsettings.conf").c_str()), 0);
    ASSERT_EQ(updateQVSettingFile("b", 0, nullptr, nullptr, nullptr), 0);
    struct stat st;
    ASSERT_EQ(lstat(home_.file("config/qvsettings.conf").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(stat(home_.file("real.conf").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0604u);
    EXPECT_EQ(home_.read("real.conf"), "qvcHost=b\n");
    home_.remove("config/qvsettings.conf");

    const std::string conf = "tier=T1\nserver=S1\n# keep me\ninstance=I1\nqvcHost=127.0.0.1\nqvcPort=" +
                             std::to_string(peer_.port()) + "\nagentTraceLevel=1\n";
    home_.write("config/qvsettings.conf", conf);
    qv_store(app_->QVBCISetting.qvcPort, peer_.port());
    handle("qv_control_req:action=reroute_ctrl_con");
    EXPECT_EQ(home_.read("config/qvsettings.conf"), conf);

    handle(
        "qv_control_req:action=reroute_ctrl_con;qvcHost=10.1.2.3;qvcPort=9911;tier=ALL;server=S2;instance="
        "all;"
        "clusterMode=0");
    EXPECT_EQ(
        home_.read("config/qvsettings.conf"),
        "tier=T1\nserver=S2\n# keep me\ninstance=I1\nqvcHost=10.1.2.3\nqvcPort=9911\nagentTraceLevel=1\n");
    EXPECT_EQ(qv_load(app_->qvcCtrlSocket), nullptr);
}

TEST_F(ServerTest, StopDrainEndsWhenAgentStops) {
    ASSERT_EQ(buff_list_init(), 0);
    // A one-minute drain of an hour-long minute: only the interruption ends it in time.
    qv_store(stopDrainMinuteMs, 3600000LL);
    handle(
        "qv_control_req:action=start_instrumentation;ASReportInterval=0;setthresholdTime=1;instrProfile=NA");
    ASSERT_TRUE(peer_.waitForContains(0, kStartReply, kWaitMs));
    std::thread stopper([&] { handle("qv_control_req:action=stop_instrumentation"); });
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->Server.gettingstopInstrumenatation) == 1; }));
    qv_store(qvAgentStopping, 1);
    stopper.join();
    EXPECT_EQ(qv_load(app_->Server.gettingstopInstrumenatation), 0);
    ASSERT_TRUE(peer_.waitForContains(0, kStopReply, kWaitMs));
}

}  // namespace
