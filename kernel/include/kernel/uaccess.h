/* The calling process's memory. */
#ifndef KERNEL_UACCESS_H
#define KERNEL_UACCESS_H

#include <kernel/types.h>

/*
 * Each may sleep (a page fault), so process context only. User addresses have 32 bits; an address
 * that the process may not read or write fails, it never faults the kernel.
 */

/* Returns how many bytes at the end were NOT copied: 0 for success. They may be some more than
 * those that could not be, since copies are made in words or larger pieces. The missing bytes of
 * `to` are zeroed by copy_from_user. */
SEAM(unsigned long, copy_from_user, (void *to, const void *from, unsigned long count));
SEAM(unsigned long, copy_to_user, (void *to, const void *from, unsigned long count));
/* Writes one 32-bit value; returns 0 or -EFAULT. */
SEAM(int, put_user, (u32 value, u32 *to));

#endif
