/* How tasks sleep and are woken. */
#include <kernel/task.h>

#include "core.h"
#include "lockcheck.h"

namespace host
{

void unlink(WaiterList &list, Waiter &waiter)
{
    Waiter *previous = nullptr;
    for (Waiter *w = list.first; w != &waiter; w = w->next)
        previous = w;
    if (previous != nullptr)
        previous->next = waiter.next;
    else
        list.first = waiter.next;
    if (list.last == &waiter)
        list.last = previous;
    waiter.linked = false;
}

namespace
{

/* While it lives, signals and the end of the kernel find the task asleep at the waiter. */
class SleepScope
{
public:
    SleepScope(TaskImpl &task, Waiter &waiter, const WaitInfo &info, bool interruptible)
        : task_(task)
    {
        lockGuard(task_.sleepGuard);
        task_.sleeping = &waiter;
        task_.sleepInterruptible = interruptible;
        task_.waitInfo = info;
        unlockGuard(task_.sleepGuard);
    }
    ~SleepScope()
    {
        lockGuard(task_.sleepGuard);
        task_.sleeping = nullptr;
        task_.waitInfo = {};
        unlockGuard(task_.sleepGuard);
    }
    SleepScope(const SleepScope &) = delete;

private:
    TaskImpl &task_;
};

// A task that ends with its kernel leaves its sleep by an exception, unless it is on its way out.
void dieIfKilled(const TaskImpl &task)
{
    if (task.killed && std::uncaught_exceptions() == 0)
        throw TaskKilled();
}

/*
 * The lock of a wait queue, for as long as its conditions are looked at. These may be kernel calls,
 * which must not switch meanwhile.
 */
class QueueScope
{
public:
    explicit QueueScope(std::atomic<std::uint8_t> &guard) : guard_(guard)
    {
        lockGuard(guard_);
        if (deterministic)
            switchesForbidden++;
    }
    ~QueueScope()
    {
        if (deterministic)
            switchesForbidden--;
        unlockGuard(guard_);
    }
    QueueScope(const QueueScope &) = delete;

private:
    std::atomic<std::uint8_t> &guard_;
};

} // namespace

bool sleepInQueue(std::atomic<std::uint8_t> &guard, WaiterList &list, Waiter &waiter,
                  const WaitInfo &info, bool interruptible)
{
    TaskImpl &task = *waiter.task;
    SleepScope scope(task, waiter, info, interruptible);
    for (;;) {
        bool stop = task.killed || (interruptible && signalPendingFor(task));
        if (stop) {
            lockGuard(guard);
            bool waiting = waiter.linked;
            if (waiting)
                unlink(list, waiter);
            unlockGuard(guard);
            if (waiting) {
                dieIfKilled(task);
                return false;
            }
            // Too late: it was served, and only the word of it is still to come.
        }
        core->scheduler->sleep(waiter, 0);
        if ((waiter.state.load(std::memory_order_acquire) & Waiter::granted) != 0)
            break;
        waiter.state.fetch_and(~Waiter::kicked, std::memory_order_relaxed);
    }
    task.state.store(TaskState::running, std::memory_order_relaxed);
    return true;
}

void sleepNanoseconds(std::uint64_t ns)
{
    TaskImpl &task = requireTask("sleepNanoseconds");
    maySleep("sleepNanoseconds");
    dieIfKilled(task);
    Waiter waiter;
    waiter.task = &task;
    {
        WaitInfo info{"sleepNanoseconds", "time to pass"};
        SleepScope scope(task, waiter, info, false);
        if (!task.killed)
            core->scheduler->sleep(waiter, core->scheduler->now() + ns);
    }
    dieIfKilled(task);
}

std::uint64_t nowNanoseconds()
{
    return core->scheduler->now();
}

void yield()
{
    maySleep("yield");
    core->scheduler->yield();
}

bool WaitQueue::wait(const std::function<bool()> &condition, bool interruptible)
{
    TaskImpl &task = requireTask("WaitQueue::wait");
    if (checking && inAtomicContext())
        reportSleepInAtomic(std::string("waiting for ") + what_);
    pointOfSwitch();
    Waiter waiter;
    {
        QueueScope scope(guard_);
        if (condition())
            return true;
        waiter.task = &task;
        waiter.condition = &condition;
        append(waiters_, waiter);
    }
    return sleepInQueue(guard_, waiters_, waiter, {"wait", what_}, interruptible);
}

void WaitQueue::wake(const std::function<void()> &change)
{
    Waiter *served = nullptr;
    Waiter **end = &served;
    {
        QueueScope scope(guard_);
        if (change)
            change();
        for (Waiter *waiter = waiters_.first; waiter != nullptr;) {
            Waiter *next = waiter->next;
            if ((*waiter->condition)()) {
                unlink(waiters_, *waiter);
                waiter->next = nullptr;
                *end = waiter;
                end = &waiter->next;
            }
            waiter = next;
        }
    }
    while (served != nullptr) {
        Waiter &waiter = *served;
        served = waiter.next;
        grant(waiter);
    }
    pointOfSwitch();
}

/* States of a task, as schedule() sees them. */

void setCurrentState(TaskState state)
{
    requireTask("setCurrentState").state = state;
}

TaskState currentState()
{
    return requireTask("currentState").state;
}

void Task::wake()
{
    TaskImpl &task = *impl_;
    task.stateQueue.wake([&] { task.state = TaskState::running; });
}

} // namespace host

using namespace host;

void schedule()
{
    TaskImpl &task = requireTask("schedule");
    TaskState state = task.state.load(std::memory_order_relaxed);
    if (state == TaskState::running) {
        maySleep("schedule");
        core->scheduler->yield();
        return;
    }
    task.stateQueue.wait([&] { return task.state == TaskState::running; },
                         state == TaskState::interruptible);
    task.state = TaskState::running;
}

void set_current_running()
{
    pointOfSwitch();
    requireTask("set_current_running").state.store(TaskState::running);
    smp_mb();
}
