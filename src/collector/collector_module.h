// Wiring of the collector layer into the hook tables of the layers below it.
#ifndef COLLECTOR_MODULE_H
#define COLLECTOR_MODULE_H

// Fills qvAgentHooks.controlThreadEntry. Idempotent; call before agent_init.
void qv_collector_register_hooks();

#endif
