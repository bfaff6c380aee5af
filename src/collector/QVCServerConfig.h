// Collector list and retry policy of the control connection: which collector (primary or
// backup) the agent talks to, how often it retries and when it switches over.
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
// One per application instance (see foundation/qvlb_instance.h).
retryPolicy& qvRetryPolicyOfInstance();
#define retry_policy (qvRetryPolicyOfInstance())

// Wait between connection attempts in milliseconds, copied into retry_policy.time_interval by
// init_qvc_server_config (default 60000). Tests shorten it before the control thread starts.
extern long long controlRetryIntervalMs;

// Sets the retry policy defaults (time_interval from controlRetryIntervalMs) and logs them.
// Control thread.
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

// Stores host and port into entry idx of the collector list, growing the list (by 5 entries) when
// needed, and marks the entry valid. Used by the cluster-mode reroute for entry 1. Returns 0, or
// -1 for a bad argument or when memory is short (list unchanged). Control thread.
int set_qvc_server_entry(int idx, const char* host, int port);

// Moves active_qvc_idx to the next configured collector (fewer than num_qvc_config entries
// passed and the entry exists), else back to 0; logged. Control thread.
void lookup_for_next_qvc();

// After the retry limit: with backups (qv_dr_state) marks the current entry failed and moves to
// the next one; without backups goes back to entry 0. The chosen entry's state becomes 1.
// Control thread.
void connection_retry_failed();

// Builds "qv_control_req:action=reconnect;heartBeat %d;\n" with heartbeat_count into
// QVBCISetting.control_conn_heartbeat_msg (and its length). Control thread.
void make_control_conn_heartbeat_msg();

// Accepts the policy text of the collector's reply and returns 0; the policy is not changed by
// the collector. Null is accepted.
int parse_policy_from_clientMsg(char* msg);

// Nested mutex guarding qvc_server_arr and server_arr_size against readers on other threads.
// Whoever replaces the list (clear plus read_conf_file) holds it. Created on first use, never
// freed.
apr_thread_mutex_t* qvc_server_lock();

// Restores the policy defaults and controlRetryIntervalMs without logging. Tests only.
void qvc_server_config_reset_for_test();

#endif
