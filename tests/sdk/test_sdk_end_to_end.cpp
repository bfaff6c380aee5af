// End-to-end tests of the SDK inside one process: real agent start-up, a real data thread and a
// loopback listener standing in for the collector. Expected records are written out by hand from
// the record formats; "{T}" marks a wall-clock millisecond value (the SDK's start time of 0 makes
// flowpath times come out as the wall clock) and "{D}" a callout duration.
#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "bt/QVBTRuleReader.h"
#include "core/QVConfig.h"
#include "foundation/qvlb_util.h"
#include "sdk/sdk_fixture.h"
#include "support/loopback_peer.h"

namespace {

constexpr int kWaitMs = 30000;  // safety net only; waits end as soon as the records are there
const std::string kNewConn = "\n99,NewConnection,FPGVersion:1.0\n";
const std::string kDefaultQueries =
    "22,0,1,Unknown\n22,0,2,XA TRANSACTION START\n22,0,3,XA TRANSACTION COMMIT\n22,0,4,XA TRANSACTION END\n"
    "22,0,5,XA TRANSACTION ROLLBACK\n";

// Whether got is tmpl with each "{T}" a number in [t0, t1] and each "{D}" one in [0, t1 - t0].
::testing::AssertionResult matchTemplate(const std::string& tmpl, const std::string& got, long long t0,
                                         long long t1) {
    std::vector<bool> wall;
    for (size_t i = tmpl.find('{'); i != std::string::npos; i = tmpl.find('{', i + 1))
        wall.push_back(tmpl[i + 1] == 'T');
    const std::string re = std::regex_replace(reEscape(tmpl), std::regex(R"(\\\{[TD]\\\})"), R"((\d{1,18}))");
    std::smatch m;
    if (!std::regex_match(got, m, std::regex(re))) return ::testing::AssertionFailure() << "records differ";
    for (size_t k = 0; k < wall.size(); ++k) {
        const long long v = std::stoll(m[k + 1]), lo = wall[k] ? t0 : 0, hi = wall[k] ? t1 : t1 - t0;
        if (v < lo || v > hi)
            return ::testing::AssertionFailure() << "value " << v << " outside [" << lo << ", " << hi << "]";
    }
    return ::testing::AssertionSuccess();
}

class SdkEndToEnd : public SdkFixture {
  protected:
    void SetUp() override {
        SdkFixture::SetUp();
        ASSERT_NO_FATAL_FAILURE(startSdk());
        app_ = qvApplication;
        QVSys_t& s = app_->QVSys;
        // Ids 1000 + the counter value: computable by hand.
        qv_store(s.flowPathInstanceInitialID, 1000LL);
        qv_store(s.timeStampMask, 0LL);
        qv_store(s.seqNoDigits, 0LL);
        qv_store(s.seqNumMask, 0xffffLL);
        qv_store(s.bciInstrSessionPct, 100);
        qv_store(s.dataBuffMaxCount, 256);
        qv_store(s.bciDataBufferMaxSize, 65536);
        qv_store(s.qvcBciDataConnectionHeartBeat, 0);
        qv_store(app_->Server.korEpochDiffTime, 0LL);
        qv_store(dataConnRetryIntervalMs, 200);
    }
    void afterDataStop() override {
        peer_.stop();
        if (connected_) {  // the list points at server_, which is not the module's to free
            qvc_server_arr = nullptr;
            server_arr_size = 0;
            active_qvc_idx = 0;
        }
    }

    // Points the collector list at the listener, marks the test run running and starts the
    // data thread; returns once the connection's opening records arrived.
    void connect() {
        ASSERT_TRUE(peer_.start());
        clear_qvc_server_setting();
        connected_ = true;
        server_ = {1, static_cast<unsigned int>(peer_.port()), const_cast<char*>("127.0.0.1")};
        qvc_server_arr = &server_;
        server_arr_size = 1;
        active_qvc_idx = 0;
        qv_store(app_->QVBCISetting.qvcPort, peer_.port());
        qv_store(app_->Server.testRunRunning, 1);
        qv_store(app_->Server.retryForDataConn, 1);
        ASSERT_EQ(check_data_thread(), 0);
        ASSERT_TRUE(peer_.waitForContains(0, kNewConn, kWaitMs));
        const std::string all = peer_.bytes(0);
        base_ = all.find(kNewConn) + kNewConn.size();
        t0_ = my_gettimeofday();
    }

    // Records received after the connection's opening records.
    std::string received() const { return peer_.bytes(0).substr(base_); }

    // Waits until the records of tmpl arrived, then checks them against it: its times lie between
    // the connection and now.
    void expectRecords(const std::string& tmpl) {
        const long long t1 = my_gettimeofday();
        // Every record ends with its newline: once they all arrived, the records are whole.
        const auto records = std::count(tmpl.begin(), tmpl.end(), '\n');
        peer_.waitFor(
            [&] {
                const std::string r = received();
                return std::count(r.begin(), r.end(), '\n') >= records;
            },
            kWaitMs);
        // Nothing more may follow: give the sender a moment to show stray records.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const std::string got = received();
        EXPECT_TRUE(matchTemplate(tmpl, got, t0_, t1)) << "got:\n" << got << "\nexpected:\n" << tmpl;
    }

    QVProxyInstance_t* app_ = nullptr;
    LoopbackPeer peer_;
    qvc_servers server_{};
    size_t base_ = 0;
    long long t0_ = 0;
    bool connected_ = false;
};

TEST_F(SdkEndToEnd, TransactionWithMethodsDatabaseAndNestedHttpCallouts) {
    connect();
    setMaxCharactersInSeqBlob(60);
    char bt[] = "/shop/cart", a[] = "A", b[] = "B", dbHost[] = "dbhost", query[] = "select * from t";
    char apiHost[] = "api.host", u1[] = "/x", u2[] = "/y";

    qvBTHandle h = qv_bt_begin(bt, nullptr);
    ASSERT_NE(h, nullptr);
    qv_method_entry(h, a);
    qv_method_entry(h, b);
    qvIPCallOutHandle db = qv_ip_db_callout_begin(h, dbHost, query);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(qv_ip_db_callout_end(h, db), 0);
    qvIPCallOutHandle http = qv_ip_http_callout_begin(h, apiHost, u1);
    ASSERT_NE(http, nullptr);
    EXPECT_EQ(qv_ip_http_callout_begin(h, apiHost, u2), http);  // found again, not created
    EXPECT_EQ(qv_ip_http_callout_end(h, http), 0);
    EXPECT_EQ(qv_ip_http_callout_end(h, http), 0);

    qv_method_exit(h, b);
    qv_method_exit(h, a);
    EXPECT_EQ(qv_bt_end(h), 0);

    // Ids: DefaultMethod 1, then A 2, B 3, dbhost 4, api.host 5; BT 2; flowpath 1000 + 1.
    // The blob passes 60 bytes after B's entry and again after B's exit.
    const std::string expected =
        "7,2,/shop/cart\n"
        "5,A,2\n"
        "5,B,3\n"
        "2,1001,0,1,1.1,2,/shop/cart,,0,0,0,,0,0\n"
        "3,1001,1:0_0_{T}__2:0_0_{T}__3:0_0_{T}__\n"
        "5,dbhost,4\n" +
        kDefaultQueries +
        "22,1001,6,select * from t\n"
        "5,api.host,5\n"
        "3,1001,T4:4:{D}:10:6:{T}_T6:5:{D}:1:0:{T}_3:0_1_0_0___\n"
        "4,1001,200,12,0,{T},2,0,2:0_1_0_0___1:0_1_{T}_0___\n";
    expectRecords(expected);

    // The record stays busy after the end (only a reset or test stop gives it back).
    EXPECT_GE(qv_load(gBusyTLSCnt), 1);
}

// The discard mark (-99) of an excluded flowpath whose data went out is checked by the flowpath
// tests.
TEST_F(SdkEndToEnd, FlowpathExcludedByARuleWritesNothing) {
    char rules[] = "7|Excl|3|1|/excluded|1\n";
    qvbt_read_rule_file(rules);
    connect();
    char bt1[] = "/excluded/x", m[] = "M", host[] = "h1", url[] = "/u";
    qvBTHandle h = qv_bt_begin(bt1, nullptr);
    ASSERT_NE(h, nullptr);
    qv_method_entry(h, m);
    qvIPCallOutHandle ip = qv_ip_http_callout_begin(h, host, url);
    qv_ip_http_callout_end(h, ip);
    qv_method_exit(h, m);
    EXPECT_EQ(qv_bt_end(h), 0);

    expectRecords(
        "5,M,2\n"
        "5,h1,3\n");
}

TEST_F(SdkEndToEnd, Status500MakesLaterCalloutsErrorsAndUnbalancedEndsWriteTwice) {
    connect();
    char bt[] = "/err", s[] = "S", db[] = "db", q[] = "q", host[] = "h", url[] = "/u";
    qvBTHandle h = qv_bt_begin(bt, nullptr);
    ASSERT_NE(h, nullptr);
    auto* td = static_cast<QVPerThreadData_t*>(h);
    qv_method_entry(h, s);
    // The SDK always reports 200; the engine's own exit carries the 500.
    qvMethodExit(nullptr, td, s, 0, 500, nullptr, 0, 0, 0, nullptr, 1);
    qv_method_exit(h, s);  // unbalanced: a later 200 does not lower the status
    qvIPCallOutHandle ip = qv_ip_http_callout_begin(h, host, url);
    qvIPCallOutHandle dbip = qv_ip_db_callout_begin(h, db, q);
    EXPECT_EQ(qv_ip_db_callout_end(h, dbip), 0);
    EXPECT_EQ(qv_ip_http_callout_end(h, ip), 0);
    EXPECT_EQ(qv_ip_http_callout_end(h, ip), 0);  // one begin, two ends: a record at each end
    EXPECT_EQ(td->httpCallOutDepth, -1);
    EXPECT_EQ(qv_bt_end(h), 0);
    // Seq: pseudo 1, S entry 2, S exits 3 and 4, db end 5, http ends 6 and 7, pseudo exit 8.
    expectRecords(
        "7,2,/err\n"
        "5,S,2\n"
        "5,h,3\n"
        "5,db,4\n" +
        kDefaultQueries +
        "22,1001,6,q\n"
        "2,1001,0,1,1.1,2,/err,,0,0,0,,0,0\n"
        "4,1001,500,13,0,{T},2,0,1:0_0_{T}__2:0_0_{T}__2:0_1_0_0___2:0_1_0_0___E5:4:{D}:10:6:{T}:500_"
        "E6:3:{D}:1:0:{T}:500_E7:3:{D}:1:0:{T}:500_1:0_1_{T}_0___\n");
}

// The same set-up under the suite name that selects it for ThreadSanitizer.
class SdkConcurrency : public SdkEndToEnd {};

TEST_F(SdkConcurrency, ManyThreadsRunTransactionsAndEveryRecordArrivesWellFormed) {
    connect();
    setMaxCharactersInSeqBlob(70);
    constexpr int kThreads = 8;
    constexpr int kTx = 40;
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &started] {
            for (int i = 0; i < kTx; ++i) {
                std::string bt = "/conc/b" + std::to_string((t + i) % 3);
                std::string q = "select " + std::to_string(i % 2);
                char work[] = "work", dbHost[] = "conc-db", http[] = "conc-http", url[] = "/u";
                qvBTHandle h = qv_bt_begin(bt.data(), nullptr);
                if (h == nullptr) continue;
                started.fetch_add(1);
                qv_method_entry(h, work);
                qvIPCallOutHandle d = qv_ip_db_callout_begin(h, dbHost, q.data());
                qv_ip_db_callout_end(h, d);
                qvIPCallOutHandle w = qv_ip_http_callout_begin(h, http, url);
                qv_ip_http_callout_end(h, w);
                qv_method_exit(h, work);
                qv_bt_end(h);
            }
        });
    }
    for (auto& th : threads) th.join();
    ASSERT_EQ(started.load(), kThreads * kTx);  // the pool grows: nobody is refused

    peer_.waitFor(
        [&] {
            const std::string r = "\n" + received();
            int n = 0;
            for (size_t p = r.find("\n4,"); p != std::string::npos; p = r.find("\n4,", p + 1)) ++n;
            return n >= kThreads * kTx;
        },
        kWaitMs);

    std::map<std::string, int> methodIds;  // name -> id from the 5 records
    std::map<int, std::string> bts;        // id -> name from the 7 records
    std::set<std::string> queryIds;
    struct Fp {
        int headers = 0, ends = 0, bt = -1;
        std::string url, blob;
    };
    std::map<std::string, Fp> fps;
    const std::regex meta5(R"(5,([^,]+),(\d+))"), meta7(R"(7,(\d+),(.+))"), meta22(R"(22,(\d+),(\d+),(.*))");
    const std::regex hdr(R"(2,(\d+),0,(\d+),(\d+)\.1,(\d+),([^,]*),,0,0,0,,0,0)");
    const std::regex seq(R"(3,(\d+),(.*))");
    const std::regex end(R"(4,(\d+),200,12,0,(\d+),(\d+),0,(.*))");
    std::smatch mm;
    for (const std::string& l : splitLines(received())) {
        if (std::regex_match(l, mm, meta5)) {
            EXPECT_TRUE(methodIds.emplace(mm[1], std::stoi(mm[2])).second) << "method named twice: " << l;
        } else if (std::regex_match(l, mm, meta7)) {
            EXPECT_TRUE(bts.emplace(std::stoi(mm[1]), mm[2]).second) << "BT id twice: " << l;
        } else if (std::regex_match(l, mm, meta22)) {
            EXPECT_TRUE(queryIds.insert(mm[3]).second || mm[1] == "0") << "query sent twice: " << l;
        } else if (std::regex_match(l, mm, hdr)) {
            Fp& f = fps[mm[1]];
            EXPECT_EQ(f.headers++, 0) << l;
            EXPECT_EQ(mm[2], mm[3]) << l;
            f.url = mm[5];
            f.bt = std::stoi(mm[4]);
        } else if (std::regex_match(l, mm, seq) || std::regex_match(l, mm, end)) {
            const bool isEnd = l[0] == '4';
            Fp& f = fps[mm[1]];
            EXPECT_EQ(f.headers, 1) << "record before header: " << l;
            EXPECT_EQ(f.ends, 0) << l;
            if (isEnd) {
                ++f.ends;
                EXPECT_EQ(std::stoi(mm[3]), f.bt) << l;
            }
            f.blob += mm[isEnd ? 4 : 2];
        } else {
            ADD_FAILURE() << "malformed record: " << l;
        }
    }
    ASSERT_EQ(fps.size(), static_cast<size_t>(kThreads * kTx));
    ASSERT_EQ(bts.size(), 3u);
    EXPECT_EQ(queryIds.size(), 2u + 5u);  // two texts plus the five defaults (by text)
    const int work = methodIds["work"], dbId = methodIds["conc-db"], httpId = methodIds["conc-http"];
    const std::regex blob("1:0_0_\\d+__" + std::to_string(work) + ":0_0_\\d+__T3:" + std::to_string(dbId) +
                          ":\\d+:10:[67]:\\d+_T4:" + std::to_string(httpId) + ":\\d+:1:0:\\d+_" +
                          std::to_string(work) + ":0_1_0_0___1:0_1_\\d+_0___");
    for (const auto& [fpi, f] : fps) {
        EXPECT_EQ(f.ends, 1) << fpi;
        EXPECT_EQ(bts.at(f.bt), f.url) << fpi;
        EXPECT_TRUE(std::regex_match(f.blob, blob)) << fpi << ": " << f.blob;
    }
}

}  // namespace
