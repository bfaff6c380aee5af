// Agent-side metadata requests. The replay itself belongs to the client manager; an application
// process's request is served as the collector's request for the same selector with the data
// connection as destination, so it runs under the manager's lock like any other replay.
#include "proxy/qv_proxy_meta.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "core/qv_agent.h"
#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_mt_log.h"
#include "tool/QVClientManager.h"

namespace {

const char kModule[] = "PROXY";

int level() {
    QVProxyInstance_t* app = qvApplication;
    return app != nullptr ? qv_load(app->QVSys.controlTraceLevel) : 0;
}

std::string_view field(std::string_view msg, int index) {
    for (int i = 0; i < index; ++i) {
        const size_t p = msg.find(';');
        if (p == std::string_view::npos) return {};
        msg.remove_prefix(p + 1);
    }
    return msg.substr(0, msg.find(';'));
}

int fieldCount(std::string_view msg) {
    int n = 1;
    for (char c : msg) n += c == ';' ? 1 : 0;
    if (!msg.empty() && msg.back() == ';') --n;
    return n;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

// The records go to the instance's data connection, which exists only while a test runs.
bool canSend() {
    QVProxyInstance_t* app = qvApplication;
    if (app != nullptr && qv_load(app->Server.controlCommunicationBusyFlag) != 0) return true;
    QV_TRACE_IF(level() > 0, kModule, "Error", "Getting error while send metadata");
    return false;
}

}  // namespace

int parseAgentMessageRequest(const char* msg, QVAgentMetaRequest* req) {
    req->selectors.clear();
    req->all = false;
    const std::string_view m = msg != nullptr ? msg : "";
    if (fieldCount(m) < 5) {
        req->all = true;
        return 0;
    }
    std::string_view list = field(m, 4);
    while (!list.empty() && req->selectors.size() < QV_CM_MAX_SELECTORS) {
        const size_t p = list.find(',');
        const std::string_view sel = trim(list.substr(0, p));
        if (!sel.empty()) req->selectors.emplace_back(sel);
        if (p == std::string_view::npos) break;
        list.remove_prefix(p + 1);
    }
    return req->selectors.empty() ? -1 : 0;
}

int handleCurrAgentRecord(const std::string& selector) {
    const std::string_view s = selector;
    if (s.rfind("ALL", 0) == 0) return 0;
    for (std::string_view t : {"21", "26", "32", "33", "34", "35", "41", "5", "6", "7"})
        if (s.rfind(t, 0) == 0) return atoi(std::string(t).c_str());
    return -1;
}

int findRecordTypeAndSendMetaData(long long index, int type, bool all) {
    if (!canSend()) return -1;
    if (type == 0) {
        dumpALLMetaDataOnTestSatrt();
        return 0;
    }
    char request[160];
    if (all)
        snprintf(request, sizeof(request), "qv_meta_data_req:action=send_meta_data;;;;%d;%d", type,
                 QV_CM_DEST_DATA);
    else
        snprintf(request, sizeof(request), "qv_meta_data_req:action=send_meta_data;;;;%d_%lld;%d", type,
                 index, QV_CM_DEST_DATA);
    processClientMessage(request);
    return 0;
}

int checkAndSendMetaRecord(int type, const std::string& selector) {
    const size_t us = selector.find('_');
    if (us == std::string::npos) return findRecordTypeAndSendMetaData(0, type, true);
    const char* id = selector.c_str() + us + 1;
    if (*id == '+') ++id;
    return findRecordTypeAndSendMetaData(atoll(id), type, false);
}

void processAgentMessage(const char* msg, std::string* reply) {
    QV_TRACE_IF(level() > 0, kModule, "Info", "Metadata request from an application process '%s'",
                msg != nullptr ? msg : "");
    QVAgentMetaRequest req;
    if (parseAgentMessageRequest(msg, &req) != 0) {
        reply->append("qv_meta_data_rep:result=Error:<Invalid Request : '").append(msg).append("'>\n");
    } else if (req.all) {
        findRecordTypeAndSendMetaData(0, 0, true);
    } else {
        for (const std::string& sel : req.selectors) {
            const int type = handleCurrAgentRecord(sel);
            int rc = 0;
            if (type < 0) {
                reply->append("qv_meta_data_rep:result=Error:<Invalid Request recieved from client : '")
                    .append(sel)
                    .append("'>\n");
                continue;
            }
            rc = type == 0 ? findRecordTypeAndSendMetaData(0, 0, true) : checkAndSendMetaRecord(type, sel);
            if (rc < 0) break;
        }
    }
    reply->append("qv_meta_data_rep:status=complete;\n");
}
