/* The core of the host kernel, for the sources that make it up: tasks, schedulers, waiting. */
#pragma once

#include <array>
#include <csetjmp>
#include <exception>
#include <functional>
#include <memory>
#include <sched.h>
#include <string>
#include <vector>

#include "fiber.h"
#include "internal.h"
#include "random.h"

namespace host
{

enum LockKind : std::uint8_t {
    lockSemaphore = 0xd1,
    lockRwSemaphore = 0xd2,
    lockCompletion = 0xd3,
    lockSpin = 0xd4,
    lockMutex = 0xd5,
};

/* What a task that sleeps waits for, for reports. */
struct WaitInfo {
    const char *function = "";
    const char *what = "";
    const LockHead *lock = nullptr;
};

/*
 * One sleeping task in the queue of what it waits for; lives on its stack. `state` is what it
 * sleeps at: whoever ends the wait takes it out of the queue under the queue's guard, and sets
 * `granted` after having let go of that guard, so that the queue's memory may be freed by the task
 * that wakes.
 */
struct Waiter {
    static constexpr std::uint32_t granted = 1;
    static constexpr std::uint32_t kicked = 2; // look around: a signal, or the end of the kernel
    Waiter *next = nullptr;
    TaskImpl *task = nullptr;
    std::atomic<std::uint32_t> state{0};
    bool linked = false;
    bool write = false;
    const std::function<bool()> *condition = nullptr;
};

struct HeldLock {
    const LockHead *lock;
    std::uint16_t lockClass;
    std::uint8_t kind;
    bool write;
    bool recursive; // a reported recursion: its release is only this entry's
    const void *site;
};

/* Thrown out of a service task's sleep at the end of the kernel. */
struct TaskKilled {
};

struct TaskImpl : std::enable_shared_from_this<TaskImpl> {
    std::string name; // under the core's bookkeeping mutex
    int pid = 0;
    char label[taskLabelBytes] = ""; // "name (pid)", perhaps cut; for the task itself to read
    bool service = false;
    bool kernelThread = false;
    Process *process = nullptr;
    std::function<void()> body;

    // kernel_thread and complete_and_exit
    int (*threadFunction)(void *) = nullptr;
    void *threadArgument = nullptr;
    std::jmp_buf exitPoint;
    struct completion *exitCompletion = nullptr;

    std::exception_ptr exception;
    bool exceptionTaken = false;

    // Context; the task's own.
    unsigned spinDepth = 0;
    unsigned rcuDepth = 0;
    unsigned interruptDepth = 0;
    unsigned ioPathDepth = 0;
    bool interruptsOff = false;
    std::vector<HeldLock> held;

    std::atomic<TaskState> state{TaskState::running};
    WaitQueue stateQueue{"being woken"};

    std::atomic<std::uint64_t> pendingSignals{0};
    std::atomic<std::uint64_t> allowedSignals{~std::uint64_t{0}};
    std::atomic<bool> killed{false};
    // Where it sleeps, for signals and the end of the kernel; under `sleepGuard`.
    std::atomic<std::uint8_t> sleepGuard{0};
    Waiter *sleeping = nullptr;
    bool sleepInterruptible = false;
    WaitInfo waitInfo;

    // Bios that a make_request_fn in this task submitted; bioTail is set while it is in one.
    struct bio *bioList = nullptr;
    struct bio **bioTail = nullptr;

    std::atomic<bool> hasEnded{false};
    WaitQueue endQueue{"the end of a task"};

    // Deterministic scheduler; `self` keeps the task while its fiber lives.
    std::shared_ptr<TaskImpl> self;
    Fiber fiber;
    bool runnable = false;
    std::size_t runIndex = 0;
};

extern thread_local TaskImpl *currentTaskImpl;
TaskImpl &requireTask(const char *function); // aborts outside of a task

/* How tasks come to run. Sleeping ends by grant or kick; both set the waiter's state. */
class Scheduler
{
public:
    virtual ~Scheduler() = default;
    virtual void start(const std::shared_ptr<TaskImpl> &task) = 0;
    // Until `waiter.state` is not 0, or the clock reaches `deadline` (0: none).
    virtual void sleep(Waiter &waiter, std::uint64_t deadline) = 0;
    // Sets a bit in the state of a waiter and wakes its task. The waiter is gone after `granted`.
    virtual void wake(Waiter &waiter, std::uint32_t bit) = 0;
    virtual void yield() = 0;
    virtual std::uint64_t now() = 0;
    // Runs until only service tasks are left, or a deadlock or hang was reported.
    virtual void run() = 0;
    // Ends what tasks are left.
    virtual void shutDown() = 0;
    // The contended way of spin locks: until the word may have changed from `value`.
    virtual void spinWait(const LockHead *lock, std::atomic<std::uint32_t> &word,
                          std::uint32_t value) = 0;
    virtual void spinWake(const LockHead *lock, std::atomic<std::uint32_t> &word) = 0;
};

std::unique_ptr<Scheduler> makeParallelScheduler();
std::unique_ptr<Scheduler> makeDeterministicScheduler(std::uint64_t seed,
                                                      std::uint64_t maxSwitches);

/* The state of the one kernel. */
struct Core {
    Options options;
    std::unique_ptr<Scheduler> scheduler;
    HiddenMutex mutex;                                  // tasks, violations, random
    std::vector<std::shared_ptr<TaskImpl>> tasks;       // those that have not ended
    std::vector<std::shared_ptr<TaskImpl>> failedTasks; // those whose exception nobody took yet
    std::atomic<int> nextPid{1};
    std::vector<std::string> violations;
    Random random;
    bool thrownAway = false; // after a deadlock: tasks were left in the middle
};
extern Core *core;

/* Set for the life of a kernel; plain variables, since every kernel call reads them. */
extern bool deterministic;
extern bool checking;
extern int switchCountdown;
extern int switchesForbidden; // while above 0, no switch point switches
void switchNow();

inline void pointOfSwitch()
{
    if (deterministic && --switchCountdown < 0)
        switchNow();
}

inline void lockGuard(std::atomic<std::uint8_t> &guard)
{
    for (unsigned spins = 0; guard.exchange(1, std::memory_order_acquire) != 0; spins++)
        if (spins > 64)
            sched_yield();
}

inline void unlockGuard(std::atomic<std::uint8_t> &guard)
{
    guard.store(0, std::memory_order_release);
}

inline void append(WaiterList &list, Waiter &waiter)
{
    waiter.next = nullptr;
    waiter.linked = true;
    if (list.last != nullptr)
        list.last->next = &waiter;
    else
        list.first = &waiter;
    list.last = &waiter;
}

// Takes out the first waiter of a list that is not empty.
inline Waiter &takeFirst(WaiterList &list)
{
    Waiter &waiter = *list.first;
    list.first = waiter.next;
    if (list.first == nullptr)
        list.last = nullptr;
    waiter.linked = false;
    return waiter;
}

void unlink(WaiterList &list, Waiter &waiter);

inline void grant(Waiter &waiter)
{
    core->scheduler->wake(waiter, Waiter::granted);
}

/*
 * Sleeps until `waiter`, which is in `list`, is granted (true). False: a signal ended an
 * interruptible wait, and it is out of the list. May throw TaskKilled, out of the list too.
 */
bool sleepInQueue(std::atomic<std::uint8_t> &guard, WaiterList &list, Waiter &waiter,
                  const WaitInfo &info, bool interruptible);

bool signalPendingFor(const TaskImpl &task);

// The bodies of all tasks, called by the schedulers on the task's own stack.
void runTask(TaskImpl &task);

void setName(TaskImpl &task, const std::string &name);
std::shared_ptr<TaskImpl> newTask(const std::string &name);
// One line for each task that has not ended: what it waits for, and who holds that.
std::string describeTasks();
std::string taskName(const TaskImpl &task); // "name (pid)"

} // namespace host
