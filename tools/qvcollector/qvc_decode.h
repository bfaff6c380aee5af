// `qvcollector decode`: turns record files written by the collector simulator (or any capture
// of the agent's data and auto-sensor streams) into a readable view: flowpaths as call trees,
// monitor records as tables.
#ifndef QVC_DECODE_H
#define QVC_DECODE_H

#include <cstdio>
#include <string>
#include <vector>

namespace qvc {

struct DecodeOptions {
    long long maxFlowpaths = -1;  // trees to print; -1 = all
    char vectorSep = '>';         // separator inside monitor-record names
    bool monitors = true;         // print the 74/75/61 tables
};

// Reads every file (lines of any length and content; bad lines are counted and skipped) and
// prints the view to out. Returns 0 when every file could be opened and read, 1 otherwise
// (the others are still decoded). Memory: metadata of all files, blobs of the printed
// flowpaths only, at most 100000 monitor rows per type.
int decodeFiles(const std::vector<std::string>& paths, const DecodeOptions& opts, FILE* out);

// Command-line entry: args are what follows "decode". Prints usage on bad options (exit 2).
int runDecode(int argc, char** argv);

}  // namespace qvc

#endif
