// qvworker: one application process driven line by line on stdin, for the proxy tests and the
// proxy benchmark. It starts the agent as qv_init does but without its pause (so a pool of
// workers can be started and killed quickly), waits for its test run and data connection, then
// runs SDK transactions on command and answers each command with one line on stdout.
//
//   QVHOME=<home> qvworker [--wait-ms N]
//   commands: run <count> <pairs> <url> [must]
//                                         transactions of <pairs> method pairs each; with must,
//                                         a refused one is retried until traced (or --wait-ms)
//             open <count> <url>          transactions left inside two methods
//             close                       ends what open left open
//             cpu                         CPU time of the process so far
//             quit (or end of input)      stops the agent and exits
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "collector/QVCServerConfig.h"
#include "collector/QVDataDispatcher.h"
#include "collector/QVMonitorReporter.h"
#include "collector/Server.h"
#include "collector/control_thread.h"
#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "sdk/qv_sdk.h"

namespace {

char g_outer[] = "Worker::handle";
char g_wait[] = "Worker::waitOnBackend";
char g_steps[9][16] = {"Worker::step1", "Worker::step2", "Worker::step3", "Worker::step4", "Worker::step5",
                       "Worker::step6", "Worker::step7", "Worker::step8", "Worker::step9"};

long long cpuMicros() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000000LL + ru.ru_utime.tv_usec + ru.ru_stime.tv_usec;
}

// The SDK logs every call; a long run would fill the disk, so the log is emptied now and then.
void truncateSdkLog() {
    qvSDKLog* log = qv_load_acquire(qv_sdk_log);
    if (log == nullptr || log->file_fp == nullptr) return;
    qv_sdk_log_flush();
    if (ftruncate(fileno(log->file_fp), 0) == 0) fseek(log->file_fp, 0, SEEK_SET);
}

// Ready once the collector (or the proxy for it) started the test run and the data connection
// is open (and, talking to the collector itself, its send buffers are made): frames and records
// before that would be dropped without a trace.
bool waitReady(long long ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < deadline) {
        QVProxyInstance_t* app = qvApplication;
        if (app != nullptr && qv_load(app->Server.testRunRunning) == 1 &&
            qv_load(app->qvcDataSocket) != nullptr &&
            (qv_load(app->QVSys.proxyMode) != 0 || qv_load(maxBuffers) > 0))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

bool oneTransaction(char* url, int pairs) {
    qvBTHandle h = qv_bt_begin(url, nullptr);
    if (h == nullptr) return false;
    qv_method_entry(h, g_outer);
    for (int i = 1; i < pairs; ++i) {
        qv_method_entry(h, g_steps[(i - 1) % 9]);
        qv_method_exit(h, g_steps[(i - 1) % 9]);
    }
    qv_method_exit(h, g_outer);
    qv_bt_end(h);
    return true;
}

void reply(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void reply(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    long long waitMs = 30000;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--wait-ms") == 0 && i + 1 < argc) {
            waitMs = atoll(argv[++i]);
        } else {
            fprintf(stderr, "usage: QVHOME=<home> %s [--wait-ms N]  (commands on stdin, see the source)\n",
                    argv[0]);
            return 2;
        }
    }
    // A proxy that goes away must not kill the worker through its data connection.
    signal(SIGPIPE, SIG_IGN);
    qv_store(controlRetryIntervalMs, 100LL);
    qv_store(dataConnRetryIntervalMs, 100);
    qv_store(monitorReportSecondMs, 100LL);
    qv_store(stopDrainMinuteMs, 100LL);
    qv_store(controlPollTimeoutMs, 100LL);
    qv_store(controlReconnectPauseMs, 20LL);
    qv_init_internal(0);
    if (!waitReady(waitMs)) {
        reply("not ready\n");
        qv_free();
        return 3;
    }
    reply("ready pid=%d\n", static_cast<int>(getpid()));

    std::vector<qvBTHandle> open;
    char line[4096];
    while (fgets(line, sizeof(line), stdin) != nullptr) {
        char cmd[16] = "", url[2048] = "";
        long long count = 0;
        int pairs = 0;
        char must[8] = "";
        if (sscanf(line, "run %lld %d %2047s %7s", &count, &pairs, url, must) >= 3 && count >= 0 &&
            pairs >= 1) {
            const long long before = cpuMicros();
            const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
            long long traced = 0;
            for (long long i = 0; i < count; ++i) {
                bool ok = oneTransaction(url, pairs);
                while (!ok && must[0] != '\0' && std::chrono::steady_clock::now() < giveUp) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    ok = oneTransaction(url, pairs);
                }
                traced += ok ? 1 : 0;
                if (i % 1000 == 999) truncateSdkLog();
            }
            reply("ran %lld traced %lld cpu_us %lld discarded %d\n", count, traced, cpuMicros() - before,
                  qv_load(qvApplication->QVSys.discardCount));
        } else if (sscanf(line, "open %lld %2047s", &count, url) == 2 && count >= 0) {
            long long traced = 0;
            for (long long i = 0; i < count; ++i) {
                qvBTHandle h = qv_bt_begin(url, nullptr);
                if (h == nullptr) continue;
                qv_method_entry(h, g_outer);
                qv_method_entry(h, g_wait);
                open.push_back(h);
                ++traced;
            }
            reply("opened %lld\n", traced);
        } else if (sscanf(line, "%15s", cmd) == 1 && strcmp(cmd, "close") == 0) {
            for (qvBTHandle h : open) {
                qv_method_exit(h, g_wait);
                qv_method_exit(h, g_outer);
                qv_bt_end(h);
            }
            reply("closed %zu\n", open.size());
            open.clear();
        } else if (strcmp(cmd, "cpu") == 0) {
            reply("cpu_us %lld\n", cpuMicros());
        } else if (strcmp(cmd, "quit") == 0) {
            break;
        } else {
            reply("error: unknown command\n");
        }
    }
    qv_free();
    reply("bye\n");
    return 0;
}
