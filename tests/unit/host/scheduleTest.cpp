/* The deterministic schedule: replay, deadlocks, hangs. */
#include <gtest/gtest.h>

#include <set>

#include <host/kernel.h>
#include <host/task.h>
#include <kernel/sync.h>
#include <kernel/task.h>
#include <kernel/time.h>

using namespace host;

namespace
{

Options deterministicOptions(std::uint64_t seed)
{
    Options options;
    options.scheduling = Scheduling::deterministic;
    options.seed = seed;
    return options;
}

// Which task made which step, with time and random bytes, of a small mixed load.
std::vector<std::string> trace(std::uint64_t seed)
{
    Kernel kernel(deterministicOptions(seed));
    std::vector<std::string> steps;
    auto step = [&](const std::string &what) {
        steps.push_back(currentTask().name() + " " + what + " " + std::to_string(nowNanoseconds()));
    };
    kernel.run([&] {
        static struct semaphore sem;
        static spinlock_t spin;
        sema_init(&sem, 2);
        spin_lock_init(&spin);
        for (int i = 0; i < 4; i++)
            spawn("task" + std::to_string(i), [&, i] {
                for (int n = 0; n < 10; n++) {
                    down(&sem);
                    step("down");
                    unsigned long flags = spin_lock_irqsave(&spin);
                    step("spin");
                    spin_unlock_irqrestore(&spin, flags);
                    if (n % 3 == i % 3)
                        sleepNanoseconds(randomNumber() % 10'000);
                    up(&sem);
                    unsigned char byte;
                    get_random_bytes(&byte, 1);
                    step(std::to_string(byte));
                }
            });
    });
    EXPECT_EQ(kernel.violations(), std::vector<std::string>{});
    return steps;
}

TEST(ScheduleTest, TheSameSeedReplaysExactly)
{
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        std::vector<std::string> first = trace(seed);
        EXPECT_EQ(first.size(), 120u);
        EXPECT_EQ(first, trace(seed)) << "seed " << seed;
    }
}

TEST(ScheduleTest, OtherSeedsTakeOtherWays)
{
    std::set<std::vector<std::string>> traces;
    for (std::uint64_t seed = 1; seed <= 20; seed++)
        traces.insert(trace(seed));
    EXPECT_EQ(traces.size(), 20u);
}

// Two unprotected increments with a kernel call in the middle: some seeds lose one.
TEST(ScheduleTest, KernelCallsAreSwitchPoints)
{
    std::set<int> results;
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        Kernel kernel(deterministicOptions(seed));
        int counter = 0;
        atomic_t other;
        kernel.run([&] {
            atomic_set(&other, 0);
            auto increment = [&] {
                int before = counter;
                atomic_inc(&other);
                counter = before + 1;
            };
            spawn("a", increment);
            spawn("b", increment);
        });
        results.insert(counter);
    }
    EXPECT_EQ(results, (std::set<int>{1, 2}));
}

TEST(ScheduleTest, TimeJumpsToTheNextSleeper)
{
    Kernel kernel(deterministicOptions(1));
    kernel.run([] {
        std::uint64_t day = 86'400'000'000'000;
        sleepNanoseconds(day);
        EXPECT_GE(nowNanoseconds(), day);
        EXPECT_LT(nowNanoseconds(), day + 1'000'000);
    });
}

TEST(ScheduleTest, TasksThatOnlyYieldLetSleepersWake)
{
    Kernel kernel(deterministicOptions(1));
    kernel.run([] {
        bool woken = false;
        spawn("sleeper", [&] {
            sleepNanoseconds(1'000'000);
            woken = true;
        });
        while (!woken)
            schedule();
        EXPECT_GE(nowNanoseconds(), 1'000'000u);
    });
}

TEST(ScheduleTest, ADeadlockNamesTasksLocksAndHolders)
{
    Kernel kernel(deterministicOptions(3));
    struct semaphore first;
    struct rw_semaphore second;
    int locked = 0;
    bool returned = false;
    kernel.run([&] {
        sema_init(&first, 1);
        init_rwsem(&second);
        spawn("left", [&] {
            down(&first);
            locked++;
            while (locked < 2)
                yield();
            down_write(&second);
            returned = true;
        });
        spawn("right", [&] {
            down_read(&second);
            locked++;
            while (locked < 2)
                yield();
            down(&first);
            returned = true;
        });
    });
    EXPECT_FALSE(returned);
    std::vector<std::string> violations = kernel.takeViolations();
    std::string report;
    for (const std::string &violation : violations)
        if (violation.find("deadlock: ") == 0)
            report = violation;
    EXPECT_NE(report.find("left (2) holding &first waits in down_write() for rw-semaphore "
                          "&second, held by right (3)"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("right (3) holding &second waits in down() for semaphore &first, held "
                          "by left (2)"),
              std::string::npos)
        << report;
}

TEST(ScheduleTest, AReportOfAHangNamesTheHolderOfASpinLock)
{
    Options options = deterministicOptions(1);
    options.maxSwitches = 10'000;
    Kernel kernel(options);
    spinlock_t lock;
    kernel.run([&] {
        spin_lock_init(&lock);
        (void)spin_lock_irqsave(&lock);
        Task other = spawn("other", [&] {
            unsigned long flags = spin_lock_irqsave(&lock);
            spin_unlock_irqrestore(&lock, flags);
        });
        while (!other.ended())
            schedule();
    });
    std::vector<std::string> violations = kernel.takeViolations();
    ASSERT_FALSE(violations.empty());
    EXPECT_EQ(violations[0].find("sleep in atomic context: schedule() by main (1) holding &lock"),
              0u)
        << violations[0];
    EXPECT_EQ(violations.back().find("hang: "), 0u) << violations.back();
    EXPECT_NE(violations.back().find("other (2) waits in spin_lock_irqsave() for spin lock &lock, "
                                     "held by main (1)"),
              std::string::npos)
        << violations.back();
}

TEST(ScheduleTest, ALostCompletionIsADeadlockInSpiteOfBusyServices)
{
    Kernel kernel(deterministicOptions(1));
    struct completion done;
    kernel.run([&] {
        init_completion(&done);
        spawn(
            [] {
                for (;;)
                    sleepNanoseconds(1'000'000'000);
            },
            {.name = "ticker", .service = true});
        wait_for_completion(&done);
    });
    std::vector<std::string> violations = kernel.takeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].find("deadlock: "), 0u);
    EXPECT_NE(violations[0].find("main (1) waits in wait_for_completion() for completion"),
              std::string::npos)
        << violations[0];
}

TEST(ScheduleTest, ABoundedNumberOfSwitchesEndsAHang)
{
    Options options = deterministicOptions(1);
    options.maxSwitches = 10'000;
    Kernel kernel(options);
    kernel.run([] {
        bool never = false;
        spawn("spinner", [&] {
            while (!never)
                schedule();
        });
        while (!never)
            schedule();
    });
    std::vector<std::string> violations = kernel.takeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].find("hang: still not done after 10000 switches"), 0u);
    EXPECT_NE(violations[0].find("spinner (2) can run"), std::string::npos) << violations[0];
}

TEST(ScheduleTest, AContendedSpinLockMakesTheTaskWait)
{
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        Kernel kernel(deterministicOptions(seed));
        int inside = 0;
        int entered = 0;
        kernel.run([&] {
            static spinlock_t lock;
            spin_lock_init(&lock);
            static atomic_t counter;
            for (int i = 0; i < 4; i++)
                spawn("spinner", [&] {
                    unsigned long flags = spin_lock_irqsave(&lock);
                    EXPECT_EQ(inside++, 0);
                    for (int n = 0; n < 10; n++)
                        atomic_inc(&counter);
                    entered++;
                    EXPECT_EQ(--inside, 0);
                    spin_unlock_irqrestore(&lock, flags);
                });
        });
        EXPECT_EQ(entered, 4);
        EXPECT_EQ(kernel.violations(), std::vector<std::string>{});
    }
}

} // namespace
