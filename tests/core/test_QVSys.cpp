// System settings: defaults of QVSysInit and their reset, the agent home, the build string rules
// and the settings parsers.
#include <stdlib.h>

#include "core_fixture.h"
#include "foundation/qvlb_mem.h"

namespace {

// Starts the agent (connect 0) in a temporary home.
class QVSysTest : public AgentHomeTest {
  protected:
    void SetUp() override {
        agent_init("pool", 0, "proc", nullptr);
        ASSERT_NE(qvApplication, nullptr);
    }
};

}  // namespace

TEST_F(QVSysTest, DefaultsOfStartUpAndTheirReset) {
    QVSys_t& s = qvApplication->QVSys;
    EXPECT_STREQ(s.qvHomePath, home_.path().c_str());
    EXPECT_STREQ(s.qvBuild, "5.1.0 build 42 ");
    EXPECT_GT(s.bciStartUpTime, 1600000000000LL);  // milliseconds, not seconds or microseconds
    EXPECT_LT(s.bciStartUpTime, 4000000000000LL);
    // QVSysInit puts every default back, the thread-hotspot ones included.
    s.traceMaxSize = 5;
    QVASSettings.ASReportInterval = 5;
    QVSysInit();
    EXPECT_EQ(s.traceMaxSize, 0xa00000);
    EXPECT_EQ(QVASSettings.ASReportInterval, 60);
}

TEST_F(QVSysTest, BuildStringLineRules) {
    qvApplication->QVSys.controlTraceLevel = 1;
    // The home keeps its trailing slash, so the version path has "//etc/version"; it is read.
    setQvBuild(&qvApplication->QVSys.qvBuild);
    EXPECT_STREQ(getQvBuild(), "5.1.0 build 42 ");

    char* build = nullptr;
    home_.write("etc/version", "# comment\n indented\n\ttabbed\n\nA1\r\nB2\nC3");
    setQvBuild(&build);
    EXPECT_STREQ(build, "A1 B2 C3");
    // At most 1023 bytes of a line count; the rest of a long line is not a line of its own.
    home_.write("etc/version", std::string(1500, 'X') + "#tail\nY\n");
    setQvBuild(&build);
    EXPECT_EQ(std::string(build), std::string(1023, 'X') + " Y ");
    // A long comment line stays a comment to its end.
    home_.write("etc/version", "#" + std::string(2000, 'c') + "\nZ\n");
    setQvBuild(&build);
    EXPECT_STREQ(build, "Z ");
    // Missing file: build unchanged.
    home_.remove("etc/version");
    setQvBuild(&build);
    EXPECT_STREQ(build, "Z ");
    setQvBuild(nullptr);  // survives
    qvSetSharedStr(&build, nullptr, "test build");
}

TEST_F(QVSysTest, ParsersAndTopologyString) {
    QVSys_t& s = qvApplication->QVSys;
    char v1[] = "1%201";
    EXPECT_EQ(parseEnableCPUTime(v1, nullptr, 23), 0);
    EXPECT_EQ(std::make_tuple(s.enableCpuTime, s.captureChildFPCPUTime, isCpuAtFlowpathLevel()),
              std::make_tuple(1, 1, 1));
    char v2[] = "7";
    EXPECT_EQ(parseEnableCPUTime(v2, nullptr, 23), -1);
    EXPECT_EQ(parseEnableCPUTime(nullptr, nullptr, 23), -1);
    EXPECT_EQ(s.enableCpuTime, 1);
    char v3[] = "0";
    parseEnableCPUTime(v3, nullptr, 23);
    EXPECT_EQ(isCpuAtFlowpathLevel(), 0);
    parseForcedFPChainMode(v3, nullptr, 21);
    EXPECT_EQ(s.enableForcedFlowpathChainMode, 0);
    char tier[] = "T";
    char app[] = "A";
    setTierName(tier);
    setAppName(app);
    EXPECT_STREQ(getTopoFpStr(), "T>>A");
}

class QVSysNoStartUp : public AgentHomeTest {};

TEST_F(QVSysNoStartUp, NoInstanceIsHarmlessAndHomeHasADefault) {
    ASSERT_EQ(qvApplication, nullptr);
    QVSysInit();
    setQVHome();
    char* b = nullptr;
    setQvBuild(&b);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(getQVHome(), nullptr);
    EXPECT_EQ(isCpuAtFlowpathLevel(), 0);
    resetAllFPCounters();
    EXPECT_STREQ(getTopoFpStr(), ">>");

    // An instance record without start-up: an unset or empty QVHOME gives the default home.
    qvApplication =
        static_cast<QVProxyInstance_t*>(qvlb_calloc(sizeof(QVProxyInstance_t), "test instance", -1));
    QVProxyInstance = qvApplication;
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        if (value == nullptr)
            unsetenv("QVHOME");
        else
            setenv("QVHOME", value, 1);
        setQVHome();
        EXPECT_STREQ(getQVHome(), "/opt/korlund/quovix/");
    }
}
