// The BT monitor: the merged per-BT counters, the vector prefixes naming the agent, counting a
// finished request, the 74 records generated once per report interval, and its keyword handlers.
#ifndef QVBTMONITOR_H
#define QVBTMONITOR_H

#include "bt/QVMonitorCommon.h"

struct BTObject;
struct QVPerThreadData_t;
struct QVBTMonitorDataCounters;

// Scalar settings are written by the control thread and read by application threads: use
// qv_load/qv_store. aggDataArraySize and aggBTDataArr change only under the monitor's merge lock
// (growth moves the array); other threads read aggDataArraySize with qv_load only as a hint.
struct QVBTMonitor_t {
    int aggDataArraySize;                   // entries in aggBTDataArr; 128 at start
    QVBTMonitorDataCounters* aggBTDataArr;  // merged blocks by BT id; entry 0 accumulates all
    char vectorPrefix[1024];                // "<tier><sep><server><sep><app><sep>"
    char vectorPrefixID[64];                // "<tierID>|<appID>|"
    int currentReportingCount;
    int monitorIntervalInSecs;  // unused: rates use QVSettings.qvMonitorIntervalInSecs
    char isBTMonitorOn;         // non-zero counts (the keyword stores '1' or '0', both non-zero)
    int btMonitorTraceLevel;    // unused
    int btMonitorErrorLevel;    // keyword enableBTMonitorError
    char sendReSetEventOnAggDataConn;
    int maxBTCount;  // kept equal to config.max_bt_count
    int numberOfThreads;
    char doNotDisacrdAnyTransaction;  // keyword doNotDiscardFlowPaths: stores '0' for values >= 1
};

// One per application instance (see foundation/qvlb_instance.h).
QVBTMonitor_t& qvBTMonitorOfInstance();
#define QVBTMonitor (qvBTMonitorOfInstance())

// Start-up (from QVBTConfigModelInit): builds the prefixes, allocates and initialises the merged
// array of 128 blocks when absent, and sets the defaults (isBTMonitorOn 1, maxBTCount 256, ...).
// Allocation failure is logged; the monitor then has no merged array and reports nothing.
void QVBTMonitorInit();

// vectorPrefix = "%s%c%s%c%s%c" of tier, application-server and application names (from the
// connection settings) with QVSettings.qvVectorSeperator; vectorPrefixID = "%d|%d|" of tierID
// and appID. Missing names print as "". Serialised with report generation. Null: nothing.
void createVectorPrefix(QVBTMonitor_t* monitor);

// Counts qvTD's finished request (flowpath end): when the monitor is on and tlBTObj's bt_id is
// positive, makes the record's model if absent and calls updatePropertiesOfBT; returns true.
// Otherwise logs and returns false. Application thread of qvTD.
bool updateCounterAndDurationForBT(QVPerThreadData_t* qvTD);

// Makes room in the merged array for obj->bt_id (growth rule of handleSizeDataArr, new blocks
// initialised) and stores obj in that entry. Called by the BT manager when an identifier is given.
// Returns 0, or -1 when obj is null, its id is not positive or the array cannot grow (the old array is
// kept and the identifier refused; logged). Thread-safe.
int checkAndIncrementAggrBTDataArray(BTObject* obj);

// Merges every registered model's BT blocks into the merged array and appends, at buf + *usedLen
// in a buffer of QV_MONITOR_BUFFER_SIZE bytes, one 74 record per BT with data in this interval
// (in identifier order) and the "AllTransactions" record (identifier 0); entries are cleared
// after. Records that do not fit are dropped whole (counted, logged). Returns false (nothing
// appended) when no model is registered or no BT was discovered. Reporting thread; serialised
// with array growth. Null arguments return false.
bool generateAndDumpBTMonitoringRecord(char* buf, int* usedLen);

// Formats the 74 record of c (identifier btId, name btName; null name prints "") into a local
// line and appends it with appendMonitorRecord(buf, usedLen, bufSize, ...). Rates use
// QVSettings.qvMonitorIntervalInSecs; a ratio with a zero divisor prints 0.
void dump74RecordForEveryBT(char* buf, int* usedLen, int bufSize, const QVBTMonitorDataCounters* c, int btId,
                            const char* btName);

// An unset minimum (2147483647, resp. 9223372036854775807) as 500000.0, any other value as itself.
double checkAndGetIntMinValue(long long value);
double checkAndGetLongMinValue(long long value);

// Keyword handlers (value text, keyword, row index) -> 0, or -1 for a null or refused value.
// enableBTMonitor: value > 0 stores '1' in isBTMonitorOn, then '0' when QVSys.btMonitorTraceLevel
// is below 1; value <= 0 changes nothing.
int parseBTMonitorKeyword(char* value, char* keyword, int index);
// maxBTCount: value >= 1 sets maxBTCount and config.max_bt_count; else logged and refused.
int parseMaxBTCount(char* value, char* keyword, int index);
// BTAggDataArraySize: only a larger size is taken; the merged array grows with initialised blocks.
int parseBTAggDataArraySize(char* value, char* keyword, int index);
// enableBTMonitorError: value >= 0 sets btMonitorErrorLevel.
int parseBTMonitorErrorLevel(char* value, char* keyword, int index);
// doNotDiscardFlowPaths: value >= 1 stores the character '0' in doNotDisacrdAnyTransaction.
int parseDoNotDiscardVal(char* value, char* keyword, int index);

// Frees the merged array and zeroes QVBTMonitor. Tests only.
void qvBTMonitorResetForTest();

#endif
