/*
 * The deterministic scheduler: tasks are fibers of one thread, and a seeded generator chooses at
 * each switch point whether another one goes on, and which. Time is virtual.
 */
#include <climits>
#include <map>

#include "core.h"

namespace host
{

int switchCountdown = 0;
int switchesForbidden = 0;

namespace
{

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
// Service tasks may keep time going for ever; what all others wait for does not come after this.
constexpr std::uint64_t patience = 1000 * nanosecondsPerSecond;

class DeterministicScheduler;
DeterministicScheduler *scheduler;

class DeterministicScheduler : public Scheduler
{
public:
    DeterministicScheduler(std::uint64_t seed, std::uint64_t maxSwitches)
        : random_(seed), maxSwitches_(maxSwitches)
    {
        // Some seeds switch at nearly every call, others let tasks run for a while.
        static constexpr std::array<std::uint32_t, 6> spans{2, 4, 8, 16, 32, 128};
        span_ = spans[random_.below(spans.size())];
        scheduler = this;
        switchCountdown = 0;
    }

    ~DeterministicScheduler() override { scheduler = nullptr; }

    void start(const std::shared_ptr<TaskImpl> &task) override
    {
        awaited_ += task->service ? 0 : 1;
        task->fiber.prepare(&DeterministicScheduler::fiberMain, task.get());
        task->self = task;
        makeRunnable(*task);
    }

    void sleep(Waiter &waiter, std::uint64_t deadline) override
    {
        TaskImpl &task = *currentTaskImpl;
        while (waiter.state.load(std::memory_order_relaxed) == 0) {
            if (deadline != 0 && clock_ >= deadline)
                return;
            takeFromRunnable(task);
            SleeperKey key{deadline, sleeperNumber_++};
            if (deadline != 0)
                sleepers_.emplace(key, &task);
            reschedule(false);
            sleepers_.erase(key);
        }
    }

    void wake(Waiter &waiter, std::uint32_t bit) override
    {
        TaskImpl *task = waiter.task;
        waiter.state.fetch_or(bit, std::memory_order_relaxed);
        makeRunnable(*task);
    }

    void yield() override
    {
        if (currentTaskImpl != nullptr)
            reschedule(true);
    }

    std::uint64_t now() override { return clock_; }

    void run() override
    {
        lastAwaitedRun_ = clock_;
        runAll();
    }

    void shutDown() override
    {
        if (core->thrownAway) {
            for (const std::shared_ptr<TaskImpl> &task : abandoned_) {
                task->fiber.abandon();
                task->self = nullptr;
            }
            abandoned_.clear();
            return;
        }
        for (const std::shared_ptr<TaskImpl> &task : core->tasks) {
            task->killed = true;
            if (task->sleeping != nullptr)
                wake(*task->sleeping, Waiter::kicked);
        }
        runAll();
    }

    void spinWait(const LockHead *lock, std::atomic<std::uint32_t> &, std::uint32_t) override
    {
        TaskImpl &task = *currentTaskImpl;
        takeFromRunnable(task);
        spinning_.push_back({lock, &task});
        reschedule(false);
    }

    void spinWake(const LockHead *lock, std::atomic<std::uint32_t> &) override
    {
        std::erase_if(spinning_, [&](const Spinning &spinning) {
            if (spinning.lock != lock)
                return false;
            makeRunnable(*spinning.task);
            return true;
        });
    }

    void switchPoint()
    {
        switchCountdown = static_cast<int>(random_.below(span_));
        if (currentTaskImpl != nullptr && switchesForbidden == 0)
            reschedule(false);
    }

private:
    using SleeperKey = std::pair<std::uint64_t, std::uint64_t>; // when, order of arrival
    struct Spinning {
        const LockHead *lock;
        TaskImpl *task;
    };

    void makeRunnable(TaskImpl &task)
    {
        if (task.runnable)
            return;
        task.runnable = true;
        task.runIndex = runnable_.size();
        runnable_.push_back(&task);
    }

    void takeFromRunnable(TaskImpl &task)
    {
        TaskImpl *last = runnable_.back();
        runnable_[task.runIndex] = last;
        last->runIndex = task.runIndex;
        runnable_.pop_back();
        task.runnable = false;
    }

    static void fiberMain(void *argument)
    {
        auto *task = static_cast<TaskImpl *>(argument);
        scheduler->arrive(task);
        runTask(*task);
        scheduler->endCurrent();
    }

    void endCurrent()
    {
        TaskImpl *task = currentTaskImpl;
        takeFromRunnable(*task);
        awaited_ -= task->service ? 0 : 1;
        ended_ = std::move(task->self);
        reschedule(false, true);
    }

    // What a context does first when it goes on.
    void arrive(TaskImpl *task)
    {
        currentTaskImpl = task;
        if (ended_ != nullptr) {
            ended_->fiber.discard();
            ended_ = nullptr;
        }
    }

    void wakeSleepers()
    {
        while (!sleepers_.empty() && sleepers_.begin()->first.first <= clock_) {
            makeRunnable(*sleepers_.begin()->second);
            sleepers_.erase(sleepers_.begin());
        }
    }

    bool onlyServicesSleep() const
    {
        for (const auto &[key, task] : sleepers_)
            if (!task->service)
                return false;
        return true;
    }

    // The task that goes on, or nullptr for the end of run().
    TaskImpl *choose(const TaskImpl *not_)
    {
        if (++switches_ > maxSwitches_ && awaited_ != 0) {
            giveUp("hang", "still not done after " + std::to_string(maxSwitches_) + " switches");
            return nullptr;
        }
        std::uint64_t number = random_.next();
        clock_ += number & 0x7ff;
        if (awaited_ != 0) {
            wakeSleepers();
            if (runnable_.empty() && !sleepers_.empty() &&
                (clock_ - lastAwaitedRun_ < patience || !onlyServicesSleep())) {
                clock_ = sleepers_.begin()->first.first;
                wakeSleepers();
            }
        }
        if (runnable_.empty()) {
            if (awaited_ != 0)
                giveUp("deadlock", "no task can go on");
            return nullptr;
        }
        std::uint32_t count = static_cast<std::uint32_t>(runnable_.size());
        std::uint32_t index;
        if (not_ != nullptr && not_->runnable && count > 1) {
            index = static_cast<std::uint32_t>(((number >> 32) * (count - 1)) >> 32);
            index += index >= not_->runIndex ? 1 : 0;
        } else {
            index = static_cast<std::uint32_t>(((number >> 32) * count) >> 32);
        }
        TaskImpl *task = runnable_[index];
        if (!task->service)
            lastAwaitedRun_ = clock_;
        return task;
    }

    void reschedule(bool preferOthers, bool last = false)
    {
        TaskImpl *self = currentTaskImpl;
        TaskImpl *next = choose(preferOthers ? self : nullptr);
        if (next == self)
            return;
        Fiber::switchTo(self->fiber, next != nullptr ? next->fiber : outside_, last);
        arrive(self);
    }

    void runAll()
    {
        if (TaskImpl *first = choose(nullptr)) {
            Fiber::switchTo(outside_, first->fiber);
            arrive(nullptr);
        }
    }

    // Leaves every task where it is, for good; run() returns.
    void giveUp(const char *kind, const std::string &why)
    {
        reportViolation(kind, why + describeTasks());
        core->thrownAway = true;
        switchesForbidden = 0;
        abandoned_ = core->tasks;
        core->tasks.clear();
        runnable_.clear();
        sleepers_.clear();
        spinning_.clear();
        awaited_ = 0;
    }

    Random random_;
    std::uint32_t span_;
    std::uint64_t clock_ = 0;
    std::uint64_t switches_ = 0;
    const std::uint64_t maxSwitches_;
    std::uint64_t lastAwaitedRun_ = 0;
    std::uint64_t sleeperNumber_ = 0;
    unsigned awaited_ = 0;
    std::vector<TaskImpl *> runnable_;
    std::map<SleeperKey, TaskImpl *> sleepers_;
    std::vector<Spinning> spinning_;
    std::shared_ptr<TaskImpl> ended_;
    std::vector<std::shared_ptr<TaskImpl>> abandoned_;
    Fiber outside_;
};

} // namespace

void switchNow()
{
    if (scheduler != nullptr)
        scheduler->switchPoint();
}

std::unique_ptr<Scheduler> makeDeterministicScheduler(std::uint64_t seed, std::uint64_t maxSwitches)
{
    return std::make_unique<DeterministicScheduler>(seed, maxSwitches);
}

} // namespace host
