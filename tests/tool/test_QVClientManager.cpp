// Tests of the metadata cache replay: request parsing and selectors, byte-exact replay read back
// from the dispatcher's buffers and a real control socket, the marker, the summary, the error
// texts, and the replay on a new data connection by the real data thread.
#include "tool/QVClientManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "bt/QVBTManager.h"
#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVSQLProcessor.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"
#include "sdk/qv_modules.h"
#include "support/agent_reset.h"
#include "support/loopback_peer.h"
#include "support/temp_home.h"
#include "tool/tool_module.h"

namespace {

constexpr int kWaitMs = 20000;  // safety net only
constexpr long long kEpoch = 1388534400000LL;
const std::string kReq = "qv_meta_data_req:action=send_meta_data;f1;f2;f3;";
const std::string kDone = QV_META_DATA_REPLY;

class ClientManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = std::make_unique<TempAgentHome>();
        home_->write("config/qvsettings.conf",
                     "tier=T1\nserver=S1\ninstance=I1\nqvcHost=127.0.0.1\nqvcPort=1\n");
        qvlb_register_modules();
        qv_tool_register_hooks();
        qvAgentHooks.controlThreadEntry = nullptr;  // tests speak for the collector themselves
        agent_init("cmtest", 1, "cmtest", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        app_ = qvApplication;
        qv_store(app_->QVSys.dataBuffMaxCount, 16);
        qv_store(app_->QVSys.bciDataBufferMaxSize, 1 << 20);
        qv_store(app_->Server.korEpochDiffTime, kEpoch);
        ASSERT_TRUE(peer_.start());
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        char err[256];
        apr_socket_t* s = qvlb_create_client_con("127.0.0.1", peer_.port(), err, sizeof(err), pool_);
        ASSERT_NE(s, nullptr) << err;
        control_thread_adopt_socket_for_test(s, "127.0.0.1", peer_.port());
        seed();
    }

    void TearDown() override {
        resetWholeAgent();
        qvServerHooks = QVServerHooks{};
        qvDispatcherHooks = QVDispatcherHooks{};
        apr_pool_destroy(pool_);
        peer_.stop();
        home_.reset();
    }

    // Tables of every type. No send buffers exist yet, so the live records are dropped and the
    // buffers made afterwards hold only what a replay sends.
    void seed() {
        for (const char* name : {"alpha", "beta", "gamma"})
            ASSERT_NE(updateMethodHashMap(name, 0, 0, nullptr), nullptr);
        for (const char* url : {"/shop/cart", "/shop/pay"}) {
            char name[129];
            snprintf(name, sizeof(name), "%s", url);
            ASSERT_NE(updateBTObject(name), nullptr);
        }
        validateConditionsAtDiscovery(nullptr, "q");
        ASSERT_EQ(checkAndProcessQuery("select 1", 41), 6);
        ASSERT_EQ(qvCacheHeaderMetaRecord("X-Req", 3), 0);
        ASSERT_EQ(qvCacheResourceMetaRecord(9, "http://h/a"), 0);
        ASSERT_EQ(qvCacheResourceMetaRecord(9, "http://h/other"), 0);  // first record of an id wins
    }

    void makePool() {
        ASSERT_EQ(buff_list_init(), 0);
        qv_store(app_->Server.controlCommunicationBusyFlag, 1);
    }

    // Sends one request through the command handler and returns what it answered on the control
    // connection (up to and including the completion line).
    std::string request(const std::string& fields) {
        const size_t from = peer_.bytes(0).size();
        std::string line = kReq + fields;
        handleReceivedClientMessageFromQVCollector(line.data());
        EXPECT_TRUE(peer_.waitFor(
            [&] { return peer_.bytes(0).size() > from && peer_.bytes(0).ends_with(kDone); }, kWaitMs));
        return peer_.bytes(0).substr(from);
    }

    // Replaces each marker's time by T after checking it lies between before and now, on the
    // collector's time base.
    static std::string maskMarkers(std::string s, long long before) {
        const long long after = my_gettimeofday();  // arguments are complete by now
        for (size_t p = 0; (p = s.find("11,", p)) != std::string::npos;) {
            if (p != 0 && s[p - 1] != '\n' && s[p - 1] != ' ') {
                ++p;
                continue;
            }
            size_t comma = s.find(',', p + 3);
            long long t = std::stoll(s.substr(p + 3, comma - p - 3));
            EXPECT_GE(t, before - kEpoch);
            EXPECT_LE(t, after - kEpoch);
            s.replace(p + 3, comma - p - 3, "T");
            p += 4;
        }
        return s;
    }

    std::unique_ptr<TempAgentHome> home_;
    LoopbackPeer peer_;
    apr_pool_t* pool_ = nullptr;
    QVProxyInstance_t* app_ = nullptr;
};

const std::string kMethods = "5," QV_DEFAULT_METHOD_NAME ",1\n5,alpha,2\n5,beta,3\n5,gamma,4\n";
const std::string kBTs = "7,2,/shop/cart\n7,3,/shop/pay\n";
const std::string kSQL =
    "22,0,1,Unknown\n22,0,2,XA TRANSACTION START\n22,0,3,XA TRANSACTION COMMIT\n22,0,4,XA TRANSACTION END\n"
    "22,0,5,XA TRANSACTION ROLLBACK\n22,0,6,select 1\n";
const std::string kAll = "11,T,All\n" + kMethods + "6,X-Req,3\n" + kBTs + kSQL + "26,9,http://h/a\n";

TEST_F(ClientManagerTest, SelectorsReplayByteExactToTheDataConnection) {
    makePool();
    qv_store(app_->QVSys.controlTraceLevel, 1);
    long long before = my_gettimeofday();
    EXPECT_EQ(request("5;1"), kDone);
    EXPECT_EQ(request("5_3;1"), kDone);
    EXPECT_EQ(request("5_+4,7_2;1;2"), kDone);
    EXPECT_EQ(request("7 , 21;1"), kDone);
    EXPECT_EQ(request("6,32,33,34,35,41;1"), kDone);
    EXPECT_EQ(request("5_99;1"), kDone);  // no such id: nothing
    EXPECT_EQ(maskMarkers(queuedRecords(), before),
              "11,T,5\n" + kMethods + "5,beta,3\n" + "5,gamma,4\n7,2,/shop/cart\n" + "11,T,7\n" + kBTs +
                  "11,T,21\n" + kSQL + "11,T,6\n6,X-Req,3\n11,T,32\n11,T,33\n11,T,34\n11,T,35\n11,T,41\n");
    EXPECT_EQ(QVClientManager.traceLevel, 0);
    // Trace level 2 (third request) logs each replayed record.
    const std::string logs = home_->traceLogs();
    EXPECT_NE(logs.find("methodHashMap iteration: key=gamma, isEntryPoint = 0, methodId = 4"),
              std::string::npos);
    EXPECT_EQ(logs.find("methodHashMap iteration: key=beta"), std::string::npos);
}

TEST_F(ClientManagerTest, ShortRequestAllAndSummaryGoToTheControlConnection) {
    makePool();
    long long before = my_gettimeofday();
    // Fewer than five fields: everything, to the default destination (control).
    std::string line = "qv_meta_data_req:action=send_meta_data;";
    handleReceivedClientMessageFromQVCollector(line.data());
    ASSERT_TRUE(peer_.waitForContains(0, kDone, kWaitMs));
    EXPECT_EQ(maskMarkers(peer_.bytes(0), before), kAll + kDone);

    const std::string summary =
        "-------------------SummaryReport(CachedRecords)---------------------: \n"
        "Total no. of instrumented Methods(5 Records) : 4 \nTotal no. of Cached Pages(41 Records) : 0, \n"
        "Total Number of Cached URLs(7 Records) : 2, \nTotal Number of cached SQL Query(22 Records) : 6, \n"
        "Total Number of Cached Headers(6 Records) : 1, \n"
        "Total Number of Cached Exception Classes(32 Records) : 0, \n"
        "Total Number of Cached ThrowingClasses(33 Records) : 0, \n"
        "Total Number of Cached ThrowingMethods(34 Records) : 0, \n"
        "Total Number of Cached Exception Messages (35 Records): 0 \n"
        "-------------------SummaryReport(CachedRecords)---------------------\n";
    EXPECT_EQ(request("Summary"), summary + kDone);
    // ALL: the summary, then everything; destination 2 sends the records to both connections.
    EXPECT_EQ(maskMarkers(request("ALL;2"), before), summary + kAll + kDone);
    EXPECT_EQ(maskMarkers(queuedRecords(), before), kAll);
    EXPECT_EQ(qvCachedResourceCount(), 1);
}

TEST_F(ClientManagerTest, RequestsAreReadAsTheCollectorWritesThemAndErrorsAnsweredOneByOne) {
    makePool();
    for (const std::string bad : {";1", " , ,"})  // no selector
        EXPECT_EQ(request(bad), "Invalid Request : '" + kReq + bad + "'\n" + kDone);
    // A destination above 2 means the data connection only; text without digits reads as 0.
    EXPECT_EQ(request("5_2;3;-1"), kDone);
    EXPECT_EQ(request("5_3;x;y"), "5,beta,3\n" + kDone);
    // A selector begins with its type; an id or a time is read as far as it is a number.
    EXPECT_EQ(request("22,5x_4,6_3zz,21_,Summary2;1"),
              "Invalid Request recieved from client : '22'\n"
              "Invalid Request recieved from client : 'Summary2'\n" +
                  kDone);
    EXPECT_EQ(queuedRecords(), "5,alpha,2\n5,gamma,4\n6,X-Req,3\n");
    // More than seven selectors: the eighth and later are ignored.
    EXPECT_EQ(request("5_1,5_1,5_1,5_1,5_1,5_1,5_3,5_4;1"), kDone);
    const std::string first = "5," QV_DEFAULT_METHOD_NAME ",1\n";
    EXPECT_EQ(queuedRecords(), "5,alpha,2\n5,gamma,4\n6,X-Req,3\n" + first + first + first + first + first +
                                   first + "5,beta,3\n");

    // Oversized, binary and null requests: no crash, the oversized one is refused.
    std::string huge = kReq + std::string(QV_CM_MAX_REQUEST, 'A');
    const size_t from = peer_.bytes(0).size();
    processClientMessage(huge.data());
    ASSERT_TRUE(peer_.waitFor([&] { return peer_.bytes(0).size() >= from + QV_CM_ERROR_SIZE - 1; }, kWaitMs));
    std::string err = peer_.bytes(0).substr(from);
    EXPECT_EQ(err.size(), QV_CM_ERROR_SIZE - 1u);
    EXPECT_TRUE(err.starts_with("Invalid Request : 'qv_meta_data_req")) << err.substr(0, 40);
    EXPECT_EQ(err.back(), '\n');
    std::string binary = kReq + std::string("\x01\xff\x7f;\x80;", 6);
    processClientMessage(binary.data());
    processClientMessage(nullptr);
    char empty[] = "";
    processClientMessage(empty);
    handleCurrRecord(nullptr);
    checkAndSendCachedRecord(5, nullptr);
    parseCurrentRequestMessage(nullptr);
    EXPECT_EQ(findRecordTypeAndSendCachedData(0, 99, 1), 0);
    EXPECT_EQ(qvCacheResourceMetaRecord(0, "x"), -1);
    EXPECT_EQ(qvCacheHeaderMetaRecord(nullptr, 4), -1);
}

TEST_F(ClientManagerTest, TimeSelectorAndNoTestRunning) {
    makePool();
    // No replay yet: any time passes.
    EXPECT_EQ(request("5_2:1000;1"), kDone);
    const long long last = QVClientManager.lastSentMetadataTimeStamp;
    ASSERT_GT(last, 1000);
    EXPECT_EQ(request("5:1000,7_2;1"),
              "Wrong Timestamp : RecordField- 5 Paased timeStamp- 1000 Should be more "
              "than last sent metadata timestamp " +
                  std::to_string(last) + kDone);
    const std::string later = std::to_string(last + 3600000);
    EXPECT_EQ(request("5:" + later + "_3,5_+4:" + later + ";1"), kDone);
    const std::string replayed = "5,alpha,2\n7,2,/shop/cart\n5,beta,3\n5,gamma,4\n";
    EXPECT_EQ(queuedRecords(), replayed);

    // No test running: each record is answered with the error instead.
    qv_store(app_->Server.controlCommunicationBusyFlag, 0);
    const std::string pre =
        "qv_meta_data_rep:action=send_meta_data;result=Error :<Unable to write current Cached Record = ";
    const std::string post = " , on data connection, because currently there is no test running.>\n";
    const long long before = my_gettimeofday();
    EXPECT_EQ(maskMarkers(request("5_2,7;1"), before), pre + "5,alpha,2" + post + pre + "11,T,7" + post +
                                                           pre + "7,2,/shop/cart" + post + pre +
                                                           "7,3,/shop/pay" + post + kDone);
    EXPECT_EQ(queuedRecords(), replayed);
}

TEST_F(ClientManagerTest, CutRecordsReplayTheBytesOfTheLiveRecords) {
    makePool();
    // With the data thread flagged as running the registry sends its live record.
    qv_store(app_->QVBCISetting.data_thread_running, 1);
    std::string longName(QV_METHOD_META_NAME_MAX + 50, 'm');
    methodPropProperties* m = updateMethodHashMap(longName.c_str(), 0, 0, nullptr);
    qv_store(app_->QVBCISetting.data_thread_running, 0);
    ASSERT_NE(m, nullptr);
    std::string longQuery(QV_SQL_META_AREA_SIZE + 100, 'q');
    ASSERT_EQ(checkAndProcessQuery(longQuery.c_str(), 0), 7);
    const std::string live = queuedRecords();
    ASSERT_EQ(live.size(), (2 + QV_METHOD_META_NAME_MAX + 3) + (QV_SQL_META_AREA_SIZE + 4u));

    qv_data_dispatcher_reset_for_test();
    makePool();
    QVClientManager.destination = QV_CM_DEST_DATA;
    EXPECT_EQ(collectAndSendOnlyCached5Records(m->methodId, 0), 1);
    EXPECT_EQ(collectAndSendOnlyCached22Records(7, 0), 1);
    EXPECT_EQ(queuedRecords(), live);
    EXPECT_EQ(live.substr(live.size() - 5), std::string("\0...\n", 5));
}

class ClientManagerConcurrency : public ClientManagerTest {};

TEST_F(ClientManagerConcurrency, ReplaysWhileTheTablesGrow) {
    makePool();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            std::string n = "m" + std::to_string(i);
            updateMethodHashMap(n.c_str(), 0, 0, nullptr);
            char bt[129];
            snprintf(bt, sizeof(bt), "/w/%d", i);
            updateBTObject(bt);
            checkAndProcessQuery(("select " + std::to_string(i)).c_str(), 1);  // "select 1" is known: id 6
            qvCacheResourceMetaRecord(100 + i, n.c_str());
            qvCacheHeaderMetaRecord(n.c_str(), 100 + i);
        }
        done = true;
    });
    for (int i = 0; i < 5 || !done; ++i) {
        std::string line = kReq + "5,6,7,21;1";
        processClientMessage(line.data());
    }
    writer.join();
    request("ALL;0");
    std::string ctl = peer_.bytes(0);
    for (const char* rec :
         {"5,m199,204\n", "6,m199,299\n", "7,203,/w/199\n", "22,0,205,select 199\n", "26,299,m199\n"})
        EXPECT_NE(ctl.find(rec), std::string::npos) << rec;
}

TEST_F(ClientManagerConcurrency, NewDataConnectionReplaysEverythingAfterTheConnectionRecord) {
    ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", peer_.port()), 0);
    qv_store(app_->Server.testRunRunning, 1);
    qv_store(app_->Server.retryForDataConn, 1);
    qv_store(app_->Server.doNotDumpMetaData, 1);
    qv_store(app_->Server.controlCommunicationBusyFlag, 1);
    long long before = my_gettimeofday();
    ASSERT_EQ(check_data_thread(), 0);
    ASSERT_TRUE(peer_.waitFor([&] { return peer_.connectionCount() == 2; }, kWaitMs));
    ASSERT_TRUE(peer_.waitForContains(1, "26,9,http://h/a\n", kWaitMs));
    std::string data = peer_.bytes(1);
    ASSERT_TRUE(data.starts_with("qv_data_msg_req:"));
    const std::string conn = "\n99,NewConnection,FPGVersion:1.0\n";
    size_t at = data.find(conn);
    ASSERT_NE(at, std::string::npos);
    // Heartbeats may follow the replay.
    EXPECT_EQ(maskMarkers(data.substr(at + conn.size()), before).substr(0, kAll.size()), kAll);
    EXPECT_EQ(peer_.bytes(0), "");  // nothing on the control connection
}

}  // namespace
