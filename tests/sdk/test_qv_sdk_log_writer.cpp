// Tests of the SDK log's writer: lines from many threads arrive whole and in each thread's order,
// and a file that cannot be written makes lines drop (counted, then reported) instead of making
// the callers wait. A fork while threads log leaves both processes logging, without the child
// repeating the parent's lines.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sdk/qv_sdk_log_writer.h"

namespace {

std::string readAll(int fd) {
    std::string out;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

// The lines written to fp, which is closed.
std::vector<std::string> linesOf(FILE* fp) {
    rewind(fp);
    std::istringstream in(readAll(fileno(fp)));
    fclose(fp);
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

TEST(SdkLogWriterConcurrency, LinesOfManyThreadsArriveWholeAndInOrder) {
    FILE* fp = tmpfile();
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(qvSdkLogWriterOpen(fp));
    constexpr int kThreads = 4, kLines = 5000;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++)
        ts.emplace_back([t] {
            char line[64];
            for (int i = 0; i < kLines; i++) {
                const int n = snprintf(line, sizeof(line), "t%d line %d of a thread\n", t, i);
                ASSERT_EQ(qvSdkLogWriterAppend(line, static_cast<size_t>(n)), QVSdkLogAppend::Written);
            }
        });
    for (auto& th : ts) th.join();
    qvSdkLogWriterClose();
    EXPECT_EQ(qvSdkLogWriterAppend("late\n", 5), QVSdkLogAppend::NotOpen);

    const std::vector<std::string> lines = linesOf(fp);
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::map<int, int> next;
    for (const std::string& l : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(sscanf(l.c_str(), "t%d line %d of a thread", &t, &i), 2) << l;
        EXPECT_EQ(i, next[t]++) << "thread " << t;
    }
    EXPECT_EQ(qvSdkLogWriterDropped(), 0);
}

TEST(SdkLogWriter, StalledFileDropsAndCountsLinesWithoutBlockingCallers) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FILE* fp = fdopen(p[1], "w");
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(qvSdkLogWriterOpen(fp));
    // Nobody reads the pipe: the writer thread blocks in its first write, and the callers keep
    // going until both staging buffers are full.
    std::string line(1000, 'x');
    line.back() = '\n';
    const int total = static_cast<int>(3 * QV_SDK_LOG_STAGE_BYTES / line.size());
    int dropped = 0;
    for (int i = 0; i < total; i++)
        if (qvSdkLogWriterAppend(line.data(), line.size()) == QVSdkLogAppend::Dropped) dropped++;
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(qvSdkLogWriterDropped(), dropped);

    // Reading the pipe lets the writer go on; the close writes what was kept and the count.
    std::string got;
    std::thread reader([&] { got = readAll(p[0]); });
    qvSdkLogWriterClose();
    fclose(fp);
    reader.join();
    close(p[0]);
    EXPECT_EQ(static_cast<int>(got.size() / line.size()), total - dropped);
    EXPECT_NE(got.find("|" + std::to_string(dropped) + " log lines dropped: the disk did not keep up\n"),
              std::string::npos);
}

// Waits up to 10 s for a child; a child stuck on a lock the fork left held is killed.
bool exitedCleanly(pid_t pid) {
    int status = 0;
    for (int i = 0; i < 1000; i++) {
        if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return false;
}

TEST(SdkLogWriter, ForkWhileThreadsLogLeavesBothProcessesLogging) {
    FILE* fp = tmpfile();
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(qvSdkLogWriterOpen(fp));
    constexpr int kThreads = 3, kForks = 10;
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++)
        ts.emplace_back([t, &stop] {
            char line[64];
            for (int i = 0; !stop.load(); i++) {
                const int n = snprintf(line, sizeof(line), "t%d line %d\n", t, i);
                qvSdkLogWriterAppend(line, static_cast<size_t>(n));
            }
        });
    for (int f = 0; f < kForks; f++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            char line[32];
            const int n = snprintf(line, sizeof(line), "child %d\n", f);
            const bool ok = qvSdkLogWriterAppend(line, static_cast<size_t>(n)) == QVSdkLogAppend::Written;
            qvSdkLogWriterFlush();
            _exit(ok ? 0 : 1);
        }
        EXPECT_TRUE(exitedCleanly(pid)) << "fork " << f;
    }
    stop = true;
    for (auto& th : ts) th.join();
    qvSdkLogWriterClose();

    std::map<int, int> next;
    int children = 0;
    for (const std::string& l : linesOf(fp)) {
        int t = -1, i = -1;
        if (sscanf(l.c_str(), "child %d", &i) == 1) {
            children++;
            continue;
        }
        if (l.find("log lines dropped") != std::string::npos) continue;  // the threads outran the disk
        ASSERT_EQ(sscanf(l.c_str(), "t%d line %d", &t, &i), 2) << l;
        // Lines may be dropped when the buffers fill, never repeated or reordered.
        EXPECT_GE(i, next[t]) << "thread " << t;
        next[t] = i + 1;
    }
    EXPECT_EQ(children, kForks);
}

}  // namespace
