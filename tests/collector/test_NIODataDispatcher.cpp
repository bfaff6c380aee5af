// Tests of the auto-sensor connection (buffer pool limits, store codes, request line, send and
// stop rules) and of the monitor reporting thread, against a real loopback collector.
#include "collector/NIODataDispatcher.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "collector/QVCServerConfig.h"
#include "collector/QVMonitorReporter.h"
#include "core/QVConfig.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "support/loopback_peer.h"

namespace {

constexpr int kWaitMs = 20000;  // safety net only

class AutoSensor : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&app_, 0, sizeof(app_));
        app_.agentName = const_cast<char*>("agentA");
        app_.QVSys.controlTraceLevel = 1;
        app_.QVSys.autosensorConnState = 1;
        app_.QVBCISetting.appID = 3;
        app_.QVBCISetting.serverID = 4;
        app_.QVBCISetting.tierID = 5;
        app_.QVBCISetting.appServerName = const_cast<char*>("srv1");
        app_.QVBCISetting.tierName = const_cast<char*>("tierT");
        app_.QVBCISetting.qvcHost = const_cast<char*>("127.0.0.1");
        app_.Server.TestRunIDValue = 77;
        qvApplication = &app_;
        char tmpl[] = "/tmp/qv_nio_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        trace_log_key = qvlb_init_mt_trace_log_ex(dir_.c_str(), "nio", 1, 10);
    }
    void TearDown() override {
        nio_data_dispatcher_reset_for_test();
        monitor_reporter_reset_for_test();
        qvReporterHooks = QVReporterHooks{};
        qvconfig_reset();
        qvSettingRecordsReset();
        qvlb_trace_log_reset_for_test();
        qvApplication = nullptr;
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (system(cmd.c_str()) != 0) ADD_FAILURE() << cmd;
    }
    void pool(int minCount, int maxCount, int size) {
        app_.QVSys.ASDataBuffMinCount = minCount;
        app_.QVSys.ASDataBuffMaxCount = maxCount;
        app_.QVSys.bciASDataBufferMaxSize = size;
    }
    std::string log() const {
        std::ifstream in(dir_ + "/nio_0");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void running(LoopbackPeer& peer) {
        ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", peer.port()), 0);
        app_.QVBCISetting.qvcPort = peer.port();
        qv_store(app_.Server.testRunRunning, 1);
        qv_store(app_.Server.retryForAutoSensorConn, 1);
        setControlAutoSensorReqMessage();
    }
    std::string requestLine() const {
        return "auto_sensor_thread_hotspot_data_req:appName=agentA;appID=3;qvAppServerID=4;qvAppServerHost="
               "srv1;"
               "tierName=tierT;tierID=5;QVCollectorIP=127.0.0.1;QVCollectorPort=" +
               std::to_string(app_.QVBCISetting.qvcPort) + ",testIdx=77;pid=" + std::to_string(getpid()) +
               ";agentName=agentA\n";
    }
    // Fills the current buffer completely, which queues it.
    void fillOne(int size) {
        ASSERT_EQ(dumpASData(std::string(static_cast<size_t>(size), 'f').c_str(), size), 0);
    }

    QVProxyInstance_t app_;
    std::string dir_;
};

TEST_F(AutoSensor, PoolNeverExceedsMaximumAcrossInitialisations) {
    EXPECT_EQ(dumpASData("x", 1), -99);  // nothing initialised yet
    pool(8, 5, 32);
    ASSERT_EQ(buff_list_initAS(), 0);
    EXPECT_EQ(curBuffers, 5);
    EXPECT_EQ(writeListSizeAS, 5);
    EXPECT_NE(
        log().find("buff_list_init : bciASDataBufferMaxSize = 32, ASDataBuffMinCount = 8, curBuffers = 0, "
                   "maxBuffersAS = 5"),
        std::string::npos);
    EXPECT_EQ(buff_list_initAS(), 0);  // kept while buffers are free
    EXPECT_EQ(curBuffers, 5);
    for (int i = 0; i < 5; ++i) fillOne(32);
    ASSERT_EQ(writeListAS, nullptr);
    EXPECT_EQ(buff_list_initAS(), 1);  // the maximum is reached
    EXPECT_EQ(curBuffers, 5);
    EXPECT_EQ(dumpASData("x", 1), -2);

    // Growth in steps of the minimum, capped by what the maximum leaves.
    nio_data_dispatcher_reset_for_test();
    pool(2, 5, 32);
    ASSERT_EQ(buff_list_initAS(), 0);
    for (int step : {2, 4, 5}) {
        EXPECT_EQ(curBuffers, step);
        while (writeListAS != nullptr) fillOne(32);
        EXPECT_EQ(buff_list_initAS(), step == 5 ? 1 : 0);
    }
    EXPECT_EQ(readListSizeAS, 5);
}

TEST_F(AutoSensor, StoreCodesAndWarning) {
    pool(3, 3, 16);
    ASSERT_EQ(buff_list_initAS(), 0);
    EXPECT_EQ(dumpASData("AAAAAAAAAA", 10), 0);
    EXPECT_EQ(dumpASData("BBBBBBBBBB", 10), 0);  // spills into the second buffer
    EXPECT_EQ(readListSizeAS, 1);
    EXPECT_EQ(std::string(QVCollectorBBAS->buff, 16), "AAAAAAAAAABBBBBB");
    EXPECT_EQ(dumpASData(std::string(30, 'C').c_str(), 30), -3);  // longer than a buffer: cut
    EXPECT_EQ(std::string(QVBCIAgentBBAS->buff, QVBCIAgentBBAS->use_len), "\n");
    EXPECT_EQ(dumpASData(std::string(20, 'D').c_str(), 20), -1);  // the last buffer takes no spill
    EXPECT_EQ(qv_load(app_.QVSys.discardCount), 2);
    EXPECT_NE(
        log().find(
            "QVDataDispatcher - dumpData(): Warning - No space left in buffer orthread is not initialized "
            "for sending data to QVCollector. Return = -1, writeListSize = 1readListSize = 2, "
            "totalDumpBytes = 20  totalSentToQVCBytes = 0  bytesPending = 20 MsgCount = 2"),
        std::string::npos)
        << log();
    char summary[512];
    EXPECT_NE(std::string(nioASDataDispatcherToString(summary, sizeof(summary))).find("curBuffers = 3"),
              std::string::npos);
}

TEST_F(AutoSensor, ConnectionSendsRequestRecordsAndStopsWithRun) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    pool(2, 4, 64);
    running(peer);
    ASSERT_FALSE(startASNDCollectorCommunication());
    ASSERT_TRUE(peer.waitForContains(0, requestLine(), kWaitMs));
    EXPECT_EQ(peer.bytes(0), requestLine());
    EXPECT_EQ(qv_load(retryFlag), 0);

    // A full pool: the record is stored after a synchronous send of what is queued.
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        std::string rec = "74," + std::to_string(i) + "," + std::string(40, 'r') + "\n";
        ASSERT_EQ(dumpAndSendDataToQVC(rec.data(), static_cast<int>(rec.size()), 0), 0) << i;
        expected += rec;
    }
    std::string last = "61,last\n";
    ASSERT_EQ(dumpAndSendDataToQVC(last.data(), static_cast<int>(last.size()), 1), 0);
    expected += last;
    ASSERT_TRUE(peer.waitForContains(0, last, kWaitMs));
    EXPECT_EQ(peer.bytes(0), requestLine() + expected);
    EXPECT_EQ(qv_load(app_.QVSys.discardCount), 0);
    EXPECT_EQ(curBuffers, 2);

    // While the run goes on nothing stops; once it ends the pending record is flushed and the
    // connection closed.
    EXPECT_EQ(checkAndStopThreadAS(), 0);
    const std::string pending = "75,pending\n";
    ASSERT_EQ(dumpASData(pending.data(), static_cast<int>(pending.size())), 0);
    qv_store(app_.Server.retryForAutoSensorConn, 0);
    EXPECT_EQ(checkAndStopThreadAS(), 1);
    EXPECT_TRUE(autoSensorThreadToStop());
    ASSERT_TRUE(peer.waitForContains(0, pending, kWaitMs));
    EXPECT_EQ(qv_load(app_.qvcASSocket), nullptr);
    EXPECT_NE(log().find("BCI AutoSensor thread is to be stopped"), std::string::npos);
}

TEST_F(AutoSensor, SendFailureClosesConnectionAndSetsRetryFlag) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    pool(2, 2, 256);
    running(peer);
    ASSERT_FALSE(startASNDCollectorCommunication());
    ASSERT_TRUE(peer.waitForContains(0, requestLine(), kWaitMs));
    peer.dropConnection(0);
    const std::string rec = "74,x\n";
    for (int i = 0; i < 400 && qv_load(retryFlag) == 0; ++i) {
        dumpAndSendDataToQVC(const_cast<char*>(rec.data()), static_cast<int>(rec.size()), 1);
        usleep(5000);
    }
    EXPECT_EQ(qv_load(retryFlag), 1);
    EXPECT_EQ(qv_load(app_.qvcASSocket), nullptr);
    EXPECT_EQ(sendDataToQVC(), -1);  // no connection: nothing sent, nothing lost
    // A connect failure is reported and logged.
    qvconfig_reset();
    ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", 1), 0);
    EXPECT_TRUE(startASNDCollectorCommunication());
    EXPECT_NE(log().find("[QV DR Feature]; Error while creating the AutoSensor connection with 127.0.0.1:1."),
              std::string::npos);
}

// The reporting thread runs while the test thread changes the run's flags and drops connections.
class ReporterConcurrency : public AutoSensor {};

TEST_F(ReporterConcurrency, ReportsInOrderReconnectsAndEndsWithRun) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    pool(2, 4, 1024);
    running(peer);
    qvReporterHooks.generateBT = [](char* buf, int* len) {
        memcpy(buf + *len, "74,bt\n", 6);
        *len += 6;
        return true;
    };
    qvReporterHooks.generateBackend = [](char* buf, int* len) {
        memcpy(buf + *len, "75,be\n", 6);
        *len += 6;
        return true;
    };
    qvReporterHooks.generateMethod = [](char* buf, int* len) {
        memcpy(buf + *len, "61,m\n", 5);
        *len += 5;
        return true;
    };
    qv_store(QVSettings.qvMonitorIntervalInSecs, 1);
    qv_store(monitorReportSecondMs, 30LL);
    qv_store(QVASSettings.ASReportInterval, 0);
    EXPECT_EQ(startMonitorReporter(), 1);  // report interval 0: no thread
    qv_store(QVASSettings.ASReportInterval, 60);
    ASSERT_EQ(startMonitorReporter(), 0);
    EXPECT_EQ(create_autoSensor_thread(), 1);  // already running
    const std::string report = "74,bt\n75,be\n61,m\n";
    ASSERT_TRUE(peer.waitForContains(0, requestLine() + report + report, kWaitMs));
    EXPECT_EQ(peer.bytes(0).rfind(requestLine(), 0), 0u);

    // A lost connection is made again at a following report.
    peer.dropConnection(0);
    ASSERT_TRUE(peer.waitForContains(1, requestLine() + report, kWaitMs));

    qv_store(app_.Server.testRunRunning, 0);
    ASSERT_TRUE(
        peer.waitFor([&] { return qv_load(app_.QVBCISetting.autoSensor_thread_running) == 0; }, kWaitMs));
    stopNIO();
    EXPECT_EQ(autoSensor_thread_id, nullptr);
}

}  // namespace
