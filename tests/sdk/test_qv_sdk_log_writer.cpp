// Tests of the SDK log's writer: lines from many threads arrive whole and in each thread's order,
// none is dropped when the disk falls behind, and a fork while threads log leaves both processes
// logging, the child's lines written even when it leaves with _exit().
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sdk/qv_sdk_log_writer.h"
#include "support/child_process.h"

namespace {

std::string readAll(int fd) {
    std::string out;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// The lines written to fp, which is closed.
std::vector<std::string> linesOf(FILE* fp) {
    rewind(fp);
    const std::string text = readAll(fileno(fp));
    fclose(fp);
    return splitLines(text);
}

// Appends "t<t> line <i>" lines until stop (or count lines when count >= 0).
void appendLines(int t, int count, const std::atomic<bool>* stop) {
    char line[64];
    for (int i = 0; count < 0 ? !stop->load() : i < count; i++) {
        const int n = snprintf(line, sizeof(line), "t%d line %d\n", t, i);
        ASSERT_EQ(qvSdkLogWriterAppend(line, static_cast<size_t>(n)), QVSdkLogAppend::Written);
    }
}

// Every "t<t> line <i>" line comes once and in order; other lines are counted in *others.
void expectEveryLineInOrder(const std::vector<std::string>& lines, int* others = nullptr) {
    std::map<int, int> next;
    for (const std::string& l : lines) {
        int t = -1, i = -1;
        if (sscanf(l.c_str(), "t%d line %d", &t, &i) != 2) {
            ASSERT_NE(others, nullptr) << l;
            ++*others;
            continue;
        }
        ASSERT_EQ(i, next[t]++) << "thread " << t;
    }
}

TEST(SdkLogWriterConcurrency, LinesOfManyThreadsArriveWholeAndInOrder) {
    FILE* fp = tmpfile();
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(qvSdkLogWriterOpen(fp));
    constexpr int kThreads = 4, kLines = 50000;  // the buffers fill and swap several times
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++) ts.emplace_back(appendLines, t, kLines, nullptr);
    for (auto& th : ts) th.join();
    qvSdkLogWriterClose();
    EXPECT_EQ(qvSdkLogWriterAppend("late\n", 5), QVSdkLogAppend::NotOpen);
    const std::vector<std::string> lines = linesOf(fp);
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    expectEveryLineInOrder(lines);
}

TEST(SdkLogWriter, FullBuffersMakeTheCallerWaitInsteadOfDroppingLines) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FILE* fp = fdopen(p[1], "w");
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(qvSdkLogWriterOpen(fp));
    // Nobody reads the pipe at first: the writer thread blocks in its first write and both
    // staging buffers fill; the caller must then wait for the reader, not lose lines.
    std::string got;
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        got = readAll(p[0]);
    });
    const int lines = static_cast<int>(3 * QV_SDK_LOG_STAGE_BYTES / 16);
    appendLines(0, lines, nullptr);
    qvSdkLogWriterClose();
    fclose(fp);
    reader.join();
    close(p[0]);
    const std::vector<std::string> all = splitLines(got);
    EXPECT_EQ(all.size(), static_cast<size_t>(lines));
    expectEveryLineInOrder(all);
}

TEST(SdkLogWriter, ForkWhileThreadsLogLeavesBothProcessesLogging) {
    FILE* fp = tmpfile();
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(qvSdkLogWriterOpen(fp));
    constexpr int kThreads = 3, kForks = 10;
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++) ts.emplace_back(appendLines, t, -1, &stop);
    for (int f = 0; f < kForks; f++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // No flush: the child has no writer thread, and _exit runs no exit handler.
            char line[32];
            const int n = snprintf(line, sizeof(line), "child %d\n", f);
            _exit(qvSdkLogWriterAppend(line, static_cast<size_t>(n)) == QVSdkLogAppend::Written ? 0 : 1);
        }
        EXPECT_TRUE(childExitedCleanly(pid)) << "fork " << f;
    }
    stop = true;
    for (auto& th : ts) th.join();
    qvSdkLogWriterClose();
    int children = 0;
    expectEveryLineInOrder(linesOf(fp), &children);
    EXPECT_EQ(children, kForks);
}

}  // namespace
