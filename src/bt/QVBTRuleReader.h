// Readers of the BT rule source ("BTRuleFile.txt") and the BT threshold source
// ("BTThresholdFile.txt"): lines of '|'-separated fields that set the naming rules and thresholds.
#ifndef QVBTRULEREADER_H
#define QVBTRULEREADER_H

// Every reader runs on the start-up thread or the thread applying a configuration change, and
// holds qvbt_rule_lock() while it writes the rule globals. Requests keep naming meanwhile: new
// rules are published only once complete.
//
// Source: when the agent runs with file-based keywords (fileBasedKeywordMode holds a character
// other than NUL and '0'), the source is a file path read whole (at most 1023 bytes); otherwise
// the source is itself the text of the rules.

// Reads the rule source in three passes (types 2, 3, 4, 5 and 8..11 first; pattern lines "7|";
// then the first "1|" line when no pattern rule took) and sets bt_rule (7, 1 or 0). skipCount and
// maxStates start from their defaults (0, 128) on every read. Always 0.
int qvbt_read_rule_file(char* source);

// Reads the threshold source: "name|slow|very slow" lines ("ALL" sets the defaults); comments and
// bad lines are logged and skipped. Returns 0, or -1 for a null or empty source or an unreadable
// file.
int qvbt_read_threshold_file(char* source);

// While on, the readers take their source as a file path whatever fileBasedKeywordMode says:
// start-up reads BTThresholdFile.txt and BTRuleFile.txt of the agent home as files (the mode only
// decides how sources delivered later are read). Per thread.
void qvbt_set_home_file_source(bool on);

// Reads the whole file path into buffer (1024 bytes; zeroed first). A file larger than 1023 bytes
// or one that cannot be opened is refused ("Error in opening file %s\n"); a short read is
// "Error in writing, Bytes read = %d". Returns 0, or -1 with the buffer empty.
int getLineFromFile(const char* path, char* buffer);

// Copies the text at *cursor up to the next '\n' (exclusive; at most 1023 characters and
// size - 1) into line and moves *cursor past the '\n'. Returns line, or null (logged "Buffer
// passed is empty") when *cursor is at the end of the text or an argument is null.
char* getNextLine(char* line, int size, char** cursor);

// Type 1 line: replaces the global rule. A line with fewer than 9 fields is logged and the default
// rule is parsed instead. Always 0.
int parse_global_rule(char* line);
// Type 2 line: adds a custom rule to custom_rule and its lexicon. 0, or -1 (logged) when refused.
int parse_custom_rule(char* line);
// Type 3 line: accepted and ignored. 0.
int parse_exclusion_rule(char* line);
// Type 4 line: skipCount = the integer after the first bar (negative taken as 0). New skipCount.
int parse_skip_character(char* line);
// Type 5 line: maxStates = the integer after the first bar. New maxStates.
int parse_max_state(char* line);
// Type 7 line: adds a pattern to the automaton being built (the first one, *firstPattern 1,
// creates it and the "Others" BT) and makes its BT, also when the automaton refuses the pattern.
// 0, or -1 (logged) for a comment, a short line or no automaton. Only takes effect through
// qvbt_read_rule_file, which publishes the automaton after the pattern pass.
int parse_pattern_rule(char* line, int* firstPattern);
// Sets the header rule's name from the text after the first bar. 0, or -1 without a bar.
int parse_header_rule(char* line);

// Drops the pattern automaton being built, if any. Tests only.
void qvbt_rule_reader_reset_for_test();

#endif
