// Wiring of the codec layer: installs the proxy-mode encoders into the flowpath engine.
#ifndef CODEC_MODULE_H
#define CODEC_MODULE_H

// Fills the five encoder entries of qvFlowpathHooks (transactionStartEncode,
// transactionEndEncode, transactionResetEncode, MethodEntryEncode, MethodExitEncode). The engine
// calls them only in a process that forwards to a proxy. Idempotent; call before agent_init.
// Not thread-safe against a running agent.
void qv_codec_register_hooks();

#endif
