/* The order of lock classes: cycles are found from orders seen at different times. */
#include <host/task.h>
#include <kernel/sync.h>

#include "kernel/host/internal.h"
#include "support/hostTest.h"

using namespace host;

namespace
{

struct Locks {
    struct semaphore a;
    struct rw_semaphore b;
    struct mutex c;
    spinlock_t d;

    Locks()
    {
        sema_init(&a, 1);
        init_rwsem(&b);
        initMutex(&c, "c");
        spin_lock_init(&d);
    }
};

class LockOrderTest : public test::SchedulerTest
{
protected:
    std::string onlyViolation()
    {
        std::vector<std::string> violations = kernel().takeViolations();
        EXPECT_EQ(violations.size(), 1u);
        return violations.empty() ? "" : violations[0];
    }
};
INSTANTIATE_SCHEDULERS(LockOrderTest);

__attribute__((noinline)) void takeBThenC(Locks &locks)
{
    down_read(&locks.b);
    mutex_lock(&locks.c);
    mutex_unlock(&locks.c);
    up_read(&locks.b);
}

__attribute__((noinline)) void takeCThenB(Locks &locks)
{
    mutex_lock(&locks.c);
    down_write(&locks.b);
    up_write(&locks.b);
    mutex_unlock(&locks.c);
}

TEST_P(LockOrderTest, BothOrdersOfTwoLocksAreACycle)
{
    inKernel([] {
        Locks locks;
        takeBThenC(locks);
        spawn("other", [&] { takeCThenB(locks); }).join();
    });
    std::string violation = onlyViolation();
    EXPECT_EQ(violation.find("lock order: c -> &b -> c"), 0u) << violation;
    EXPECT_NE(violation.find("&b -> c first by main (1): &b taken at "), std::string::npos)
        << violation;
    EXPECT_NE(violation.find("takeBThenC"), std::string::npos) << violation;
    EXPECT_NE(violation.find("c -> &b first by other (2): c taken at "), std::string::npos)
        << violation;
    EXPECT_NE(violation.find("takeCThenB"), std::string::npos) << violation;
}

TEST_P(LockOrderTest, OneOrderIsFine)
{
    inKernel([] {
        Locks locks;
        for (int i = 0; i < 3; i++)
            takeBThenC(locks);
    });
}

TEST_P(LockOrderTest, ACycleOfThreeIsFound)
{
    inKernel([] {
        Locks locks;
        down(&locks.a);
        down_read(&locks.b);
        up_read(&locks.b);
        up(&locks.a);
        takeBThenC(locks);
        mutex_lock(&locks.c);
        down(&locks.a);
        up(&locks.a);
        mutex_unlock(&locks.c);
    });
    std::string violation = onlyViolation();
    EXPECT_EQ(violation.find("lock order: c -> &a -> &b -> c"), 0u) << violation;
}

TEST_P(LockOrderTest, OrdersHoldForClassesNotForSingleLocks)
{
    inKernel([] {
        Locks first;
        Locks second;
        takeBThenC(first);
        takeCThenB(second);
    });
    EXPECT_EQ(onlyViolation().find("lock order: c -> &b -> c"), 0u);
}

TEST_P(LockOrderTest, TwoSemaphoresOfOneClassInBothOrders)
{
    inKernel([] {
        Locks first;
        Locks second;
        auto take = [](struct semaphore *outer, struct semaphore *inner) {
            down(outer);
            down(inner);
            up(inner);
            up(outer);
        };
        take(&first.a, &second.a);
        take(&first.a, &second.a);
        EXPECT_EQ(Kernel::current().violations(), std::vector<std::string>{});
        take(&second.a, &first.a);
    });
    EXPECT_EQ(onlyViolation().find("lock order: &a -> &a: two locks of one class"), 0u);
}

TEST_P(LockOrderTest, TwoOtherLocksOfOneClassAtOnce)
{
    inKernel([] {
        Locks first;
        Locks second;
        unsigned long flags = spin_lock_irqsave(&first.d);
        unsigned long innerFlags = spin_lock_irqsave(&second.d);
        spin_unlock_irqrestore(&second.d, innerFlags);
        spin_unlock_irqrestore(&first.d, flags);
    });
    EXPECT_EQ(onlyViolation().find("lock nesting: &d -> &d: two locks of one class"), 0u);
    inKernel([] {
        Locks first;
        Locks second;
        down_read(&first.b);
        down_read(&second.b);
        up_read(&second.b);
        up_read(&first.b);
    });
    EXPECT_EQ(onlyViolation().find("lock nesting: &b -> &b: two locks of one class"), 0u);
}

TEST_P(LockOrderTest, TryingALockIsNoOrder)
{
    inKernel([] {
        Locks locks;
        down(&locks.a);
        mutex_lock(&locks.c);
        mutex_unlock(&locks.c);
        up(&locks.a);
        mutex_lock(&locks.c);
        EXPECT_EQ(down_trylock(&locks.a), 0);
        up(&locks.a);
        mutex_unlock(&locks.c);
    });
}

// A semaphore that one task takes and another gives back has no holder, so orders seen while it
// seemed to be held mean nothing, be it known before or after.
TEST_P(LockOrderTest, ASemaphoreUsedAsASignalTakesNoPart)
{
    inKernel([] {
        Locks locks;
        down(&locks.a);
        mutex_lock(&locks.c);
        mutex_unlock(&locks.c);
        spawn("signaller", [&] { up(&locks.a); }).join();
        mutex_lock(&locks.c);
        down(&locks.a);
        mutex_unlock(&locks.c);
    });
    restart(options());
    inKernel([] {
        Locks locks;
        down(&locks.a);
        mutex_lock(&locks.c);
        mutex_unlock(&locks.c);
        up(&locks.a);
        mutex_lock(&locks.c);
        down(&locks.a);
        mutex_unlock(&locks.c);
        spawn("signaller", [&] { up(&locks.a); }).join();
    });
}

TEST_P(LockOrderTest, ATaskThatTakesItsSemaphoreAgainAndAgainIsSignalled)
{
    inKernel([] {
        Locks locks;
        Task worker = spawn("worker", [&] {
            for (int i = 0; i < 4; i++) {
                down(&locks.a);
                mutex_lock(&locks.c);
                mutex_unlock(&locks.c);
            }
        });
        for (int i = 0; i < 3; i++) {
            mutex_lock(&locks.c);
            up(&locks.a);
            mutex_unlock(&locks.c);
        }
        worker.join();
    });
}

TEST_P(LockOrderTest, ASemaphoreThatStaysTakenAfterASystemCallIsASignal)
{
    inKernel([] {
        Locks locks;
        mutex_lock(&locks.c);
        down(&locks.a);
        mutex_unlock(&locks.c);
        leavingKernel("ioctl");
        mutex_lock(&locks.c);
        mutex_unlock(&locks.c);
        up(&locks.a);
    });
}

struct Backup {
    struct semaphore bSem;
};

TEST_P(LockOrderTest, TheKnownPairIsExcused)
{
    inKernel([] {
        struct rw_semaphore mmap_sem;
        init_rwsem(&mmap_sem);
        Backup record;
        Backup *b = &record;
        sema_init(&b->bSem, 1);
        down_write(&mmap_sem);
        down(&b->bSem);
        up(&b->bSem);
        up_write(&mmap_sem);
        down(&b->bSem);
        down_read(&mmap_sem);
        up_read(&mmap_sem);
        up(&b->bSem);
    });
}

} // namespace
