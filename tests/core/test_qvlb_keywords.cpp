// The collector keyword table: its rows, the fill functions and the application of start and
// modify messages.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_util.h"
#include "support/temp_home.h"

namespace {

class KeywordsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        agent_init("pool", 0, "proc", nullptr);
        qvApplication->QVSys.controlTraceLevel = 1;
    }
    void TearDown() override { qv_agent_reset_for_test(); }

    int apply(const std::string& msg) {
        std::string copy = msg;
        return findStatusFromClientMsg(copy.data());
    }
    bool logged(const std::string& text) const { return home_.traceLogs().find(text) != std::string::npos; }

    TempAgentHome home_;
};

int parserCalls = 0;
std::string parserValue;
int parserIndex = -1;
int countingParser(char* value, char* /*keyword*/, int index) {
    parserCalls++;
    parserValue = value;
    parserIndex = index;
    return 0;
}

int hookCalls = 0;
void countingHook() {
    hookCalls++;
}

}  // namespace

TEST(KeywordTable, RowsInOrder) {
    EXPECT_EQ(std::size(keywordsMap), 117u);
    EXPECT_STREQ(keywordsMap[0].name, "BTRuleConfig");
    EXPECT_STREQ(keywordsMap[16].name, "status");
    EXPECT_STREQ(keywordsMap[51].name, "AgentTraceLevel");
    EXPECT_STREQ(keywordsMap[59].name, "tierName");
    EXPECT_STREQ(keywordsMap[100].name, "captureMethodForAllFP");
    EXPECT_STREQ(keywordsMap[116].name, "enableDBBackendName");
    EXPECT_EQ(NameToIndex("AgentTraceLevel"), 51);
    EXPECT_EQ(NameToIndex("enableDBBackendName"), 116);
    EXPECT_EQ(NameToIndex("agenttracelevel"), -1);
    EXPECT_EQ(NameToIndex(nullptr), -1);

    int fileBased = 0;
    int later = 0;
    for (const keywordsInfo& row : keywordsMap) {
        if (row.parser == setFileBasedKeywd) fileBased++;
        if (row.parser == qvlb_keyword_not_handled) later++;
        // Exactly one way of handling a row.
        EXPECT_TRUE((row.parser != nullptr) != (row.setter != nullptr)) << row.name;
        if (row.setter) {
            EXPECT_GE(row.offset, 0) << row.name;
        }
        if (row.parser) {
            EXPECT_EQ(row.offset, -1) << row.name;
        }
    }
    EXPECT_EQ(fileBased, 24);
    EXPECT_EQ(later, 13);

    const keywordsInfo& traceSize = keywordsMap[NameToIndex("BCITraceMaxSize")];
    EXPECT_EQ(traceSize.length, 8);
    EXPECT_EQ(traceSize.fill_data, fill_long_long_data);
    EXPECT_EQ(keywordsMap[NameToIndex("captureMethodForAllFP")].length, 2);
    EXPECT_EQ(keywordsMap[NameToIndex("fileBasedKeywordMode")].length, 1);
    EXPECT_EQ(keywordsMap[NameToIndex("fpVersionID")].length, 10);
    EXPECT_EQ(keywordsMap[NameToIndex("autoDeInstrPct")].fill_data, fill_double_data);
}

TEST_F(KeywordsTest, ModifyStopsAtFieldWithoutEquals) {
    EXPECT_EQ(apply("qv_control_req:action=modify;AgentTraceLevel=4;bogus;enableFPTrace=2"), 1);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
    EXPECT_EQ(qvApplication->QVSys.fpTraceLevel, 0);

    // Unknown keywords are skipped, an empty keyword ends the parse.
    EXPECT_EQ(apply("qv_control_req:action=modify;nope=1;enableFPTrace=2;=5;AgentTraceLevel=1"), 1);
    EXPECT_EQ(qvApplication->QVSys.fpTraceLevel, 2);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
    EXPECT_TRUE(logged("Unknown keyword 'qv_control_req:action' with value 'modify' ignored."));

    // A keyword too long for the buffer is unknown, not cut to a known name.
    EXPECT_EQ(apply("qv_control_req:action=modify;" + std::string(300, 'k') + "=1;enableFPTrace=3"), 1);
    EXPECT_EQ(qvApplication->QVSys.fpTraceLevel, 3);
}

TEST_F(KeywordsTest, StartGateAndCloseFlag) {
    Server_t& srv = qvApplication->Server;
    srv.controlCommunicationBusyFlag = 1;
    EXPECT_EQ(apply("qv_control_req:action=start_instrumentation;AgentTraceLevel=3"), -1);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 0);
    EXPECT_EQ(apply("qv_control_req:action=modify;AgentTraceLevel=2"), 1);  // modify passes while busy
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 2);
    srv.controlCommunicationBusyFlag = 0;
    EXPECT_EQ(apply("qv_control_req:action=start_instrumentation;AgentTraceLevel=3"), 1);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 3);
    EXPECT_EQ(apply("qv_control_req:action=stop_instrumentation;AgentTraceLevel=1"), -1);
    EXPECT_EQ(findStatusFromClientMsg(nullptr), -1);

    qvApplication->QVSys.closeCtrlConFlag = 1;
    EXPECT_EQ(apply("qv_control_req:action=modify;AgentTraceLevel=1"), 0);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 3);
}

TEST_F(KeywordsTest, AtMost1024Fields) {
    std::string head = "qv_control_req:action=modify";
    std::string fill;
    for (int i = 0; i < 1022; i++) fill += ";appID=1";
    // Field 1024 is still applied.
    EXPECT_EQ(apply(head + fill + ";AgentTraceLevel=4"), 1023);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
    // Field 1025 is not.
    EXPECT_EQ(apply(head + fill + ";appID=1;AgentTraceLevel=1"), 1023);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
    EXPECT_TRUE(logged("Control message has more than 1024 fields; the rest is ignored."));
}

TEST_F(KeywordsTest, FieldWidthsAndConversions) {
    QVSys_t& s = qvApplication->QVSys;
    apply(
        "qv_control_req:action=modify;fileBasedKeywordMode=1;BCITraceMaxSize=21474836480;"
        "captureMethodForAllFP=65539;autoDeInstrPct=12.5;autoInstrPct=abc;maxCharInSeqBlob=5000;"
        "interfaceTraceLevel=2;tierID=7;TimeStampDiff=-5;InstrTraceLevel=3x;autoInstrSampleInterval=9");
    EXPECT_EQ(qvApplication->QVBCISetting.fileBasedKeywordMode, '1');
    EXPECT_EQ(s.traceMaxSize, 21474836480LL);
    EXPECT_EQ(s.captureMethodForAllFP, 3);  // low two bytes of 65539
    EXPECT_EQ(s.maxHttpBodySize, 1024);     // the neighbour is untouched
    EXPECT_DOUBLE_EQ(QVAutoInstrumentation.autoUnInstrPct, 12.5);
    EXPECT_DOUBLE_EQ(QVAutoInstrumentation.autoInstrPct, 0.0);
    EXPECT_EQ(QVFlowpathGenerator.maxCharactersInSeqBlob, 5000);
    EXPECT_EQ(QVInterfaceProcessor.interfaceTraceLevel, 2);
    EXPECT_EQ(qvApplication->QVBCISetting.tierID, 7);
    EXPECT_EQ(qvApplication->Server.diffTimeFromQVC, -5);
    EXPECT_EQ(qvApplication->Server.setInstrumentTraceLevel, '3');
    EXPECT_EQ(QVAutoInstrumentation.autoInstrSampleThreshold, 9);

    // A text longer than its field is cut and stays terminated; the next field is untouched.
    apply("qv_control_req:action=modify;status=" + std::string(100, 'r'));
    EXPECT_EQ(strlen(qvApplication->Server.statusValue), 63u);
    EXPECT_STREQ(qvApplication->Server.fpgVID, "1.0");
    apply("qv_control_req:action=modify;fpVersionID=2.1");
    EXPECT_STREQ(qvApplication->Server.fpgVID, "2.1");
}

TEST(KeywordFill, CharDataNeverReadsPastValue) {
    // An exact-size heap value: reading beyond it would be caught by the address sanitizer.
    std::unique_ptr<char[]> value(new char[3]{'a', 'b', '\0'});
    char target[16];
    memset(target, 'x', sizeof(target));
    fill_char_data(target, value.get(), 10);
    EXPECT_STREQ(target, "ab");
    for (int i = 2; i < 10; i++) EXPECT_EQ(target[i], '\0');
    EXPECT_EQ(target[10], 'x');
    fill_char_data(target, value.get(), 1);
    EXPECT_EQ(target[0], 'a');
    fill_char_data(nullptr, value.get(), 4);
    fill_int_data(target, nullptr, 4);
    int n = 0;
    char big[] = "99999999999999";
    fill_int_data(reinterpret_cast<char*>(&n), big, 4);
    EXPECT_EQ(n, 2147483647);
}

TEST_F(KeywordsTest, CoreParsersStoreTheirSettings) {
    Server_t& srv = qvApplication->Server;
    apply(
        "qv_control_req:action=modify;testIdx=12;korEpochDiff=1000;ASReportInterval=30;qvMonitorInterval=0;"
        "correlationIDHeader=X-Corr;captureHTTPRespFullFp=2%20abc;BTRuleConfig=/tmp/rules;tierName=T;"
        "qvAppServerHost=S;appName=A;enableDDAI=1;WBCookie=wb;lmWDir=/w;enableCpuTime=2;"
        "enableExceptionInSeqBlob=1;instrExceptions=1%20x;hdrListForValueAsId=h1");
    EXPECT_EQ(srv.TestRunIDValue, 12);
    EXPECT_EQ(qvApplication->testIdx, 12);
    EXPECT_EQ(srv.korEpochDiffTime, 1000);
    EXPECT_EQ(srv.isKorEpochDiffSet, 1);
    EXPECT_EQ(QVASSettings.ASReportInterval, 30);
    EXPECT_EQ(QVSettings.qvMonitorIntervalInSecs, 60);  // 0 would divide the monitor rates by zero
    EXPECT_STREQ(qvApplication->QVSys.correlationIdHeader, "X-Corr");
    EXPECT_EQ(qvApplication->QVSys.captureCorrelationEnabled, 1);
    EXPECT_EQ(QVHttpRespCaptureSettings.captureMode, 2);
    EXPECT_STREQ(QVHttpRespCaptureSettings.captureSettings, "2%20abc");
    EXPECT_EQ(QVHttpReqCaptureSettings.captureMode, 0);
    EXPECT_STREQ(qvlb_get_file_based_keyword(0), "/tmp/rules");
    EXPECT_TRUE(logged("File-based keyword 'BTRuleConfig' is not supported; file name '/tmp/rules' stored."));
    EXPECT_STREQ(getTierName(), "T");
    EXPECT_STREQ(getAppServerName(), "S");
    EXPECT_STREQ(getAppName(), "A");
    EXPECT_EQ(QVDynamicSettings.enableDDAI, 1);
    EXPECT_STREQ(qvApplication->QVSys.WBCookieName, "wb");
    EXPECT_STREQ(QVSettings.lmWDir, "/w");
    EXPECT_EQ(qvApplication->QVSys.enableCpuTime, 2);
    EXPECT_EQ(qvApplication->QVSys.enableExceptionInSeqBlob, 1);
    EXPECT_EQ(QVExceptionCaptureSettings.instrExceptionsMode, 1);
    EXPECT_STREQ(QVHttpReqCaptureSettings.hdrListForValueAsId, "h1");

    apply("qv_control_req:action=modify;correlationIDHeader=NA");
    EXPECT_EQ(qvApplication->QVSys.captureCorrelationEnabled, 0);
    EXPECT_STREQ(qvApplication->QVSys.correlationIdHeader, "");
}

TEST_F(KeywordsTest, LaterLayerParsers) {
    apply("qv_control_req:action=modify;maxBTCount=5");
    EXPECT_TRUE(logged("Keyword 'maxBTCount' is not handled yet; value '5' ignored"));

    EXPECT_EQ(qvlb_set_keyword_parser("maxBTCount", countingParser), 0);
    EXPECT_EQ(qvlb_set_keyword_parser("noSuchKeyword", countingParser), -1);
    EXPECT_EQ(qvlb_set_keyword_parser("maxBTCount", nullptr), -1);
    apply("qv_control_req:action=modify;maxBTCount=7");
    EXPECT_EQ(parserCalls, 1);
    EXPECT_EQ(parserValue, "7");
    EXPECT_EQ(parserIndex, 35);
    qvlb_set_keyword_parser("maxBTCount", qvlb_keyword_not_handled);
}

TEST_F(KeywordsTest, InitAllKeywordsDefaultsAndHooks) {
    QVSys_t& s = qvApplication->QVSys;
    Server_t& srv = qvApplication->Server;
    s.enableForcedFlowpathChainMode = 0;
    s.enableCpuTime = 2;
    s.retryFlag = 1;
    s.closeCtrlConFlag = 1;
    s.dataConnState = 0;
    srv.korEpochDiffTime = 5;
    srv.originalKorEpochDiffTime = 5;
    srv.testRunRunning = 1;
    srv.isTenRecordDump = 1;
    strcpy(srv.fpgVID, "9.9");
    strcpy(srv.startInstrRespBuffer, "x");
    QVSettings.qvVectorSeperator = '|';
    QVInterfaceProcessor.enableInterfaceTargeting = 1;
    char rules[] = "/tmp/r";
    setFileBasedKeywd(rules, nullptr, 0);

    hookCalls = 0;
    EXPECT_EQ(qvlb_add_keyword_init_hook(countingHook), 0);
    EXPECT_EQ(qvlb_add_keyword_init_hook(countingHook), 0);  // added once
    EXPECT_EQ(qvlb_add_keyword_init_hook(nullptr), -1);
    qvlb_init_all_keywords();
    EXPECT_EQ(hookCalls, 1);
    EXPECT_EQ(s.enableForcedFlowpathChainMode, 1);
    EXPECT_EQ(s.enableCpuTime, 0);
    EXPECT_EQ(s.retryFlag, 0);
    EXPECT_EQ(s.closeCtrlConFlag, 0);
    EXPECT_EQ(s.dataConnState, 1);
    EXPECT_EQ(srv.korEpochDiffTime, 0);
    EXPECT_EQ(srv.originalKorEpochDiffTime, 1388534400000LL);
    EXPECT_EQ(srv.testRunRunning, 0);
    EXPECT_EQ(srv.isTenRecordDump, 0);
    EXPECT_STREQ(srv.fpgVID, "1.0");
    EXPECT_STREQ(srv.startInstrRespBuffer, "");
    EXPECT_EQ(QVSettings.qvVectorSeperator, '>');
    EXPECT_EQ(QVInterfaceProcessor.enableInterfaceTargeting, 0);
    EXPECT_EQ(qvlb_get_file_based_keyword(0), nullptr);

    srv.isClusterMode = 1;
    srv.requestType = 3;
    strcpy(srv.connDestination, "h:1");
    initKeywordQVCStaticScaling();
    EXPECT_EQ(srv.isClusterMode, 0);
    EXPECT_EQ(srv.requestType, 1);
    EXPECT_EQ(srv.lastConnectionTime, -1);
    EXPECT_STREQ(srv.connDestination, "");
}

namespace {
struct LoggerArgs {
    int stop;
    int records;
};

void* APR_THREAD_FUNC logLoop(apr_thread_t*, void* data) {
    auto* args = static_cast<LoggerArgs*>(data);
    while (qv_load(args->stop) == 0) {
        QV_TRACE_IF(qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Info", "record %d", args->records);
        args->records++;
    }
    return nullptr;
}
}  // namespace

// Keywords change the trace levels, the rollover size and the build string while another thread
// logs through them.
TEST(KeywordsConcurrency, SettingsChangeWhileAnotherThreadLogs) {
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    qvApplication->QVSys.controlTraceLevel = 1;
    LoggerArgs args{0, 0};
    apr_thread_t* th = nullptr;
    char err[256];
    ASSERT_EQ(qvlb_thread_create(&th, logLoop, &args, nullptr, err, sizeof(err)), APR_SUCCESS);
    for (int i = 0; i < 200; i++) {
        std::string msg = "qv_control_req:action=modify;BCITraceMaxSize=" + std::to_string(4096 + i) +
                          ";AgentTraceLevel=" + std::to_string(i % 3) +
                          ";ControlThreadTraceLevel=" + std::to_string(1 + i % 2);
        findStatusFromClientMsg(msg.data());
        home.write("etc/version", "build " + std::to_string(i) + "\n");
        setQvBuild(&qvApplication->QVSys.qvBuild);
    }
    qv_store(args.stop, 1);
    apr_status_t st;
    apr_thread_join(&st, th);
    EXPECT_GT(args.records, 0);
    EXPECT_EQ(qvApplication->QVSys.traceMaxSize, 4096 + 199);
    qv_agent_reset_for_test();
}
