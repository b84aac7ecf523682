/* Plain types of the kernel interface. */
#ifndef KERNEL_TYPES_H
#define KERNEL_TYPES_H

#include <kernel/seam.h>

#if !defined(KERNEL_GLUE)
#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int32_t s32;
typedef int64_t s64;

/* 512-byte sectors; 64 bits wide (the kernel is built for large block devices). */
typedef u64 sector_t;

/*
 * The C library owns the names dev_t and timespec in user space and gives them other widths;
 * these are the kernel's.
 */
typedef u32 kernel_dev_t;
struct kernel_timespec {
    s32 tv_sec;
    s32 tv_nsec;
};

/* Negated by the kernel's functions where they fail. */
enum {
    KERNEL_EINTR = 4,
    KERNEL_EIO = 5,
    KERNEL_ENXIO = 6,
    KERNEL_ENOMEM = 12,
    KERNEL_EFAULT = 14,
    KERNEL_EBUSY = 16,
    KERNEL_ENODEV = 19,
    KERNEL_EINVAL = 22,
    KERNEL_ENOTTY = 25,
    KERNEL_EOPNOTSUPP = 95,
};

enum { PAGE_SHIFT = 12, PAGE_SIZE = 1 << PAGE_SHIFT };
#else
typedef dev_t kernel_dev_t;
#endif

/* Device numbers: the major number in the upper 12 bits, the minor in the lower 20. */
static inline unsigned int deviceMajor(kernel_dev_t device)
{
    return device >> 20;
}

static inline unsigned int deviceMinor(kernel_dev_t device)
{
    return device & 0xfffff;
}

#endif
