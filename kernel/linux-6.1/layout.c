/*
 * What <kernel/layout.h> is generated from: sizes and constants as the kernel's headers have them,
 * found in the compiler's output as the kernel finds its own assembler offsets. Never linked.
 */
#include <linux/buffer_head.h>
#include <linux/completion.h>
#include <linux/fs.h>
#include <linux/gfp.h>
#include <linux/mm.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

#include "embedded.h"

#define DEFINE(name, value) asm volatile("\n->" #name " %0" : : "i"(value))

#define DEFINE_RECORD(type, name)                                                                  \
    DEFINE(KERNEL_SIZE_##name, sizeof(type));                                                      \
    DEFINE(KERNEL_ALIGN_##name, __alignof__(type));

/* The kernel's own name for the same value: a constant for the module only. */
#define DEFINE_CONSTANT(name, value) asm volatile("\n=>" #name " %0" : : "i"(value))

void layout(void);

void layout(void)
{
    EMBEDDED_RECORDS(DEFINE_RECORD)

    DEFINE_CONSTANT(GFP_NOIO, GFP_NOIO);
    DEFINE_CONSTANT(GFP_KERNEL, GFP_KERNEL);
    DEFINE_CONSTANT(GFP_HIGHUSER, GFP_HIGHUSER);
    DEFINE_CONSTANT(SLAB_HWCACHE_ALIGN, SLAB_HWCACHE_ALIGN);

    DEFINE_CONSTANT(READ, READ);
    DEFINE_CONSTANT(WRITE, WRITE);
    DEFINE_CONSTANT(READA, 2); /* this kernel has a flag in its place (bio.c) */

    DEFINE_CONSTANT(BH_STATE_Lock, 1 << BH_Lock);
    DEFINE_CONSTANT(BH_STATE_Req, 1 << BH_Req);
    DEFINE_CONSTANT(BH_STATE_Mapped, 1 << BH_Mapped);

    DEFINE_CONSTANT(VM_READ, VM_READ);
    DEFINE_CONSTANT(VM_WRITE, VM_WRITE);
    DEFINE_CONSTANT(VM_SHARED, VM_SHARED);
    DEFINE_CONSTANT(VM_FAULT_SIGBUS, VM_FAULT_SIGBUS);
}
