// Settings records: number parsing, bounded and shared texts, the connection settings' init and BT
// error table, and a reader racing a writer.
#include <atomic>
#include <climits>
#include <cstring>
#include <thread>

#include "core_fixture.h"

TEST(QVSettingRecords, ParseSaturatesAndStoreTextBounds) {
    EXPECT_EQ(qvParseInt("42"), 42);
    EXPECT_EQ(qvParseInt("-7x"), -7);
    EXPECT_EQ(qvParseInt("abc"), 0);
    EXPECT_EQ(qvParseInt(nullptr), 0);
    // Saturation of ints and long longs read from text is checked through the settings file and
    // the keyword table; beyond long long:
    EXPECT_EQ(qvParseLongLong("999999999999999999999999"), LLONG_MAX);

    char buf[8];
    memset(buf, 'x', sizeof(buf));
    qvStoreText(buf, sizeof(buf), "abcdefghijkl");
    EXPECT_STREQ(buf, "abcdefg");
    qvStoreText(buf, sizeof(buf), "ab");
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(buf[7], '\0');
    qvStoreText(buf, sizeof(buf), nullptr);
    EXPECT_STREQ(buf, "");

    char* slot = nullptr;
    EXPECT_STREQ(qvSetSharedStr(&slot, "a", "t"), "a");
    EXPECT_EQ(qvSetSharedStr(&slot, nullptr, "t"), nullptr);
    EXPECT_EQ(qvSetSharedStr(nullptr, "x", "t"), nullptr);
    QVSettings.qvMonitorIntervalInSecs = 5;
    qvSettingRecordsReset();
    EXPECT_EQ(QVSettings.qvMonitorIntervalInSecs, 60);
    initQVHttpReqRespCaptureSettings(nullptr);
}

class QVBCISettings : public AgentHomeTest {};

// Init clears what the settings file gave; shared texts are copied, and a replaced text is retired,
// not freed.
TEST_F(QVBCISettings, InitErrorTableAndSharedTexts) {
    agent_init("pool", 0, "proc", nullptr);
    QVBCISettingInit();
    const QVBCISetting_t& b = qvApplication->QVBCISetting;
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

class SharedSettingsConcurrency : public AgentHomeTest {};

TEST_F(SharedSettingsConcurrency, ReaderSeesWholeTextsWhileSetterReplacesThem) {
    agent_init("pool", 0, "proc", nullptr);
    std::atomic<bool> stop{false};
    size_t bytes = 0;
    std::thread reader([&] {
        // Touch every byte: a freed text would be caught by the sanitizers.
        while (!stop)
            if (const char* t = getTierName()) bytes += strlen(t);
    });
    for (int i = 0; i < 2000; i++) {
        std::string name = "tier-" + std::to_string(i);
        setTierName(name.data());
    }
    stop = true;
    reader.join();
    EXPECT_STREQ(getTierName(), "tier-1999");
}
