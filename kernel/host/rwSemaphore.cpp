/* Read-write semaphores: first come first served, neighbouring readers together. */
#include "lockcheck.h"
#include "locks.h"

using namespace host;

namespace
{

void take(struct rw_semaphore *handle, bool write, const char *function, const void *site)
{
    RwSemaphoreStorage &sem = storage(handle);
    TaskImpl &task = requireTask(function);
    maySleep(function);
    if (checking) {
        checkInitialised(sem.head, lockRwSemaphore, function);
        if (!checkAcquire(sem.head, write, site))
            return;
    }
    lockGuard(sem.head.guard);
    bool free = sem.waiters.first == nullptr && sem.writer == 0 && (!write || sem.readers == 0);
    if (free) {
        if (write)
            sem.writer = task.pid;
        else
            sem.readers++;
        unlockGuard(sem.head.guard);
    } else {
        Waiter waiter;
        waiter.task = &task;
        waiter.write = write;
        append(sem.waiters, waiter);
        unlockGuard(sem.head.guard);
        if (!sleepInQueue(sem.head.guard, sem.waiters, waiter, {function, "", &sem.head}, false))
            return;
    }
    if (checking)
        noteAcquired(sem.head, write, site);
}

// Takes the waiters whose turn it is out of the queue: one writer, or the readers up to the next.
Waiter *takeServed(RwSemaphoreStorage &sem)
{
    if (sem.waiters.first == nullptr || sem.readers != 0 || sem.writer != 0)
        return nullptr;
    Waiter *first = &takeFirst(sem.waiters);
    if (first->write) {
        sem.writer = first->task->pid;
        first->next = nullptr;
        return first;
    }
    sem.readers = 1;
    Waiter *last = first;
    while (sem.waiters.first != nullptr && !sem.waiters.first->write) {
        last->next = &takeFirst(sem.waiters);
        last = last->next;
        sem.readers++;
    }
    last->next = nullptr;
    return first;
}

void release(struct rw_semaphore *handle, bool write, const char *function)
{
    RwSemaphoreStorage &sem = storage(handle);
    pointOfSwitch();
    if (checking && (!checkInitialised(sem.head, lockRwSemaphore, function) ||
                     noteReleased(sem.head, write, function) != Release::real))
        return;
    lockGuard(sem.head.guard);
    if (write)
        sem.writer = 0;
    else
        sem.readers--;
    Waiter *served = takeServed(sem);
    unlockGuard(sem.head.guard);
    while (served != nullptr) {
        Waiter &waiter = *served;
        served = waiter.next;
        grant(waiter);
    }
    pointOfSwitch();
}

} // namespace

void init_rwsem_named(struct rw_semaphore *handle, const char *name, struct lock_class_key *key)
{
    auto *sem = new (handle) RwSemaphoreStorage{};
    initLock(sem->head, lockRwSemaphore, name, key);
}

void down_read(struct rw_semaphore *sem)
{
    take(sem, false, "down_read", __builtin_return_address(0));
}

void up_read(struct rw_semaphore *sem)
{
    release(sem, false, "up_read");
}

void down_write(struct rw_semaphore *sem)
{
    take(sem, true, "down_write", __builtin_return_address(0));
}

void up_write(struct rw_semaphore *sem)
{
    release(sem, true, "up_write");
}
