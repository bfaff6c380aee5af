// Socket helpers of the collector connections. All sends retry partial writes and EINTR, wait a
// bounded time for a peer that stops reading and never raise SIGPIPE in the host process.
#ifndef QVLB_SOCK_H
#define QVLB_SOCK_H

#include <apr_network_io.h>
#include <apr_pools.h>

// Connects a blocking TCP socket to host:port (host resolved as IPv4), allocated from pool.
// When unix_path is non-null and non-empty it connects to that Unix-domain socket instead
// (proxy mode with a connection type). Returns the socket, or null with the reason in
// error_buf (len bytes).
apr_socket_t* qvlb_create_client_con(const char* host, int port, char* error_buf, int len, apr_pool_t* pool,
                                     const char* unix_path = nullptr);

// Reads what is available, up to len bytes, into buf. Returns bytes read (> 0), -1 when
// nothing could be read now (would block, timeout, interrupted) and -2 when the peer closed
// the connection or it failed; err_buf (err_len bytes, may be null) receives the reason.
int qvlb_read_bytes(apr_socket_t* sock, char* buf, int len, char* err_buf, int err_len);

// Reads exactly n bytes (blocking). Returns n, or -2 when the connection closed or failed first.
int qvlb_read_n_bytes(apr_socket_t* sock, char* buf, int n, char* err_buf, int err_len);

// Reads one line up to and including '\n' (at most len-1 bytes, NUL-terminated). Returns its
// length, -1 when the buffer filled before a newline, -2 on close or failure.
int qvlb_read_line(apr_socket_t* sock, char* buf, int len, char* err_buf, int err_len);

// Longest time one qvlb_send_n_bytes call may wait for a peer that does not read, in
// milliseconds (default 30000), for a socket without an APR timeout of its own. Tests shorten it.
extern int qvlbSendTimeoutMs;

// Sends all len bytes, waiting at most the socket's APR timeout (qvlbSendTimeoutMs when it has
// none) from the call's start. Returns 0 when everything was sent, -2 on failure or timeout
// (reason in err_buf). *sent (may be null) gets the bytes that went out, on failure too: they
// must never be sent again on this connection.
int qvlb_send_n_bytes(apr_socket_t* sock, const char* buf, int len, char* err_buf, int err_len,
                      int* sent = nullptr);

// Local / peer address of a connected socket as dotted IPv4 text (ip, ip_len bytes) and port.
// Return 0, or -1 when unknown (ip empty, port 0).
int get_src_addr(apr_socket_t* sock, char* ip, int ip_len, int* port);
int get_dst_addr(apr_socket_t* sock, char* ip, int ip_len, int* port);
// Address and port of an APR socket address.
int get_ip_port(apr_sockaddr_t* addr, char* ip, int ip_len, int* port);

#endif
