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

/* Trace-log writers for the extension's own diagnostics. Each writes one record to the
 * agent's trace log (logs/qv_trace_*.log_0|_1 under the agent home) when its level test holds,
 * and does nothing before the agent has opened its log:
 *   qvlb_mt_trace_log_win     writes when the agent trace level >= level
 *   qvlb_mt_trace_log_win_ai  writes when the auto-instrumentation trace level >= level
 *   qvlb_mt_trace_log_win_dd  writes when the dynamic-diagnostics trace level >= level
 *   qvlb_mt_trace_log_mem     writes whenever memory tracing is on; level is ignored
 * thread_name may be NULL (printed "(null)"); format is printf-style. A record longer than
 * 8192 bytes is cut. Safe to call from any thread. */
QV_EXPORT void qvlb_mt_trace_log_win(int level, const char* thread_name, long long thread_id, const char* module,
                                     const char* severity, const char* file, int line, const char* fname,
                                     const char* format, ...) __attribute__((format(printf, 9, 10)));
QV_EXPORT void qvlb_mt_trace_log_win_ai(int level, const char* thread_name, long long thread_id,
                                        const char* module, const char* severity, const char* file, int line,
                                        const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));
QV_EXPORT void qvlb_mt_trace_log_win_dd(int level, const char* thread_name, long long thread_id,
                                        const char* module, const char* severity, const char* file, int line,
                                        const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));
QV_EXPORT void qvlb_mt_trace_log_mem(int level, const char* thread_name, long long thread_id, const char* module,
                                     const char* severity, const char* file, int line, const char* fname,
                                     const char* format, ...) __attribute__((format(printf, 9, 10)));

#ifdef __cplusplus
}
#endif

#endif /* QV_SDK_H */
