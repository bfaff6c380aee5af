// A real TCP peer on 127.0.0.1 for the collector tests: accepts connections on its own thread
// and records every byte received, per connection, in arrival order.
#ifndef LOOPBACK_PEER_H
#define LOOPBACK_PEER_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class LoopbackPeer {
  public:
    LoopbackPeer() = default;
    ~LoopbackPeer() { stop(); }
    LoopbackPeer(const LoopbackPeer&) = delete;
    LoopbackPeer& operator=(const LoopbackPeer&) = delete;

    // Binds 127.0.0.1 on a free port (or the Unix-domain socket unix_path when one is given),
    // listens and starts the accept/read thread. False on a socket error.
    bool start(const std::string& unix_path = "");
    // Closes every socket and joins the thread. Safe to call twice.
    void stop();
    int port() const { return port_; }

    // Connections accepted so far (dropped ones included).
    int connectionCount() const;
    // Copy of the bytes received on connection conn (0-based; empty if unknown).
    std::string bytes(int conn) const;
    // Whether connection conn was closed (by the other end or dropConnection).
    bool closed(int conn) const;
    // Number of bytes received on connection conn so far (0 if unknown), without copying them.
    size_t byteCount(int conn) const;
    // Resets connection conn (close with linger 0, so the sender sees a reset) and waits until
    // it is closed. The bytes received stay readable.
    void dropConnection(int conn);

    // A collector that reads slowly; call before start(). Accepted connections get a receive
    // buffer of rcvbuf bytes (0: the system's), and each read takes at most slice bytes and is
    // followed by a pause of pause_ms.
    void setSlowReading(int rcvbuf, int slice, int pause_ms);
    // Stops (paused) or resumes reading connection conn: what the agent sends waits in the kernel,
    // as with a collector that stopped reading.
    void pauseReading(int conn, bool paused);
    // Writes text to connection conn (a collector's reply or command). False when it failed.
    bool sendTo(int conn, std::string_view text);

    // Waits until pred() holds or timeout_ms passes; returns pred()'s last value. pred runs
    // without the peer's lock (it may call the accessors) after each arrival or every 10 ms.
    bool waitFor(const std::function<bool()>& pred, int timeout_ms) const;
    bool waitForContains(int conn, std::string_view needle, int timeout_ms);

  private:
    struct Conn {
        int fd;
        std::string data;
        bool paused = false;
    };
    void run();

    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::vector<Conn> conns_;  // guarded by mu_
    int drop_request_ = -1;    // guarded by mu_
    int rcvbuf_ = 0;
    int slice_ = 0;
    int pause_ms_ = 0;
};

#endif
