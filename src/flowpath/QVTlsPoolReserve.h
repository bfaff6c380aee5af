// Blocks of records made ahead of need. Carving a block (1.1 MB of records, two mutexes per
// record and a monitor model each) takes about half a millisecond, and the pool needs one every 64
// transactions. A background thread keeps up to four blocks ready; create_tls_pool links one and asks for
// more. When none is ready (a burst, a failed allocation, a forked child) get_free_tls_slot carves
// its own outside tlsMutex, so no other request waits for it.
#ifndef QVTLSPOOLRESERVE_H
#define QVTLSPOOLRESERVE_H

#include "flowpath/QVPerThreadData.h"

// A prepared block: zeroed records, their two mutexes when withLocks, and one unregistered model per
// record in models[] when withModels (entries may be null where creation failed). Pool links,
// tlsIdx and tlThreadId are left for create_tls_pool.
struct QVTlsPreparedBlock {
    QVPerThreadData_t* pool;
    QVMonitorDataModel* models[QV_TLS_POOL_BLOCK];
    bool withLocks;
    bool withModels;
};

// Takes a ready block into *out. Never sleeps: returns false when none is ready or the reserve
// stays busy for more than a short spin. The caller owns the block afterwards.
bool qvTlsPoolReserveTake(QVTlsPreparedBlock* out);

// Asks for the next block, starting the background thread on first use (and again in a forked
// child, which has no copy of it), and, when pool is given, hands it the registration of that
// linked block's models (slot i of pool when bit i of slots is set). Never sleeps and never waits
// for the block. Returns false when a registration was not taken (the thread cannot run, its
// queue is full or it stayed busy); the caller then registers the models itself.
bool qvTlsPoolReserveRequest(QVPerThreadData_t* pool = nullptr, uint64_t slots = 0);

// Registers the models stored in slot i of pool for every bit i set in slots, through
// qvFlowpathPoolHooks. Thread-safe; null pool does nothing.
void qvTlsRegisterBlockModels(QVPerThreadData_t* pool, uint64_t slots);

// Writes one byte in every page of fresh zeroed memory, so that a later first write does not fault:
// a fault sleeps while another thread maps or unmaps memory.
void qvTlsFaultIn(void* p, size_t bytes);

// Makes a block as the background thread does (on the caller's thread). False when memory is
// short (logged by the allocation), with nothing left to free.
bool qvTlsPreparedBlockBuild(QVTlsPreparedBlock* b);

// Hands a block the caller made but no longer needs to the reserve as a ready one. Never sleeps.
// True when taken (block->pool is then null); false leaves the block to the caller.
bool qvTlsPoolReserveGive(QVTlsPreparedBlock* block);

// Stops and joins the background thread, registers what it had not registered yet and frees a
// block still unused. The next request starts
// it again. Used by shutdown and tests.
void qvTlsPoolReserveStop();

// Frees a prepared block that will not be linked: its mutexes, its models (through the pool hooks)
// and its records. Null pool does nothing.
void qvTlsPreparedBlockDiscard(QVTlsPreparedBlock* block);

#endif
