// Text, number and clock helpers shared by the collector simulator's server, script runner and
// record decoder. Everything here is pure and allocation-light; nothing keeps global state.
#ifndef QVC_UTIL_H
#define QVC_UTIL_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvc {

// Ordered key=value list as sent in start and modify commands. Later puts of the same key
// replace the value in place, so the first position of a key is kept.
using KeywordList = std::vector<std::pair<std::string, std::string>>;

// Removes blanks, tabs and CR/LF from both ends. Never fails.
std::string_view trim(std::string_view s);

// Splits s at every sep; empty fields are kept (",a," gives "", "a", ""). Views point into s.
std::vector<std::string_view> split(std::string_view s, char sep);

// Splits s at runs of blanks/tabs; no empty fields.
std::vector<std::string_view> splitWords(std::string_view s);

// Whole-string decimal integer with optional sign. False (out untouched) on empty text, any
// other character or overflow.
bool parseI64(std::string_view s, long long* out);

// Whole-string floating number (as printed by %lf). False on anything else.
bool parseDouble(std::string_view s, double* out);

// Decodes \n \r \t \\ \0 and \xNN escapes; an unknown or cut escape is kept literally.
std::string decodeEscapes(std::string_view s);

// Copy of s for terminal output: non-printable bytes become \xNN, and the text is cut to at
// most max bytes of source with "..." appended.
std::string printable(std::string_view s, size_t max);

// Record type of one record line: the leading 1-4 digits when followed by ',' (as in "2,..."
// or "10,"). -1 for anything else (blank lines, protocol lines, garbage).
int recordType(std::string_view line);

// Human name of a record type ("flowpath header", "BT monitor"...), "" when unknown.
const char* recordTypeName(int type);

// Word for a BT category number (10 normal, 11 slow ...); "category <n>" text for others.
std::string categoryName(int category);

// Parses "k=v;k2=v2" (also tolerates blanks around fields and an empty trailing field) and puts
// every pair into list. False with *err set on a field without '=' or with an empty key; list
// is then unchanged.
bool parseKeywords(std::string_view text, KeywordList* list, std::string* err);

// Puts key=value into list, replacing an existing key in place.
void putKeyword(KeywordList* list, std::string_view key, std::string_view value);

// Milliseconds of the monotonic clock.
long long monotonicMs();

// printf into a std::string (at most 64 KiB per call).
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qvc

#endif
