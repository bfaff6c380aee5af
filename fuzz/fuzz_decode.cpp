// libFuzzer harness for the proxy-side decoder: each input is one buffer of received bytes,
// decoded into a live agent (instance 0 with its fpi_tls_map, a test run running) so that the
// replayed events go through the flowpath engine as they would in a proxy. Built by `make fuzz`.
#include <climits>
#include <cstdint>
#include <vector>

#include "codec/qvlb_decode.h"
#include "flowpath/QVPerThreadData.h"
#include "fuzz_agent.h"

namespace {

QVProxyInstance_t* app = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    app = startFuzzAgent();
    if (app != nullptr) qvlbSetDecodeInstance(0, app);
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
