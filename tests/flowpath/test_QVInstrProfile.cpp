// Tests of the instrumentation profile grammar and its loading into new registry generations:
// kinds and fields, malformed lines, bad files, monitor hooks, and the start-up files.
#include "flowpath/QVInstrProfile.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "flowpath/flowpath_fixture.h"

namespace {

struct Parsed {
    int rc;
    QVInstrProfEntry e;
    std::string reason;
};

// The entry's views point into line, so the caller keeps it alive.
Parsed parse(std::string_view line) {
    Parsed p{};
    const char* reason = nullptr;
    p.rc = parseInstrProfLine(line, &p.e, &reason);
    if (reason) p.reason = reason;
    return p;
}

TEST(InstrProfGrammar, KindsFieldsCommentsAndMalformedLines) {
    Parsed p = parse(" entry + monitor | App::handle | Handle \r");
    EXPECT_EQ(std::tuple(p.rc, p.e.kinds, p.e.methodName, p.e.alias, p.e.target),
              std::tuple(1, QV_PROF_ENTRY | QV_PROF_MONITOR, "App::handle", "Handle", ""));
    p = parse("custom|Cache::get||Redis");
    EXPECT_EQ(std::tuple(p.rc, p.e.kinds, p.e.alias, p.e.target), std::tuple(1, QV_PROF_CUSTOM, "", "Redis"));
    p = parse("db+forceexit+db|PDO::query");
    EXPECT_EQ(std::tuple(p.rc, p.e.kinds), std::tuple(1, QV_PROF_DB | QV_PROF_FORCE_EXIT));
    for (const char* empty : {"", " \t ", "  # entry|X", "\r"}) EXPECT_EQ(parse(empty).rc, 0) << empty;

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"entry", "missing method name"},
        {"entry|", "empty method name"},
        {"entry|  |Alias", "empty method name"},
        {"|App::x", "empty kind"},
        {"entry+|App::x", "empty kind"},
        {"Entry|App::x", "unknown kind"},
        {"http+db|App::x", "http and db on one method"},
        {"forceentry+forceexit|App::x", "forceentry and forceexit on one method"},
        {"custom|App::x", "custom callout without target"},
        {"custom|App::x|Alias|", "custom callout without target"},
        {"entry|App::x|Alias|Target", "target given without custom"},
        {"custom|App::x|Alias|Target|more", "too many fields"},
        {"entry|App::x\x01", "non-printable character"},
        {std::string("entry|App::\0x", 13), "non-printable character"},
        {"entry|App::x\x7f", "non-printable character"},
        {"entry|App::x\r\r", "non-printable character"},
        {"entry|" + std::string(QV_INSTR_PROF_MAX_LINE, 'm'), "line too long"}};
    for (const auto& [line, reason] : bad) {
        p = parse(line);
        EXPECT_EQ(std::tuple(p.rc, p.reason), std::tuple(-1, reason)) << line;
    }
    // The longest allowed line is accepted.
    EXPECT_EQ(parse("entry|" + std::string(QV_INSTR_PROF_MAX_LINE - 6, 'm')).rc, 1);
    const char* reason = nullptr;
    EXPECT_EQ(parseInstrProfLine("entry|x", nullptr, &reason) + parseInstrProfLine("entry|x", &p.e, nullptr),
              -2);
}

class ProfileLoad : public AgentTest {
  protected:
    void SetUp() override {
        startAgent();
        qvApplication->QVSys.fpTraceLevel = 1;
        ASSERT_EQ(initMethodRegistry(), 0);
        MonitorHooks::install();
    }
    static methodPropProperties* find(const char* n) { return getMethodPropFromMethodName(n, nullptr); }
};

TEST_F(ProfileLoad, FileLoadsIntoNewGenerationAndSkipsMalformedLines) {
    home_->write("prof.conf",
                 "# instrumentation profile\r\n"
                 "entry+monitor|App::handle|Handle\r\n"
                 "http|Curl::exec\n"
                 "bogus|App::x\n"
                 "db+forceentry|PDO::query|Query\n"
                 "\n"
                 "custom+monitor|Cache::get|CacheGet|RedisCache\n"
                 "custom|App::x\n"
                 "entry|App::last");  // no final newline
    auto fp = std::make_unique<QVPerThreadData_t>();
    saveNodeAndIncrementMethodRefCount(fp.get());  // a running flowpath holds the first generation
    node_t* before = methodHashMapNode;

    EXPECT_EQ(readInstrProfFile(home_->file("prof.conf").c_str()), 5);
    ASSERT_NE(methodHashMapNode, before);
    EXPECT_EQ(getRetiredMethodHashMapCount(), 1);  // held, so not swept

    methodPropProperties *handle = find("App::handle"), *curl = find("Curl::exec"), *pdo = find("PDO::query"),
                         *cache = find("Cache::get");
    ASSERT_TRUE(handle && curl && pdo && cache && cache->customCalloutptr && find("App::last"));
    EXPECT_EQ(handle->isEntryPoint, QV_EP_SERVICE | QV_EP_MONITORED);
    EXPECT_STREQ(handle->aliasMethodName, "Handle");
    EXPECT_EQ(
        ints(curl->isEntryPoint, curl->type, pdo->type, pdo->callOutValue, curl->aliasMethodName == nullptr),
        ints(QV_EP_CALLOUT, 1, 2, 1, 1));
    EXPECT_EQ(cache->isEntryPoint, QV_EP_CUSTOM_CALLOUT | QV_EP_MONITORED);
    EXPECT_EQ(find("RedisCache"), cache->customCalloutptr);
    EXPECT_EQ(find("App::x"), nullptr);
    // The old generation lacks the profile's methods.
    EXPECT_EQ(getMethodPropFromMethodName("PDO::query", before), nullptr);

    EXPECT_EQ(MonitorHooks::monitored, (std::vector<std::string>{"App::handle", "Cache::get"}));
    // The custom target is counted once as a new backend; callouts and target get room after the load.
    EXPECT_EQ(MonitorHooks::counter, 1);
    EXPECT_EQ(MonitorHooks::backends, (std::vector<std::string>{"Curl::exec", "PDO::query", "RedisCache"}));

    EXPECT_NE(home_->traceLogs().find("Malformed line 8 of '" + home_->file("prof.conf") +
                                      "': custom callout without target"),
              std::string::npos);

    // Once the flowpath lets go, the next load sweeps its generation.
    qvDecrementMethodRefCount(fp->hasMapNodePtr);
    EXPECT_EQ(readInstrProfFileRTC("entry|App::more\n", 16), 1);
    EXPECT_EQ(getRetiredMethodHashMapCount(), 0);
    EXPECT_EQ(find("App::more")->isEntryPoint, QV_EP_SERVICE);
}

TEST_F(ProfileLoad, ReloadIsAdditiveAndReplacesAliases) {
    ASSERT_EQ(readInstrProfFileRTC("entry|App::h|Old\n", 17), 1);
    methodPropProperties* h = find("App::h");
    const char* oldAlias = h->aliasMethodName;
    const int id = h->methodId;
    home_->write("ep.conf", "monitor|App::h|New\nmonitor|App::h\n");
    ASSERT_EQ(readingEntryPointfile(home_->file("ep.conf").c_str()), 2);
    EXPECT_EQ(find("App::h"), h);
    EXPECT_EQ(ints(h->methodId, h->isEntryPoint), ints(id, QV_EP_SERVICE | QV_EP_MONITORED));
    EXPECT_STREQ(h->aliasMethodName, "New");
    // A reader that still held the old alias may go on using it.
    EXPECT_STREQ(oldAlias, "Old");

    // A custom target past the backend maximum is Others.
    MonitorHooks::max = 0;
    ASSERT_EQ(readInstrProfFileRTC("custom|App::c||Far\n", 19), 1);
    methodPropProperties* c = find("App::c");
    ASSERT_NE(c->customCalloutptr, nullptr);
    EXPECT_STREQ(c->customCalloutptr->methodName, "Others");
    EXPECT_EQ(find("Far"), nullptr);

    // Filling a given generation (the current one) makes none.
    home_->write("p.conf", "entry|Direct::one\n");
    EXPECT_EQ(readingFileInstrProfile(home_->file("p.conf").c_str(), methodHashMapNode), 1);
    EXPECT_EQ(hashMapForAgent("monitor|Direct::two\nbad\n", 24, nullptr, "text"), 1);
    EXPECT_EQ(find("Direct::one")->isEntryPoint, QV_EP_SERVICE);
    EXPECT_EQ(MonitorHooks::monitored.back(), "Direct::two");
    EXPECT_EQ(getRetiredMethodHashMapCount(), 0);
}

TEST_F(ProfileLoad, BadFilesLeaveTheRegistryAsItWas) {
    node_t* before = methodHashMapNode;
    EXPECT_EQ(readInstrProfFile(home_->file("missing.conf").c_str()), -1);
    EXPECT_EQ(readInstrProfFile(""), -1);
    home_->write("huge.conf", std::string(QV_INSTR_PROF_MAX_FILE + 1, '#'));
    EXPECT_EQ(readInstrProfFile(home_->file("huge.conf").c_str()), -1);
    EXPECT_EQ(methodHashMapNode, before);
    EXPECT_EQ(hashMapForAgent(nullptr, 0, nullptr, "x") + readInstrProfFileRTC(nullptr, 0) +
                  readingFileInstrProfile(home_->file("nope.conf").c_str(), nullptr) +
                  readingEntryPointfile(nullptr),
              -4);

    // Empty files and files of nothing but noise load nothing, yet make a generation (the
    // first one is held so its address cannot come back).
    auto fp = std::make_unique<QVPerThreadData_t>();
    saveNodeAndIncrementMethodRefCount(fp.get());
    home_->write("empty.conf", "");
    EXPECT_EQ(readInstrProfFile(home_->file("empty.conf").c_str()), 0);
    EXPECT_NE(methodHashMapNode, before);
    home_->write("noise.conf", std::string("\0\0\n\x01\x02\n|||\n++|x\n\r\n", 17));
    EXPECT_EQ(readInstrProfFile(home_->file("noise.conf").c_str()), 0);
    EXPECT_EQ(getRetiredMethodHashMapCount(), 1);
    qvDecrementMethodRefCount(fp->hasMapNodePtr);
    EXPECT_EQ(checkAndDeleteNode(), 1);
}

class ProfileStartup : public AgentTest {};

TEST_F(ProfileStartup, DefaultFilesAreLoadedByAgentInit) {
    home_->write("config/entrypoints.conf", "entry|Front::dispatch|Dispatch\n");
    home_->write("config/instrprofile.conf", "db|mysqli::query\nbad line\n");
    qv_flowpath_register_hooks();
    startAgent(1);
    ASSERT_NE(DefaultMethod, nullptr);
    EXPECT_EQ(DefaultMethod->methodId, QV_FIRST_METHOD_ID);
    methodPropProperties* d = getMethodPropFromMethodName("Front::dispatch", nullptr);
    methodPropProperties* q = getMethodPropFromMethodName("mysqli::query", nullptr);
    ASSERT_TRUE(d && q);
    EXPECT_EQ(ints(d->isEntryPoint, q->type), ints(QV_EP_SERVICE, 2));
    EXPECT_STREQ(d->aliasMethodName, "Dispatch");
    // One new generation for both files; the first was swept.
    EXPECT_EQ(getRetiredMethodHashMapCount(), 0);
}

}  // namespace
