// Tests of the data dispatcher: the send-buffer algorithm, and the data thread against a real
// loopback collector (request line, records, heartbeats, reconnection, stop).
#include "collector/QVDataDispatcher.h"

#include <algorithm>
#include <cstdio>

#include "collector_fixture.h"

namespace {

const std::string kNewConn = "\n99,NewConnection,FPGVersion:1.0\n";

int dump(const std::string& rec) {
    return dumpData(rec.data(), static_cast<int>(rec.size()));
}

class Dispatcher : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        useBareInstance();
    }
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
    std::string requestLine() const {
        return "qv_data_msg_req:appName=agentA;appID=3;qvAppServerID=4;qvAppServerHost=srv1;tierName=tierT;"
               "tierID=5;QVCollectorIP=127.0.0.1;QVCollectorPort=" +
               std::to_string(app_->QVBCISetting.qvcPort) + ";testIdx=77;pid=" + std::to_string(getpid()) +
               ";agentName=agentA\n";
    }
    // What a new connection carries before any record.
    std::string prefix() const { return requestLine() + "\n" + kNewConn; }
};

TEST_F(Dispatcher, RecordsFillSpillAndAreCutWhenLargerThanABuffer) {
    makePool(3, 16);
    // Exactly filling the current buffer queues it at once.
    EXPECT_EQ(dump("0123456789abcdef"), 0);
    ASSERT_NE(QVCollectorBB, nullptr);
    EXPECT_EQ(readListSize, 1);
    EXPECT_EQ(writeListSize, 2);
    EXPECT_EQ(std::string(QVCollectorBB->buff, QVCollectorBB->use_len), "0123456789abcdef");
    EXPECT_EQ(QVBCIAgentBB->use_len, 0);

    // Recycle the sent buffer, then spill a record across two buffers.
    QVCollectorBB->use_len = 0;
    moveToWriteList();
    EXPECT_EQ(readListSize, 0);
    EXPECT_EQ(dump("AAAAAAAAAA"), 0);
    EXPECT_EQ(dump("BBBBBBBBBB"), 0);
    ASSERT_EQ(readListSize, 1);
    EXPECT_EQ(std::string(QVCollectorBB->buff, 16), "AAAAAAAAAABBBBBB");
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), "BBBB");

    // Free space 12 plus a whole buffer (16) is less than 30: the record is cut and a newline
    // ends it in the next buffer.
    EXPECT_EQ(dump(std::string(30, 'C')), -3);
    EXPECT_EQ(discards(), 1);
    ASSERT_EQ(readListSize, 2);
    EXPECT_EQ(std::string(readListLast->buff, 16), "BBBB" + std::string(12, 'C'));
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), "\n");

    // A null or empty record is ignored and not counted.
    EXPECT_EQ(dumpData(nullptr, 5), 0);
    EXPECT_EQ(dumpData("x", 0), 0);
    EXPECT_EQ(discards(), 1);
}

TEST_F(Dispatcher, MissingOrFullPoolDropsRecordsWithWarning) {
    EXPECT_EQ(dump("\n2,x\n"), -99);
    app_->QVSys.dataBuffMaxCount = 4;
    app_->QVSys.bciDataBufferMaxSize = 0;
    EXPECT_EQ(buff_list_init(), 1);
    EXPECT_EQ(dump("\n2,x\n"), -99);
    EXPECT_EQ(discards(), 2);
    EXPECT_TRUE(logged("Return = -99"));
    // No connection: nothing to flush, nothing to send, no crash.
    flushData();
    sendBufferDataCon("abc", 3);
    EXPECT_EQ(checkAndStopThread(), 1);

    makePool(3, 16);
    ASSERT_EQ(dump(std::string(16, 'a')), 0);
    ASSERT_EQ(dump(std::string(16, 'b')), 0);
    // The last free buffer takes what fits but never a spill.
    EXPECT_EQ(dump(std::string(10, 'c')), 0);
    EXPECT_EQ(dump(std::string(10, 'd')), -1);
    EXPECT_EQ(discards(), 3);
    EXPECT_EQ(std::string(QVBCIAgentBB->buff, QVBCIAgentBB->use_len), std::string(10, 'c'));
    EXPECT_TRUE(logged(
        "|Error|QVDataDispatcher - dumpData(): Warning - No space left in buffer or thread is not "
        "initialized for sending data to QVCollector. Return = -1, writeListSize = 1 readListSize = 2"))
        << home_.traceLogs();

    // Filling the last buffer leaves no current buffer: -2 until the sender gives one back.
    EXPECT_EQ(dump(std::string(6, 'e')), 0);
    EXPECT_EQ(QVBCIAgentBB, nullptr);
    EXPECT_EQ(dump("f"), -2);
    EXPECT_EQ(discards(), 4);
    QVCollectorBB->use_len = 0;
    moveToWriteList();
    ASSERT_NE(QVBCIAgentBB, nullptr);
    EXPECT_EQ(dump("g"), 0);

    // The pool is made once: new settings do not rebuild it.
    app_->QVSys.dataBuffMaxCount = 50;
    EXPECT_EQ(buff_list_init(), 0);
    EXPECT_EQ(maxBuffers, 3);
}

TEST_F(Dispatcher, DataThreadSendsRequestThenRecordsInOrderThenHeartbeats) {
    makePool(128, 64);  // room for every record even if none were sent yet
    startThread();
    EXPECT_EQ(check_data_thread(), 1);  // already running
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
    EXPECT_EQ(peer_.bytes(0), prefix());
    EXPECT_EQ(qv_load(app_->QVBCISetting.data_thread_running), 1);
    EXPECT_EQ(qv_load(app_->Server.controlCommunicationBusyFlag), 1);

    std::string expected = prefix();
    for (int i = 0; i < 60; ++i) {
        // Up to a whole buffer long: records straddle buffers but are never cut.
        std::string rec =
            "\n2," + std::to_string(i) + "," + std::string(static_cast<size_t>(i % 50), 'r') + "\n";
        ASSERT_EQ(dump(rec), 0) << i;
        expected += rec;
        ASSERT_TRUE(i % 10 != 9 || peer_.waitForContains(0, rec, kWaitMs));
    }
    // With the heartbeat setting 0 a quiet connection carries nothing more.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    dump("\n2,last\n");
    expected += "\n2,last\n";
    ASSERT_TRUE(peer_.waitForContains(0, "\n2,last\n", kWaitMs));
    EXPECT_EQ(peer_.bytes(0), expected);
    // With the setting 1 heartbeats follow: lone newlines.
    qv_store(app_->QVSys.qvcBciDataConnectionHeartBeat, 1);
    ASSERT_TRUE(waitUntil([&] { return peer_.bytes(0).size() >= expected.size() + 3; }));
    EXPECT_EQ(peer_.bytes(0).find_first_not_of('\n', expected.size()), std::string::npos) << peer_.bytes(0);
}

TEST_F(Dispatcher, RecordsKeptWhileDisconnectedArriveOnTheNextConnection) {
    makePool(8, 64);
    dataConnRetryIntervalMs = 300;
    startThread();
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
    peer_.dropConnection(0);
    // The first send after the reset may still succeed; keep writing until the thread sees it.
    for (int i = 0; i < 400 && qv_load(app_->qvcDataSocket) != nullptr; ++i) {
        dump("\n1,probe\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(qv_load(app_->qvcDataSocket), nullptr);
    EXPECT_EQ(dump("\n2,afterDropA\n"), 0);
    EXPECT_EQ(dump("\n2,afterDropB\n"), 0);
    ASSERT_TRUE(peer_.waitForContains(1, "\n2,afterDropB\n", kWaitMs));
    const std::string second = peer_.bytes(1);
    EXPECT_EQ(second.rfind(requestLine() + "\n", 0), 0u) << second;
    EXPECT_TRUE(contains(second, kNewConn));
    EXPECT_LT(second.find("\n2,afterDropA\n"), second.find("\n2,afterDropB\n"));
    EXPECT_FALSE(contains(peer_.bytes(0), "\n2,afterDropA\n"));

    // A closed control connection ends the thread; what it did not flush survives for the next
    // thread's connection, and is sent once.
    dump("\n2,pending\n");
    qv_store(app_->QVSys.retryFlag, 1);
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.data_thread_running) == 0; }));
    EXPECT_EQ(qv_load(app_->qvcDataSocket), nullptr);
    qv_store(app_->QVSys.retryFlag, 0);
    startThread();
    auto all = [&] { return peer_.bytes(1) + peer_.bytes(2); };
    ASSERT_TRUE(waitUntil([&] { return contains(all(), "\n2,pending\n"); }));
    EXPECT_EQ(all().find("\n2,pending\n"), all().rfind("\n2,pending\n"));
}

std::atomic<int> busyCalls{0}, overCalls{0}, metaCalls{0};

TEST_F(Dispatcher, StopWritesThroughHooksAndEndsThread) {
    qvDispatcherHooks.dumpFpFromBusyList = [] {
        ++busyCalls;
        dump("\n4,incomplete\n");
    };
    qvDispatcherHooks.dumpQvDataOverRecord = [] {
        ++overCalls;
        dump("10,\n");
    };
    qvDispatcherHooks.dumpALLMetaDataOnTestSatrt = [] {
        ++metaCalls;
        dump("\n5,meta,1\n");
    };
    makePool(4, 128);
    startThread();
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
    EXPECT_EQ(metaCalls, 0);  // doNotDumpMetaData is 0

    qv_store(app_->Server.testRunRunning, 0);
    ASSERT_TRUE(peer_.waitForContains(0, "10,\n", kWaitMs));
    ASSERT_TRUE(waitUntil([&] { return qv_load(app_->QVBCISetting.data_thread_running) == 0; }));
    EXPECT_EQ(peer_.bytes(0), prefix() + "\n4,incomplete\n10,\n");
    EXPECT_EQ(busyCalls, 1);
    EXPECT_EQ(overCalls, 1);
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
    EXPECT_EQ(peer_.bytes(1), prefix() + "\n5,meta,1\n\n4,incomplete\n");
    EXPECT_EQ(overCalls, 1);
    EXPECT_TRUE(logged("BCI Data thread is to be stopped. Server.isTenRecordDump = 1."));
}

// Parses the records of the concurrency test ("2,P<p>,<seq>,<pad>#"), skipping empty lines
// (heartbeats), into seqs. Returns the first malformed line, i.e. a record cut or interleaved.
std::string parseRecords(const std::string& s, int producers, std::vector<std::vector<int>>* seqs) {
    seqs->assign(static_cast<size_t>(producers), {});
    for (size_t pos = 0, end; pos < s.size(); pos = end + 1) {
        end = std::min(s.find('\n', pos), s.size());
        const std::string line = s.substr(pos, end - pos);
        int p = -1, seq = -1, used = 0;
        if (line.empty()) continue;
        if (sscanf(line.c_str(), "2,P%d,%d,%n", &p, &seq, &used) != 2 || p < 0 || p >= producers || seq < 0 ||
            line.substr(static_cast<size_t>(used)) != std::string((p * 37 + seq * 13) % 250, 'x') + "#")
            return line;
        (*seqs)[static_cast<size_t>(p)].push_back(seq);
    }
    return "";
}

class DispatcherConcurrency : public Dispatcher {};

TEST_F(DispatcherConcurrency, ProducersRecordsArriveWholeAndInOrder) {
    makePool(8, 1024);
    app_->QVSys.controlTraceLevel = 0;  // drops are expected; keep the log small
    startThread();
    ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));

    constexpr int kProducers = 4;
    constexpr int kPerProducer = 3000;
    std::atomic<int> accepted{0};
    std::atomic<bool> producing{true};
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([p, &accepted] {
            for (int seq = 0; seq < kPerProducer; ++seq) {
                if (dump("\n2,P" + std::to_string(p) + "," + std::to_string(seq) + "," +
                         std::string(static_cast<size_t>((p * 37 + seq * 13) % 250), 'x') + "#\n") == 0)
                    ++accepted;
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
    std::vector<std::vector<int>> seqs;
    std::string bad;
    auto received = [&] {
        size_t n = 0;
        for (auto& v : seqs) n += v.size();
        return static_cast<int>(n);
    };
    waitUntil([&] {
        // Up to the last newline: the record in flight is not complete yet.
        std::string body = peer_.bytes(0).substr(prefix().size());
        body.resize(body.rfind('\n') + 1);
        bad = parseRecords(body, kProducers, &seqs);
        return !bad.empty() || received() == accepted;  // a bad record stops the wait; checked below
    });
    ASSERT_TRUE(bad.empty()) << "cut or interleaved record: " << bad;
    for (auto& v : seqs)
        for (size_t i = 1; i < v.size(); ++i) ASSERT_LT(v[i - 1], v[i]);
    EXPECT_EQ(received(), accepted.load());
}

}  // namespace
