// Agent start-up: connect 0 and 1 in a temporary home, the trace-log file, the upward hooks,
// the control thread and the test reset.
#include <unistd.h>

#include <atomic>
#include <regex>
#include <thread>
#include <vector>

#include "core/QVConfig.h"
#include "core_fixture.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"
#include "support/child_process.h"

namespace {

class AgentTest : public AgentHomeTest {
  protected:
    // Whether the first trace-log file is named after the process (and pool), time and pid.
    void expectTraceFile(const std::string& names) const {
        ASSERT_NE(trace_log_key, nullptr);
        EXPECT_TRUE(std::regex_match(std::string(trace_log_key->log_file[0]),
                                     std::regex(home_.path() + "logs/+qv_trace_" + names + "_[0-9]{14}_" +
                                                std::to_string(getpid()) + "\\.log_0")))
            << trace_log_key->log_file[0];
    }
};

std::vector<std::string> calls;
void installHooks() {
    calls.clear();
    qvAgentHooks.createFpiToTLS = [] { calls.push_back("fpi"); };
    qvAgentHooks.initThreadBasedModelMap = [] { calls.push_back("modelMap"); };
    qvAgentHooks.createTlsPool = [] { calls.push_back("tlsPool"); };
    qvAgentHooks.initQVManageTIdToTLocal = [] { calls.push_back("tid"); };
    qvAgentHooks.controlSockBufInit = [] { calls.push_back("sockBuf"); };
}

int controlThreadRan = 0;
void* APR_THREAD_FUNC controlBody(apr_thread_t*, void*) {
    qv_store(controlThreadRan, 1);
    while (!qvlb_sleep_ms_interruptible(1000, &qvAgentStopping)) {
    }
    return nullptr;
}

}  // namespace

TEST_F(AgentTest, ConnectZeroOpensTraceLogOnly) {
    home_.write("config/qvsettings.conf", "qvcHost=h\nqvcPort=1\nagentTraceLevel=3\n");
    agent_init("pool", 0, "proc", nullptr);
    ASSERT_NE(qvApplication, nullptr);
    EXPECT_EQ(QVProxyInstance, qvApplication);
    expectTraceFile("proc_pool");
    // Nothing after the trace log: no settings read, no locks, no pool name, no BCI defaults.
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 0);
    EXPECT_EQ(std::make_tuple(controlThreadTmpLock, methodEntryLock, control_thread_id, pool_name,
                              qvApplication->QVBCISetting.agentType),
              std::make_tuple(nullptr, nullptr, nullptr, nullptr, nullptr));

    // The log file itself appears with the first record, header and build first.
    QV_TRACE_IF(true, "CONTROL_THREAD", "Info", "first record");
    ASSERT_EQ(home_.traceLogFiles().size(), 1u);
    EXPECT_EQ(
        home_.traceLogs().rfind("#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line "
                                "number|Function|Severity|Message\n5.1.0 build 42 \n",
                                0),
        0u);
    // The proxy's home comes from the environment too.
    setProxyQVHome();
    EXPECT_STREQ(QVProxy.qvHomePath, home_.path().c_str());
}

TEST_F(AgentTest, ConnectOneReadsSettingsAndSecondCallHasNoEffectUntilTestReset) {
    home_.write("config/qvsettings.conf", "qvcHost=h\nqvcPort=7000\nagentTraceLevel=1\n");
    agent_init("pool", 1, "proc", "skd");
    QVProxyInstance_t* first = qvApplication;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 1);  // the settings file was read
    EXPECT_TRUE(controlThreadTmpLock != nullptr && methodEntryLock != nullptr);
    EXPECT_EQ(qvTDHashMap, nullptr);        // enableProxyServer is 0
    EXPECT_EQ(control_thread_id, nullptr);  // no thread without an entry
    agent_init("other", 1, "proc2", "x");
    EXPECT_EQ(qvApplication, first);
    EXPECT_STREQ(pool_name, "pool");
    EXPECT_STREQ(qvApplication->QVBCISetting.agentType, "skd");
    qv_agent_shutdown();  // nothing to join

    qv_agent_reset_for_test();
    EXPECT_EQ(qvApplication, nullptr);
    EXPECT_EQ(trace_log_key, nullptr);
    agent_init(nullptr, 0, "proc", nullptr);
    expectTraceFile("proc");
}

TEST_F(AgentTest, HooksRunInOrderAndProxyModeSkipsTheMapSteps) {
    installHooks();
    home_.write("config/qvsettings.conf", "qvcHost=h\nqvcPort=7000\n");
    agent_init("pool", 1, "proc", nullptr);
    EXPECT_EQ(calls, (std::vector<std::string>{"sockBuf", "fpi", "modelMap", "tlsPool", "tid"}));

    qv_agent_reset_for_test();
    installHooks();
    home_.write("config/qvsettings.conf", "qvcHost=h\nqvcPort=7000\nproxyMode=1\n");
    agent_init("pool", 1, "proc", nullptr);
    EXPECT_EQ(calls, (std::vector<std::string>{"sockBuf", "tlsPool"}));
}

class AgentStartupConcurrency : public AgentTest {};

TEST_F(AgentStartupConcurrency, ControlThreadStartsAndStopsOrItsCreationFailureIsLogged) {
    qvAgentHooks.controlThreadEntry = controlBody;
    home_.write("config/qvsettings.conf", "qvcHost=h\nqvcPort=7000\nagentTraceLevel=1\n");
    qvlb_fault_arm(QV_FAULT_THREAD_CREATE, 0, 1);
    agent_init("pool", 1, "proc", nullptr);
    EXPECT_EQ(control_thread_id, nullptr);

    qv_agent_reset_for_test();
    agent_init("pool", 1, "proc", nullptr);
    ASSERT_NE(control_thread_id, nullptr);
    qv_agent_shutdown();
    EXPECT_EQ(control_thread_id, nullptr);
    EXPECT_EQ(qv_load(controlThreadRan), 1);
}

// A child forked while another thread holds the trace log's lock rolls over without hanging, in
// files of its own named with its process id from its first record on.
TEST_F(AgentTest, ForkedChildRollsOverInFilesOfItsOwn) {
    start(0);
    qvApplication->QVSys.traceMaxSize = 400;
    QV_TRACE_IF(true, "CONTROL_THREAD", "Info", "parent before");
    const std::string parentFile = trace_log_key->log_file[0];
    std::atomic<bool> held{false};
    std::thread rollover([&] {
        QVLockGuard guard(trace_log_key->lock);
        held = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    while (!held) std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) {
        for (int i = 0; i < 20; i++) QV_TRACE_IF(true, "CONTROL_THREAD", "Info", "child record %d", i);
        _exit(0);
    }
    rollover.join();
    ASSERT_TRUE(childExitedCleanly(child));
    QV_TRACE_IF(true, "CONTROL_THREAD", "Info", "parent after");

    auto read = [&](const std::string& path) { return home_.read(path.substr(home_.path().size())); };
    const std::string parentText = read(parentFile);
    EXPECT_NE(parentText.find("parent before"), std::string::npos);
    EXPECT_NE(parentText.find("parent after"), std::string::npos);
    EXPECT_EQ(parentText.find("child record"), std::string::npos);
    // The parent's names with the child's id: "..._<pid>.log_0" and "_1", each with its header.
    std::string childBase = parentFile.substr(0, parentFile.size() - 1);
    const std::string parentId = "_" + std::to_string(getpid()) + ".log_";
    childBase.replace(childBase.rfind(parentId), parentId.size(), "_" + std::to_string(child) + ".log_");
    std::string childText;
    for (const char* i : {"0", "1"}) {
        const std::string text = read(childBase + i);
        EXPECT_EQ(text.rfind("#TimeStamp|TestRun|", 0), 0u) << childBase << i;
        childText += text;
    }
    EXPECT_NE(childText.find("child record 19"), std::string::npos);
}
