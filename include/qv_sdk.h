/* Public interface of the Quovix agent core (libqvagent.so) for language extensions.
 * This is the only header an extension needs; every other symbol of the library is hidden. */
#ifndef QV_SDK_H
#define QV_SDK_H

#if defined(QV_BUILDING_AGENT)
#define QV_EXPORT __attribute__((visibility("default")))
#else
#define QV_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Transactions, methods and callouts ----
 *
 * Calling order: qv_init once per process; per request qv_bt_begin, any number of balanced
 * qv_method_entry/qv_method_exit pairs and callout begin/end pairs on the returned handle, then
 * qv_bt_end; qv_free once at process end. Every call writes its lines to the SDK's own log file,
 * "/opt/korlund/quovix/logs/qv_sdk_<YYYYMMDDhhmmss>_<pid>.log_0" (whatever QVHOME says), set up
 * by the first qv_init; without it nothing is logged. The directory must exist and be writable:
 * the SDK does not create it, and reports each line it cannot write on standard error. No function raises or
 * aborts: bad arguments are logged and answered with NULL, -1 or nothing. Text arguments are
 * only read; a log line is cut at 8191 bytes. */

/* A transaction (one flowpath). Opaque; valid from qv_bt_begin to qv_bt_end. A handle is not
 * checked beyond NULL: pass only handles returned by this library. */
typedef void* qvBTHandle;
/* The backend (integration point) of a callout. Opaque; lives as long as the process. */
typedef void* qvIPCallOutHandle;

/* Starts the agent: SDK log, agent start-up with a collector connection, the SDK's table of
 * stored transactions. Then pauses 30 seconds (the agent connects meanwhile); the pause ends
 * early when the agent is shut down. Call once, before any other function, from one thread. */
QV_EXPORT void qv_init(void);

/* Stops the agent's threads (waits are bounded; they do not start again in this process), then
 * releases what qv_init created: the table of stored transactions (their handles become
 * unreachable through qv_bt_get). The SDK log stays open (its lines so far written out): later
 * calls, and a later qv_init, log on into the same file. No other SDK call may run meanwhile. */
QV_EXPORT void qv_free(void);

/* Starts a transaction named bt_name (also its URL). correlation_header is only logged.
 * Returns the handle, or NULL for a NULL/empty name or when no transaction can be started
 * (no test run, instrumentation stopping, no memory). Any thread. */
QV_EXPORT qvBTHandle qv_bt_begin(char* bt_name, char* correlation_header);

/* Entry and exit of method inside the transaction. Ignored (logged) for a NULL handle or a
 * NULL/empty method. The handle's own thread (or one that fetched it with qv_bt_get). */
QV_EXPORT void qv_method_entry(qvBTHandle bt_handle, char* method);
QV_EXPORT void qv_method_exit(qvBTHandle bt_handle, char* method);

/* Ends the transaction (status 200) and writes its end record. The handle must not be used
 * afterwards. Returns 0, or -1 for a NULL handle. */
QV_EXPORT int qv_bt_end(qvBTHandle bt_handle);

/* Stores bt_handle under unique_bt_id (copied) so that qv_bt_get can find it elsewhere; the
 * first handle stored under an id stays. Entries live until qv_free; a stored handle must not be
 * fetched after its qv_bt_end. NULL handle or NULL/empty id: logged, nothing stored. Any
 * thread, after qv_init. */
QV_EXPORT void qv_bt_store(qvBTHandle bt_handle, char* unique_bt_id);

/* The handle stored under unique_bt_id, or NULL (unknown, NULL/empty id, before qv_init). */
QV_EXPORT qvBTHandle qv_bt_get(char* unique_bt_id);

/* Kept for extensions that call it: does nothing and returns 0. */
QV_EXPORT int qv_bt_add_error(qvBTHandle bt_handle, int err_level, char* message, int mark_bt_as_error);

/* Database callout: begin records db_query for the transaction and returns the backend named
 * db_host (created on first use), or NULL for a NULL handle or a NULL/empty host or query. end
 * writes the callout record when the outermost database callout closes; 0, or -1 when a
 * handle is NULL. Callouts of one kind may nest: each begin restarts the shared start time. */
QV_EXPORT qvIPCallOutHandle qv_ip_db_callout_begin(qvBTHandle bt_handle, char* db_host, char* db_query);
QV_EXPORT int qv_ip_db_callout_end(qvBTHandle bt_handle, qvIPCallOutHandle ip_handle);

/* HTTP callout to http_host; url is only checked and logged. Results as for the database
 * callout. */
QV_EXPORT qvIPCallOutHandle qv_ip_http_callout_begin(qvBTHandle bt_handle, char* http_host, char* url);
QV_EXPORT int qv_ip_http_callout_end(qvBTHandle bt_handle, qvIPCallOutHandle ip_handle);

/* ---- Trace log ---- */

/* Trace-log writers for the extension's own diagnostics. Each writes one record to the
 * agent's trace log (logs/qv_trace_*.log_0|_1 under the agent home) when its level test holds,
 * and does nothing before the agent has opened its log:
 *   qvlb_mt_trace_log_win     writes when the agent trace level >= level
 *   qvlb_mt_trace_log_win_ai  writes when the auto-instrumentation trace level >= level
 *   qvlb_mt_trace_log_win_dd  writes when the dynamic-diagnostics trace level >= level
 *   qvlb_mt_trace_log_mem     writes whenever memory tracing is on; level is ignored
 * thread_name may be NULL (printed "(null)"); format is printf-style. A record longer than
 * 8192 bytes is cut. Safe to call from any thread. */
QV_EXPORT void qvlb_mt_trace_log_win(int level, const char* thread_name, long long thread_id,
                                     const char* module, const char* severity, const char* file, int line,
                                     const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));
QV_EXPORT void qvlb_mt_trace_log_win_ai(int level, const char* thread_name, long long thread_id,
                                        const char* module, const char* severity, const char* file, int line,
                                        const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));
QV_EXPORT void qvlb_mt_trace_log_win_dd(int level, const char* thread_name, long long thread_id,
                                        const char* module, const char* severity, const char* file, int line,
                                        const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));
QV_EXPORT void qvlb_mt_trace_log_mem(int level, const char* thread_name, long long thread_id,
                                     const char* module, const char* severity, const char* file, int line,
                                     const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));

#ifdef __cplusplus
}
#endif

#endif /* QV_SDK_H */
