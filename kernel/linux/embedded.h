/*
 * The kernel objects that the module embeds in its own records. record(type, name) stands for one
 * whose storage is KERNEL_SIZE_<name> bytes, aligned to KERNEL_ALIGN_<name>.
 */
#ifndef EMBEDDED_H
#define EMBEDDED_H

/* clang-format off */
#define EMBEDDED_RECORDS(record)                                                                   \
    record(struct semaphore, semaphore)                                                            \
    record(struct rw_semaphore, rw_semaphore)                                                      \
    record(struct completion, completion)                                                          \
    record(spinlock_t, spinlock_t)                                                                 \
    record(atomic_t, atomic_t)
/* clang-format on */

struct embedded_layout {
    const char *name;
    unsigned int size;
    unsigned int alignment;
};

#define EMBEDDED_LAYOUT(type, name) {#name, sizeof(type), __alignof__(type)},

/* 0 if the storage that the module reserves for these objects is what they need in the running
 * kernel, as far as can be seen; else it says so in the log, and -ENOEXEC. */
int checkEmbedded(void);

#endif
