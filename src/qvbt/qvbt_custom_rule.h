// Custom BT rules (rule-file type 2): the parsed rule record, its keyword lexicon, and the
// automaton that names a request by the first matching rule (HTTP method, URI or parameters).
#ifndef QVBT_CUSTOM_RULE_H
#define QVBT_CUSTOM_RULE_H

constexpr int QVBT_MAX_URI_PARAM_OBJ = 256;
constexpr int QVBT_MAX_LEXICON = 256;

// Rule modes of a custom rule.
constexpr int QVBT_CUSTOM_METHOD = 1;
constexpr int QVBT_CUSTOM_URI = 2;
constexpr int QVBT_CUSTOM_PARAM = 3;

// One parameter criterion of a parameter-mode rule.
struct URIParamObject {
    char parameterName[256];
    char checkExistence;  // 1: the parameter only has to be present
    char parameterValue[256];
    char parameterOperation;  // operation code of getOperationType
};

// One rule of the lexicon: a keyword (method name, URI value or parameter name) with the
// constraint it is matched under and the BT name it gives.
struct QVBTLexiconEntry {
    int ruleMode;              // QVBT_CUSTOM_*
    char keyword[256];         // method text, URI value, or parameter name
    unsigned char constraint;  // method code (mode 1), operation code (modes 2 and 3)
    char reverse;              // URI rules: the outcome is negated
    char enabled;              // setEnabled of its line
    unsigned int priority;     // smaller wins; equal priorities: earlier line wins
    char btName[256];          // setRuleName of its line
    int paramFirst;            // parameter rules: criteria matchingURIParamObj[paramFirst..+paramCount)
    int paramCount;
};

struct QVBTLexicon {
    int count;
    QVBTLexiconEntry entries[QVBT_MAX_LEXICON];
};

// The custom rule being read. Written only by the rule reader (under qvbt_rule_lock()); requests
// read the automaton built from it, never this record.
struct QVBTCustomRule {
    char chkExistence;
    char activateReversCondition;
    char setEnabled;
    char UriOperationType;
    char matchHttpMethod;
    char HTTPMethod[64];
    char rule_name[128];
    char setRuleName[256];
    char MatchUriValue[256];
    int rule_mode;
    int match_only_uri_count;
    unsigned int match_only_param_count;
    unsigned int priority;
    unsigned int keyword_count;
    QVBTLexicon* dictionary;
    URIParamObject* matchingURIParamObj[QVBT_MAX_URI_PARAM_OBJ];
};

// The custom-rule automaton: an immutable copy of the enabled lexicon entries in match order
// (priority, then line order) with their parameter criteria. Published once built.
struct qvlbTrie {
    int ruleMode;  // rule_mode of the custom rule it was built from (non-zero)
    int count;
    QVBTLexiconEntry* rules;  // count entries
    int paramCount;
    URIParamObject* params;  // paramCount criteria
};

// The rule being read and the current automaton, or null when no custom rule is in force. The
// automaton is published with a release store; read with qv_load_acquire. Earlier automatons stay
// valid until the reset. One of each per application instance (see foundation/qvlb_instance.h).
QVBTCustomRule& qvbtCustomRuleOfInstance();
qvlbTrie*& qvbtTrieNodeOfInstance();
#define custom_rule (qvbtCustomRuleOfInstance())
#define trie_node (qvbtTrieNodeOfInstance())

// Adds a lexicon entry to rule's dictionary (created on first use). Returns the entry, or null when
// the lexicon is full or memory is short (logged). Reader thread.
QVBTLexiconEntry* qvbt_add_lexicon_entry(QVBTCustomRule* rule, int ruleMode, const char* keyword,
                                         unsigned int priority, const char* btName, unsigned char constraint);

// Builds the automaton from rule's dictionary and parameter criteria and publishes it in *trie
// (the previous one is retired). With rule_mode 0 *trie becomes null; otherwise it is built even
// without an enabled entry (it then names every request "others"). Returns 0, or -1 for null
// arguments or when memory is short (*trie is then unchanged). Reader thread.
int qvlb_init_automaton(qvlbTrie** trie, QVBTCustomRule* rule);

// True when the custom rule in force names requests (its rule_mode is non-zero). Any thread.
bool qvbt_custom_naming();

// BT name of the first rule of trie that matches the request, or null. url, query and method may
// be null: a method rule needs the method, a parameter rule the query. No allocation, no lock.
const char* search_match_machine(const qvlbTrie* trie, const char* url, const char* query,
                                 const char* method);

// True when subject (subjectLen bytes) satisfies operation op (getOperationType codes) against
// value: EQUALS, startswith, endswith, contains, matchesRegExp (a subset: literals, '.', '*',
// '^', '$'; unanchored unless '^'/'$' are used), notEmpty (value unused), inList (value is a
// ','-separated list; subject equals one item). Unknown codes: false. Case-sensitive.
bool qvbt_match_operation(int op, const char* subject, int subjectLen, const char* value);

// Frees the dictionary and parameter criteria of custom_rule and zeroes it. Reader thread.
void qvbt_clear_custom_rule();

// Frees every automaton (current and retired) and custom_rule. Tests only.
void qvbt_custom_rule_reset_for_test();

#endif
