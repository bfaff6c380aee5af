// The control thread: keeps the text control connection to the collector, sends the
// handshake and heartbeats and hands received commands to the command handler.
#ifndef CONTROL_THREAD_H
#define CONTROL_THREAD_H

#include <apr_thread_proc.h>

// 1 while this agent is bound to the master collector (cluster mode). Written by the control
// thread, read by the data thread with qv_load.
extern int isMasterQvc;

// Body of the control thread, started by agent start-up. Currently logs its entry and
// returns; the connection loop is not wired yet.
void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t* thread, void* data);

// Resets this module's globals. Tests only.
void control_thread_reset_for_test();

#endif
