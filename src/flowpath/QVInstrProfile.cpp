// Reading of the instrumentation profile and entry-point files into the method registry.
#include "flowpath/QVInstrProfile.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "core/QVSys.h"
#include "core/qv_agent.h"
#include "flowpath/QVMethodHashMap.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mem.h"
#include "foundation/qvlb_mt_log.h"

namespace {

const char* const kModule = "FLOWPATH";
const char* const kFilePurpose = "instrumentation profile file";

int fpLevel() {
    return qvApplication ? qv_load(qvApplication->QVSys.fpTraceLevel) : 0;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

int kindBit(std::string_view k) {
    struct Kind {
        const char* name;
        int bit;
    };
    static const Kind kinds[] = {
        {"entry", QV_PROF_ENTRY},         {"http", QV_PROF_HTTP},     {"db", QV_PROF_DB},
        {"monitor", QV_PROF_MONITOR},     {"custom", QV_PROF_CUSTOM}, {"forceentry", QV_PROF_FORCE_ENTRY},
        {"forceexit", QV_PROF_FORCE_EXIT}};
    for (const Kind& kind : kinds)
        if (k == kind.name) return kind.bit;
    return 0;
}

// Copies v into buf (size bytes) NUL-terminated; false when it does not fit.
bool copyZ(std::string_view v, char* buf, size_t size) {
    if (v.size() >= size) return false;
    // An empty view may carry a null data pointer, which memcpy must not see.
    if (!v.empty()) memcpy(buf, v.data(), v.size());
    buf[v.size()] = '\0';
    return true;
}

// Calls fn(entry) for every well-formed line of text; malformed lines are logged when source is
// set. Returns the number of entries.
template <class Fn>
int forEachLine(const char* text, size_t len, const char* source, Fn fn) {
    int applied = 0;
    int skipped = 0;
    int lineNo = 0;
    std::string_view rest(text, len);
    while (!rest.empty()) {
        const size_t nl = rest.find('\n');
        std::string_view line = rest.substr(0, nl);
        rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
        lineNo++;
        QVInstrProfEntry e{};
        const char* reason = nullptr;
        const int rc = parseInstrProfLine(line, &e, &reason);
        if (rc < 0) {
            skipped++;
            if (source != nullptr)
                QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Malformed line %d of '%s': %s; line skipped",
                            lineNo, source, reason);
            continue;
        }
        if (rc == 0) continue;
        if (fn(e)) applied++;
    }
    if (source != nullptr)
        QV_TRACE_IF(fpLevel() > 0, kModule, "Info", "Loaded %d methods from '%s', %d lines skipped", applied,
                    source, skipped);
    return applied;
}

bool applyEntry(node_t* node, const QVInstrProfEntry& e) {
    return setMethodHashMapNode(node, &e) != nullptr;
}

// Second pass, without the registry lock: the monitors grow their arrays under their own locks.
void runMonitorHooks(const char* text, size_t len) {
    const QVMethodRegistryHooks hooks = qvMethodRegistryHooks;
    if (hooks.checkAndIncrementAggrMethodDataArray == nullptr &&
        hooks.checkAndIncrementAggrBackendDataArray == nullptr)
        return;
    forEachLine(text, len, nullptr, [&](const QVInstrProfEntry& e) {
        char name[QV_INSTR_PROF_MAX_LINE + 1];
        if (!copyZ(e.methodName, name, sizeof(name))) return false;
        methodPropProperties* m = getMethodPropFromMethodName(name, nullptr);
        if (m == nullptr) return false;
        if ((e.kinds & QV_PROF_MONITOR) && hooks.checkAndIncrementAggrMethodDataArray)
            hooks.checkAndIncrementAggrMethodDataArray(m);
        if ((e.kinds & (QV_PROF_HTTP | QV_PROF_DB)) && hooks.checkAndIncrementAggrBackendDataArray)
            hooks.checkAndIncrementAggrBackendDataArray(m);
        methodPropProperties* target = qv_load_acquire(m->customCalloutptr);
        if ((e.kinds & QV_PROF_CUSTOM) && target != nullptr && hooks.checkAndIncrementAggrBackendDataArray)
            hooks.checkAndIncrementAggrBackendDataArray(target);
        return true;
    });
}

// Reads a whole file into a new buffer (caller frees with qvlb_free). Null when it cannot be
// read or is too large (logged).
char* readWholeFile(const char* path, size_t* len) {
    *len = 0;
    if (path == nullptr || path[0] == '\0') return nullptr;
    FILE* fp = fopen(path, "rb");
    if (fp == nullptr) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error", "Unable to open instrumentation profile file '%s'",
                    path);
        return nullptr;
    }
    char* buf = static_cast<char*>(qvlb_malloc(QV_INSTR_PROF_MAX_FILE + 1, kFilePurpose, -1));
    if (buf == nullptr) {
        fclose(fp);
        return nullptr;
    }
    // One byte more than allowed tells an oversized file from one of exactly the maximum.
    const size_t n = fread(buf, 1, QV_INSTR_PROF_MAX_FILE + 1, fp);
    const bool failed = ferror(fp) != 0;
    fclose(fp);
    if (failed || n > QV_INSTR_PROF_MAX_FILE) {
        QV_TRACE_IF(fpLevel() > 0, kModule, "Error",
                    failed ? "Unable to read instrumentation profile file '%s'"
                           : "Instrumentation profile file '%s' is larger than the allowed size, not loaded",
                    path);
        qvlb_free(buf, kFilePurpose, -1);
        return nullptr;
    }
    *len = n;
    return buf;
}

struct Source {
    const char* text;
    size_t len;
    const char* name;
};

// Applies every source to one new generation under one hold of the lock, then runs the hooks
// and sweeps. -1 when there is no registry to copy.
int loadIntoNewGeneration(const Source* sources, int count) {
    int applied = 0;
    {
        QVMethodHashMapGuard guard;
        if (makeHashmapCopyAndaddToLL(1) != 0) return -1;
        node_t* node = methodHashMapNode;
        for (int i = 0; i < count; i++)
            applied += forEachLine(sources[i].text, sources[i].len, sources[i].name,
                                   [&](const QVInstrProfEntry& e) { return applyEntry(node, e); });
    }
    for (int i = 0; i < count; i++) runMonitorHooks(sources[i].text, sources[i].len);
    checkAndDeleteNode();
    return applied;
}

int loadFile(const char* path) {
    size_t len = 0;
    char* buf = readWholeFile(path, &len);
    if (buf == nullptr) return -1;
    const Source src{buf, len, path};
    const int rc = loadIntoNewGeneration(&src, 1);
    qvlb_free(buf, kFilePurpose, -1);
    return rc;
}

}  // namespace

int parseInstrProfLine(std::string_view line, QVInstrProfEntry* out, const char** reason) {
    if (out == nullptr || reason == nullptr) return -1;
    *reason = nullptr;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.size() > QV_INSTR_PROF_MAX_LINE) {
        *reason = "line too long";
        return -1;
    }
    for (char c : line) {
        const unsigned char u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\t') || u == 0x7f) {
            *reason = "non-printable character";
            return -1;
        }
    }
    const std::string_view t = trim(line);
    if (t.empty() || t.front() == '#') return 0;

    std::string_view fields[4];
    size_t nf = 0;
    std::string_view rest = t;
    while (true) {
        const size_t bar = rest.find('|');
        if (nf == 4) {
            *reason = "too many fields";
            return -1;
        }
        fields[nf++] = trim(rest.substr(0, bar));
        if (bar == std::string_view::npos) break;
        rest = rest.substr(bar + 1);
    }
    if (nf < 2) {
        *reason = "missing method name";
        return -1;
    }

    int kinds = 0;
    std::string_view ks = fields[0];
    while (true) {
        const size_t plus = ks.find('+');
        const std::string_view k = trim(ks.substr(0, plus));
        if (k.empty()) {
            *reason = "empty kind";
            return -1;
        }
        const int bit = kindBit(k);
        if (bit == 0) {
            *reason = "unknown kind";
            return -1;
        }
        kinds |= bit;
        if (plus == std::string_view::npos) break;
        ks = ks.substr(plus + 1);
    }
    if ((kinds & QV_PROF_HTTP) && (kinds & QV_PROF_DB)) {
        *reason = "http and db on one method";
        return -1;
    }
    if ((kinds & QV_PROF_FORCE_ENTRY) && (kinds & QV_PROF_FORCE_EXIT)) {
        *reason = "forceentry and forceexit on one method";
        return -1;
    }
    if (fields[1].empty()) {
        *reason = "empty method name";
        return -1;
    }
    const std::string_view target = nf > 3 ? fields[3] : std::string_view();
    if ((kinds & QV_PROF_CUSTOM) && target.empty()) {
        *reason = "custom callout without target";
        return -1;
    }
    if (!(kinds & QV_PROF_CUSTOM) && !target.empty()) {
        *reason = "target given without custom";
        return -1;
    }
    out->kinds = kinds;
    out->methodName = fields[1];
    out->alias = nf > 2 ? fields[2] : std::string_view();
    out->target = target;
    return 1;
}

methodPropProperties* setMethodHashMapNode(node_t* node, const QVInstrProfEntry* entry) {
    if (entry == nullptr) return nullptr;
    char name[QV_INSTR_PROF_MAX_LINE + 1];
    char target[QV_INSTR_PROF_MAX_LINE + 1];
    if (!copyZ(entry->methodName, name, sizeof(name)) || name[0] == '\0') return nullptr;
    if (!copyZ(entry->target, target, sizeof(target))) return nullptr;

    QVMethodHashMapGuard guard;
    if (node == nullptr) node = methodHashMapNode;
    if (node == nullptr || node->ptr == nullptr) return nullptr;
    methodPropProperties* m = qvFindOrCreateMethodLocked(name, node, 0, 0, sizeof(name), nullptr);
    if (m == nullptr) return nullptr;
    apr_hash_set(node->ptr, m->methodName, APR_HASH_KEY_STRING, m);

    const int k = entry->kinds;
    int bits = 0;
    if (k & QV_PROF_ENTRY) bits |= QV_EP_SERVICE;
    if (k & (QV_PROF_HTTP | QV_PROF_DB)) bits |= QV_EP_CALLOUT;
    if (k & QV_PROF_MONITOR) bits |= QV_EP_MONITORED;
    if (k & QV_PROF_CUSTOM) bits |= QV_EP_CUSTOM_CALLOUT;
    qv_store(m->isEntryPoint, qv_load(m->isEntryPoint) | bits);
    const int calloutType = (k & QV_PROF_HTTP) ? 1 : (k & QV_PROF_DB) ? 2 : 0;
    if (calloutType != 0) qv_store(m->type, calloutType);
    if (k & QV_PROF_FORCE_ENTRY) qv_store(m->callOutValue, 1);
    if (k & QV_PROF_FORCE_EXIT) qv_store(m->callOutValue, 4);
    if (!entry->alias.empty()) {
        char alias[QV_INSTR_PROF_MAX_LINE + 1];
        if (copyZ(entry->alias, alias, sizeof(alias))) setMethodPropText(&m->aliasMethodName, alias);
    }
    if ((k & QV_PROF_CUSTOM) && target[0] != '\0') {
        // The target is a backend: past the backend maximum it becomes "Others", and the buffer
        // then says so, which is what customCalloutName records.
        methodPropProperties* t = qvFindOrCreateMethodLocked(target, node, 1, calloutType,
                                                             static_cast<int>(sizeof(target)), nullptr);
        if (t != nullptr) {
            setMethodPropText(&m->customCalloutName, target);
            qv_store_release(m->customCalloutptr, t);
        }
    }
    QV_TRACE_IF(fpLevel() > 2, kModule, "Info", "Profile method '%s' (id %d): isEntryPoint = %d, type = %d",
                m->methodName, m->methodId, qv_load(m->isEntryPoint), qv_load(m->type));
    return m;
}

int hashMapForAgent(const char* text, size_t len, node_t* node, const char* source) {
    if (text == nullptr) return -1;
    int applied = 0;
    {
        QVMethodHashMapGuard guard;
        applied = forEachLine(text, len, source ? source : "(text)",
                              [&](const QVInstrProfEntry& e) { return applyEntry(node, e); });
    }
    runMonitorHooks(text, len);
    return applied;
}

int readingFileInstrProfile(const char* path, node_t* node) {
    size_t len = 0;
    char* buf = readWholeFile(path, &len);
    if (buf == nullptr) return -1;
    const int rc = hashMapForAgent(buf, len, node, path);
    qvlb_free(buf, kFilePurpose, -1);
    return rc;
}

int readInstrProfFile(const char* path) {
    return loadFile(path);
}

int readingEntryPointfile(const char* path) {
    return loadFile(path);
}

int readInstrProfFileRTC(const char* text, size_t len) {
    if (text == nullptr) return -1;
    const Source src{text, len, "collector profile"};
    return loadIntoNewGeneration(&src, 1);
}

int loadDefaultInstrProfileFiles() {
    const char* home = getQVHome();
    if (home == nullptr || home[0] == '\0') return 0;
    char paths[2][2048];
    snprintf(paths[0], sizeof(paths[0]), "%s/%s", home, QV_ENTRY_POINT_FILE);
    snprintf(paths[1], sizeof(paths[1]), "%s/%s", home, QV_INSTR_PROFILE_FILE);
    Source sources[2];
    char* bufs[2] = {nullptr, nullptr};
    int count = 0;
    int rc = 0;
    for (int i = 0; i < 2; i++) {
        struct stat st;
        if (stat(paths[i], &st) != 0) continue;
        size_t len = 0;
        bufs[i] = readWholeFile(paths[i], &len);
        if (bufs[i] == nullptr) {
            rc = -1;
            continue;
        }
        sources[count++] = Source{bufs[i], len, paths[i]};
    }
    if (count > 0) {
        const int applied = loadIntoNewGeneration(sources, count);
        if (rc == 0) rc = applied;
    }
    for (char* b : bufs) qvlb_free(b, kFilePurpose, -1);
    return rc;
}
