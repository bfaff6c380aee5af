// Nested mutex creation: exactly one mutex when several threads race to create it.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "foundation/qvlb_mutex.h"

namespace {

TEST(MutexConcurrency, OneMutexCreatedUnderRace) {
    apr_thread_mutex_t* m = nullptr;
    std::vector<std::thread> threads;
    std::vector<apr_thread_mutex_t*> seen(8, nullptr);
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] {
            EXPECT_EQ(qvlb_create_nested_mutex(&m, nullptr), APR_SUCCESS);
            seen[i] = __atomic_load_n(&m, __ATOMIC_ACQUIRE);
        });
    for (auto& t : threads) t.join();
    ASSERT_NE(m, nullptr);
    for (auto* s : seen) EXPECT_EQ(s, m);
    // Nested: the same thread may take it twice.
    QVMutexRef ref(m);
    {
        std::lock_guard<QVMutexRef> outer(ref);
        QVLockGuard inner(m);
    }
    ASSERT_TRUE(ref.try_lock());
    ref.unlock();
    QVLockGuard null_is_fine(nullptr);
}

}  // namespace
