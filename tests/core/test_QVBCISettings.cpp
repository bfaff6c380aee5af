// Connection settings: defaults, the BT error table and the text setters.
#include <gtest/gtest.h>

#include <cstring>

#include "core/QVBCISettings.h"
#include "core/qv_agent.h"
#include "support/temp_home.h"

namespace {

class QVBCISettingsTest : public ::testing::Test {
  protected:
    void SetUp() override { agent_init("pool", 0, "proc", nullptr); }
    void TearDown() override { qv_agent_reset_for_test(); }
    TempAgentHome home_;
};

}  // namespace

TEST_F(QVBCISettingsTest, DefaultsAndErrorTable) {
    QVBCISettingInit();
    const QVBCISetting_t& b = qvApplication->QVBCISetting;
    EXPECT_EQ(b.qvcPort, 7892);
    EXPECT_EQ(b.bciPort, 7990);
    EXPECT_EQ(b.bciStartupDelay, 120000);
    EXPECT_EQ(b.sleepInterval, 60000);
    EXPECT_EQ(b.autoScalingMode, 2);
    EXPECT_EQ(b.removeSafetyNetMode, 2);
    EXPECT_EQ(b.enableJsrInlinerForAll, 1);
    EXPECT_STREQ(b.serverIp, "127.0.0.1");
    EXPECT_EQ(b.qvcHost, nullptr);
    EXPECT_EQ(b.tierName, nullptr);
    EXPECT_EQ(b.btErrorArray[0], 'T');
    EXPECT_EQ(b.btErrorArray[200], 'T');
    EXPECT_EQ(b.btErrorArray[399], 'T');
    EXPECT_EQ(b.btErrorArray[400], 'F');
    EXPECT_EQ(b.btErrorArray[503], 'F');
    EXPECT_EQ(b.btErrorArray[599], 'F');
}

TEST_F(QVBCISettingsTest, SettersCopyAndKeepOldTextReadable) {
    char tier[] = "first";
    setTierName(tier);
    const char* old = getTierName();
    strcpy(tier, "xxxxx");  // the setting owns its copy
    EXPECT_STREQ(getTierName(), "first");

    char second[] = "second";
    setTierName(second);
    EXPECT_STREQ(getTierName(), "second");
    EXPECT_STREQ(old, "first");  // a reader holding the old text can still use it

    const char* same = getTierName();
    setTierName(second);  // equal text keeps the copy
    EXPECT_EQ(getTierName(), same);

    EXPECT_EQ(setTierName(nullptr), -1);
    EXPECT_STREQ(getTierName(), "second");

    setQVCHost("collector");
    setQVCPort(9000);
    setTierID(3);
    setServerID(4);
    setAppID(5);
    setAutoScalingMode(1);
    setAgentType("PHP");
    const QVBCISetting_t& b = qvApplication->QVBCISetting;
    EXPECT_STREQ(b.qvcHost, "collector");
    EXPECT_EQ(b.qvcPort, 9000);
    EXPECT_EQ(b.tierID, 3);
    EXPECT_EQ(b.serverID, 4);
    EXPECT_EQ(b.appID, 5);
    EXPECT_EQ(b.autoScalingMode, 1);
    EXPECT_STREQ(b.agentType, "PHP");
}
