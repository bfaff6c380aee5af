// The method monitor: counts calls and durations of monitored methods per thread and, once per
// report interval, merges every thread's blocks and appends one "61" record per method called.
#ifndef QVMETHODMONITOR_H
#define QVMETHODMONITOR_H

#include <cstddef>

#include "mm/QVMethodMonitorDataCounters.h"

struct methodPropProperties;
struct QVPerThreadData_t;

// Entries of the merged array at start-up.
constexpr int QV_MM_INITIAL_AGG_SIZE = 128;

// The process-wide method monitor. Settings fields are written by the control thread and read
// elsewhere with qv_load/qv_store. aggDataArraySize, aggMethodDataArr and the two prefixes are
// guarded by the monitor's lock (taken by growth, prefix refresh and generation).
struct QVMethodMonitor_t {
    int aggDataArraySize;                           // entries of aggMethodDataArr
    QVMethodMonitorDataCounters* aggMethodDataArr;  // merged counters by method identifier
    char vectorPrefix[1024];                        // "<tier><sep><server><sep><application><sep>"
    char vectorPrefixID[64];                        // "<tierID>|<appID>|"
    int currentReportingCount;
    int monitorIntervalInSecs;  // not used for the rates (qvMonitorIntervalInSecs is)
    char isMethodMonitorOn;     // counts while non-zero (the keyword stores '1' or '0')
    int methodMonitorTraceLevel;
    int methodMonitorErrorLevel;
    char sendReSetEventOnAggDataConn;
    int maxMethodCount;
    int numberOfThreads;              // threads given a monitor model through this monitor
    char doNotDisacrdAnyTransaction;  // '0' once parsemmDoNotDiscardVal saw a value >= 1
    char qvMethodMonTraceLevel;       // not used
};

// One per application instance (see foundation/qvlb_instance.h).
QVMethodMonitor_t& qvMethodMonitorOfInstance();
#define QVMethodMonitor (qvMethodMonitorOfInstance())

// Start-up: builds the prefixes, clears currentReportingCount and the two levels, makes the
// 128-entry merged array when it does not exist yet (an existing one is kept with its entries),
// sets sendReSetEventOnAggDataConn 0, maxMethodCount 256, numberOfThreads 0, isMethodMonitorOn 1.
// Allocation failure is logged; the array is then made on first need. Control thread.
void QVMethodMonitorInit();

// Formats the two prefixes every monitor record carries: prefix = "%s%c%s%c%s%c" of tier,
// application-server and application names (empty when unset) with QVSettings'
// qvVectorSeperator, prefixID = "%d|%d|" of tierID and appID. Each output is cut to its length;
// null outputs are skipped. Any thread.
void formatMonitorVectorPrefixes(char* prefix, size_t prefixLen, char* prefixID, size_t prefixIDLen);

// Builds monitor's vectorPrefix ("%s%c%s%c%s%c" of tier, server and application names with the
// vector separator; empty names print as "") and vectorPrefixID ("%d|%d|" of tier and
// application identifiers) under the monitor's lock. Null does nothing. Any thread.
void createVectorPrefixMethod(QVMethodMonitor_t* monitor);

// Counts one exit of method mpp lasting duration on the record's thread. Counts only while
// isMethodMonitorOn is non-zero and the method's identifier is positive; gives the record a
// monitor model first when it has none (numberOfThreads + 1 when one had to be created). Returns
// true when counted; false otherwise (logged), also for null arguments or when memory for the
// block is short. Application thread owning qvTD; no allocation after the method's first call.
bool updateCounterAndDurationForMethod(QVPerThreadData_t* qvTD, methodPropProperties* mpp,
                                       long long duration);

// Per-thread update: sets the model's lastUpdateTimeStamp and, under lockForMM, grows mmDataArray
// when methodId does not fit, makes the block when absent, then updateMethodDataCounters.
// Returns 0, or -1 (nothing counted) when qvTD has no model, methodId < 0 or memory is short.
int updatePropertiesOfMethod(QVPerThreadData_t* qvTD, const char* methodName, int methodId,
                             long long duration);

// Makes room in the merged array for mpp's methodId (growth by handleSizeDataArr's rule, new
// entries initialised) and stores mpp in that entry so its record can be named. When growth
// fails the old array is kept and the method is refused (logged). Null or a negative id does
// nothing. Any thread (the registry calls it when a method is registered).
void checkAndIncrementAggrMethodDataArray(methodPropProperties* mpp);

// Merges every thread's method blocks into the merged array (under controlThreadTmpLock and each
// model's lockForMM) and appends one 61 record, identifiers from 1 up, for every method that has
// a block on some thread -- also when it had no call this interval (count 0, the threads' totals
// as cumCount). Records go at buf + *len, each whole only when it fits below
// QV_MONITOR_BUFFER_SIZE, otherwise dropped (counted in qvMonitorRecordsDropped and logged).
// Reported entries are re-initialised. Returns false without records when no thread has a
// monitor model or buf/len is null. Reporting thread.
bool generateAndDumpMethodMonitoringRecord(char* buf, int* len);

// Appends one record "61,<prefixID><id>:<prefix><name>|<cumCount> <calls/s> <avg> <min> <max>
// <count>\n" at buf + *len and advances *len, only when the whole line fits in the rest of the
// QV_MONITOR_BUFFER_SIZE bytes (and *len is within them); otherwise nothing is written, the
// drop is counted (qvMonitorRecordsDropped) and logged, and false returned. The minimum prints through
// checkAndGetLongMinValue (an unset 2147483647 prints as 2147483647.000000). Called with the
// monitor's lock held (the prefixes are read).
bool dump61RecordForEveryMethod(char* buf, int* len, QVMethodMonitorDataCounters* block, int methodId,
                                const char* name);

// Keyword handlers (value, keyword, row index) -> 0, or -1 for a null value (nothing changed).
// value >= 1 stores '1' in isMethodMonitorOn, otherwise '0' (both count: the byte is non-zero).
int parseMethodMonitorKeyword(char* value, char* keyword, int index);
// value >= 1 sets maxMethodCount; otherwise logged and ignored.
int parseMaxMethodCount(char* value, char* keyword, int index);
// value >= 0 sets methodMonitorErrorLevel.
int parseMethodMonitorErrorLevel(char* value, char* keyword, int index);
// methodMonitorTraceLevel = the value's integer.
int parseMethodMonitorTraceLevel(char* value, char* keyword, int index);
// value >= 1 stores the character '0' in doNotDisacrdAnyTransaction; smaller changes nothing.
int parsemmDoNotDiscardVal(char* value, char* keyword, int index);
// Keyword qvVectorSeparator: a non-empty value's first character becomes QVSettings'
// qvVectorSeperator, then updateInstanceInfo. An empty value changes nothing.
int setQVVectorSeperator(char* value, char* keyword, int index);

// Refreshes what is derived from the instance's identity: the vector prefixes of the BT, method
// and (through qvInstanceInfoHooks) backend monitors. Control thread.
void updateInstanceInfo();

// Steps of updateInstanceInfo that belong to higher layers; empty entries are skipped.
struct QVInstanceInfoHooks {
    void (*refreshBackendVectorPrefix)();
};
extern QVInstanceInfoHooks qvInstanceInfoHooks;

// Frees the merged array and the monitor's lock and puts the record back to its start values
// (the hooks are kept). Tests only; no other thread may use the monitor.
void qvMethodMonitorResetForTest();

#endif
