// The backend part of a thread's monitor model: counting one call into the thread's own block.
#ifndef QVBACKENDMONITORDATAMODEL_H
#define QVBACKENDMONITORDATAMODEL_H

struct QVPerThreadData_t;

// Sets the model's lastUpdateTimeStamp and, under its lockForIP, grows ipmDataArray when
// backendId does not fit, makes and prepares the block when absent, then counts the call with
// the duration truncated to 32 bits (updateBackendDataCounters). Returns 0, or -1 (nothing
// counted, logged) when qvTD has no model, backendId < 0 or memory is short. Application thread
// owning qvTD; no allocation after the backend's first call on this thread.
int updatePropertiesOfBackend(QVPerThreadData_t* qvTD, int backendId, long long duration, char isError);

#endif
