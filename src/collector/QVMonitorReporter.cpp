// The monitor reporting thread: every monitor interval the 74, 75 and 61 records go out over
// the auto-sensor connection.
#include "collector/QVMonitorReporter.h"

#include "collector/NIODataDispatcher.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_mutex.h"
#include "foundation/qvlb_util.h"

QVReporterHooks qvReporterHooks = {};
long long monitorReportSecondMs = 1000;

namespace {

const char* const kModule = "CONTROL_THREAD";
constexpr int kDefaultIntervalSecs = 60;

int ctlLevel() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

bool mustEnd() {
    return qv_load(qvAgentStopping) != 0 || autoSensorThreadToStop();
}

bool runStopped() {
    QVProxyInstance_t* app = qvApplication;
    return app == nullptr || qv_load(app->Server.testRunRunning) == 0 ||
           qv_load(app->Server.retryForAutoSensorConn) == 0;
}

// Waits one monitor interval in short slices; false when the thread is to end or the run stopped.
bool waitInterval() {
    int secs = qv_load(QVSettings.qvMonitorIntervalInSecs);
    if (secs <= 0) secs = kDefaultIntervalSecs;
    long long ms = static_cast<long long>(secs) * qv_load(monitorReportSecondMs);
    while (ms > 0) {
        if (mustEnd() || runStopped()) return false;
        const long long slice = ms < 20 ? ms : 20;
        qvlb_sleep_ms_interruptible(slice, &qvAgentStopping);
        ms -= slice;
    }
    return !mustEnd() && !runStopped();
}

bool connected() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr && qv_load(app->qvcASSocket) != nullptr;
}

// Keeps a generator's length within the buffer whatever it did.
void clampLen(int* len) {
    if (*len < 0) *len = 0;
    if (*len > QV_MONITOR_REPORT_BUFFER_SIZE) *len = QV_MONITOR_REPORT_BUFFER_SIZE;
}

}  // namespace

int generateAndSendMonitorRecords(char* buf) {
    if (buf == nullptr) return -1;
    int len = 0;
    buf[0] = '\0';
    if (qvReporterHooks.generateBT) qvReporterHooks.generateBT(buf, &len);
    clampLen(&len);
    if (qvReporterHooks.generateBackend) qvReporterHooks.generateBackend(buf, &len);
    clampLen(&len);
    if (qvReporterHooks.generateMethod) qvReporterHooks.generateMethod(buf, &len);
    clampLen(&len);
    if (len > 0) dumpAndSendDataToQVC(buf, len, 1);
    QV_TRACE_IF(ctlLevel() == 4, kModule, "Info", "Monitor records generated: %d bytes", len);
    return len;
}

void* APR_THREAD_FUNC qvMonitorReporterThread(apr_thread_t*, void*) {
    // Not at a lowered priority: the merge holds each model's lock in turn, and a request of that
    // model's record would wait for as long as this thread waited for a CPU again.
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Monitor reporting thread started.");
    // One buffer per thread run; the generators append into it every interval.
    char* buf = static_cast<char*>(qvlb_malloc(QV_MONITOR_REPORT_BUFFER_SIZE, "monitor report buffer", -1));
    if (buf == nullptr) {
        cleanAutoSensorThread();
        return nullptr;
    }
    ASNioInit();
    startASNDCollectorCommunication();
    while (!mustEnd()) {
        if (checkAndStopThreadAS() != 0) break;
        if (!waitInterval()) continue;
        // A lost connection is made again at the next report, unless the collector closed it.
        QVProxyInstance_t* app = qvApplication;
        if (!connected() && app != nullptr && qv_load(app->QVSys.autosensorConnState) != 0) {
            startASNDCollectorCommunication();
            if (mustEnd()) break;
        }
        generateAndSendMonitorRecords(buf);
    }
    // Ending because the agent stops or stopNIO asked: nobody cleaned the thread yet.
    if (!autoSensorThreadToStop()) cleanAutoSensorThread();
    closeAutoSensorConnection();
    qvlb_free(buf, "monitor report buffer", -1);
    QV_TRACE_IF(ctlLevel() > 0, kModule, "Info", "Monitor reporting thread ended.");
    return nullptr;
}

int startMonitorReporter() {
    if (qv_load(QVASSettings.ASReportInterval) <= 0) {
        QV_TRACE_IF(ctlLevel() > 0, kModule, "Info",
                    "Thread report interval is 0; no monitor reporting thread.");
        return 1;
    }
    // The request line is built by the thread for each connection it makes.
    return create_autoSensor_thread();
}

void monitor_reporter_reset_for_test() {
    qv_store(monitorReportSecondMs, 1000LL);
}
