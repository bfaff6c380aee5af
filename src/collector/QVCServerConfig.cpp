// Collector list and retry policy of the control connection.
#include "collector/QVCServerConfig.h"

#include <cstdio>
#include <cstring>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

retryPolicy retry_policy;

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
    retry_policy.time_interval = 60000000;
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

void qvc_server_config_reset_for_test() {
    setPolicyDefaults();
}
