// The collector simulator's server: one thread, POSIX sockets and poll. It accepts control, data
// and auto-sensor connections on 127.0.0.1, answers the control handshake and heartbeats, sends
// start instrumentation and scripted commands, captures every received byte per connection and
// prints a live summary.
#ifndef QVC_SERVER_H
#define QVC_SERVER_H

#include <cstddef>
#include <string>

#include "qvcollector/qvc_util.h"

namespace qvc {

struct ServerOptions {
    int port = 0;          // 0 = any free port
    std::string portFile;  // also write the port here when set
    std::string outDir = "qvcollector-out";
    KeywordList keywords;        // start keywords (defaults, file and --keyword merged)
    bool autoStart = true;       // send start after a NOT_RUNNING handshake reply
    bool assumeRunning = false;  // a test counts as running from the beginning
    std::string handshakeReply;  // replaces the computed handshake reply when not empty
    std::string scriptFile;
    bool interactive = false;               // script commands from stdin too
    long long summaryIntervalMs = 1000;     // 0 = no live summary lines
    long long heartbeatIntervalMs = 60000;  // 0 = never send heartbeats
    bool quiet = false;
    bool exitAfterStop = false;
    size_t keepLines = 20;  // last agent control lines kept for the final summary
};

// Runs until SIGINT/SIGTERM, a `quit` command or --exit-after-stop. Returns the process exit
// code: 0 normal end, 1 set-up failure (listen, output directory, script), 2 when a
// wait-records/wait-reply command timed out. Installs its own SIGINT/SIGTERM handlers and
// ignores SIGPIPE; not reentrant (one server per process).
int runServer(const ServerOptions& opts);

}  // namespace qvc

#endif
