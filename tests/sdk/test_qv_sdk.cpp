// Tests of the SDK's own parts: the SDK log file (name, header, prefixes, levels, failures, forked
// children), the argument checks with their log lines, the stored-transaction table and
// qv_init/qv_free cycles.
#include "sdk/qv_sdk.h"

#include <sys/resource.h>

#include <climits>
#include <functional>
#include <thread>
#include <tuple>

#include "sdk/sdk_fixture.h"
#include "support/child_process.h"

namespace {

namespace fs = std::filesystem;

class SdkTest : public SdkFixture {
  protected:
    int x_ = 0;  // stands for a handle where only its being non-null matters
};

TEST_F(SdkTest, LogFileNameHeaderPrefixesLevelsAndPrintfFormats) {
    qvSDKLog* rec = qv_sdk_log_init();
    ASSERT_NE(rec, nullptr);
    // The fixed directory, whatever QVHOME (set to the temporary home here) says.
    const std::string name =
        reEscape(QV_SDK_LOG_DIR) + R"(qv_sdk_\d{14}_)" + std::to_string(getpid()) + R"(\.log_)";
    EXPECT_TRUE(std::regex_match(std::string(rec->file_name[0]) + "|" + rec->file_name[1],
                                 std::regex(name + "0\\|" + name + "1")));
    EXPECT_FALSE(fs::exists(rec->file_name[1]));  // formed, never opened
    const std::string header = "#Date      TimeStamp|PID   |level|function_name:line|format";
    EXPECT_EQ(readFile(rec->file_name[0]), header + "\n");  // flushed at once

    const char* words[] = {"DEBUG", "INFO", "WARNING", "CRITICAL", "ERROR"};
    for (int level = 1; level <= 5; ++level) EXPECT_EQ(rec->log(level, "fn", 40 + level, "msg %d", level), 0);
    std::vector<std::string> got = splitLines(log());
    ASSERT_EQ(got.size(), 6u);
    int prefixBytes = 0;
    for (int level = 1; level <= 5; ++level) {
        EXPECT_TRUE(std::regex_match(
            got[level], std::regex(prefixRe(words[level - 1], "fn") + "msg " + std::to_string(level))));
        EXPECT_NE(got[level].find(" : " + std::to_string(40 + level) + " |"), std::string::npos)
            << got[level];
        prefixBytes += static_cast<int>(got[level].size()) - 5;
    }
    // Only the header and the prefixes count; messages and newlines do not.
    EXPECT_EQ(rec->cur_file_size, static_cast<int>(header.size()) + 1 + prefixBytes);

    // Other levels have no prefix; formats are compared with printf itself; long lines are cut.
    int x = 0;
    char buf[256];
    std::vector<std::string> want = {"no prefix at seven", "none at zero"};
    rec->log(7, "fn", 7, "no prefix at %s", "seven");
    rec->log(0, "fn", 0, "none at zero");
    snprintf(buf, sizeof(buf), "p=[%p] d=[%d] ld=[%ld] lld=[%lld] u=[%u] 100%% s=[%s]",
             static_cast<void*>(&x), INT_MIN, LONG_MAX, LLONG_MIN, UINT_MAX, "txt");
    want.push_back(buf);
    rec->log(7, "fn", 1, "p=[%p] d=[%d] ld=[%ld] lld=[%lld] u=[%u] 100%% s=[%s]", static_cast<void*>(&x),
             INT_MIN, LONG_MAX, LLONG_MIN, UINT_MAX, "txt");
    const char* nullText = nullptr;
    rec->log(7, "fn", 1, "null s=[%s] p=[%p]", nullText, static_cast<void*>(nullptr));
    rec->log(7, "fn", 1, "w=[%5d] x=[%x] f=[%.2f]", 42, 255, 1.5);  // flags and widths: printf itself
    want.insert(want.end(), {"null s=[(null)] p=[(nil)]", "w=[   42] x=[ff] f=[1.50]"});
    const std::string big(20000, 'q');
    rec->log(7, "fn", 1, "%s", big.c_str());
    want.push_back(big.substr(0, QV_SDK_LOG_LINE_MAX - 1));  // cut, newline kept
    for (long long v : {0LL, 1LL, 9LL, 10LL, 15LL, 16LL, 99LL, 100LL, 255LL, 256LL, 1000LL, 65535LL, -1LL,
                        -10LL, -100LL, 2147483647LL, 4294967295LL, 1LL << 40, LLONG_MAX}) {
        void* ptr = reinterpret_cast<void*>(static_cast<uintptr_t>(v));
        snprintf(buf, sizeof(buf), "%d %u %lld %p", static_cast<int>(v), static_cast<unsigned>(v), v, ptr);
        want.push_back(buf);
        rec->log(7, "fn", 1, "%d %u %lld %p", static_cast<int>(v), static_cast<unsigned>(v), v, ptr);
    }
    got = splitLines(log());
    EXPECT_EQ(std::vector<std::string>(got.begin() + 6, got.end()), want);
}

TEST_F(SdkTest, UnopenableLogFileAndFailedAllocationGoToStderr) {
    auto stderrOf = [](const std::function<void()>& f) {
        testing::internal::CaptureStderr();
        f();
        return testing::internal::GetCapturedStderr();
    };
    char t[21];
    qv_sdk_log_time(t, sizeof(t));  // the time zone is read before descriptors run out
    // No descriptor left: the file cannot be opened, as in a missing or read-only directory.
    qvSDKLog* rec = nullptr;
    std::string err = stderrOf([&] {
        rlimit old{};
        getrlimit(RLIMIT_NOFILE, &old);
        rlimit tight = old;
        tight.rlim_cur = static_cast<rlim_t>(dup(0));  // the lowest free descriptor
        close(static_cast<int>(tight.rlim_cur));
        setrlimit(RLIMIT_NOFILE, &tight);
        rec = qv_sdk_log_init();
        setrlimit(RLIMIT_NOFILE, &old);
    });
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(std::make_tuple(rec->file_fp, rec->log), std::make_tuple(nullptr, &qv_sdk_trace_log));
    EXPECT_TRUE(std::regex_match(
        err, std::regex(R"(ERROR \|qv_sdk_create_file_name: \d+ \|Unable to open file: )" +
                        reEscape(rec->file_name[0]) + R"(\nERROR \|qv_sdk_log_init: \d+ \|Method Exit\n)")))
        << err;
    // Every later line reports the missing file; the SDK functions go on working.
    err = stderrOf([&] {
        EXPECT_EQ(rec->log(1, "fn", 1, "x"), -1);
        EXPECT_EQ(qv_bt_begin(nullptr, nullptr), nullptr);
    });
    EXPECT_TRUE(std::regex_match(
        err, std::regex(R"((ERROR \|qv_sdk_trace_log: \d+ \|qv_sdk_log->file_fp is \(null\) \n){2})")))
        << err;
    qv_sdk_reset_for_test();

    // Without the record nothing is logged at all.
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);
    err = stderrOf([] {
        EXPECT_EQ(qv_sdk_log_init(), nullptr);
        EXPECT_EQ(qv_bt_end(nullptr), -1);
    });
    EXPECT_TRUE(std::regex_match(
        err, std::regex(R"(ERROR \|qv_sdk_log_init: \d+ \|Memory allocation of qvSDKLog failed\n)")))
        << err;
    EXPECT_EQ(std::make_tuple(g_qv_sdk_log_init, qv_sdk_log), std::make_tuple(0, nullptr));
}

TEST_F(SdkTest, ArgumentErrorsAreRefusedAndLogged) {
    // Before qv_init every function runs (on no table) and logs nothing.
    qv_bt_store(&x_, const_cast<char*>("id"));
    EXPECT_EQ(qv_bt_get(const_cast<char*>("id")), nullptr);

    ASSERT_NE(qv_sdk_log_init(), nullptr);
    char empty[] = "";
    char name[] = "n";
    EXPECT_EQ(qv_bt_begin(nullptr, name), nullptr);
    EXPECT_EQ(qv_bt_begin(empty, nullptr), nullptr);
    qv_method_entry(nullptr, name);
    qv_method_exit(&x_, empty);
    qv_method_exit(&x_, nullptr);
    EXPECT_EQ(qv_bt_end(nullptr), -1);
    qv_bt_store(nullptr, name);
    qv_bt_store(&x_, empty);
    EXPECT_EQ(qv_bt_get(nullptr), nullptr);
    EXPECT_EQ(qv_bt_get(empty), nullptr);
    EXPECT_EQ(qv_ip_db_callout_begin(&x_, name, nullptr), nullptr);
    EXPECT_EQ(qv_ip_db_callout_begin(nullptr, name, name), nullptr);
    EXPECT_EQ(qv_ip_db_callout_end(&x_, nullptr), -1);
    EXPECT_EQ(qv_ip_http_callout_begin(&x_, empty, name), nullptr);
    EXPECT_EQ(qv_ip_http_callout_end(nullptr, &x_), -1);
    EXPECT_EQ(qv_bt_add_error(nullptr, 3, nullptr, 1), 0);
    EXPECT_EQ(qv_bt_add_error(&x_, 1, name, 0), 0);

    // Every call above logs one line (qv_bt_add_error none); their return values show the refusal,
    // so only lines of an unusual level or text are compared. "{P}" stands for a non-null pointer.
    EXPECT_EQ(splitLines(log()).size(), 16u) << log();  // and the header
    const std::tuple<const char*, const char*, const char*> expected[] = {
        {"ERROR", "qv_method_exit", "ERROR: Invalid Arguments, bt_handle = [{P}], method = [(null)]"},
        // Deliberately DEBUG, unlike the others.
        {"DEBUG", "qv_ip_db_callout_begin",
         "Error: Invalid argument passed. bt_handle = [{P}], db_host = [n], db_query = [(null)]"},
        {"DEBUG", "qv_ip_db_callout_begin",
         "Error: Invalid argument passed. bt_handle = [(nil)], db_host = [n], db_query = [n]"},
        {"ERROR", "qv_ip_http_callout_end",
         "Error: Invalid argument passed.bt_handle = [(nil)], ip_handle = [{P}]"},
    };
    for (const auto& [level, func, msg] : expected)
        EXPECT_TRUE(hasLine(prefixRe(level, func) +
                            std::regex_replace(reEscape(msg), std::regex(R"(\\\{P\\\})"), "0x[0-9a-f]+")))
            << msg;
}

TEST_F(SdkTest, StoreKeepsFirstHandleFreeKeepsTheLogAndASecondInitLogsOnIntoIt) {
    startSdk();
    EXPECT_STREQ(qvApplication->QVBCISetting.agentType, "skd");
    qvSDKLog* rec = qv_sdk_log;
    const std::string file = logName();
    int h = 0, h2 = 0;
    char id[] = "a";
    qv_bt_store(&h, id);
    id[0] = 'X';  // the table keeps its own copy of the id
    qv_bt_store(&h2, const_cast<char*>("a"));
    EXPECT_EQ(qv_bt_get(const_cast<char*>("a")), &h);
    EXPECT_EQ(qv_bt_get(id), nullptr);
    EXPECT_TRUE(hasLine(prefixRe("ERROR", "qv_bt_store") +
                        reEscape("ERROR: Business transaction already exists. unique_bt_id = [a]")));
    qv_free();
    EXPECT_EQ(std::make_tuple(qv_sdk_log, g_qv_sdk_log_init), std::make_tuple(rec, 1));
    EXPECT_EQ(std::make_tuple(g_bt_hash, bt_lock, sdk_pool), std::make_tuple(nullptr, nullptr, nullptr));
    // After qv_free nothing touches the released table (ASan would see it); lines are still logged.
    EXPECT_EQ(qv_bt_get(const_cast<char*>("a")), nullptr);
    qv_bt_store(&h, const_cast<char*>("a"));

    // A second cycle: a new table, the same log file.
    qv_init_internal(0);
    EXPECT_EQ(qv_bt_get(const_cast<char*>("a")), nullptr);
    qv_bt_store(&h, const_cast<char*>("a"));
    EXPECT_EQ(qv_bt_get(const_cast<char*>("a")), &h);
    EXPECT_EQ(logName(), file);
    const std::string called = prefixRe("INFO", "qv_init") + "Method Called, sdk_pool created";
    const std::string lines[] = {
        called,
        prefixRe("DEBUG", "qv_init") + "Method End",
        prefixRe("INFO", "qv_free") + "Method Called",
        prefixRe("DEBUG", "qv_free") + "Method End",
        prefixRe("INFO", "qv_bt_get") + "Method Called, unique_bt_id = \\[a\\]",
        called,
        prefixRe("DEBUG", "qv_bt_store") + "Business transaction stored successfully."};
    size_t next = 0;
    for (const std::string& l : splitLines(log()))
        if (next < std::size(lines) && std::regex_match(l, std::regex(lines[next]))) ++next;
    EXPECT_EQ(next, std::size(lines)) << "missing: " << lines[next < std::size(lines) ? next : 0];
}

TEST_F(SdkTest, PublicInitPauseEndsWhenAgentShutsDown) {
    std::thread t([] { qv_init(); });
    // The pause starts after the table exists; shutting the agent down ends it.
    while (qv_load_acquire(g_bt_hash) == nullptr) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    agentStarted_ = true;
    qv_agent_shutdown();
    t.join();
    qv_store(qvAgentStopping, 0);
    EXPECT_TRUE(hasLine(prefixRe("DEBUG", "qv_init") + "Method End"));
}

// The child's lines carry its own process id from the first on, and reach the file without a
// flush even when the child leaves with _exit().
TEST_F(SdkTest, ForkedChildLogsWithItsOwnProcessId) {
    ASSERT_NE(qv_sdk_log_init(), nullptr);
    EXPECT_EQ(qv_bt_end(nullptr), -1);  // the parent's prefix of this second is formed
    qv_sdk_log_flush();
    const pid_t child = fork();
    if (child == 0) _exit(qv_bt_end(nullptr) == -1 ? 0 : 1);
    ASSERT_TRUE(childExitedCleanly(child));
    const std::string end = "ERROR: Invalid Argument Passed, bt_handle = \\[\\(nil\\)\\]";
    const std::vector<std::string> got = splitLines(log());
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(std::regex_match(got[1], std::regex(prefixRe("ERROR", "qv_bt_end") + end))) << got[1];
    EXPECT_TRUE(std::regex_match(got[2], std::regex(prefixRe("ERROR", "qv_bt_end", child) + end))) << got[2];
}

TEST_F(SdkTest, OversizedInputsAreCutAndNothingBreaks) {
    startSdk();
    qv_store(qvApplication->Server.testRunRunning, 1);  // transactions start; records have no buffers
    std::string huge(100000, 'x');
    std::string hugeQuery = "select '" + std::string(50000, 'q') + "'";
    qvBTHandle h = qv_bt_begin(huge.data(), huge.data());
    ASSERT_NE(h, nullptr);
    EXPECT_LE(strlen(static_cast<QVPerThreadData_t*>(h)->tlURL), 511u);
    qv_method_entry(h, huge.data());
    qvIPCallOutHandle db = qv_ip_db_callout_begin(h, huge.data(), hugeQuery.data());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(qv_ip_db_callout_end(h, db), 0);
    qvIPCallOutHandle http = qv_ip_http_callout_begin(h, const_cast<char*>("h"), huge.data());
    EXPECT_EQ(qv_ip_http_callout_end(h, http), 0);
    qv_method_exit(h, huge.data());
    qv_bt_store(h, huge.data());
    EXPECT_EQ(qv_bt_get(huge.data()), h);
    EXPECT_EQ(qv_bt_end(h), 0);
    // Every line of the log is within the line limit; the long name is in it, cut.
    const std::string begin = "|Method Called, bt_name = [" + std::string(1000, 'x');
    size_t cut = 0;
    for (const std::string& l : splitLines(log())) {
        EXPECT_LT(l.size(), static_cast<size_t>(QV_SDK_LOG_LINE_MAX));
        if (l.find(begin) != std::string::npos) cut = l.size();
    }
    EXPECT_EQ(cut, static_cast<size_t>(QV_SDK_LOG_LINE_MAX - 1));
}

}  // namespace
