// Record-file decoder of the collector simulator: call trees and monitor tables.
#include "qvcollector/qvc_decode.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <unordered_map>

#include "qvcollector/qvc_records.h"
#include "qvcollector/qvc_util.h"

namespace qvc {

namespace {

constexpr size_t kMaxLine = 4u << 20;   // longer lines are skipped as malformed
constexpr size_t kMaxBlob = 16u << 20;  // per flowpath
constexpr size_t kMaxRowsPerType = 100000;
constexpr size_t kMaxDepth = 256;     // deeper nesting is shown flattened
constexpr size_t kMaxNodes = 200000;  // per tree
constexpr size_t kNone = static_cast<size_t>(-1);

struct Flowpath {
    long long fpi = 0;
    bool hasHeader = false;
    HeaderRecord header;
    std::string blob;  // type-3 blobs in arrival order
    bool hasEnd = false;
    EndRecord end;  // its blob view is not kept; see endBlob
    std::string endBlob;
    int seqRecords = 0;
    bool blobCut = false;
};

struct Node {
    enum Kind { Root, Method, OrphanExit, Callout, Exception } kind = Root;
    BlobEvent ev;
    long long wall = -1;
    long long cpu = -1;
    bool closed = false;
    std::vector<size_t> children;
};

class Decoder {
  public:
    explicit Decoder(const DecodeOptions& o) : opts_(o) {}

    bool readFile(const std::string& path) {
        FILE* f = fopen(path.c_str(), "rb");
        if (!f) {
            fprintf(stderr, "qvcollector decode: cannot open %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        std::string cur;
        bool tooLong = false;
        char buf[65536];
        size_t n = 0;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0) {
            size_t start = 0;
            for (size_t i = 0; i < n; ++i) {
                if (buf[i] != '\n') continue;
                append(&cur, &tooLong, buf + start, i - start);
                endLine(&cur, &tooLong);
                start = i + 1;
            }
            append(&cur, &tooLong, buf + start, n - start);
        }
        const bool failed = ferror(f) != 0;
        fclose(f);
        if (!cur.empty() || tooLong) endLine(&cur, &tooLong);
        if (failed) fprintf(stderr, "qvcollector decode: read error on %s\n", path.c_str());
        return !failed;
    }

    void print(FILE* out) const {
        printCounts(out);
        printFlowpaths(out);
        if (opts_.monitors) {
            printBtTable(out);
            printBackendTable(out);
            printMethodTable(out);
        }
    }

  private:
    static void append(std::string* cur, bool* tooLong, const char* p, size_t len) {
        if (*tooLong) return;
        if (cur->size() + len > kMaxLine) {
            *tooLong = true;
            cur->clear();
            return;
        }
        cur->append(p, len);
    }

    void endLine(std::string* cur, bool* tooLong) {
        if (*tooLong) {
            ++malformed_;
        } else {
            std::string_view line(*cur);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            handleLine(line);
        }
        cur->clear();
        *tooLong = false;
    }

    Flowpath* flowpathFor(long long fpi) {
        const auto it = index_.find(fpi);
        if (it != index_.end()) return &fps_[it->second];
        if (opts_.maxFlowpaths >= 0 && static_cast<long long>(fps_.size()) >= opts_.maxFlowpaths) {
            ++untracked_;
            return nullptr;
        }
        index_.emplace(fpi, fps_.size());
        fps_.emplace_back();
        fps_.back().fpi = fpi;
        return &fps_.back();
    }

    static void appendBlob(Flowpath* fp, std::string* dst, std::string_view blob) {
        if (dst->size() + blob.size() > kMaxBlob) {
            fp->blobCut = true;
            return;
        }
        dst->append(blob);
    }

    void handleLine(std::string_view line) {
        if (line.empty()) {
            ++blank_;
            return;
        }
        const int type = recordType(line);
        if (type < 0) {
            ++skipped_;
            return;
        }
        ++counts_[type];
        bool ok = true;
        switch (type) {
            case 2: {
                HeaderRecord h;
                ok = parseHeaderRecord(line, &h);
                if (!ok) break;
                Flowpath* fp = flowpathFor(h.fpi);
                if (fp && !fp->hasHeader) {
                    fp->hasHeader = true;
                    fp->header = std::move(h);
                }
                break;
            }
            case 3: {
                SeqRecord s;
                ok = parseSeqRecord(line, &s);
                if (!ok) break;
                Flowpath* fp = flowpathFor(s.fpi);
                if (fp) {
                    ++fp->seqRecords;
                    appendBlob(fp, &fp->blob, s.blob);
                }
                break;
            }
            case 4: {
                EndRecord e;
                ok = parseEndRecord(line, &e);
                if (!ok) break;
                Flowpath* fp = flowpathFor(e.fpi);
                if (fp && !fp->hasEnd) {
                    fp->hasEnd = true;
                    fp->end = e;
                    fp->end.blob = {};
                    appendBlob(fp, &fp->endBlob, e.blob);
                }
                break;
            }
            case 5: {
                long long id = 0;
                std::string name;
                ok = parseMethodMeta(line, &id, &name);
                if (ok) methods_[id] = std::move(name);
                break;
            }
            case 7: {
                long long id = 0;
                std::string name;
                ok = parseBtMeta(line, &id, &name);
                if (ok) bts_[id] = std::move(name);
                break;
            }
            case 22: {
                long long id = 0;
                std::string text;
                ok = parseSqlMeta(line, &id, &text);
                if (ok) sqls_[id] = std::move(text);
                break;
            }
            case 74:
            case 75:
            case 61: {
                MonitorRow row;
                ok = parseMonitorRecord(line, opts_.vectorSep, &row);
                if (!ok) break;
                auto& rows = type == 74 ? rows74_ : type == 75 ? rows75_ : rows61_;
                if (rows.size() < kMaxRowsPerType) rows.push_back(std::move(row));
                break;
            }
            default:
                break;
        }
        if (!ok) ++malformed_;
    }

    std::string methodName(long long id) const {
        const auto it = methods_.find(id);
        return it != methods_.end() ? it->second : format("method#%lld", id);
    }

    void printCounts(FILE* out) const {
        fprintf(out, "== records ==\n");
        for (const auto& [type, count] : counts_)
            fprintf(out, "  %4d %8lld  %s\n", type, count, recordTypeName(type));
        fprintf(out, "  blank lines %lld, other lines %lld, malformed records %lld\n", blank_, skipped_,
                malformed_);
    }

    void printFlowpaths(FILE* out) const {
        if (fps_.empty()) return;
        fprintf(out, "\n== flowpaths (%zu shown", fps_.size());
        if (untracked_ > 0) fprintf(out, "; %lld more flowpath records not shown", untracked_);
        fprintf(out, ") ==\n");
        for (const Flowpath& fp : fps_) printFlowpath(out, fp);
    }

    void printFlowpath(FILE* out, const Flowpath& fp) const {
        const HeaderRecord& h = fp.header;
        const long long btId = fp.hasHeader ? h.btId : fp.hasEnd ? fp.end.btId : -1;
        std::string bt = "?";
        if (btId >= 0) {
            const auto it = bts_.find(btId);
            bt = format("%lld %s", btId, it != bts_.end() ? it->second.c_str() : "(unnamed)");
        }
        fprintf(out, "\nflowpath %lld%s  BT %s", fp.fpi, (fp.hasHeader && h.forced) ? " (forced)" : "",
                bt.c_str());
        if (fp.hasHeader) fprintf(out, "  url %s", printable(h.url, 300).c_str());
        fprintf(out, "\n");
        if (fp.hasHeader) {
            fprintf(out, "  thread %lld  start %lld s", h.threadId, h.startSec);
            if (h.laterTier) fprintf(out, "  called from flowpath %lld (first %lld)", h.prevFpi, h.firstFpi);
            if (h.queueMs > 0) fprintf(out, "  queued %lld ms", h.queueMs);
            fprintf(out, "\n");
        } else {
            fprintf(out, "  no header record\n");
        }
        if (fp.hasEnd) {
            const EndRecord& e = fp.end;
            if (e.status == -99)
                fprintf(out, "  status -99 (discard mark: earlier records of this flowpath are void)");
            else
                fprintf(out, "  status %lld", e.status);
            fprintf(out, "  %s  response %lld ms", categoryName(static_cast<int>(e.category)).c_str(),
                    e.respMs);
            if (e.cpu > 0) fprintf(out, "  cpu %lld", e.cpu);
            fprintf(out, "\n");
        } else {
            fprintf(out, "  no end record (still running or cut off)\n");
        }
        printTree(out, fp);
    }

    void printTree(FILE* out, const Flowpath& fp) const {
        int bad = 0;
        std::string blob = fp.blob;
        blob += fp.endBlob;
        const std::vector<BlobEvent> events = parseBlob(blob, &bad);
        std::vector<Node> nodes(1);
        std::vector<size_t> stack{0};
        size_t lastClosed = kNone;
        size_t flattened = 0;
        bool cut = false;
        for (const BlobEvent& ev : events) {
            if (nodes.size() >= kMaxNodes) {
                cut = true;
                break;
            }
            Node nd;
            nd.ev = ev;
            size_t parent = stack.back();
            switch (ev.kind) {
                case BlobEvent::Entry:
                    nd.kind = Node::Method;
                    break;
                case BlobEvent::Exit: {
                    size_t k = stack.size();
                    while (k > 1 && nodes[stack[k - 1]].ev.methodId != ev.methodId) --k;
                    if (k > 1) {
                        Node& open = nodes[stack[k - 1]];
                        open.wall = ev.time;
                        open.cpu = ev.cpu;
                        open.closed = true;
                        lastClosed = stack[k - 1];
                        stack.resize(k - 1);
                        continue;
                    }
                    nd.kind = Node::OrphanExit;
                    nd.wall = ev.time;
                    nd.cpu = ev.cpu;
                    break;
                }
                case BlobEvent::Callout:
                    nd.kind = Node::Callout;
                    if (lastClosed != kNone) parent = lastClosed;
                    break;
                case BlobEvent::Exception:
                    nd.kind = Node::Exception;
                    break;
            }
            const size_t idx = nodes.size();
            nodes.push_back(std::move(nd));
            nodes[parent].children.push_back(idx);
            if (nodes[idx].kind == Node::Method) {
                lastClosed = kNone;
                if (stack.size() <= kMaxDepth)
                    stack.push_back(idx);
                else
                    ++flattened;
            } else if (nodes[idx].kind == Node::OrphanExit) {
                lastClosed = idx;
            }
        }
        if (nodes.size() == 1) {
            fprintf(out, "  (no method events)\n");
        } else {
            fprintf(out, "  %8s %9s  %s\n", "at ms", "dur ms", "calls");
            const long long thread = fp.hasHeader ? fp.header.threadId : 0;
            for (size_t c : nodes[0].children) printNode(out, nodes, c, 0, thread);
        }
        if (bad > 0) fprintf(out, "  (%d malformed blob entries skipped)\n", bad);
        if (flattened > 0)
            fprintf(out, "  (%zu calls nested deeper than %zu shown flattened)\n", flattened, kMaxDepth);
        if (cut || fp.blobCut) fprintf(out, "  (tree cut: flowpath too large)\n");
    }

    void printNode(FILE* out, const std::vector<Node>& nodes, size_t idx, size_t depth,
                   long long thread) const {
        const Node& n = nodes[idx];
        const BlobEvent& ev = n.ev;
        std::string at, dur, label;
        switch (n.kind) {
            case Node::Method:
            case Node::OrphanExit:
                if (n.kind == Node::Method) at = format("+%lld", ev.time);
                dur = n.wall >= 0 ? format("%lld", n.wall) : "?";
                label = printable(methodName(ev.methodId), 200);
                if (ev.threadId != 0 && ev.threadId != thread) label += format(" [thread %lld]", ev.threadId);
                if (ev.async) label += " async " + printable(ev.url, 200);
                if (n.cpu > 0) label += format(" cpu %lld", n.cpu);
                if (n.kind == Node::Method && !n.closed) label += " (no exit)";
                if (n.kind == Node::OrphanExit) label += " (exit without entry)";
                break;
            case Node::Callout: {
                at = format("+%lld", ev.time);
                dur = format("%lld", ev.duration);
                label = ev.database ? "-> DB " : "-> callout ";
                label += printable(methodName(ev.methodId), 200);
                label += ev.error ? format("  error %lld", ev.status) : std::string("  ok");
                if (ev.database) {
                    const auto it = sqls_.find(ev.sqlId);
                    label += format("  sql %lld", ev.sqlId);
                    if (it != sqls_.end()) label += ": " + printable(it->second, 300);
                }
                break;
            }
            case Node::Exception:
                label = format("!! exception (seq %lld)", ev.seq);
                break;
            case Node::Root:
                break;
        }
        fprintf(out, "  %8s %9s  %*s%s\n", at.c_str(), dur.c_str(), static_cast<int>(depth * 2), "",
                label.c_str());
        for (size_t c : n.children) printNode(out, nodes, c, depth + 1, thread);
    }

    static std::string cell(const MonitorRow& r, size_t i, const char* fmt, double unset = NAN) {
        if (i >= r.values.size()) return "?";
        const double v = r.values[i];
        if (!std::isnan(unset) && v == unset) return "-";
        return format(fmt, v);
    }

    static int nameWidth(const std::vector<MonitorRow>& rows) {
        size_t w = 4;
        for (const auto& r : rows) w = std::max(w, std::min<size_t>(r.name.size(), 48));
        return static_cast<int>(w);
    }

    static std::string shortName(const std::string& s) {
        return s.size() <= 48 ? printable(s, 48) : printable(s, 45);
    }

    void printBtTable(FILE* out) const {
        if (rows74_.empty()) return;
        const int w = nameWidth(rows74_);
        fprintf(out, "\n== BT monitor (74) ==\n");
        fprintf(out, "  %5s  %-*s %9s %9s %9s %9s %7s %7s %7s %7s\n", "id", w, "name", "req/s", "avg ms",
                "min ms", "max ms", "count", "err/s", "errors", "slow %");
        for (const auto& r : rows74_) {
            fprintf(out, "  %5lld  %-*s %9s %9s %9s %9s %7s %7s %7s %7s\n", r.id, w,
                    shortName(r.name).c_str(), cell(r, 0, "%.3f").c_str(), cell(r, 1, "%.1f").c_str(),
                    cell(r, 2, "%.1f", 500000.0).c_str(), cell(r, 3, "%.0f").c_str(),
                    cell(r, 4, "%.0f").c_str(), cell(r, 6, "%.3f").c_str(), cell(r, 22, "%.0f").c_str(),
                    cell(r, 23, "%.1f").c_str());
        }
    }

    void printBackendTable(FILE* out) const {
        if (rows75_.empty()) return;
        const int w = nameWidth(rows75_);
        fprintf(out, "\n== backend monitor (75) ==\n");
        fprintf(out, "  %5s  %-*s %9s %9s %9s %9s %7s %7s %9s\n", "id", w, "name", "calls/s", "avg ms",
                "min ms", "max ms", "count", "errors", "total");
        for (const auto& r : rows75_) {
            fprintf(out, "  %5lld  %-*s %9s %9s %9s %9s %7s %7s %9s\n", r.id, w, shortName(r.name).c_str(),
                    cell(r, 1, "%.3f").c_str(), cell(r, 2, "%.1f").c_str(),
                    cell(r, 3, "%.0f", 2147483647.0).c_str(), cell(r, 4, "%.0f").c_str(),
                    cell(r, 5, "%.0f").c_str(), cell(r, 6, "%.0f").c_str(), cell(r, 0, "%.0f").c_str());
        }
    }

    void printMethodTable(FILE* out) const {
        if (rows61_.empty()) return;
        const int w = nameWidth(rows61_);
        fprintf(out, "\n== method monitor (61) ==\n");
        fprintf(out, "  %5s  %-*s %9s %9s %9s %9s %7s %9s\n", "id", w, "name", "calls/s", "avg ms", "min ms",
                "max ms", "count", "total");
        for (const auto& r : rows61_) {
            fprintf(out, "  %5lld  %-*s %9s %9s %9s %9s %7s %9s\n", r.id, w, shortName(r.name).c_str(),
                    cell(r, 1, "%.3f").c_str(), cell(r, 2, "%.1f").c_str(),
                    cell(r, 3, "%.1f", 2147483647.0).c_str(), cell(r, 4, "%.0f").c_str(),
                    cell(r, 5, "%.0f").c_str(), cell(r, 0, "%.0f").c_str());
        }
    }

    DecodeOptions opts_;
    std::map<int, long long> counts_;
    long long blank_ = 0, skipped_ = 0, malformed_ = 0, untracked_ = 0;
    std::map<long long, std::string> methods_, bts_, sqls_;
    std::unordered_map<long long, size_t> index_;
    std::vector<Flowpath> fps_;
    std::vector<MonitorRow> rows74_, rows75_, rows61_;
};

void decodeUsage() {
    fprintf(
        stderr,
        "usage: qvcollector decode [--flowpaths N] [--no-monitors] [--vector-sep C] FILE...\n"
        "  Prints flowpaths (records 2, 3, 4) as call trees and the 74/75/61 monitor records as tables.\n");
}

}  // namespace

int decodeFiles(const std::vector<std::string>& paths, const DecodeOptions& opts, FILE* out) {
    Decoder d(opts);
    int rc = 0;
    for (const auto& p : paths)
        if (!d.readFile(p)) rc = 1;
    d.print(out);
    fflush(out);
    return rc;
}

int runDecode(int argc, char** argv) {
    DecodeOptions opts;
    std::vector<std::string> files;
    for (int i = 0; i < argc; ++i) {
        const std::string_view a = argv[i];
        if (a == "--flowpaths" && i + 1 < argc) {
            long long n = 0;
            if (!parseI64(argv[++i], &n) || n < 0) {
                decodeUsage();
                return 2;
            }
            opts.maxFlowpaths = n;
        } else if (a == "--vector-sep" && i + 1 < argc && argv[i + 1][0] != '\0') {
            opts.vectorSep = argv[++i][0];
        } else if (a == "--no-monitors") {
            opts.monitors = false;
        } else if (a == "-h" || a == "--help") {
            decodeUsage();
            return 0;
        } else if (a.starts_with("--")) {
            decodeUsage();
            return 2;
        } else {
            files.emplace_back(a);
        }
    }
    if (files.empty()) {
        decodeUsage();
        return 2;
    }
    return decodeFiles(files, opts, stdout);
}

}  // namespace qvc
