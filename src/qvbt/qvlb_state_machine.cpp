// Pattern automaton of the pattern BT rules: building by pattern walk, lookup by table walk.
#include "qvbt/qvlb_state_machine.h"

#include <cstring>

#include "foundation/qvlb_mem.h"

namespace {

const char kRowPurpose[] = "state machine row";

int* alloc_row(int states) {
    return static_cast<int*>(qvlb_calloc(static_cast<size_t>(states) * sizeof(int), kRowPurpose, states));
}

// Replaces every row by a larger copy. All-or-nothing, so the rows never differ in size.
int grow(qvlbStateMachine* m, int add) {
    if (add <= 0 || m->max_state > QVLB_SM_MAX_STATES - add) return -1;
    const int bigger = m->max_state + add;
    int* rows[QVLB_SM_ROWS];
    for (int r = 0; r < QVLB_SM_ROWS; ++r) {
        rows[r] = alloc_row(bigger);
        if (rows[r] == nullptr) {
            for (int k = 0; k < r; ++k) qvlb_free(rows[k], kRowPurpose, bigger);
            return -1;
        }
        memcpy(rows[r], m->state_machine[r], static_cast<size_t>(m->max_state) * sizeof(int));
    }
    for (int r = 0; r < QVLB_SM_ROWS; ++r) {
        qvlb_free(m->state_machine[r], kRowPurpose, m->max_state);
        m->state_machine[r] = rows[r];
    }
    m->max_state = bigger;
    return 0;
}

}  // namespace

bool is_printable(int c) {
    return c >= 32 && c <= 127;
}

int qvlb_state_machine_init(qvlbStateMachine* machine, int states) {
    if (machine == nullptr) return -1;
    memset(machine, 0, sizeof(*machine));
    int n = states > 0 ? states : 128;
    if (n > QVLB_SM_MAX_STATES) n = QVLB_SM_MAX_STATES;
    for (int r = 0; r < QVLB_SM_ROWS; ++r) {
        machine->state_machine[r] = alloc_row(n);
        if (machine->state_machine[r] == nullptr) {
            for (int k = 0; k < r; ++k) qvlb_free(machine->state_machine[k], kRowPurpose, n);
            memset(machine, 0, sizeof(*machine));
            return -1;
        }
    }
    machine->max_state = n;
    machine->delta_state = QVLB_SM_DELTA_STATE;
    machine->state_count = 1;
    return 0;
}

int qvlb_state_machine_add(qvlbStateMachine* machine, const char* pattern, int length, int id, int mode,
                           int start) {
    if (machine == nullptr || pattern == nullptr || length <= 0 || machine->max_state <= 0) return -1;
    if (start < 0) start = 0;
    int** sm = machine->state_machine;

    // Dry walk first: reject bad characters and detect a known pattern before changing anything.
    bool known = true;
    int state = 0;
    for (int i = start; i < length; ++i) {
        const int c = static_cast<unsigned char>(pattern[i]);
        if (!is_printable(c)) return -1;
        if (c == '*' || !known) continue;
        const int next = sm[c][state];
        if (next == 0)
            known = false;
        else
            state = next;
    }
    if (known) return 0;

    if (length > QVLB_SM_MAX_STATES) return -1;
    if (length + machine->state_count + 1 > machine->max_state) {
        const int add = length > machine->delta_state ? machine->delta_state + length : machine->delta_state;
        if (grow(machine, add) != 0) return -1;
        sm = machine->state_machine;
    }

    state = 0;
    for (int i = start; i < length; ++i) {
        const int c = static_cast<unsigned char>(pattern[i]);
        if (c == '*') {
            sm[QVLB_SM_WILDCARD_ROW][state] = 1;
            continue;
        }
        int next = sm[c][state];
        if (next == 0) {
            next = machine->state_count++;
            sm[c][state] = next;
        }
        state = next;
    }
    sm[mode != 0 ? QVLB_SM_PREFIX_ROW : QVLB_SM_WHOLE_ROW][state] = id;
    return 0;
}

int qvlb_state_machine_get(const qvlbStateMachine* machine, const char* text, int length, int skip) {
    (void)skip;
    if (machine == nullptr || text == nullptr || length <= 0 || machine->max_state <= 0) return 1;
    int* const* sm = machine->state_machine;
    const int* prefix = sm[QVLB_SM_PREFIX_ROW];
    const int* whole = sm[QVLB_SM_WHOLE_ROW];
    const int* wild = sm[QVLB_SM_WILDCARD_ROW];
    int state = 0;
    // 0 means no wildcard remembered: a leading '*' (the start state) is never returned to.
    int wildcard = 0;
    for (int i = 0; i < length; ++i) {
        const int c = static_cast<unsigned char>(text[i]);
        if (!is_printable(c)) return 1;
        // At most two rounds: a return to the wildcard state either moves on or consumes c there.
        for (;;) {
            if (wild[state]) wildcard = state;
            const int next = sm[c][state];
            if (next != 0) {
                state = next;
                if (prefix[state] != 0) return prefix[state];
                break;
            }
            if (wild[state]) break;
            if (c == '?' && whole[state] != 0) return whole[state];
            if (wildcard == 0) return 1;
            state = wildcard;
        }
    }
    if (whole[state] != 0) return whole[state];
    if (prefix[state] != 0) return prefix[state];
    return 1;
}

void qvlb_state_machine_free(qvlbStateMachine* machine) {
    if (machine == nullptr) return;
    for (int r = 0; r < QVLB_SM_ROWS; ++r)
        qvlb_free(machine->state_machine[r], kRowPurpose, machine->max_state);
    memset(machine, 0, sizeof(*machine));
}
