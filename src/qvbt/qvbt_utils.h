// URL and request helpers of BT naming: the segment cut, the query-parameter value, method and
// operation codes, and the category of a finished request.
#ifndef QVBT_UTILS_H
#define QVBT_UTILS_H

#include "qvbt/qvbt_bt_object.h"

struct QVBTGlobalRule;

// Category codes of a finished request.
constexpr unsigned char QVBT_CATEGORY_NORMAL = 10;
constexpr unsigned char QVBT_CATEGORY_SLOW = 11;
constexpr unsigned char QVBT_CATEGORY_VERY_SLOW = 12;
constexpr unsigned char QVBT_CATEGORY_ERROR = 13;

// The segment cut of url by the global rule in force (see qvbt_get_bt_name_from_url_r); without a
// global rule the whole URL (cut to the output). Returns out.
char* get_bt_name_from_url(const char* url, char* out, int outSize);

// Segment cut of url under rule (N = include_uri_in_name_segment) into out (outSize bytes). The URL
// is first cut at 255 characters. FromFirst (order other than 2): the text before the '/' that
// makes the slash count exceed N; a URL with N or fewer slashes stays whole. FromLast (order 2):
// the text from the '/' at which the count from the end reaches N; fewer than N slashes: the whole
// URL. N <= 0 gives the empty text in both orders. Null url: empty (logged "URL is empty"). Null
// rule: whole URL. Returns out (null for a null/empty out). No allocation.
char* qvbt_get_bt_name_from_url_r(const QVBTGlobalRule* rule, const char* url, char* out, int outSize);

// Value of the global rule's parameter in query ("a=1&b=2"): after "<parameter>=" at the start,
// else after "&<parameter>=", up to the next '&', at most 63 characters. Null when query, rule or
// parameter is absent. The result lives in a per-thread 64-byte buffer that the thread's next call
// overwrites.
char* get_param_value(const char* query);
char* qvbt_get_param_value_r(const QVBTGlobalRule* rule, const char* query);

// "GET" 0, "POST" 1, "PUT" 2, "DELETE" 3 (any case); 255 otherwise (logged).
unsigned char getHTTPMethodValue(const char* method);

// Leading keyword of text (any case): "EQUALS" 4, "startswith" 1, "endswith" 2, "contains" 3,
// "matchesRegExp" 5, "notEmpty" 6, "inList" 7; 255 otherwise (also null).
unsigned char getOperationType(const char* text);

// Category of a finished request: 13 when the status code (0..599) is marked 'F' in the agent's
// btErrorArray, else by time (getBTCategoryBasedOnThresold). Any thread.
unsigned char findCategoryOfBT(Threshold threshold, long long duration, int statusCode);

// duration < slow: 10; slow <= duration < very_slow: 11; duration >= very_slow: 12.
unsigned char getBTCategoryBasedOnThresold(Threshold threshold, long long duration);

// Header name of the header rule for the flowpath code to capture; null without a header rule or
// with an empty name.
char* getBTHeaderName();

#endif
