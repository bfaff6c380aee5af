// The backend monitor: counts outbound calls (database and HTTP callouts, methods registered as
// backends) per thread and, once per report interval, appends one "75" record per backend called.
#ifndef QVBACKENDMONITOR_H
#define QVBACKENDMONITOR_H

#include "backend/QVBackendMonitorDataCounters.h"

struct methodPropProperties;
struct QVPerThreadData_t;

// Entries of the merged array at start-up.
constexpr int QV_IP_INITIAL_AGG_SIZE = 128;

// The process-wide backend monitor. Settings fields are written by the control thread and read
// elsewhere with qv_load/qv_store; backendIDCounter changes atomically. aggDataArraySize,
// aggIPDataArr and the prefixes are guarded by the monitor's lock (growth, prefix refresh and
// generation take it).
struct QVBackendMonitor_t {
    int qvBackendMonTraceLevel;
    int maxIPCount;  // backends before new names fold into "Others"; 32 after the keyword defaults
    char vectorPrefix[1024];
    char vectorPrefixID[64];
    char isBackendMonitorOn;  // counts while non-zero
    int numberOfThreads;      // threads given a monitor model through this monitor
    int aggDataArraySize;
    int monitorIntervalInSecs;                   // not used for the rates (qvMonitorIntervalInSecs is)
    int backendIDCounter;                        // backends registered so far
    QVBackendMonitorDataCounters* aggIPDataArr;  // merged counters by backend identifier
};

// One per application instance (see foundation/qvlb_instance.h).
QVBackendMonitor_t& qvBackendMonitorOfInstance();
#define QVBackendMonitor (qvBackendMonitorOfInstance())

// Start-up and instrumentation start: prefixes, the 128-entry merged array when it does not exist
// yet, every merged entry prepared with initOnStartInstrumentationIP (backends kept),
// numberOfThreads 0, isBackendMonitorOn 1. Allocation failure is logged; the array is then made
// on first need. Control thread.
void QVBackendMonitorInit();

// Same prefixes as the BT monitor, built under the monitor's lock. Null does nothing.
void createVectorPrefixBackend(QVBackendMonitor_t* monitor);
// createVectorPrefixBackend(&QVBackendMonitor); for updateInstanceInfo.
void refreshBackendVectorPrefix();

// Counts one call to backend mpp (its methodId) lasting duration, failed when isError is
// non-zero. Counts only while isBackendMonitorOn is non-zero and the identifier is positive,
// giving the record a monitor model first when it has none. Returns 0 when the call was
// counted and 1 when it was not (logged) -- inverted against the BT and method monitors. Also
// 1 for null arguments or when memory for the block is short. Application thread owning qvTD.
char updateCounterAndDurationForBackend(QVPerThreadData_t* qvTD, methodPropProperties* mpp,
                                        long long duration, char isError);

// Makes room in the merged array for mpp's methodId (growth by handleSizeDataArr's rule, new
// entries prepared) and stores mpp in that entry. Growth failure keeps the old array and refuses
// the backend (logged). Null or a negative id does nothing. Any thread.
void checkAndIncrementAggrBackendDataArray(methodPropProperties* mpp);

// Merges every thread's backend blocks into the merged array (controlThreadTmpLock, each model's
// lockForIP) and appends one 75 record, identifiers from 1 up, for every backend that has a block
// on some thread (also without calls this interval), at buf + *len, each whole or dropped
// (counted, logged) when it does not fit below QV_MONITOR_BUFFER_SIZE. A backend of type 2
// (database) is named getDBIPName(), others by methodName. Reported entries are prepared for the
// next interval. Returns false without records when no thread has a model or buf/len is null,
// else true. Reporting thread.
bool generateAndDumpBackendMonitoringRecord(char* buf, int* len);

// Appends "75,<prefixID><id>:<prefix><name>|<cumCount> <calls/s> <avg> <min> <max> <count>
// <errorCount>\n" at buf + *len and advances *len, only when the whole line fits in the rest of the
// QV_MONITOR_BUFFER_SIZE bytes; otherwise nothing is written, the drop counted
// (qvMonitorRecordsDropped) and logged and false returned. The minimum is printed raw (2147483647 when
// unset). Called with the monitor's lock held.
bool dump75RecordForEveryIP(char* buf, int* len, QVBackendMonitorDataCounters* block, int backendId,
                            const char* name);

// Switches counting: enable > 0 on (1), otherwise off (0). Any thread.
void setBackendMonitorEnabled(int enable);
// Keyword handler of enableBackendMonitor (value, keyword, row index): the value's integer
// (leading decimal number, 0 when none) goes to setBackendMonitorEnabled. -1 for null value.
int setBackendMonitorEnabled(char* value, char* keyword, int index);

// Keyword defaults, run before every start message: monitor off, maxIPCount 32.
void QVBackendMonitorKeywordInit();

// Frees the merged array and the monitor's lock, puts the record back to its start values.
// Tests only; no other thread may use the monitor.
void qvBackendMonitorResetForTest();

#endif
