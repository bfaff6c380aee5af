// Parsers for the agent's text records as the collector simulator sees them: flowpath header,
// sequence and end records, the sequence-blob entries inside them, metadata records and the
// monitor records. Parsers never throw and accept any bytes; malformed text returns false.
#ifndef QVC_RECORDS_H
#define QVC_RECORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace qvc {

// Flowpath instance field: digits, optionally followed by 'F' (forced dump).
// False on anything else.
bool parseFlowpathId(std::string_view s, long long* id, bool* forced);

// Type-2 record. The URL may contain commas: fields are taken from both ends.
struct HeaderRecord {
    long long fpi = 0;
    bool forced = false;
    bool laterTier = false;
    long long firstFpi = 0, prevFpi = 0;
    long long startSec = 0;
    long long threadId = 0;
    std::string tierSeq;
    long long btId = 0;
    std::string url;
    std::string correlation;
    long long fpType = 0;
    long long queueMs = 0;
};
bool parseHeaderRecord(std::string_view line, HeaderRecord* out);

// Type-3 record: "3,<fpi>[F],<blob>". blob points into line.
struct SeqRecord {
    long long fpi = 0;
    bool forced = false;
    std::string_view blob;
};
bool parseSeqRecord(std::string_view line, SeqRecord* out);

// Type-4 record: "4,<fpi>[F],status,category,cpu,resp,btId,fpType,<blob>". blob points into line.
struct EndRecord {
    long long fpi = 0;
    bool forced = false;
    long long status = 0, category = 0, cpu = 0, respMs = 0, btId = 0, fpType = 0;
    std::string_view blob;
};
bool parseEndRecord(std::string_view line, EndRecord* out);

// One entry of a sequence blob.
struct BlobEvent {
    enum Kind { Entry, Exit, Callout, Exception } kind = Entry;
    long long methodId = 0;
    long long threadId = 0;  // 0 when the entry carries none (page form)
    long long eventId = 0;   // 0 entry; 1, 3, 4 exit
    long long time = 0;      // entry: start relative to the flowpath; exit: wall time; callout: start
    long long cpu = -1;      // exit CPU time, -1 when absent
    bool async = false;
    std::string url;  // asynchronous entry only
    // Callout ("T"/"E") fields.
    bool error = false;
    bool database = false;
    long long seq = 0;
    long long duration = 0;
    long long sqlId = 0;
    long long status = 0;
};

// Splits a (possibly concatenated) blob into events in order. Pieces that do not parse are
// skipped and counted in *bad (may be null).
std::vector<BlobEvent> parseBlob(std::string_view blob, int* bad);

// Monitor record 74, 75 or 61: "<type>,<tierId>|<appId>|<id>:<vector><name>|<values>".
// The name is the part of the vector after the third separator sep.
struct MonitorRow {
    int type = 0;
    long long tierId = 0, appId = 0, id = 0;
    std::string name;
    std::vector<double> values;
};
bool parseMonitorRecord(std::string_view line, char sep, MonitorRow* out);

// Metadata records. "5,<name>,<id>" (the name may hold commas), "7,<id>,<name>",
// "22,<fpi>,<id>,<text>", "26,<id>,<name>".
bool parseMethodMeta(std::string_view line, long long* id, std::string* name);
bool parseBtMeta(std::string_view line, long long* id, std::string* name);
bool parseSqlMeta(std::string_view line, long long* id, std::string* text);
bool parseResourceMeta(std::string_view line, long long* id, std::string* name);

}  // namespace qvc

#endif
