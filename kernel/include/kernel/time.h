/* Wall-clock time and random bytes. */
#ifndef KERNEL_TIME_H
#define KERNEL_TIME_H

#include <kernel/types.h>

#if defined(KERNEL_GLUE)
#define kernel_timespec timespec
#endif

/* The time at the last tick; it may lag by one tick and is never set back by it. Any context. */
SEAM(void, current_kernel_time, (struct kernel_timespec * now));

/* Fills `count` bytes at `buffer`. Any context. */
SEAM(void, get_random_bytes, (void *buffer, int count));

#endif
