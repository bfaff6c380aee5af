// Tests of the auto-sensor connection (buffer pool limits, store codes, request line, send and
// stop rules) and of the monitor reporting thread, against a real loopback collector.
#include "collector/NIODataDispatcher.h"

#include "collector_fixture.h"
#include "core/QVConfig.h"

namespace {

class AutoSensor : public BareCollectorTest {
  protected:
    void pool(int minCount, int maxCount, int size) {
        app_->QVSys.ASDataBuffMinCount = minCount;
        app_->QVSys.ASDataBuffMaxCount = maxCount;
        app_->QVSys.bciASDataBufferMaxSize = size;
    }
    void running() {
        runAgainstPeer();
        qv_store(app_->Server.retryForAutoSensorConn, 1);
        setControlAutoSensorReqMessage();
    }
    std::string requestLine() const {
        return "auto_sensor_thread_hotspot_data_req:appName=agentA;appID=3;qvAppServerID=4;qvAppServerHost="
               "srv1;tierName=tierT;tierID=5;QVCollectorIP=127.0.0.1;QVCollectorPort=" +
               std::to_string(app_->QVBCISetting.qvcPort) + ",testIdx=77;pid=" + std::to_string(getpid()) +
               ";agentName=agentA\n";
    }
    // Fills the current buffer completely, which queues it.
    void fillOne(int size) {
        ASSERT_EQ(dumpASData(std::string(static_cast<size_t>(size), 'f').c_str(), size), 0);
    }
    int dumpAndSend(std::string rec, int flush) {
        return dumpAndSendDataToQVC(rec.data(), static_cast<int>(rec.size()), flush);
    }
};

TEST_F(AutoSensor, PoolNeverExceedsMaximumGrowsInStepsAndWarns) {
    EXPECT_EQ(dumpASData("x", 1), -99);  // nothing initialised yet
    pool(8, 5, 32);
    ASSERT_EQ(buff_list_initAS(), 0);
    EXPECT_EQ(buff_list_initAS(), 0);  // kept while buffers are free
    for (int i = 0; i < 5; ++i) fillOne(32);
    EXPECT_EQ(buff_list_initAS(), 1);  // the maximum is reached
    EXPECT_EQ(curBuffers, 5);
    // The store codes are the data dispatcher's; the warning is this connection's own.
    EXPECT_EQ(dumpASData("x", 1), -2);
    EXPECT_EQ(discards(), 2);
    EXPECT_TRUE(
        logged("QVDataDispatcher - dumpData(): Warning - No space left in buffer orthread is not initialized "
               "for sending data to QVCollector. Return = -2, writeListSize = 0readListSize = 5, "
               "totalDumpBytes = 160  totalSentToQVCBytes = 0  bytesPending = 160 MsgCount = 5"))
        << home_.traceLogs();
    // Growth in steps of the minimum, capped by what the maximum leaves.
    nio_data_dispatcher_reset_for_test();
    pool(2, 5, 32);
    ASSERT_EQ(buff_list_initAS(), 0);
    for (int step : {2, 4, 5}) {
        EXPECT_EQ(curBuffers, step);
        while (writeListAS != nullptr) fillOne(32);
        EXPECT_EQ(buff_list_initAS(), step == 5 ? 1 : 0);
    }
}

TEST_F(AutoSensor, ConnectionSendsRequestRecordsStopsWithRunAndTimesOutOnAStalledCollector) {
    pool(2, 4, 64);
    running();
    ASSERT_FALSE(startASNDCollectorCommunication());
    ASSERT_TRUE(peer_.waitForContains(0, requestLine(), kWaitMs));
    // A full pool: the record is stored after a synchronous send of what is queued.
    std::string expected = requestLine();
    for (int i = 0; i < 20; ++i) {
        const std::string rec = "74," + std::to_string(i) + "," + std::string(40, 'r') + "\n";
        ASSERT_EQ(dumpAndSend(rec, i == 19 ? 1 : 0), 0) << i;
        expected += rec;
    }
    // While the run goes on nothing stops; once it ends the pending record is flushed and the
    // connection closed.
    EXPECT_EQ(checkAndStopThreadAS(), 0);
    ASSERT_EQ(dumpASData("75,pending\n", 11), 0);
    qv_store(app_->Server.retryForAutoSensorConn, 0);
    EXPECT_EQ(checkAndStopThreadAS(), 1);
    EXPECT_TRUE(autoSensorThreadToStop());
    ASSERT_TRUE(peer_.waitForContains(0, "75,pending\n", kWaitMs));
    EXPECT_EQ(peer_.bytes(0), expected + "75,pending\n");
    EXPECT_EQ(discards(), 0);
    EXPECT_EQ(qv_load(app_->qvcASSocket), nullptr);

    // A collector that stops reading: a send times out, which closes the connection and sets the
    // retry flag; the next connection carries on after what went out.
    qv_store(app_->Server.retryForAutoSensorConn, 1);
    ASSERT_FALSE(startASNDCollectorCommunication());
    EXPECT_EQ(qv_load(qvAutoSensorState().retryFlag), 0);
    ASSERT_TRUE(peer_.waitForContains(1, requestLine(), kWaitMs));
    peer_.pauseReading(1, true);
    qv_store(qvlbSendTimeoutMs, 50);
    std::string stored;
    for (int i = 0; i < 200000 && qv_load(qvAutoSensorState().retryFlag) == 0; ++i) {
        const std::string rec = "74," + std::to_string(i) + "," + std::string(50, 's') + "\n";
        if (dumpAndSend(rec, 1) == 0) stored += rec;
    }
    EXPECT_EQ(qv_load(app_->qvcASSocket), nullptr);
    EXPECT_EQ(sendDataToQVC(), -1);  // no connection: nothing sent, nothing lost
    peer_.pauseReading(1, false);
    ASSERT_FALSE(startASNDCollectorCommunication());
    flushDataAS();
    auto received = [&] {
        const std::string a = peer_.bytes(1), b = peer_.bytes(2), head = requestLine();
        return a.substr(std::min(a.size(), head.size())) + b.substr(std::min(b.size(), head.size()));
    };
    ASSERT_TRUE(waitUntil(
        [&] { return peer_.byteCount(1) + peer_.byteCount(2) >= stored.size() + 2 * requestLine().size(); }));
    EXPECT_TRUE(received() == stored)
        << received().size() << " bytes received, " << stored.size() << " stored";
    // A connect failure is reported and logged.
    qvconfig_reset();
    ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", 1), 0);
    EXPECT_TRUE(startASNDCollectorCommunication());
    EXPECT_TRUE(logged("[QV DR Feature]; Error while creating the AutoSensor connection with 127.0.0.1:1."));
}

// A monitor-record generator that appends Text.
template <const char* Text>
bool append(char* buf, int* len) {
    *len += static_cast<int>(strlen(strcpy(buf + *len, Text)));
    return true;
}
constexpr char kBT[] = "74,bt\n", kBackend[] = "75,be\n", kMethod[] = "61,m\n";

// The reporting thread runs while the test thread changes the run's flags and drops connections.
class ReporterConcurrency : public AutoSensor {};

TEST_F(ReporterConcurrency, ReportsInOrderReconnectsAndEndsWithRun) {
    pool(2, 4, 1024);
    running();
    qvReporterHooks.generateBT = append<kBT>;
    qvReporterHooks.generateBackend = append<kBackend>;
    qvReporterHooks.generateMethod = append<kMethod>;
    qv_store(QVSettings.qvMonitorIntervalInSecs, 1);
    qv_store(monitorReportSecondMs, 30LL);
    qv_store(QVASSettings.ASReportInterval, 0);
    EXPECT_EQ(startMonitorReporter(), 1);  // report interval 0: no thread
    qv_store(QVASSettings.ASReportInterval, 60);
    ASSERT_EQ(startMonitorReporter(), 0);
    EXPECT_EQ(create_autoSensor_thread(), 1);  // already running
    const std::string report = "74,bt\n75,be\n61,m\n";
    ASSERT_TRUE(peer_.waitForContains(0, requestLine() + report + report, kWaitMs));
    EXPECT_EQ(peer_.bytes(0).rfind(requestLine(), 0), 0u);

    // A lost connection is made again at a following report.
    peer_.dropConnection(0);
    ASSERT_TRUE(peer_.waitForContains(1, requestLine() + report, kWaitMs));

    qv_store(app_->Server.testRunRunning, 0);
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.autoSensor_thread_running) == 0; }));
    stopNIO();
    EXPECT_EQ(autoSensor_thread_id, nullptr);
}

}  // namespace
