// Wiring of the codec layer into the flowpath engine's hook table.
#include "codec/codec_module.h"

#include "codec/qvlb_encode.h"
#include "flowpath/QVFlowpathGenerator.h"

namespace {

// The engine's table takes mutable strings; the encoders only read them.
void startHook(int qTimeMS, long fpi, char* fp_header, char* url, char* btHeaderValue, char* qvCookieSet,
               char* wbCookieSet, char* correlationHeader, long long startTimeFP) {
    transactionStartEncode(qTimeMS, fpi, fp_header, url, btHeaderValue, qvCookieSet, wbCookieSet,
                           correlationHeader, startTimeFP);
}

void entryHook(int mid, long fpi, long threadId, char* methodName, char* query_string, char* urlParameter,
               long long startTime) {
    MethodEntryEncode(mid, fpi, threadId, methodName, query_string, urlParameter, startTime);
}

void exitHook(int mid, int statusCode, int eventType, int isCallout, long threadId, long duration, long fpi,
              long cpuTime, char* methodName, char* backend_header) {
    MethodExitEncode(mid, statusCode, eventType, isCallout, threadId, duration, fpi, cpuTime, methodName,
                     backend_header);
}

}  // namespace

void qv_codec_register_hooks() {
    qvFlowpathHooks.transactionStartEncode = startHook;
    qvFlowpathHooks.transactionEndEncode = transactionEndEncode;
    qvFlowpathHooks.transactionResetEncode = transactionResetEncode;
    qvFlowpathHooks.MethodEntryEncode = entryHook;
    qvFlowpathHooks.MethodExitEncode = exitHook;
}
