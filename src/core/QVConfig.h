// The configuration files under the agent home: config/qvsettings.conf (identity, collector
// list, trace level, proxy keys), config/processes.conf and config/proxysetting.conf.
#ifndef QVCONFIG_H
#define QVCONFIG_H

#include <apr_thread_mutex.h>

#include <cstdio>

// One collector address; entry 0 of qvc_server_arr is the primary, entries 1.. the backups.
struct qvc_servers {
    char state;  // 1 = in use / valid, 0 = failed
    unsigned int qvc_port;
    char* qvc_host;  // owned copy
};

// One row of the process-name table.
struct processInfo_t {
    char* processName;
    int proxy_enabled;
};

// Configuration of one application instance (see foundation/qvlb_instance.h), reached through
// the names below.
struct QVConfigState {
    char confFile[1024] = {};
    int sleepSecs = 0;
    qvc_servers* servers = nullptr;
    int serverCount = 0;
    unsigned int activeIdx = 0;
    char drState = 0;
    apr_thread_mutex_t* serverLock = nullptr;
    processInfo_t* processes = nullptr;
    int processCount = 0;
    int processCap = 0;  // rows allocated in processes
    ~QVConfigState();
};
QVConfigState& qvConfigState();

#define conf_file (qvConfigState().confFile)         // "<home>/config/qvsettings.conf"
#define instrumentSleep (qvConfigState().sleepSecs)  // seconds the start-up sleeps before instrumenting
#define qvc_server_arr (qvConfigState().servers)
#define server_arr_size (qvConfigState().serverCount)
#define active_qvc_idx (qvConfigState().activeIdx)
#define qv_dr_state (qvConfigState().drState)  // backup collectors configured
// Guards qvc_server_arr, server_arr_size and the entries' hosts: read_conf_file and
// readQVProxyConfig reallocate the list and replace hosts under it, so a reader on another thread
// (data or auto-sensor connection) must hold it while it uses an entry. Get it with
// qvc_server_arr_mutex(), which creates it on first use (thread-safe).
#define qvc_server_arr_lock (qvConfigState().serverLock)
apr_thread_mutex_t* qvc_server_arr_mutex();
#define processInfoStruct (qvConfigState().processes)
#define total_process_entries (qvConfigState().processCount)

// Reads one line of a configuration file into buf (size bytes, NUL-terminated), keeping its
// line feed when it fits. A line longer than size-1 bytes is cut: the rest of it, through its
// line feed, is consumed and dropped and *tooLong is set to 1 (else 0), so the remainder is never
// taken as a line of its own. NUL bytes are stored as read. Returns the bytes stored, or -1 at
// end of file before any byte. Null arguments or size < 2 return -1.
int qv_read_conf_line(FILE* fp, char* buf, int size, int* tooLong);

// Value of a "key=value" line when the line begins with keyword (case-insensitive over the
// keyword's length); null when it does not, or has no '=' or nothing after it.
char* search_keyword(char* buf, const char* keyword);
// Copies the text before the first '=' into keyword (kw_len bytes) and returns the text after
// it; null (keyword untouched) when there is no '='.
char* split_key_value(char* field, char* keyword, int kw_len);

// Shared grammar of the three files: lines whose first character is '#', blank, tab, LF or CR
// are skipped whole; a line is cut at its first CR, else at its first LF; a line longer than
// 1023 bytes is skipped whole (logged). Keys match by case-insensitive prefix (search_keyword).
// Numbers saturate instead of overflowing.

// Change test of "<home>/config/qvsettings.conf" (also forms conf_file). Missing file: 1.
// flag non-zero: 1 when its modification time (seconds) or size differs from the values stored in
// QVBCISetting, else 0; nothing is updated. flag 0: an empty file gives 1; otherwise the time and
// size are stored, the running flags are reset as logged, and 0 is returned.
int check_file_size_of_qvsetting_files(int flag);
// Reads the settings file (the collector list and num_qvc_config are rebuilt from it): 0 on success, 1 when
// the file is missing or empty or the mandatory qvcHost/qvcPort are absent, -1 when it cannot be opened; 0
// without reading in cluster mode. Runs on the start-up thread or the control thread. qv_dr_state is
// recomputed on success.
int read_conf_file();
// Reads "<home>/config/processes.conf" ("name|flag" lines) into processInfoStruct, replacing the
// previous table. Missing file: logged, table unchanged.
void readProcessConfFile();
// proxy_enabled of the first row whose name begins with pool_name (case-insensitive); 0 when
// none matches or pool_name is null.
int checkProcessNameInfo(const char* pool_name);
// Reads "<home>/config/proxysetting.conf" into QVProxy and entry 0 of the collector list (home:
// QVProxy.qvHomePath when set, else the system settings' home). 0 on success, -1 when missing or
// unreadable.
int readQVProxyConfig();

// Frees the collector list and the process table and clears this module's globals. Tests and
// the control thread's re-read use it.
void qvconfig_reset();

#endif
