// A real TCP peer on 127.0.0.1 for the collector tests.
#include "support/loopback_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

bool LoopbackPeer::start(const std::string& unix_path) {
    listen_fd_ = socket(unix_path.empty() ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
    if (listen_fd_ < 0) return false;
    // Set on the listener, so accepted connections start with it (the window is agreed then).
    if (rcvbuf_ > 0) setsockopt(listen_fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf_, sizeof(rcvbuf_));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    snprintf(un.sun_path, sizeof(un.sun_path), "%s", unix_path.c_str());
    socklen_t len = sizeof(addr);
    if ((unix_path.empty() ? bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr))
                           : bind(listen_fd_, reinterpret_cast<sockaddr*>(&un), sizeof(un))) != 0 ||
        listen(listen_fd_, 16) != 0 ||
        (unix_path.empty() && getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)) {
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    port_ = ntohs(addr.sin_port);
    stop_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void LoopbackPeer::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    for (Conn& c : conns_) {
        if (c.fd >= 0) close(c.fd);
        c.fd = -1;
    }
    if (listen_fd_ >= 0) close(listen_fd_);
    listen_fd_ = -1;
}

int LoopbackPeer::connectionCount() const {
    std::lock_guard<std::mutex> lock(mu_);
    return static_cast<int>(conns_.size());
}

std::string LoopbackPeer::bytes(int conn) const {
    std::lock_guard<std::mutex> lock(mu_);
    if (conn < 0 || conn >= static_cast<int>(conns_.size())) return {};
    return conns_[static_cast<size_t>(conn)].data;
}

bool LoopbackPeer::closed(int conn) const {
    std::lock_guard<std::mutex> lock(mu_);
    return conn >= 0 && conn < static_cast<int>(conns_.size()) && conns_[static_cast<size_t>(conn)].fd < 0;
}

size_t LoopbackPeer::byteCount(int conn) const {
    std::lock_guard<std::mutex> lock(mu_);
    if (conn < 0 || conn >= static_cast<int>(conns_.size())) return 0;
    return conns_[static_cast<size_t>(conn)].data.size();
}

void LoopbackPeer::dropConnection(int conn) {
    std::unique_lock<std::mutex> lock(mu_);
    if (conn < 0 || conn >= static_cast<int>(conns_.size()) || conns_[static_cast<size_t>(conn)].fd < 0)
        return;
    drop_request_ = conn;
    cv_.wait_for(lock, std::chrono::seconds(10), [&] { return drop_request_ < 0; });
}

void LoopbackPeer::setSlowReading(int rcvbuf, int slice, int pause_ms) {
    rcvbuf_ = rcvbuf;
    slice_ = slice;
    pause_ms_ = pause_ms;
}

void LoopbackPeer::pauseReading(int conn, bool paused) {
    std::lock_guard<std::mutex> lock(mu_);
    if (conn >= 0 && conn < static_cast<int>(conns_.size()))
        conns_[static_cast<size_t>(conn)].paused = paused;
}

bool LoopbackPeer::sendTo(int conn, std::string_view text) {
    std::lock_guard<std::mutex> lock(mu_);
    if (conn < 0 || conn >= static_cast<int>(conns_.size()) || conns_[static_cast<size_t>(conn)].fd < 0)
        return false;
    const int fd = conns_[static_cast<size_t>(conn)].fd;
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool LoopbackPeer::waitFor(const std::function<bool()>& pred, int timeout_ms) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        // Woken by each arrival; the short bound also catches conditions outside the peer.
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait_for(lock, std::chrono::milliseconds(10));
    }
}

bool LoopbackPeer::waitForContains(int conn, std::string_view needle, int timeout_ms) {
    return waitFor([&] { return bytes(conn).find(needle) != std::string::npos; }, timeout_ms);
}

void LoopbackPeer::run() {
    std::vector<pollfd> fds;
    std::vector<int> index;  // conns_ index of fds[i] (-1: the listener)
    char buf[65536];
    while (!stop_) {
        fds.clear();
        index.clear();
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (drop_request_ >= 0) {
                Conn& c = conns_[static_cast<size_t>(drop_request_)];
                if (c.fd >= 0) {
                    linger lg{1, 0};
                    setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
                    close(c.fd);
                    c.fd = -1;
                }
                drop_request_ = -1;
                cv_.notify_all();
            }
            fds.push_back({listen_fd_, POLLIN, 0});
            index.push_back(-1);
            for (size_t i = 0; i < conns_.size(); ++i) {
                if (conns_[i].fd < 0 || conns_[i].paused) continue;
                fds.push_back({conns_[i].fd, POLLIN, 0});
                index.push_back(static_cast<int>(i));
            }
        }
        if (poll(fds.data(), fds.size(), 20) <= 0) continue;
        for (size_t i = 0; i < fds.size(); ++i) {
            if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            if (index[i] < 0) {
                const int fd = accept(listen_fd_, nullptr, nullptr);
                if (fd < 0) continue;
                std::lock_guard<std::mutex> lock(mu_);
                conns_.push_back({fd, {}});
                cv_.notify_all();
                continue;
            }
            const size_t want = slice_ > 0 && slice_ < static_cast<int>(sizeof(buf))
                                    ? static_cast<size_t>(slice_)
                                    : sizeof(buf);
            const ssize_t n = read(fds[i].fd, buf, want);
            if (pause_ms_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms_));
            std::lock_guard<std::mutex> lock(mu_);
            Conn& c = conns_[static_cast<size_t>(index[i])];
            if (n > 0) {
                c.data.append(buf, static_cast<size_t>(n));
            } else {
                close(c.fd);
                c.fd = -1;
            }
            cv_.notify_all();
        }
    }
}
