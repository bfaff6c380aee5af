// Internals of the extension interface (include/qv_ext.h) that tests reach.
#ifndef QV_EXT_INTERNAL_H
#define QV_EXT_INTERNAL_H

#include <qv_ext.h>

// Makes every request handle stale, forgets the cached registry records and the fork and
// logged-error state, and returns to "not started" (registered names and ids stay). Tests only,
// after the agent's modules were reset; no call may run meanwhile.
void qv_ext_reset_for_test();

#endif
