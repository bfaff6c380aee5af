// Shared-text helpers and number parsing of the settings records, and a reader racing a writer.
#include <gtest/gtest.h>

#include <apr_thread_proc.h>

#include <climits>
#include <cstring>
#include <string>

#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_util.h"
#include "support/temp_home.h"

TEST(QVSettingRecords, ParseSaturatesAndStoreTextBounds) {
    EXPECT_EQ(qvParseInt("42"), 42);
    EXPECT_EQ(qvParseInt("-7x"), -7);
    EXPECT_EQ(qvParseInt("abc"), 0);
    EXPECT_EQ(qvParseInt(nullptr), 0);
    EXPECT_EQ(qvParseInt("99999999999999999999"), INT_MAX);
    EXPECT_EQ(qvParseInt("-99999999999999999999"), INT_MIN);
    EXPECT_EQ(qvParseLongLong("21474836480"), 21474836480LL);
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
}

TEST(QVSettingRecords, SharedStrReplaceClearAndReset) {
    char* slot = nullptr;
    EXPECT_STREQ(qvSetSharedStr(&slot, "a", "t"), "a");
    char* first = slot;
    qvSetSharedStr(&slot, "b", "t");
    EXPECT_STREQ(first, "a");  // retired, not freed
    EXPECT_EQ(qvSetSharedStr(&slot, nullptr, "t"), nullptr);
    EXPECT_EQ(qvSetSharedStr(nullptr, "x", "t"), nullptr);
    QVSettings.qvMonitorIntervalInSecs = 5;
    qvSettingRecordsReset();
    EXPECT_EQ(QVSettings.qvMonitorIntervalInSecs, 60);
    initQVHttpReqRespCaptureSettings(nullptr);
}

namespace {
struct ReaderArgs {
    int stop;
    long long reads;
};

void* APR_THREAD_FUNC readNames(apr_thread_t*, void* data) {
    auto* args = static_cast<ReaderArgs*>(data);
    while (qv_load(args->stop) == 0) {
        const char* t = getTierName();
        // Touch every byte: a freed text would be caught by the sanitizers.
        if (t != nullptr) args->reads += static_cast<long long>(strlen(t));
    }
    return nullptr;
}
}  // namespace

TEST(SharedSettingsConcurrency, ReaderSeesWholeTextsWhileSetterReplacesThem) {
    TempAgentHome home;
    agent_init("pool", 0, "proc", nullptr);
    ReaderArgs args{0, 0};
    apr_thread_t* th = nullptr;
    char err[256];
    ASSERT_EQ(qvlb_thread_create(&th, readNames, &args, nullptr, err, sizeof(err)), APR_SUCCESS);
    for (int i = 0; i < 2000; i++) {
        std::string name = "tier-" + std::to_string(i);
        setTierName(name.data());
    }
    qv_store(args.stop, 1);
    apr_status_t st;
    apr_thread_join(&st, th);
    EXPECT_STREQ(getTierName(), "tier-1999");
    qv_agent_reset_for_test();
}
