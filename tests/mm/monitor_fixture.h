// Shared by the method and backend monitor tests: an initialised agent named T1>S1>A1 (tier 3,
// application 7, 60 s interval) with both monitors started, and a report buffer prefilled with
// 'x' so that writes past the used length show.
#ifndef QV_TESTS_MONITOR_FIXTURE_H
#define QV_TESTS_MONITOR_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "backend/QVBackendMonitor.h"
#include "backend/backend_module.h"
#include "bt/QVBTManager.h"
#include "bt/QVMonitorCommon.h"
#include "bt/QVMonitorDataModel.h"
#include "bt/bt_module.h"
#include "core/QVBCISettings.h"
#include "core/QVSettingRecords.h"
#include "core/qv_agent.h"
#include "core/qvlb_keywords.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVSQLProcessor.h"
#include "flowpath/flowpath_module.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"
#include "mm/QVMethodMonitor.h"
#include "mm/mm_module.h"
#include "support/agent_reset.h"
#include "support/temp_home.h"

class MonitorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        home_ = std::make_unique<TempAgentHome>();
        qv_flowpath_register_hooks();
        qv_bt_register_hooks();
        qv_mm_register_hooks();
        qv_backend_register_hooks();
        agent_init("montest", 1, "montest", nullptr);
        ASSERT_NE(qvApplication, nullptr);
        setTierName(const_cast<char*>("T1"));
        setAppServerName(const_cast<char*>("S1"));
        setAppName(const_cast<char*>("A1"));
        setTierID(3);
        setAppID(7);
        qv_store(QVSettings.qvMonitorIntervalInSecs, 60);
        QVMethodMonitorInit();
        QVBackendMonitorInit();
        buf_.assign(QV_MONITOR_BUFFER_SIZE, 'x');
    }
    void TearDown() override {
        qvlb_fault_reset();
        resetWholeAgent();
        home_.reset();
    }
    QVPerThreadData_t* take() {
        QVPerThreadData_t* r = get_free_tls_slot();
        resetAllThreadLocals(r, tlsdatastruct);
        return r;
    }
    // A registered, monitored method with room in the merged array.
    methodPropProperties* method(const char* name) {
        methodPropProperties* m = updateMethodHashMap(name, QV_EP_MONITORED, 0, nullptr);
        checkAndIncrementAggrMethodDataArray(m);
        return m;
    }
    // A backend as the callout code registers it (type 1 HTTP, 2 database).
    methodPropProperties* backend(const char* name, int type) {
        char buf[256];
        snprintf(buf, sizeof(buf), "%s", name);
        return searchAndUpdateMethodHashMap(buf, nullptr, 1, type, sizeof(buf));
    }
    // One report of a monitor into buf_ from its start.
    std::string report(bool (*generate)(char*, int*)) {
        len_ = 0;
        generate(buf_.data(), &len_);
        return std::string(buf_.data(), len_);
    }
    std::string methods() { return report(generateAndDumpMethodMonitoringRecord); }
    std::string backends() { return report(generateAndDumpBackendMonitoringRecord); }
    // The expected record of type 61 or 75 for m under name.
    static std::string line(int type, methodPropProperties* m, const char* name, const char* values) {
        return std::to_string(type) + ",3|7|" + std::to_string(m->methodId) + ":T1>S1>A1>" + name + "|" +
               values + "\n";
    }
    std::unique_ptr<TempAgentHome> home_;
    std::vector<char> buf_;
    int len_ = 0;
};

#endif
