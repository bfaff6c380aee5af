// Tests of the data dispatcher: the send-buffer algorithm, and the data thread against a real
// loopback collector (request line, records, heartbeats, timeouts and reconnection, stop).
#include "collector/QVDataDispatcher.h"

#include <cstdio>

#include "collector_fixture.h"

namespace {

const std::string kNewConn = "\n99,NewConnection,FPGVersion:1.0\n";

int dump(const std::string& rec) {
    return dumpData(rec.data(), static_cast<int>(rec.size()));
}

class Dispatcher : public BareCollectorTest {
  protected:
    void makePool(int count, int size) {
        app_->QVSys.dataBuffMaxCount = count;
        app_->QVSys.bciDataBufferMaxSize = size;
        ASSERT_EQ(buff_list_init(), 0);
    }
    void startThread() {
        runAgainstPeer();
        qv_store(app_->Server.retryForDataConn, 1);
        ASSERT_EQ(check_data_thread(), 0);
    }
    // What a new connection carries before any record: the request line, "\n", record 99.
    std::string head() const {
        return "qv_data_msg_req:appName=agentA;appID=3;qvAppServerID=4;qvAppServerHost=srv1;tierName=tierT;"
               "tierID=5;QVCollectorIP=127.0.0.1;QVCollectorPort=" +
               std::to_string(app_->QVBCISetting.qvcPort) + ";testIdx=77;pid=" + std::to_string(getpid()) +
               ";agentName=agentA\n\n";
    }
};

TEST_F(Dispatcher, RecordsFillSpillAreCutOrDroppedWithWarning) {
    EXPECT_EQ(dump("\n2,x\n"), -99);  // no pool yet
    // No connection: nothing to flush, nothing to send, no crash.
    flushData();
    sendBufferDataCon("abc", 3);
    EXPECT_EQ(checkAndStopThread(), 1);
    makePool(3, 16);
    // Exactly filling the current buffer queues it at once.
    EXPECT_EQ(dump("0123456789abcdef"), 0);
    ASSERT_EQ(readListSize, 1);
    QVCollectorBB->use_len = 0;
    moveToWriteList();
    // A spill across two buffers, then a record longer than free space plus a whole buffer: cut,
    // with a newline ending it.
    EXPECT_EQ(dump("AAAAAAAAAA"), 0);
    EXPECT_EQ(dump("BBBBBBBBBB"), 0);
    EXPECT_EQ(std::string(QVCollectorBB->buff, 16), "AAAAAAAAAABBBBBB");
    EXPECT_EQ(dump(std::string(30, 'C')), -3);
    EXPECT_EQ(std::string(readListLast->buff, 16), "BBBB" + std::string(12, 'C'));
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), "\n");
    EXPECT_EQ(dumpData(nullptr, 5), 0);  // ignored, not counted
    // Every buffer queued: -2 until the sender gives one back.
    EXPECT_EQ(dump(std::string(15, 'e')), 0);
    EXPECT_EQ(dump("f"), -2);
    QVCollectorBB->use_len = 0;
    moveToWriteList();
    // The last free buffer takes what fits but never a spill.
    EXPECT_EQ(dump(std::string(10, 'c')), 0);
    EXPECT_EQ(dump(std::string(10, 'd')), -1);
    EXPECT_EQ(discards(), 4);
    // The pool is made once: new settings do not rebuild it.
    app_->QVSys.dataBuffMaxCount = 50;
    EXPECT_EQ(buff_list_init(), 0);
    EXPECT_EQ(maxBuffers, 3);
}

TEST_F(Dispatcher, SendsCutByTimeoutsResumeOnTheNextConnectionAndNothingArrivesTwice) {
    // A collector reading tiny slices through a small window, which stops reading a connection
    // until the agent gives it up: with a short send bound, sends are cut part way.
    peer_.stop();
    peer_.setSlowReading(2048, 64, 0);
    ASSERT_TRUE(peer_.start());
    makePool(8, 65536);
    qv_store(qvlbSendTimeoutMs, 20);
    dataConnRetryIntervalMs = 20;
    startThread();
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
    std::string written;
    int seq = 0;
    auto produce = [&] {
        const std::string rec = "\n2," + std::to_string(seq) + "," + std::string(seq % 300, 'p') + "\n";
        if (dump(rec) == 0)
            written += rec;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ++seq;
    };
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    for (int stalled = 0; stalled < 2; ++stalled) {
        peer_.pauseReading(stalled, true);
        while (peer_.connectionCount() < stalled + 2 && std::chrono::steady_clock::now() < end) produce();
        peer_.pauseReading(stalled, false);
    }
    ASSERT_EQ(peer_.connectionCount(), 3) << "the stalled sends did not time out";
    for (int i = 0; i < 100; ++i) produce();
    // Every connection's bytes after its request line, joined, without the new-connection records
    // (with the heartbeat setting 0 nothing else may appear).
    auto stream = [&] {
        std::string all;
        for (int c = 0; c < peer_.connectionCount(); ++c) {
            const std::string b = peer_.bytes(c);
            if (b.rfind(head(), 0) == 0) all += b.substr(head().size());
        }
        for (size_t p = all.find(kNewConn); p != std::string::npos; p = all.find(kNewConn, p))
            all.erase(p, kNewConn.size());
        return all;
    };
    ASSERT_TRUE(waitUntil([&] { return stream().size() >= written.size(); }));
    const std::string got = stream();
    EXPECT_TRUE(got == written) << got.size() << " bytes received, " << written.size() << " written";

    // A closed control connection ends the thread; what it did not flush survives for the next
    // thread's connection, and is sent once.
    qv_store(qvlbSendTimeoutMs, 30000);
    dump("\n2,pending\n");
    qv_store(app_->QVSys.retryFlag, 1);
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.data_thread_running) == 0; }));
    qv_store(app_->QVSys.retryFlag, 0);
    startThread();
    auto later = [&] { return peer_.bytes(2) + peer_.bytes(3); };
    ASSERT_TRUE(waitUntil([&] { return contains(later(), "\n2,pending\n"); }));
    EXPECT_EQ(later().find("\n2,pending\n"), later().rfind("\n2,pending\n"));
}

TEST_F(Dispatcher, HeartbeatsThenStopWritesThroughHooksAndEndsThread) {
    // The exact bytes below show which hooks ran, and how often.
    qvDispatcherHooks.dumpFpFromBusyList = [] { dump("\n4,incomplete\n"); };
    qvDispatcherHooks.dumpQvDataOverRecord = [] { dump("10,\n"); };
    qvDispatcherHooks.dumpALLMetaDataOnTestSatrt = [] { dump("\n5,meta,1\n"); };
    makePool(4, 128);
    startThread();
    EXPECT_EQ(check_data_thread(), 1);  // already running
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
    // With the setting 1 heartbeats follow: lone newlines.
    qv_store(app_->QVSys.qvcBciDataConnectionHeartBeat, 1);
    ASSERT_TRUE(waitUntil([&] { return peer_.bytes(0).size() >= head().size() + kNewConn.size() + 3; }));
    qv_store(app_->QVSys.qvcBciDataConnectionHeartBeat, 0);

    qv_store(app_->Server.testRunRunning, 0);
    ASSERT_TRUE(peer_.waitForContains(0, "10,\n", kWaitMs));
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.data_thread_running) == 0; }));
    const std::string first = peer_.bytes(0);
    const size_t beats = first.find_first_not_of('\n', head().size() + kNewConn.size());
    EXPECT_EQ(first.substr(0, head().size() + kNewConn.size()), head() + kNewConn);
    EXPECT_EQ(first.substr(beats - 1), "\n4,incomplete\n10,\n");
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->qvcDataSocket) == nullptr; }));

    // A new test run starts a new thread; with the data-over record already written it is not
    // written again, and the metadata cache is replayed on connect.
    app_->Server.isTenRecordDump = 1;
    app_->Server.doNotDumpMetaData = 1;
    startThread();
    ASSERT_TRUE(peer_.waitForContains(1, "\n5,meta,1\n", kWaitMs));
    qv_store(app_->Server.retryForDataConn, 0);
    ASSERT_TRUE(peer_.waitForContains(1, "\n4,incomplete\n", kWaitMs));
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.data_thread_running) == 0; }));
    EXPECT_EQ(peer_.bytes(1), head() + kNewConn + "\n5,meta,1\n\n4,incomplete\n");
}

class DispatcherConcurrency : public Dispatcher {};

TEST_F(DispatcherConcurrency, ProducersRecordsArriveWholeAndInOrder) {
    makePool(8, 1024);
    app_->QVSys.controlTraceLevel = 0;  // drops are expected; keep the log small
    startThread();
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 3000;
    auto record = [](int p, int seq) {
        return "2,P" + std::to_string(p) + "," + std::to_string(seq) + "," +
               std::string(static_cast<size_t>((p * 37 + seq * 13) % 250), 'x') + "#";
    };
    std::atomic<int> accepted{0};
    std::atomic<bool> producing{true};
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([p, &accepted, &record] {
            for (int seq = 0; seq < kPerProducer; ++seq) {
                if (dump("\n" + record(p, seq) + "\n") == 0) ++accepted;
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
    EXPECT_EQ(accepted + discards(),
              kProducers * kPerProducer);  // heartbeats are off: every drop is a record

    // Each line is one whole record, and each producer's records come in its order.
    std::string bad;
    int received = 0;
    waitUntil([&] {
        std::vector<int> next(kProducers, 0);
        received = 0;
        const std::string s = peer_.bytes(0).substr(head().size() + kNewConn.size());
        for (size_t pos = 0, nl; (nl = s.find('\n', pos)) != std::string::npos; pos = nl + 1) {
            const std::string line = s.substr(pos, nl - pos);
            int p = -1, seq = -1;
            if (line.empty()) continue;
            if (sscanf(line.c_str(), "2,P%d,%d,", &p, &seq) != 2 || p < 0 || p >= kProducers ||
                seq < next[static_cast<size_t>(p)] || line != record(p, seq)) {
                bad = line;
                return true;  // checked below
            }
            next[static_cast<size_t>(p)] = seq + 1;
            ++received;
        }
        return received == accepted;
    });
    ASSERT_TRUE(bad.empty()) << "cut, interleaved or out of order: " << bad;
    EXPECT_EQ(received, accepted.load());
}

}  // namespace
