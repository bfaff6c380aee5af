// Collector list and retry policy of the control connection.
#include "collector/QVCServerConfig.h"

#include <cstdio>
#include <cstring>

#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

namespace {
struct ServerConfigState {
    retryPolicy policy = {};
};
}  // namespace

QV_INSTANCE_STATE_DEFINE(ServerConfigState, serverConfigState)

retryPolicy& qvRetryPolicyOfInstance() {
    return serverConfigState().policy;
}

long long controlRetryIntervalMs = 60000;

namespace {

int controlLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.controlTraceLevel) : 0;
}

void setPolicyDefaults() {
    memset(&retry_policy, 0, sizeof(retry_policy));
    retry_policy.num_retry = 3;
    retry_policy.count = 0;
    retry_policy.reply_unsuccessful_count = 10;
    retry_policy.heartbeat_reply_timeout_check = 6;
    const long long ms = qv_load(controlRetryIntervalMs);
    retry_policy.time_interval = static_cast<apr_interval_time_t>(ms > 0 ? ms : 60000) * 1000;
    retry_policy.health_check_request_interval = 60000000;
}

}  // namespace

apr_thread_mutex_t* qvc_server_lock() {
    // The settings-file reader fills the same list; one lock serves both.
    return qvc_server_arr_mutex();
}

void init_qvc_server_config() {
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method called");
    setPolicyDefaults();
    QV_TRACE_IF(
        controlLevel() > 0, "CONTROL_THREAD", "Info",
        "Default retry policy is [retry count | retry interval | HeartBeart miss count]= [%d | %lld | %d]",
        retry_policy.num_retry, static_cast<long long>(retry_policy.time_interval),
        retry_policy.reply_unsuccessful_count);
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method exit");
}

void clear_qvc_server_setting() {
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method called");
    {
        QVLockGuard guard(qvc_server_lock());
        if (qvc_server_arr != nullptr) {
            for (int i = 0; i < server_arr_size; ++i) qvlb_free(qvc_server_arr[i].qvc_host, "qvc_host", i);
            qvlb_free(qvc_server_arr, "qvc_server_arr", -1);
        }
        qvc_server_arr = nullptr;
        server_arr_size = 0;
    }
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method exit");
}

qvc_servers* get_active_qvc() {
    QVLockGuard guard(qvc_server_lock());
    if (qvc_server_arr == nullptr || server_arr_size <= 0) return nullptr;
    const unsigned int idx = qv_load(active_qvc_idx);
    if (idx >= static_cast<unsigned int>(server_arr_size)) return nullptr;
    return &qvc_server_arr[idx];
}

int copy_qvc_server_addr(int idx, char* host, int host_len, int* port) {
    if (host == nullptr || host_len <= 0 || port == nullptr) return -1;
    host[0] = '\0';
    *port = 0;
    QVLockGuard guard(qvc_server_lock());
    if (qvc_server_arr == nullptr || server_arr_size <= 0) return -1;
    const unsigned int i = idx < 0 ? qv_load(active_qvc_idx) : static_cast<unsigned int>(idx);
    if (i >= static_cast<unsigned int>(server_arr_size)) return -1;
    const qvc_servers& s = qvc_server_arr[i];
    if (s.qvc_host == nullptr) return -1;
    snprintf(host, static_cast<size_t>(host_len), "%s", s.qvc_host);
    *port = static_cast<int>(s.qvc_port);
    return 0;
}

int set_qvc_server_entry(int idx, const char* host, int port) {
    if (idx < 0 || host == nullptr || port <= 0) return -1;
    QVLockGuard guard(qvc_server_lock());
    if (idx >= server_arr_size || qvc_server_arr == nullptr) {
        // Grow in steps of 5 like the settings-file reader, zeroing the new entries.
        int newSize = server_arr_size;
        while (newSize <= idx) newSize += 5;
        void* p = qvlb_realloc(qvc_server_arr, sizeof(qvc_servers) * static_cast<size_t>(newSize),
                               "qvc_server_arr", newSize);
        if (p == nullptr) return -1;
        qvc_server_arr = static_cast<qvc_servers*>(p);
        memset(qvc_server_arr + server_arr_size, 0,
               sizeof(qvc_servers) * static_cast<size_t>(newSize - server_arr_size));
        server_arr_size = newSize;
    }
    char* copy = qvlb_strdup(host, "qvc_server_arr host", idx);
    if (copy == nullptr) return -1;
    qvlb_free(qvc_server_arr[idx].qvc_host, "qvc_server_arr host", idx);
    qvc_server_arr[idx].qvc_host = copy;
    qvc_server_arr[idx].qvc_port = static_cast<unsigned int>(port);
    qvc_server_arr[idx].state = 1;
    return 0;
}

void lookup_for_next_qvc() {
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method called");
    int numConfig = qvApplication ? qv_load(qvApplication->QVBCISetting.num_qvc_config) : 0;
    unsigned int idx;
    {
        QVLockGuard guard(qvc_server_lock());
        idx = qv_load(active_qvc_idx);
        const unsigned int next = idx + 1;
        // An entry without host or port was never configured: wrap instead of connecting to it.
        const bool usable = qvc_server_arr != nullptr && next < static_cast<unsigned int>(server_arr_size) &&
                            static_cast<int>(next) < numConfig && qvc_server_arr[next].qvc_host != nullptr &&
                            qvc_server_arr[next].qvc_port != 0;
        idx = usable ? next : 0;
        qv_store(active_qvc_idx, idx);
    }
    QV_TRACE_IF(controlLevel() > 0, "CONTROL_THREAD", "Info",
                "Index of active QVC server array = %d, QVBCISetting.num_qvc_config = %d",
                static_cast<int>(idx), numConfig);
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method exit");
}

void connection_retry_failed() {
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method called");
    char host[1024];
    int port = 0;
    if (qv_load(qv_dr_state) != 0) {
        QV_TRACE_IF(controlLevel() > 0, "CONTROL_THREAD", "Info",
                    "[QV DR Feature]; Retry for connection attempt failed DR is enabled, looking for backup");
        {
            QVLockGuard guard(qvc_server_lock());
            const unsigned int idx = qv_load(active_qvc_idx);
            if (qvc_server_arr != nullptr && idx < static_cast<unsigned int>(server_arr_size))
                qvc_server_arr[idx].state = 0;
        }
        copy_qvc_server_addr(-1, host, sizeof(host), &port);
        QV_TRACE_IF(controlLevel() > 0, "CONTROL_THREAD", "Info", " current QVC info: host = %s, port = %d",
                    host, port);
        lookup_for_next_qvc();
        copy_qvc_server_addr(-1, host, sizeof(host), &port);
        QV_TRACE_IF(controlLevel() > 0, "CONTROL_THREAD", "Info",
                    "[QV DR Feature]; Got next QVC info: [host | port] = [%s | %d]", host, port);
    } else {
        qv_store(active_qvc_idx, 0u);
    }
    QVLockGuard guard(qvc_server_lock());
    const unsigned int idx = qv_load(active_qvc_idx);
    if (qvc_server_arr != nullptr && idx < static_cast<unsigned int>(server_arr_size))
        qvc_server_arr[idx].state = 1;
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Method exit");
}

void make_control_conn_heartbeat_msg() {
    if (qvApplication == nullptr) return;
    QVBCISetting_t& b = qvApplication->QVBCISetting;
    int n = snprintf(b.control_conn_heartbeat_msg, sizeof(b.control_conn_heartbeat_msg),
                     "qv_control_req:action=reconnect;heartBeat %d;\n", qv_load(heartbeat_count));
    if (n < 0) n = 0;
    b.control_conn_heartbeat_msgLen = n;
}

int parse_policy_from_clientMsg(char* msg) {
    QV_TRACE_IF(controlLevel() == 4, "CONTROL_THREAD", "Info", "Policy text received: '%s'", msg ? msg : "");
    return 0;
}

void qvc_server_config_reset_for_test() {
    qv_store(controlRetryIntervalMs, 60000LL);
    setPolicyDefaults();
}
