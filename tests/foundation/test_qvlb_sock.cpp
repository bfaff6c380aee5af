// Client sockets against real loopback (and Unix-domain) listeners made here.
#include <gtest/gtest.h>

#include <apr_network_io.h>

#include <string>
#include <thread>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_sock.h"
#include "foundation/qvlb_util.h"
#include "support/temp_home.h"

namespace {

class SockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qvlb_apr_init();
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        apr_sockaddr_t* sa = nullptr;
        ASSERT_EQ(apr_sockaddr_info_get(&sa, "127.0.0.1", APR_INET, 0, 0, pool_), APR_SUCCESS);
        ASSERT_EQ(apr_socket_create(&listener_, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool_), APR_SUCCESS);
        // A small receive window, so a peer that stops reading stalls the sender soon.
        apr_socket_opt_set(listener_, APR_SO_RCVBUF, 4096);
        ASSERT_EQ(apr_socket_bind(listener_, sa), APR_SUCCESS);
        ASSERT_EQ(apr_socket_listen(listener_, 8), APR_SUCCESS);
        ASSERT_EQ(apr_socket_addr_get(&sa, APR_LOCAL, listener_), APR_SUCCESS);
        port_ = sa->port;
    }
    void TearDown() override {
        qvlb_fault_reset();
        qvlbSendTimeoutMs = 30000;
        apr_pool_destroy(pool_);
    }
    // Connects a client and accepts its server end.
    void connect_pair() {
        client_ = qvlb_create_client_con("127.0.0.1", port_, err_, sizeof(err_), pool_);
        ASSERT_NE(client_, nullptr) << err_;
        ASSERT_EQ(apr_socket_accept(&server_, listener_, pool_), APR_SUCCESS);
    }

    apr_pool_t* pool_ = nullptr;
    apr_socket_t *listener_ = nullptr, *client_ = nullptr, *server_ = nullptr;
    int port_ = 0;
    char err_[256] = "";
};

TEST_F(SockTest, SendToStalledPeerTimesOutReportingWhatWentOutAndResumesThere) {
    connect_pair();
    apr_socket_opt_set(client_, APR_SO_SNDBUF, 4096);
    std::string payload(1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 26);
    const int size = static_cast<int>(payload.size());
    // Nobody reads: the call gives up at the bound (the socket has no timeout of its own) and
    // says how much went out.
    qvlbSendTimeoutMs = 100;
    int sent = -1;
    EXPECT_EQ(qvlb_send_n_bytes(client_, payload.data(), size, err_, sizeof(err_), &sent), -2);
    EXPECT_STREQ(err_, "Send timed out");
    ASSERT_GT(sent, 0);
    ASSERT_LT(sent, size);
    // A reader taking tiny slices: resuming after what went out delivers every byte once, in order.
    std::string received;
    std::thread reader([&] {
        char buf[7];
        int n = 0;
        while (received.size() < payload.size() && (n = qvlb_read_bytes(server_, buf, 7, nullptr, 0)) > 0)
            received.append(buf, static_cast<size_t>(n));
    });
    for (int off = sent, tries = 0; off < size && tries < 10000; ++tries, off += sent) {
        if (qvlb_send_n_bytes(client_, payload.data() + off, size - off, err_, sizeof(err_), &sent) == 0) {
            EXPECT_EQ(sent, size - off);
        }
    }
    reader.join();
    EXPECT_TRUE(received == payload);
    EXPECT_EQ(qvlb_send_n_bytes(client_, nullptr, 1, err_, sizeof(err_), &sent), -2);
    EXPECT_EQ(sent, 0);
    char ip[64];
    int port = 0, peer_port = 0;
    EXPECT_EQ(get_dst_addr(client_, ip, sizeof(ip), &port), 0);
    EXPECT_EQ(std::string(ip) + ":" + std::to_string(port), "127.0.0.1:" + std::to_string(port_));
    EXPECT_EQ(
        get_src_addr(client_, ip, sizeof(ip), &port) + get_dst_addr(server_, ip, sizeof(ip), &peer_port), 0);
    EXPECT_EQ(port, peer_port);
    EXPECT_EQ(get_src_addr(nullptr, ip, sizeof(ip), &port), -1);
}

TEST_F(SockTest, ReadLineReadNReadBytesAndPeerClose) {
    connect_pair();
    const char text[] = "hello\nABCDEFGHtoolongline\n";
    ASSERT_EQ(qvlb_send_n_bytes(server_, text, sizeof(text) - 1, nullptr, 0), 0);
    char buf[64];
    EXPECT_EQ(qvlb_read_line(client_, buf, sizeof(buf), err_, sizeof(err_)), 6);
    EXPECT_STREQ(buf, "hello\n");
    EXPECT_EQ(qvlb_read_n_bytes(client_, buf, 8, err_, sizeof(err_)), 8);
    EXPECT_EQ(std::string(buf, 8), "ABCDEFGH");
    // A line longer than the buffer fills it and reports -1; the rest stays readable.
    EXPECT_EQ(qvlb_read_line(client_, buf, 5, err_, sizeof(err_)), -1);
    EXPECT_STREQ(buf, "tool");
    EXPECT_EQ(qvlb_read_line(client_, buf, sizeof(buf), err_, sizeof(err_)), 8);
    EXPECT_STREQ(buf, "ongline\n");
    // Nothing pending on a socket with a timeout: -1, not an error.
    apr_socket_timeout_set(client_, 20000);
    EXPECT_EQ(qvlb_read_bytes(client_, buf, sizeof(buf), err_, sizeof(err_)), -1);
    apr_socket_timeout_set(client_, -1);
    ASSERT_EQ(qvlb_send_n_bytes(server_, "tail", 4, nullptr, 0), 0);
    apr_socket_close(server_);
    EXPECT_EQ(qvlb_read_bytes(client_, buf, sizeof(buf), err_, sizeof(err_)), 4);
    EXPECT_EQ(qvlb_read_bytes(client_, buf, sizeof(buf), err_, sizeof(err_)), -2);
    EXPECT_EQ(qvlb_read_line(client_, buf, sizeof(buf), err_, sizeof(err_)), -2);
    EXPECT_EQ(qvlb_read_n_bytes(client_, buf, 3, err_, sizeof(err_)), -2);
    // The peer's close is seen before anything is queued (the bytes would be lost unseen), and
    // never as a SIGPIPE killing this process.
    const std::string chunk(64 * 1024, 'z');
    EXPECT_EQ(qvlb_send_n_bytes(client_, chunk.data(), static_cast<int>(chunk.size()), err_, sizeof(err_)),
              -2);
    EXPECT_STREQ(err_, "Connection closed by peer");
}

TEST_F(SockTest, ConnectFailuresFaultPointsAndUnixDomain) {
    qvlb_fault_arm(QV_FAULT_CONNECT, 0, 1);
    EXPECT_EQ(qvlb_create_client_con("127.0.0.1", port_, err_, sizeof(err_), pool_), nullptr);
    EXPECT_NE(std::string(err_).find("Injected"), std::string::npos);
    connect_pair();  // the point disarmed itself after one failure
    qvlb_fault_arm(QV_FAULT_SEND, 0, 1);
    EXPECT_EQ(qvlb_send_n_bytes(client_, "a\n", 2, err_, sizeof(err_)), -2);
    ASSERT_EQ(qvlb_send_n_bytes(server_, "b\n", 2, nullptr, 0), 0);
    char buf[16] = "";
    qvlb_fault_arm(QV_FAULT_RECV, 0, 2);
    EXPECT_EQ(qvlb_read_bytes(client_, buf, sizeof(buf), err_, sizeof(err_)), -2);
    EXPECT_EQ(qvlb_read_line(client_, buf, sizeof(buf), err_, sizeof(err_)), -2);
    EXPECT_EQ(qvlb_read_line(client_, buf, sizeof(buf), err_, sizeof(err_)), 2);
    apr_socket_close(listener_);  // nobody listens on the port any more
    EXPECT_EQ(qvlb_create_client_con("127.0.0.1", port_, err_, sizeof(err_), pool_), nullptr);
    EXPECT_EQ(qvlb_create_client_con(nullptr, port_, err_, sizeof(err_), pool_), nullptr);
    EXPECT_EQ(qvlb_create_client_con("127.0.0.1", port_, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(qvlb_create_client_con("127.0.0.1", 0, err_, sizeof(err_), pool_, "/nonexistent/qv.sock"),
              nullptr);

    // A proxy reached over a Unix-domain socket.
    TempAgentHome dir;
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", dir.file("proxy.sock").c_str());
    const int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    ASSERT_EQ(listen(lfd, 1), 0);
    apr_socket_t* client = qvlb_create_client_con("ignored", 1, err_, sizeof(err_), pool_, sa.sun_path);
    ASSERT_NE(client, nullptr) << err_;
    const int sfd = accept(lfd, nullptr, nullptr);
    ASSERT_EQ(write(sfd, "pong\n", 5), 5);
    EXPECT_EQ(qvlb_read_line(client, buf, sizeof(buf), err_, sizeof(err_)), 5);
    ASSERT_EQ(qvlb_send_n_bytes(client, "ping\n", 5, err_, sizeof(err_)), 0);
    ASSERT_EQ(read(sfd, buf, 5), 5);
    EXPECT_EQ(std::string(buf, 5), "ping\n");
    int port = 1;
    EXPECT_EQ(get_dst_addr(client, buf, sizeof(buf), &port), -1);  // not an IPv4 endpoint
    apr_socket_close(client);
    close(sfd);
    close(lfd);
}

}  // namespace
