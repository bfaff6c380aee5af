// Pattern automaton: prefix and whole matches, wildcards, first rule wins, growth and bad input.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qvbt/qvlb_state_machine.h"

namespace {

class StateMachine : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(qvlb_state_machine_init(&m_, 0), 0); }
    void TearDown() override { qvlb_state_machine_free(&m_); }
    int add(const std::string& p, int id, int mode, int start = 0) {
        return qvlb_state_machine_add(&m_, p.c_str(), static_cast<int>(p.size()), id, mode, start);
    }
    int get(const std::string& t) {
        return qvlb_state_machine_get(&m_, t.c_str(), static_cast<int>(t.size()), 0);
    }
    qvlbStateMachine m_;
};

}  // namespace

TEST_F(StateMachine, PrefixWholeAndQueryStop) {
    EXPECT_EQ(m_.max_state, 128);
    EXPECT_EQ(m_.state_count, 1);
    ASSERT_EQ(add("/shop", 5, 1), 0);  // prefix
    ASSERT_EQ(add("/cart", 6, 0), 0);  // whole
    EXPECT_EQ(get("/shop"), 5);
    EXPECT_EQ(get("/shopping/list?x=1"), 5);  // returned as soon as "/shop" is read
    EXPECT_EQ(get("/cart?"), 6);              // the '?' ends the path
    EXPECT_EQ(get("/cart?id=3"), 6);
    EXPECT_EQ(get("/cart"), 6);
    EXPECT_EQ(get("/carts?"), 1);  // no whole match: Others
    EXPECT_EQ(get("/car"), 1);
    EXPECT_EQ(get("/x"), 1);
}

TEST_F(StateMachine, WildcardsAndExclusion) {
    ASSERT_EQ(add("/api/*/orders", 7, 0), 0);
    ASSERT_EQ(add("/static*", -2, 1), 0);  // exclusion id, prefix
    ASSERT_EQ(add("*.jpg", 9, 0), 0);      // leading wildcard
    EXPECT_EQ(get("/api/v1/orders?"), 7);
    EXPECT_EQ(get("/api/v2/beta/orders"), 7);
    EXPECT_EQ(get("/api/v1/orders/5"), 1);
    EXPECT_EQ(get("/static/a.css"), -2);
    EXPECT_EQ(get("/img/a.jpg"), 9);
    EXPECT_EQ(get("/img/a.jpg.jpg"), 9);
}

TEST_F(StateMachine, FirstRuleWinsBadInputAndSkip) {
    ASSERT_EQ(add("/a/b", 3, 0), 0);
    ASSERT_EQ(add("/a/b", 4, 1), 0);  // known: nothing changes
    EXPECT_EQ(get("/a/b"), 3);
    EXPECT_EQ(get("/a/bc"), 1);
    // The skip start ignores the first characters of the pattern.
    ASSERT_EQ(add("XX/z", 8, 0, 2), 0);
    EXPECT_EQ(get("/z"), 8);

    const int before = m_.state_count;
    EXPECT_EQ(add(std::string("/b\x01", 3), 9, 0), -1);  // nothing created
    EXPECT_EQ(m_.state_count, before);
    EXPECT_EQ(get(std::string("/a/b\x7f", 5)), 1);
    EXPECT_EQ(get(std::string("/a\tb", 4)), 1);
    EXPECT_EQ(get(std::string("/a/\xc3\xa9", 5)), 1);
    EXPECT_EQ(qvlb_state_machine_add(&m_, nullptr, 3, 1, 0, 0), -1);
    EXPECT_EQ(qvlb_state_machine_add(&m_, "/x", 0, 1, 0, 0), -1);
    EXPECT_EQ(qvlb_state_machine_add(nullptr, "/x", 2, 1, 0, 0), -1);
    EXPECT_EQ(qvlb_state_machine_get(nullptr, "/a/b", 4, 0), 1);
    EXPECT_EQ(qvlb_state_machine_get(&m_, nullptr, 4, 0), 1);
    EXPECT_EQ(qvlb_state_machine_get(&m_, "/a/b", 0, 0), 1);
    EXPECT_EQ(qvlb_state_machine_init(nullptr, 5), -1);
}

TEST_F(StateMachine, GrowsByDeltaAndKeepsEarlierPatterns) {
    for (int i = 0; i < 40; ++i) ASSERT_EQ(add("/p" + std::to_string(i) + "/xyz", 100 + i, 0), 0) << i;
    EXPECT_GT(m_.max_state, 128);
    EXPECT_EQ((m_.max_state - 128) % 128, 0);
    const std::string longPattern(300, 'q');  // longer than the growth step
    ASSERT_EQ(add("/" + longPattern, 77, 0), 0);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(get("/p" + std::to_string(i) + "/xyz"), 100 + i);
    EXPECT_EQ(get("/" + longPattern), 77);
    EXPECT_LT(m_.state_count, m_.max_state);
}
