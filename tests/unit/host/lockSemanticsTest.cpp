/* What the locks do, under both schedulers. */
#include <atomic>

#include <host/task.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "kernel/host/internal.h"
#include "support/hostTest.h"

using namespace host;

namespace
{

class LockSemanticsTest : public test::SchedulerTest
{
protected:
    static void awaitSleep(const Task &task)
    {
        while (!task.asleep())
            yield();
    }
    // Starts a task and returns when it sleeps.
    static Task spawnAsleep(const std::string &name, std::function<void()> body)
    {
        Task task = spawn(name, std::move(body));
        awaitSleep(task);
        return task;
    }
    static void joinAll(std::vector<Task> &tasks)
    {
        for (Task &task : tasks)
            task.join();
    }
};
INSTANTIATE_SCHEDULERS(LockSemanticsTest);

TEST_P(LockSemanticsTest, ASemaphoreServesItsWaitersInOrder)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 0);
        std::vector<int> order;
        std::vector<Task> tasks;
        for (int i = 0; i < 4; i++)
            tasks.push_back(spawnAsleep("waiter", [&, i] {
                down(&sem);
                order.push_back(i);
                up(&sem);
            }));
        up(&sem);
        joinAll(tasks);
        EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
        EXPECT_EQ(down_trylock(&sem), 0);
        EXPECT_EQ(down_trylock(&sem), 1);
    });
}

TEST_P(LockSemanticsTest, UpHandsOverSoThatNobodyCanTakeTheCountFirst)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 0);
        Task waiter = spawnAsleep("waiter", [&] { down(&sem); });
        up(&sem);
        EXPECT_EQ(down_trylock(&sem), 1);
        waiter.join();
    });
}

TEST_P(LockSemanticsTest, ASemaphoreCounts)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 2);
        down(&sem);
        EXPECT_EQ(down_interruptible(&sem), 0);
        EXPECT_EQ(down_trylock(&sem), 1);
        up(&sem);
        EXPECT_EQ(down_trylock(&sem), 0);
    });
}

TEST_P(LockSemanticsTest, AnInterruptedWaiterLeavesTheQueue)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 0);
        int firstResult = 0;
        int secondResult = 1;
        Task first = spawnAsleep("first", [&] { firstResult = down_interruptible(&sem); });
        Task second = spawnAsleep("second", [&] { secondResult = down_interruptible(&sem); });
        first.signal(9);
        first.join();
        EXPECT_EQ(firstResult, -KERNEL_EINTR);
        up(&sem);
        second.join();
        EXPECT_EQ(secondResult, 0);
    });
}

TEST_P(LockSemanticsTest, DownIsNotInterrupted)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 0);
        Task waiter = spawnAsleep("waiter", [&] { down(&sem); });
        waiter.signal(9);
        sleepNanoseconds(1'000'000);
        EXPECT_FALSE(waiter.ended());
        up(&sem);
        waiter.join();
    });
}

TEST_P(LockSemanticsTest, ReadersShareAndWritersExclude)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        down_read(&sem);
        spawn("another reader", [&] {
            down_read(&sem);
            up_read(&sem);
        }).join();
        up_read(&sem);
        std::atomic<int> readers = 0;
        std::atomic<int> writers = 0;
        std::vector<Task> tasks;
        for (int i = 0; i < 4; i++)
            tasks.push_back(spawn("task", [&, i] {
                for (int n = 0; n < 50; n++) {
                    if ((n + i) % 4 == 0) {
                        down_write(&sem);
                        EXPECT_EQ(writers++, 0);
                        EXPECT_EQ(readers, 0);
                        yield();
                        writers--;
                        up_write(&sem);
                    } else {
                        down_read(&sem);
                        EXPECT_EQ(writers, 0);
                        readers++;
                        yield();
                        readers--;
                        up_read(&sem);
                    }
                }
            }));
        joinAll(tasks);
    });
}

TEST_P(LockSemanticsTest, AWaitingWriterHoldsUpLaterReaders)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        std::vector<std::string> order;
        down_read(&sem);
        std::vector<Task> tasks;
        tasks.push_back(spawnAsleep("writer", [&] {
            down_write(&sem);
            order.push_back("writer");
            up_write(&sem);
        }));
        tasks.push_back(spawnAsleep("reader", [&] {
            down_read(&sem);
            order.push_back("reader");
            up_read(&sem);
        }));
        up_read(&sem);
        joinAll(tasks);
        EXPECT_EQ(order, (std::vector<std::string>{"writer", "reader"}));
    });
}

TEST_P(LockSemanticsTest, QueuedReadersWakeTogetherUpToTheNextWriter)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        WaitQueue gate("the gate");
        std::atomic<int> inside = 0;
        bool open = false;
        auto read = [&] {
            down_read(&sem);
            inside++;
            gate.wait([&] { return open; });
            up_read(&sem);
        };
        down_write(&sem);
        std::vector<Task> tasks;
        for (int i = 0; i < 3; i++)
            tasks.push_back(spawnAsleep("early", read));
        tasks.push_back(spawnAsleep("writer", [&] {
            down_write(&sem);
            EXPECT_EQ(inside, 3);
            up_write(&sem);
        }));
        tasks.push_back(spawnAsleep("late", read));
        up_write(&sem);
        while (inside != 3)
            yield();
        sleepNanoseconds(1'000'000);
        EXPECT_EQ(inside, 3) << "the late reader waits behind the writer";
        gate.wake([&] { open = true; });
        joinAll(tasks);
        EXPECT_EQ(inside, 4);
    });
}

TEST_P(LockSemanticsTest, ACompletionCounts)
{
    inKernel([] {
        struct completion done;
        init_completion(&done);
        complete(&done);
        complete(&done);
        wait_for_completion(&done);
        wait_for_completion(&done);
        Task waiter = spawnAsleep("waiter", [&] { wait_for_completion(&done); });
        complete(&done);
        waiter.join();
    });
}

TEST_P(LockSemanticsTest, AMutexIsTakenWithoutWaitingOnlyIfItIsFree)
{
    inKernel([] {
        struct mutex lock;
        initMutex(&lock, "test mutex");
        EXPECT_EQ(mutex_trylock(&lock), 1);
        EXPECT_EQ(mutex_trylock(&lock), 0);
        Task other = spawnAsleep("other", [&] {
            mutex_lock(&lock);
            mutex_unlock(&lock);
        });
        mutex_unlock(&lock);
        other.join();
        EXPECT_EQ(mutex_trylock(&lock), 1);
        mutex_unlock(&lock);
    });
}

TEST_P(LockSemanticsTest, SpinLocksExcludeAndCountersCount)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        atomic_t counter;
        atomic_set(&counter, 0);
        int plain = 0;
        std::vector<Task> tasks;
        for (int i = 0; i < 4; i++)
            tasks.push_back(spawn("task", [&] {
                for (int n = 0; n < 1000; n++) {
                    unsigned long flags = spin_lock_irqsave(&lock);
                    plain++;
                    spin_unlock_irqrestore(&lock, flags);
                    atomic_inc(&counter);
                    atomic_add(3, &counter);
                    atomic_sub(2, &counter);
                    atomic_dec(&counter);
                }
            }));
        joinAll(tasks);
        EXPECT_EQ(plain, 4000);
        EXPECT_EQ(atomic_read(&counter), 4000);
    });
}

TEST_P(LockSemanticsTest, InterruptFlagsNest)
{
    inKernel([] {
        spinlock_t outer;
        spinlock_t inner;
        spin_lock_init(&outer);
        spin_lock_init(&inner);
        unsigned long outerFlags = spin_lock_irqsave(&outer);
        unsigned long innerFlags = spin_lock_irqsave(&inner);
        EXPECT_NE(outerFlags, innerFlags);
        EXPECT_TRUE(inAtomicContext());
        spin_unlock_irqrestore(&inner, innerFlags);
        EXPECT_TRUE(inAtomicContext());
        spin_unlock_irqrestore(&outer, outerFlags);
        EXPECT_FALSE(inAtomicContext());
    });
}

TEST_P(LockSemanticsTest, DecAndTestTellsTheLast)
{
    inKernel([] {
        atomic_t counter;
        atomic_set(&counter, 100);
        std::atomic<int> lasts = 0;
        std::vector<Task> tasks;
        for (int i = 0; i < 4; i++)
            tasks.push_back(spawn("task", [&] {
                for (int n = 0; n < 25; n++)
                    lasts += atomic_dec_and_test(&counter);
            }));
        joinAll(tasks);
        EXPECT_EQ(lasts, 1);
        EXPECT_EQ(atomic_read(&counter), 0);
    });
}

TEST_P(LockSemanticsTest, BitsLieInLittleEndianOrder)
{
    inKernel([] {
        unsigned long map[4] = {};
        auto *bytes = reinterpret_cast<unsigned char *>(map);
        set_bit(0, map);
        set_bit(13, map);
        set_bit(100, map);
        EXPECT_EQ(bytes[0], 0x01);
        EXPECT_EQ(bytes[1], 0x20);
        EXPECT_EQ(bytes[12], 0x10);
        EXPECT_NE(test_bit(100, map), 0);
        EXPECT_EQ(test_bit(99, map), 0);
        clear_bit(13, map);
        EXPECT_EQ(bytes[1], 0);
    });
}

// A reader's last look at what a writer frees: the barrier on both sides orders it.
TEST_P(LockSemanticsTest, ABarrierOrdersWhatACounterTells)
{
    inKernel([] {
        for (int i = 0; i < 100; i++) {
            auto data = std::make_unique<int>(1);
            atomic_t readers;
            atomic_set(&readers, 1);
            Task reader = spawn("reader", [&] {
                EXPECT_EQ(*data, 1);
                smp_mb();
                atomic_dec(&readers);
            });
            while (atomic_read(&readers) != 0)
                schedule();
            smp_mb();
            *data = 2;
            reader.join();
        }
    });
}

} // namespace
