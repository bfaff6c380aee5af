// Shared pieces of the flowpath tests (the BT tests build on them too): an agent started in a
// temporary home, what the dispatcher has queued, and integer fields compared in one assertion.
#ifndef QV_TESTS_FLOWPATH_FIXTURE_H
#define QV_TESTS_FLOWPATH_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "collector/QVDataDispatcher.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/flowpath_module.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_mutex.h"
#include "support/agent_reset.h"
#include "support/temp_home.h"

template <class... T>
std::vector<long long> ints(T... v) {
    return {static_cast<long long>(v)...};
}

inline int countOf(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
    return n;
}

// The monitors' hooks into the method registry, recording what they are handed; the backend
// maximum is max.
struct MonitorHooks {
    static inline std::vector<std::string> monitored, backends;
    static inline int counter = 0, max = 100;
    static void install(int maxBackends = 100) {
        monitored.clear();
        backends.clear();
        counter = 0;
        max = maxBackends;
        qvMethodRegistryHooks.checkAndIncrementAggrMethodDataArray = [](methodPropProperties* m) {
            monitored.push_back(m->methodName);
        };
        qvMethodRegistryHooks.checkAndIncrementAggrBackendDataArray = [](methodPropProperties* m) {
            backends.push_back(m->methodName);
        };
        qvMethodRegistryHooks.incrementBackendCounter = [] { counter++; };
        qvMethodRegistryHooks.backendLimitReached = [](int* m, int* c) {
            if (m) *m = max;
            if (c) *c = counter;
            return counter >= max ? 1 : 0;
        };
    }
};

// A fresh temporary home; startAgent starts the agent in it (connect 1 also runs the registered
// start-up hooks). TearDown resets the whole agent.
class AgentTest : public ::testing::Test {
  protected:
    void startAgent(int connect = 0) {
        agent_init("fptest", connect, "fptest", nullptr);
        ASSERT_NE(qvApplication, nullptr);
    }
    void TearDown() override {
        qvlb_fault_reset();
        resetWholeAgent();
        home_.reset();
    }
    // A record from the pool, cleared as a transaction start leaves it.
    static QVPerThreadData_t* take() {
        QVPerThreadData_t* r = get_free_tls_slot();
        resetAllThreadLocals(r, tlsdatastruct);
        return r;
    }
    std::unique_ptr<TempAgentHome> home_ = std::make_unique<TempAgentHome>();
};

#endif
