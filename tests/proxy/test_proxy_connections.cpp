// The proxy's per-connection decoding against a started agent: frames cut anywhere across reads,
// two workers that use the same flowpath instance, and a worker that dies mid-transaction.
#include "codec/codec_fixture.h"
#include "proxy/proxy_harness.h"

namespace {

using namespace proxytest;  // the frame builders

// A connection's receive buffer as the loop thread keeps it: bytes arrive in pieces, the
// decoder gets what is buffered and the unused rest waits for the next piece.
struct Wire {
    explicit Wire(QVDecodeConn* c) : conn(c) {}
    QVDecodeConn* conn;
    std::string pending;
    void deliver(const std::string& bytes, size_t piece) {
        for (size_t i = 0; i < bytes.size(); i += piece) {
            pending += bytes.substr(i, piece);
            const size_t used = qvlbDecodeConnFeed(conn, pending.data(), pending.size());
            pending.erase(0, used);
        }
    }
};

class ProxyConnections : public DecodingAgentTest {
  protected:
    void SetUp() override {
        DecodingAgentTest::SetUp();
        ids_ = qvlbDecodeIdSetCreate();
    }
    void TearDown() override {
        qvlbDecodeIdSetDestroy(ids_);
        DecodingAgentTest::TearDown();
    }
    QVPerThreadData_t* lookup(unsigned long long conn, long fpi) {
        char key[64];
        snprintf(key, sizeof(key), "%llx:%ld", conn, fpi);
        return static_cast<QVPerThreadData_t*>(search_hashmap(app_->fpi_tls_map, key));
    }

    QVDecodeIdSet* ids_ = nullptr;
};

}  // namespace

TEST_F(ProxyConnections, SplitFramesAndSharedIdsStayWithTheirConnection) {
    const long fpi = 0x4000000000001234L;
    Wire a{qvlbDecodeConnCreate(app_, ids_, 1)};
    Wire b{qvlbDecodeConnCreate(app_, ids_, 2)};
    ASSERT_TRUE(a.conn != nullptr && b.conn != nullptr);

    // Both workers open the same instance number; a's frames come one byte at a time, with noise
    // between them, b's whole, interleaved with a's.
    a.deliver(startFrame(fpi, "/a") + "xx", 1);
    b.deliver(startFrame(fpi, "/b"), 4096);
    a.deliver(entryFrame(fpi, "A.one") + exitFrame(fpi, "A.one"), 1);
    b.deliver(entryFrame(fpi, "B.one") + exitFrame(fpi, "B.one") + entryFrame(fpi, "B.two") +
                  exitFrame(fpi, "B.two"),
              7);
    QVPerThreadData_t* ta = lookup(1, fpi);
    QVPerThreadData_t* tb = lookup(2, fpi);
    ASSERT_TRUE(ta != nullptr && tb != nullptr);
    EXPECT_NE(ta, tb);
    EXPECT_STREQ(ta->tlURL, "/a");
    EXPECT_STREQ(tb->tlURL, "/b");
    EXPECT_EQ(ta->seqNum, 3);  // pseudo-method and one pair
    EXPECT_EQ(tb->seqNum, 5);
    // The collector never sees one number twice: the second start got the next free one.
    EXPECT_EQ(ta->flowpathInstance, fpi);
    EXPECT_EQ(tb->flowpathInstance, fpi + 1);
    EXPECT_EQ(qvlbDecodeConnStats(a.conn).renumbered + qvlbDecodeConnStats(b.conn).renumbered, 1);
    EXPECT_EQ(qvlbDecodeConnStats(a.conn).frames, 3);

    // a ends and resets its own; the Reset acts on a's last End even though b's End came later.
    const int freeBefore = qv_load(gFreeTLSCnt);
    a.deliver(endFrame(fpi), 5);
    b.deliver(endFrame(fpi), 4096);
    a.deliver(resetFrame(0), 3);
    EXPECT_EQ(lookup(1, fpi), nullptr);
    EXPECT_EQ(lookup(2, fpi), tb);
    EXPECT_EQ(qv_load(gFreeTLSCnt), freeBefore + 1);
    EXPECT_EQ(qvlbDecodeConnOpen(a.conn), 0);

    long long ended = 0, reset = 0;
    qvlbDecodeConnClose(a.conn, 502, &ended, &reset);
    qvlbDecodeConnClose(b.conn, 502, &ended, &reset);
    // b had ended its transaction: nothing interrupted, but its record is given back.
    EXPECT_EQ(ended + reset, 0);
    EXPECT_EQ(qv_load(gFreeTLSCnt), freeBefore + 2);
    EXPECT_EQ(count_hashmap(app_->fpi_tls_map), 0u);
}

TEST_F(ProxyConnections, DeadWorkersOpenTransactionsAreEndedAndGivenBack) {
    Wire w{qvlbDecodeConnCreate(app_, ids_, 9)};
    ASSERT_NE(w.conn, nullptr);
    const int freeBefore = qv_load(gFreeTLSCnt);
    // Two open transactions, one of them in a method; the process dies in the middle of a frame.
    w.deliver(startFrame(11, "/x") + startFrame(12, "/y") + entryFrame(12, "Y.m") +
                  entryFrame(11, "X.m").substr(0, 20),
              64);
    QVPerThreadData_t* t12 = lookup(9, 12);
    ASSERT_NE(t12, nullptr);
    EXPECT_EQ(qvlbDecodeConnOpen(w.conn), 2);

    long long ended = 0, reset = 0;
    qvlbDecodeConnClose(w.conn, 502, &ended, &reset);
    EXPECT_EQ(ended, 2);
    EXPECT_EQ(reset, 0);
    EXPECT_EQ(qv_load(gFreeTLSCnt), freeBefore);
    EXPECT_EQ(count_hashmap(app_->fpi_tls_map), 0u);

    // With no test running the open ones are only given back.
    Wire v{qvlbDecodeConnCreate(app_, ids_, 10)};
    v.deliver(startFrame(13, "/z"), 64);
    qv_store(app_->Server.testRunRunning, 0);
    qvlbDecodeConnClose(v.conn, 502, &ended, &reset);
    EXPECT_EQ(reset, 1);
}
