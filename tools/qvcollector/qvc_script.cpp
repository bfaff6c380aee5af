// Script command parsing and the control-protocol lines of the collector simulator.
#include "qvcollector/qvc_script.h"

#include <cstdio>

namespace qvc {

namespace {

constexpr const char* kStartPrefix = "qv_control_req:action=start_instrumentation;";
constexpr const char* kModifyPrefix = "qv_control_req:action=modify;";
constexpr const char* kStopPrefix = "qv_control_req:action=stop_instrumentation;";
constexpr const char* kReroutePrefix = "qv_control_req:action=reroute_ctrl_con;";
constexpr const char* kMetaPrefix = "qv_meta_data_req:action=send_meta_data;";
constexpr const char* kHeartbeatPrefix = "qv_control_req:action=reconnect;heartBeat;";

std::string withKeywords(const char* prefix, const KeywordList& keywords) {
    std::string msg = prefix;
    for (const auto& [k, v] : keywords) {
        msg += k;
        msg += '=';
        msg += v;
        msg += ';';
    }
    msg += '\n';
    return msg;
}

bool parseMs(std::string_view s, long long* ms) {
    long long v = 0;
    if (!parseI64(s, &v) || v < 0) return false;
    *ms = v;
    return true;
}

// Arguments written as blank- or ';'-separated k=v pairs.
bool parseArgPairs(std::string_view args, KeywordList* out, std::string* err) {
    std::string joined(args);
    for (char& c : joined)
        if (c == ' ' || c == '\t') c = ';';
    return parseKeywords(joined, out, err);
}

}  // namespace

bool ScriptCmd::needsAgent() const {
    switch (kind) {
        case Start:
        case Modify:
        case Stop:
        case Reroute:
        case Meta:
        case Heartbeat:
        case Disconnect:
        case Raw:
            return true;
        default:
            return false;
    }
}

int parseScriptLine(std::string_view line, ScriptCmd* cmd, std::string* err) {
    line = trim(line);
    if (line.empty() || line.front() == '#') return 0;
    const size_t sp = line.find_first_of(" \t");
    const std::string_view verb = line.substr(0, sp);
    const std::string_view args = sp == std::string_view::npos ? std::string_view() : trim(line.substr(sp));
    const auto words = splitWords(args);
    ScriptCmd c;
    auto fail = [&](const std::string& why) {
        *err = std::string(verb) + ": " + why;
        return -1;
    };
    if (verb == "sleep" || verb == "silence") {
        c.kind = verb == "sleep" ? ScriptCmd::Sleep : ScriptCmd::Silence;
        if (words.size() != 1 || !parseMs(words[0], &c.ms)) return fail("expected <milliseconds>");
    } else if (verb == "start" || verb == "stop" || verb == "modify") {
        c.kind = verb == "start" ? ScriptCmd::Start : verb == "stop" ? ScriptCmd::Stop : ScriptCmd::Modify;
        std::string why;
        if (!parseKeywords(args, &c.keywords, &why)) return fail(why);
        if (c.kind == ScriptCmd::Modify && c.keywords.empty()) return fail("expected k=v;...");
    } else if (verb == "reroute") {
        c.kind = ScriptCmd::Reroute;
        KeywordList kv;
        std::string why;
        if (!parseArgPairs(args, &kv, &why)) return fail(why);
        std::string host, port;
        KeywordList rest;
        for (const auto& [k, v] : kv) {
            if (k == "host" || k == "qvcHost")
                host = v;
            else if (k == "port" || k == "qvcPort")
                port = v;
            else if (k == "tier" || k == "server" || k == "instance" || k == "clusterMode")
                rest.emplace_back(k, v);
            else
                return fail("unknown argument '" + k + "'");
        }
        long long p = 0;
        if (host.empty() || !parseI64(port, &p) || p <= 0 || p > 65535)
            return fail("expected host=<h> port=<p>");
        KeywordList all{{"qvcHost", host}, {"qvcPort", port}};
        all.insert(all.end(), rest.begin(), rest.end());
        c.text = withKeywords(kReroutePrefix, all);
    } else if (verb == "meta") {
        c.kind = ScriptCmd::Meta;
        c.text = std::string(kMetaPrefix) + std::string(args) + "\n";
    } else if (verb == "heartbeat") {
        c.kind = ScriptCmd::Heartbeat;
        KeywordList kv;
        std::string why;
        if (!parseArgPairs(args, &kv, &why)) return fail(why);
        c.text = withKeywords(kHeartbeatPrefix, kv);
    } else if (verb == "disconnect" || verb == "quit") {
        c.kind = verb == "quit" ? ScriptCmd::Quit : ScriptCmd::Disconnect;
        if (!words.empty()) return fail("takes no arguments");
    } else if (verb == "raw") {
        c.kind = ScriptCmd::Raw;
        // The rest of the line as written (leading blanks after the verb excepted).
        c.text =
            decodeEscapes(sp == std::string_view::npos ? std::string_view() : line.substr(sp + 1)) + "\n";
    } else if (verb == "wait-records") {
        c.kind = ScriptCmd::WaitRecords;
        long long type = 0;
        c.ms = kDefaultWaitMs;
        if (words.size() < 2 || words.size() > 3 || !parseI64(words[0], &type) || type < 0 || type > 9999 ||
            !parseI64(words[1], &c.count) || c.count < 0 || (words.size() == 3 && !parseMs(words[2], &c.ms)))
            return fail("expected <type> <count> [timeout_ms]");
        c.recordType = static_cast<int>(type);
    } else if (verb == "wait-reply") {
        c.kind = ScriptCmd::WaitReply;
        c.ms = kDefaultWaitMs;
        std::string_view text = args;
        // An optional trailing number is the timeout.
        const size_t last = text.find_last_of(" \t");
        if (last != std::string_view::npos) {
            long long ms = 0;
            if (parseMs(text.substr(last + 1), &ms)) {
                c.ms = ms;
                text = trim(text.substr(0, last));
            }
        }
        if (text.empty()) return fail("expected <text> [timeout_ms]");
        c.text.assign(text);
    } else {
        *err = "unknown command '" + printable(verb, 40) + "'";
        return -1;
    }
    *cmd = std::move(c);
    return 1;
}

std::string startMessage(const KeywordList& keywords) {
    return withKeywords(kStartPrefix, keywords);
}
std::string modifyMessage(const KeywordList& keywords) {
    return withKeywords(kModifyPrefix, keywords);
}
std::string stopMessage(const KeywordList& keywords) {
    return withKeywords(kStopPrefix, keywords);
}

KeywordList defaultStartKeywords() {
    return {{"testIdx", "1"},
            {"status", "running"},
            {"bciInstrSessionPct", "100"},
            {"enableBTMonitorTrace", "1"},
            {"enableBTMonitor", "1"},
            {"enableBackendMonitor", "1"}};
}

bool loadKeywordsFile(const std::string& path, KeywordList* list, std::string* err) {
    FILE* f = fopen(path.c_str(), "r");
    if (!f) {
        *err = path + ": cannot open";
        return false;
    }
    char buf[8192];
    int lineNo = 0;
    bool ok = true;
    while (fgets(buf, sizeof(buf), f)) {
        ++lineNo;
        const std::string_view line = trim(buf);
        if (line.empty() || line.front() == '#') continue;
        std::string why;
        if (line.find(';') != std::string_view::npos || !parseKeywords(line, list, &why)) {
            *err = path + ":" + std::to_string(lineNo) + ": " + (why.empty() ? "one k=v per line" : why);
            ok = false;
            break;
        }
    }
    fclose(f);
    return ok;
}

}  // namespace qvc
