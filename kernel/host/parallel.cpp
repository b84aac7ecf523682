/* The parallel scheduler: one thread of the process for each task. */
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core.h"

namespace host
{
namespace
{

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::size_t threadStackBytes = 1024 * 1024;

std::uint64_t monotonicNanoseconds()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec);
}

void futexWait(std::atomic<std::uint32_t> &word, std::uint32_t value, const timespec *timeout)
{
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, timeout, nullptr, 0);
}

// The word may be gone already: a wake-up of nobody, or one too many for whoever sleeps there now.
void futexWake(std::atomic<std::uint32_t> &word, int count)
{
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

class ParallelScheduler : public Scheduler
{
public:
    ParallelScheduler() : bootTime_(monotonicNanoseconds()) {}

    void start(const std::shared_ptr<TaskImpl> &task) override
    {
        {
            std::lock_guard lock(mutex_);
            live_++;
            awaited_ += task->service ? 0 : 1;
        }
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, threadStackBytes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        auto *argument = new Start{this, task};
        pthread_t thread;
        if (pthread_create(&thread, &attributes, &ParallelScheduler::threadMain, argument) != 0) {
            std::perror("cannot start a thread for a task");
            std::abort();
        }
        pthread_attr_destroy(&attributes);
    }

    void sleep(Waiter &waiter, std::uint64_t deadline) override
    {
        while (waiter.state.load(std::memory_order_acquire) == 0) {
            if (deadline == 0) {
                futexWait(waiter.state, 0, nullptr);
                continue;
            }
            std::uint64_t time = now();
            if (time >= deadline)
                return;
            std::uint64_t left = deadline - time;
            timespec timeout;
            timeout.tv_sec = static_cast<time_t>(left / nanosecondsPerSecond);
            timeout.tv_nsec = static_cast<long>(left % nanosecondsPerSecond);
            futexWait(waiter.state, 0, &timeout);
        }
    }

    void wake(Waiter &waiter, std::uint32_t bit) override
    {
        std::atomic<std::uint32_t> &word = waiter.state;
        word.fetch_or(bit, std::memory_order_release);
        futexWake(word, 1);
    }

    void yield() override { sched_yield(); }

    std::uint64_t now() override { return monotonicNanoseconds() - bootTime_; }

    void run() override
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return awaited_ == 0; });
    }

    void shutDown() override
    {
        std::vector<std::shared_ptr<TaskImpl>> tasks;
        {
            HiddenScope scope(core->mutex);
            tasks = core->tasks;
        }
        for (const std::shared_ptr<TaskImpl> &task : tasks) {
            task->killed = true;
            lockGuard(task->sleepGuard);
            if (task->sleeping != nullptr)
                wake(*task->sleeping, Waiter::kicked);
            unlockGuard(task->sleepGuard);
        }
        tasks.clear();
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return live_ == 0; });
    }

    void spinWait(const LockHead *, std::atomic<std::uint32_t> &word, std::uint32_t value) override
    {
        futexWait(word, value, nullptr);
    }

    void spinWake(const LockHead *, std::atomic<std::uint32_t> &word) override
    {
        futexWake(word, 1);
    }

private:
    struct Start {
        ParallelScheduler *scheduler;
        std::shared_ptr<TaskImpl> task;
    };

    static void *threadMain(void *argument)
    {
        auto *start = static_cast<Start *>(argument);
        ParallelScheduler *scheduler = start->scheduler;
        bool service = start->task->service;
        runTask(*start->task);
        delete start;
        // The last that this thread does with the kernel.
        std::lock_guard lock(scheduler->mutex_);
        scheduler->live_--;
        scheduler->awaited_ -= service ? 0 : 1;
        scheduler->changed_.notify_all();
        return nullptr;
    }

    const std::uint64_t bootTime_;
    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned live_ = 0;
    unsigned awaited_ = 0; // of these, those that are no service
};

} // namespace

std::unique_ptr<Scheduler> makeParallelScheduler()
{
    return std::make_unique<ParallelScheduler>();
}

} // namespace host
