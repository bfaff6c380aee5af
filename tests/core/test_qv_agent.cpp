// Agent start-up: connect 0 and 1 in a temporary home, the trace-log file, the upward hooks,
// the control thread and the test reset.
#include <unistd.h>

#include <regex>
#include <vector>

#include "core/QVConfig.h"
#include "core_fixture.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_util.h"

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
    EXPECT_EQ(controlThreadTmpLock, nullptr);
    EXPECT_EQ(methodEntryLock, nullptr);
    EXPECT_EQ(pool_name, nullptr);
    EXPECT_EQ(qvApplication->QVBCISetting.agentType, nullptr);
    EXPECT_EQ(control_thread_id, nullptr);

    // The log file itself appears with the first record, header and build first.
    qvApplication->QVSys.agentTraceLevel = 1;
    QV_TRACE_IF(true, "CONTROL_THREAD", "Info", "first record");
    ASSERT_EQ(home_.traceLogFiles().size(), 1u);
    const std::string text = home_.traceLogs();
    EXPECT_EQ(text.rfind("#TimeStamp|TestRun|", 0), 0u);
    EXPECT_TRUE(logged("5.1.0 build 42"));
    EXPECT_TRUE(logged("|CONTROL_THREAD|"));

    // The proxy's record: defaults, and the home from the environment.
    initializeProxyStruct();
    EXPECT_EQ(std::make_tuple(QVProxy.proxyServerFlag, QVProxy.proxyPort, QVProxy.qvcPort),
              std::make_tuple(0, 7892, 0));
    EXPECT_EQ(QVProxy.qvHomePath, nullptr);
    EXPECT_STREQ(QVProxy.proxyHost, "127.0.0.1");
    setProxyQVHome();
    EXPECT_STREQ(QVProxy.qvHomePath, home_.path().c_str());
}

TEST_F(AgentTest, ConnectOneReadsSettingsAndStartsNoThreadWithoutEntry) {
    home_.write("config/qvsettings.conf", "qvcHost=h\nqvcPort=7000\nagentTraceLevel=1\n");
    agent_init("pool", 1, "proc", nullptr);
    ASSERT_NE(qvApplication, nullptr);
    EXPECT_EQ(qvApplication->QVSys.agentTraceLevel, 1);  // the settings file was read
    EXPECT_NE(controlThreadTmpLock, nullptr);
    EXPECT_NE(methodEntryLock, nullptr);
    EXPECT_EQ(qvTDHashMap, nullptr);  // enableProxyServer is 0
    EXPECT_STREQ(pool_name, "pool");
    EXPECT_STREQ(proc_name, "proc");
    EXPECT_STREQ(qvApplication->agentName, "pool");
    EXPECT_STREQ(qvApplication->QVBCISetting.agentType, "PHP");
    EXPECT_EQ(qvApplication->QVBCISetting.btErrorArray[404], 'F');
    EXPECT_EQ(getPID(), static_cast<long long>(getpid()));
    EXPECT_EQ(control_thread_id, nullptr);
    EXPECT_TRUE(logged("Going to create hashMap of flowpath instance to TLS"));
    EXPECT_TRUE(logged("Going to start control thread ..."));
    EXPECT_TRUE(logged("No control thread installed; the agent will not connect to the collector."));
    qv_agent_shutdown();  // nothing to join
    EXPECT_EQ(qv_load(qvAgentStopping), 1);
}

TEST_F(AgentTest, SecondCallHasNoEffectUntilTestReset) {
    agent_init("pool", 1, "proc", "skd");
    QVProxyInstance_t* first = qvApplication;
    EXPECT_STREQ(qvApplication->QVBCISetting.agentType, "skd");
    agent_init("other", 1, "proc2", "x");
    EXPECT_EQ(qvApplication, first);
    EXPECT_STREQ(pool_name, "pool");
    EXPECT_STREQ(qvApplication->QVBCISetting.agentType, "skd");

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
    EXPECT_TRUE(logged("Error in creating control thread... '"));

    qv_agent_reset_for_test();
    agent_init("pool", 1, "proc", nullptr);
    ASSERT_NE(control_thread_id, nullptr);
    qv_agent_shutdown();
    EXPECT_EQ(control_thread_id, nullptr);
    EXPECT_EQ(qv_load(controlThreadRan), 1);
    EXPECT_TRUE(logged("Control thread created successfully... '"));
}
