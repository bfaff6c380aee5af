// Metadata requests that arrive from an application process instead of the collector: the
// proxy replays the acting instance's cached metadata to that instance's collector.
#ifndef QV_PROXY_META_H
#define QV_PROXY_META_H

#include <string>
#include <vector>

// One parsed agent request: its selectors (field 4 split at ',').
struct QVAgentMetaRequest {
    std::vector<std::string> selectors;
    bool all = false;  // fewer than five fields: everything
};

// Splits msg like the collector's request. Returns 0, or -1 when field 4 names no selector.
int parseAgentMessageRequest(const char* msg, QVAgentMetaRequest* req);
// One selector: its record type (5, 6, 7, 21, 26, 32-35, 41) or -1 for an unknown one; "ALL"
// gives 0 (everything).
int handleCurrAgentRecord(const std::string& selector);
// Replays the records of type the selector names (an id after '_' selects one). Returns the
// number of records sent, or -1 (logged "Getting error while send metadata").
int checkAndSendMetaRecord(int type, const std::string& selector);
int findRecordTypeAndSendMetaData(long long index, int type, bool all);
// Serves the request msg for the acting instance; errors text goes into *reply for the worker,
// followed by the completion line. Loop thread, acting for the worker's instance.
void processAgentMessage(const char* msg, std::string* reply);

#endif
