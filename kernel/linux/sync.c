/* Locks, counters and barriers. */
#define KERNEL_GLUE
#include <linux/bitops.h>
#include <linux/completion.h>
#include <linux/kernel.h>
#include <linux/lockdep.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

#include <kernel/sync.h>

/* The module's sources reserve this much for a class of locks. */
enum { lockClassKeyBytes = 2 * sizeof(void *) };

void zk_sema_init_named(struct semaphore *sem, int count, const char *name,
                        struct lock_class_key *key)
{
    BUILD_BUG_ON(sizeof(struct lock_class_key) > lockClassKeyBytes);
    sema_init(sem, count);
    lockdep_set_class_and_name(&sem->lock, key, name);
}

void zk_down(struct semaphore *sem)
{
    down(sem);
}

int zk_down_interruptible(struct semaphore *sem)
{
    return down_interruptible(sem);
}

int zk_down_trylock(struct semaphore *sem)
{
    return down_trylock(sem);
}

void zk_up(struct semaphore *sem)
{
    up(sem);
}

void zk_init_rwsem_named(struct rw_semaphore *sem, const char *name, struct lock_class_key *key)
{
    __init_rwsem(sem, name, key);
}

void zk_down_read(struct rw_semaphore *sem)
{
    down_read(sem);
}

void zk_up_read(struct rw_semaphore *sem)
{
    up_read(sem);
}

void zk_down_write(struct rw_semaphore *sem)
{
    down_write(sem);
}

void zk_up_write(struct rw_semaphore *sem)
{
    up_write(sem);
}

int zk_mutex_trylock(struct mutex *lock)
{
    return mutex_trylock(lock);
}

void zk_mutex_unlock(struct mutex *lock)
{
    mutex_unlock(lock);
}

void zk_rcu_read_lock(void)
{
    rcu_read_lock();
}

void zk_rcu_read_unlock(void)
{
    rcu_read_unlock();
}

void zk_spin_lock_init_named(spinlock_t *lock, const char *name, struct lock_class_key *key)
{
    spin_lock_init(lock);
    lockdep_set_class_and_name(lock, key, name);
}

unsigned long zk_spin_lock_irqsave(spinlock_t *lock)
{
    unsigned long flags;

    spin_lock_irqsave(lock, flags);
    return flags;
}

void zk_spin_unlock_irqrestore(spinlock_t *lock, unsigned long flags)
{
    spin_unlock_irqrestore(lock, flags);
}

void zk_init_completion(struct completion *done)
{
    init_completion(done);
}

void zk_complete(struct completion *done)
{
    complete(done);
}

void zk_wait_for_completion(struct completion *done)
{
    wait_for_completion(done);
}

int zk_atomic_read(const atomic_t *counter)
{
    return atomic_read(counter);
}

void zk_atomic_set(atomic_t *counter, int value)
{
    atomic_set(counter, value);
}

void zk_atomic_inc(atomic_t *counter)
{
    atomic_inc(counter);
}

void zk_atomic_dec(atomic_t *counter)
{
    atomic_dec(counter);
}

void zk_atomic_add(int amount, atomic_t *counter)
{
    atomic_add(amount, counter);
}

void zk_atomic_sub(int amount, atomic_t *counter)
{
    atomic_sub(amount, counter);
}

int zk_atomic_dec_and_test(atomic_t *counter)
{
    return atomic_dec_and_test(counter);
}

void zk_set_bit(int nr, volatile unsigned long *bitmap)
{
    set_bit(nr, bitmap);
}

void zk_clear_bit(int nr, volatile unsigned long *bitmap)
{
    clear_bit(nr, bitmap);
}

int zk_test_bit(int nr, const volatile unsigned long *bitmap)
{
    return test_bit(nr, bitmap);
}

void zk_smp_mb(void)
{
    smp_mb();
}
