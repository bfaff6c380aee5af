// The live agent the fuzz harnesses decode into: a private agent home for the trace logs, the
// agent started without its threads, a test run running with every flowpath captured, and the
// instance's fpi_tls_map.
#ifndef QV_FUZZ_AGENT_H
#define QV_FUZZ_AGENT_H

#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "sdk/qv_sdk.h"

// The agent's instance, or null when it could not be started.
inline QVProxyInstance_t* startFuzzAgent() {
    char home[] = "/tmp/qv_fuzz_home_XXXXXX";
    if (mkdtemp(home) == nullptr) return nullptr;
    const std::string h = std::string(home) + "/";
    setenv("QVHOME", h.c_str(), 1);
    (void)system(("mkdir -p '" + h + "logs' '" + h + "config'").c_str());
    qv_init_internal(0);
    QVProxyInstance_t* app = qvApplication;
    if (app == nullptr) return nullptr;
    qv_agent_shutdown();
    qv_store(qvAgentStopping, 0);
    qv_store(app->QVSys.bciInstrSessionPct, 100);
    qv_store(app->Server.testRunRunning, 1);
    app->fpi_tls_map = create_hashmap(nullptr);
    return app;
}

#endif
