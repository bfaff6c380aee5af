// Tests of the session cookie and second cookie grammars, the session state written back, and the
// record map keyed by the caller's tag.
#include "flowpath/QVSessionCookie.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>

#include "flowpath/flowpath_fixture.h"
#include "foundation/qvlb_hashmap.h"

namespace {

std::vector<long long> session(const QVPerThreadData_t& r) {
    return ints(r.qvSessionId, r.instrumented, r.totalFpcount, r.last_fptimestamp_from_cookie);
}

TEST(SessionCookie, ValidCookiesFillTheSessionFieldsAndMalformedOnesHaveNoEffect) {
    auto r = std::make_unique<QVPerThreadData_t>();
    ASSERT_EQ(parseQVCookieStr("sid=42;inst=1;cnt=3;ts=1700000000000", r.get()), 0);
    EXPECT_EQ(session(*r), ints(42, 1, 3, 1700000000000LL));
    // Any order, blanks, empty fields, unknown keys; missing optional keys default to 0; a repeated
    // key keeps its last value.
    ASSERT_EQ(parseQVCookieStr(" ts = 5 ;; color=blue; sid=7 ;sid=8;", r.get()), 0);
    EXPECT_EQ(session(*r), ints(8, 0, 0, 5));
    ASSERT_EQ(parseQVCookieStr("sid=9223372036854775807;cnt=2147483647", r.get()), 0);
    EXPECT_EQ(r->totalFpcount, 2147483647);

    ASSERT_EQ(parseQVCookieStr("sid=42;inst=1;cnt=3;ts=99", r.get()), 0);
    for (const char* c :
         {"", ";;", "inst=1;cnt=3", "sid=0", "sid=", "sid=-4", "sid=+4", "sid=4x", "sid=4;inst=2",
          "sid=4;cnt=2147483648", "sid=9223372036854775808", "sid=4;ts=99999999999999999999999",
          "sid=4;garbage", "sid=4;cnt=1 2", "\xff\xfe=\x01;sid=\x80"}) {
        EXPECT_EQ(parseQVCookieStr(c, r.get()), -1) << c;
        EXPECT_EQ(session(*r), ints(42, 1, 3, 99)) << c;
    }
    EXPECT_EQ(parseQVCookieStr(nullptr, r.get()), -1);
    EXPECT_EQ(parseQVCookieStr("sid=1", nullptr), -1);
    std::string huge(100000, ';');
    EXPECT_EQ(parseQVCookieStr((huge + "sid=5").c_str(), r.get()), 0);
    EXPECT_EQ(r->qvSessionId, 5);
}

TEST(SessionCookie, SessionStateIsWrittenBack) {
    auto r = std::make_unique<QVPerThreadData_t>();
    r->flowpathInstance = 1234;
    r->tlIsFPCaptured = 1;
    r->tlFlowPathTimeStampInMS = 500;
    char buf[QV_SESSION_COOKIE_MAX];
    EXPECT_EQ(getQVSessionCookie(r.get(), buf, sizeof(buf)), -1);  // no session yet
    setValue(nullptr, r.get());                                    // caller without sessions
    EXPECT_EQ(r->qvSessionId, 0);

    setValue("", r.get());  // new session
    ASSERT_GT(getQVSessionCookie(r.get(), buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "sid=1234;inst=1;cnt=1;ts=500");
    r->tlFlowPathTimeStampInMS = 900;  // the next flowpath of the live session
    setValue("sid=1234;inst=1;cnt=1;ts=500", r.get());
    ASSERT_GT(getQVSessionCookie(r.get(), buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "sid=1234;inst=1;cnt=2;ts=900");
    // What is written back parses to the same state.
    auto back = std::make_unique<QVPerThreadData_t>();
    ASSERT_EQ(parseQVCookieStr(buf, back.get()), 0);
    EXPECT_EQ(session(*back), ints(1234, 1, 2, 900));

    char tiny[8];
    EXPECT_EQ(getQVSessionCookie(r.get(), tiny, sizeof(tiny)), -1);
    EXPECT_STREQ(tiny, "");
    clearQVSession(r.get());
    EXPECT_EQ(ints(r->qvSessionId, r->totalFpcount), ints(0, 0));
}

TEST(SessionCookie, SecondCookieGrammar) {
    auto r = std::make_unique<QVPerThreadData_t>();
    ASSERT_EQ(parseWBCookieStr("17|23", r.get()), 0);
    EXPECT_EQ(ints(r->korSID, r->QVPageID), ints(17, 23));
    ASSERT_EQ(parseWBCookieStr(" 5 |\t6 ", r.get()), 0);
    for (const char* c : {"", "|", "5|", "|6", "5", "5|6|7", "a|6", "5|-6", "99999999999999999999|1"}) {
        EXPECT_EQ(parseWBCookieStr(c, r.get()), -1) << c;
        EXPECT_EQ(ints(r->korSID, r->QVPageID), ints(5, 6)) << c;
    }
    EXPECT_EQ(parseWBCookieStr(nullptr, r.get()), -1);
}

TEST(SessionCookie, RecordsAreFoundByTheirKey) {
    auto a = std::make_unique<QVPerThreadData_t>(), b = std::make_unique<QVPerThreadData_t>();
    EXPECT_EQ(set_value("k1", a.get()), -1);  // no map: enableProxyServer was off at start-up
    EXPECT_EQ(searchqvTDfromHashMap("k1"), nullptr);
    qvTDHashMap = create_hashmap(nullptr);
    EXPECT_EQ(set_value("k1", a.get()), 0);
    EXPECT_EQ(set_value("k2", b.get()), 0);
    EXPECT_EQ(std::tuple(searchqvTDfromHashMap("k1"), searchqvTDfromHashMap("k2")),
              std::tuple(a.get(), b.get()));
    EXPECT_EQ(searchqvTDfromHashMap(nullptr), nullptr);
    EXPECT_EQ(set_value("", a.get()), -1);
    EXPECT_EQ(set_value("k3", nullptr), -1);
    destroy_hashmap(qvTDHashMap);
    qvTDHashMap = nullptr;
}

}  // namespace
