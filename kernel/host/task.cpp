/* Tasks: starting, ending, signals, contexts. */
#include <host/task.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <kernel/task.h>

#include "core.h"
#include "lockcheck.h"

namespace host
{

thread_local TaskImpl *currentTaskImpl;

TaskImpl &requireTask(const char *function)
{
    if (currentTaskImpl == nullptr) {
        std::fprintf(stderr, "host kernel: %s() called outside of a task\n", function);
        std::abort();
    }
    return *currentTaskImpl;
}

std::string taskName(const TaskImpl &task)
{
    HiddenScope scope(core->mutex);
    return task.name + " (" + std::to_string(task.pid) + ")";
}

std::string currentName()
{
    return currentTaskImpl != nullptr ? currentTaskImpl->label : "no task";
}

/* Starting and ending. */

void setName(TaskImpl &task, const std::string &name)
{
    std::snprintf(task.label, sizeof(task.label), "%s (%d)", name.c_str(), task.pid);
    HiddenScope scope(core->mutex);
    task.name = name;
}

std::shared_ptr<TaskImpl> newTask(const std::string &name)
{
    auto task = std::make_shared<TaskImpl>();
    task->pid = core->nextPid.fetch_add(1, std::memory_order_relaxed);
    setName(*task, name);
    if (currentTaskImpl != nullptr)
        task->process = currentTaskImpl->process;
    HiddenScope scope(core->mutex);
    core->tasks.push_back(task);
    return task;
}

namespace
{

void runKernelThread(TaskImpl &task)
{
    // complete_and_exit comes back here, so that nothing of the thread's function runs after it.
    if (setjmp(task.exitPoint) == 0)
        task.threadFunction(task.threadArgument);
    checkTaskEnd();
    {
        // Whoever waits for the completion finds no thread of the module any more.
        HiddenScope scope(core->mutex);
        task.kernelThread = false;
    }
    if (task.exitCompletion != nullptr)
        complete(task.exitCompletion);
}

} // namespace

void runTask(TaskImpl &task)
{
    currentTaskImpl = &task;
    try {
        if (task.threadFunction != nullptr) {
            runKernelThread(task);
        } else {
            task.body();
            checkTaskEnd();
        }
    } catch (const TaskKilled &) {
    } catch (...) {
        task.exception = std::current_exception();
    }
    task.body = nullptr;
    {
        HiddenScope scope(core->mutex);
        if (task.exception != nullptr)
            core->failedTasks.push_back(task.shared_from_this());
        std::erase_if(core->tasks, [&](const auto &other) { return other.get() == &task; });
    }
    task.endQueue.wake([&] { task.hasEnded = true; });
}

Task spawn(std::function<void()> body, const TaskOptions &options)
{
    if (core == nullptr) {
        std::fprintf(stderr, "host kernel: spawn() without a kernel\n");
        std::abort();
    }
    std::shared_ptr<TaskImpl> task = newTask(options.name);
    task->body = std::move(body);
    task->service = options.service;
    if (options.process != nullptr)
        task->process = options.process;
    core->scheduler->start(task);
    pointOfSwitch();
    return Task(std::move(task));
}

Task spawn(const std::string &name, std::function<void()> body)
{
    TaskOptions options;
    options.name = name;
    return spawn(std::move(body), options);
}

void Task::join()
{
    requireTask("Task::join");
    maySleep("Task::join");
    TaskImpl &task = *impl_;
    task.endQueue.wait([&] { return task.hasEnded.load(); });
    if (task.exception != nullptr && !task.exceptionTaken) {
        task.exceptionTaken = true;
        std::rethrow_exception(task.exception);
    }
}

bool Task::ended() const
{
    return impl_->hasEnded;
}

namespace
{

bool isAsleep(TaskImpl &task)
{
    lockGuard(task.sleepGuard);
    bool asleep = task.sleeping != nullptr &&
                  task.sleeping->state.load(std::memory_order_relaxed) == 0; // else it was woken
    unlockGuard(task.sleepGuard);
    return asleep;
}

} // namespace

bool Task::asleep() const
{
    return isAsleep(*impl_);
}

bool othersAsleep()
{
    HiddenScope scope(core->mutex);
    return std::all_of(core->tasks.begin(), core->tasks.end(), [](const auto &task) {
        return task.get() == currentTaskImpl || isAsleep(*task);
    });
}

int Task::pid() const
{
    return impl_->pid;
}

std::string Task::name() const
{
    HiddenScope scope(core->mutex);
    return impl_->name;
}

Task currentTask()
{
    return currentTaskImpl != nullptr ? Task(currentTaskImpl->shared_from_this()) : Task();
}

Process *currentProcess()
{
    return currentTaskImpl != nullptr ? currentTaskImpl->process : nullptr;
}

void setCurrentProcess(Process *p)
{
    requireTask("setCurrentProcess").process = p;
}

Task findTask(int pid)
{
    HiddenScope scope(core->mutex);
    for (const std::shared_ptr<TaskImpl> &task : core->tasks)
        if (task->pid == pid)
            return Task(task);
    return Task();
}

std::vector<std::string> kernelThreads()
{
    std::vector<std::string> names;
    HiddenScope scope(core->mutex);
    for (const std::shared_ptr<TaskImpl> &task : core->tasks)
        if (task->kernelThread)
            names.push_back(task->name + " (" + std::to_string(task->pid) + ")");
    return names;
}

/* Signals. */

namespace
{

constexpr int lastSignal = 64;

} // namespace

bool signalPendingFor(const TaskImpl &task)
{
    return (task.pendingSignals & task.allowedSignals) != 0;
}

bool signalPending()
{
    return signalPendingFor(requireTask("signalPending"));
}

void Task::signal(int number)
{
    TaskImpl &task = *impl_;
    task.pendingSignals |= std::uint64_t{1} << (number - 1);
    lockGuard(task.sleepGuard);
    if (task.sleeping != nullptr && task.sleepInterruptible && signalPendingFor(task))
        core->scheduler->wake(*task.sleeping, Waiter::kicked);
    unlockGuard(task.sleepGuard);
    pointOfSwitch();
}

/* Contexts. */

bool inInterrupt()
{
    return currentTaskImpl != nullptr && currentTaskImpl->interruptDepth != 0;
}

bool inAtomicContext()
{
    const TaskImpl *task = currentTaskImpl;
    return task != nullptr &&
           (task->spinDepth != 0 || task->rcuDepth != 0 || task->interruptDepth != 0);
}

void runInInterrupt(const std::function<void()> &body)
{
    TaskImpl &task = requireTask("runInInterrupt");
    bool interruptsOff = task.interruptsOff;
    task.interruptsOff = true;
    task.interruptDepth++;
    body();
    task.interruptDepth--;
    task.interruptsOff = interruptsOff;
}

IoPathScope::IoPathScope()
{
    requireTask("IoPathScope").ioPathDepth++;
}

IoPathScope::~IoPathScope()
{
    currentTaskImpl->ioPathDepth--;
}

void switchPoint()
{
    pointOfSwitch();
}

void maySleep(const char *function)
{
    if (checking && inAtomicContext()) [[unlikely]]
        reportSleepInAtomic(std::string(function) + "()");
    pointOfSwitch();
}

} // namespace host

using namespace host;

int kernel_thread(int (*function)(void *), void *argument, unsigned long)
{
    TaskImpl &parent = requireTask("kernel_thread");
    checkAllocation(GFP_KERNEL, "kernel_thread");
    pointOfSwitch();
    if (faultHits(Fault::kernelThread))
        return -KERNEL_ENOMEM;
    std::shared_ptr<TaskImpl> task = newTask(Task(parent.shared_from_this()).name());
    task->kernelThread = true;
    task->threadFunction = function;
    task->threadArgument = argument;
    int pid = task->pid;
    core->scheduler->start(task);
    pointOfSwitch();
    return pid;
}

void daemonize(const char *name)
{
    constexpr std::size_t longestName = 15;
    TaskImpl &task = requireTask("daemonize");
    maySleep("daemonize");
    task.process = nullptr;
    task.allowedSignals = 0;
    setName(task, std::string(name).substr(0, longestName));
}

int allow_signal(int signal)
{
    pointOfSwitch();
    if (signal < 1 || signal > lastSignal)
        return -KERNEL_EINVAL;
    requireTask("allow_signal").allowedSignals |= std::uint64_t{1} << (signal - 1);
    return 0;
}

void complete_and_exit(struct completion *done, long)
{
    TaskImpl &task = requireTask("complete_and_exit");
    if (!task.kernelThread) {
        std::fprintf(stderr, "host kernel: complete_and_exit() outside of a kernel thread\n");
        std::abort();
    }
    pointOfSwitch();
    task.exitCompletion = done;
    std::longjmp(task.exitPoint, 1);
}
