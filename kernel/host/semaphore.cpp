/* Semaphores: counted, first come first served, handed over to the waiter. */
#include "lockcheck.h"
#include "locks.h"

using namespace host;

namespace
{

void noteTaken(SemaphoreStorage &sem, const void *site)
{
    if (checking)
        noteAcquired(sem.head, true, site);
}

// Takes a count; false if an interruptible wait was interrupted.
bool take(struct semaphore *handle, const char *function, bool interruptible, const void *site)
{
    SemaphoreStorage &sem = storage(handle);
    TaskImpl &task = requireTask(function);
    maySleep(function);
    if (checking) {
        checkInitialised(sem.head, lockSemaphore, function);
        checkAcquire(sem.head, true, site);
    }
    lockGuard(sem.head.guard);
    if (sem.count > 0) {
        sem.count--;
        sem.lastTaker = task.pid;
        unlockGuard(sem.head.guard);
        noteTaken(sem, site);
        return true;
    }
    Waiter waiter;
    waiter.task = &task;
    append(sem.waiters, waiter);
    unlockGuard(sem.head.guard);
    if (!sleepInQueue(sem.head.guard, sem.waiters, waiter, {function, "", &sem.head},
                      interruptible))
        return false;
    noteTaken(sem, site);
    return true;
}

} // namespace

void sema_init_named(struct semaphore *handle, int count, const char *name,
                     struct lock_class_key *key)
{
    auto *sem = new (handle) SemaphoreStorage{};
    sem->count = count;
    initLock(sem->head, lockSemaphore, name, key);
    if (count != 1)
        markAsSignal(sem->head);
}

void down(struct semaphore *sem)
{
    take(sem, "down", false, __builtin_return_address(0));
}

int down_interruptible(struct semaphore *sem)
{
    return take(sem, "down_interruptible", true, __builtin_return_address(0)) ? 0 : -KERNEL_EINTR;
}

int down_trylock(struct semaphore *handle)
{
    SemaphoreStorage &sem = storage(handle);
    pointOfSwitch();
    if (checking)
        checkInitialised(sem.head, lockSemaphore, "down_trylock");
    lockGuard(sem.head.guard);
    bool taken = sem.count > 0;
    if (taken) {
        sem.count--;
        sem.lastTaker = currentPid();
    }
    unlockGuard(sem.head.guard);
    if (taken)
        noteTaken(sem, __builtin_return_address(0));
    return taken ? 0 : 1;
}

void up(struct semaphore *handle)
{
    SemaphoreStorage &sem = storage(handle);
    pointOfSwitch();
    if (checking) {
        checkInitialised(sem.head, lockSemaphore, "up");
        noteReleased(sem.head, true, "up");
    }
    Waiter *served = nullptr;
    lockGuard(sem.head.guard);
    if (sem.waiters.first != nullptr) {
        served = &takeFirst(sem.waiters);
        sem.lastTaker = served->task->pid;
    } else {
        sem.count++;
    }
    unlockGuard(sem.head.guard);
    if (served != nullptr)
        grant(*served);
    pointOfSwitch();
}
