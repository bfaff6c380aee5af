// Instrumentation profile and entry-point files: a line grammar through which a user marks
// methods as service entry points, HTTP or database callouts, monitored methods or custom
// callouts, loaded into a new generation of the method registry.
//
// Grammar (both files, and a profile pushed as text):
//   One method per line: <kinds>|<methodName>[|<alias>][|<target>]
//   <kinds>  one or more of entry, http, db, monitor, custom, forceentry, forceexit joined by '+'
//            (case-sensitive; a kind given twice counts once)
//   entry      isEntryPoint bit 1 (service method)
//   http / db  bit 2 (callout) and type 1 / 2; not both on one line
//   monitor    bit 4 (method monitor); the method monitor gets room for it
//   custom     bit 8; needs <target>: the callout the method reports as (customCalloutptr),
//              registered as a backend (created when new, folded into "Others" past the maximum)
//   forceentry / forceexit  callOutValue 1 / 4 (entry / exit event always in the blob); not both
//   <alias>  optional name the monitor records print; empty keeps the current alias
//   <target> only with custom (required there); use an empty alias field to give a target alone
//   Fields are trimmed of blanks and tabs; a line end of "\n" or "\r\n" is accepted. A line whose
//   first non-blank character is '#' is a comment; blank lines are ignored. Loading is additive:
//   bits are added to what a method already has.
//   Malformed lines (unknown or empty kind, empty method name, fewer than 2 or more than 4 fields,
//   target without custom or custom without target, http with db, forceentry with forceexit,
//   a control character, a line over QV_INSTR_PROF_MAX_LINE bytes) are logged with their line
//   number and reason and skipped. A file over QV_INSTR_PROF_MAX_FILE bytes is not loaded.
#ifndef QVINSTRPROFILE_H
#define QVINSTRPROFILE_H

#include <cstddef>
#include <string_view>

struct node_t;
struct methodPropProperties;

#define QV_INSTR_PROF_MAX_LINE 4095
#define QV_INSTR_PROF_MAX_FILE (1024 * 1024)
// Files read at start-up when present, under the agent home.
#define QV_ENTRY_POINT_FILE "config/entrypoints.conf"
#define QV_INSTR_PROFILE_FILE "config/instrprofile.conf"

// Kind bits of one profile line.
#define QV_PROF_ENTRY 0x01
#define QV_PROF_HTTP 0x02
#define QV_PROF_DB 0x04
#define QV_PROF_MONITOR 0x08
#define QV_PROF_CUSTOM 0x10
#define QV_PROF_FORCE_ENTRY 0x20
#define QV_PROF_FORCE_EXIT 0x40

// One parsed line; the views point into the caller's text.
struct QVInstrProfEntry {
    int kinds;  // QV_PROF_* bits
    std::string_view methodName;
    std::string_view alias;   // empty: keep the current alias
    std::string_view target;  // custom only
};

// Parses one line (its "\n" removed; a trailing '\r' is dropped here). Returns 1 for an entry
// (*out filled), 0 for a blank or comment line, -1 for a malformed one (*reason set to a static
// text). Null out or reason: -1. Thread-safe.
int parseInstrProfLine(std::string_view line, QVInstrProfEntry* out, const char** reason);

// Applies one entry to generation node (null: current): finds or creates the method, adds it to
// node's profile map, sets its bits, type, callOutValue, alias and custom target. Takes the
// registry lock (nested, so callers may hold it). Does not call the monitor hooks (see
// hashMapForAgent). Returns the method, or null (no generation, no memory).
methodPropProperties* setMethodHashMapNode(node_t* node, const QVInstrProfEntry* entry);

// Applies every line of text (len bytes) to node (null: current) under one hold of the registry
// lock, logging malformed lines with source and line number; then, without the lock, gives the
// monitored methods and the backends room in the monitors (qvMethodRegistryHooks). Call without
// the registry lock held. Returns the number of entries applied, -1 for null text.
int hashMapForAgent(const char* text, size_t len, node_t* node, const char* source);

// Reads the file at path and applies it to node as hashMapForAgent does. Returns the entries
// applied, or -1 when the file cannot be read or is larger than QV_INSTR_PROF_MAX_FILE (logged).
int readingFileInstrProfile(const char* path, node_t* node);

// Loads the instrumentation profile / entry-point file at path into a new generation
// (makeHashmapCopyAndaddToLL(1) and the lines applied under one hold of the lock, so flowpaths
// never see half a file), then sweeps the retired generations. Returns the entries applied, or
// -1 (unreadable file, no registry; the current generation is then unchanged).
int readInstrProfFile(const char* path);
int readingEntryPointfile(const char* path);

// Same for a profile given as text (len bytes), e.g. pushed by the collector at run time.
int readInstrProfFileRTC(const char* text, size_t len);

// Start-up: loads "<home>/config/entrypoints.conf" then "<home>/config/instrprofile.conf", those
// that exist, into one new generation. Nothing when neither exists or no home is set. Returns
// the entries applied (0 when nothing was loaded), or -1 when a present file could not be read.
int loadDefaultInstrProfileFiles();

#endif
