/*
 * Locks, counters and barriers.
 *
 * The records are storage of the provider's size and alignment; only the functions here look
 * inside. A record is used from its initialisation until it is freed, and must then be idle.
 */
#ifndef KERNEL_SYNC_H
#define KERNEL_SYNC_H

#include <kernel/layout.h>
#include <kernel/types.h>

#if !defined(KERNEL_GLUE)
#define KERNEL_STORAGE(name)                                                                       \
    __attribute__((aligned(KERNEL_ALIGN_##name))) unsigned char storage[KERNEL_SIZE_##name]

struct semaphore {
    KERNEL_STORAGE(semaphore);
};
struct rw_semaphore {
    KERNEL_STORAGE(rw_semaphore);
};
struct completion {
    KERNEL_STORAGE(completion);
};
typedef struct {
    KERNEL_STORAGE(spinlock_t);
} spinlock_t;
typedef struct {
    KERNEL_STORAGE(atomic_t);
} atomic_t;

/* Identifies a class of locks to the lock validator; must live as long as the module. */
struct lock_class_key {
    char storage[2 * sizeof(void *)];
};

struct mutex;
#endif

/* Counting semaphores. Waiters are served in the order of their arrival. */

/* `name` (a string that outlives the semaphore) and `key` say which class of locks it is. */
SEAM(void, sema_init_named,
     (struct semaphore * sem, int count, const char *name, struct lock_class_key *key));
/* Takes one count; sleeps uninterruptibly until there is one. Process context. */
SEAM(void, down, (struct semaphore * sem));
/* Takes one count; returns 0, or -EINTR without it if a signal that the task allows is pending.
 * Process context. */
SEAM(int, down_interruptible, (struct semaphore * sem));
/* Takes one count if it can without sleeping; returns 0 if it did and 1 if not. Any context. */
SEAM(int, down_trylock, (struct semaphore * sem));
/* Gives one count back, or hands it to the first waiter. Any context; any task may do it. */
SEAM(void, up, (struct semaphore * sem));

/* Read-write semaphores. First come, first served: a waiting writer holds up later readers. */

SEAM(void, init_rwsem_named,
     (struct rw_semaphore * sem, const char *name, struct lock_class_key *key));
/* The four operations below: process context; the taking ones may sleep; released by the taker. */
SEAM(void, down_read, (struct rw_semaphore * sem));
SEAM(void, up_read, (struct rw_semaphore * sem));
SEAM(void, down_write, (struct rw_semaphore * sem));
SEAM(void, up_write, (struct rw_semaphore * sem));

/* Mutexes of the kernel's own records. Process context, do not sleep, released by the taker. */

/* Takes it if nobody has it; 1 if it did, 0 if not (the current task may be the one that has it).
 */
SEAM(int, mutex_trylock, (struct mutex * lock));
SEAM(void, mutex_unlock, (struct mutex * lock));

/* What the kernel takes out of a record guarded by RCU is not freed as long as somebody who could
 * have found it there is in between these two. Any context; no sleep in between; they nest. */
SEAM(void, rcu_read_lock, (void));
SEAM(void, rcu_read_unlock, (void));

/* Spin locks. The holder may not sleep. */

SEAM(void, spin_lock_init_named, (spinlock_t * lock, const char *name, struct lock_class_key *key));
/* Takes the lock with this processor's interrupts off; returns their earlier state. Any context. */
SEAM(unsigned long, spin_lock_irqsave, (spinlock_t * lock));
/* Releases the lock and puts the interrupts back to `flags`. */
SEAM(void, spin_unlock_irqrestore, (spinlock_t * lock, unsigned long flags));

/* Completions: a counted "it has happened". */

SEAM(void, init_completion, (struct completion * done));
/* Lets one present or future waiter go on. Any context. */
SEAM(void, complete, (struct completion * done));
/* Sleeps uninterruptibly until completed, and uses that completion up. Process context. */
SEAM(void, wait_for_completion, (struct completion * done));

/*
 * Counters. Any context. The operations that return nothing, reads and plain stores order nothing
 * else on the kernels that we know; atomic_dec_and_test is a full barrier.
 */

SEAM(int, atomic_read, (const atomic_t *counter));
SEAM(void, atomic_set, (atomic_t * counter, int value));
SEAM(void, atomic_inc, (atomic_t * counter));
SEAM(void, atomic_dec, (atomic_t * counter));
SEAM(void, atomic_add, (int amount, atomic_t *counter));
SEAM(void, atomic_sub, (int amount, atomic_t *counter));
/* Decrements; returns 1 if the counter became 0, else 0. */
SEAM(int, atomic_dec_and_test, (atomic_t * counter));

/* Bits of a little-endian bitmap. The first two are atomic; test_bit returns non-zero if set. */

SEAM(void, set_bit, (int nr, volatile unsigned long *bitmap));
SEAM(void, clear_bit, (int nr, volatile unsigned long *bitmap));
SEAM(int, test_bit, (int nr, const volatile unsigned long *bitmap));

/* Full memory barrier between processors. */
SEAM(void, smp_mb, (void));

#if !defined(KERNEL_GLUE)
/* One lock class for each place of initialisation, as the kernel's own macros do it. */
#define KERNEL_CLASS_CALL(call, ...)                                                               \
    do {                                                                                           \
        static struct lock_class_key classKey;                                                     \
        call(__VA_ARGS__, &classKey);                                                              \
    } while (0)
#define sema_init(sem, count) KERNEL_CLASS_CALL(sema_init_named, sem, count, #sem)
#define init_rwsem(sem) KERNEL_CLASS_CALL(init_rwsem_named, sem, #sem)
#define spin_lock_init(lock) KERNEL_CLASS_CALL(spin_lock_init_named, lock, #lock)
#endif

#endif
