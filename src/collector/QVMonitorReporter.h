// The monitor reporting thread: once per monitor interval it has the BT, backend and method
// monitors append their records (74, 75, 61) into one buffer and sends them over the
// auto-sensor connection. Started at start instrumentation, it ends with the test run.
#ifndef QVMONITORREPORTER_H
#define QVMONITORREPORTER_H

#include <apr_thread_proc.h>

// Bytes of the buffer the generators append into.
#define QV_MONITOR_REPORT_BUFFER_SIZE 131072

// Record generators of the monitors (filled by the BT and monitor layers). Each appends whole
// records at buf + *len, never beyond QV_MONITOR_REPORT_BUFFER_SIZE bytes in total, and advances
// *len; the return value is informational. A null entry is skipped.
struct QVReporterHooks {
    bool (*generateBT)(char* buf, int* len);       // 74 records
    bool (*generateBackend)(char* buf, int* len);  // 75 records
    bool (*generateMethod)(char* buf, int* len);   // 61 records
};
extern QVReporterHooks qvReporterHooks;

// Length of one monitor interval second in milliseconds (default 1000): the thread waits
// qvMonitorIntervalInSecs times this between reports. Tests shorten it.
extern long long monitorReportSecondMs;

// Body of the reporting thread (started by create_autoSensor_thread): opens the auto-sensor
// connection, then every interval generates and sends the records, reconnecting at the next
// interval when the connection was lost (unless the collector closed it with
// AutosensorConnState=0). Ends when the test run stops, the agent stops or stopNIO asks.
void* APR_THREAD_FUNC qvMonitorReporterThread(apr_thread_t* thread, void* data);

// One report: runs the generators in the order BT, backend, method into buf (at least
// QV_MONITOR_REPORT_BUFFER_SIZE bytes) and sends what they appended with
// dumpAndSendDataToQVC(buf, len, 1). Returns the bytes generated (0: nothing sent), or -1 for a
// null buffer. Reporting thread.
int generateAndSendMonitorRecords(char* buf);

// Starts the reporting thread when ASReportInterval is positive. Returns 0 when started, 1 when
// not started (disabled, already running, error).
// Control side.
int startMonitorReporter();

// Resets this module's globals (the hook table is kept). Tests only.
void monitor_reporter_reset_for_test();

#endif
