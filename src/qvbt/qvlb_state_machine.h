// Table-driven automaton over printable 7-bit characters that maps URL patterns (with '*'
// wildcards) to BT identifiers; used by the pattern BT rules.
#ifndef QVLB_STATE_MACHINE_H
#define QVLB_STATE_MACHINE_H

constexpr int QVLB_SM_ROWS = 131;
constexpr int QVLB_SM_PREFIX_ROW = 128;    // id returned as soon as the state is reached
constexpr int QVLB_SM_WHOLE_ROW = 129;     // id returned when the input ends in the state
constexpr int QVLB_SM_WILDCARD_ROW = 130;  // 1 for a '*' state
constexpr int QVLB_SM_DELTA_STATE = 128;
constexpr int QVLB_SM_MAX_STATES = 65536;  // hard cap on states per machine (rows * states ints)

// Rows 0..127 are transitions by character code (0: none); state 0 is the start state.
struct qvlbStateMachine {
    int* state_machine[QVLB_SM_ROWS];  // each row has max_state ints
    int state_count;                   // states in use (starts at 1)
    int max_state;                     // allocated states per row
    int delta_state;                   // growth step
};

// Character codes 32..127 inclusive.
bool is_printable(int c);

// Allocates all rows zeroed with states (128 when not positive, at most QVLB_SM_MAX_STATES) states.
// Returns 0, or -1 for a null machine or when memory is short (the machine is then left empty).
// Overwrites the machine without freeing: call qvlb_state_machine_free first on a used one.
int qvlb_state_machine_init(qvlbStateMachine* machine, int states);

// Adds pattern[start..length) with identifier id: mode non-zero stores it as a prefix match
// (returned as soon as the pattern is read), 0 as a whole match (returned at the end of the input
// or at a '?'). '*' makes the current state a wildcard. A pattern whose path already exists
// changes nothing (the first rule for a pattern wins) and returns 0. Grows the rows by
// delta_state when needed. Returns 0, or -1 for a null machine or pattern, length <= 0, a
// non-printable character (nothing is changed), or when the rows cannot grow (cap or memory).
// Not thread-safe: build a machine before publishing it to readers.
int qvlb_state_machine_add(qvlbStateMachine* machine, const char* pattern, int length, int id, int mode,
                           int start);

// Identifier of text[0..length): the first prefix-match id met on the way, else at the end (or at a
// '?' where the path matched whole) the whole-match id of the state, else its prefix id, else 1.
// A character without a transition goes back to the last wildcard state passed; the start state
// never counts as one, so a pattern with a leading '*' is not retried after a mismatch (gives 1).
// Returns 1 for a null machine or text, length <= 0 or a non-printable character. skip is not used.
// Reads only; safe from many threads on a machine no longer changed. No allocation.
int qvlb_state_machine_get(const qvlbStateMachine* machine, const char* text, int length, int skip);

// Frees the rows and zeroes the machine. Null: nothing.
void qvlb_state_machine_free(qvlbStateMachine* machine);

#endif
