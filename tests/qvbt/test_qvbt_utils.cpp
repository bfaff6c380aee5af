// URL segment cut, query-parameter value (per thread), method and operation codes, categories.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/QVBCISettings.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_mem.h"
#include "qvbt/qvbt_rule_execute.h"
#include "qvbt/qvbt_utils.h"

namespace {

class QvbtUtils : public ::testing::Test {
  protected:
    void TearDown() override {
        qvbt_rule_execute_reset_for_test();
        qvApplication = nullptr;
    }
    // Installs a global rule of the given order and segment count (freed by the reset).
    QVBTGlobalRule* rule(int order, int segments) {
        auto* r = static_cast<QVBTGlobalRule*>(qvlb_calloc(sizeof(QVBTGlobalRule), "test rule", -1));
        r->rule_mode = 2;
        r->include_uri_in_name_order = order;
        r->include_uri_in_name_segment = segments;
        global_rule = r;
        return r;
    }
    void setParameter(QVBTGlobalRule* r, const char* p) {
        snprintf(r->parameter, sizeof(r->parameter), "%s", p);
        snprintf(r->parameter_at_start, sizeof(r->parameter_at_start), "%s=", p);
        snprintf(r->parameter_at_end, sizeof(r->parameter_at_end), "&%s=", p);
        r->parameter_at_start_len = static_cast<int>(strlen(r->parameter_at_start));
        r->parameter_at_end_len = static_cast<int>(strlen(r->parameter_at_end));
    }
    std::string cut(const char* url, int outSize = 256) {
        char out[256];
        return get_bt_name_from_url(url, out, outSize) ? out : "(null)";
    }
};

}  // namespace

TEST_F(QvbtUtils, SegmentCutTable) {
    const std::tuple<int, int, const char*, const char*> rows[] = {
        {1, 2, "/a/b/c", "/a/b"},   {1, 2, "/a", "/a"},         {1, 0, "/a/b/c", ""},
        {1, 5, "/a/b/c", "/a/b/c"}, {1, 2, "a/b/c", "a/b/c"},   {2, 2, "/a/b/c", "/b/c"},
        {2, 1, "/a/b/c", "/c"},     {2, 4, "/a/b/c", "/a/b/c"}, {2, 1, "/a/b/", "/"},
        {2, 0, "/a/b/c", ""},       {2, 2, "a/b", "a/b"},
    };
    for (const auto& [order, n, url, want] : rows) {
        rule(order, n);
        EXPECT_EQ(cut(url), want) << order << " " << n << " " << url;
        qvbt_rule_execute_reset_for_test();
    }
    rule(1, 2);
    EXPECT_EQ(cut(nullptr), "");
    EXPECT_EQ(cut("/abcdef/g", 4), "/ab");  // cut to the output
    const std::string longUrl = "/" + std::string(400, 'x') + "/y";
    EXPECT_EQ(cut(longUrl.c_str()).size(), 255u);  // the URL is cut at 255 first
}

TEST_F(QvbtUtils, ParamValue) {
    EXPECT_EQ(get_param_value("id=5"), nullptr);  // no rule
    QVBTGlobalRule* r = rule(1, 2);
    setParameter(r, "id");
    EXPECT_EQ(get_param_value(nullptr), nullptr);
    EXPECT_STREQ(get_param_value("id=5&x=1"), "5");
    EXPECT_STREQ(get_param_value("x=1&id=42&y=2"), "42");
    EXPECT_EQ(get_param_value("x=1&uid=7"), nullptr);
    EXPECT_STREQ(get_param_value(("id=" + std::string(100, 'v')).c_str()), std::string(63, 'v').c_str());

    // Each thread has its own result buffer: another thread's call does not change this one's.
    char* mine = get_param_value("id=main");
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i)
        ts.emplace_back([i] {
            const std::string q = "id=t" + std::to_string(i);
            for (int k = 0; k < 1000; ++k) ASSERT_STREQ(get_param_value(q.c_str()), q.c_str() + 3);
        });
    for (auto& t : ts) t.join();
    EXPECT_STREQ(mine, "main");
}

TEST_F(QvbtUtils, MethodOperationCodesAndCategories) {
    const std::pair<const char*, int> methods[] = {{"get", 0}, {"Put", 2}, {"GETX", 255}, {nullptr, 255}};
    for (const auto& [m, code] : methods) EXPECT_EQ(getHTTPMethodValue(m), code) << (m ? m : "null");
    // equalsIgnoreCase: a prefix comparison.
    const std::pair<const char*, int> ops[] = {
        {"STARTSWITH", 1}, {"inList", 7}, {"equalsIgnoreCase", 4}, {"equ", 255}, {nullptr, 255}};
    for (const auto& [op, code] : ops) EXPECT_EQ(getOperationType(op), code) << (op ? op : "null");

    const Threshold t{100, 200};
    EXPECT_EQ(std::vector<int>({getBTCategoryBasedOnThresold(t, 99), getBTCategoryBasedOnThresold(t, 100),
                                getBTCategoryBasedOnThresold(t, 199), getBTCategoryBasedOnThresold(t, 200)}),
              std::vector<int>({10, 11, 11, 12}));
    EXPECT_EQ(findCategoryOfBT(t, 1, 500), 10);  // no instance: no error table
    QVProxyInstance_t app{};
    qvApplication = &app;
    memset(app.QVBCISetting.btErrorArray, 'T', sizeof(app.QVBCISetting.btErrorArray));
    app.QVBCISetting.btErrorArray[500] = 'F';
    EXPECT_EQ(std::vector<int>({findCategoryOfBT(t, 1, 500), findCategoryOfBT(t, 250, 404),
                                findCategoryOfBT(t, 150, 600)}),
              std::vector<int>({13, 12, 11}));  // error even when fast; codes outside the table count by time
}
