// Text, number and clock helpers of the collector simulator.
#include "qvcollector/qvc_util.h"

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <time.h>

namespace qvc {

namespace {
bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    size_t start = 0;
    for (;;) {
        const size_t pos = s.find(sep, start);
        if (pos == std::string_view::npos) {
            out.push_back(s.substr(start));
            return out;
        }
        out.push_back(s.substr(start, pos - start));
        start = pos + 1;
    }
}

std::vector<std::string_view> splitWords(std::string_view s) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
        const size_t start = i;
        while (i < s.size() && s[i] != ' ' && s[i] != '\t') ++i;
        if (i > start) out.push_back(s.substr(start, i - start));
    }
    return out;
}

bool parseI64(std::string_view s, long long* out) {
    if (s.empty()) return false;
    const char* b = s.data();
    const char* e = s.data() + s.size();
    if (*b == '+') ++b;  // from_chars refuses a plus sign
    if (b == e) return false;
    long long v = 0;
    const auto r = std::from_chars(b, e, v);
    if (r.ec != std::errc() || r.ptr != e) return false;
    *out = v;
    return true;
}

bool parseDouble(std::string_view s, double* out) {
    if (s.empty() || s.size() > 64) return false;
    char buf[65];
    s.copy(buf, s.size());
    buf[s.size()] = '\0';
    char* end = nullptr;
    errno = 0;
    const double v = strtod(buf, &end);
    if (end != buf + s.size() || errno == ERANGE) return false;
    *out = v;
    return true;
}

std::string decodeEscapes(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 >= s.size()) {
            out.push_back(s[i]);
            continue;
        }
        const char c = s[i + 1];
        switch (c) {
            case 'n':
                out.push_back('\n');
                ++i;
                break;
            case 'r':
                out.push_back('\r');
                ++i;
                break;
            case 't':
                out.push_back('\t');
                ++i;
                break;
            case '0':
                out.push_back('\0');
                ++i;
                break;
            case '\\':
                out.push_back('\\');
                ++i;
                break;
            case 'x': {
                const int hi = i + 2 < s.size() ? hexValue(s[i + 2]) : -1;
                const int lo = i + 3 < s.size() ? hexValue(s[i + 3]) : -1;
                if (hi < 0 || lo < 0) {
                    out.push_back('\\');
                    break;
                }
                out.push_back(static_cast<char>(hi * 16 + lo));
                i += 3;
                break;
            }
            default:
                out.push_back('\\');
                break;
        }
    }
    return out;
}

std::string printable(std::string_view s, size_t max) {
    std::string out;
    const size_t n = s.size() < max ? s.size() : max;
    out.reserve(n + 8);
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c < 0x7f) {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    if (n < s.size()) out += "...";
    return out;
}

int recordType(std::string_view line) {
    size_t i = 0;
    int v = 0;
    while (i < line.size() && i < 4 && line[i] >= '0' && line[i] <= '9') {
        v = v * 10 + (line[i] - '0');
        ++i;
    }
    if (i == 0 || i >= line.size() || line[i] != ',') return -1;
    return v;
}

const char* recordTypeName(int type) {
    switch (type) {
        case 2:
            return "flowpath header";
        case 3:
            return "sequence";
        case 4:
            return "flowpath end";
        case 5:
            return "method";
        case 6:
            return "header";
        case 7:
            return "BT";
        case 10:
            return "data over";
        case 11:
            return "metadata marker";
        case 22:
            return "SQL";
        case 26:
            return "resource";
        case 32:
            return "exception class";
        case 33:
            return "throwing class";
        case 34:
            return "throwing method";
        case 35:
            return "exception message";
        case 41:
            return "page";
        case 61:
            return "method monitor";
        case 74:
            return "BT monitor";
        case 75:
            return "backend monitor";
        case 99:
            return "new connection";
        default:
            return "";
    }
}

std::string categoryName(int category) {
    switch (category) {
        case 10:
            return "normal";
        case 11:
            return "slow";
        case 12:
            return "very slow";
        case 13:
            return "error";
        case 15:
            return "uncategorised";
        case 157:
            return "excluded";
        default:
            return format("category %d", category);
    }
}

void putKeyword(KeywordList* list, std::string_view key, std::string_view value) {
    for (auto& kv : *list) {
        if (kv.first == key) {
            kv.second.assign(value);
            return;
        }
    }
    list->emplace_back(std::string(key), std::string(value));
}

bool parseKeywords(std::string_view text, KeywordList* list, std::string* err) {
    KeywordList parsed;
    for (std::string_view field : split(text, ';')) {
        field = trim(field);
        if (field.empty()) continue;
        const size_t eq = field.find('=');
        if (eq == std::string_view::npos || trim(field.substr(0, eq)).empty()) {
            if (err) *err = "expected key=value, got '" + printable(field, 80) + "'";
            return false;
        }
        parsed.emplace_back(std::string(trim(field.substr(0, eq))), std::string(field.substr(eq + 1)));
    }
    for (const auto& kv : parsed) putKeyword(list, kv.first, kv.second);
    return true;
}

long long monotonicMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string format(const char* fmt, ...) {
    char buf[4096];
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    if (n < 0) return std::string();
    if (static_cast<size_t>(n) < sizeof(buf)) return std::string(buf, static_cast<size_t>(n));
    // Rare long text: format again into a buffer of the exact size (capped).
    const size_t len = n > 65535 ? 65535 : static_cast<size_t>(n);
    std::string out(len + 1, '\0');
    va_start(ap, fmt);
    vsnprintf(out.data(), out.size(), fmt, ap);
    va_end(ap);
    out.resize(len);
    return out;
}

}  // namespace qvc
