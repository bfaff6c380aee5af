// Memory-tracing allocation wrappers: their MEMORY log lines, failure lines and the counter.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"
#include "foundation/qvlb_util.h"
#include "support/temp_home.h"

namespace {

class MemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(qvlb_mkdir_p(home_.file("logs").c_str()), 0);
        trace_log_key = qvlb_init_mt_trace_log_ex(home_.file("logs").c_str(), "mem.log", 1, 10);
        ASSERT_NE(trace_log_key, nullptr);
    }
    void TearDown() override {
        qvlb_fault_reset();
        qvlb_trace_log_reset_for_test();
        qvlb_mem_reset_for_test();
        qv_mem_trace_level = 0;
    }
    std::string log() const { return home_.traceLogs(); }
    TempAgentHome home_;
};

TEST_F(MemTest, LogsAndCountsAllocationsByLevel) {
    qvlb_free(qvlb_malloc(10, "quiet buffer", 1), "quiet buffer", 1);
    EXPECT_EQ(log().find("quiet buffer"), std::string::npos);

    qv_mem_trace_level = 1;
    void* p = qvlb_malloc(10, "traced buffer", 3);
    char expected[160];
    snprintf(expected, sizeof(expected),
             "QVLB_MALLOC'ed (traced buffer) done. ptr = $%p$, size = 10 for index 3", p);
    const std::string line = log().substr(log().rfind('\n') + 1);
    EXPECT_NE(line.find(expected), std::string::npos) << line;
    EXPECT_NE(line.find("|MEMORY|qvlb_mem.cpp|"), std::string::npos) << line;
    EXPECT_EQ(qvlb_malloc_count(), 0);  // counted only at level 2
    qvlb_free(p, "traced buffer", 3);

    qv_mem_trace_level = 2;
    char* s = qvlb_strdup("abc", "copy", -1);
    auto* z = static_cast<unsigned char*>(qvlb_calloc(16, "zeroed", -1));
    ASSERT_STREQ(s, "abc");
    ASSERT_EQ(z[15], 0);
    EXPECT_EQ(qvlb_malloc_count(), 2);
    EXPECT_STREQ(qvlb_replace_str(&s, "two", "copy"), "two");
    EXPECT_EQ(qvlb_replace_str(&s, nullptr, "copy"), nullptr);
    qvlb_free(z, "zeroed", -1);
}

TEST_F(MemTest, FailuresAreLoggedWhateverTheLevel) {
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 2);
    EXPECT_EQ(qvlb_malloc(10, "big table", 7), nullptr);
    EXPECT_EQ(qvlb_strdup("x", "dup", 8), nullptr);
    void* p = qvlb_malloc(4, "ok", -1);
    ASSERT_NE(p, nullptr);
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);
    EXPECT_EQ(qvlb_realloc(p, 64, "grow", 9), nullptr);  // p is still ours
    EXPECT_EQ(qvlb_realloc(p, 0, "shrink", 5), nullptr);
    qvlb_free(qvlb_realloc(p, 64, "grow", 9), "grow", 9);
    const std::string content = log();
    EXPECT_NE(content.find("|MEMORY|qvlb_mem.cpp|"), std::string::npos);
    for (const char* text :
         {"Out of Memory (size = 10): big table for index 7\n", "Out of Memory (size = 2): dup for index 8\n",
          "Out of Memory (size = 64): grow for index 9\n",
          "Trying to realloc a negative or 0 size (0) for index  5\n"})
        EXPECT_NE(content.find(text), std::string::npos) << text << content;
}

}  // namespace
