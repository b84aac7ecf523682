/* Tasks under both schedulers: starting, ending, sleeping, signals. */
#include <algorithm>
#include <atomic>
#include <stdexcept>

#include <host/task.h>
#include <kernel/sync.h>
#include <kernel/task.h>
#include <kernel/time.h>

#include "support/hostTest.h"

using namespace host;

namespace
{

constexpr int sigKill = 9;

class TaskTest : public test::SchedulerTest
{
protected:
    // Where services sleep, until the kernel ends.
    WaitQueue queue_{"work"};
};
INSTANTIATE_SCHEDULERS(TaskTest);

TEST_P(TaskTest, RunWaitsForAllTasksButServices)
{
    std::atomic<int> ended = 0;
    inKernel([&] {
        for (int i = 0; i < 5; i++)
            spawn("worker", [&] {
                sleepNanoseconds(1'000'000);
                ended++;
            });
        spawn([&] { queue_.wait([] { return false; }); }, {.name = "server", .service = true});
    });
    EXPECT_EQ(ended, 5);
}

TEST_P(TaskTest, RunMayBeCalledAgainAndServicesGoOn)
{
    int work = 0;
    std::atomic<int> done = 0;
    for (int round = 0; round < 3; round++)
        inKernel([&] {
            if (round == 0)
                spawn(
                    [&] {
                        for (;;) {
                            queue_.wait([&] { return work > 0 && work-- > 0; });
                            done++;
                        }
                    },
                    {.name = "server", .service = true});
            queue_.wake([&] { work++; });
            while (done != round + 1)
                yield();
        });
    EXPECT_EQ(done, 3);
}

TEST_P(TaskTest, AnExceptionOfTheBodyComesOut)
{
    EXPECT_THROW(inKernel([] { throw std::runtime_error("broken"); }), std::runtime_error);
}

TEST_P(TaskTest, JoinWaitsAndRethrows)
{
    inKernel([] {
        std::atomic<bool> ran = false;
        Task good = spawn("good", [&] {
            yield();
            ran = true;
        });
        good.join();
        EXPECT_TRUE(ran);
        EXPECT_TRUE(good.ended());
        Task bad = spawn("bad", [] { throw std::runtime_error("broken"); });
        EXPECT_THROW(bad.join(), std::runtime_error);
    });
}

TEST_P(TaskTest, AnExceptionThatNobodyTakesIsAViolation)
{
    inKernel([] { spawn("bad", [] { throw std::runtime_error("broken"); }); });
    expectViolation("unhandled exception: it ended the task bad (2)");
}

TEST_P(TaskTest, ExceptionsInFlightStayWithTheirTask)
{
    inKernel([] {
        auto body = [](int number) {
            for (int i = 0; i < 50; i++) {
                try {
                    throw number;
                } catch (int) {
                    yield();
                    try {
                        throw;
                    } catch (int again) {
                        EXPECT_EQ(again, number);
                    }
                }
            }
        };
        std::vector<Task> tasks;
        for (int i = 0; i < 4; i++)
            tasks.push_back(spawn("thrower", [=] { body(i); }));
        for (Task &task : tasks)
            task.join();
    });
}

TEST_P(TaskTest, OthersAreAsleepWhenNoneIsAwake)
{
    inKernel([&] {
        std::atomic<bool> stop = false;
        bool woken = false;
        Task sleeper = spawn("sleeper", [&] { queue_.wait([&] { return woken; }); });
        Task busy = spawn("busy", [&] {
            while (!stop)
                yield();
        });
        while (!sleeper.asleep())
            yield();
        EXPECT_FALSE(othersAsleep());
        stop = true;
        busy.join();
        while (!othersAsleep())
            yield();
        EXPECT_FALSE(sleeper.ended());
        queue_.wake([&] { woken = true; });
        EXPECT_FALSE(sleeper.asleep()) << "a task that was woken, though it may not have run yet";
        sleeper.join();
    });
}

TEST_P(TaskTest, SleepingTakesTheKernelsTime)
{
    inKernel([] {
        std::uint64_t before = nowNanoseconds();
        sleepNanoseconds(5'000'000);
        EXPECT_GE(nowNanoseconds() - before, 5'000'000u);
    });
}

TEST_P(TaskTest, TheWallClockAdvancesByTicks)
{
    inKernel([] {
        kernel_timespec before;
        kernel_timespec after;
        current_kernel_time(&before);
        sleepNanoseconds(20'000'000);
        current_kernel_time(&after);
        EXPECT_GT(before.tv_sec, 1'000'000'000);
        EXPECT_EQ(before.tv_nsec % 4'000'000, 0);
        std::int64_t passed = (std::int64_t{after.tv_sec} - before.tv_sec) * 1'000'000'000 +
                              after.tv_nsec - before.tv_nsec;
        EXPECT_GE(passed, 16'000'000);
    });
}

TEST_P(TaskTest, RandomBytesFillTheWholeBuffer)
{
    inKernel([] {
        unsigned char bytes[57] = {};
        unsigned char seen[56] = {};
        for (int i = 0; i < 20; i++) {
            get_random_bytes(bytes, 56);
            for (int n = 0; n < 56; n++)
                seen[n] |= bytes[n];
        }
        EXPECT_EQ(std::count(seen, seen + 56, 0), 0);
        EXPECT_EQ(bytes[56], 0);
    });
}

/* Kernel threads. */

struct ThreadState {
    struct completion started;
    struct completion exited;
    std::atomic<bool> ranAfterExit{false};
    std::string name;
};

int threadThatExits(void *argument)
{
    auto *state = static_cast<ThreadState *>(argument);
    daemonize("a very long name indeed");
    state->name = currentTask().name();
    complete(&state->started);
    complete_and_exit(&state->exited, 0);
    state->ranAfterExit = true;
    return 0;
}

TEST_P(TaskTest, AKernelThreadNamesItselfAndEndsWithACompletion)
{
    ThreadState state;
    inKernel([&] {
        init_completion(&state.started);
        init_completion(&state.exited);
        EXPECT_GT(kernel_thread(threadThatExits, &state, 0), 0);
        wait_for_completion(&state.started);
        wait_for_completion(&state.exited);
    });
    EXPECT_EQ(state.name, "a very long nam");
    EXPECT_FALSE(state.ranAfterExit);
}

TEST_P(TaskTest, AnAllowedSignalInterruptsAndStaysPending)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 0);
        std::atomic<bool> ready = false;
        Task thread = spawn("waiter", [&] {
            daemonize("waiter");
            EXPECT_EQ(allow_signal(0), -KERNEL_EINVAL);
            EXPECT_EQ(allow_signal(65), -KERNEL_EINVAL);
            EXPECT_EQ(allow_signal(sigKill), 0);
            ready = true;
            EXPECT_EQ(down_interruptible(&sem), -KERNEL_EINTR);
            EXPECT_EQ(down_interruptible(&sem), -KERNEL_EINTR);
            up(&sem);
            EXPECT_EQ(down_interruptible(&sem), 0) << "a count that is there is taken";
        });
        while (!ready)
            yield();
        sleepNanoseconds(2'000'000);
        thread.signal(sigKill);
        thread.join();
    });
}

TEST_P(TaskTest, ABlockedSignalDoesNotInterrupt)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 0);
        std::atomic<bool> ready = false;
        int result = 1;
        Task thread = spawn("waiter", [&] {
            daemonize("waiter");
            ready = true;
            result = down_interruptible(&sem);
        });
        while (!ready)
            yield();
        thread.signal(sigKill);
        sleepNanoseconds(2'000'000);
        up(&sem);
        thread.join();
        EXPECT_EQ(result, 0);
    });
}

TEST_P(TaskTest, ScheduleSleepsAsTheStateSays)
{
    inKernel([] {
        std::atomic<bool> asleep = false;
        std::atomic<bool> awake = false;
        Task sleeper = spawn("sleeper", [&] {
            setCurrentState(TaskState::uninterruptible);
            asleep = true;
            schedule();
            EXPECT_EQ(currentState(), TaskState::running);
            awake = true;
        });
        while (!asleep)
            yield();
        sleepNanoseconds(2'000'000);
        EXPECT_FALSE(awake);
        sleeper.wake();
        sleeper.join();
        EXPECT_TRUE(awake);
    });
}

TEST_P(TaskTest, SetCurrentRunningUndoesASleepingState)
{
    inKernel([] {
        setCurrentState(TaskState::interruptible);
        set_current_running();
        EXPECT_EQ(currentState(), TaskState::running);
        schedule();
    });
}

/* Wait queues. */

TEST_P(TaskTest, WaitersAreServedInOrderOfArrival)
{
    inKernel([] {
        WaitQueue queue("tickets");
        int tickets = 0;
        std::atomic<int> waiting = 0;
        std::vector<int> served;
        std::vector<Task> tasks;
        for (int i = 0; i < 5; i++) {
            tasks.push_back(spawn("waiter", [&, i] {
                bool counted = false;
                queue.wait([&, i] {
                    if (!counted)
                        waiting++;
                    counted = true;
                    if (tickets == 0)
                        return false;
                    tickets--;
                    served.push_back(i);
                    return true;
                });
            }));
            while (waiting != i + 1)
                yield();
        }
        queue.wake([&] { tickets = 3; });
        queue.wake([&] { tickets = 2; });
        for (Task &task : tasks)
            task.join();
        EXPECT_EQ(served, (std::vector<int>{0, 1, 2, 3, 4}));
    });
}

TEST_P(TaskTest, ConditionsMayBeKernelCalls)
{
    inKernel([] {
        WaitQueue queue("a count");
        atomic_t counter;
        atomic_set(&counter, 0);
        std::vector<Task> tasks;
        for (int i = 0; i < 3; i++)
            tasks.push_back(
                spawn("waiter", [&] { queue.wait([&] { return atomic_read(&counter) == 20; }); }));
        for (int i = 0; i < 20; i++)
            queue.wake([&] { atomic_inc(&counter); });
        for (Task &task : tasks)
            task.join();
        EXPECT_EQ(atomic_read(&counter), 20);
    });
}

} // namespace
