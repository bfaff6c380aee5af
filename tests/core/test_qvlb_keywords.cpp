// The collector keyword table: its rows, the fill functions and the application of start and
// modify messages.
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "core/qvlb_keywords.h"
#include "core_fixture.h"
#include "foundation/qvlb_mt_log.h"

namespace {

class KeywordsTest : public AgentHomeTest {
  protected:
    void SetUp() override { start(0); }
    int apply(const std::string& msg) {
        std::string copy = msg;
        return findStatusFromClientMsg(copy.data());
    }
};

class KeywordsConcurrency : public KeywordsTest {};

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

TEST(KeywordTable, EveryRowHasOneHandlerAndAUniqueName) {
    for (const keywordsInfo& row : keywordsMap) {
        // A parser, or a setter with the field it fills.
        EXPECT_TRUE((row.parser != nullptr) != (row.setter != nullptr)) << row.name;
        EXPECT_EQ(row.offset >= 0, row.setter != nullptr) << row.name;
        EXPECT_EQ(NameToIndex(row.name), &row - keywordsMap) << "duplicate or empty name " << row.name;
    }
    EXPECT_EQ(NameToIndex("agenttracelevel") + NameToIndex(nullptr), -2);
}

TEST_F(KeywordsTest, MessageRulesFieldsGatesAndLimits) {
    // A field without '=' or an empty keyword ends the parse; unknown keywords are skipped.
    EXPECT_EQ(apply("qv_control_req:action=modify;AgentTraceLevel=4;bogus;enableFPTrace=2"), 1);
    EXPECT_EQ(qvApplication->QVSys.fpTraceLevel, 0);
    EXPECT_EQ(apply("qv_control_req:action=modify;nope=1;enableFPTrace=2;=5;AgentTraceLevel=1"), 1);
    EXPECT_EQ(qvApplication->QVSys.fpTraceLevel, 2);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);

    // A keyword too long for the buffer is unknown, not cut to a known name.
    EXPECT_EQ(apply("qv_control_req:action=modify;" + std::string(300, 'k') + "=1;enableFPTrace=3"), 1);
    EXPECT_EQ(qvApplication->QVSys.fpTraceLevel, 3);

    // Start is applied only while the control connection is not busy; modify always.
    Server_t& srv = qvApplication->Server;
    srv.controlCommunicationBusyFlag = 1;
    EXPECT_EQ(apply("qv_control_req:action=start_instrumentation;AgentTraceLevel=3"), -1);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
    EXPECT_EQ(apply("qv_control_req:action=modify;AgentTraceLevel=2"), 1);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 2);
    srv.controlCommunicationBusyFlag = 0;
    EXPECT_EQ(apply("qv_control_req:action=start_instrumentation;AgentTraceLevel=3"), 1);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 3);
    EXPECT_EQ(apply("qv_control_req:action=stop_instrumentation;AgentTraceLevel=1"), -1);
    EXPECT_EQ(findStatusFromClientMsg(nullptr), -1);

    qvApplication->QVSys.closeCtrlConFlag = 1;
    EXPECT_EQ(apply("qv_control_req:action=modify;AgentTraceLevel=1"), 0);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 3);
    qvApplication->QVSys.closeCtrlConFlag = 0;

    const std::string head = "qv_control_req:action=modify";
    std::string fill;
    for (int i = 0; i < 1022; i++) fill += ";appID=1";
    // Field 1024 is still applied.
    EXPECT_EQ(apply(head + fill + ";AgentTraceLevel=4"), 1023);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
    // Field 1025 is not.
    EXPECT_EQ(apply(head + fill + ";appID=1;AgentTraceLevel=1"), 1023);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 4);
}

TEST_F(KeywordsTest, FieldWidthsAndConversions) {
    QVSys_t& s = qvApplication->QVSys;
    apply(
        "qv_control_req:action=modify;fileBasedKeywordMode=1;BCITraceMaxSize=21474836480;"
        "captureMethodForAllFP=65539;autoDeInstrPct=12.5;autoInstrPct=abc;maxCharInSeqBlob=5000;"
        "interfaceTraceLevel=2;tierID=7;TimeStampDiff=-5;InstrTraceLevel=3x;autoInstrSampleInterval=9");
    EXPECT_EQ(
        std::tie(qvApplication->QVBCISetting.fileBasedKeywordMode, s.traceMaxSize, s.captureMethodForAllFP,
                 s.maxHttpBodySize),
        std::make_tuple('1', 21474836480LL, 3, 1024));  // low two bytes of 65539; the neighbour untouched
    EXPECT_DOUBLE_EQ(QVAutoInstrumentation.autoUnInstrPct, 12.5);
    EXPECT_DOUBLE_EQ(QVAutoInstrumentation.autoInstrPct, 0.0);
    EXPECT_EQ(std::tie(QVFlowpathGenerator.maxCharactersInSeqBlob, QVInterfaceProcessor.interfaceTraceLevel,
                       qvApplication->QVBCISetting.tierID, qvApplication->Server.diffTimeFromQVC,
                       qvApplication->Server.setInstrumentTraceLevel,
                       QVAutoInstrumentation.autoInstrSampleThreshold),
              std::make_tuple(5000, 2, 7, -5, '3', 9));

    // A text longer than its field is cut and stays terminated; the next field is untouched.
    apply("qv_control_req:action=modify;status=" + std::string(100, 'r'));
    EXPECT_EQ(strlen(qvApplication->Server.statusValue), 63u);
    EXPECT_STREQ(qvApplication->Server.fpgVID, "1.0");
}

TEST(KeywordFill, CharDataNeverReadsPastValue) {
    // An exact-size heap value: reading beyond it would be caught by the address sanitizer.
    std::unique_ptr<char[]> value(new char[3]{'a', 'b', '\0'});
    char target[16];
    memset(target, 'x', sizeof(target));
    fill_char_data(target, value.get(), 10);
    EXPECT_EQ(std::string(target, 11), std::string("ab\0\0\0\0\0\0\0\0x", 11));
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
        "qvAppServerHost=S;appName=A;enableDDAI=1;enableCpuTime=2;"
        "enableExceptionInSeqBlob=1;instrExceptions=1%20x;instrProfile=a.txt,b.txt;AgentTraceLevel=3");
    QVSys_t& sys = qvApplication->QVSys;
    // A monitor interval of 0 would divide the monitor rates by zero: it is not taken.
    EXPECT_EQ(
        std::tie(srv.TestRunIDValue, qvApplication->testIdx, srv.korEpochDiffTime, srv.isKorEpochDiffSet,
                 QVASSettings.ASReportInterval, QVSettings.qvMonitorIntervalInSecs),
        std::make_tuple(12, 12, 1000, 1, 30, 60));
    EXPECT_EQ(std::tie(sys.captureCorrelationEnabled, QVHttpRespCaptureSettings.captureMode,
                       QVHttpReqCaptureSettings.captureMode, QVDynamicSettings.enableDDAI, sys.enableCpuTime,
                       sys.enableExceptionInSeqBlob, QVExceptionCaptureSettings.instrExceptionsMode),
              std::make_tuple(1, 2, 0, 1, 2, 1, 1));
    EXPECT_STREQ(sys.correlationIdHeader, "X-Corr");
    EXPECT_STREQ(QVHttpRespCaptureSettings.captureSettings, "2%20abc");
    EXPECT_STREQ(qvlb_get_file_based_keyword(0), "/tmp/rules");
    EXPECT_EQ(std::string(getTierName()) + getAppServerName() + getAppName(), "TSA");
    EXPECT_STREQ(QVInstrProfKeywords.instrProfile, "a.txt,b.txt");
    EXPECT_EQ(getTraceLevel(), 3);
    for (const char* none : {"", "-", "NA"}) EXPECT_TRUE(qvlb_no_instr_profile(none));
    EXPECT_FALSE(qvlb_no_instr_profile("a.txt"));

    apply("qv_control_req:action=modify;correlationIDHeader=NA");
    EXPECT_EQ(qvApplication->QVSys.captureCorrelationEnabled, 0);
    EXPECT_STREQ(qvApplication->QVSys.correlationIdHeader, "");
}

TEST_F(KeywordsTest, LaterLayerParsers) {
    apply("qv_control_req:action=modify;maxBTCount=5");
    EXPECT_TRUE(logged("Keyword 'maxBTCount' is not handled yet; value '5' ignored"));

    EXPECT_EQ(qvlb_set_keyword_parser("noSuchKeyword", countingParser) +
                  qvlb_set_keyword_parser("maxBTCount", nullptr),
              -2);
    EXPECT_EQ(qvlb_set_keyword_parser("maxBTCount", countingParser), 0);
    apply("qv_control_req:action=modify;maxBTCount=7");
    EXPECT_EQ(std::tie(parserCalls, parserValue, parserIndex),
              std::make_tuple(1, "7", NameToIndex("maxBTCount")));
    qvlb_set_keyword_parser("maxBTCount", qvlb_keyword_not_handled);
}

TEST_F(KeywordsTest, InitAllKeywordsDefaultsAndHooks) {
    QVSys_t& s = qvApplication->QVSys;
    Server_t& srv = qvApplication->Server;
    auto changed = std::tie(s.enableForcedFlowpathChainMode, s.enableCpuTime, s.retryFlag, s.closeCtrlConFlag,
                            s.dataConnState, srv.korEpochDiffTime, srv.originalKorEpochDiffTime,
                            srv.testRunRunning, srv.isTenRecordDump, QVSettings.qvVectorSeperator,
                            QVInterfaceProcessor.enableInterfaceTargeting);
    changed = std::make_tuple(0, 2, 1, 1, 0, 5, 5, 1, 1, '|', 1);
    strcpy(srv.fpgVID, "9.9");
    strcpy(srv.startInstrRespBuffer, "x");
    char rules[] = "/tmp/r";
    setFileBasedKeywd(rules, nullptr, 0);
    setInstProfile(rules, nullptr, NameToIndex("instrProfile"));

    hookCalls = 0;
    EXPECT_EQ(qvlb_add_keyword_init_hook(countingHook), 0);
    EXPECT_EQ(qvlb_add_keyword_init_hook(countingHook), 0);  // added once
    EXPECT_EQ(qvlb_add_keyword_init_hook(nullptr), -1);
    qvlb_init_all_keywords();
    EXPECT_EQ(hookCalls, 1);
    EXPECT_EQ(changed, std::make_tuple(1, 0, 0, 0, 1, 0, 1388534400000LL, 0, 0, '>', 0));
    EXPECT_STREQ(srv.fpgVID, "1.0");
    EXPECT_STREQ(srv.startInstrRespBuffer, "");
    EXPECT_EQ(qvlb_get_file_based_keyword(0), nullptr);
    EXPECT_EQ(QVInstrProfKeywords.instrProfile, nullptr);

    std::tie(srv.isClusterMode, srv.requestType) = std::make_tuple(1, 3);
    strcpy(srv.connDestination, "h:1");
    initKeywordQVCStaticScaling();
    EXPECT_EQ(std::tie(srv.isClusterMode, srv.requestType, srv.lastConnectionTime),
              std::make_tuple(0, 1, -1));
    EXPECT_STREQ(srv.connDestination, "");
}

// Keywords change the trace levels, the rollover size and the build string while another thread
// logs through them.
TEST_F(KeywordsConcurrency, SettingsChangeWhileAnotherThreadLogs) {
    std::atomic<bool> stop{false};
    int records = 0;
    std::thread logger([&] {
        for (; !stop; ++records)
            QV_TRACE_IF(qvlb_control_trace_level() > 0, "CONTROL_THREAD", "Info", "record %d", records);
    });
    for (int i = 0; i < 200; i++) {
        std::string msg = "qv_control_req:action=modify;BCITraceMaxSize=" + std::to_string(4096 + i) +
                          ";AgentTraceLevel=" + std::to_string(i % 3) +
                          ";ControlThreadTraceLevel=" + std::to_string(1 + i % 2);
        findStatusFromClientMsg(msg.data());
        home_.write("etc/version", "build " + std::to_string(i) + "\n");
        setQvBuild(&qvApplication->QVSys.qvBuild);
    }
    stop = true;
    logger.join();
    EXPECT_GT(records, 0);
    EXPECT_EQ(qvApplication->QVSys.traceMaxSize, 4096 + 199);
}
