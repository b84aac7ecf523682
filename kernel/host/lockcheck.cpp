#include "lockcheck.h"

#include <algorithm>
#include <unordered_map>

#include "lockClass.h"
#include "locks.h"

namespace host
{
namespace
{

std::atomic<std::uint32_t> instanceCount;

bool isSignal(const HeldLock &held)
{
    return held.kind == lockSemaphore &&
           lockClass(held.lockClass).signal.load(std::memory_order_relaxed);
}

const char *kindName(std::uint8_t kind)
{
    switch (kind) {
    case lockSemaphore:
        return "semaphore";
    case lockRwSemaphore:
        return "rw-semaphore";
    case lockCompletion:
        return "completion";
    case lockSpin:
        return "spin lock";
    case lockMutex:
        return "mutex";
    default:
        return "no lock";
    }
}

/*
 * All locks that were initialised and not freed, as a bitmap of where they begin for each 4 KiB of
 * addresses that has any.
 */
class LiveLocks
{
public:
    void add(const LockHead &head)
    {
        auto address = reinterpret_cast<std::uintptr_t>(&head);
        Page &page = pages_[address / pageSpan];
        std::uintptr_t slot = address % pageSpan / granule;
        page[slot / 32] |= std::uint32_t{1} << (slot % 32);
    }

    // Takes out all that begin in the range and calls `each` for them.
    template<class Each> void take(const void *start, std::size_t bytes, Each each)
    {
        auto from = reinterpret_cast<std::uintptr_t>(start);
        std::uintptr_t end = from + bytes;
        while (from < end) {
            std::uintptr_t pageEnd = std::min(end, (from / pageSpan + 1) * pageSpan);
            auto entry = pages_.find(from / pageSpan);
            if (entry != pages_.end())
                takeFromPage(entry->second, from, pageEnd, each);
            from = pageEnd;
        }
    }

    void clear() { pages_.clear(); }

private:
    static constexpr std::uintptr_t pageSpan = 4096;
    static constexpr std::uintptr_t granule = 4;
    using Page = std::array<std::uint32_t, pageSpan / granule / 32>;

    template<class Each>
    static void takeFromPage(Page &page, std::uintptr_t from, std::uintptr_t end, Each each)
    {
        std::uintptr_t base = from / pageSpan * pageSpan;
        std::uintptr_t slotEnd = (end - base + granule - 1) / granule;
        for (std::uintptr_t slot = (from - base + granule - 1) / granule; slot < slotEnd; slot++) {
            if (page[slot / 32] == 0) {
                slot |= 31;
                continue;
            }
            std::uint32_t bit = std::uint32_t{1} << (slot % 32);
            if ((page[slot / 32] & bit) == 0)
                continue;
            page[slot / 32] &= ~bit;
            each(*reinterpret_cast<LockHead *>(base + slot * granule));
        }
    }

    std::unordered_map<std::uintptr_t, Page> pages_;
};

HiddenMutex liveMutex;
LiveLocks liveLocks;

std::string pidName(int pid)
{
    HiddenScope scope(core->mutex);
    for (const std::shared_ptr<TaskImpl> &task : core->tasks)
        if (task->pid == pid)
            return task->name + " (" + std::to_string(pid) + ")";
    return "an ended task (" + std::to_string(pid) + ")";
}

/* How a lock is in use at the moment; `who` is a pid or 0. */
struct Use {
    const char *how = nullptr; // nullptr: idle
    int who = 0;
};

Use useOf(const LockHead &head)
{
    switch (head.kind) {
    case lockSemaphore: {
        const auto &sem = reinterpret_cast<const SemaphoreStorage &>(head);
        if (sem.waiters.first != nullptr)
            return {"waited for", sem.lastTaker};
        if (sem.count == 0 && !lockClass(head.lockClass).signal)
            return {"held", sem.lastTaker};
        return {};
    }
    case lockRwSemaphore: {
        const auto &sem = reinterpret_cast<const RwSemaphoreStorage &>(head);
        if (sem.waiters.first != nullptr)
            return {"waited for", sem.writer};
        if (sem.writer != 0)
            return {"held for writing", sem.writer};
        if (sem.readers != 0)
            return {"held for reading", 0};
        return {};
    }
    case lockCompletion: {
        const auto &done = reinterpret_cast<const CompletionStorage &>(head);
        if (done.waiters.first != nullptr)
            return {"waited for", 0};
        return {};
    }
    case lockSpin: {
        const auto &lock = reinterpret_cast<const SpinStorage &>(head);
        if (lock.word.load(std::memory_order_relaxed) != 0)
            return {"held", lock.owner};
        return {};
    }
    case lockMutex: {
        const auto &lock = reinterpret_cast<const struct mutex &>(head);
        int owner = lock.owner.load(std::memory_order_relaxed);
        if (owner != 0)
            return {"held", owner};
        return {};
    }
    default: // the memory was overwritten since
        return {};
    }
}

// The task holds locks in memory that is gone.
void dropHeld(TaskImpl &task, const void *start, std::size_t bytes)
{
    std::erase_if(task.held, [&](const HeldLock &held) {
        auto offset =
            reinterpret_cast<std::uintptr_t>(held.lock) - reinterpret_cast<std::uintptr_t>(start);
        if (offset >= bytes)
            return false;
        if (held.kind == lockSpin && !held.recursive)
            task.spinDepth--;
        return true;
    });
}

} // namespace

void initLock(LockHead &head, LockKind kind, const char *name, const void *key)
{
    head.guard.store(0, std::memory_order_relaxed);
    head.kind = kind;
    head.lockClass = findLockClass(name, key, kind);
    head.instance = instanceCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (checking) {
        HiddenScope scope(liveMutex);
        liveLocks.add(head);
    }
}

void markAsSignal(const LockHead &head)
{
    lockClass(head.lockClass).signal.store(true, std::memory_order_relaxed);
}

std::string lockName(const LockHead &head)
{
    return lockClass(head.lockClass).name;
}

bool checkInitialised(const LockHead &head, LockKind kind, const char *function)
{
    if (head.kind == kind) [[likely]]
        return true;
    reportViolation("lock not initialised", std::string(function) + "() by " + currentName() +
                                                " on what is no " + kindName(kind));
    return false;
}

bool checkAcquire(const LockHead &head, bool write, const void *site)
{
    TaskImpl *task = currentTaskImpl;
    if (task == nullptr)
        return true;
    if (head.kind == lockSemaphore && lockClass(head.lockClass).signal)
        return true;
    for (const HeldLock &held : task->held) {
        if (isSignal(held))
            continue;
        if (held.lock != &head) {
            noteOrder(held, head, site);
        } else if (head.kind != lockSemaphore) {
            reportViolation("recursive locking", lockName(head) + " taken at " + symbolName(site) +
                                                     " by " + currentName() +
                                                     ", which took it at " + symbolName(held.site));
            task->held.push_back({&head, head.lockClass, head.kind, write, true, site});
            return false;
        }
    }
    return true;
}

void noteAcquired(const LockHead &head, bool write, const void *site)
{
    TaskImpl *task = currentTaskImpl;
    if (task == nullptr)
        return;
    if (head.kind == lockSemaphore) {
        auto mine = [&](const HeldLock &held) { return held.lock == &head; };
        if (std::any_of(task->held.begin(), task->held.end(), mine))
            markAsSignal(head);
        if (lockClass(head.lockClass).signal) {
            std::erase_if(task->held, mine);
            return;
        }
    }
    task->held.push_back({&head, head.lockClass, head.kind, write, false, site});
}

Release noteReleased(const LockHead &head, bool write, const char *function)
{
    TaskImpl *task = currentTaskImpl;
    if (task != nullptr) {
        for (std::size_t i = task->held.size(); i-- > 0;) {
            const HeldLock &held = task->held[i];
            if (held.lock != &head || held.write != write)
                continue;
            bool recursive = held.recursive;
            task->held.erase(task->held.begin() + static_cast<std::ptrdiff_t>(i));
            return recursive ? Release::recursive : Release::real;
        }
    }
    if (head.kind == lockSemaphore)
        markAsSignal(head);
    else
        reportViolation("unlock of a lock not held",
                        std::string(function) + "() of " + lockName(head) + " by " + currentName());
    return Release::notHeld;
}

void noteInterruptUse(const LockHead &head, bool interruptsOn)
{
    std::uint8_t use =
        (inInterrupt() ? usedInInterrupt : 0) | (interruptsOn ? usedWithInterruptsOn : 0);
    if (use == 0)
        return;
    LockClass &entry = lockClass(head.lockClass);
    if ((entry.interruptUse.load(std::memory_order_relaxed) & use) == use)
        return;
    std::uint8_t before = entry.interruptUse.fetch_or(use, std::memory_order_relaxed);
    constexpr std::uint8_t both = usedInInterrupt | usedWithInterruptsOn;
    if (before != both && (before | use) == both)
        reportViolation("irq-unsafe lock", entry.name +
                                               " is taken in interrupt context and held with "
                                               "interrupts on, now by " +
                                               currentName());
}

void noteInterruptsOn()
{
    for (const HeldLock &held : currentTaskImpl->held)
        if (held.kind == lockSpin)
            noteInterruptUse(*held.lock, true);
}

void checkFreed(const void *start, std::size_t bytes, const char *what)
{
    if (!checking)
        return;
    std::vector<std::string> reports;
    {
        HiddenScope scope(liveMutex);
        liveLocks.take(start, bytes, [&](LockHead &head) {
            Use use = useOf(head);
            if (use.how != nullptr)
                reports.push_back(std::string(kindName(head.kind)) + " " + lockName(head) + " in " +
                                  what + " freed by " + currentName() + ", still " + use.how +
                                  (use.who != 0 ? " by " + pidName(use.who) : ""));
            head.kind = 0;
        });
    }
    for (const std::string &report : reports)
        reportViolation("held lock freed", report);
    if (!reports.empty() && currentTaskImpl != nullptr)
        dropHeld(*currentTaskImpl, start, bytes);
}

void forgetLocks(const void *start, std::size_t bytes)
{
    if (!checking)
        return;
    HiddenScope scope(liveMutex);
    liveLocks.take(start, bytes, [](LockHead &) {});
}

/* Reports. */

namespace
{

std::vector<std::string> heldNames(const TaskImpl &task, bool semaphores)
{
    std::vector<std::string> names;
    for (const HeldLock &held : task.held)
        if (held.kind == lockSemaphore ? semaphores && !isSignal(held) : true)
            names.push_back(lockClass(held.lockClass).name);
    return names;
}

std::string join(const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

// Those that hold a lock, as far as that is known.
std::string holders(const LockHead &head, const std::vector<std::shared_ptr<TaskImpl>> &tasks)
{
    std::vector<std::string> names;
    for (const std::shared_ptr<TaskImpl> &task : tasks)
        for (const HeldLock &held : task->held)
            if (held.lock == &head && !isSignal(held))
                names.push_back(taskName(*task));
    if (!names.empty())
        return ", held by " + join(names);
    int lastTaker = head.kind == lockSemaphore
                        ? reinterpret_cast<const SemaphoreStorage &>(head).lastTaker
                        : useOf(head).who;
    return lastTaker != 0 ? ", last taken by " + pidName(lastTaker) : "";
}

} // namespace

std::vector<std::string> heldLocks()
{
    return heldNames(requireTask("heldLocks"), true);
}

std::string describeHeld(const TaskImpl &task)
{
    std::vector<std::string> names = heldNames(task, true);
    return names.empty() ? "" : " holding " + join(names);
}

std::string describeTasks()
{
    std::vector<std::shared_ptr<TaskImpl>> tasks;
    {
        HiddenScope scope(core->mutex);
        tasks = core->tasks;
    }
    std::string text;
    for (const std::shared_ptr<TaskImpl> &task : tasks) {
        const WaitInfo &info = task->waitInfo;
        text +=
            "\n  " + taskName(*task) + (task->service ? " [service]" : "") + describeHeld(*task);
        if (task->runnable)
            text += " can run";
        else if (info.lock != nullptr)
            text += " waits in " + std::string(info.function) + "() for " +
                    kindName(info.lock->kind) + " " + lockName(*info.lock) +
                    holders(*info.lock, tasks);
        else
            text += " waits for " + std::string(info.what);
    }
    return text;
}

void reportSleepInAtomic(const std::string &what)
{
    const TaskImpl &task = *currentTaskImpl;
    reportViolation("sleep in atomic context",
                    what + " by " + currentName() + describeHeld(task) +
                        (task.interruptDepth != 0 ? " in interrupt context" : ""));
}

void checkTaskEnd()
{
    if (!checking)
        return;
    for (const std::string &name : heldNames(*currentTaskImpl, false))
        reportViolation("lock held at the end of a task", name + " by " + currentName());
}

void leavingKernel(const char *call)
{
    if (!checking)
        return;
    for (const std::string &name : heldNames(requireTask(call), false))
        reportViolation("lock held on return to user space",
                        name + " by " + currentName() + " after " + call + "()");
    for (const HeldLock &held : currentTaskImpl->held)
        if (held.kind == lockSemaphore)
            markAsSignal(*held.lock);
}

void endLockChecks()
{
    endLockOrder();
    HiddenScope scope(liveMutex);
    liveLocks.clear();
}

} // namespace host
