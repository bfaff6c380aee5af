// Send-buffer pool and connection helpers shared by the collector's buffered connections (the
// data connection and the auto-sensor connection): the lists, cursors and locks of one pool, and
// the store, move, send, endpoint and peer steps written once for both.
#ifndef QVSENDBUFFERPOOL_H
#define QVSENDBUFFERPOOL_H

#include <cstddef>
#include <mutex>

#include <apr_network_io.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

// One send buffer. Allocated once (buff_list_init) and moved between the free list and the
// send list for the life of the process.
struct nioSettings_t {
    char* buff;     // buff_size bytes
    int use_len;    // bytes filled
    int send_len;   // bytes of use_len already sent
    int buff_size;  // capacity
    nioSettings_t* next;
};

// One collector connection with both endpoints (also used by the control connection).
struct socketInfo_t {
    char sourceIp[16];
    char dstIp[16];
    int srcPort;
    int dstPort;
    char* partial_buf;
    int partial_buf_len;
    apr_socket_t* skt;
};

// One pool. agentBB, the buffer producers fill, is always the head of the free list (writeHead);
// collectorBB, the one being sent, always the head of the send list (readHead). The fields are
// named apart from the modules' writeList/readList names, which are macros over them. Lists and cursors
// change only with moveLock held, and with writeLock too except when the sender queues its sent buffer back;
// writeLock is taken first. The locks are published with a release store: read them with qv_load_acquire.
struct QVSendBufferPool {
    nioSettings_t* writeHead = nullptr;
    nioSettings_t* writeTail = nullptr;
    int writeCount = 0;
    nioSettings_t* readHead = nullptr;
    nioSettings_t* readTail = nullptr;
    int readCount = 0;
    nioSettings_t* agentBB = nullptr;
    nioSettings_t* collectorBB = nullptr;
    int maxNodes = 0;    // limit recorded at the last growth
    int bufferSize = 0;  // bytes per node
    int nodes = 0;       // nodes that exist (under writeLock)
    apr_thread_mutex_t* writeLock = nullptr;
    apr_thread_mutex_t* moveLock = nullptr;
    // Fixed per pool:
    // false: the pool is made once and never grows; true: a new initialisation may add nodes
    // (up to the limit) whenever no free buffer is left.
    bool growsWhenDrained = false;
    void (*countDiscard)() = nullptr;  // called for every record that is dropped or cut
    const char* nodeTag = "";          // memory trace names
    const char* bufferTag = "";
};

// Counts one dropped record in QVSys.discardCount (the usual countDiscard). Any thread.
void qvCountDiscard();

// Store path. qvPoolStore takes writeLock and calls qvPoolAdd; a pool without locks counts a
// discard and returns -99. qvPoolAdd (caller holds writeLock) copies the record into the current
// buffer, spilling into the next free one, and queues full buffers. Returns 0 (also for null or
// empty input), -1 no free buffer (nothing written), -2 no current buffer, -3 record larger than a
// buffer (the part that fits and a newline are written), -99 no pool. Never allocates. The list
// sizes after the store go to *wsize / *rsize (left alone when the pool has no locks).
int qvPoolStore(QVSendBufferPool& p, const char* data, int len, int* wsize, int* rsize);
int qvPoolAdd(QVSendBufferPool& p, const char* data, int len);

// List moves. MoveToRead: head of the free list to the send list (caller holds writeLock, or is
// the only producer). MoveToWrite: the sent head of the send list back to the free list (takes
// both locks). MovePartial: queues the current buffer if it holds any bytes (takes writeLock).
void qvPoolMoveToRead(QVSendBufferPool& p);
void qvPoolMoveToWrite(QVSendBufferPool& p);
void qvPoolMovePartial(QVSendBufferPool& p);

// The buffer being sent (head of the send list), or null. The sender owns it until
// qvPoolSendHead gives it back; producers never touch it.
nioSettings_t* qvPoolHead(QVSendBufferPool& p);

// Sends the unsent bytes of node (the head) on s; on success zeroes it and returns it to the free
// list. *attempted gets the byte count tried, *sent the bytes that went out. Returns 0, or -1 on a
// send failure or timeout (text in err): the node stays queued with send_len past what went out,
// so the caller must close the connection and the next one resumes there. Caller serialises
// senders.
int qvPoolSendHead(QVSendBufferPool& p, nioSettings_t* node, apr_socket_t* s, char* err, size_t errLen,
                   int* attempted, int* sent);

// Queues the partial buffer, then calls send up to 100 times while it returns 1 or more.
void qvPoolFlush(QVSendBufferPool& p, int (*send)());

// True when the pool needs no new nodes (see growsWhenDrained); *existing gets the node count.
bool qvPoolReady(QVSendBufferPool& p, int* existing);

// Allocates count nodes of size bytes and publishes them as the free list under both locks,
// recording maxCount as the limit. expected is the node count the caller saw in qvPoolReady.
// Returns 0 when added, 1 when count < 1, size <= 0, memory is short or another caller grew the
// pool meanwhile (nothing kept), 2 when another caller already made it ready (nothing kept).
int qvPoolAddNodes(QVSendBufferPool& p, int count, int size, int maxCount, int expected);

// Frees every node and clears the lists, counts and lock pointers (the locks belong to the
// caller's APR pool). No other thread may use the pool. Tests and resets only.
void qvPoolFree(QVSendBufferPool& p);

// Creates *pool (if absent) and the nested mutexes *locks[0..n-1] in it, under ctl. A fast check
// without ctl returns at once when every lock exists. Returns 0 when all existed, 1 when some
// were made now, -1 when APR refused.
int qvPoolEnsureLocks(std::recursive_mutex& ctl, apr_pool_t** pool, apr_thread_mutex_t** const* locks, int n);

// Connection helpers.

struct QVEndpoints {
    char src[16];
    char dst[16];
    int srcPort;
    int dstPort;
};

// Copy of the endpoints of c, read under sktLock.
QVEndpoints qvSocketEndpoints(const socketInfo_t& c, apr_thread_mutex_t* sktLock);

// Records s and both its addresses in c. Caller holds the connection's send and socket locks.
void qvSocketSet(socketInfo_t& c, apr_socket_t* s);

// Closes c's socket if open. A send blocked on another thread holds sendLock, so the socket is
// shut down under sktLock alone first; then, with both held, closed, nulled and onClosed(c) run.
// Any thread; no-op when either lock is missing.
void qvSocketClose(socketInfo_t& c, apr_thread_mutex_t* sendLock, apr_thread_mutex_t* sktLock,
                   void (*onClosed)(socketInfo_t& c));

struct QVPeer {
    char host[1024];
    int port;
    const char* unixPath;  // set for a proxy reached over a unix socket
};

enum class QVPeerRoute { None, Proxy, Cluster, Collector };

// Where a collector connection goes: the proxy for an application process in proxy mode, entry 0
// (master) or 1 in cluster mode (logged "Active QVC Server info ..."), else the active collector
// of the list (requireActive: only when get_active_qvc has one; control thread only). The route
// taken goes to *route. Returns false when no address is known.
bool qvChoosePeer(QVPeer* p, bool master, bool requireActive, QVPeerRoute* route);

// Builds the connection request line "<request>:appName=...;QVCollectorPort=%d<portSep>testIdx=
// ...;agentName=%s\n" from the current settings into buf (cap bytes; a longer line is cut and
// still ends in a newline). Returns its length (0 without an instance record).
int qvBuildConnReqLine(char* buf, int cap, const char* request, char portSep);

// Sends line (len bytes), and one more "\n" when extraNewline, on c's socket under sendLock.
// Returns 0 when sent, -1 without sendLock (nothing tried), 1 without a socket or on a send error.
int qvSendReqLine(socketInfo_t& c, apr_thread_mutex_t* sendLock, const char* line, int len,
                  bool extraNewline);

// True in an application process that reports to a proxy instead of the collector.
bool qvIsProxyApplication();

#endif
