// Tests of the method registry: find-or-create and ids, lookups without the lock, generations
// sharing records, the three resets, reference counts and sweeping, the "Others" fold-over, the
// method metadata record, and DefaultMethod after start-up.
#include "flowpath/QVMethodHashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "flowpath/flowpath_fixture.h"
#include "foundation/qvlb_atomic.h"

namespace {

class Registry : public AgentTest {
  protected:
    void SetUp() override {
        startAgent();
        qvApplication->QVSys.fpTraceLevel = 4;
        ASSERT_EQ(initMethodRegistry(), 0);
    }
    static methodPropProperties* get(const char* name, node_t* gen = nullptr, int updateFlag = 0) {
        std::string n = name;
        return searchAndUpdateMethodHashMap(n.data(), gen, updateFlag, 0, static_cast<int>(n.size() + 1));
    }
    static int refCount(node_t* n) { return __atomic_load_n(&n->ref_count, __ATOMIC_RELAXED); }
};

// The same start-up without the trace, which would serialise the threads on the log.
class RegistryConcurrency : public Registry {
  protected:
    void SetUp() override {
        Registry::SetUp();
        qvApplication->QVSys.fpTraceLevel = 0;
    }
};

TEST_F(Registry, FindOrCreateHandsOutIdsInCreationOrder) {
    ASSERT_NE(DefaultMethod, nullptr);
    EXPECT_EQ(ints(DefaultMethod->methodId, DefaultMethod->isEntryPoint),
              ints(QV_FIRST_METHOD_ID, QV_EP_SERVICE));
    methodPropProperties* a = get("App::a");
    methodPropProperties* b = get("App::b");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(ints(a->methodId, b->methodId), ints(QV_FIRST_METHOD_ID + 1, QV_FIRST_METHOD_ID + 2));
    EXPECT_EQ(get("App::a"), a);

    // Bad input creates nothing; a known name keeps its one record, a second start-up the registry.
    char empty[8] = "";
    EXPECT_EQ(searchAndUpdateMethodHashMap(empty, nullptr, 1, 0), nullptr);
    EXPECT_EQ(searchAndUpdateMethodHashMap(nullptr, nullptr, 1, 0), nullptr);
    EXPECT_EQ(updateMethodHashMap("", 0, 0, nullptr), nullptr);
    EXPECT_EQ(updateMethodHashMap("App::a", 1, 2, nullptr), a);
    EXPECT_EQ(ints(a->type, qv_load(qvMethodRegistryState().methodId)), ints(0, QV_FIRST_METHOD_ID + 3));
    methodPropProperties* before = DefaultMethod;
    EXPECT_EQ(initMethodRegistry(), 0);
    EXPECT_EQ(DefaultMethod, before);
    EXPECT_EQ(get("App::b"), b);
}

// Lookups in a given generation take no lock for known names; they must still find every name of
// that generation (any length, across index growth and copies) and nothing of a newer one. Names
// met through an older generation share the current generation's records.
TEST_F(Registry, GenerationsShareRecordsAndKnownNamesAreFoundWithoutNewIds) {
    std::vector<std::string> names;
    for (int len = 1; len <= 40; len++) {
        names.push_back(std::string(len, 'm'));
        names.push_back("x" + std::string(len > 1 ? len - 1 : 0, 'm'));  // same length, other first byte
        names.push_back(std::string(len > 1 ? len - 1 : 0, 'm') + "x");  // other last byte
    }
    for (int i = 0; i < 200; i++) names.push_back("Svc::handler" + std::to_string(i));
    std::vector<methodPropProperties*> recs;
    for (const std::string& n : names) {
        recs.push_back(get(n.c_str()));
        ASSERT_NE(recs.back(), nullptr) << n;
    }
    const int nextId = qv_load(qvMethodRegistryState().methodId);
    node_t* g1 = methodHashMapNode;
    ASSERT_EQ(makeHashmapCopyAndaddToLL(0), 0);
    for (size_t i = 0; i < names.size(); i++) {
        EXPECT_EQ(getMethodPropFromMethodName(names[i].c_str(), g1), recs[i]) << names[i];
        EXPECT_EQ(get(names[i].c_str(), g1, 1), recs[i]);
        EXPECT_EQ(getMethodPropFromMethodName(names[i].c_str(), methodHashMapNode), recs[i]);
    }
    EXPECT_EQ(qv_load(qvMethodRegistryState().methodId), nextId);  // nothing created, not even as a backend
    EXPECT_EQ(getMethodPropFromMethodName("Svc::handler200", g1), nullptr);

    methodPropProperties* late = get("Late::one");
    EXPECT_EQ(late->methodId, nextId);
    EXPECT_EQ(getMethodPropFromMethodName("Late::one", g1), nullptr);
    // Met through the older generation, the name joins it with its one record; a name created
    // through it is known to the current generation too.
    EXPECT_EQ(get("Late::one", g1), late);
    EXPECT_EQ(getMethodPropFromMethodName("Late::one", g1), late);
    methodPropProperties* c = get("C", g1);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(ints(c->methodId, qv_load(qvMethodRegistryState().methodId)), ints(nextId + 1, nextId + 2));
    EXPECT_EQ(get("C"), c);
}

TEST_F(Registry, ResetTypesClearTheirFields) {
    methodPropProperties* plain = get("plain");
    methodPropProperties* entry = get("entry");
    methodPropProperties* forced = get("forced");
    methodPropProperties* callout = get("callout");
    auto dirty = [&] {
        for (methodPropProperties* m : {plain, entry, forced, callout})
            m->usedFlag = 1, m->instrumentationStatus = 5, m->instrumentationProp = 7, m->isEntryPoint = 0,
            m->callOutValue = 0;
        entry->isEntryPoint = QV_EP_SERVICE | QV_EP_MONITORED;
        forced->callOutValue = 1;
        callout->isEntryPoint = QV_EP_CALLOUT | QV_EP_MONITORED | QV_EP_CUSTOM_CALLOUT;
        callout->callOutValue = 4, callout->type = 2;
    };

    dirty();
    ASSERT_EQ(makeHashmapCopyAndaddToLL(1), 0);
    EXPECT_EQ(ints(plain->usedFlag, callout->instrumentationStatus), ints(0, 0));
    EXPECT_EQ(ints(plain->instrumentationProp, entry->instrumentationProp, forced->instrumentationProp,
                   callout->instrumentationProp),
              ints(3, 7, 7, 7));

    dirty();
    ASSERT_EQ(makeHashmapCopyAndaddToLL(2), 0);
    EXPECT_EQ(ints(entry->usedFlag, entry->isEntryPoint), ints(0, QV_EP_SERVICE));
    EXPECT_EQ(ints(callout->isEntryPoint, callout->type, callout->instrumentationStatus),
              ints(QV_EP_CALLOUT | QV_EP_CUSTOM_CALLOUT, 2, 5));

    dirty();
    ASSERT_EQ(makeHashmapCopyAndaddToLL(3), 0);
    EXPECT_EQ(ints(callout->usedFlag, callout->isEntryPoint, callout->callOutValue, callout->type),
              ints(0, QV_EP_MONITORED | QV_EP_CUSTOM_CALLOUT, 0, 0));
    EXPECT_EQ(ints(forced->callOutValue, entry->isEntryPoint), ints(0, QV_EP_SERVICE | QV_EP_MONITORED));
}

TEST_F(Registry, HeldGenerationIsSweptOnlyAfterItsRefCountDrops) {
    auto fp = std::make_unique<QVPerThreadData_t>();
    auto fp2 = std::make_unique<QVPerThreadData_t>();
    EXPECT_EQ(checkAndDeleteNode(), 0);

    node_t* g1 = methodHashMapNode;
    saveNodeAndIncrementMethodRefCount(fp.get());
    ASSERT_EQ(fp->hasMapNodePtr, g1);
    EXPECT_EQ(refCount(g1), 1);

    ASSERT_EQ(makeHashmapCopyAndaddToLL(1), 0);  // g1 retired, held
    ASSERT_EQ(makeHashmapCopyAndaddToLL(1), 0);  // g2 retired, free
    saveNodeAndIncrementMethodRefCount(fp2.get());
    node_t* g3 = methodHashMapNode;
    ASSERT_EQ(makeHashmapCopyAndaddToLL(1), 0);  // g3 retired, held
    EXPECT_EQ(getRetiredMethodHashMapCount(), 3);

    EXPECT_EQ(checkAndDeleteNode(), 1);  // only g2
    EXPECT_EQ(getRetiredMethodHashMapCount(), 2);
    EXPECT_EQ(checkForLinkList(), 1);

    // The flowpath on g1 moves to the current generation: g1 loses its last reference.
    node_t* g4 = methodHashMapNode;
    EXPECT_EQ(switchToCurrentMethodHashMapNode(fp.get()), g4);
    EXPECT_EQ(ints(fp->hasMapNodePtr == g4, refCount(g4)), ints(1, 1));
    EXPECT_EQ(checkAndDeleteNode(), 1);  // g1, the head
    qvDecrementMethodRefCount(g3);
    EXPECT_EQ(checkAndDeleteNode(), 1);  // g3, head and tail
    EXPECT_EQ(checkForLinkList(), 0);

    // The list works again after it was emptied through its tail; a record gives back what it
    // holds once, and then points at no generation.
    releaseNodeAndDecrementMethodRefCount(fp.get());
    releaseNodeAndDecrementMethodRefCount(fp.get());
    EXPECT_EQ(fp->hasMapNodePtr, nullptr);
    qvDecrementMethodRefCount(g4);  // unbalanced: stays at 0
    EXPECT_EQ(refCount(g4), 0);
    ASSERT_EQ(makeHashmapCopyAndaddToLL(1), 0);
    EXPECT_EQ(checkAndDeleteNode(), 1);
    EXPECT_EQ(checkAndDeleteNode(), 0);
}

TEST_F(Registry, BackendsPastTheMaximumFoldIntoOthers) {
    MonitorHooks::install(2);
    char b1[32] = "db1";
    char b2[32] = "db2";
    methodPropProperties* m1 = searchAndUpdateMethodHashMap(b1, nullptr, 1, 2, sizeof(b1));
    ASSERT_NE(m1, nullptr);
    ASSERT_NE(searchAndUpdateMethodHashMap(b2, nullptr, 1, 2, sizeof(b2)), nullptr);
    EXPECT_EQ(MonitorHooks::counter, 2);

    char b3[] = "a-much-longer-backend-name:5432";
    methodPropProperties* others = searchAndUpdateMethodHashMap(b3, nullptr, 1, 2, sizeof(b3));
    ASSERT_NE(others, nullptr);
    EXPECT_STREQ(others->methodName, "Others");
    EXPECT_STREQ(b3, "Others");
    char b4[32] = "db4";
    EXPECT_EQ(searchAndUpdateMethodHashMap(b4, nullptr, 1, 2, sizeof(b4)), others);
    EXPECT_EQ(MonitorHooks::counter, 3);
    // A buffer too small for "Others" is left alone; the backend still folds.
    char small[4] = "xy";
    EXPECT_EQ(searchAndUpdateMethodHashMap(small, nullptr, 1, 2, sizeof(small)), others);
    EXPECT_STREQ(small, "xy");
    // Known backends and ordinary methods are unaffected by the maximum.
    char again[32] = "db1";
    EXPECT_EQ(searchAndUpdateMethodHashMap(again, nullptr, 1, 2, sizeof(again)), m1);
    EXPECT_NE(get("App::plain"), others);

    EXPECT_EQ(MonitorHooks::backends, (std::vector<std::string>{"db1", "db2", "Others"}));
}

TEST_F(Registry, MetadataRecordIsQueuedOnlyWhileTheDataThreadRuns) {
    qvApplication->QVSys.dataBuffMaxCount = 4;
    qvApplication->QVSys.bciDataBufferMaxSize = 16384;
    ASSERT_EQ(buff_list_init(), 0);

    qv_store(qvApplication->QVBCISetting.data_thread_running, 0);
    get("quiet");
    qv_store(qvApplication->QVBCISetting.data_thread_running, 1);
    methodPropProperties* loud = get("loud");
    const std::string expect = "5,loud," + std::to_string(loud->methodId) + "\n";
    EXPECT_EQ(queuedRecords(), expect);
    get("loud");  // known: no second record
    EXPECT_EQ(queuedRecords(), expect);

    // A name longer than the record allows is cut in the record, kept whole in the registry.
    const std::string longName(QV_METHOD_META_NAME_MAX + 500, 'x');
    methodPropProperties* lm = get(longName.c_str());
    ASSERT_NE(lm, nullptr);
    EXPECT_EQ(strlen(lm->methodName), longName.size());
    EXPECT_EQ(queuedRecords(), expect + "5," + std::string(QV_METHOD_META_NAME_MAX, 'x') + "," +
                                   std::to_string(lm->methodId) + "\n");
}

TEST(RegistryStandalone, CallsBeforeStartUpAreHarmless) {
    char name[] = "x";
    EXPECT_EQ(searchAndUpdateMethodHashMap(name, nullptr, 0, 0), nullptr);
    EXPECT_EQ(getMethodPropFromMethodName("x", nullptr), nullptr);
    EXPECT_EQ(makeHashmapCopyAndaddToLL(1), -1);
    EXPECT_EQ(checkAndDeleteNode(), 0);
    saveNodeAndIncrementMethodRefCount(nullptr);
    qvMethodRegistryResetForTest();
}

// Flowpaths meeting the same new names (some as backends) through the generation they hold,
// looking known names up without the lock and moving between generations, while generations are
// made and swept: one record and one id per name, known names always found, no reference on a
// freed generation (the sanitizers watch), and once all have ended one sweep frees every one.
TEST_F(RegistryConcurrency, FlowpathsRaceNewNamesLookupsAndSweeps) {
    constexpr int kThreads = 6, kNames = 1000, kKnown = 32;
    std::vector<std::string> names, known;
    for (int i = 0; i < kNames; i++)
        names.push_back("Svc::method::with::a::longer::name" + std::to_string(i));
    std::vector<methodPropProperties*> knownRecs;
    for (int i = 0; i < kKnown; i++) {
        known.push_back("Known::m" + std::to_string(i));
        knownRecs.push_back(get(known.back().c_str()));
    }
    std::vector<std::vector<methodPropProperties*>> seen(kThreads,
                                                         std::vector<methodPropProperties*>(kNames));
    std::atomic<int> running{kThreads}, bad{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; t++) {
        workers.emplace_back([&, t] {
            std::vector<int> order(kNames);
            for (int i = 0; i < kNames; i++) order[i] = i;
            std::shuffle(order.begin(), order.end(), std::mt19937(t));
            auto fp = std::make_unique<QVPerThreadData_t>();
            for (int i : order) {
                saveNodeAndIncrementMethodRefCount(fp.get());
                char buf[64];
                snprintf(buf, sizeof(buf), "%s", names[i].c_str());
                seen[t][i] = searchAndUpdateMethodHashMap(buf, fp->hasMapNodePtr, i % 3 == 0, 0, sizeof(buf));
                const int k = i % kKnown;
                if (getMethodPropFromMethodName(known[k].c_str(), fp->hasMapNodePtr) != knownRecs[k]) bad++;
                if (getMethodPropFromMethodName("Never::created", fp->hasMapNodePtr) != nullptr) bad++;
                if (i % 4 == 0) switchToCurrentMethodHashMapNode(fp.get());
                releaseNodeAndDecrementMethodRefCount(fp.get());
            }
            running--;
        });
    }
    int retired = 0;
    while (running.load() > 0) {
        if (makeHashmapCopyAndaddToLL(retired % 2 + 1) == 0) retired++;
        checkAndDeleteNode();
    }
    for (auto& w : workers) w.join();

    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(retired, 0);
    std::vector<int> ids;
    for (int i = 0; i < kNames; i++) {
        ASSERT_NE(seen[0][i], nullptr);
        for (int t = 1; t < kThreads; t++) ASSERT_EQ(seen[t][i], seen[0][i]) << names[i];
        EXPECT_EQ(getMethodPropFromMethodName(names[i].c_str(), nullptr), seen[0][i]);
        ids.push_back(seen[0][i]->methodId);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    EXPECT_EQ(qv_load(qvMethodRegistryState().methodId), QV_FIRST_METHOD_ID + 1 + kKnown + kNames);
    checkAndDeleteNode();
    EXPECT_EQ(ints(checkForLinkList(), refCount(methodHashMapNode)), ints(0, 0));
}

}  // namespace
