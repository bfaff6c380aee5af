// Script commands of the collector simulator (from --script files and --interactive stdin) and
// the exact control-protocol lines they send to the agent.
#ifndef QVC_SCRIPT_H
#define QVC_SCRIPT_H

#include <string>
#include <string_view>

#include "qvcollector/qvc_util.h"

namespace qvc {

struct ScriptCmd {
    enum Kind {
        Sleep,        // sleep <ms>
        Start,        // start [k=v;...]
        Modify,       // modify k=v;...
        Stop,         // stop [k=v;...]
        Reroute,      // reroute host=<h> port=<p> [tier=..] [server=..] [instance=..] [clusterMode=..]
        Meta,         // meta <request fields>
        Heartbeat,    // heartbeat [dataConnState=N] [AutosensorConnState=N]
        Silence,      // silence <ms>
        Disconnect,   // disconnect
        Raw,          // raw <text with \n \xNN escapes>
        WaitRecords,  // wait-records <type> <count> [timeout_ms]
        WaitReply,    // wait-reply <text> [timeout_ms]
        Quit,         // quit
    };
    Kind kind = Quit;
    long long ms = 0;      // sleep/silence length, wait timeout
    KeywordList keywords;  // start/stop/modify keywords
    std::string text;      // complete line to send (reroute/meta/heartbeat/raw) or wait-reply text
    int recordType = 0;    // wait-records
    long long count = 0;   // wait-records
    int line = 0;          // script line number (0 for stdin)

    // True for commands that send to the agent and so wait until one is connected.
    bool needsAgent() const;
};

// Default wait for wait-records and wait-reply when no timeout is given.
constexpr long long kDefaultWaitMs = 60000;

// Parses one script line. Returns 1 and fills cmd for a command, 0 for a blank or '#' comment
// line, -1 with *err set for anything else. Never throws.
int parseScriptLine(std::string_view line, ScriptCmd* cmd, std::string* err);

// Complete control lines (newline included). Keywords are written "k=v;" in list order.
std::string startMessage(const KeywordList& keywords);
std::string modifyMessage(const KeywordList& keywords);
std::string stopMessage(const KeywordList& keywords);

// Start keywords used unless --no-default-keywords: testIdx=1, status=running,
// bciInstrSessionPct=100, enableBTMonitorTrace=1, enableBTMonitor=1, enableBackendMonitor=1.
KeywordList defaultStartKeywords();

// Reads a keywords file (one k=v per line, blank lines and '#' comments ignored) into list.
// False with *err ("file:line: reason") on an unreadable file or a bad line; list may then hold
// the lines before the bad one.
bool loadKeywordsFile(const std::string& path, KeywordList* list, std::string* err);

}  // namespace qvc

#endif
