// Agent start-up (agent_init), the trace-log set-up, shutdown and the test reset of the
// application instance record.
#include "core/qv_agent.h"

#include <apr_atomic.h>
#include <apr_portable.h>
#include <apr_signal.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "core/QVConfig.h"
#include "core/QVSettingRecords.h"
#include "core/qvlb_keywords.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

QV_INSTANCE_STATE_DEFINE(QVAgentState, qvAgentState)

QVAgentSetting_t QVAgentSetting;
QVProxy_t QVProxy;
int startedWithExc = 0;
char* pool_name = nullptr;
char* proc_name = nullptr;
long long pid = 0;
QVAgentHooks qvAgentHooks;

#define QVAGENT_TRACE(lvl, severity, ...) \
    QV_TRACE_IF(qvlb_startup_trace_level() > (lvl), "CONTROL_THREAD", severity, __VA_ARGS__)

namespace {

int agentInitDone = 0;

void bindTraceLog(QVProxyInstance_t* inst) {
    if (inst == nullptr) {
        qvlbTraceBindings = QVTraceLogBindings{};
        return;
    }
    qvlbTraceBindings.agentTraceLevel = &inst->QVSys.agentTraceLevel;
    qvlbTraceBindings.autoInstrTraceLevel = &QVAutoInstrumentation.autoInstrTraceLevel;
    qvlbTraceBindings.ddTraceLevel = &QVDynamicSettings.ddTraceLevel;
    qvlbTraceBindings.traceMaxSize = &inst->QVSys.traceMaxSize;
    qvlbTraceBindings.qvBuild = &inst->QVSys.qvBuild;
    qvlbTraceBindings.testRunId = &inst->Server.TestRunIDValue;
}

// Frees the owned text of the instance record; retired copies are freed by the settings reset.
void freeInstance(QVProxyInstance_t* inst) {
    if (inst == nullptr) return;
    char** shared[] = {
        &inst->QVSys.qvBuild,          &inst->QVSys.qvHomePath,         &inst->QVSys.latestBuild,
        &inst->QVSys.WBCookieName,     &inst->QVSys.xSessionCookieName, &inst->QVSys.qvSessionCookieName,
        &inst->QVSys.cookieDomainName, &inst->QVSys.socketPath,         &inst->QVSys.proxyIP,
        &inst->QVBCISetting.agentType, &inst->QVBCISetting.tierName,    &inst->QVBCISetting.appServerName,
        &inst->QVBCISetting.appName,   &inst->QVBCISetting.qvcHost};
    for (char** p : shared) qvSetSharedStr(p, nullptr, "instance text");
    char** owned[] = {&inst->agentName,   &inst->tierName,        &inst->appServerName, &inst->appName,
                      &inst->bciVersion,  &inst->qvHome,          &inst->agentType,     &inst->serverIp,
                      &inst->hostName,    &inst->jvmType,         &inst->javaVersion,   &inst->javaHome,
                      &inst->machineType, &inst->connDestination, &inst->QVCollectorIP, &inst->startInstMsg};
    for (char** p : owned) {
        qvlb_free(*p, "instance text", -1);
        *p = nullptr;
    }
    qvlb_free(inst->processInfo, "instance processInfo", -1);
    qvlb_free(inst, "QVProxyInstance_t", -1);
}

}  // namespace

int qvlb_control_trace_level() {
    return qvApplication ? qv_load(qvApplication->QVSys.controlTraceLevel) : 0;
}

int qvlb_startup_trace_level() {
    if (qvApplication == nullptr) return 0;
    int control = qv_load(qvApplication->QVSys.controlTraceLevel);
    int agent = qv_load(qvApplication->QVSys.agentTraceLevel);
    return control > agent ? control : agent;
}

void QVAgentSettingInit() {
    snprintf(QVAgentSetting.proxyhost, sizeof(QVAgentSetting.proxyhost), "%s", "127.0.0.1");
    qv_store(QVAgentSetting.proxyPort, 7892);
    qv_store(QVAgentSetting.enableProxyServer, 0);
    qv_store(QVAgentSetting.startedWithExc, qv_load(startedWithExc));
}

void initializeProxyStruct() {
    QVProxy.proxyServerFlag = 0;
    QVProxy.proxyPort = 7892;
    QVProxy.qvcPort = 0;
    QVProxy.numInstances = 0;
    qvlb_replace_str(&QVProxy.qvHomePath, nullptr, "QVProxy.qvHomePath");
    qvlb_replace_str(&QVProxy.qvcHost, nullptr, "QVProxy.qvcHost");
    snprintf(QVProxy.proxyHost, sizeof(QVProxy.proxyHost), "%s", "127.0.0.1");
}

void setProxyQVHome() {
    char buf[1024];
    const char* home = qvlb_get_env_var_value("QVHOME", buf, sizeof(buf));
    if (home == nullptr || home[0] == '\0') home = "/opt/korlund/quovix/";
    qvlb_replace_str(&QVProxy.qvHomePath, home, "QVProxy.qvHomePath");
    QVAGENT_TRACE(0, "Info", "qvHome value :'%s' set", home);
}

void QVTraceInit(const char* process_name, const char* pool_name_arg) {
    // The process log exists once; a second set-up keeps the open one.
    if (trace_log_key != nullptr) return;
    const char* home = nullptr;
    if (qv_load(startedWithExc) != 0 && QVProxy.qvHomePath != nullptr)
        home = QVProxy.qvHomePath;
    else if (qvApplication != nullptr)
        home = qv_load_acquire(qvApplication->QVSys.qvHomePath);
    if (home == nullptr) return;
    char dir[2048];
    snprintf(dir, sizeof(dir), "%slogs/", home);
    qvlb_mkdir_p(dir);
    char stamp[64];
    qvlb_get_cur_date_time(stamp, sizeof(stamp));
    const char* proc = process_name ? process_name : "(null)";
    char name[1024];
    if (pool_name_arg != nullptr)
        snprintf(name, sizeof(name), "qv_trace_%s_%s_%s_%d.log", proc, pool_name_arg, stamp,
                 static_cast<int>(getpid()));
    else
        snprintf(name, sizeof(name), "qv_trace_%s_%s_%d.log", proc, stamp, static_cast<int>(getpid()));
    trace_log_key = qvlb_init_mt_trace_log_ex(dir, name, 1, 10);
}

namespace {

QVProxyInstance_t* createInstanceRecord() {
    QVAGENT_TRACE(0, "Info", "Allocating Memory to store QvProxyInstance details");
    auto* inst =
        static_cast<QVProxyInstance_t*>(qvlb_calloc(sizeof(QVProxyInstance_t), "QVProxyInstance_t", -1));
    if (inst == nullptr) return nullptr;
    QVProxyInstance = inst;
    qvApplication = inst;
    return inst;
}

void setInstanceDefaults(QVProxyInstance_t* inst) {
    if (qv_load(startedWithExc) == 0) {
        inst->QVSys.proxyMode = 0;
        inst->QVSys.proxyConType = 0;
        inst->QVSys.socketPath = nullptr;
    }
    QVSysInit();
    // Keyword defaults must hold before the settings file or any collector message is applied.
    qvlb_init_all_keywords();
}

// Record pool and the maps of the flowpath and monitor layers.
void startInstancePools(QVProxyInstance_t* inst) {
    qvlb_create_nested_mutex(&controlThreadTmpLock, control_pool);
    if (qv_load(inst->QVSys.proxyMode) == 0) {
        QVAGENT_TRACE(0, "Info", "Going to create hashMap of flowpath instance to TLS");
        if (qvAgentHooks.createFpiToTLS) qvAgentHooks.createFpiToTLS();
        if (qvAgentHooks.initThreadBasedModelMap) qvAgentHooks.initThreadBasedModelMap();
    }
    if (qvAgentHooks.createTlsPool) qvAgentHooks.createTlsPool();
    if (qv_load(inst->QVSys.proxyMode) == 0 && qvAgentHooks.initQVManageTIdToTLocal)
        qvAgentHooks.initQVManageTIdToTLocal();
}

// Registry, connection defaults, BT subsystem and monitors.
void startInstanceRegistry(QVProxyInstance_t* inst, const char* agentType) {
    qvlb_create_nested_mutex(&methodEntryLock, control_pool);
    if (qv_load(inst->QVSys.proxyMode) == 0 && qv_load(QVAgentSetting.enableProxyServer) != 0 &&
        qvTDHashMap == nullptr) {
        qvTDHashMap = create_hashmap(control_pool);
        qvlb_create_nested_mutex(&qvTDHashMapLock, control_pool);
    }
    QVBCISettingInit();
    setAgentType(agentType ? agentType : "PHP");
    // The method registry needs methodEntryLock; the BT subsystem reads its rule files from the home.
    if (qvAgentHooks.initMethodRegistry) qvAgentHooks.initMethodRegistry();
    if (qvAgentHooks.initBTSubsystem) qvAgentHooks.initBTSubsystem();
    if (qvAgentHooks.initMonitors) qvAgentHooks.initMonitors();
}

// Ends and joins the acting instance's threads; the control thread stops the reporting thread
// on its way out.
void stopInstanceThreads() {
    if (control_thread_id != nullptr) {
        apr_status_t st = APR_SUCCESS;
        apr_thread_join(&st, control_thread_id);
        control_thread_id = nullptr;
    }
    // After the control thread: it is the one that starts the data thread.
    if (qvAgentHooks.stopDataThread) qvAgentHooks.stopDataThread();
    if (qvAgentHooks.stopRecordReserve) qvAgentHooks.stopRecordReserve();
}

}  // namespace

QVAgentState::~QVAgentState() {
    // The process's own copy lives until exit: threads may still read it then.
    if (this == &qvAgentState_own) return;
    freeInstance(app);
    destroy_hashmap(tdMap);
}

void agent_init(const char* poolName, int connect, const char* processName, const char* agentType) {
    // Once per process, even if several threads race into it.
    if (__atomic_exchange_n(&agentInitDone, 1, __ATOMIC_ACQ_REL) != 0) return;

    qvlb_apr_init();

    QVProxyInstance_t* inst = createInstanceRecord();
    if (inst == nullptr) return;
    bindTraceLog(inst);
    setInstanceDefaults(inst);
    QVTraceInit(processName, poolName);
    if (connect <= 0) return;

    apr_signal_init(control_pool);
    apr_signal(SIGPIPE, SIG_IGN);
    if (QVProxy.proxyServerFlag == 0) read_conf_file();
    startInstancePools(inst);

    apr_atomic_init(control_pool);
    apr_atomic_set32(reinterpret_cast<volatile apr_uint32_t*>(&inst->QVSys.rSeq), 0);
    qv_store(pid, static_cast<long long>(getpid()));

    if (poolName != nullptr) {
        qvlb_replace_str(&pool_name, poolName, "pool_name");
        qvlb_replace_str(&inst->agentName, poolName, "agentName");
        setAppName(pool_name, nullptr, -1);
    }
    if (processName != nullptr) qvlb_replace_str(&proc_name, processName, "proc_name");
    startInstanceRegistry(inst, agentType);
    qv_agent_start_control_thread();
}

int agent_init_instance() {
    qvlb_apr_init();
    if (qvApplication != nullptr) {
        QVAGENT_TRACE(0, "Error", "Application instance already started");
        return -1;
    }
    QVProxyInstance_t* inst = createInstanceRecord();
    if (inst == nullptr) {
        QVAGENT_TRACE(0, "Error", "Unable to start application instance: out of memory");
        return -1;
    }
    // Its connections may meet a collector that went away, as the process's own do.
    apr_signal(SIGPIPE, SIG_IGN);
    setInstanceDefaults(inst);
    startInstancePools(inst);
    startInstanceRegistry(inst, nullptr);
    if (controlThreadTmpLock == nullptr || methodEntryLock == nullptr) {
        QVAGENT_TRACE(0, "Error", "Unable to start application instance: no mutex");
        return -1;
    }
    return 0;
}

int qv_agent_start_control_thread() {
    QVAGENT_TRACE(0, "Info", "Going to start control thread ...");
    if (control_thread_id != nullptr) return 0;
    if (qvAgentHooks.controlThreadEntry == nullptr) {
        QVAGENT_TRACE(0, "Info", "No control thread installed; the agent will not connect to the collector.");
        return -1;
    }
    char err[1024];
    err[0] = '\0';
    apr_thread_t* thread = nullptr;
    apr_status_t rv =
        qvlb_thread_create(&thread, qvAgentHooks.controlThreadEntry, nullptr, control_pool, err, sizeof(err));
    if (rv != APR_SUCCESS || thread == nullptr) {
        QVAGENT_TRACE(0, "Error", "Error in creating control thread... '%s'", err);
        return -1;
    }
    control_thread_id = thread;
    apr_os_thread_t* os = nullptr;
    long long tid = 0;
    if (apr_os_thread_get(&os, thread) == APR_SUCCESS && os != nullptr) tid = static_cast<long long>(*os);
    QVAGENT_TRACE(0, "Info", "Control thread created successfully... '%lld'", tid);
    return 0;
}

void qv_agent_shutdown() {
    qv_store(qvAgentStopping, 1);
    // A child forked after start-up has none of the agent's threads: joining them would never end.
    const long long startedBy = qv_load(pid);
    if (startedBy != 0 && startedBy != static_cast<long long>(getpid())) return;
    stopInstanceThreads();
}

void qv_agent_shutdown_instance() {
    qv_store(qvAgentStopping, 1);
    stopInstanceThreads();
}

void qv_agent_reset_for_test() {
    if (control_thread_id != nullptr) qv_agent_shutdown();
    qvlb_trace_log_reset_for_test();
    bindTraceLog(nullptr);
    qvconfig_reset();
    qvlb_keywords_reset_for_test();
    freeInstance(qvApplication);
    qvApplication = nullptr;
    QVProxyInstance = nullptr;
    qvlb_free(pool_name, "pool_name", -1);
    pool_name = nullptr;
    qvlb_free(proc_name, "proc_name", -1);
    proc_name = nullptr;
    pid = 0;
    qvlb_destroy_mutex(&controlThreadTmpLock);
    qvlb_destroy_mutex(&methodEntryLock);
    destroy_hashmap(qvTDHashMap);
    qvTDHashMap = nullptr;
    qvlb_destroy_mutex(&qvTDHashMapLock);
    qvlb_free(QVProxy.qvHomePath, "QVProxy.qvHomePath", -1);
    qvlb_free(QVProxy.qvcHost, "QVProxy.qvcHost", -1);
    qvlb_free(QVProxy.tierName, "QVProxy.tierName", -1);
    qvlb_free(QVProxy.appServerName, "QVProxy.appServerName", -1);
    qvlb_free(QVProxy.appName, "QVProxy.appName", -1);
    qvlb_free(QVProxy.socketPath, "QVProxy.socketPath", -1);
    QVProxy = QVProxy_t{};
    QVAgentSetting = QVAgentSetting_t{};
    startedWithExc = 0;
    qv_store(qvAgentStopping, 0);
    qvSettingRecordsReset();
    __atomic_store_n(&agentInitDone, 0, __ATOMIC_RELEASE);
}
