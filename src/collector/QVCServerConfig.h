// Collector list and retry policy of the control connection: which collector (primary or
// backup) the agent talks to, and how often it retries.
#ifndef QVCSERVERCONFIG_H
#define QVCSERVERCONFIG_H

#include <apr_thread_mutex.h>
#include <apr_time.h>

#include "core/QVConfig.h"

// Connection retry policy (global retry_policy).
struct retryPolicy {
    char version[32];
    char num_retry;                                     // attempts on one collector before switching
    int count;                                          // attempts so far
    int reply_unsuccessful_count;                       // unanswered heartbeats before switching over
    int heartbeat_reply_timeout_check;                  // idle poll rounds between heartbeats
    apr_interval_time_t time_interval;                  // wait between attempts (microseconds)
    apr_interval_time_t health_check_request_interval;  // reserved
};
extern retryPolicy retry_policy;

// Sets the retry policy defaults and logs them. Control thread.
void init_qvc_server_config();

// Frees the collector list (qvc_server_arr, server_arr_size 0) under qvc_server_lock(); the
// active index is kept so a switch-over survives the re-read of the settings file.
void clear_qvc_server_setting();

// Entry active_qvc_idx of qvc_server_arr, or null when there is none. The entry belongs to
// the control thread (it re-reads the list); other threads use copy_qvc_server_addr.
qvc_servers* get_active_qvc();

// Copies host (host_len bytes, NUL-ended) and port of entry idx of the collector list, or of
// the active entry when idx < 0, under qvc_server_lock(). Returns 0, or -1 (host empty, port 0)
// when the entry does not exist or an argument is null. Any thread.
int copy_qvc_server_addr(int idx, char* host, int host_len, int* port);

// Nested mutex guarding qvc_server_arr and server_arr_size against readers on other threads.
// Whoever replaces the list (clear plus read_conf_file) holds it. Created on first use, never
// freed.
apr_thread_mutex_t* qvc_server_lock();

// Restores the policy defaults without logging. Tests only.
void qvc_server_config_reset_for_test();

#endif
