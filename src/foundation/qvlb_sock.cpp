// Client sockets of the collector and proxy connections: connect, read, send without SIGPIPE,
// and address text.
#include "foundation/qvlb_sock.h"

#include <apr_portable.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_fault.h"

int qvlbSendTimeoutMs = 30000;

namespace {

constexpr apr_interval_time_t kConnectTimeout = 5 * APR_USEC_PER_SEC;

void set_msg(char* err_buf, int err_len, const char* text) {
    if (err_buf == nullptr || err_len <= 0) return;
    snprintf(err_buf, static_cast<size_t>(err_len), "%s", text);
}

void set_apr_err(char* err_buf, int err_len, const char* what, apr_status_t rv) {
    char text[256];
    apr_strerror(rv, text, sizeof(text));
    if (err_buf == nullptr || err_len <= 0) return;
    snprintf(err_buf, static_cast<size_t>(err_len), "%s: %s", what, text);
}

void set_errno_err(char* err_buf, int err_len, const char* what, int e) {
    char text[256];
    const char* msg = strerror_r(e, text, sizeof(text));  // GNU variant
    if (err_buf == nullptr || err_len <= 0) return;
    snprintf(err_buf, static_cast<size_t>(err_len), "%s: %s", what, msg);
}

int os_fd(apr_socket_t* sock) {
    apr_os_sock_t fd = -1;
    if (apr_os_sock_get(&fd, sock) != APR_SUCCESS) return -1;
    return fd;
}

// Milliseconds to wait for readiness: the socket's APR timeout, or forever for a socket
// without one.
int wait_ms(apr_socket_t* sock) {
    apr_interval_time_t t = -1;
    apr_socket_timeout_get(sock, &t);
    if (t <= 0) return -1;
    const apr_interval_time_t ms = t / 1000;
    return ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms > 0 ? ms : 1);
}

long long monotonic_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Whole wait allowed to one send call: the socket's own timeout, else the agent's bound.
long long send_bound_ms(apr_socket_t* sock) {
    apr_interval_time_t t = -1;
    apr_socket_timeout_get(sock, &t);
    if (t > 0) return t / 1000 > 0 ? t / 1000 : 1;
    const int d = qv_load(qvlbSendTimeoutMs);
    return d > 0 ? d : 1;
}

// 1 ready, 0 timed out, -1 error.
int wait_fd(int fd, short events, int timeout_ms) {
    for (;;) {
        struct pollfd p = {fd, events, 0};
        const int r = poll(&p, 1, timeout_ms);
        if (r > 0) return 1;
        if (r == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

apr_socket_t* connect_unix(const char* path, char* err_buf, int len, apr_pool_t* pool) {
    struct sockaddr_un sa;
    memset(&sa, 0, sizeof(sa));
    sa.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(sa.sun_path)) {
        set_msg(err_buf, len, "Unix socket path too long");
        return nullptr;
    }
    memcpy(sa.sun_path, path, strlen(path) + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        set_errno_err(err_buf, len, "socket", errno);
        return nullptr;
    }
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof(sa));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        set_errno_err(err_buf, len, "connect", errno);
        close(fd);
        return nullptr;
    }
    apr_socket_t* sock = nullptr;
    apr_os_sock_t osfd = fd;
    apr_status_t rv = apr_os_sock_put(&sock, &osfd, pool);
    if (rv != APR_SUCCESS) {
        set_apr_err(err_buf, len, "apr_os_sock_put", rv);
        close(fd);
        return nullptr;
    }
    return sock;
}

}  // namespace

apr_socket_t* qvlb_create_client_con(const char* host, int port, char* error_buf, int len, apr_pool_t* pool,
                                     const char* unix_path) {
    if (error_buf != nullptr && len > 0) error_buf[0] = '\0';
    if (pool == nullptr) {
        set_msg(error_buf, len, "No memory pool");
        return nullptr;
    }
    if (qvlb_fault(QV_FAULT_CONNECT)) {
        set_msg(error_buf, len, "Injected connect failure");
        return nullptr;
    }
    if (unix_path != nullptr && unix_path[0] != '\0') return connect_unix(unix_path, error_buf, len, pool);
    if (host == nullptr || host[0] == '\0' || port <= 0 || port > 65535) {
        set_msg(error_buf, len, "Invalid host or port");
        return nullptr;
    }
    apr_sockaddr_t* sa = nullptr;
    apr_status_t rv = apr_sockaddr_info_get(&sa, host, APR_INET, static_cast<apr_port_t>(port), 0, pool);
    if (rv != APR_SUCCESS) {
        set_apr_err(error_buf, len, "Unable to resolve host", rv);
        return nullptr;
    }
    apr_socket_t* sock = nullptr;
    rv = apr_socket_create(&sock, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool);
    if (rv != APR_SUCCESS) {
        set_apr_err(error_buf, len, "Unable to create socket", rv);
        return nullptr;
    }
    // A bounded connect, then a plain blocking socket for the connection's life.
    apr_socket_timeout_set(sock, kConnectTimeout);
    rv = apr_socket_connect(sock, sa);
    if (rv != APR_SUCCESS) {
        set_apr_err(error_buf, len, "Unable to connect", rv);
        apr_socket_close(sock);
        return nullptr;
    }
    apr_socket_timeout_set(sock, -1);
    return sock;
}

int qvlb_read_bytes(apr_socket_t* sock, char* buf, int len, char* err_buf, int err_len) {
    if (sock == nullptr || buf == nullptr || len <= 0) {
        set_msg(err_buf, err_len, "Invalid argument");
        return -2;
    }
    if (qvlb_fault(QV_FAULT_RECV)) {
        set_msg(err_buf, err_len, "Injected receive failure");
        return -2;
    }
    apr_size_t n = static_cast<apr_size_t>(len);
    const apr_status_t rv = apr_socket_recv(sock, buf, &n);
    if (n > 0) return static_cast<int>(n);
    if (APR_STATUS_IS_EAGAIN(rv) || APR_STATUS_IS_TIMEUP(rv) || APR_STATUS_IS_EINTR(rv)) {
        set_apr_err(err_buf, err_len, "Nothing to read", rv);
        return -1;
    }
    if (rv == APR_EOF || rv == APR_SUCCESS) {
        set_msg(err_buf, err_len, "Connection closed by peer");
        return -2;
    }
    set_apr_err(err_buf, err_len, "Receive failed", rv);
    return -2;
}

int qvlb_read_n_bytes(apr_socket_t* sock, char* buf, int n, char* err_buf, int err_len) {
    if (sock == nullptr || buf == nullptr || n < 0) {
        set_msg(err_buf, err_len, "Invalid argument");
        return -2;
    }
    int got = 0;
    while (got < n) {
        const int r = qvlb_read_bytes(sock, buf + got, n - got, err_buf, err_len);
        if (r > 0) {
            got += r;
            continue;
        }
        if (r == -2) return -2;
        // Nothing yet: wait for data unless the socket's own timeout has already expired.
        apr_interval_time_t t = -1;
        apr_socket_timeout_get(sock, &t);
        if (t > 0) {
            set_msg(err_buf, err_len, "Timed out");
            return -2;
        }
        if (wait_fd(os_fd(sock), POLLIN, -1) < 0) {
            set_errno_err(err_buf, err_len, "poll", errno);
            return -2;
        }
    }
    return n;
}

int qvlb_read_line(apr_socket_t* sock, char* buf, int len, char* err_buf, int err_len) {
    if (sock == nullptr || buf == nullptr || len <= 0) {
        set_msg(err_buf, err_len, "Invalid argument");
        return -2;
    }
    buf[0] = '\0';
    if (qvlb_fault(QV_FAULT_RECV)) {
        set_msg(err_buf, err_len, "Injected receive failure");
        return -2;
    }
    const int fd = os_fd(sock);
    if (fd < 0) {
        set_msg(err_buf, err_len, "Socket not open");
        return -2;
    }
    int got = 0;
    // Peek first and consume only up to the newline, so bytes after the line stay in the socket.
    while (got < len - 1) {
        const ssize_t n = recv(fd, buf + got, static_cast<size_t>(len - 1 - got), MSG_PEEK);
        if (n == 0) {
            buf[got] = '\0';
            set_msg(err_buf, err_len, "Connection closed by peer");
            return -2;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                const int w = wait_fd(fd, POLLIN, wait_ms(sock));
                if (w > 0) continue;
                buf[got] = '\0';
                if (w == 0)
                    set_msg(err_buf, err_len, "Timed out");
                else
                    set_errno_err(err_buf, err_len, "poll", errno);
                return -2;
            }
            buf[got] = '\0';
            set_errno_err(err_buf, err_len, "recv", errno);
            return -2;
        }
        const void* nl = memchr(buf + got, '\n', static_cast<size_t>(n));
        const size_t take =
            nl ? static_cast<size_t>(static_cast<const char*>(nl) - (buf + got)) + 1 : static_cast<size_t>(n);
        // The peeked bytes are queued, so this consumes exactly them without blocking.
        size_t done = 0;
        while (done < take) {
            const ssize_t r = recv(fd, buf + got + done, take - done, 0);
            if (r > 0) {
                done += static_cast<size_t>(r);
            } else if (r < 0 && errno == EINTR) {
                continue;
            } else {
                buf[got + done] = '\0';
                set_errno_err(err_buf, err_len, "recv", r == 0 ? ECONNRESET : errno);
                return -2;
            }
        }
        got += static_cast<int>(take);
        if (nl != nullptr) {
            buf[got] = '\0';
            return got;
        }
    }
    buf[got] = '\0';
    set_msg(err_buf, err_len, "Line longer than the buffer");
    return -1;
}

int qvlb_send_n_bytes(apr_socket_t* sock, const char* buf, int len, char* err_buf, int err_len, int* sent) {
    if (sent != nullptr) *sent = 0;
    if (sock == nullptr || (buf == nullptr && len > 0) || len < 0) {
        set_msg(err_buf, err_len, "Invalid argument");
        return -2;
    }
    if (qvlb_fault(QV_FAULT_SEND)) {
        set_msg(err_buf, err_len, "Injected send failure");
        return -2;
    }
    if (len == 0) return 0;
    const int fd = os_fd(sock);
    if (fd < 0) {
        set_msg(err_buf, err_len, "Socket not open");
        return -2;
    }
    // A peer that has gone (a collector killed, say) still lets the first send succeed: the
    // kernel queues the bytes and only its reset tells us, so they would be lost unseen. The
    // caller keeps them when the send fails here.
    pollfd gone{fd, POLLRDHUP, 0};
    if (poll(&gone, 1, 0) > 0 && (gone.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
        set_msg(err_buf, err_len, "Connection closed by peer");
        return -2;
    }
    // Never blocks in send itself: a collector that stops reading must not hold this thread (and
    // whoever joins it) longer than the bound.
    const long long deadline = monotonic_ms() + send_bound_ms(sock);
    size_t done = 0;
    const size_t total = static_cast<size_t>(len);
    while (done < total) {
        // MSG_NOSIGNAL: a peer that went away must give EPIPE here, never a SIGPIPE in the host.
        const ssize_t n = send(fd, buf + done, total - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<size_t>(n);
            if (sent != nullptr) *sent = static_cast<int>(done);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const long long left = deadline - monotonic_ms();
            const int w =
                left > 0 ? wait_fd(fd, POLLOUT, left > INT_MAX ? INT_MAX : static_cast<int>(left)) : 0;
            if (w > 0) continue;
            if (w == 0)
                set_msg(err_buf, err_len, "Send timed out");
            else
                set_errno_err(err_buf, err_len, "poll", errno);
            return -2;
        }
        set_errno_err(err_buf, err_len, "send", n == 0 ? EPIPE : errno);
        return -2;
    }
    return 0;
}

int get_ip_port(apr_sockaddr_t* addr, char* ip, int ip_len, int* port) {
    if (ip != nullptr && ip_len > 0) ip[0] = '\0';
    if (port != nullptr) *port = 0;
    if (addr == nullptr || addr->family != APR_INET) return -1;
    if (ip != nullptr && ip_len > 0) {
        if (apr_sockaddr_ip_getbuf(ip, static_cast<apr_size_t>(ip_len), addr) != APR_SUCCESS) {
            ip[0] = '\0';
            return -1;
        }
    }
    if (port != nullptr) *port = addr->port;
    return 0;
}

namespace {

// Asks the kernel directly: APR caches endpoint addresses lazily (not thread-safe) and does not
// know the family of a socket adopted with apr_os_sock_put.
int endpoint(apr_socket_t* sock, bool local, char* ip, int ip_len, int* port) {
    if (ip != nullptr && ip_len > 0) ip[0] = '\0';
    if (port != nullptr) *port = 0;
    if (sock == nullptr) return -1;
    const int fd = os_fd(sock);
    if (fd < 0) return -1;
    struct sockaddr_storage ss;
    socklen_t sl = sizeof(ss);
    const int rc = local ? getsockname(fd, reinterpret_cast<struct sockaddr*>(&ss), &sl)
                         : getpeername(fd, reinterpret_cast<struct sockaddr*>(&ss), &sl);
    if (rc != 0 || ss.ss_family != AF_INET) return -1;
    const auto* in = reinterpret_cast<const struct sockaddr_in*>(&ss);
    if (ip != nullptr && ip_len > 0 &&
        inet_ntop(AF_INET, &in->sin_addr, ip, static_cast<socklen_t>(ip_len)) == nullptr) {
        ip[0] = '\0';
        return -1;
    }
    if (port != nullptr) *port = ntohs(in->sin_port);
    return 0;
}

}  // namespace

int get_src_addr(apr_socket_t* sock, char* ip, int ip_len, int* port) {
    return endpoint(sock, true, ip, ip_len, port);
}

int get_dst_addr(apr_socket_t* sock, char* ip, int ip_len, int* port) {
    return endpoint(sock, false, ip, ip_len, port);
}
