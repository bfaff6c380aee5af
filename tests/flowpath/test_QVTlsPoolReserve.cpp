// Tests of the record reserve: the background thread prepares a block after each carve, the next
// carve links it, and stopping frees what was not used.
#include <gtest/gtest.h>

#include <apr_time.h>

#include "flowpath/QVTlsPoolReserve.h"
#include "flowpath/flowpath_fixture.h"

namespace {

class PoolReserveConcurrency : public AgentTest {
  protected:
    void SetUp() override {
        startAgent();
        qv_flowpath_register_hooks();
    }
    // Waits for the block the reserve prepares after a carve.
    static bool takeWhenReady(QVTlsPreparedBlock* b) {
        for (int i = 0; i < 400; i++) {
            if (qvTlsPoolReserveTake(b)) return true;
            apr_sleep(5000);
        }
        return false;
    }
};

TEST_F(PoolReserveConcurrency, CarveAsksForABlockWithZeroedRecordsAndTheirLocks) {
    QVTlsPreparedBlock b;
    EXPECT_FALSE(qvTlsPoolReserveTake(&b));  // nothing asked for yet
    qvAgentHooks.createTlsPool();
    ASSERT_TRUE(takeWhenReady(&b));
    ASSERT_NE(b.pool, nullptr);
    EXPECT_TRUE(b.withLocks);
    EXPECT_FALSE(b.withModels);  // no monitor layer wired in this test
    for (int i = 0; i < QV_TLS_POOL_BLOCK; i++)
        EXPECT_TRUE(b.pool[i].sequenceBlobLock && b.pool[i].updateBTLock && b.pool[i].free_next == nullptr);
    QVTlsPreparedBlock again;
    EXPECT_FALSE(qvTlsPoolReserveTake(&again));  // one block per request
    qvTlsPreparedBlockDiscard(&b);
    EXPECT_EQ(b.pool, nullptr);
}

TEST_F(PoolReserveConcurrency, LinkedBlockContinuesNumberingAndStopFreesTheSpare) {
    qvAgentHooks.createTlsPool();
    for (int i = 0; i < 65; i++) ASSERT_NE(get_free_tls_slot(), nullptr);
    EXPECT_EQ(ints(g_tlsidx, gFreeTLSCnt), ints(128, 63));
    // The grown block's records, whichever way it was made, are numbered on from the first.
    QVPerThreadData_t* last = gFreeTLSTail;
    EXPECT_EQ(ints(last->tlsIdx, last->tlThreadId), ints(127, 64 + 63 + 1));
    // A spare made after the second carve is freed by the stop (the sanitizer build checks the
    // leak); a later carve starts the thread again.
    qvTlsPoolReserveStop();
    {
        QVLockGuard guard(tlsMutex);
        ASSERT_NE(create_tls_pool(gBusyTLSCnt), nullptr);
    }
    QVTlsPreparedBlock b;
    ASSERT_TRUE(takeWhenReady(&b));
    qvTlsPreparedBlockDiscard(&b);
}

}  // namespace
