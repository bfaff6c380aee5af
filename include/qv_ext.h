/* Extension interface of the Quovix agent core (libqvagent.so): what a language extension uses to
 * trace requests. It writes the same records as the SDK of qv_sdk.h, but with true times (a
 * monotonic clock mapped onto the collector's time base), records returned to the pool at request
 * end, a start-up that never waits, a working agent in every forked child, and methods and
 * backends named once and referred to by id.
 *
 * Conventions for every function:
 * - Strings are only read during the call and may be freed afterwards; the agent copies what it
 *   keeps. NULL is accepted wherever a string is optional (said per argument).
 * - Nothing raises, aborts or waits for the network. A wrong argument returns a negative code and
 *   is written to the agent's trace log the first time that code is returned (not again, so a
 *   faulty caller cannot fill the log).
 * - A request that is not traced (no collector start command yet, instrumentation stopped,
 *   capacity reached) gets the handle 0; every call on handle 0 returns QV_EXT_NOT_TRACED and does
 *   nothing, so the caller needs no branch of its own.
 * - Before qv_ext_init and after qv_ext_shutdown every call returns QV_EXT_E_STATE (registration
 *   works at any time).
 * - Times are taken by the agent when the call is made. */
#ifndef QV_EXT_H
#define QV_EXT_H

#include <stdint.h>

#include "qv_sdk.h" /* QV_EXPORT */

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
#define QV_EXT_OK 0
#define QV_EXT_NOT_TRACED 1    /* handle 0: the request is not traced; nothing done */
#define QV_EXT_E_ARG (-1)      /* NULL, empty or out-of-range argument; unbalanced exit or end */
#define QV_EXT_E_HANDLE (-2)   /* the request handle is unknown or its request has ended */
#define QV_EXT_E_STATE (-3)    /* before qv_ext_init or after qv_ext_shutdown */
#define QV_EXT_E_CAPACITY (-4) /* no room left for another method or backend id */

/* Backend kinds of qv_ext_backend_register. */
#define QV_EXT_BACKEND_HTTP 1
#define QV_EXT_BACKEND_DB 2

/* A traced request: an opaque number, 0 for "not traced". A handle whose request has ended is
 * recognised as stale (QV_EXT_E_HANDLE), even when its slot serves a newer request. One request
 * is used by one thread at a time (any thread, handed over with the caller's own ordering). */
typedef uint64_t qv_ext_request;

/* Starts the agent: reads the settings of the agent home (QVHOME) and returns at once; the
 * collector connection is made in the background, and requests begun before the collector's
 * start command are not traced. A process that forks afterwards gets an independent agent in each
 * child (its own threads, connection and ids, started by the child's first qv_ext_request_begin);
 * requests the parent had running are stale in the child. Returns QV_EXT_OK, also when already
 * started. Call from one thread, before the other functions (except the registrations). */
QV_EXPORT int qv_ext_init(void);

/* Stops the agent's threads (each wait bounded). Running requests become stale; later calls
 * return QV_EXT_E_STATE. The agent cannot be started again in this process. No other call may
 * run meanwhile. */
QV_EXPORT void qv_ext_shutdown(void);

/* Registers a method (a function or "Class::method") by name and returns its id (> 0), the same
 * id for the same name for the life of the process, across test runs and in forked children;
 * QV_EXT_E_ARG for a NULL/empty name, QV_EXT_E_CAPACITY when 65535 names are registered. The name
 * is copied. Any thread, at any time (also before qv_ext_init). */
QV_EXPORT int qv_ext_method_register(const char* name);

/* Registers a backend (the host or data source a callout goes to) of kind QV_EXT_BACKEND_HTTP or
 * QV_EXT_BACKEND_DB and returns its id (> 0); as qv_ext_method_register otherwise. A name
 * registered once keeps its first kind. */
QV_EXPORT int qv_ext_backend_register(const char* name, int kind);

/* Begins a request for url (path with optional "?query", used for naming its business
 * transaction). bt_header_value: the value of the header the header-based BT rule names, or NULL.
 * Stores the handle in *request: non-zero and QV_EXT_OK when traced, 0 and QV_EXT_NOT_TRACED when
 * not. QV_EXT_E_ARG (and *request 0 when request is not NULL) for a NULL/empty url or NULL
 * request. Any thread. */
QV_EXPORT int qv_ext_request_begin(const char* url, const char* bt_header_value, qv_ext_request* request);

/* Entry and exit of the method method_id inside the request. Exits must match entries in reverse
 * order (QV_EXT_E_ARG otherwise, and nothing is recorded); an exit carries the method's duration.
 * Nesting deeper than 256 is still recorded, with duration 0 for the exits beyond it. No string
 * work or allocation once a method has been seen in the current test run. */
QV_EXPORT int qv_ext_method_entry(qv_ext_request request, int method_id);
QV_EXPORT int qv_ext_method_exit(qv_ext_request request, int method_id);

/* A callout to backend backend_id: begin at the call, end when it returns. detail is the SQL text
 * of a database callout (required for QV_EXT_BACKEND_DB) or the URL of an HTTP one (may be NULL).
 * Callouts of one request nest at most 16 deep (QV_EXT_E_ARG beyond); a callout record is written
 * when the outermost callout of its kind ends. error non-zero counts the callout as failed in the
 * backend's statistics. callout_end without an open callout: QV_EXT_E_ARG. */
QV_EXPORT int qv_ext_callout_begin(qv_ext_request request, int backend_id, const char* detail);
QV_EXPORT int qv_ext_callout_end(qv_ext_request request, int error);

/* Ends the request with its HTTP status code (e.g. 200, 404; the error statuses the collector
 * configures make it an error) and error non-zero when it failed (an uncaught exception, a fatal
 * error): the request then counts as an error whatever its status. Methods and callouts still
 * open are closed by the end. Writes the request's records, returns its record to the agent's pool
 * and makes the handle stale. QV_EXT_E_ARG for a status outside 0..999. */
QV_EXPORT int qv_ext_request_end(qv_ext_request request, int http_status, int error);

#ifdef __cplusplus
}
#endif

#endif /* QV_EXT_H */
