// Whole-agent helpers for test fixtures: one reset of every module, and the data dispatcher's queue.
#ifndef QV_TEST_AGENT_RESET_H
#define QV_TEST_AGENT_RESET_H

#include <functional>
#include <string>

// Stops every agent thread and resets every module, upper layers first, so the next test starts
// from clean globals and the leak check at exit (sanitizer builds) sees only real leaks. Safe
// whatever the test started. afterDataStop, when given, runs once the data thread has stopped and
// before the collector settings are freed.
void resetWholeAgent(const std::function<void()>& afterDataStop = nullptr);

// Everything queued for the data connection so far, in order: the buffers waiting to be sent,
// then the current one.
std::string queuedRecords();

#endif
