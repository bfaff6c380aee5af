// Utilities: clock, environment, directories, threads and interruptible sleep (the date text is
// checked through the trace-log file names of the core tests).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_util.h"
#include "support/temp_home.h"

namespace {

TEST(Util, ClockAndEnv) {
    EXPECT_LE(std::llabs(my_gettimeofday() / 1000 - static_cast<long long>(time(nullptr))), 2);

    char buf[8] = "keep";
    unsetenv("QVLB_TEST_VAR");
    EXPECT_EQ(qvlb_get_env_var_value("QVLB_TEST_VAR", buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "keep");
    setenv("QVLB_TEST_VAR", "/opt/quovix/home", 1);
    EXPECT_STREQ(qvlb_get_env_var_value("QVLB_TEST_VAR", buf, sizeof(buf)), "/opt/qu");  // cut to the buffer
}

TEST(Util, MkdirCreatesParents) {
    TempAgentHome home;
    const std::string deep = home.file("x/y/z/");
    EXPECT_EQ(qvlb_mkdir_p(deep.c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_directory(deep));
    EXPECT_EQ(qvlb_mkdir_p(deep.c_str()), 0);  // already there
    home.write("f", "");
    EXPECT_EQ(qvlb_mkdir_p(home.file("f/sub").c_str()), -1);
    EXPECT_EQ(qvlb_mkdir_p(home.file("f").c_str()), -1);
    EXPECT_EQ(qvlb_mkdir_p(""), -1);
    EXPECT_EQ(qvlb_mkdir_p(std::string(5000, 'a').c_str()), -1);
}

void* APR_THREAD_FUNC set_flag(apr_thread_t* t, void* data) {
    static_cast<std::atomic<int>*>(data)->store(1);
    apr_thread_exit(t, APR_SUCCESS);
    return nullptr;
}

TEST(Util, ThreadCreateSleepAndFault) {
    std::atomic<int> flag{0};
    apr_thread_t* t = nullptr;
    char err[128] = "";
    ASSERT_EQ(qvlb_thread_create(&t, set_flag, &flag, nullptr, err, sizeof(err)), APR_SUCCESS) << err;
    apr_status_t rv;
    apr_thread_join(&rv, t);
    EXPECT_EQ(flag.load(), 1);
    qvlb_fault_arm(QV_FAULT_THREAD_CREATE, 0, 1);
    EXPECT_NE(qvlb_thread_create(&t, set_flag, &flag, nullptr, err, sizeof(err)), APR_SUCCESS);
    EXPECT_TRUE(t == nullptr && err[0] != '\0');
    qvlb_fault_reset();

    int stop = 1;
    EXPECT_TRUE(qvlb_sleep_ms_interruptible(600000, &stop));  // would hang the test if not interrupted
    stop = 0;
    EXPECT_FALSE(qvlb_sleep_ms_interruptible(30, &stop));
    EXPECT_FALSE(qvlb_sleep_ms_interruptible(-1, nullptr));
}

}  // namespace
