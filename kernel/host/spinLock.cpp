/* Spin locks, and the calling task's interrupt state. */
#include "lockcheck.h"
#include "locks.h"

using namespace host;

namespace
{

constexpr unsigned long interruptsOnFlag = 0x200; // as the processor's flags have it
constexpr unsigned spinsBeforeWaiting = 100;

void takeContended(SpinStorage &lock, const char *function)
{
    if (!deterministic) {
        for (unsigned i = 0; i < spinsBeforeWaiting; i++) {
            std::uint32_t expected = 0;
            if (lock.word.compare_exchange_weak(expected, 1, std::memory_order_acquire))
                return;
        }
    }
    if (currentTaskImpl != nullptr)
        currentTaskImpl->waitInfo = {function, "", &lock.head};
    while (lock.word.exchange(2, std::memory_order_acquire) != 0)
        core->scheduler->spinWait(&lock.head, lock.word, 2);
    if (currentTaskImpl != nullptr)
        currentTaskImpl->waitInfo = {};
}

// False if the task holds it already, which was reported.
bool take(SpinStorage &lock, const char *function, bool interruptsOff, const void *site)
{
    TaskImpl *task = currentTaskImpl;
    if (checking) {
        if (!checkInitialised(lock.head, lockSpin, function) ||
            !checkAcquire(lock.head, true, site))
            return false;
    }
    std::uint32_t expected = 0;
    if (!lock.word.compare_exchange_strong(expected, 1, std::memory_order_acquire))
        takeContended(lock, function);
    lock.owner = currentPid();
    if (checking)
        noteAcquired(lock.head, true, site);
    if (task == nullptr)
        return true;
    task->spinDepth++;
    if (checking)
        noteInterruptUse(lock.head, !interruptsOff && !task->interruptsOff);
    return true;
}

void release(SpinStorage &lock, const char *function)
{
    if (checking && (!checkInitialised(lock.head, lockSpin, function) ||
                     noteReleased(lock.head, true, function) != Release::real))
        return;
    if (currentTaskImpl != nullptr)
        currentTaskImpl->spinDepth--;
    lock.owner = 0;
    if (lock.word.exchange(0, std::memory_order_release) == 2)
        core->scheduler->spinWake(&lock.head, lock.word);
}

} // namespace

namespace host
{

void spinLock(spinlock_t *lock)
{
    pointOfSwitch();
    take(storage(lock), "spinLock", false, __builtin_return_address(0));
}

void spinUnlock(spinlock_t *lock)
{
    pointOfSwitch();
    release(storage(lock), "spinUnlock");
    pointOfSwitch();
}

} // namespace host

void spin_lock_init_named(spinlock_t *handle, const char *name, struct lock_class_key *key)
{
    auto *lock = new (handle) SpinStorage{};
    initLock(lock->head, lockSpin, name, key);
}

unsigned long spin_lock_irqsave(spinlock_t *lock)
{
    pointOfSwitch();
    TaskImpl *task = currentTaskImpl;
    unsigned long flags = task != nullptr && !task->interruptsOff ? interruptsOnFlag : 0;
    take(storage(lock), "spin_lock_irqsave", true, __builtin_return_address(0));
    if (task != nullptr)
        task->interruptsOff = true;
    return flags;
}

void spin_unlock_irqrestore(spinlock_t *lock, unsigned long flags)
{
    pointOfSwitch();
    release(storage(lock), "spin_unlock_irqrestore");
    TaskImpl *task = currentTaskImpl;
    if (task != nullptr && (flags & interruptsOnFlag) != 0) {
        task->interruptsOff = false;
        if (checking)
            noteInterruptsOn();
    }
    pointOfSwitch();
}
