// Time helpers of the platform services, shared with their tests only (not
// exported, not installed).
#ifndef KV_VISA_IPC_INTERNAL_H
#define KV_VISA_IPC_INTERNAL_H

#include <time.h>

// One monotonic clock reading.
struct timespec get_timespec(void);
// end - start, borrowing a second when the nanoseconds go negative.
struct timespec diff_timespec(struct timespec start, struct timespec end);

#endif
