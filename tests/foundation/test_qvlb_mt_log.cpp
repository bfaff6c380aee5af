// Trace log: record format, the 8192-byte cut, rollover between the two files, the exported
// writers' level tests, and whole records under concurrent writers.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "foundation/qvlb_mt_log.h"
#include "support/temp_home.h"

namespace {

const std::string kHeader =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line "
    "number|Function|Severity|Message\n";
const std::string kHead = kHeader + "BUILD_7.1";

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out(1);
    for (char c : s) {
        if (c == sep)
            out.emplace_back();
        else
            out.back().push_back(c);
    }
    return out;
}

class TraceLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qvlbTraceBindings = QVTraceLogBindings{&agent_, &ai_, &dd_, &max_size_, &build_, &test_run_};
    }
    void TearDown() override {
        qvlb_trace_log_reset_for_test();
        qvlbTraceBindings = QVTraceLogBindings{};
        qv_mem_trace_level = 0;
    }
    void open_global() {
        trace_log_key = qvlb_init_mt_trace_log_ex(dir_.c_str(), "trace.log", 1, 10);
        ASSERT_NE(trace_log_key, nullptr);
    }
    std::string file(int i) const { return home_.read("trace.log_" + std::to_string(i)); }
    bool exists(int i) const { return std::filesystem::exists(base_ + "_" + std::to_string(i)); }

    TempAgentHome home_;
    const std::string dir_ = home_.path().substr(0, home_.path().size() - 1);  // without the slash
    const std::string base_ = dir_ + "/trace.log";
    int agent_ = 0, ai_ = 0, dd_ = 0, test_run_ = 0;
    long long max_size_ = 10 * 1024 * 1024;
    char build_text_[16] = "BUILD_7.1";
    char* build_ = build_text_;
};

TEST_F(TraceLogTest, RecordFormatTestRunColumnAndCut) {
    open_global();
    qvlb_mt_trace_log(trace_log_key, nullptr, 77, "FLOWPATH", "Info", "a.cpp", 42, "startFP", "value=%d", 5);
    test_run_ = 12;
    qvlb_mt_trace_log(trace_log_key, "worker", 0, "BT_MON", "Error", "b.cpp", 7, "fn", "second");
    const std::string content = file(0);
    ASSERT_EQ(content.rfind(kHead + "\n", 0), 0u) << content;
    const std::vector<std::string> lines = split(content.substr(kHead.size() + 1), '\n');
    ASSERT_EQ(lines.size(), 2u);  // no newline after the last record
    ASSERT_GT(lines[0].size(), 17u);
    EXPECT_EQ(lines[0][2], '/');  // MM/DD/YY hh:mm:ss
    EXPECT_EQ(lines[0].substr(17), "|******|(null)|77|FLOWPATH|a.cpp|42|startFP|Info|value=5");
    EXPECT_EQ(lines[1].substr(17), "|TR12|worker|0|BT_MON|b.cpp|7|fn|Error|second");

    // A message longer than the buffer is cut: the record is exactly 8192 bytes and ends in NUL.
    const size_t before = content.size();
    qvlb_mt_trace_log(trace_log_key, "t", 1, "M", "Info", "f.cpp", 1, "fn", "%s",
                      std::string(10000, 'x').c_str());
    const std::string cut = file(0).substr(before);
    ASSERT_EQ(cut.size(), 8192u);
    EXPECT_EQ(cut[0], '\n');
    EXPECT_EQ(cut.substr(cut.size() - 2), std::string("x\0", 2));
}

TEST_F(TraceLogTest, RolloverAlternatesFilesWithHeaderEach) {
    // An _1 left by an earlier process is appended to at the first rollover.
    home_.write("trace.log_1", "OLD");
    max_size_ = 600;
    open_global();
    int written = 0;
    auto record = [](int n) { return "record-" + std::to_string(n) + std::string(60, '-'); };
    // Writes until the current file switches to idx; the record that causes the switch is then
    // the only record of the new file, which starts with the header block.
    auto switch_to = [&](int idx, const std::string& old_text) {
        for (int i = 0; i < 100 && trace_log_key->cur_index != idx; ++i)
            qvlb_mt_trace_log(trace_log_key, nullptr, 0, "M", "Info", "f.cpp", 1, "fn", "%s",
                              record(written++).c_str());
        ASSERT_EQ(trace_log_key->cur_index, idx);
        const std::string content = file(idx);
        EXPECT_EQ(content.rfind(old_text + kHead + "\n", 0), 0u) << content;
        EXPECT_EQ(split(content, '\n').size(), 3u) << content;
        EXPECT_NE(content.find(record(written - 1)), std::string::npos);
        EXPECT_NE(file(1 - idx).find(record(written - 2)), std::string::npos);
        EXPECT_GE(file(1 - idx).size(), 600u);
    };
    switch_to(1, "OLD");
    switch_to(0, "");  // _0 was closed, deleted and started again
    switch_to(1, "");  // and now _1, without the old text
}

TEST_F(TraceLogTest, ExportedWritersTestTheirOwnLevelAndNeedAHandle) {
    using Writer = void (*)(int, const char*, long long, const char*, const char*, const char*, int,
                            const char*, const char*, ...);
    const Writer writers[] = {qvlb_mt_trace_log_win, qvlb_mt_trace_log_win_ai, qvlb_mt_trace_log_win_dd,
                              qvlb_mt_trace_log_mem};
    agent_ = ai_ = dd_ = 4;
    qv_mem_trace_level = 2;
    for (Writer w : writers) w(0, "t", 1, "M", "Info", "f.cpp", 1, "fn", "x");
    EXPECT_EQ(qvlb_init_mt_trace_log_ex(dir_.c_str(), nullptr, 1, 10), nullptr);
    open_global();  // creating the handle opens nothing either
    EXPECT_EQ(std::string(trace_log_key->log_file[1]), base_ + "_1");
    EXPECT_FALSE(exists(0) || exists(1));

    // Each writer tests its own level: agent 2, auto-instrumentation 1, diagnostics 0.
    agent_ = 2;
    ai_ = 1;
    dd_ = 0;
    qv_mem_trace_level = 0;
    for (int i = 0; i < 3; i++) {
        writers[i](2 - i, "t", 1, "M", "Info", "f.cpp", 1, "fn", "yes-%d", i);
        writers[i](3 - i, "t", 1, "M", "Info", "f.cpp", 1, "fn", "no-%d", i);
    }
    qvlb_mt_trace_log_mem(0, "t", 1, "M", "Info", "f.cpp", 1, "fn", "no-mem");
    qv_mem_trace_level = 1;
    qvlb_mt_trace_log_mem(99, "t", 1, "M", "Info", "f.cpp", 1, "fn", "yes-mem");  // the level is ignored
    qvlbTraceBindings.agentTraceLevel = nullptr;                                  // unbound reads as 0
    qvlb_mt_trace_log_win(1, "t", 1, "M", "Info", "f.cpp", 1, "fn", "no-unbound");
    const std::string content = file(0);
    for (const char* yes : {"yes-0", "yes-1", "yes-2", "yes-mem"})
        EXPECT_NE(content.find(yes), std::string::npos) << yes;
    EXPECT_EQ(content.find("no-"), std::string::npos) << content;
}

class TraceLogConcurrency : public TraceLogTest {};

TEST_F(TraceLogConcurrency, ConcurrentWritersProduceWholeRecordsAcrossRollovers) {
    max_size_ = 32 * 1024;  // dozens of rollovers while the threads write
    open_global();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            const std::string name = "w" + std::to_string(t);
            for (int i = 0; i < 3000; ++i)
                qvlb_mt_trace_log_win(0, name.c_str(), t, "CONC", "Info", "c.cpp", i, "fn", "p-%d-%d-%0100d",
                                      t, i, 0);
        });
    for (auto& th : threads) th.join();
    int records = 0;
    for (int i = 0; i < 2; ++i) {
        const std::string content = file(i);
        ASSERT_EQ(content.rfind(kHead + "\n", 0), 0u);
        const std::vector<std::string> lines = split(content.substr(kHead.size() + 1), '\n');
        for (const std::string& line : lines) {
            const std::vector<std::string> f = split(line, '|');
            ASSERT_EQ(f.size(), 10u) << line;
            const std::string tail = "-" + f[6] + "-" + std::string(100, '0');
            EXPECT_EQ(f[9], "p-" + f[2].substr(1) + tail) << line;
            ++records;
        }
    }
    EXPECT_GT(records, 0);
}

}  // namespace
