// Wiring of the method monitor into the layers below it: keyword table and method registry.
#ifndef MM_MODULE_H
#define MM_MODULE_H

// Installs the keyword handler of qvVectorSeparator and the registry's hook that makes room in
// the merged array for every registered method. Idempotent; call before agent_init. Not
// thread-safe against a running agent.
void qv_mm_register_hooks();

#endif
