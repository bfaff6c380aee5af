// Shared by the codec tests: an agent started as the SDK starts it, without its control thread
// (no collector answers here); resetWholeAgent() undoes it.
#ifndef QV_TESTS_CODEC_FIXTURE_H
#define QV_TESTS_CODEC_FIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "codec/codec_module.h"
#include "codec/qvlb_decode.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "sdk/qv_sdk.h"
#include "support/agent_reset.h"
#include "support/loopback_peer.h"
#include "support/temp_home.h"

// A fresh agent home with logs/ (exported as QVHOME while it lives).
inline std::unique_ptr<TempAgentHome> makeHome() {
    auto home = std::make_unique<TempAgentHome>();
    std::filesystem::create_directories(home->path() + "logs");
    return home;
}

inline int occurrences(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
    return n;
}

// Starts the agent in the current home and stops its control thread again; null on failure.
inline QVProxyInstance_t* startAgent() {
    qv_init_internal(0);
    if (qvApplication != nullptr) {
        qv_agent_shutdown();
        qv_store(qvAgentStopping, 0);
    }
    return qvApplication;
}

// Lets the data thread connect to the collector list (or the proxy) in the settings.
inline void startDataThread(QVProxyInstance_t* app) {
    qv_store(app->Server.testRunRunning, 1);
    qv_store(app->Server.retryForDataConn, 1);
    ASSERT_EQ(check_data_thread(), 0);
}

// A started agent (no collector: its control thread is stopped) whose flowpath engine the
// decoder drives: every flowpath captured, a test run on, a fresh fpi_tls_map.
class DecodingAgentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = makeHome();
        app_ = startAgent();
        ASSERT_NE(app_, nullptr);
        qv_store(app_->QVSys.bciInstrSessionPct, 100);
        qv_store(app_->Server.testRunRunning, 1);
        app_->fpi_tls_map = create_hashmap(nullptr);
    }
    void TearDown() override {
        qvlb_decode_reset_for_test();  // nothing decodes into the map any more
        if (app_ != nullptr) destroy_hashmap(app_->fpi_tls_map);
        resetWholeAgent();
        home_.reset();
    }

    std::unique_ptr<TempAgentHome> home_;
    QVProxyInstance_t* app_ = nullptr;
};

#endif
