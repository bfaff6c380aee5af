// Two application instances driven at once, one thread each: the process's own and one made with
// qvlb_instance_create, as the proxy does. Each must see only its own method registry, record pool
// with its reserve thread, monitor models, BT maps, rules and monitor settings.
#include <gtest/gtest.h>

#include <barrier>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bt/QVBTMonitor.h"
#include "bt/QVBTRuleReader.h"
#include "bt/QVMonitorDataModel.h"
#include "bt/bt_module.h"
#include "flowpath/QVMethodHashMap.h"
#include "flowpath/QVPerThreadData.h"
#include "flowpath/QVTlsPoolReserve.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_instance.h"
#include "mm/QVMethodMonitor.h"
#include "qvbt/qvbt_bt_object.h"
#include "qvbt/qvbt_rule_execute.h"
#include "support/agent_reset.h"

namespace {

constexpr int kRequests = 100;
std::barrier<> bothBusy(2);  // counts are read while both instances hold their records

struct Seen {
    std::vector<int> ids;  // ids the instance gave its own method names
    bool foreignMethod = true, foreignBT = true;
    std::string bt;
    std::vector<long long> counts, settings;
};

// Drives the layers for the instance the calling thread acts for; tag prefixes its names and
// order (1 or 2) picks its URL rule and monitor limits.
void drive(const std::string& tag, const std::string& other, int order, Seen* out) {
    ASSERT_EQ(initMethodRegistry(), 0);
    ASSERT_EQ(qvbt_bt_maps_init(), 0);
    char rule[64];
    snprintf(rule, sizeof(rule), "1|2|n|d|%s|%d|-|-|-", order == 1 ? "FromFirst" : "FromLast", order);
    std::string limit = std::to_string(100 * order);
    parseMaxBTCount(limit.data(), nullptr, 0);
    parseMaxMethodCount(limit.data(), nullptr, 0);
    std::vector<QVPerThreadData_t*> taken;
    for (int i = 0; i < kRequests; i++) {
        std::string name = tag + std::to_string(i);
        methodPropProperties* m = searchAndUpdateMethodHashMap(name.data(), nullptr, 0, 0);
        out->ids.push_back(m != nullptr ? m->methodId : -1);
        taken.push_back(get_free_tls_slot());
        find_bt_obj_in_config_map((tag + "BT").c_str(), 2, 10, 20);
        if (i % 10 == 0) {
            parse_global_rule(rule);  // retires the previous rule
            qvbt_reclaim();
        }
        QVBTRuleReadGuard reading;
        ASSERT_NE(qv_load_acquire(global_rule), nullptr);
    }
    bothBusy.arrive_and_wait();
    const long long busy = qv_load(gBusyTLSCnt), created = qv_load(g_tlsidx);
    bothBusy.arrive_and_wait();
    for (QVPerThreadData_t* r : taken) free_tls_slot(r);
    qvTlsPoolReserveStop();  // registers what its thread still had queued
    out->counts = {busy, created, qv_load(gFreeTLSCnt), qvMonitorModelCount()};
    out->foreignMethod = getMethodPropFromMethodName((other + "0").c_str(), nullptr) != nullptr;
    out->foreignBT = find_bt_obj_in_manager_map((other + "BT").c_str()) != nullptr;
    if (BTObject* mine = find_bt_obj_in_manager_map((tag + "BT").c_str())) out->bt = mine->bt_name;
    QVBTRuleReadGuard reading;
    const QVBTGlobalRule* g = qv_load_acquire(global_rule);
    out->settings = {g->include_uri_in_name_order, g->include_uri_in_name_segment, QVBTMonitor.maxBTCount,
                     config.max_bt_count, QVMethodMonitor.maxMethodCount};
}

}  // namespace

TEST(InstanceStateConcurrency, TwoInstancesKeepTheirOwnState) {
    qv_bt_register_hooks();  // the pool makes and registers monitor models
    QVInstanceState* second = qvlb_instance_create();
    ASSERT_NE(second, nullptr);
    Seen own, other;
    std::thread a([&] { drive("own", "other", 1, &own); });
    std::thread b([&] {
        QVInstanceScope acting(second);
        drive("other", "own", 2, &other);
    });
    a.join();
    b.join();

    std::vector<int> expected;  // the default pseudo-method has the first id in each
    for (int i = 0; i < kRequests; i++) expected.push_back(QV_FIRST_METHOD_ID + 1 + i);
    EXPECT_EQ(own.ids, expected);
    EXPECT_EQ(other.ids, expected);
    EXPECT_FALSE(own.foreignMethod || own.foreignBT || other.foreignMethod || other.foreignBT);
    EXPECT_EQ(own.bt + "," + other.bt, "ownBT,otherBT");
    // 100 records taken from two blocks of 64, each record with its own registered model.
    EXPECT_EQ(own.counts, std::vector<long long>({kRequests, 128, 128, 128}));
    EXPECT_EQ(other.counts, own.counts);
    EXPECT_EQ(own.settings, std::vector<long long>({1, 1, 100, 100, 100}));
    EXPECT_EQ(other.settings, std::vector<long long>({2, 2, 200, 200, 200}));

    {
        QVInstanceScope acting(second);
        resetWholeAgent();
    }
    resetWholeAgent();
    qvlb_instance_destroy(second);
}
