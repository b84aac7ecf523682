/* Locks held for the length of a scope. */
#ifndef ZELMOD_GUARDS_H
#define ZELMOD_GUARDS_H

#include <kernel/sync.h>

/* Process context; the constructor may sleep. */
class SemaphoreGuard
{
public:
    explicit SemaphoreGuard(struct semaphore *sem) : sem_(sem) { down(sem_); }
    ~SemaphoreGuard() { up(sem_); }
    SemaphoreGuard(const SemaphoreGuard &) = delete;
    SemaphoreGuard &operator=(const SemaphoreGuard &) = delete;

private:
    struct semaphore *sem_;
};

/* Process context; the constructor may sleep. */
class ReadGuard
{
public:
    explicit ReadGuard(struct rw_semaphore *sem) : sem_(sem) { down_read(sem_); }
    ~ReadGuard() { up_read(sem_); }
    ReadGuard(const ReadGuard &) = delete;
    ReadGuard &operator=(const ReadGuard &) = delete;

private:
    struct rw_semaphore *sem_;
};

/* Process context; the constructor may sleep. */
class WriteGuard
{
public:
    explicit WriteGuard(struct rw_semaphore *sem) : sem_(sem) { down_write(sem_); }
    ~WriteGuard() { up_write(sem_); }
    WriteGuard(const WriteGuard &) = delete;
    WriteGuard &operator=(const WriteGuard &) = delete;

private:
    struct rw_semaphore *sem_;
};

/* Any context; what is inside may not sleep. */
class SpinGuard
{
public:
    explicit SpinGuard(spinlock_t *lock) : lock_(lock), flags_(spin_lock_irqsave(lock)) {}
    ~SpinGuard() { spin_unlock_irqrestore(lock_, flags_); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;

private:
    spinlock_t *lock_;
    unsigned long flags_;
};

#endif
