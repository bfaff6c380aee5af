// Waiting for a forked child in tests.
#ifndef QV_TESTS_CHILD_PROCESS_H
#define QV_TESTS_CHILD_PROCESS_H

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

// Waits up to 10 s for a child; true when it exited with status 0. A child stuck on a lock the
// fork left held is killed.
inline bool childExitedCleanly(pid_t pid) {
    int status = 0;
    for (int i = 0; i < 1000; i++) {
        if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return false;
}

#endif
