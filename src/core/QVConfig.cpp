// Readers of the configuration files under the agent home and the collector list they fill.
#include "core/QVConfig.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

QV_INSTANCE_STATE_DEFINE(QVConfigState, qvConfigState)

#define processCapacity (qvConfigState().processCap)

#define QVCFG_TRACE(lvl, severity, ...) \
    QV_TRACE_IF(qvlb_startup_trace_level() > (lvl), "CONTROL_THREAD", severity, __VA_ARGS__)

namespace {

constexpr int kLineSize = 1024;
constexpr int kServerArrStep = 5;
constexpr int kProcessInitialRows = 50;
constexpr int kProcessStep = 10;

// Skip rule and line end of the shared grammar. Returns false for a line to ignore.
bool prepareLine(char* line, int n, int tooLong, const char* file) {
    if (tooLong) {
        QVCFG_TRACE(0, "Error", "Line longer than %d bytes in file %s skipped.", kLineSize - 1, file);
        return false;
    }
    if (n <= 0) return false;
    char c = line[0];
    if (c == '#' || c == ' ' || c == '\t' || c == '\n' || c == '\r') return false;
    char* cut = strchr(line, '\r');
    if (cut == nullptr) cut = strchr(line, '\n');
    if (cut != nullptr) *cut = '\0';
    return line[0] != '\0';
}

void freeServerArrLocked() {
    for (int i = 0; i < server_arr_size && qvc_server_arr; i++)
        qvlb_free(qvc_server_arr[i].qvc_host, "qvc_server_arr host", i);
    qvlb_free(qvc_server_arr, "qvc_server_arr", -1);
    qvc_server_arr = nullptr;
    server_arr_size = 0;
}

// Makes entry idx exist; called with qvc_server_arr_lock held. False when memory is short (the
// list is then freed and left null).
bool ensureServerEntryLocked(int idx) {
    if (qvc_server_arr == nullptr) {
        qvc_server_arr = static_cast<qvc_servers*>(
            qvlb_calloc(sizeof(qvc_servers) * kServerArrStep, "qvc_server_arr", kServerArrStep));
        if (qvc_server_arr == nullptr) return false;
        server_arr_size = kServerArrStep;
    }
    while (idx >= server_arr_size) {
        int newSize = server_arr_size + kServerArrStep;
        QVCFG_TRACE(0, "Info", "Going to realloc qvc_server_arr with size = %d", newSize);
        void* p = qvlb_realloc(qvc_server_arr, sizeof(qvc_servers) * newSize, "qvc_server_arr", newSize);
        if (p == nullptr) {
            freeServerArrLocked();
            return false;
        }
        qvc_server_arr = static_cast<qvc_servers*>(p);
        memset(qvc_server_arr + server_arr_size, 0, sizeof(qvc_servers) * kServerArrStep);
        server_arr_size = newSize;
    }
    return true;
}

void setEntryHostLocked(int idx, const char* host) {
    if (!ensureServerEntryLocked(idx)) return;
    qvlb_replace_str(&qvc_server_arr[idx].qvc_host, host, "qvc_server_arr host");
}

void setEntryPortLocked(int idx, int port) {
    if (!ensureServerEntryLocked(idx)) return;
    qvc_server_arr[idx].qvc_port = static_cast<unsigned int>(port);
}

void lockServerArr() {
    qvc_server_arr_mutex();
}

void freeProcessTable() {
    for (int i = 0; i < total_process_entries && processInfoStruct; i++)
        qvlb_free(processInfoStruct[i].processName, "processInfoStruct name", i);
    qvlb_free(processInfoStruct, "processInfoStruct", -1);
    processInfoStruct = nullptr;
    processCapacity = 0;
    total_process_entries = 0;
}

void applyDefaultAppName() {
    if (getAppName() != nullptr) return;
    char name[2048];
    if (pool_name != nullptr) {
        int mode = qv_load(qvApplication->QVBCISetting.autoScalingMode);
        if (mode == 0) {
            snprintf(name, sizeof(name), "%s*", pool_name);
        } else if (mode == 1) {
            snprintf(name, sizeof(name), "%s_%lld", pool_name, getPID());
        } else if (mode == 3) {
            snprintf(name, sizeof(name), "%s", pool_name);
        } else {
            return;
        }
        setAppName(name);
    } else if (proc_name != nullptr) {
        setAppName(proc_name);
    }
}

}  // namespace

apr_thread_mutex_t* qvc_server_arr_mutex() {
    if (qv_load_acquire(qvc_server_arr_lock) == nullptr) {
        qvlb_apr_init();
        qvlb_create_nested_mutex(&qvc_server_arr_lock, control_pool);
    }
    return qv_load_acquire(qvc_server_arr_lock);
}

int qv_read_conf_line(FILE* fp, char* buf, int size, int* tooLong) {
    if (tooLong) *tooLong = 0;
    if (fp == nullptr || buf == nullptr || size < 2) return -1;
    int n = 0;
    int c;
    bool any = false;
    while ((c = getc(fp)) != EOF) {
        any = true;
        if (n < size - 1) {
            buf[n++] = static_cast<char>(c);
            if (c == '\n') break;
        } else {
            // A line feed right after a full buffer still ends a line that fit.
            if (c == '\n') break;
            // Overlong: drop the rest of the line so it is never read as a line of its own.
            if (tooLong) *tooLong = 1;
        }
    }
    buf[n] = '\0';
    return any ? n : -1;
}

char* search_keyword(char* buf, const char* keyword) {
    if (buf == nullptr || keyword == nullptr) return nullptr;
    if (strncasecmp(buf, keyword, strlen(keyword)) != 0) return nullptr;
    char* eq = strchr(buf, '=');
    if (eq == nullptr || eq[1] == '\0') return nullptr;
    return eq + 1;
}

char* split_key_value(char* field, char* keyword, int kw_len) {
    if (field == nullptr) return nullptr;
    char* eq = strchr(field, '=');
    if (eq == nullptr) return nullptr;
    if (keyword != nullptr && kw_len > 0) {
        size_t n = static_cast<size_t>(eq - field);
        if (n > static_cast<size_t>(kw_len - 1)) n = static_cast<size_t>(kw_len - 1);
        memcpy(keyword, field, n);
        keyword[n] = '\0';
    }
    return eq + 1;
}

int check_file_size_of_qvsetting_files(int flag) {
    if (qvApplication == nullptr) return 1;
    QVCFG_TRACE(3, "Info", "Method called");
    const char* home = getQVHome();
    snprintf(conf_file, sizeof(conf_file), "%s/config/qvsettings.conf", home ? home : "");
    struct stat st;
    if (stat(conf_file, &st) != 0) {
        QVCFG_TRACE(0, "Error", "%s is not present, so returning", conf_file);
        return 1;
    }
    QVBCISetting_t& bci = qvApplication->QVBCISetting;
    long long mtime = static_cast<long long>(st.st_mtime);
    long long size = static_cast<long long>(st.st_size);
    if (flag != 0) {
        return (mtime != qv_load(bci.lastModifiedDate) || size != qv_load(bci.prevFileSize)) ? 1 : 0;
    }
    if (size == 0) {
        QVCFG_TRACE(0, "Error", "%s was of 0 size", conf_file);
        return 1;
    }
    qv_store(bci.lastModifiedDate, mtime);
    qv_store(bci.prevFileSize, size);
    Server_t& srv = qvApplication->Server;
    if (qv_load(srv.testRunRunning) == 1) {
        QVCFG_TRACE(0, "Info", "QV settings file changed and test run running flag is set, So resetting ...");
        qv_store(srv.testRunRunning, 0);
    }
    // The thread flags are tested and the retry flags cleared: the threads stop on their own
    // once they see no retry is wanted.
    if (qv_load(bci.data_thread_running) == 1) {
        QVCFG_TRACE(0, "Info",
                    "QV settings file changed and data thread running flag is set, So resetting ...");
        qv_store(srv.retryForDataConn, 0);
    }
    if (qv_load(bci.autoSensor_thread_running) == 1) {
        QVCFG_TRACE(0, "Info",
                    "QV settings file changed and auto sensor thread running flag is set, So resetting ...");
        qv_store(srv.retryForAutoSensorConn, 0);
    }
    QVCFG_TRACE(3, "Info", "Method exit");
    return 0;
}

int read_conf_file() {
    if (qvApplication == nullptr) return -1;
    QVCFG_TRACE(3, "Info", "Method called");
    bool cluster = qv_load(qvApplication->Server.isClusterMode) != 0;
    if (cluster) return 0;
    if (check_file_size_of_qvsetting_files(0) == 1) return 1;
    FILE* fp = fopen(conf_file, "r");
    if (fp == nullptr) {
        QVCFG_TRACE(0, "Error", "Could not open file '%s' in read mode.", conf_file);
        return -1;
    }
    lockServerArr();
    QVSys_t& sys = qvApplication->QVSys;
    QVBCISetting_t& bci = qvApplication->QVBCISetting;
    // Each read describes the whole list: entries and count of a previous read must not add up.
    qv_store(bci.num_qvc_config, 0);
    {
        QVLockGuard guard(qvc_server_arr_lock);
        for (int i = 0; i < server_arr_size && qvc_server_arr; i++) {
            qvlb_free(qvc_server_arr[i].qvc_host, "qvc_server_arr host", i);
            qvc_server_arr[i] = qvc_servers{};
        }
    }
    bool hostFound = false;
    bool portFound = false;
    int backupIdx = 1;
    char line[kLineSize];
    int tooLong = 0;
    int n;
    while ((n = qv_read_conf_line(fp, line, sizeof(line), &tooLong)) >= 0) {
        if (!prepareLine(line, n, tooLong, conf_file)) continue;
        {
            QVLockGuard guard(qvc_server_arr_lock);
            ensureServerEntryLocked(backupIdx);
        }
        char* v;
        if ((v = search_keyword(line, "tier")) != nullptr) {
            setTierName(v);
        } else {
            if (getTierName() == nullptr) setTierName(const_cast<char*>("Default"));
            if ((v = search_keyword(line, "server")) != nullptr) {
                setAppServerName(v);
            } else {
                if (getAppServerName() == nullptr) {
                    char host[257];
                    if (gethostname(host, sizeof(host)) != 0) strcpy(host, "localhost");
                    host[sizeof(host) - 1] = '\0';
                    setAppServerName(host);
                }
                if ((v = search_keyword(line, "instance")) != nullptr) {
                    setAppName(v);
                } else if ((v = search_keyword(line, "qvcHost")) != nullptr) {
                    qv_store(bci.num_qvc_config, qv_load(bci.num_qvc_config) + 1);
                    setQVCHost(v);
                    QVLockGuard guard(qvc_server_arr_lock);
                    setEntryHostLocked(0, v);
                    if (qvc_server_arr) qvc_server_arr[0].state = 1;
                    hostFound = true;
                } else if ((v = search_keyword(line, "qvcPort")) != nullptr) {
                    int port = qvParseInt(v);
                    setQVCPort(port);
                    portFound = true;
                    QVLockGuard guard(qvc_server_arr_lock);
                    setEntryPortLocked(0, port);
                } else if (!cluster && (v = search_keyword(line, "backupQvcHostName")) != nullptr) {
                    qv_store(bci.num_qvc_config, qv_load(bci.num_qvc_config) + 1);
                    QVLockGuard guard(qvc_server_arr_lock);
                    setEntryHostLocked(backupIdx, v);
                } else if (!cluster && (v = search_keyword(line, "backupQvcPort")) != nullptr) {
                    QVLockGuard guard(qvc_server_arr_lock);
                    setEntryPortLocked(backupIdx, qvParseInt(v));
                } else if ((v = search_keyword(line, "autoScalingMode")) != nullptr) {
                    setAutoScalingMode(qvParseInt(v));
                } else if ((v = search_keyword(line, "agentTraceLevel")) != nullptr) {
                    qv_store(sys.agentTraceLevel, qvParseInt(v));
                } else if ((v = search_keyword(line, "instrumentSleep")) != nullptr) {
                    qv_store(instrumentSleep, qvParseInt(v));
                } else if ((v = search_keyword(line, "proxyMode")) != nullptr) {
                    qv_store(sys.proxyMode, qvParseInt(v));
                } else if ((v = search_keyword(line, "proxyConType")) != nullptr) {
                    qv_store(sys.proxyConType, qvParseInt(v));
                } else if ((v = search_keyword(line, "proxySocketPath")) != nullptr) {
                    qvSetSharedStr(&sys.socketPath, v, "socketPath");
                } else if ((v = search_keyword(line, "proxyIP")) != nullptr) {
                    qvSetSharedStr(&sys.proxyIP, v, "proxyIP");
                } else if ((v = search_keyword(line, "proxyPort")) != nullptr) {
                    qv_store(sys.proxyPort, qvParseInt(v));
                }
            }
        }
        QVLockGuard guard(qvc_server_arr_lock);
        if (qvc_server_arr && backupIdx < server_arr_size && qvc_server_arr[backupIdx].qvc_host &&
            qvc_server_arr[backupIdx].qvc_port)
            backupIdx++;
    }
    fclose(fp);
    if (!hostFound || !portFound) {
        QVCFG_TRACE(0, "Error",
                    "Error in content of file %s.\n qvchost and qvcport fields are mandatory.Please check...",
                    conf_file);
        return 1;
    }
    {
        QVLockGuard guard(qvc_server_arr_lock);
        bool backup =
            qvc_server_arr && server_arr_size > 1 && qvc_server_arr[1].qvc_host && qvc_server_arr[1].qvc_port;
        qv_store(qv_dr_state, backup ? 1 : 0);
    }
    applyDefaultAppName();
    QVCFG_TRACE(3, "Info", "Method exit");
    return 0;
}

void readProcessConfFile() {
    const char* home = getQVHome();
    char path[2048];
    snprintf(path, sizeof(path), "%s/config/processes.conf", home ? home : "");
    struct stat st;
    if (stat(path, &st) != 0) {
        QVCFG_TRACE(0, "Error", "%s is not present, so returning", path);
        return;
    }
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) {
        QVCFG_TRACE(0, "Error", "Could not open file '%s' in read mode.", path);
        return;
    }
    freeProcessTable();
    processInfoStruct = static_cast<processInfo_t*>(
        qvlb_calloc(sizeof(processInfo_t) * kProcessInitialRows, "processInfoStruct", kProcessInitialRows));
    if (processInfoStruct == nullptr) {
        fclose(fp);
        return;
    }
    processCapacity = kProcessInitialRows;
    char line[kLineSize];
    int tooLong = 0;
    int n;
    while ((n = qv_read_conf_line(fp, line, sizeof(line), &tooLong)) >= 0) {
        if (!prepareLine(line, n, tooLong, path)) continue;
        char* bar = strchr(line, '|');
        if (bar == nullptr) continue;
        *bar = '\0';
        char* dot = strchr(line, '.');
        if (dot != nullptr) *dot = '\0';
        if (total_process_entries == processCapacity) {
            int newCap = processCapacity + kProcessStep;
            void* p =
                qvlb_realloc(processInfoStruct, sizeof(processInfo_t) * newCap, "processInfoStruct", newCap);
            if (p == nullptr) {
                freeProcessTable();
                break;
            }
            processInfoStruct = static_cast<processInfo_t*>(p);
            processCapacity = newCap;
        }
        processInfo_t& row = processInfoStruct[total_process_entries];
        row.processName = qvlb_strdup(line, "processInfoStruct name", total_process_entries);
        row.proxy_enabled = qvParseInt(bar + 1);
        QVCFG_TRACE(1, "Info", "Process '%s' proxy_enabled = %d", line, row.proxy_enabled);
        total_process_entries++;
    }
    fclose(fp);
}

int checkProcessNameInfo(const char* pool_name) {
    if (pool_name == nullptr) return 0;
    size_t len = strlen(pool_name);
    for (int i = 0; i < total_process_entries && processInfoStruct; i++) {
        const char* name = processInfoStruct[i].processName;
        if (name != nullptr && strncasecmp(name, pool_name, len) == 0)
            return processInfoStruct[i].proxy_enabled;
    }
    return 0;
}

int readQVProxyConfig() {
    const char* home = QVProxy.qvHomePath ? QVProxy.qvHomePath : getQVHome();
    char path[2048];
    snprintf(path, sizeof(path), "%s/config/proxysetting.conf", home ? home : "");
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) {
        QVCFG_TRACE(0, "Error", "%s is not present, so returning.", path);
        return -1;
    }
    lockServerArr();
    char line[kLineSize];
    int tooLong = 0;
    int n;
    while ((n = qv_read_conf_line(fp, line, sizeof(line), &tooLong)) >= 0) {
        if (!prepareLine(line, n, tooLong, path)) continue;
        char* v;
        if ((v = search_keyword(line, "proxyConType")) != nullptr) {
            QVProxy.proxyConType = qvParseInt(v);
        } else if ((v = search_keyword(line, "proxyPort")) != nullptr) {
            QVProxy.proxyPort = qvParseInt(v);
            snprintf(QVProxy.proxyHost, sizeof(QVProxy.proxyHost), "%s", "0.0.0.0");
        } else if ((v = search_keyword(line, "qvcHost")) != nullptr) {
            qvlb_replace_str(&QVProxy.qvcHost, v, "QVProxy.qvcHost");
            QVLockGuard guard(qvc_server_arr_lock);
            setEntryHostLocked(0, v);
            if (qvc_server_arr) qvc_server_arr[0].state = 1;
        } else if ((v = search_keyword(line, "qvcPort")) != nullptr) {
            QVProxy.qvcPort = qvParseInt(v);
            QVLockGuard guard(qvc_server_arr_lock);
            setEntryPortLocked(0, QVProxy.qvcPort);
        } else if ((v = search_keyword(line, "tier")) != nullptr) {
            qvlb_replace_str(&QVProxy.tierName, v, "QVProxy.tierName");
        } else if ((v = search_keyword(line, "server")) != nullptr) {
            qvlb_replace_str(&QVProxy.appServerName, v, "QVProxy.appServerName");
        } else if ((v = search_keyword(line, "instance")) != nullptr) {
            qvlb_replace_str(&QVProxy.appName, v, "QVProxy.appName");
        } else {
            QVCFG_TRACE(0, "Info", "Found unknown keyword<%s>. Ignored :D :P", line);
        }
    }
    fclose(fp);
    return 0;
}

QVConfigState::~QVConfigState() {
    // The process's own list lives until exit: threads may still read it then.
    if (this == &qvConfigState_own) return;
    for (int i = 0; i < serverCount && servers; i++) qvlb_free(servers[i].qvc_host, "qvc_server_arr host", i);
    qvlb_free(servers, "qvc_server_arr", -1);
    for (int i = 0; i < processCount && processes; i++)
        qvlb_free(processes[i].processName, "processInfoStruct name", i);
    qvlb_free(processes, "processInfoStruct", -1);
}

void qvconfig_reset() {
    {
        QVLockGuard guard(qvc_server_arr_lock);
        freeServerArrLocked();
    }
    freeProcessTable();
    active_qvc_idx = 0;
    qv_store(qv_dr_state, 0);
    qv_store(instrumentSleep, 0);
    memset(conf_file, 0, sizeof(conf_file));
}
