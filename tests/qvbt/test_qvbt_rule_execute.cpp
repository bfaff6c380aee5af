// Applying the global rule in its modes and segment types, the header and custom rules, and the
// operations custom rules match with.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "qvbt/qvbt_custom_rule.h"
#include "qvbt/qvbt_rule_execute.h"

namespace {

class RuleExecute : public ::testing::Test {
  protected:
    void TearDown() override { qvbt_rule_execute_reset_for_test(); }
    QVBTGlobalRule* rule(int mode, int segType, int segments = 2, int order = 1) {
        auto* r = static_cast<QVBTGlobalRule*>(qvlb_calloc(sizeof(QVBTGlobalRule), "test rule", -1));
        r->rule_mode = mode;
        r->seg_type = segType;
        r->include_uri_in_name_segment = segments;
        r->include_uri_in_name_order = order;
        strcpy(r->parameter, "id");
        strcpy(r->parameter_at_start, "id=");
        strcpy(r->parameter_at_end, "&id=");
        r->parameter_at_start_len = 3;
        r->parameter_at_end_len = 4;
        qvbt_retire(global_rule, qvbt_free_rule_record);
        global_rule = r;
        return r;
    }
    std::string run(const char* url, const char* query = nullptr, const char* method = nullptr,
                    const char* header = nullptr, int size = 256) {
        char out[256];
        char* r = qvbt_execute_global_rule(url, query, method, header, out, size);
        return r ? std::string(r) : "(null)";
    }
};

}  // namespace

TEST_F(RuleExecute, ModesAndSegmentTypes) {
    EXPECT_EQ(run("/a/b/c"), "Others");  // no global rule
    rule(1, 0);
    EXPECT_EQ(run("/a/b/c"), "/a/b/c");
    EXPECT_EQ(run("/a/b/c", nullptr, nullptr, nullptr, 4), "/a/");
    rule(2, 0);
    EXPECT_EQ(run("/a/b/c"), "/a/b");

    rule(3, 4);  // whole URL + method
    EXPECT_EQ(run("/a/b/c", nullptr, "GET"), "/a/b/c.GET");
    rule(4, 4);  // segment cut + method
    EXPECT_EQ(run("/a/b/c", nullptr, "POST"), "/a/b.POST");
    rule(4, 5);  // parameter value
    EXPECT_EQ(run("/a/b/c", "x=1&id=9"), "/a/b.9");
    EXPECT_EQ(run("/a/b/c", nullptr), "/a/b");  // absent query: the base alone
    rule(3, 6);                                 // header
    EXPECT_EQ(run("/a/b/c", nullptr, nullptr, "h1"), "/a/b/c.h1");
    EXPECT_EQ(run("/a/b/c"), "/a/b/c");
    rule(4, 9);
    EXPECT_EQ(run("/a/b/c"), "(null)");
    rule(7, 0);
    EXPECT_EQ(run("/a/b/c"), "(null)");

    // Modes 3 and 4 build at most 255 characters, whatever the output size.
    rule(3, 4);
    const std::string longUrl = "/" + std::string(300, 'u');
    char big[512];
    ASSERT_NE(qvbt_execute_global_rule(longUrl.c_str(), nullptr, "GET", nullptr, big, sizeof(big)), nullptr);
    EXPECT_EQ(strlen(big), 255u);
    EXPECT_EQ(qvbt_execute_global_rule("/a", nullptr, nullptr, nullptr, nullptr, 10), nullptr);
}

TEST_F(RuleExecute, SegmentNumbersWorkOnACopyAndJoinWithoutSeparator) {
    QVBTGlobalRule* r = rule(3, 3, 0);  // count 0: base empty, only the chosen segments
    r->uri_seg_no_list[0] = 3;
    r->uri_seg_no_list[1] = 1;
    r->uri_seg_no_list_length = 2;
    char url[] = "/shop//cart/item/";
    EXPECT_EQ(run(url), "item/shop");
    EXPECT_STREQ(url, "/shop//cart/item/");  // the caller's URL stays whole
    r->uri_seg_no_list[1] = 9;               // stops at the first number past the count
    r->uri_seg_no_list[2] = 1;
    r->uri_seg_no_list_length = 3;
    EXPECT_EQ(run(url), "item");
    r->include_uri_in_name_segment = 1;  // base is the segment cut even in mode 3
    EXPECT_EQ(run(url), "/shopitem");
}

TEST_F(RuleExecute, HeaderAndCustomWithoutAutomaton) {
    char out[64] = "keep";
    EXPECT_STREQ(qvbt_execute_header_rule("/a", out, sizeof(out)), "");
    auto* h = static_cast<QVBTHeaderBasedRule*>(qvlb_calloc(sizeof(QVBTHeaderBasedRule), "test", -1));
    strcpy(h->headerValue, "fromHeader");
    header_rule = h;
    EXPECT_STREQ(qvbt_execute_header_rule("/a", out, sizeof(out)), "fromHeader");
    EXPECT_STREQ(qvbt_execute_custom_rule("/a", nullptr, nullptr, out, sizeof(out)), "others");
}

TEST(CustomOperations, MatchEachOperation) {
    auto m = [](int op, const char* s, const char* v) {
        return qvbt_match_operation(op, s, static_cast<int>(strlen(s)), v);
    };
    EXPECT_FALSE(m(4, "/a", "/A"));
    EXPECT_TRUE(m(1, "/api/x", "/api"));
    EXPECT_FALSE(m(1, "/ap", "/api"));
    EXPECT_TRUE(m(2, "/x.jsp", ".jsp"));
    EXPECT_FALSE(m(2, "sp", ".jsp"));
    EXPECT_TRUE(m(3, "/a/cart/b", "cart"));
    EXPECT_FALSE(m(5, "/order/123", "^/order/[0-9]*$"));  // brackets are not in the subset
    EXPECT_TRUE(m(5, "/order/123", "^/order/.*3$"));
    EXPECT_TRUE(m(5, "/x/order/1", "order"));
    EXPECT_FALSE(m(5, "/x/order/1", "^order"));
    EXPECT_FALSE(m(6, "", ""));
    EXPECT_TRUE(m(7, "b", "a, b ,c"));
    EXPECT_FALSE(m(99, "a", "a"));
    EXPECT_FALSE(qvbt_match_operation(4, nullptr, 0, "a"));
}
