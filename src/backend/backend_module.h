// Wiring of the backend monitor into the layers below it: keyword table and method registry.
#ifndef BACKEND_MODULE_H
#define BACKEND_MODULE_H

// Installs the keyword handlers of maxIPCount, enableBackendMonitor and DBIPName, the keyword
// defaults of the backend monitor and the SQL capture record, the registry's backend hooks
// (limit, counter, merged-array room) and the backend part of updateInstanceInfo. Idempotent;
// call before agent_init. Not thread-safe against a running agent.
void qv_backend_register_hooks();

#endif
