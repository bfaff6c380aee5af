// The proxy server: one process that serves every worker process of many application instances.
// Workers introduce themselves on a control connection; workers of one identity (appName,
// qvAppServerHost, tierName) share one instance with its own collector connections, BT table,
// monitors and registry. Their data connections carry frames that the loop thread replays as
// flowpaths for that instance.
#ifndef QV_PROXY_SERVER_H
#define QV_PROXY_SERVER_H

#include <cstddef>
#include <string>

struct QVProxyOptions {
    int port = -1;                  // TCP port; -1 takes proxyPort of the settings file, 0 picks one
    std::string socketPath;         // Unix socket; empty takes proxySocketPath, else <home>run/qvproxy.sock
    int maxConnections = 1024;      // worker connections at once; more are refused
    size_t maxBuffer = 262144;      // receive buffer of one connection; longer frames are refused
    int statusIntervalSec = 60;     // period of the status line in the trace log
    int socketMode = 0600;          // permissions of the Unix socket file
    int firstLineTimeoutSec = 10;   // a connection that does not introduce itself in time is closed
    int heartbeatIntervalSec = 30;  // keeps idle worker control connections alive
};

// Starts the agent as the proxy process (settings from <QVHOME>config/proxysetting.conf and
// processes.conf, trace log under <QVHOME>logs/), opens the listeners and starts the loop
// thread. Prints the ready line on stdout. Returns 0, or 1 when the listeners cannot be opened.
int qvProxyInit(const QVProxyOptions& opts);

// Stops the loop thread, ends every worker connection's open flowpaths, flushes each instance's
// buffered records to its collector and stops the instances' threads.
void qvProxyShutdown();

// The status figures as one JSON line (no newline). Loop thread, or any thread once it stopped.
std::string qvProxyStatusJson();

// The proxy server's relay of collector lines to the workers of the acting instance (the
// forwardToProcesses hook of the command handler). Any thread.
void qvProxyForwardToProcesses(const char* data, int len);

#endif
