// Connection settings: defaults, the BT error table and the shared text setters.
#include <cstring>

#include "core_fixture.h"

class QVBCISettings : public AgentHomeTest {};

TEST_F(QVBCISettings, DefaultsErrorTableAndSharedTexts) {
    agent_init("pool", 0, "proc", nullptr);
    QVBCISettingInit();
    const QVBCISetting_t& b = qvApplication->QVBCISetting;
    EXPECT_EQ(std::make_tuple(b.qvcPort, b.bciPort, b.bciStartupDelay, b.sleepInterval, b.autoScalingMode,
                              b.removeSafetyNetMode, b.enableJsrInlinerForAll),
              std::make_tuple(7892, 7990, 120000, 60000, 2, 2, char{1}));
    EXPECT_STREQ(b.serverIp, "127.0.0.1");
    EXPECT_EQ(b.qvcHost, nullptr);
    EXPECT_EQ(b.tierName, nullptr);
    for (int status = 0; status < 600; ++status) EXPECT_EQ(b.btErrorArray[status], status < 400 ? 'T' : 'F');

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
}
