// System settings: defaults of QVSysInit, the agent home, the build string rules and the
// single-setting accessors.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>

#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_mem.h"
#include "support/temp_home.h"

namespace {

class QVSysTest : public ::testing::Test {
  protected:
    void TearDown() override { qv_agent_reset_for_test(); }
};

// An instance record without start-up, for the functions that only need qvApplication.
void bareInstance() {
    qvApplication =
        static_cast<QVProxyInstance_t*>(qvlb_calloc(sizeof(QVProxyInstance_t), "test instance", -1));
    QVProxyInstance = qvApplication;
}

}  // namespace

TEST_F(QVSysTest, DefaultsOfStartUp) {
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    ASSERT_NE(qvApplication, nullptr);
    const QVSys_t& s = qvApplication->QVSys;
    EXPECT_STREQ(s.qvHomePath, home.path().c_str());
    EXPECT_STREQ(s.qvBuild, "5.1.0 build 42 ");
    EXPECT_EQ(s.flowPathInstanceInitialID, 0x4000000000000000LL);
    EXPECT_EQ(s.timeStampMask, 0x3fffffffffLL);
    EXPECT_EQ(s.seqNumMask, 255);
    EXPECT_EQ(s.traceMaxSize, 0xa00000);
    EXPECT_EQ(s.qvcHeartBeatThreshold, 900000);
    EXPECT_EQ(s.enableForcedFlowpathChainMode, 1);
    EXPECT_EQ(s.bciDataBufferMaxSize, 102400);
    EXPECT_EQ(s.enableBCIErrorStackDepth, 9999);
    EXPECT_EQ(s.maxHttpBodySize, 1024);
    EXPECT_EQ(s.btRuleOverriedPolicy, 1);
    EXPECT_EQ(s.hashMapClearTime, 30);
    EXPECT_STREQ(s.xSessionCookieName, "X-KorWB");
    EXPECT_STREQ(s.qvSessionCookieName, "KorWB");
    EXPECT_STREQ(s.proxyIP, "127.0.0.1");
    EXPECT_EQ(s.proxyPort, 7892);
    EXPECT_EQ(s.dataConnState, 1);
    EXPECT_EQ(s.autosensorConnState, 1);
    EXPECT_EQ(s.controlTraceLevel, 0);
    EXPECT_GT(s.bciStartUpTime, 1600000000000LL);  // milliseconds, not seconds or microseconds
    EXPECT_LT(s.bciStartUpTime, 4000000000000LL);
    EXPECT_EQ(getBCIStartUpTime(), s.bciStartUpTime);

    // Records initialised on the way.
    EXPECT_EQ(QVASSettings.ASReportInterval, 60);
    EXPECT_EQ(QVFlowpathGenerator.maxCharactersInSeqBlob, 13312);
    EXPECT_EQ(QVSettings.qvMonitorIntervalInSecs, 60);
    EXPECT_EQ(QVSettings.qvVectorSeperator, '>');
    EXPECT_EQ(QVAgentSetting.proxyPort, 7892);
    EXPECT_STREQ(QVAgentSetting.proxyhost, "127.0.0.1");
    EXPECT_EQ(qvApplication->Server.requestType, 1);
    EXPECT_EQ(qvApplication->Server.lastConnectionTime, -1);
    EXPECT_EQ(qvApplication->Server.originalKorEpochDiffTime, 1388534400000LL);
    EXPECT_STREQ(qvApplication->Server.fpgVID, "1.0");
}

TEST_F(QVSysTest, HomeUnsetGivesDefaultAndDoubledSlashIsAccepted) {
    {
        TempAgentHome home;  // restores the environment when it goes away
        unsetenv("QVHOME");
        bareInstance();
        setQVHome();
        EXPECT_STREQ(getQVHome(), "/opt/korlund/quovix/");
        setenv("QVHOME", "", 1);
        setQVHome();
        EXPECT_STREQ(getQVHome(), "/opt/korlund/quovix/");
    }
    qv_agent_reset_for_test();

    // The home keeps its trailing slash, so the version path has "//etc/version"; it is read.
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    qvApplication->QVSys.controlTraceLevel = 1;
    setQvBuild(&qvApplication->QVSys.qvBuild);
    EXPECT_STREQ(getQvBuild(), "5.1.0 build 42 ");
    EXPECT_NE(home.traceLogs().find("QV version file path '" + home.path() + "/etc/version'."),
              std::string::npos);
}

TEST_F(QVSysTest, BuildStringLineRules) {
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    qvApplication->QVSys.controlTraceLevel = 1;
    char* build = nullptr;

    home.write("etc/version", "# comment\n indented\n\ttabbed\n\nA1\r\nB2\nC3");
    setQvBuild(&build);
    EXPECT_STREQ(build, "A1 B2 C3");

    // At most 1023 bytes of a line count; the rest of a long line is not a line of its own.
    home.write("etc/version", std::string(1500, 'X') + "#tail\nY\n");
    setQvBuild(&build);
    EXPECT_EQ(std::string(build), std::string(1023, 'X') + " Y ");

    // A long comment line stays a comment to its end.
    home.write("etc/version", "#" + std::string(2000, 'c') + "\nZ\n");
    setQvBuild(&build);
    EXPECT_STREQ(build, "Z ");

    // Missing file: logged, build unchanged.
    home.remove("etc/version");
    setQvBuild(&build);
    EXPECT_STREQ(build, "Z ");
    EXPECT_NE(home.traceLogs().find("Could not open file '" + home.path() + "/etc/version' in read mode."),
              std::string::npos);

    setQvBuild(nullptr);  // survives
    qvSetSharedStr(&build, nullptr, "test build");
}

TEST_F(QVSysTest, ASSettingInitResetsWhatWasSet) {
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    QVASSettings.ASReportInterval = 5;
    QVASSettings.ASSampleInterval = 7;
    QVASSettings.collectASData = 1;
    QVASSettingInit();
    EXPECT_EQ(QVASSettings.ASReportInterval, 60);
    EXPECT_EQ(QVASSettings.ASSampleInterval, 1000);
    EXPECT_EQ(QVASSettings.collectASData, 0);

    // QVSysInit puts every default back, the thread-hotspot ones included.
    qvApplication->QVSys.traceMaxSize = 5;
    QVASSettings.ASReportInterval = 5;
    QVSysInit();
    EXPECT_EQ(qvApplication->QVSys.traceMaxSize, 0xa00000);
    EXPECT_EQ(QVASSettings.ASReportInterval, 60);
}

TEST_F(QVSysTest, AccessorsAndParsers) {
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    QVSys_t& s = qvApplication->QVSys;

    char v1[] = "1%201";
    EXPECT_EQ(parseEnableCPUTime(v1, nullptr, 23), 0);
    EXPECT_EQ(s.enableCpuTime, 1);
    EXPECT_EQ(s.captureChildFPCPUTime, 1);
    EXPECT_EQ(isCpuAtFlowpathLevel(), 1);
    char v2[] = "7";
    EXPECT_EQ(parseEnableCPUTime(v2, nullptr, 23), -1);
    EXPECT_EQ(s.enableCpuTime, 1);
    char v3[] = "0";
    parseEnableCPUTime(v3, nullptr, 23);
    EXPECT_EQ(isCpuAtFlowpathLevel(), 0);
    EXPECT_EQ(parseEnableCPUTime(nullptr, nullptr, 23), -1);

    char v4[] = "0";
    parseForcedFPChainMode(v4, nullptr, 21);
    EXPECT_EQ(s.enableForcedFlowpathChainMode, 0);

    s.completeFPCounts = 3;
    s.forcedFPCounts = 4;
    resetAllFPCounters();
    EXPECT_EQ(s.completeFPCounts, 0);
    EXPECT_EQ(s.forcedFPCounts, 0);

    EXPECT_EQ(getEnableTxHotspot(), 1);
    EXPECT_EQ(getHelperDepth(), 2);
    EXPECT_EQ(getHotspotThreadLimit(), 0);
    EXPECT_STREQ(getCorrelationIdHeader(), "");

    char tier[] = "T";
    char app[] = "A";
    setTierName(tier);
    setAppName(app);
    EXPECT_STREQ(getTopoFpStr(), "T>>A");
}

TEST_F(QVSysTest, NoInstanceIsHarmless) {
    ASSERT_EQ(qvApplication, nullptr);
    QVSysInit();
    setBCIStartUpTime();
    setQVHome();
    char* b = nullptr;
    setQvBuild(&b);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(getQVHome(), nullptr);
    EXPECT_EQ(getQvBuild(), nullptr);
    EXPECT_EQ(getCorrelationIdHeader(), nullptr);
    EXPECT_EQ(isCpuAtFlowpathLevel(), 0);
    resetAllFPCounters();
    EXPECT_STREQ(getTopoFpStr(), ">>");
}
