#include <atomic>

#include <host/block.h>
#include <host/task.h>

#include "kernel/host/blockInternal.h"
#include "support/hostTest.h"
#include "unit/host/seamBio.h"

namespace
{

using host::Disk;
using host::DiskOptions;

class RequestQueueTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(RequestQueueTest);

make_request_fn *ownFunction;
std::function<int(struct request_queue *, struct bio *)> onRequest;

int hook(struct request_queue *queue, struct bio *bio)
{
    return onRequest(queue, bio);
}

// The test's hook on a disk's queue for as long as it lives.
class Hooked
{
public:
    explicit Hooked(struct request_queue *queue) : queue_(queue) { ownFunction = swap(hook); }
    ~Hooked() { swap(ownFunction); }

private:
    make_request_fn *swap(make_request_fn *function)
    {
        spinlock_t *lock = queue_lock(queue_);
        unsigned long flags = lock ? spin_lock_irqsave(lock) : 0;
        make_request_fn *old = queue_make_request_fn(queue_);
        queue_set_make_request_fn(queue_, function);
        if (lock)
            spin_unlock_irqrestore(lock, flags);
        return old;
    }

    struct request_queue *queue_;
};

struct OpenDisk {
    explicit OpenDisk(const DiskOptions &options = {})
        : disk(Disk::attach(4096, options)), device(host::openDevice(disk->device()))
    {
    }
    ~OpenDisk()
    {
        disk->waitIdle();
        host::closeDevice(device);
    }
    std::unique_ptr<Disk> disk;
    struct block_device *device;
};

TEST_P(RequestQueueTest, aHookSeesEachBioOnceInTheSubmittersContext)
{
    inKernel([] {
        OpenDisk open;
        host::Task submitter = host::currentTask();
        std::atomic<int> calls{0};
        onRequest = [&](struct request_queue *queue, struct bio *bio) {
            calls++;
            EXPECT_EQ(queue, open.disk->queue());
            EXPECT_EQ(host::currentTask().pid(), submitter.pid());
            EXPECT_FALSE(host::inAtomicContext());
            host::yield();
            return ownFunction(queue, bio);
        };
        Hooked hooked(open.disk->queue());
        unsigned char data[4096];
        EXPECT_EQ(host::readDevice(open.device, 0, data, sizeof(data), 1024), 0);
        EXPECT_EQ(calls, 4);
    });
}

TEST_P(RequestQueueTest, aBioSubmittedInsideAHookWaitsForTheOuterCall)
{
    inKernel([] {
        OpenDisk open;
        std::vector<std::string> events;
        unsigned depth = 0;
        onRequest = [&](struct request_queue *queue, struct bio *bio) {
            EXPECT_EQ(depth++, 0u);
            events.push_back("enter " + std::to_string(bio_sector(bio)));
            if (bio_sector(bio) == 0) {
                host::submitAsync({open.device, 8, 512, READ}, [](int) {});
                host::submitAsync({open.device, 16, 512, READ}, [](int) {});
            }
            events.push_back("leave");
            depth--;
            return ownFunction(queue, bio);
        };
        Hooked hooked(open.disk->queue());
        EXPECT_EQ(host::submitAndWait({open.device, 0, 512, READ}), 0);
        EXPECT_EQ(events, (std::vector<std::string>{"enter 0", "leave", "enter 8", "leave",
                                                    "enter 16", "leave"}));
    });
}

TEST_P(RequestQueueTest, tasksDoNotWaitForEachOthersBios)
{
    inKernel([] {
        OpenDisk open;
        host::WaitQueue gate("a gate of the test");
        bool isOpen = false;
        onRequest = [&](struct request_queue *queue, struct bio *bio) {
            if (bio_sector(bio) == 0)
                gate.wait([&] { return isOpen; });
            return ownFunction(queue, bio);
        };
        Hooked hooked(open.disk->queue());
        host::Task stuck = host::spawn("stuck", [&] {
            EXPECT_EQ(host::submitAndWait({open.device, 0, 512, READ}), 0);
        });
        EXPECT_EQ(host::submitAndWait({open.device, 8, 512, READ}), 0);
        EXPECT_FALSE(stuck.ended());
        gate.wake([&] { isOpen = true; });
        stuck.join();
    });
}

TEST_P(RequestQueueTest, anAnswerOtherThanZeroSendsTheBioRoundAgain)
{
    inKernel([] {
        OpenDisk first;
        DiskOptions options;
        options.firstMinor = 16;
        OpenDisk second(options);
        int calls = 0;
        onRequest = [&](struct request_queue *, struct bio *bio) {
            calls++;
            bio_set_bdev(bio, second.device);
            bio_set_sector(bio, bio_sector(bio) + 100);
            return 1;
        };
        Hooked hooked(first.disk->queue());
        unsigned char data[512] = {3}, read = 0;
        EXPECT_EQ(host::writeDevice(first.device, 1, data, sizeof(data)), 0);
        EXPECT_EQ(calls, 1);
        second.disk->peek(101, &read, 1);
        EXPECT_EQ(read, 3);
    });
}

TEST_P(RequestQueueTest, aHeldBioMayBeGivenToTheDiskByAnotherTask)
{
    inKernel([] {
        OpenDisk open;
        host::WaitQueue queue("held bios of the test");
        struct bio *held = nullptr;
        onRequest = [&](struct request_queue *, struct bio *bio) {
            queue.wake([&] { held = bio; });
            return 0;
        };
        Hooked hooked(open.disk->queue());
        host::Task thread = host::spawn("thread", [&] {
            queue.wait([&] { return held != nullptr; });
            EXPECT_EQ(ownFunction(open.disk->queue(), held), 0);
        });
        EXPECT_EQ(host::submitAndWait({open.device, 0, 512, READ}), 0);
        thread.join();
    });
}

TEST_P(RequestQueueTest, theFunctionIsOnlyReadAndReplacedUnderTheQueueLock)
{
    inKernel([] {
        OpenDisk open;
        queue_make_request_fn(open.disk->queue());
    });
    expectViolation("queue lock not held");
    inKernel([] {
        OpenDisk open;
        make_request_fn *own;
        {
            unsigned long flags = spin_lock_irqsave(queue_lock(open.disk->queue()));
            own = queue_make_request_fn(open.disk->queue());
            spin_unlock_irqrestore(queue_lock(open.disk->queue()), flags);
        }
        queue_set_make_request_fn(open.disk->queue(), own);
    });
    expectViolation("queue lock not held");
    inKernel([] {
        DiskOptions options;
        options.queueLock = false;
        OpenDisk open(options);
        EXPECT_EQ(queue_lock(open.disk->queue()), nullptr);
        onRequest = [](struct request_queue *queue, struct bio *bio) {
            return ownFunction(queue, bio);
        };
        Hooked hooked(open.disk->queue());
        EXPECT_EQ(host::submitAndWait({open.device, 0, 512, READ}), 0);
    });
}

TEST_P(RequestQueueTest, aReferenceKeepsAQueueWithoutItsDisk)
{
    inKernel([] {
        struct request_queue *queue;
        {
            OpenDisk open;
            queue = open.disk->queue();
            EXPECT_EQ(blk_get_queue(queue), 0);
        }
        EXPECT_NE(blk_get_queue(queue), 0);
        blk_put_queue(queue);
    });
}

TEST_P(RequestQueueTest, hookedQueuesAreThoseOfDisksThatAreThere)
{
    inKernel([] {
        struct request_queue *queue;
        {
            OpenDisk open;
            queue = open.disk->queue();
            EXPECT_EQ(blk_get_queue(queue), 0);
            EXPECT_TRUE(host::hookedQueues().empty());
            unsigned long flags = spin_lock_irqsave(queue_lock(queue));
            queue_set_make_request_fn(queue, hook);
            spin_unlock_irqrestore(queue_lock(queue), flags);
            EXPECT_EQ(host::hookedQueues().size(), 1u);
        }
        EXPECT_TRUE(host::hookedQueues().empty());
        blk_put_queue(queue);
    });
}

TEST_P(RequestQueueTest, unhookingGivesQueuesTheirOwnFunctionsBack)
{
    inKernel([] {
        OpenDisk open;
        Hooked hooked(open.disk->queue());
        EXPECT_EQ(host::hookedQueues().size(), 1u);
        host::unhookQueues();
        EXPECT_TRUE(host::hookedQueues().empty());
    });
}

TEST_P(RequestQueueTest, theLockOfAQueueEndsWithTheDisk)
{
    inKernel([] {
        struct request_queue *queue;
        {
            OpenDisk open;
            queue = open.disk->queue();
            EXPECT_EQ(blk_get_queue(queue), 0);
        }
        unsigned long flags = spin_lock_irqsave(queue_lock(queue));
        spin_unlock_irqrestore(queue_lock(queue), flags);
        blk_put_queue(queue);
    });
    expectViolation("lock not initialised");
}

TEST_P(RequestQueueTest, aReferenceDroppedTwiceIsReported)
{
    inKernel([] {
        OpenDisk open;
        EXPECT_EQ(blk_get_queue(open.disk->queue()), 0);
        blk_put_queue(open.disk->queue());
        blk_put_queue(open.disk->queue());
    });
    expectViolation("queue reference that nobody held");
}

TEST_P(RequestQueueTest, tasksInsideHooksAreCounted)
{
    inKernel([] {
        OpenDisk open;
        host::WaitQueue gate("a gate of the test");
        int inside = 0;
        bool isOpen = false;
        onRequest = [&](struct request_queue *queue, struct bio *bio) {
            gate.wake([&] { inside++; });
            gate.wait([&] { return isOpen; });
            return ownFunction(queue, bio);
        };
        EXPECT_EQ(host::tasksInHooks(), 0);
        {
            Hooked hooked(open.disk->queue());
            for (unsigned i = 0; i < 2; i++)
                host::spawn("submitter", [&open, i] {
                    EXPECT_EQ(host::submitAndWait({open.device, i, 512, READ}), 0);
                });
            gate.wait([&] { return inside == 2; });
        }
        // Unhooked, but somebody is still inside.
        EXPECT_EQ(host::tasksInHooks(), 2);
        gate.wake([&] { isOpen = true; });
        while (host::tasksInHooks() > 0)
            host::yield();
        EXPECT_EQ(host::submitAndWait({open.device, 0, 512, READ}), 0);
        EXPECT_EQ(inside, 2);
    });
}

TEST_P(RequestQueueTest, allocationsThatMayStartIoAreReportedInAHook)
{
    inKernel([] {
        OpenDisk open;
        onRequest = [&](struct request_queue *queue, struct bio *bio) {
            kfree(kmalloc(16, GFP_NOIO));
            kfree(kmalloc(16, GFP_KERNEL));
            return ownFunction(queue, bio);
        };
        Hooked hooked(open.disk->queue());
        EXPECT_EQ(host::submitAndWait({open.device, 0, 512, READ}), 0);
    });
    expectViolation("kmalloc");
}

TEST_P(RequestQueueTest, submittingFromInterruptContextIsReported)
{
    inKernel([] {
        OpenDisk open;
        test::SeamBio bio(open.device, 0, 512, READ);
        host::runInInterrupt([&] { bio.submit(); });
        EXPECT_EQ(bio.wait(), 0);
    });
    expectViolation("generic_make_request");
}

TEST_P(RequestQueueTest, aBioSubmittedTwiceIsReported)
{
    inKernel([] {
        OpenDisk open;
        open.disk->hold();
        test::SeamBio bio(open.device, 0, 512, READ);
        bio.submit();
        bio.submit();
        open.disk->release();
        EXPECT_EQ(bio.wait(), 0);
    });
    expectViolation("bio submitted while in flight");
}

} // namespace
