/* The mutexes of the kernel's own records. */
#include "lockcheck.h"
#include "locks.h"

namespace host
{

void initMutex(struct mutex *lock, const char *name)
{
    new (lock)::mutex{};
    initLock(lock->head, lockMutex, name, nullptr);
}

void mutex_lock(struct mutex *lock)
{
    const void *site = __builtin_return_address(0);
    TaskImpl &task = requireTask("mutex_lock");
    maySleep("mutex_lock");
    if (checking && (!checkInitialised(lock->head, lockMutex, "mutex_lock") ||
                     !checkAcquire(lock->head, true, site)))
        return;
    lockGuard(lock->head.guard);
    if (lock->owner.load(std::memory_order_relaxed) == 0) {
        lock->owner.store(task.pid, std::memory_order_relaxed);
        unlockGuard(lock->head.guard);
    } else {
        Waiter waiter;
        waiter.task = &task;
        append(lock->waiters, waiter);
        unlockGuard(lock->head.guard);
        if (!sleepInQueue(lock->head.guard, lock->waiters, waiter, {"mutex_lock", "", &lock->head},
                          false))
            return;
    }
    if (checking)
        noteAcquired(lock->head, true, site);
}

} // namespace host

using namespace host;

int mutex_trylock(struct mutex *lock)
{
    TaskImpl &task = requireTask("mutex_trylock");
    pointOfSwitch();
    if (checking && !checkInitialised(lock->head, lockMutex, "mutex_trylock"))
        return 0;
    lockGuard(lock->head.guard);
    bool taken = lock->owner.load(std::memory_order_relaxed) == 0;
    if (taken)
        lock->owner.store(task.pid, std::memory_order_relaxed);
    unlockGuard(lock->head.guard);
    if (taken && checking)
        noteAcquired(lock->head, true, __builtin_return_address(0));
    return taken ? 1 : 0;
}

void mutex_unlock(struct mutex *lock)
{
    pointOfSwitch();
    if (checking && (!checkInitialised(lock->head, lockMutex, "mutex_unlock") ||
                     noteReleased(lock->head, true, "mutex_unlock") != Release::real))
        return;
    Waiter *served = nullptr;
    lockGuard(lock->head.guard);
    if (lock->waiters.first != nullptr)
        served = &takeFirst(lock->waiters);
    lock->owner.store(served != nullptr ? served->task->pid : 0, std::memory_order_relaxed);
    unlockGuard(lock->head.guard);
    if (served != nullptr)
        grant(*served);
    pointOfSwitch();
}
