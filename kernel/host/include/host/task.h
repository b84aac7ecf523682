/* Tasks of the host kernel, for code that lives in it and for tests. */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace host
{

class Process; // process.h
struct TaskImpl;
struct Waiter;
struct WaiterList {
    Waiter *first = nullptr;
    Waiter *last = nullptr;
};

// What schedule() makes of a task: a sleeping one comes back when it is woken, an interruptible one
// also when an allowed signal pends.
enum class TaskState : unsigned char { running, interruptible, uninterruptible };

// A handle; copies name the same task.
class Task
{
public:
    Task() = default;
    explicit Task(std::shared_ptr<TaskImpl> impl) : impl_(std::move(impl)) {}
    // Sleeps until the task has ended. Rethrows its exception. From a task only.
    void join();
    bool ended() const;
    // Whether it sleeps: waits for something, or for time to pass. (Waiting for a spin lock is no
    // sleep.) For tests that must know that a task has come to its wait.
    bool asleep() const;
    // Sends a signal; it interrupts the task's interruptible waits if it allows the signal.
    void signal(int number);
    // Makes it runnable if it sleeps in (or is about to call) schedule(). Any context.
    void wake();
    int pid() const;
    std::string name() const;
    explicit operator bool() const { return impl_ != nullptr; }
    const std::shared_ptr<TaskImpl> &impl() const { return impl_; }

private:
    std::shared_ptr<TaskImpl> impl_;
};

struct TaskOptions {
    std::string name = "task";
    bool service = false;       // Kernel::run does not wait for it; it may sleep for ever
    Process *process = nullptr; // whose memory copy_from_user and others see; else the spawner's
};

// Starts a task in process context.
Task spawn(std::function<void()> body, const TaskOptions &options = {});
Task spawn(const std::string &name, std::function<void()> body);

// Whether every task but the caller's sleeps, services as well. That may change at any time if one
// of them waits for time to pass.
bool othersAsleep();

Task currentTask();
Task findTask(int pid);             // one that has not ended, or an empty handle
Process *currentProcess();          // nullptr for a kernel thread
void setCurrentProcess(Process *p); // the caller's task belongs to `p` from here

// The calling task's state, as the kernel's sleeping loops set it.
void setCurrentState(TaskState state);
TaskState currentState();

// Gives other tasks a turn; a switch point. Any context that may sleep.
void yield();
// Sleeps for this much of the kernel's time (virtual when deterministic).
void sleepNanoseconds(std::uint64_t ns);
// Time since boot in nanoseconds (virtual when deterministic: sleeps and I/O advance it, and a
// little each switch of tasks).
std::uint64_t nowNanoseconds();

// A place to sleep at, the base of all blocking primitives. Any number of tasks; served in order of
// arrival. Each queue has a lock of its own, which its conditions and changes run under: what they
// look at and change belongs to this one queue.
class WaitQueue
{
public:
    explicit WaitQueue(const char *what) : what_(what) {}
    WaitQueue(const WaitQueue &) = delete;
    WaitQueue &operator=(const WaitQueue &) = delete;
    // Sleeps until `condition` (called with the queue's lock held, by this task or by one that
    // wakes; it must only look at and change memory, and is not called again once it was true) is
    // true. Returns false only if `interruptible` and an allowed signal pends.
    bool wait(const std::function<bool()> &condition, bool interruptible = false);
    // Runs `change` under the queue's lock, then lets all waiters test their conditions in order.
    // Any context, interrupts too.
    void wake(const std::function<void()> &change = {});

private:
    const char *what_; // named in deadlock reports
    std::atomic<std::uint8_t> guard_{0};
    WaiterList waiters_;
};

// Runs `body` in interrupt context on the calling task (a completion handler): sleeping in it is a
// violation.
void runInInterrupt(const std::function<void()> &body);

// Marks the calling task as being on the path of a write or read to a device: allocations that may
// start I/O (GFP_KERNEL, GFP_HIGHUSER) are violations meanwhile. Nests.
class IoPathScope
{
public:
    IoPathScope();
    ~IoPathScope();
};

// A switch point that may not sleep: each kernel call begins with one.
void switchPoint();
// For functions that may sleep: reports a violation in atomic or interrupt context, then switches.
void maySleep(const char *function);
// Whether the calling task holds a spin lock or runs in interrupt context.
bool inAtomicContext();

} // namespace host
