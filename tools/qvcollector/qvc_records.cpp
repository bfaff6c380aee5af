// Parsers for the agent's text records (flowpath, blob entries, metadata, monitor records).
#include "qvcollector/qvc_records.h"

#include "qvcollector/qvc_util.h"

namespace qvc {

namespace {

bool isDigits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

long long numOr(std::string_view s, long long dflt) {
    long long v = 0;
    return parseI64(s, &v) ? v : dflt;
}

// Splits off the first n comma fields; rest is what follows the n-th comma.
bool splitLeading(std::string_view line, size_t n, std::vector<std::string_view>* fields,
                  std::string_view* rest) {
    fields->clear();
    size_t start = 0;
    for (size_t i = 0; i < n; ++i) {
        const size_t pos = line.find(',', start);
        if (pos == std::string_view::npos) return false;
        fields->push_back(line.substr(start, pos - start));
        start = pos + 1;
    }
    *rest = line.substr(start);
    return true;
}

bool parseCallout(std::string_view tok, BlobEvent* ev) {
    ev->kind = BlobEvent::Callout;
    ev->error = tok[0] == 'E';
    const auto f = split(tok.substr(1), ':');
    if (f.size() < 6) return false;
    long long kind = 0;
    if (!parseI64(f[0], &ev->seq) || !parseI64(f[1], &ev->methodId) || !parseI64(f[2], &ev->duration) ||
        !parseI64(f[3], &kind))
        return false;
    ev->database = kind == 10;
    if (ev->database && !parseI64(f[4], &ev->sqlId)) return false;
    if (!parseI64(f[5], &ev->time)) return false;
    if (ev->error) {
        if (f.size() < 7 || !parseI64(f[6], &ev->status)) return false;
    }
    return true;
}

}  // namespace

bool parseFlowpathId(std::string_view s, long long* id, bool* forced) {
    bool f = false;
    if (!s.empty() && s.back() == 'F') {
        f = true;
        s.remove_suffix(1);
    }
    if (!parseI64(s, id)) return false;
    if (forced) *forced = f;
    return true;
}

bool parseHeaderRecord(std::string_view line, HeaderRecord* out) {
    const auto f = split(line, ',');
    if (f.size() < 14 || f[0] != "2") return false;
    HeaderRecord h;
    const auto chain = split(f[1], ':');
    if (chain.size() != 1 && chain.size() != 3) return false;
    if (!parseFlowpathId(chain[0], &h.fpi, &h.forced)) return false;
    if (chain.size() == 3) {
        h.laterTier = true;
        if (!parseFlowpathId(chain[1], &h.firstFpi, nullptr) ||
            !parseFlowpathId(chain[2], &h.prevFpi, nullptr))
            return false;
    }
    if (!parseI64(f[2], &h.startSec) || !parseI64(f[3], &h.threadId) || !parseI64(f[5], &h.btId))
        return false;
    h.tierSeq.assign(f[4]);
    const size_t n = f.size();
    // The URL is everything between field 6 and the last seven fields (it may hold commas).
    for (size_t i = 6; i + 7 < n; ++i) {
        if (i > 6) h.url.push_back(',');
        h.url.append(f[i]);
    }
    h.correlation.assign(f[n - 7]);
    h.fpType = numOr(f[n - 2], 0);
    h.queueMs = numOr(f[n - 1], 0);
    *out = std::move(h);
    return true;
}

bool parseSeqRecord(std::string_view line, SeqRecord* out) {
    std::vector<std::string_view> f;
    std::string_view rest;
    if (!splitLeading(line, 2, &f, &rest) || f[0] != "3") return false;
    if (!parseFlowpathId(f[1], &out->fpi, &out->forced)) return false;
    out->blob = rest;
    return true;
}

bool parseEndRecord(std::string_view line, EndRecord* out) {
    std::vector<std::string_view> f;
    std::string_view rest;
    if (!splitLeading(line, 8, &f, &rest) || f[0] != "4") return false;
    EndRecord e;
    if (!parseFlowpathId(f[1], &e.fpi, &e.forced)) return false;
    if (!parseI64(f[2], &e.status) || !parseI64(f[3], &e.category)) return false;
    e.cpu = numOr(f[4], 0);
    e.respMs = numOr(f[5], 0);
    e.btId = numOr(f[6], 0);
    e.fpType = numOr(f[7], 0);
    e.blob = rest;
    *out = e;
    return true;
}

std::vector<BlobEvent> parseBlob(std::string_view blob, int* bad) {
    std::vector<BlobEvent> events;
    int badCount = 0;
    const auto t = split(blob, '_');
    const size_t n = t.size();
    size_t i = 0;
    while (i < n) {
        const std::string_view tok = t[i];
        if (tok.empty()) {
            ++i;
            continue;
        }
        BlobEvent ev;
        if (tok[0] == 'T' || tok[0] == 'E') {
            if (parseCallout(tok, &ev))
                events.push_back(std::move(ev));
            else
                ++badCount;
            ++i;
            continue;
        }
        if (tok[0] == 'e') {
            ev.kind = BlobEvent::Exception;
            if (parseI64(tok.substr(1), &ev.seq))
                events.push_back(std::move(ev));
            else
                ++badCount;
            ++i;
            continue;
        }
        // Method event: "<mid>[:<tid>[:1:<url>]]_<event>_<time>_...". An asynchronous URL may
        // itself hold '_': glue tokens back until the event id (digits) shows up.
        std::string head(tok);
        size_t j = i + 1;
        size_t colons = 0;
        for (char c : head) colons += c == ':';
        if (colons >= 3) {
            while (j < n && !isDigits(t[j]) && head.size() < 65536) {
                head.push_back('_');
                head.append(t[j]);
                ++j;
            }
        }
        const auto parts = split(head, ':');
        long long eventId = -1;
        if (j + 1 >= n || !parseI64(parts[0], &ev.methodId) || !parseI64(t[j], &eventId) ||
            !parseI64(t[j + 1], &ev.time)) {
            ++badCount;
            i = j > i + 1 ? j : i + 1;
            continue;
        }
        if (parts.size() >= 2) ev.threadId = numOr(parts[1], 0);
        if (parts.size() >= 4 && parts[2] == "1") {
            ev.async = true;
            for (size_t k = 3; k < parts.size(); ++k) {
                if (k > 3) ev.url.push_back(':');
                ev.url.append(parts[k]);
            }
        }
        ev.eventId = eventId;
        if (eventId == 0) {
            ev.kind = BlobEvent::Entry;
            i = j + 3;
        } else if (eventId == 1 || eventId == 3 || eventId == 4) {
            ev.kind = BlobEvent::Exit;
            if (j + 2 < n && !t[j + 2].empty()) ev.cpu = numOr(t[j + 2], -1);
            i = j + 5;
        } else {
            ++badCount;
            i = j + 2;
            continue;
        }
        events.push_back(std::move(ev));
    }
    if (bad) *bad += badCount;
    return events;
}

bool parseMonitorRecord(std::string_view line, char sep, MonitorRow* out) {
    const int type = recordType(line);
    if (type != 74 && type != 75 && type != 61) return false;
    const std::string_view rest = line.substr(line.find(',') + 1);
    const size_t lastBar = rest.rfind('|');
    if (lastBar == std::string_view::npos) return false;
    const std::string_view head = rest.substr(0, lastBar);
    const size_t bar1 = head.find('|');
    const size_t bar2 = bar1 == std::string_view::npos ? bar1 : head.find('|', bar1 + 1);
    if (bar2 == std::string_view::npos) return false;
    const std::string_view idPart = head.substr(bar2 + 1);
    const size_t colon = idPart.find(':');
    if (colon == std::string_view::npos) return false;
    MonitorRow row;
    row.type = type;
    if (!parseI64(head.substr(0, bar1), &row.tierId) ||
        !parseI64(head.substr(bar1 + 1, bar2 - bar1 - 1), &row.appId) ||
        !parseI64(idPart.substr(0, colon), &row.id))
        return false;
    std::string_view vec = idPart.substr(colon + 1);
    std::string_view name = vec;
    size_t pos = 0;
    int seps = 0;
    while (seps < 3) {
        const size_t p = vec.find(sep, pos);
        if (p == std::string_view::npos) break;
        pos = p + 1;
        ++seps;
    }
    if (seps == 3) name = vec.substr(pos);
    row.name.assign(name);
    for (std::string_view w : splitWords(rest.substr(lastBar + 1))) {
        double v = 0;
        if (!parseDouble(w, &v)) return false;
        row.values.push_back(v);
    }
    if (row.values.empty()) return false;
    *out = std::move(row);
    return true;
}

bool parseMethodMeta(std::string_view line, long long* id, std::string* name) {
    if (!line.starts_with("5,")) return false;
    const size_t last = line.rfind(',');
    if (last < 2 || !parseI64(line.substr(last + 1), id)) return false;
    name->assign(line.substr(2, last - 2));
    return true;
}

bool parseBtMeta(std::string_view line, long long* id, std::string* name) {
    std::vector<std::string_view> f;
    std::string_view rest;
    if (!splitLeading(line, 2, &f, &rest) || f[0] != "7" || !parseI64(f[1], id)) return false;
    name->assign(rest);
    return true;
}

bool parseSqlMeta(std::string_view line, long long* id, std::string* text) {
    std::vector<std::string_view> f;
    std::string_view rest;
    if (!splitLeading(line, 3, &f, &rest) || f[0] != "22" || !parseI64(f[2], id)) return false;
    // A truncated statement carries a zero byte before its "..." tail; show it without the byte.
    text->clear();
    for (char c : rest)
        if (c != '\0') text->push_back(c);
    return true;
}

bool parseResourceMeta(std::string_view line, long long* id, std::string* name) {
    std::vector<std::string_view> f;
    std::string_view rest;
    if (!splitLeading(line, 2, &f, &rest) || f[0] != "26" || !parseI64(f[1], id)) return false;
    name->assign(rest);
    return true;
}

}  // namespace qvc
