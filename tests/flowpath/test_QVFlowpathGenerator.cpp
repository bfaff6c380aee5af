// The flowpath engine against the whole wired agent, down to the records it queues or sends.
#include "flowpath/QVFlowpathGenerator.h"

#include <gtest/gtest.h>

#include <climits>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "collector/QVCServerConfig.h"
#include "core/QVSettingRecords.h"
#include "core/qvlb_keywords.h"
#include "flowpath/QVSQLProcessor.h"
#include "flowpath/QVSessionCookie.h"
#include "flowpath/flowpath_fixture.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "foundation/qvlb_util.h"
#include "sdk/qv_flowpath_wiring.h"
#include "sdk/qv_modules.h"
#include "sdk/qv_sdk.h"
#include "support/loopback_peer.h"

namespace {

constexpr long long T0 = 1700000000000LL;  // a flowpath start on the collector time base
constexpr int kWaitMs = 20000;             // safety net only

char* txt(const char* s) {
    return const_cast<char*>(s);
}

std::vector<std::string> split(const std::string& s) {
    std::vector<std::string> out{""};
    for (char c : s)
        if (c == ',')
            out.emplace_back();
        else
            out.back() += c;
    return out;
}

class FlowpathTest : public AgentTest {
  protected:
    void SetUp() override {
        home_->write("config/qvsettings.conf",
                     "tier=T1\nserver=S1\ninstance=I1\nqvcHost=127.0.0.1\nqvcPort=1\n");
        home_->write("config/instrprofile.conf",
                     "entry|Svc.handle\nmonitor|Plain.work\ndb|Db.query\nhttp|Http.call\n"
                     "custom|Cust.op||Cust.target\nforceentry|Forced.in\n");
        qvlb_register_modules();
        qv_wire_flowpath_hooks();
        // No collector conversation here: tests drive the test run themselves.
        qvAgentHooks.controlThreadEntry = nullptr;
        startAgent(1);
        ASSERT_NE(DefaultMethod, nullptr);
        app_ = qvApplication;
        qv_store(app_->QVSys.dataBuffMaxCount, 16);
        qv_store(app_->QVSys.bciDataBufferMaxSize, 1 << 20);
        ASSERT_EQ(buff_list_init(), 0);
        qv_store(app_->QVSys.fpTraceLevel, 1);
        qv_store(app_->QVSys.bciInstrSessionPct, 100);
        qv_store(app_->Server.testRunRunning, 1);
    }
    // Flowpath records (types 2, 3, 4) dispatched since from bytes (no data thread drains them here).
    static std::vector<std::string> fpRecords(size_t from = 0) {
        std::vector<std::string> out;
        std::istringstream in(queuedRecords().substr(from));
        for (std::string l; std::getline(in, l);)
            if (l.rfind("2,", 0) == 0 || l.rfind("3,", 0) == 0 || l.rfind("4,", 0) == 0) out.push_back(l);
        return out;
    }
    static QVPerThreadData_t* tryStart(const char* fp = nullptr, const char* url = "/shop/cart",
                                       long long startTime = T0, const char* cookie = nullptr,
                                       const char* wb = nullptr, const char* corr = nullptr,
                                       long long qTime = 7) {
        return static_cast<QVPerThreadData_t*>(
            startFP(txt(fp), txt(url), nullptr, nullptr, txt(cookie), txt(wb), txt(corr), qTime, startTime));
    }
    template <class... A>
    static QVPerThreadData_t* start(A... a) {
        QVPerThreadData_t* r = tryStart(a...);
        EXPECT_NE(r, nullptr);
        return r;
    }
    // Entry at T0 + at: explicit start times keep the blob deterministic.
    static methodPropProperties* enter(QVPerThreadData_t* r, const char* name, long long at,
                                       const char* url = nullptr) {
        return qvMethodEntry(nullptr, r, txt(name), txt(url), nullptr, 0, nullptr, nullptr, T0 + at);
    }
    static methodPropProperties* leave(QVPerThreadData_t* r, const char* name, long long wall,
                                       int status = 200, const char* backend = nullptr, int calloutDone = 0) {
        return qvMethodExit(nullptr, r, txt(name), -1, status, txt(backend), wall, 0, calloutDone, nullptr,
                            1);
    }
    static methodPropProperties* method(const char* name) {
        methodPropProperties* m = getMethodPropFromMethodName(name, nullptr);
        EXPECT_NE(m, nullptr) << name;
        return m;
    }
    static std::string id(const char* name) {
        methodPropProperties* m = method(name);
        return m ? std::to_string(m->methodId) : "?";
    }
    static std::string fpi(QVPerThreadData_t* r) { return std::to_string(r->flowpathInstance); }
    static std::string blob(QVPerThreadData_t* r) { return std::string(r->sequenceBlob, r->sequenceBlobLen); }
    static int btId(QVPerThreadData_t* r) { return qvFlowpathHooks.getBTId(r->tlBTObj); }
    // The one record a header dump of r writes.
    std::string header(QVPerThreadData_t* r) {
        size_t mark = queuedRecords().size();
        dumpFPHeaderRecord(r);
        std::vector<std::string> recs = fpRecords(mark);
        EXPECT_EQ(recs.size(), 1u);
        return recs.empty() ? "" : recs[0];
    }

    QVProxyInstance_t* app_ = nullptr;
};

TEST_F(FlowpathTest, InstanceIdsFollowTheMaskAndItsKeywords) {
    QVSys_t& s = app_->QVSys;
    char zero[] = "0%200%200%200";
    parse_flowpath_mask(zero);
    for (int i = 0; i < 3; i++) EXPECT_EQ(generate_flowpath_instance(), 0);

    // Sequence part only: the counter moves by two per id and the second advance's old value counts.
    char seqOnly[] = "5%200%200%20FF";
    parse_flowpath_mask(seqOnly);
    qv_store(s.rSeq, 10);
    EXPECT_EQ(generate_flowpath_instance(), 5 + 11);
    EXPECT_EQ(generate_flowpath_instance(), 5 + 13);

    // seqNoDigits 70 shifts by 70 & 63 = 6.
    char wide[] = "0%20FFFFFFFFFFF%2070%203F";
    parse_flowpath_mask(wide);
    qv_store(s.rSeq, 40);
    long long before = my_gettimeofday();
    long long fp = generate_flowpath_instance();
    EXPECT_EQ(fp & 63, 41);
    EXPECT_GE(fp >> 6, before);
    EXPECT_LE(fp >> 6, my_gettimeofday());

    ASSERT_GE(findStatusFromClientMsg(txt("qv_control_req:action=modify;qvFlowpathMasks=1A%2000FF%2070%20F;"
                                          "maxCharInSeqBlob=5000")),
              2);
    EXPECT_EQ(ints(s.flowPathInstanceInitialID, s.timeStampMask, s.seqNoDigits, s.seqNumMask),
              ints(26, 255, 70, 15));
    EXPECT_EQ(getMaxCharactersInSeqBlob(), 5000);
    char shortMask[] = "7%20FF";
    parse_flowpath_mask(shortMask);
    EXPECT_EQ(ints(s.flowPathInstanceInitialID, s.timeStampMask, s.seqNoDigits, s.seqNumMask),
              ints(7, 255, 0, 0));
}

TEST_F(FlowpathTest, CaptureDecisionAndForcedAndChainedStrings) {
    qv_store(app_->QVSys.bciInstrSessionPct, 0);
    QVPerThreadData_t* r = start();
    // Sampled at 100 %, forced for all, neither.
    const int cases[][3] = {{100, 0, 1}, {0, 1, 1}, {0, 0, 0}};
    for (const auto& [pct, all, want] : cases) {
        qv_store(app_->QVSys.bciInstrSessionPct, pct);
        qv_store(app_->QVSys.captureMethodForAllFP, static_cast<short>(all));
        setFPCaptured(r, 1);
        EXPECT_EQ(r->tlIsFPCaptured, want) << pct << " " << all;
    }

    QVPerThreadData_t* forced = start("123F");
    EXPECT_EQ(ints(forced->flowpathInstance, forced->tlIsForceDump, forced->tlIsFPCaptured), ints(123, 1, 1));
    EXPECT_EQ(search_hashmap(fpiToTLS, "123"), forced);

    QVPerThreadData_t* chained = start("5_7_3.2");
    EXPECT_EQ(ints(chained->tlIsForceDump, chained->firstFlowpathInstance, chained->prevFlowpathInstance),
              ints(0, 5, 7));
    EXPECT_STREQ(chained->prevTierSeq, "3.2");
    QVPerThreadData_t* lone = start("9_");
    EXPECT_EQ(lone->prevFlowpathInstance, 9);
    EXPECT_STREQ(lone->prevTierSeq, "1");

    char buf[32];
    startFPTemp(txt("77"), txt("/t"), buf);
    EXPECT_EQ(reinterpret_cast<QVPerThreadData_t*>(strtoll(buf, nullptr, 10))->flowpathInstance, 77);

    qv_store(app_->Server.gettingstopInstrumenatation, 1);
    EXPECT_EQ(tryStart(), nullptr);
    qv_store(app_->Server.gettingstopInstrumenatation, 0);
    qv_store(app_->Server.testRunRunning, 0);
    EXPECT_EQ(tryStart(), nullptr);
}

TEST_F(FlowpathTest, HeadersOfFirstAndLaterTiers) {
    // First tier: fourteen fields, the twelfth empty.
    QVPerThreadData_t* r = start(nullptr, "/shop/cart?x=1");
    const std::string tid = std::to_string(r->tlThreadId);
    EXPECT_EQ(header(r), "2," + fpi(r) + "," + std::to_string(T0 / 1000) + "," + tid + "," + tid + ".1," +
                             std::to_string(btId(r)) + ",/shop/cart?x=1,,0,0,0,,0,7");
    // Without parameters the URL stands alone; whole seconds are truncated toward zero.
    QVPerThreadData_t* plain = start(nullptr, "/a", -5500);
    std::vector<std::string> f = split(header(plain));
    ASSERT_EQ(f.size(), 14u);
    EXPECT_EQ(f[2] + f[6], "-5/a");

    // A later tier with parameters, force dump and a live session.
    qv_store(app_->QVSys.bciInstrSessionPct, 0);
    qv_store(app_->QVSys.captureCorrelationEnabled, 1);
    std::string cookie = "sid=42; inst=1 ;cnt=3;ts=" + std::to_string(T0 - 1000);
    QVPerThreadData_t* l = start("5F_7F_3.2", "/a/b?p=1", T0, cookie.c_str(), "9|11", "req%201", 12);
    EXPECT_EQ(l->tlIsFPCaptured, 1);  // the session is instrumented
    EXPECT_EQ(header(l), "2," + fpi(l) + "F:5F:7F," + std::to_string(T0 / 1000) + "," +
                             std::to_string(l->tlThreadId) + ",3.2.1," + std::to_string(btId(l)) +
                             ",/a/b?p=1,req 1,42,9,11,,0,12");

    // An expired session (count past maxFPCountInSession) starts a new one with this flowpath.
    QVPerThreadData_t* e = start(nullptr, "/a/b", T0, "sid=42;inst=1;cnt=1001;ts=0");
    EXPECT_EQ(ints(e->qvSessionId, e->totalFpcount, e->tlIsFPCaptured), ints(e->flowpathInstance, 1, 0));
    // A malformed cookie is no session at all: a fresh one starts, nothing from the text is taken.
    QVPerThreadData_t* m = start(nullptr, "/a/b", T0, "sid=42;inst=1;cnt=x", "9|z");
    EXPECT_EQ(ints(m->qvSessionId, m->tlIsFPCaptured, m->korSID, m->QVPageID),
              ints(m->flowpathInstance, 0, 0, 0));
}

TEST_F(FlowpathTest, BlobEntriesOfEveryForm) {
    QVPerThreadData_t* r = start();
    // The pseudo-method's entry opens every flowpath, at relative time 0.
    EXPECT_EQ(blob(r), std::to_string(DefaultMethod->methodId) + ":0_0_0__");
    r->sequenceBlobLen = 0;
    updateFPSeqBlob(r, 7, 15, 0, 3, -1, 0, 99, nullptr);
    updateFPSeqBlob(r, 7, 15, 0, -1, -1, 1, 99, txt("/u"));
    updateFPSeqBlob(r, 7, 15, 0, -1, -1, 0, 99, nullptr);
    updateFPSeqBlob(r, 7, 20, 1, -1, -1, 0, 99, nullptr);
    updateFPSeqBlob(r, 7, 20, 1, -1, 4, 0, 99, nullptr);
    updateFPSeqBlob(r, 7, 20, 3, -1, -1, 0, 99, nullptr);
    updateFPSeqBlob(r, 7, 20, 4, -1, 0, 0, 99, nullptr);
    updateFPSeqBlob(r, 7, 20, 2, -1, 0, 0, 99, nullptr);  // not an event: nothing
    r->seqNum = 6;
    appendExceptionRecordInSeqBlob(r);
    EXPECT_EQ(
        blob(r),
        "7_0_15_3_7:99:1:/u_0_15__7:99_0_15__7:99_1_20____7:99_1_20_4___7:99_3_20____7:99_4_20_0___e6_");

    // An asynchronous entry keeps at most QV_SEQ_ASYNC_URL_MAX bytes of its URL.
    r->sequenceBlobLen = 0;
    std::string longUrl(5000, 'u');
    updateFPSeqBlob(r, 7, 15, 0, -1, -1, 1, 1, longUrl.data());
    EXPECT_EQ(blob(r), "7:1:1:" + std::string(QV_SEQ_ASYNC_URL_MAX, 'u') + "_0_15__");
}

// The entries' numbers are formatted by hand: every digit count and both extremes read as printf
// would print them.
TEST_F(FlowpathTest, EntryNumbersReadAsPrintfWouldPrintThem) {
    QVPerThreadData_t* r = start();
    std::vector<long long> values = {0, LLONG_MIN, LLONG_MAX, INT_MIN, INT_MAX, 4294967295LL, 4294967296LL};
    for (long long p = 1;; p *= 10) {
        for (long long v : {p - 1, p, p + 1, -p, -(p - 1)}) values.push_back(v);
        if (p > LLONG_MAX / 10) break;
    }
    char want[256];
    for (long long v : values) {
        const int mid = static_cast<int>(v);  // wraps: INT_MIN and INT_MAX come up too
        const long long neg = static_cast<long long>(0ULL - static_cast<unsigned long long>(v));
        r->sequenceBlobLen = 0;
        updateFPSeqBlob(r, mid, v, 0, -1, -1, 0, v, nullptr);
        updateFPSeqBlob(r, mid, v, 1, -1, v < 0 ? 0 : v, 0, neg, nullptr);
        snprintf(want, sizeof(want), "%d:%lld_0_%lld__%d:%lld_1_%lld_%lld___", mid, v, v, mid, neg, v,
                 v < 0 ? 0 : v);
        ASSERT_EQ(blob(r), want) << v;
        r->sequenceBlobLen = 0;
        updateFPSeqBlob(r, mid, v, 0, mid < 0 ? 0 : mid, -1, 0, 0, nullptr);
        snprintf(want, sizeof(want), "%d_0_%lld_%d_", mid, v, mid < 0 ? 0 : mid);
        ASSERT_EQ(blob(r), want) << v;
    }
}

TEST_F(FlowpathTest, CalloutRecordsOfEveryForm) {
    QVPerThreadData_t* r = start();
    methodPropProperties* db = method("Db.query");
    methodPropProperties* http = method("Http.call");
    const std::string d = std::to_string(db->methodId), h = std::to_string(http->methodId);
    r->seqNum = 4;
    r->tlSQLObj.sqlId = 9;
    auto only = [&](methodPropProperties* m) {
        r->sequenceBlobLen = 0;
        updateFPSeqBlobWithTierCallOutRecord(r, 100, 30, m);
        return blob(r);
    };
    EXPECT_EQ(only(db), "T4:" + d + ":30:10:9:100_");
    EXPECT_EQ(only(http), "T4:" + h + ":30:1:0:100_");
    r->tierCallOutSeqNum = 77;
    EXPECT_EQ(only(http), "T77:" + h + ":30:1:0:100_");
    EXPECT_EQ(r->tierCallOutSeqNum, 0);
    qv_store(app_->QVSys.enableIPResourceURL, 1);
    EXPECT_EQ(only(http), "T4:" + h + ":30:1:0:100:" + h + "_");
    r->tlStatusCode = 500;
    EXPECT_EQ(only(http), "E4:" + h + ":30:1:0:100:500:" + h + "_");
    qv_store(app_->QVSys.enableIPResourceURL, 0);
    EXPECT_EQ(only(http), "E4:" + h + ":30:1:0:100:500_");
    EXPECT_EQ(only(db), "E4:" + d + ":30:10:9:100:500_");
    r->tlStatusCode = 399;
    EXPECT_EQ(only(db), "T4:" + d + ":30:10:9:100_");
}

TEST_F(FlowpathTest, StatusFiveHundredTurnsLaterCalloutsToEAndBackendsAreNamed) {
    QVPerThreadData_t* r = start();
    enter(r, "Plain.work", 1);
    leave(r, "Plain.work", 1, 500);
    enter(r, "Svc.handle", 2);
    leave(r, "Svc.handle", 1, 200);
    leave(r, "Svc.handle", 1, -1);  // negative statuses never count
    EXPECT_EQ(r->tlStatusCode, 500);

    // Database callout without backend name: reported as "ADO.NET_QuoteDB" (whatever DBIPName
    // says), created with type 2.
    setDBIPName(txt("orders"), nullptr, -1);
    r->sequenceBlobLen = 0;
    enter(r, "Db.query", 3, "select 1 from t");
    const int depthInCall = r->tlSQLObj.DBCallDepth;
    leave(r, "Db.query", 4);
    EXPECT_EQ(ints(depthInCall, r->tlSQLObj.DBCallDepth), ints(1, 0));
    methodPropProperties* dbBackend = getMethodPropFromMethodName("ADO.NET_QuoteDB", nullptr);
    ASSERT_NE(dbBackend, nullptr);
    EXPECT_EQ(dbBackend->type, 2);
    std::regex dbRe(id("Db.query") + ":0_0_3__" + id("Db.query") +
                    ":0_1_4____E\\d+:" + std::to_string(dbBackend->methodId) +
                    ":4:10:" + std::to_string(r->tlSQLObj.sqlId) + ":\\d+:500_");
    EXPECT_TRUE(std::regex_match(blob(r), dbRe)) << blob(r);
    EXPECT_NE(queuedRecords().find("22,"), std::string::npos);  // the query's meta record

    // HTTP callout with a backend name: the "Host" rule names it by the host text; its record is
    // written once the tier callout was made (reserved sequence and call done).
    r->sequenceBlobLen = 0;
    enter(r, "Http.call", 5);
    EXPECT_EQ(r->httpCallOutDepth, 1);
    r->tierCallOutSeqNum = 31;
    qv_store(app_->QVSys.enableIPResourceURL, 1);
    size_t mark = queuedRecords().size();
    leave(r, "Http.call", 6, 200, "api.example.com", 1);
    EXPECT_EQ(r->httpCallOutDepth, 0);
    methodPropProperties* host = method("api.example.com");
    EXPECT_EQ(host->type, 1);
    const std::string hid = std::to_string(host->methodId);
    EXPECT_TRUE(std::regex_search(blob(r), std::regex("E31:" + hid + ":6:1:0:\\d+:500:" + hid + "_$")))
        << blob(r);
    EXPECT_NE(queuedRecords().substr(mark).find("26," + hid + ",api.example.com\n"), std::string::npos);

    // A custom callout writes a record for its target on every exit.
    r->sequenceBlobLen = 0;
    leave(r, "Cust.op", 2);
    EXPECT_TRUE(std::regex_search(blob(r), std::regex("E\\d+:" + id("Cust.target") + ":2:1:0:"))) << blob(r);
}

TEST_F(FlowpathTest, NonServiceMethodLimitHidesEntriesAndExits) {
    qv_store(app_->QVSys.bciMaxNonServiceMethodsPerFP, 2);
    QVPerThreadData_t* r = start();
    r->sequenceBlobLen = 0;
    enter(r, "A.one", 1);
    enter(r, "B.two", 2);
    enter(r, "C.three", 3);
    leave(r, "C.three", 1);
    leave(r, "B.two", 2);
    leave(r, "A.one", 5);
    const std::string a = id("A.one"), b = id("B.two");
    EXPECT_EQ(blob(r), a + ":0_0_1__" + b + ":0_0_2__" + b + ":0_1_2____" + a + ":0_1_5____");
    EXPECT_EQ(r->tlNonServiceMethodCount, 2);
    enter(r, "Svc.handle", 6);              // service methods do not count against the limit
    EXPECT_EQ(r->tlServiceMethodDepth, 2);  // with the pseudo-method
}

// Not captured or excluded, a flowpath writes nothing; if some of it was written out already, its
// end record marks it -99 with its category for discarding.
TEST_F(FlowpathTest, NotCapturedAndExcludedFlowpathsWriteNothingOrMarkTheirEnd) {
    qv_store(app_->QVSys.bciInstrSessionPct, 0);
    // Started now, so these flowpaths are quick (category 10) at their end.
    QVPerThreadData_t* r = start(nullptr, "/shop/cart", my_gettimeofday());
    ASSERT_EQ(r->tlIsFPCaptured, 0);
    size_t afterStart = blob(r).size();
    enter(r, "Plain.work", 1);
    leave(r, "Plain.work", 1);
    EXPECT_EQ(blob(r).size(), afterStart);  // no method events
    enter(r, "Forced.in", 2);               // forced entry still written
    EXPECT_GT(blob(r).size(), afterStart);
    endFP(r, 200, nullptr);
    EXPECT_TRUE(fpRecords().empty());
    EXPECT_EQ(static_cast<int>(r->tlCategory), 10);

    // Callout records are appended even so; once they were written out the end marks -99.
    QVPerThreadData_t* s = start(nullptr, "/shop/cart", my_gettimeofday());
    const int limit = getMaxCharactersInSeqBlob();
    setMaxCharactersInSeqBlob(static_cast<int>(blob(s).size()) + 10);
    enter(s, "Db.query", 1, "select 2");
    leave(s, "Db.query", 1);
    endFP(s, 200, nullptr);
    std::vector<std::string> recs = fpRecords();
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[1].rfind("3," + fpi(s) + ",", 0), 0u);
    EXPECT_TRUE(std::regex_match(
        recs[2], std::regex("4," + fpi(s) + ",-99,10,0,\\d+," + std::to_string(btId(s)) + ",0,.*")))
        << recs[2];

    // A slow one that was not captured is written in full.
    QVPerThreadData_t* slow = start();
    size_t mark = queuedRecords().size();
    dumpCompleteFlowpathSeqBlock(slow, 11, 0, 9000);
    EXPECT_EQ(fpRecords(mark).back().rfind("4," + fpi(slow) + ",200,11,0,9000,", 0), 0u);

    // Excluded by a BT rule (writing nothing is shown end to end): once data was written out, the
    // end record marks it for discarding with category 157 (-99 as a signed byte).
    qv_store(app_->QVSys.bciInstrSessionPct, 100);
    setMaxCharactersInSeqBlob(limit);
    QVPerThreadData_t* y = start();
    y->tlIsBTExcluded = 1;  // as a BT exclusion rule leaves it
    updateFPSeqBlobWithTierCallOutRecord(y, 1, 2, method("Db.query"));
    mark = queuedRecords().size();
    dumpIncompleteFlowpathSeqBlock(y);
    endFP(y, 200, nullptr);
    EXPECT_EQ(y->btCategory, -99);
    recs = fpRecords(mark);
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_TRUE(std::regex_match(
        recs[2], std::regex("4," + fpi(y) + ",-99,157,0,\\d+," + std::to_string(btId(y)) + ",0,")))
        << recs[2];
}

TEST_F(FlowpathTest, BlobOfExactlyTheLimitIsWrittenOutAtOnce) {
    QVPerThreadData_t* r = start("55F");
    const std::string first = blob(r);
    setMaxCharactersInSeqBlob(static_cast<int>(first.size()) + 11);
    updateFPSeqBlob(r, 7, 15, 0, -1, -1, 0, 0, nullptr);  // "7:0_0_15__": 10 bytes, one short
    EXPECT_TRUE(fpRecords().empty());
    r->sequenceBlobLen = static_cast<int>(first.size());
    setMaxCharactersInSeqBlob(static_cast<int>(first.size()) + 10);
    updateFPSeqBlob(r, 7, 15, 0, -1, -1, 0, 0, nullptr);
    std::vector<std::string> recs = fpRecords();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].rfind("2,55F,", 0), 0u);
    EXPECT_EQ(recs[1], "3,55F," + first + "7:0_0_15__");
    EXPECT_EQ(r->sequenceBlobLen, 0);

    // A second write-out does not repeat the header.
    updateFPSeqBlob(r, 7, 15, 0, -1, -1, 0, 0, nullptr);
    dumpIncompleteFlowpathSeqBlock(r);
    EXPECT_EQ(fpRecords().back(), "3,55F,7:0_0_15__");
}

TEST_F(FlowpathTest, HugeAndOddBlobLimitsNeverOverflow) {
    setMaxCharactersInSeqBlob(INT_MAX);
    QVPerThreadData_t* r = start();
    std::string all = blob(r);
    for (int i = 0; i < 5000; i++) {
        updateFPSeqBlob(r, 7, i, 0, -1, -1, 0, 0, nullptr);
        all += "7:0_0_" + std::to_string(i) + "__";
        ASSERT_LT(r->sequenceBlobLen, 16384);
    }
    dumpCompleteFlowpathSeqBlock(r, 10, 0, 1);
    std::string joined;
    int threes = 0;
    for (const std::string& rec : fpRecords()) {
        std::vector<std::string> f = split(rec);
        if (f[0] == "3") {
            threes++;
            EXPECT_LE(f[2].size(), 16383u);
            joined += f[2];
        } else if (f[0] == "4") {
            joined += f[8];
        }
    }
    EXPECT_GE(threes, 3);
    EXPECT_EQ(joined, all);  // nothing lost, nothing reordered

    for (int limit : {0, -5, 16384, 20000}) {
        setMaxCharactersInSeqBlob(limit);
        QVPerThreadData_t* s = start();
        for (int i = 0; i < 3000; i++)
            updateFPSeqBlob(s, 123456789, 1LL << 40, 1, -1, 1LL << 40, 0, 1LL << 50, nullptr);
        EXPECT_LT(s->sequenceBlobLen, 16384);
    }
}

TEST_F(FlowpathTest, TransactionEndToEndWithTheSdkStartTimeOfZero) {
    QVPerThreadData_t* r = start(nullptr, "/checkout", 0);
    EXPECT_EQ(r->tlFlowPathTimeStampInMS, 0);
    const std::string f1 = fpi(r);
    for (const char* m : {"Svc.handle", "Plain.work", "Db.query"})
        qvMethodEntry(nullptr, r, txt(m), txt(m[0] == 'D' ? "select 3" : "/test"), nullptr, 0, nullptr,
                      nullptr, 0);
    for (const char* m : {"Db.query", "Plain.work", "Svc.handle"})
        qvMethodExit(nullptr, r, txt(m), 0, 200, nullptr, 0, 0, 0, nullptr, 1);
    EXPECT_EQ(r->tlServiceMethodDepth, 2);  // depths only count up on entry
    endFP(r, 200, nullptr);

    ASSERT_EQ(fpRecords().size(), 2u);  // their bytes: the SDK end-to-end tests

    // Unregistered, generation reference given back, record still busy; a second end is ignored.
    EXPECT_EQ(search_hashmap(fpiToTLS, f1.c_str()), nullptr);
    EXPECT_EQ(ints(methodHashMapNode->ref_count, qv_load(gBusyTLSCnt)), ints(0, 1));
    endFP(r, 200, nullptr);
    EXPECT_EQ(fpRecords().size(), 2u);
    reset(r);
    EXPECT_EQ(qv_load(gBusyTLSCnt), 0);

    // A flowpath reset while running gives its reference back too.
    QVPerThreadData_t* s = start();
    EXPECT_EQ(methodHashMapNode->ref_count, 1);
    reset(s);
    EXPECT_EQ(methodHashMapNode->ref_count, 0);
    EXPECT_EQ(fpRecords().size(), 2u);

    // Null calls and unknown or empty names change nothing.
    endFP(nullptr, 200, nullptr);
    reset(nullptr);
    QVPerThreadData_t* t = start();
    EXPECT_EQ(qvMethodEntry(nullptr, t, txt(""), nullptr, nullptr, 0, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(leave(t, "Never.entered.or.known", 1), nullptr);
}

TEST_F(FlowpathTest, EnableProxyServerFindsTheRecordByItsKey) {
    qvTDHashMap = create_hashmap(nullptr);
    qv_store(QVAgentSetting.enableProxyServer, 1);
    QVPerThreadData_t* r = static_cast<QVPerThreadData_t*>(
        startFP(nullptr, txt("/k"), nullptr, txt("req-1"), nullptr, nullptr, nullptr, 0, T0));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(searchqvTDfromHashMap("req-1"), r);
    QVPerThreadData_t* other = start();  // no key: its events cannot be found
    size_t len = blob(r).size();
    EXPECT_EQ(
        qvMethodEntry(nullptr, other, txt("Plain.work"), nullptr, nullptr, 0, nullptr, txt("req-1"), T0 + 1),
        method("Plain.work"));
    EXPECT_GT(blob(r).size(), len);
    EXPECT_EQ(qvMethodEntry(nullptr, r, txt("Plain.work"), nullptr, nullptr, 0, nullptr, txt("nope"), T0),
              nullptr);
    endFP(other, 200, txt("req-1"));
    std::vector<std::string> recs = fpRecords();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[1].rfind("4," + fpi(r) + ",", 0), 0u);
    qv_store(QVAgentSetting.enableProxyServer, 0);  // a setting the agent reset does not clear
}

std::vector<std::string> forwarded;
// One forwarded call with its arguments, blank-separated; a null text shows as "-".
template <class... T>
void note(const char* call, T... v) {
    std::ostringstream o;
    o << call;
    ((o << ' ' << v), ...);
    forwarded.push_back(o.str());
}
const char* orDash(const char* t) {
    return t ? t : "-";
}

TEST_F(FlowpathTest, ForwardingProcessOnlyEncodes) {
    qvFlowpathHooks.transactionStartEncode = [](int q, long fp, char* hdr, char* url, char*, char*, char*,
                                                char*,
                                                long long st) { note("start", q, fp, orDash(hdr), url, st); };
    qvFlowpathHooks.MethodEntryEncode = [](int mid, long fp, long tid, char* name, char* qs, char*,
                                           long long st) {
        note("entry", mid, fp, tid, name, orDash(qs), st);
    };
    qvFlowpathHooks.MethodExitEncode = [](int mid, int status, int ev, int co, long tid, long dur, long fp,
                                          long cpu, char* name, char* be) {
        note("exit", mid, status, ev, co, tid, dur, fp, cpu, name, orDash(be));
    };
    qvFlowpathHooks.transactionEndEncode = [](int st, long fp) { note("end", st, fp); };
    qvFlowpathHooks.transactionResetEncode = [](long fp) { note("reset", fp); };
    qv_store(app_->QVSys.proxyMode, 1);
    QVPerThreadData_t* r = start("321", "/fw", 99, nullptr, nullptr, nullptr, 4);
    qvMethodEntry(nullptr, r, txt("M.x"), txt("/test"), nullptr, 8, nullptr, nullptr, 0);
    qvMethodExit(nullptr, r, txt("M.x"), 3, 500, txt("h"), 6, 8, 1, nullptr, 2);
    endFP(r, 200, nullptr);
    reset(r);
    EXPECT_EQ(forwarded,
              (std::vector<std::string>{"start 4 321 321 /fw 99", "entry 0 321 8 M.x /test 0",
                                        "exit 0 500 2 1 8 6 321 3 M.x h", "end 200 321", "reset 321"}));
    EXPECT_TRUE(fpRecords().empty());
    EXPECT_EQ(qv_load(gBusyTLSCnt), 0);
}

TEST_F(FlowpathTest, TestStopWritesEveryRunningFlowpathOverTheDataConnection) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    ASSERT_EQ(set_qvc_server_entry(0, "127.0.0.1", peer.port()), 0);
    qv_store(app_->Server.retryForDataConn, 1);
    ASSERT_EQ(check_data_thread(), 0);

    QVPerThreadData_t* ended = start(nullptr, "/done");
    endFP(ended, 200, nullptr);
    QVPerThreadData_t* running = start(nullptr, "/busy");
    enter(running, "Plain.work", 1);
    qv_store(app_->QVSys.bciInstrSessionPct, 0);
    // Started now, so it is quick (normal) at the stop as well as not captured.
    QVPerThreadData_t* notCaptured = start(nullptr, "/quiet", my_gettimeofday());
    // Read under the record's lock: the data thread resets the records once it sees the stop.
    auto fpiOf = [](QVPerThreadData_t* x) {
        QVLockGuard g(x->sequenceBlobLock);
        return fpi(x);
    };
    const std::string e = fpiOf(ended), r = fpiOf(running), q = fpiOf(notCaptured);

    qv_store(app_->Server.testRunRunning, 0);
    ASSERT_TRUE(peer.waitForContains(0, "\n4," + r + ",", kWaitMs)) << peer.bytes(0);
    ASSERT_TRUE(peer.waitFor([] { return qv_load(gBusyTLSCnt) == 0; }, kWaitMs));
    qv_data_thread_stop();
    std::string got = peer.bytes(0);
    EXPECT_EQ(countOf(got, "\n4," + e + ","), 1);  // ended before the stop: not written again
    EXPECT_EQ(countOf(got, "\n4," + r + ",200,"), 1);
    EXPECT_EQ(countOf(got, "\n2," + r + ","), 1);
    EXPECT_EQ(countOf(got, "," + q + ","), 0);  // not captured and quick: nothing
    EXPECT_EQ(methodHashMapNode->ref_count, 0);

    // The next run's start sweeps the generation the running flowpath held. Its handle, still in
    // use, records nothing and holds nothing.
    ASSERT_EQ(makeHashmapCopyAndaddToLL(1), 0);
    EXPECT_EQ(checkAndDeleteNode(), 1);
    qv_store(app_->Server.testRunRunning, 1);
    EXPECT_EQ(running->hasMapNodePtr, nullptr);
    EXPECT_EQ(enter(running, "Plain.work", 2), nullptr);
    char host[] = "late-db", sql[] = "select 4";
    EXPECT_EQ(qv_ip_db_callout_end(running, qv_ip_db_callout_begin(running, host, sql)), 0);
    EXPECT_EQ(leave(running, "Plain.work", 1), nullptr);
    endFP(running, 200, nullptr);
    EXPECT_EQ(ints(running->sequenceBlobLen, methodHashMapNode->ref_count), ints(0, 0));
    EXPECT_EQ(queuedRecords().find("select 4"), std::string::npos);
}

// A callout through a flowpath holding an older generation finds a backend made since as it is:
// neither its type nor its room in the monitor changes.
TEST_F(FlowpathTest, CalloutThroughAnOlderGenerationKeepsTheBackendAsItIs) {
    QVPerThreadData_t* old = start();
    ASSERT_EQ(makeHashmapCopyAndaddToLL(0), 0);
    char host[] = "shared:80", path[] = "/p", sql[] = "select 5";
    void* b = qv_ip_http_callout_begin(start(), host, path);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(qv_ip_db_callout_begin(old, host, sql), b);
    EXPECT_EQ(static_cast<methodPropProperties*>(b)->type, 1);
}

class FlowpathConcurrency : public FlowpathTest {};

TEST_F(FlowpathConcurrency, ThreadsRunTransactionsWithEveryRecordWellFormedAndNoneLost) {
    char mask[] = "0%200%200%20FFFFFFFF";
    parse_flowpath_mask(mask);
    qv_store(app_->QVSys.fpTraceLevel, 0);
    constexpr int kThreads = 6;
    constexpr int kPerThread = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            std::string url = "/c/t" + std::to_string(t % 3);
            for (int i = 0; i < kPerThread; i++) {
                auto* r = static_cast<QVPerThreadData_t*>(
                    startFP(nullptr, url.data(), nullptr, nullptr, nullptr, nullptr, nullptr, 0, T0));
                ASSERT_NE(r, nullptr);
                enter(r, "Svc.handle", 1);
                enter(r, "Plain.work", 2);
                enter(r, "Db.query", 3, i % 2 ? "select a" : "select b");
                leave(r, "Db.query", 1);
                leave(r, "Plain.work", 2);
                if (i % 10 == 0) dumpIncompleteFlowpathSeqBlock(r);
                leave(r, "Svc.handle", 3);
                endFP(r, i % 7 == 0 ? 500 : 200, nullptr);
                reset(r);
            }
        });
    }
    for (std::thread& th : threads) th.join();

    std::set<std::string> ends, headers;
    int threes = 0;
    std::regex head("2,\\d+,1700000000,\\d+,\\d+\\.1,\\d+,/c/t[012],,0,0,0,,0,0");
    std::regex seq("3,\\d+,[0-9:_TE]+");
    std::regex end("4,\\d+,(200|500),1[0-3],0,-?\\d+,\\d+,0,[0-9:_TE]*");
    for (const std::string& rec : fpRecords()) {
        std::string f = split(rec)[1];
        if (rec[0] == '2') {
            EXPECT_TRUE(std::regex_match(rec, head)) << rec;
            EXPECT_TRUE(headers.insert(f).second) << rec;
        } else if (rec[0] == '3') {
            EXPECT_TRUE(std::regex_match(rec, seq)) << rec;
            threes++;
        } else {
            EXPECT_TRUE(std::regex_match(rec, end)) << rec;
            EXPECT_TRUE(ends.insert(f).second) << rec;
        }
    }
    EXPECT_EQ(ends.size(), static_cast<size_t>(kThreads * kPerThread));
    EXPECT_EQ(headers.size(), ends.size());
    EXPECT_EQ(threes, kThreads * (kPerThread / 10));
    EXPECT_EQ(ints(app_->QVSys.discardCount, gBusyTLSCnt, methodHashMapNode->ref_count), ints(0, 0, 0));
}

}  // namespace
