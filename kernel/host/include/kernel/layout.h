/*
 * What differs from kernel to kernel, as the host kernel has it: sizes of the records that the
 * module embeds (checked against the host kernel's own in its sources) and constants.
 */
#ifndef KERNEL_LAYOUT_H
#define KERNEL_LAYOUT_H

#define KERNEL_SIZE_semaphore (8 * sizeof(void *))
#define KERNEL_ALIGN_semaphore sizeof(void *)
#define KERNEL_SIZE_rw_semaphore (8 * sizeof(void *))
#define KERNEL_ALIGN_rw_semaphore sizeof(void *)
#define KERNEL_SIZE_completion (8 * sizeof(void *))
#define KERNEL_ALIGN_completion sizeof(void *)
#define KERNEL_SIZE_spinlock_t (4 * sizeof(void *))
#define KERNEL_ALIGN_spinlock_t sizeof(void *)
#define KERNEL_SIZE_atomic_t 4
#define KERNEL_ALIGN_atomic_t 4

/* The values of 2.6.30. */
enum {
    GFP_NOIO = 0x10,
    GFP_KERNEL = 0xd0,
    GFP_HIGHUSER = 0x200d2,
    SLAB_HWCACHE_ALIGN = 0x2000,

    READ = 0,
    WRITE = 1,
    READA = 2,

    BH_STATE_Lock = 1 << 2,
    BH_STATE_Req = 1 << 3,
    BH_STATE_Mapped = 1 << 5,

    VM_READ = 0x1,
    VM_WRITE = 0x2,
    VM_SHARED = 0x8,
    VM_FAULT_SIGBUS = 0x2,

};

#endif
