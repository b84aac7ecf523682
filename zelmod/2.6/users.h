/*
 * The users protocol: an atomic counter with the idle value 1 and a spin lock.
 *
 * A reader enters by raising the counter under the lock and leaves by lowering it without; in
 * between it may sleep. A writer holds the lock at a moment when nobody is inside, so that nobody
 * can enter until it unlocks; it may not sleep meanwhile.
 */
#ifndef ZELMOD_USERS_H
#define ZELMOD_USERS_H

#include <kernel/sync.h>
#include <kernel/task.h>

/* Any context. */
inline void enterUsers(atomic_t *users, spinlock_t *lock)
{
    unsigned long flags = spin_lock_irqsave(lock);
    atomic_inc(users);
    spin_unlock_irqrestore(lock, flags);
}

/* Any context. What was done inside comes before whatever the next writer does. */
inline void leaveUsers(atomic_t *users)
{
    smp_mb();
    atomic_dec(users);
}

/* Returns holding `lock`, its flags in `*flags`, with no user inside. Process context, may sleep.
 */
inline void waitForUsers(atomic_t *users, spinlock_t *lock, unsigned long *flags)
{
    *flags = spin_lock_irqsave(lock);
    /* Below zero: somebody has left without having entered (getRealMRF), and would be waited for
     * for ever. */
    while (!atomic_dec_and_test(users) && atomic_read(users) >= 0) {
        atomic_inc(users);
        spin_unlock_irqrestore(lock, *flags);
        schedule();
        *flags = spin_lock_irqsave(lock);
    }
    atomic_set(users, 1);
}

/* Inside for the length of a scope. */
class Users
{
public:
    Users(atomic_t *users, spinlock_t *lock) : users_(users) { enterUsers(users, lock); }
    ~Users() { leaveUsers(users_); }
    Users(const Users &) = delete;
    Users &operator=(const Users &) = delete;

private:
    atomic_t *users_;
};

#endif
