// qvcollector: a collector simulator for developing and testing language extensions against the
// agent library. Serves control, data and auto-sensor connections on 127.0.0.1 and decodes the
// record files it captures (`qvcollector decode`).
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "qvcollector/qvc_decode.h"
#include "qvcollector/qvc_script.h"
#include "qvcollector/qvc_server.h"
#include "qvcollector/qvc_util.h"

namespace {

void usage(FILE* out) {
    fprintf(out,
            "usage: qvcollector [options]\n"
            "       qvcollector decode [--flowpaths N] [--no-monitors] [--vector-sep C] FILE...\n"
            "\n"
            "options:\n"
            "  --port N                 listen on 127.0.0.1:N (0, the default, picks a free port)\n"
            "  --port-file F            also write the chosen port to F\n"
            "  --out DIR                capture directory (default ./qvcollector-out)\n"
            "  --keyword k=v            start keyword, repeatable; overrides defaults and the file\n"
            "  --keywords-file F        start keywords, one k=v per line, '#' comments\n"
            "  --no-default-keywords    start with only the keywords given\n"
            "  --no-start               never send start instrumentation on its own\n"
            "  --running                treat a test as running already: answer RUNNING, send no start\n"
            "  --handshake-reply TEXT   answer every handshake with TEXT (\\n, \\xNN escapes) instead\n"
            "  --script F               run script commands from F\n"
            "  --interactive            read script commands from stdin as well\n"
            "  --heartbeat-interval S   heartbeat to each agent every S seconds (0 = never; default 60)\n"
            "  --summary-interval S     live summary every S seconds on stderr (0 = off; default 1)\n"
            "  --keep-lines N           last agent control lines shown at exit (default 20)\n"
            "  --quiet                  no events, live or final summary on stderr\n"
            "  --exit-after-stop        exit once a stop is acknowledged and every data connection\n"
            "                           delivered its 10 record or closed\n"
            "\n"
            "script commands: sleep <ms> | start [k=v;...] | modify k=v;... | stop [k=v;...] |\n"
            "  reroute host=<h> port=<p> [tier=..] [server=..] [instance=..] [clusterMode=..] |\n"
            "  meta <request fields> | heartbeat [dataConnState=N] [AutosensorConnState=N] |\n"
            "  silence <ms> | disconnect | raw <text> | wait-records <type> <count> [timeout_ms] |\n"
            "  wait-reply <text> [timeout_ms] | quit\n");
}

bool seconds(const char* text, long long* ms) {
    double s = 0;
    if (!qvc::parseDouble(text, &s) || s < 0 || s > 1e7) return false;
    *ms = static_cast<long long>(s * 1000.0 + 0.5);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string_view(argv[1]) == "decode") return qvc::runDecode(argc - 2, argv + 2);

    qvc::ServerOptions opts;
    bool defaults = true;
    std::string keywordsFile;
    qvc::KeywordList cli;
    for (int i = 1; i < argc; ++i) {
        const std::string_view a = argv[i];
        const bool hasValue = i + 1 < argc;
        long long n = 0;
        if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        } else if (a == "--port" && hasValue) {
            if (!qvc::parseI64(argv[++i], &n) || n < 0 || n > 65535) {
                fprintf(stderr, "qvcollector: bad port '%s'\n", argv[i]);
                return 1;
            }
            opts.port = static_cast<int>(n);
        } else if (a == "--port-file" && hasValue) {
            opts.portFile = argv[++i];
        } else if (a == "--out" && hasValue) {
            opts.outDir = argv[++i];
        } else if (a == "--keyword" && hasValue) {
            std::string err;
            if (!qvc::parseKeywords(argv[++i], &cli, &err)) {
                fprintf(stderr, "qvcollector: --keyword: %s\n", err.c_str());
                return 1;
            }
        } else if (a == "--keywords-file" && hasValue) {
            keywordsFile = argv[++i];
        } else if (a == "--no-default-keywords") {
            defaults = false;
        } else if (a == "--no-start") {
            opts.autoStart = false;
        } else if (a == "--running") {
            opts.assumeRunning = true;
        } else if (a == "--handshake-reply" && hasValue) {
            opts.handshakeReply = qvc::decodeEscapes(argv[++i]);
        } else if (a == "--script" && hasValue) {
            opts.scriptFile = argv[++i];
        } else if (a == "--interactive") {
            opts.interactive = true;
        } else if (a == "--heartbeat-interval" && hasValue) {
            if (!seconds(argv[++i], &opts.heartbeatIntervalMs)) {
                fprintf(stderr, "qvcollector: bad --heartbeat-interval '%s'\n", argv[i]);
                return 1;
            }
        } else if (a == "--summary-interval" && hasValue) {
            if (!seconds(argv[++i], &opts.summaryIntervalMs)) {
                fprintf(stderr, "qvcollector: bad --summary-interval '%s'\n", argv[i]);
                return 1;
            }
        } else if (a == "--keep-lines" && hasValue) {
            if (!qvc::parseI64(argv[++i], &n) || n < 0 || n > 100000) {
                fprintf(stderr, "qvcollector: bad --keep-lines '%s'\n", argv[i]);
                return 1;
            }
            opts.keepLines = static_cast<size_t>(n);
        } else if (a == "--quiet") {
            opts.quiet = true;
        } else if (a == "--exit-after-stop") {
            opts.exitAfterStop = true;
        } else {
            fprintf(stderr, "qvcollector: unknown or incomplete option '%s'\n", argv[i]);
            usage(stderr);
            return 1;
        }
    }

    // Keyword precedence: defaults, then the file, then --keyword.
    if (defaults) opts.keywords = qvc::defaultStartKeywords();
    if (!keywordsFile.empty()) {
        std::string err;
        if (!qvc::loadKeywordsFile(keywordsFile, &opts.keywords, &err)) {
            fprintf(stderr, "qvcollector: %s\n", err.c_str());
            return 1;
        }
    }
    for (const auto& [k, v] : cli) qvc::putKeyword(&opts.keywords, k, v);
    return qvc::runServer(opts);
}
