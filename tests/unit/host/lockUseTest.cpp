/* The checks of how locks are used: each fault is planted and must be reported. */
#include <host/task.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "kernel/host/internal.h"
#include "support/hostTest.h"

using namespace host;

namespace
{

class LockUseTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(LockUseTest);

TEST_P(LockUseTest, SleepingUnderASpinLock)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        struct semaphore sem;
        sema_init(&sem, 1);
        unsigned long flags = spin_lock_irqsave(&lock);
        down(&sem);
        up(&sem);
        spin_unlock_irqrestore(&lock, flags);
    });
    expectViolation("sleep in atomic context: down() by main (1) holding &lock");
}

TEST_P(LockUseTest, SleepingInAnInterrupt)
{
    inKernel([] {
        WaitQueue queue("something");
        runInInterrupt([&] { queue.wait([] { return true; }); });
    });
    expectViolation("sleep in atomic context: waiting for something by main (1) in interrupt "
                    "context");
}

TEST_P(LockUseTest, YieldingUnderASpinLock)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        unsigned long flags = spin_lock_irqsave(&lock);
        schedule();
        spin_unlock_irqrestore(&lock, flags);
    });
    expectViolation("sleep in atomic context: schedule() by main (1) holding &lock");
}

TEST_P(LockUseTest, WhatDoesNotSleepIsFineInAtomicContext)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        struct semaphore sem;
        sema_init(&sem, 0);
        struct completion done;
        init_completion(&done);
        WaitQueue queue("something");
        unsigned long flags = spin_lock_irqsave(&lock);
        up(&sem);
        EXPECT_EQ(down_trylock(&sem), 0);
        complete(&done);
        queue.wake();
        spin_unlock_irqrestore(&lock, flags);
        runInInterrupt([&] {
            EXPECT_TRUE(inInterrupt());
            up(&sem);
            complete(&done);
        });
        EXPECT_FALSE(inInterrupt());
    });
}

TEST_P(LockUseTest, UnlockingWhatAnotherTaskHolds)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        spinlock_t lock;
        spin_lock_init(&lock);
        down_read(&sem);
        spawn("stranger", [&] { up_read(&sem); }).join();
        up_read(&sem);
    });
    expectViolation("unlock of a lock not held: up_read() of &sem by stranger (2)");
}

TEST_P(LockUseTest, UnlockingWhatNobodyHolds)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        spin_unlock_irqrestore(&lock, 0x200);
    });
    expectViolation("unlock of a lock not held: spin_unlock_irqrestore() of &lock by main (1)");
    inKernel([] {
        struct mutex lock;
        initMutex(&lock, "test mutex");
        mutex_unlock(&lock);
    });
    expectViolation("unlock of a lock not held: mutex_unlock() of test mutex by main (2)");
}

TEST_P(LockUseTest, ReleasingAsAWriterWhatWasTakenAsAReader)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        down_read(&sem);
        up_write(&sem);
        up_read(&sem);
    });
    expectViolation("unlock of a lock not held: up_write() of &sem");
}

TEST_P(LockUseTest, AnyTaskMayReleaseASemaphore)
{
    inKernel([] {
        struct semaphore sem;
        sema_init(&sem, 1);
        down(&sem);
        spawn("other", [&] { up(&sem); }).join();
        down(&sem);
        up(&sem);
    });
}

TEST_P(LockUseTest, TakingASpinLockTwice)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        unsigned long flags = spin_lock_irqsave(&lock);
        unsigned long again = spin_lock_irqsave(&lock);
        spin_unlock_irqrestore(&lock, again);
        spin_unlock_irqrestore(&lock, flags);
        EXPECT_FALSE(inAtomicContext());
    });
    expectViolation("recursive locking: &lock");
}

TEST_P(LockUseTest, ReadingTwiceMayWaitForAWriterInBetween)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        down_read(&sem);
        down_read(&sem);
        up_read(&sem);
        up_read(&sem);
        down_write(&sem);
        up_write(&sem);
    });
    expectViolation("recursive locking: &sem");
}

TEST_P(LockUseTest, TakingAMutexTwice)
{
    inKernel([] {
        struct mutex lock;
        initMutex(&lock, "test mutex");
        mutex_lock(&lock);
        mutex_lock(&lock);
        mutex_unlock(&lock);
        EXPECT_EQ(mutex_trylock(&lock), 0);
        mutex_unlock(&lock);
    });
    expectViolation("recursive locking: test mutex");
}

TEST_P(LockUseTest, UsingWhatWasNeverInitialised)
{
    inKernel([] {
        auto *lock = static_cast<spinlock_t *>(kmalloc(sizeof(spinlock_t), GFP_KERNEL));
        unsigned long flags = spin_lock_irqsave(lock);
        spin_unlock_irqrestore(lock, flags);
        kfree(lock);
    });
    expectViolation("lock not initialised: ");
}

/* Locks that die. */

struct Record {
    int before;
    struct semaphore sem;
    struct rw_semaphore gate;
    spinlock_t lock;
    struct completion done;
};

Record *newRecord()
{
    auto *record = static_cast<Record *>(kmalloc(sizeof(Record), GFP_KERNEL));
    sema_init(&record->sem, 1);
    init_rwsem(&record->gate);
    spin_lock_init(&record->lock);
    init_completion(&record->done);
    return record;
}

TEST_P(LockUseTest, FreeingIdleLocksIsFine)
{
    inKernel([] {
        Record *record = newRecord();
        down(&record->sem);
        up(&record->sem);
        complete(&record->done);
        kfree(record);
    });
}

TEST_P(LockUseTest, FreeingAHeldSemaphore)
{
    inKernel([] {
        Record *record = newRecord();
        down(&record->sem);
        kfree(record);
    });
    expectViolation("held lock freed: semaphore &record->sem in a kmalloc object freed by main "
                    "(1), still held by main (1)");
}

TEST_P(LockUseTest, FreeingAHeldRwSemaphore)
{
    inKernel([] {
        Record *record = newRecord();
        down_write(&record->gate);
        kfree(record);
    });
    expectViolation("held lock freed: rw-semaphore &record->gate in a kmalloc object freed by "
                    "main (1), still held for writing by main (1)");
    inKernel([] {
        Record *record = newRecord();
        down_read(&record->gate);
        kfree(record);
    });
    expectViolation("held lock freed: rw-semaphore &record->gate in a kmalloc object freed by "
                    "main (2), still held for reading");
}

TEST_P(LockUseTest, FreeingAHeldSpinLockInAPage)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_KERNEL, 0);
        auto *lock = static_cast<spinlock_t *>(page_address(page));
        spin_lock_init(lock);
        (void)spin_lock_irqsave(lock);
        __free_pages(page, 0);
    });
    expectViolation("spin lock lock");
}

TEST_P(LockUseTest, FreeingASemaphoreInASlabObjectAndAVmallocRange)
{
    inKernel([] {
        kmem_cache *cache = kmem_cache_create("locks", sizeof(struct semaphore), 0, 0, nullptr);
        auto *sem = static_cast<struct semaphore *>(kmem_cache_alloc(cache, GFP_KERNEL));
        sema_init(sem, 1);
        down(sem);
        kmem_cache_free(cache, sem);
        kmem_cache_destroy(cache);
    });
    expectViolation("held lock freed: semaphore sem in a slab object");
    inKernel([] {
        auto *range = static_cast<unsigned char *>(vmalloc(10'000));
        auto *sem = reinterpret_cast<struct semaphore *>(range + 5000 / 8 * 8);
        sema_init(sem, 1);
        down(sem);
        vfree(range);
    });
    expectViolation("held lock freed: semaphore sem in a vmalloc range");
}

TEST_P(LockUseTest, FreeingACompletionThatIsWaitedFor)
{
    inKernel([] {
        auto *record = newRecord();
        Task waiter = spawn("waiter", [&] { wait_for_completion(&record->done); });
        while (!waiter.asleep())
            yield();
        checkFreed(record, sizeof(*record), "a record");
        complete(&record->done);
        waiter.join();
        init_completion(&record->done);
        kfree(record);
    });
    std::vector<std::string> violations = kernel().takeViolations();
    ASSERT_FALSE(violations.empty());
    EXPECT_EQ(violations[0],
              "held lock freed: completion completion in a record freed by main (1), still waited "
              "for");
}

/* Locks that stay. */

TEST_P(LockUseTest, EndingATaskWithALockHeld)
{
    inKernel([] {
        static struct rw_semaphore sem;
        init_rwsem(&sem);
        spawn("holder", [] { down_read(&sem); }).join();
    });
    expectViolation("lock held at the end of a task: &sem by holder (2)");
}

TEST_P(LockUseTest, ReturningToUserSpaceWithALockHeld)
{
    inKernel([] {
        struct rw_semaphore sem;
        init_rwsem(&sem);
        down_write(&sem);
        leavingKernel("ioctl");
        up_write(&sem);
        leavingKernel("ioctl");
    });
    expectViolation("lock held on return to user space: &sem by main (1) after ioctl()");
}

TEST_P(LockUseTest, HeldLocksAreNamed)
{
    inKernel([] {
        struct rw_semaphore outer;
        struct semaphore inner;
        init_rwsem(&outer);
        sema_init(&inner, 1);
        down_read(&outer);
        down(&inner);
        EXPECT_EQ(heldLocks(), (std::vector<std::string>{"&outer", "&inner"}));
        up(&inner);
        up_read(&outer);
        EXPECT_EQ(heldLocks(), std::vector<std::string>{});
    });
}

/* Interrupts. */

TEST_P(LockUseTest, ALockOfInterruptsTakenWithInterruptsOn)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        spinLock(&lock);
        spinUnlock(&lock);
        runInInterrupt([&] {
            spinLock(&lock);
            spinUnlock(&lock);
        });
    });
    expectViolation("irq-unsafe lock: &lock is taken in interrupt context and held with "
                    "interrupts on");
}

TEST_P(LockUseTest, ALockOfInterruptsHeldWhileInterruptsAreSwitchedOn)
{
    inKernel([] {
        spinlock_t lock;
        spinlock_t other;
        spin_lock_init(&lock);
        spin_lock_init(&other);
        runInInterrupt([&] {
            unsigned long flags = spin_lock_irqsave(&lock);
            spin_unlock_irqrestore(&lock, flags);
        });
        // Given back in the wrong order, with each other's flags.
        unsigned long otherFlags = spin_lock_irqsave(&other);
        unsigned long flags = spin_lock_irqsave(&lock);
        spin_unlock_irqrestore(&other, otherFlags);
        spin_unlock_irqrestore(&lock, flags);
    });
    expectViolation("irq-unsafe lock: &lock");
}

TEST_P(LockUseTest, ALockOfInterruptsTakenWithInterruptsOffIsFine)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        for (int i = 0; i < 2; i++) {
            unsigned long flags = spin_lock_irqsave(&lock);
            spin_unlock_irqrestore(&lock, flags);
            runInInterrupt([&] {
                spinLock(&lock);
                spinUnlock(&lock);
            });
        }
    });
}

} // namespace
