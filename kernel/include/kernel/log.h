/* The kernel log, and the end of the road. */
#ifndef KERNEL_LOG_H
#define KERNEL_LOG_H

#include <kernel/types.h>

/* Appends one message; `format` begins with a level, "<0>" to "<7>". Any context. */
SEAM_PRINTF(int, printk, (const char *format, ...));

/* Stops the kernel: an invariant is broken. Any context. */
SEAM_NORETURN(void, BUG, (void));

#endif
