// Creation of the agent's nested APR mutexes.
#include "foundation/qvlb_mutex.h"

#include "foundation/qvlb_atomic.h"
#include "foundation/qvlb_util.h"

apr_status_t qvlb_create_nested_mutex(apr_thread_mutex_t** m, apr_pool_t* pool) {
    if (m == nullptr) return APR_EINVAL;
    // Before taking the pool lock: qvlb_apr_init takes it too.
    if (pool == nullptr) qvlb_apr_init();
    // One lock covers both the create-if-null test (so exactly one mutex is made) and the pool
    // allocation (APR pools are not thread-safe).
    std::lock_guard<std::recursive_mutex> guard(qvlb_pool_lock());
    if (qv_load(*m) != nullptr) return APR_SUCCESS;
    if (pool == nullptr) pool = control_pool;
    if (pool == nullptr) return APR_ENOPOOL;
    apr_thread_mutex_t* created = nullptr;
    apr_status_t rv = apr_thread_mutex_create(&created, APR_THREAD_MUTEX_NESTED, pool);
    if (rv == APR_SUCCESS) qv_store_release(*m, created);
    return rv;
}

void qvlb_destroy_mutex(apr_thread_mutex_t** m) {
    if (m == nullptr || *m == nullptr) return;
    std::lock_guard<std::recursive_mutex> guard(qvlb_pool_lock());
    apr_thread_mutex_destroy(*m);
    *m = nullptr;
}
