// Tests of the data dispatcher: the send-buffer algorithm, and the data thread against a real
// loopback collector (request line, records, heartbeats, reconnection, stop).
#include "collector/QVDataDispatcher.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/QVConfig.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "support/loopback_peer.h"

namespace {

constexpr int kWaitMs = 20000;  // safety net only; waits end as soon as the condition holds

class Dispatcher : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&app_, 0, sizeof(app_));
        app_.agentName = const_cast<char*>("agentA");
        app_.QVSys.controlTraceLevel = 1;
        app_.QVSys.dataConnState = 1;
        app_.QVBCISetting.appID = 3;
        app_.QVBCISetting.serverID = 4;
        app_.QVBCISetting.tierID = 5;
        app_.QVBCISetting.appServerName = const_cast<char*>("srv1");
        app_.QVBCISetting.tierName = const_cast<char*>("tierT");
        app_.QVBCISetting.qvcHost = const_cast<char*>("127.0.0.1");
        app_.Server.TestRunIDValue = 77;
        qvApplication = &app_;
        char tmpl[] = "/tmp/qv_dispatcher_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        trace_log_key = qvlb_init_mt_trace_log_ex(dir_.c_str(), "dispatcher", 1, 10);
        qvDispatcherHooks = {};
    }

    void TearDown() override {
        qv_data_dispatcher_reset_for_test();
        qvDispatcherHooks = {};
        qvc_server_arr = nullptr;
        server_arr_size = 0;
        active_qvc_idx = 0;
        qvlb_trace_log_reset_for_test();
        qvApplication = nullptr;
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (system(cmd.c_str()) != 0) ADD_FAILURE() << cmd;
    }

    void makePool(int count, int size) {
        app_.QVSys.dataBuffMaxCount = count;
        app_.QVSys.bciDataBufferMaxSize = size;
        ASSERT_EQ(buff_list_init(), 0);
    }

    std::string log() const {
        std::ifstream in(dir_ + "/dispatcher_0");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    int discards() const { return qv_load(app_.QVSys.discardCount); }

    // Points the collector list at the peer, marks the test run running and starts the thread.
    void startThread(LoopbackPeer& peer) {
        server_ = {1, static_cast<unsigned int>(peer.port()), const_cast<char*>("127.0.0.1")};
        qvc_server_arr = &server_;
        server_arr_size = 1;
        active_qvc_idx = 0;
        app_.QVBCISetting.qvcPort = peer.port();
        qv_store(app_.Server.testRunRunning, 1);
        qv_store(app_.Server.retryForDataConn, 1);
        ASSERT_EQ(check_data_thread(), 0);
    }

    std::string requestLine() const {
        char buf[2048];
        snprintf(buf, sizeof(buf),
                 "qv_data_msg_req:appName=agentA;appID=3;qvAppServerID=4;qvAppServerHost=srv1;tierName=tierT;"
                 "tierID=5;QVCollectorIP=127.0.0.1;QVCollectorPort=%d;testIdx=77;pid=%lld;agentName=agentA\n",
                 app_.QVBCISetting.qvcPort, pid != 0 ? pid : static_cast<long long>(getpid()));
        return buf;
    }

    QVProxyInstance_t app_;
    qvc_servers server_{};
    std::string dir_;
};

const std::string kNewConn = "\n99,NewConnection,FPGVersion:1.0\n";

TEST_F(Dispatcher, RecordsFillSpillAndAreCutWhenLargerThanABuffer) {
    makePool(3, 16);
    // Exactly filling the current buffer queues it at once.
    EXPECT_EQ(dumpData("0123456789abcdef", 16), 0);
    ASSERT_NE(QVCollectorBB, nullptr);
    EXPECT_EQ(readListSize, 1);
    EXPECT_EQ(writeListSize, 2);
    EXPECT_EQ(std::string(QVCollectorBB->buff, QVCollectorBB->use_len), "0123456789abcdef");
    EXPECT_EQ(QVBCIAgentBB->use_len, 0);

    // Recycle the sent buffer, then spill a record across two buffers.
    QVCollectorBB->use_len = 0;
    moveToWriteList();
    EXPECT_EQ(readListSize, 0);
    EXPECT_EQ(dumpData("AAAAAAAAAA", 10), 0);
    EXPECT_EQ(dumpData("BBBBBBBBBB", 10), 0);
    ASSERT_EQ(readListSize, 1);
    EXPECT_EQ(std::string(QVCollectorBB->buff, 16), "AAAAAAAAAABBBBBB");
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), "BBBB");

    // Free space 12 plus a whole buffer (16) is less than 30: the record is cut and a newline
    // ends it in the next buffer.
    EXPECT_EQ(dumpData(std::string(30, 'C').c_str(), 30), -3);
    EXPECT_EQ(discards(), 1);
    ASSERT_EQ(readListSize, 2);
    EXPECT_EQ(std::string(readListLast->buff, 16), "BBBB" + std::string(12, 'C'));
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), "\n");

    // A null or empty record is ignored and not counted.
    EXPECT_EQ(dumpData(nullptr, 5), 0);
    EXPECT_EQ(dumpData("x", 0), 0);
    EXPECT_EQ(discards(), 1);
}

TEST_F(Dispatcher, FullPoolDropsRecordsWithWarning) {
    makePool(3, 16);
    ASSERT_EQ(dumpData(std::string(16, 'a').c_str(), 16), 0);
    ASSERT_EQ(dumpData(std::string(16, 'b').c_str(), 16), 0);
    // The last free buffer takes what fits but never a spill.
    EXPECT_EQ(dumpData(std::string(10, 'c').c_str(), 10), 0);
    EXPECT_EQ(dumpData(std::string(10, 'd').c_str(), 10), -1);
    EXPECT_EQ(discards(), 1);
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), std::string(10, 'c'));
    EXPECT_NE(
        log().find(
            "|Error|QVDataDispatcher - dumpData(): Warning - No space left in buffer or thread is not "
            "initialized for sending data to QVCollector. Return = -1, writeListSize = 1 readListSize = 2"),
        std::string::npos)
        << log();

    // Filling the last buffer leaves no current buffer: -2 until the sender gives one back.
    EXPECT_EQ(dumpData(std::string(6, 'e').c_str(), 6), 0);
    EXPECT_EQ(QVBCIAgentBB, nullptr);
    EXPECT_EQ(dumpData("f", 1), -2);
    EXPECT_EQ(discards(), 2);
    QVCollectorBB->use_len = 0;
    moveToWriteList();
    ASSERT_NE(QVBCIAgentBB, nullptr);
    EXPECT_EQ(dumpData("g", 1), 0);

    // The pool is made once: new settings do not rebuild it.
    app_.QVSys.dataBuffMaxCount = 50;
    EXPECT_EQ(buff_list_init(), 0);
    EXPECT_EQ(maxBuffers, 3);
}

TEST_F(Dispatcher, WithoutPoolRecordsAreDiscarded) {
    EXPECT_EQ(dumpData("\n2,x\n", 5), -99);
    EXPECT_EQ(discards(), 1);
    app_.QVSys.dataBuffMaxCount = 4;
    app_.QVSys.bciDataBufferMaxSize = 0;
    EXPECT_EQ(buff_list_init(), 1);
    EXPECT_EQ(dumpData("\n2,x\n", 5), -99);
    EXPECT_EQ(discards(), 2);
    EXPECT_NE(log().find("Return = -99"), std::string::npos);
    // No connection: nothing to flush, nothing to send, no crash.
    flushData();
    sendBufferDataCon("abc", 3);
    EXPECT_EQ(checkAndStopThread(), 1);
}

TEST_F(Dispatcher, DataThreadSendsRequestThenRecordsInOrder) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    makePool(128, 64);  // room for every record even if none were sent yet
    startThread(peer);
    EXPECT_EQ(check_data_thread(), 1);  // already running
    ASSERT_TRUE(peer.waitForContains(0, kNewConn, kWaitMs));
    const std::string prefix = requestLine() + "\n" + kNewConn;
    EXPECT_EQ(peer.bytes(0), prefix);
    EXPECT_EQ(qv_load(app_.QVBCISetting.data_thread_running), 1);
    EXPECT_EQ(qv_load(app_.Server.controlCommunicationBusyFlag), 1);

    std::string expected;
    for (int i = 0; i < 60; ++i) {
        // Up to a whole buffer long: records straddle buffers but are never cut.
        std::string rec =
            "\n2," + std::to_string(i) + "," + std::string(static_cast<size_t>(i % 50), 'r') + "\n";
        ASSERT_EQ(dumpData(rec.data(), static_cast<int>(rec.size())), 0) << i;
        expected += rec;
        if (i % 10 == 9) {
            ASSERT_TRUE(peer.waitForContains(0, rec, kWaitMs));
        }
    }
    // With the heartbeat setting 0 a quiet connection carries nothing more.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    const std::string last = "\n2,last\n";
    dumpData(last.data(), static_cast<int>(last.size()));
    ASSERT_TRUE(peer.waitForContains(0, last, kWaitMs));
    EXPECT_EQ(peer.bytes(0), prefix + expected + last);
}

TEST_F(Dispatcher, HeartbeatsAreLoneNewlines) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    makePool(4, 64);
    app_.QVSys.qvcBciDataConnectionHeartBeat = 1;
    startThread(peer);
    const std::string prefix = requestLine() + "\n" + kNewConn;
    ASSERT_TRUE(peer.waitFor([&] { return peer.bytes(0).size() >= prefix.size() + 3; }, kWaitMs));
    const std::string got = peer.bytes(0);
    EXPECT_EQ(got.substr(0, prefix.size()), prefix);
    EXPECT_EQ(got.find_first_not_of('\n', prefix.size()), std::string::npos) << got;
}

TEST_F(Dispatcher, RecordsBufferedWhileDisconnectedArriveAfterReconnect) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    makePool(8, 64);
    dataConnRetryIntervalMs = 300;
    startThread(peer);
    ASSERT_TRUE(peer.waitForContains(0, kNewConn, kWaitMs));
    peer.dropConnection(0);
    // The first send after the reset may still succeed; keep writing until the thread sees it.
    const std::string probe = "\n1,probe\n";
    for (int i = 0; i < 400 && qv_load(app_.qvcDataSocket) != nullptr; ++i) {
        dumpData(probe.data(), static_cast<int>(probe.size()));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(qv_load(app_.qvcDataSocket), nullptr);
    const std::string a = "\n2,afterDropA\n";
    const std::string b = "\n2,afterDropB\n";
    EXPECT_EQ(dumpData(a.data(), static_cast<int>(a.size())), 0);
    EXPECT_EQ(dumpData(b.data(), static_cast<int>(b.size())), 0);
    ASSERT_TRUE(peer.waitForContains(1, b, kWaitMs));
    const std::string second = peer.bytes(1);
    EXPECT_EQ(second.rfind(requestLine() + "\n", 0), 0u) << second;
    EXPECT_NE(second.find(kNewConn), std::string::npos);
    EXPECT_LT(second.find(a), second.find(b));
    EXPECT_EQ(peer.bytes(0).find(a), std::string::npos);
}

struct HookCounts {
    std::atomic<int> busy{0}, over{0}, meta{0};
};
HookCounts* hookCounts = nullptr;

TEST_F(Dispatcher, StopWritesThroughHooksAndEndsThread) {
    HookCounts counts;
    hookCounts = &counts;
    qvDispatcherHooks.dumpFpFromBusyList = [] {
        ++hookCounts->busy;
        dumpData("\n4,incomplete\n", 14);
    };
    qvDispatcherHooks.dumpQvDataOverRecord = [] {
        ++hookCounts->over;
        dumpData("10,\n", 4);
    };
    qvDispatcherHooks.dumpALLMetaDataOnTestSatrt = [] {
        ++hookCounts->meta;
        dumpData("\n5,meta,1\n", 10);
    };
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    makePool(4, 128);
    startThread(peer);
    ASSERT_TRUE(peer.waitForContains(0, kNewConn, kWaitMs));
    EXPECT_EQ(counts.meta, 0);  // doNotDumpMetaData is 0

    qv_store(app_.Server.testRunRunning, 0);
    ASSERT_TRUE(peer.waitForContains(0, "10,\n", kWaitMs));
    ASSERT_TRUE(peer.waitFor([&] { return qv_load(app_.QVBCISetting.data_thread_running) == 0; }, kWaitMs));
    const std::string first = peer.bytes(0);
    EXPECT_EQ(first, requestLine() + "\n" + kNewConn + "\n4,incomplete\n10,\n");
    EXPECT_EQ(counts.busy, 1);
    EXPECT_EQ(counts.over, 1);
    ASSERT_TRUE(peer.waitFor([&] { return qv_load(app_.qvcDataSocket) == nullptr; }, kWaitMs));

    // A new test run starts a new thread; with the data-over record already written it is not
    // written again, and the metadata cache is replayed on connect.
    app_.Server.isTenRecordDump = 1;
    app_.Server.doNotDumpMetaData = 1;
    startThread(peer);
    ASSERT_TRUE(peer.waitForContains(1, "\n5,meta,1\n", kWaitMs));
    qv_store(app_.Server.retryForDataConn, 0);
    ASSERT_TRUE(peer.waitForContains(1, "\n4,incomplete\n", kWaitMs));
    ASSERT_TRUE(peer.waitFor([&] { return qv_load(app_.QVBCISetting.data_thread_running) == 0; }, kWaitMs));
    EXPECT_EQ(peer.bytes(1), requestLine() + "\n" + kNewConn + "\n5,meta,1\n\n4,incomplete\n");
    EXPECT_EQ(counts.over, 1);
    EXPECT_NE(log().find("BCI Data thread is to be stopped. Server.isTenRecordDump = 1."), std::string::npos);
    hookCounts = nullptr;
}

TEST_F(Dispatcher, ClosedControlConnectionEndsDataThread) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    makePool(4, 64);
    startThread(peer);
    ASSERT_TRUE(peer.waitForContains(0, kNewConn, kWaitMs));
    dumpData("\n2,pending\n", 11);
    qv_store(app_.QVSys.retryFlag, 1);
    ASSERT_TRUE(peer.waitFor([&] { return qv_load(app_.QVBCISetting.data_thread_running) == 0; }, kWaitMs));
    EXPECT_EQ(qv_load(app_.qvcDataSocket), nullptr);
    // Whatever was not flushed before the close survives for the next thread's connection.
    qv_store(app_.QVSys.retryFlag, 0);
    startThread(peer);
    ASSERT_TRUE(peer.waitFor(
        [&] { return (peer.bytes(0) + peer.bytes(1)).find("\n2,pending\n") != std::string::npos; }, kWaitMs));
    const std::string both = peer.bytes(0) + peer.bytes(1);
    EXPECT_EQ(both.find("\n2,pending\n"), both.rfind("\n2,pending\n"));
}

// Parses the records of the concurrency test ("2,P<p>,<seq>,<pad>#"), skipping empty lines
// (heartbeats). Returns false on a malformed line, i.e. a record that was cut or interleaved.
bool parseRecords(const std::string& s, int producers, std::vector<std::vector<int>>* seqs,
                  std::string* bad) {
    seqs->assign(static_cast<size_t>(producers), {});
    size_t pos = 0;
    while (pos < s.size()) {
        size_t end = s.find('\n', pos);
        if (end == std::string::npos) end = s.size();
        const std::string line = s.substr(pos, end - pos);
        pos = end + 1;
        if (line.empty()) continue;
        int p = -1, seq = -1, used = 0;
        if (sscanf(line.c_str(), "2,P%d,%d,%n", &p, &seq, &used) != 2 || p < 0 || p >= producers) {
            *bad = line;
            return false;
        }
        const std::string pad = line.substr(static_cast<size_t>(used));
        const size_t want = static_cast<size_t>((p * 37 + seq * 13) % 250);
        if (pad != std::string(want, 'x') + "#") {
            *bad = line;
            return false;
        }
        (*seqs)[static_cast<size_t>(p)].push_back(seq);
    }
    return true;
}

class DispatcherConcurrency : public Dispatcher {};

TEST_F(DispatcherConcurrency, ProducersRecordsArriveWholeAndInOrder) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    makePool(8, 1024);
    app_.QVSys.controlTraceLevel = 0;  // drops are expected; keep the log small
    startThread(peer);
    const std::string prefix = requestLine() + "\n" + kNewConn;
    ASSERT_TRUE(peer.waitForContains(0, kNewConn, kWaitMs));

    constexpr int kProducers = 4;
    constexpr int kPerProducer = 3000;
    std::atomic<int> accepted{0};
    std::atomic<bool> producing{true};
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([p, &accepted] {
            for (int seq = 0; seq < kPerProducer; ++seq) {
                std::string rec = "\n2,P" + std::to_string(p) + "," + std::to_string(seq) + "," +
                                  std::string(static_cast<size_t>((p * 37 + seq * 13) % 250), 'x') + "#\n";
                if (dumpData(rec.data(), static_cast<int>(rec.size())) == 0) ++accepted;
                // Paced so that most records find room and some still meet a full pool.
                if (seq % 40 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    // A second sender: flushes run concurrently with the data thread's own sends.
    std::thread flusher([&] {
        while (producing) {
            flushData();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    for (std::thread& t : threads) t.join();
    producing = false;
    flusher.join();

    const int total = kProducers * kPerProducer;
    EXPECT_EQ(accepted + discards(), total);  // heartbeats are off: every drop is a record
    std::vector<std::vector<int>> seqs;
    std::string bad;
    auto receivedAll = [&] {
        // Up to the last newline: the record in flight is not complete yet.
        std::string body = peer.bytes(0).substr(prefix.size());
        body.resize(body.rfind('\n') + 1);
        if (!parseRecords(body, kProducers, &seqs, &bad)) return true;  // stop waiting; checked below
        size_t n = 0;
        for (auto& v : seqs) n += v.size();
        return static_cast<int>(n) == accepted;
    };
    peer.waitFor(receivedAll, kWaitMs);
    ASSERT_TRUE(bad.empty()) << "cut or interleaved record: " << bad;
    size_t n = 0;
    for (auto& v : seqs) {
        n += v.size();
        for (size_t i = 1; i < v.size(); ++i) ASSERT_LT(v[i - 1], v[i]);
    }
    EXPECT_EQ(static_cast<int>(n), accepted.load());
}

}  // namespace
