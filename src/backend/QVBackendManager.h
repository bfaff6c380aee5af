// Backend bookkeeping of the registry: how many backends exist, the maximum before new names
// fold into "Others", and the maxIPCount keyword.
#ifndef QVBACKENDMANAGER_H
#define QVBACKENDMANAGER_H

// Maximum backends at start and after the keyword defaults.
constexpr int QV_DEFAULT_MAX_IP_COUNT = 32;

// 1 when backendIDCounter has reached maxIPCount (new backends then fold into "Others"), else 0;
// *maxCount and *counter (each may be null) receive the two values compared. Any thread.
int backendLimitReached(int* maxCount, int* counter);

// backendIDCounter + 1 (atomic, saturating). Any thread.
void incrementBackendCounter();

// backendIDCounter now. Any thread.
int getBackendIDCounter();

// Keyword handler of maxIPCount (value, keyword, row index): setMaxIPCount of the value's
// integer. Returns 0, or -1 for a null value.
int parseMaxIPCount(char* value, char* keyword, int index);
// count >= 1 becomes maxIPCount ("maxIPCount = %d"); a smaller one is logged and ignored.
void setMaxIPCount(int count);

#endif
