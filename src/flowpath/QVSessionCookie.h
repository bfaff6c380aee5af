// Session cookies of a flowpath: the agent's own session cookie (capture decision kept per visitor
// session), the second cookie carrying the real-user session and page ids, and the key map by
// which a record is found again when enableProxyServer is 1.
//
// Session cookie grammar:  sid=<n>;inst=<0|1>;cnt=<n>;ts=<ms>
//   Fields are separated by ';'; blanks and tabs around a field, its key and its value are
//   ignored; empty fields are skipped; keys may come in any order; unknown keys are ignored and a
//   key given twice keeps its last value. sid (session id, 1 or more) is required; inst (the
//   session's flowpaths are captured) defaults to 0; cnt (flowpaths of the session so far, at most
//   2147483647) and ts (collector-time milliseconds of the session's last flowpath) default to 0.
//   Values are unsigned decimal numbers without sign; a value that is empty, not a number or out
//   of range invalidates the whole cookie, which then has no effect at all.
// Second cookie grammar:  <korSID>|<QVPageID>
//   Two unsigned decimal numbers (each at most 9223372036854775807) joined by one '|', blanks and
//   tabs around each ignored. Anything else has no effect.
#ifndef QVSESSIONCOOKIE_H
#define QVSESSIONCOOKIE_H

struct QVPerThreadData_t;

// Bytes that always hold a session cookie written by getQVSessionCookie.
#define QV_SESSION_COOKIE_MAX 96

// Parses the session cookie into qvSessionId, instrumented, totalFpcount and
// last_fptimestamp_from_cookie. Returns 0, or -1 (record untouched) for null arguments or a
// cookie that does not follow the grammar. No allocation; the caller owns qvTD.
int parseQVCookieStr(const char* QVCookieStr, QVPerThreadData_t* qvTD);

// Records the flowpath just started in the record's session state, for the extension to write
// back as the new cookie (getQVSessionCookie): a live session (qvSessionId non-zero) counts one
// more flowpath (totalFpcount + 1, last_fptimestamp_from_cookie = tlFlowPathTimeStampInMS);
// otherwise a new session begins with qvSessionId = flowpathInstance, instrumented =
// tlIsFPCaptured, totalFpcount 1 and the same time stamp. A null QVCookieStr (the caller does
// not take part in sessions) changes nothing. Null qvTD: nothing.
void setValue(const char* QVCookieStr, QVPerThreadData_t* qvTD);

// Ends the record's session state (all four session fields 0), e.g. when the session expired.
void clearQVSession(QVPerThreadData_t* qvTD);

// Writes the record's session as "sid=%lld;inst=%d;cnt=%d;ts=%lld" into buf (bufSize bytes,
// QV_SESSION_COOKIE_MAX always suffice). Returns the length, or -1 for null arguments, no
// session (qvSessionId 0) or a buffer too small (buf then holds the empty text if bufSize > 0).
int getQVSessionCookie(const QVPerThreadData_t* qvTD, char* buf, int bufSize);

// Parses the second cookie into korSID and QVPageID. Returns 0, or -1 (record untouched).
int parseWBCookieStr(const char* WBCookieStr, QVPerThreadData_t* qvTD);

// Stores qvTD under TLS in qvTDHashMap (the key is copied). Returns 0, or -1 for null arguments,
// an empty key or when the map does not exist (enableProxyServer was 0 at start-up). Any thread.
int set_value(const char* TLS, QVPerThreadData_t* qvTD);

// Record stored under TLS in qvTDHashMap, or null (also for null/empty TLS or no map). Logs
// "going to search tls in hasmap, key = %s, value = %p". Any thread.
QVPerThreadData_t* searchqvTDfromHashMap(const char* TLS);

#endif
