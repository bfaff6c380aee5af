// Pattern automaton: prefix and whole matches, wildcards, first rule wins, growth and bad input.
#include <gtest/gtest.h>

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

TEST_F(StateMachine, PrefixWholeWildcardsAndExclusion) {
    ASSERT_EQ(add("/shop", 5, 1), 0);  // prefix
    ASSERT_EQ(add("/cart", 6, 0), 0);  // whole
    ASSERT_EQ(add("/api/*/orders", 7, 0), 0);
    ASSERT_EQ(add("/static*", -2, 1), 0);
    EXPECT_EQ(get("/shopping/list?x=1"), 5);  // returned as soon as "/shop" is read
    EXPECT_EQ(get("/cart?id=3"), 6);          // the '?' ends the path
    EXPECT_EQ(get("/cart"), 6);
    EXPECT_EQ(get("/carts?"), 1);
    EXPECT_EQ(get("/car"), 1);
    EXPECT_EQ(get("/api/v2/beta/orders?"), 7);
    EXPECT_EQ(get("/api/v1/orders/5"), 1);
    EXPECT_EQ(get("/static/a.css"), -2);
}

// The start state is never a wildcard to go back to: a leading '*' only skips characters that
// leave the start state without a transition.
TEST_F(StateMachine, LeadingWildcardIsNotReturnedTo) {
    ASSERT_EQ(add("*.jpg", 9, 0), 0);
    ASSERT_EQ(add("/a/c", 4, 0), 0);
    EXPECT_EQ(get("img.jpg"), 9);
    EXPECT_EQ(get("x.jpg.jpg"), 1);
    EXPECT_EQ(get("/img.jpg"), 1);  // '/' leads into "/a/c"; the mismatch has nowhere to go back to
    EXPECT_EQ(get("/a/x.jpg"), 1);
    EXPECT_EQ(get("/a/c"), 4);
}

TEST_F(StateMachine, FirstRuleWinsBadInputAndSkip) {
    ASSERT_EQ(add("/a/b", 3, 0), 0);
    ASSERT_EQ(add("/a/b", 4, 1), 0);  // known: nothing changes
    EXPECT_EQ(get("/a/b"), 3);
    ASSERT_EQ(add("XX/z", 8, 0, 2), 0);  // the skip start ignores the first characters
    EXPECT_EQ(get("/z"), 8);
    const int before = m_.state_count;
    EXPECT_EQ(add(std::string("/b\x01", 3), 9, 0), -1);
    EXPECT_EQ(m_.state_count, before);
    EXPECT_EQ(get(std::string("/a/b\x7f", 5)), 1);
    EXPECT_EQ(get(std::string("/a/\xc3\xa9", 5)), 1);
    EXPECT_EQ(qvlb_state_machine_add(&m_, nullptr, 3, 1, 0, 0), -1);
    EXPECT_EQ(qvlb_state_machine_add(nullptr, "/x", 2, 1, 0, 0), -1);
    EXPECT_EQ(qvlb_state_machine_get(nullptr, "/a/b", 4, 0), 1);
    EXPECT_EQ(qvlb_state_machine_get(&m_, "/a/b", 0, 0), 1);
}

TEST_F(StateMachine, GrowsAndKeepsEarlierPatterns) {
    for (int i = 0; i < 40; ++i) ASSERT_EQ(add("/p" + std::to_string(i) + "/xyz", 100 + i, 0), 0) << i;
    const std::string longPattern(300, 'q');  // longer than the growth step
    ASSERT_EQ(add("/" + longPattern, 77, 0), 0);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(get("/p" + std::to_string(i) + "/xyz"), 100 + i);
    EXPECT_EQ(get("/" + longPattern), 77);
    EXPECT_LT(m_.state_count, m_.max_state);
}
