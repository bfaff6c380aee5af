// Shared by the SDK tests: a temporary agent home, the SDK log's directory, the SDK started
// without its pause or control thread (no collector answers here), the reset of every module it
// started, and the SDK log read back as lines.
#ifndef QV_TESTS_SDK_FIXTURE_H
#define QV_TESTS_SDK_FIXTURE_H

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "backend/QVBackendMonitor.h"
#include "bt/QVBTManager.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "flowpath/QVFlowpathGenerator.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "mm/QVMethodMonitor.h"
#include "sdk/qv_sdk.h"
#include "support/agent_reset.h"
#include "support/temp_home.h"

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Prefix of a level 1..5 line of process pid up to the function name, as a regex.
inline std::string prefixRe(const std::string& word, const std::string& func, pid_t pid = getpid()) {
    return R"(\d{2}-[A-Z][a-z]{2}-\d{2} \d{2}:\d{2}:\d{2} \|)" + std::to_string(pid) + " \\|" + word +
           " \\|" + func + R"( : \d+ \|)";
}

inline std::string reEscape(const std::string& s) {
    return std::regex_replace(s, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

class SdkFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = std::make_unique<TempAgentHome>();
        // The SDK log's fixed directory; each test finds its own file there by its process id.
        std::error_code ec;
        std::filesystem::create_directories(QV_SDK_LOG_DIR, ec);
        if (access(QV_SDK_LOG_DIR, W_OK) != 0) GTEST_SKIP() << "cannot write " << QV_SDK_LOG_DIR;
    }
    void TearDown() override {
        qvlb_fault_reset();
        const std::string own = logName();
        if (agentStarted_)
            resetWholeAgent([this] { afterDataStop(); });
        else
            qv_sdk_reset_for_test();
        if (!own.empty()) std::filesystem::remove(own);
        home_.reset();
    }
    // Runs once the agent's threads stopped, before the collector settings are freed.
    virtual void afterDataStop() {}

    // The SDK's start-up without its pause; the control thread is stopped again.
    void startSdk() {
        qv_init_internal(0);
        agentStarted_ = true;
        ASSERT_NE(qvApplication, nullptr);
        qv_agent_shutdown();
        qv_store(qvAgentStopping, 0);
    }
    static std::string logName() {
        qvSDKLog* rec = qv_sdk_log;
        return rec != nullptr ? rec->file_name[0] : "";
    }
    static std::string log() {
        qv_sdk_log_flush();
        return readFile(logName());
    }
    // Whether a line of the SDK log matches the regex as a whole.
    static bool hasLine(const std::string& re) {
        std::regex r(re);
        for (const std::string& l : splitLines(log()))
            if (std::regex_match(l, r)) return true;
        return false;
    }

    std::unique_ptr<TempAgentHome> home_;
    bool agentStarted_ = false;
};

#endif
