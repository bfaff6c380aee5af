// Wiring of the layers: fills the hook tables through which lower layers reach higher ones.
#ifndef QV_MODULES_H
#define QV_MODULES_H

// Installs every layer's hooks (start-up steps, data-thread stop steps). Idempotent and cheap;
// call it before agent_init. The SDK's initialisation does so itself.
void qvlb_register_modules();

// Frees and resets every module's state in dependency order (the data dispatcher first, the
// instance record last), so a test that started the whole agent leaves nothing behind. Tests
// only; no agent thread may be running.
void qvlb_reset_modules_for_test();

#endif
