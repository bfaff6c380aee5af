// libFuzzer harness for the proxy-side decoder: each input is one buffer of received bytes,
// decoded into a live agent (instance 0 with its fpi_tls_map, a test run running) so that the
// replayed events go through the flowpath engine as they would in a proxy. Built by `make fuzz`.
#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "codec/qvlb_decode.h"
#include "core/qv_agent.h"
#include "flowpath/QVPerThreadData.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_hashmap.h"
#include "sdk/qv_sdk.h"

namespace {

QVProxyInstance_t* app = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A private agent home for the trace logs.
    char home[] = "/tmp/qv_fuzz_home_XXXXXX";
    if (mkdtemp(home) == nullptr) return 0;
    const std::string h = std::string(home) + "/";
    setenv("QVHOME", h.c_str(), 1);
    (void)system(("mkdir -p '" + h + "logs' '" + h + "config'").c_str());
    qv_init_internal(0);
    app = qvApplication;
    if (app == nullptr) return 0;
    qv_agent_shutdown();
    qv_store(qvAgentStopping, 0);
    qv_store(app->QVSys.bciInstrSessionPct, 100);
    qv_store(app->Server.testRunRunning, 1);
    app->fpi_tls_map = create_hashmap(nullptr);
    qvlbSetDecodeInstance(0, app);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (app == nullptr || size > INT_MAX) return 0;
    // decodeMessage takes the receive buffer as it is; give it a private, exactly sized copy so
    // that any read past the input is caught.
    std::vector<char> buf(data, data + size);
    decodeMessage(buf.data(), static_cast<int>(size), 0);
    // Give back every transaction the input left running (also those a colliding Start pushed
    // out of the map), so that inputs stay independent and the pool does not grow.
    dumpFpFromBusyList();
    clear_hashmap(app->fpi_tls_map);
    return 0;
}
