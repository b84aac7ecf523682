// The registry of hooked request queues.
#include <host/block.h>
#include <host/faults.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

constexpr kernel_dev_t deviceA = 8u << 20 | 1;
constexpr kernel_dev_t deviceB = 8u << 20 | 2;
constexpr kernel_dev_t deviceC = 8u << 20 | 3;

int ownFunction(struct request_queue *, struct bio *)
{
    return 0;
}

// A request queue without a disk.
class Queue
{
public:
    explicit Queue(bool withLock = true)
        : queue_(host::newQueue(nullptr, ownFunction, withLock, "test queue"))
    {
    }
    ~Queue() { retire(); }
    Queue(const Queue &) = delete;

    operator struct request_queue *() const { return queue_; }
    int references() const { return queue_->references; }
    make_request_fn *function() const { return queue_->function; }
    void hook(make_request_fn *fn)
    {
        unsigned long flags = 0;
        zelLockRequestQueue(queue_, &flags);
        queue_set_make_request_fn(queue_, fn);
        zelUnlockRequestQueue(queue_, &flags);
    }
    // As its disk's end does.
    void retire()
    {
        if (!retired_)
            host::retireQueue(queue_);
        retired_ = true;
    }

private:
    struct request_queue *queue_;
    bool retired_ = false;
};

QueueList *entryOf(struct request_queue *q)
{
    for (struct list_head *at = queueListHead.next; at != &queueListHead; at = at->next)
        if (queueListOf(at)->rQueue == q)
            return queueListOf(at);
    return nullptr;
}

std::vector<kernel_dev_t> devicesOf(struct request_queue *q)
{
    std::vector<kernel_dev_t> devices;
    QueueList *ql = entryOf(q);
    if (ql != nullptr)
        for (struct list_head *at = ql->devList.next; at != &ql->devList; at = at->next)
            devices.push_back(devListOf(at)->kdev);
    return devices;
}

using Devices = std::vector<kernel_dev_t>;

// Puts a record into the session table that only the registry looks at.
class FakeSession
{
public:
    FakeSession(kernel_dev_t kdev, u32 state)
        : slot_(amListSlot(deviceMajor(kdev), deviceMinor(kdev)))
    {
        ams_.state = state;
        *slot_ = &ams_;
    }
    ~FakeSession() { *slot_ = nullptr; }
    FakeSession(const FakeSession &) = delete;
    u32 state() const { return amsState(&ams_); }

private:
    AutoMapSession ams_{};
    AutoMapSession **slot_;
};

class QueueRegistry : public test::ModuleTest
{
};
class QueueRegistryUsers : public test::ModuleSchedulerTest
{
};
INSTANTIATE_SCHEDULERS(QueueRegistryUsers);

TEST_F(QueueRegistry, TheFirstDeviceOfAQueueMakesItsEntry)
{
    withModule([](ModuleRun &) {
        Queue q;
        EXPECT_EQ(isInQueueList(q, deviceA), 0);
        addQueueToList(q, deviceA);
        ASSERT_NE(entryOf(q), nullptr);
        EXPECT_EQ(entryOf(q)->realMRF, ownFunction);
        EXPECT_EQ(devicesOf(q), Devices{deviceA});
        EXPECT_EQ(isInQueueList(q, deviceA), 1);
        EXPECT_EQ(isInQueueList(q, deviceB), 0);
        EXPECT_EQ(isInQueueList(nullptr, deviceA), 0);
        EXPECT_EQ(host::memoryUse().kmallocs, 2u);
        unsetQueueMRFAMS(q);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(QueueRegistry, FurtherDevicesKeepTheFunctionFromBeforeTheHook)
{
    withModule([](ModuleRun &) {
        Queue q;
        addQueueToList(q, deviceA);
        q.hook(zelMRF);
        addQueueToList(q, deviceB);
        addQueueToList(q, deviceC);
        EXPECT_EQ(entryOf(q)->realMRF, ownFunction);
        EXPECT_EQ(devicesOf(q), (Devices{deviceA, deviceB, deviceC}));
        EXPECT_EQ(host::memoryUse().kmallocs, 4u);
        unsetQueueMRFAMS(q);
        EXPECT_EQ(q.function(), ownFunction);
    });
}

TEST_F(QueueRegistry, QueuesAreAppended)
{
    withModule([](ModuleRun &) {
        Queue first;
        Queue second;
        addQueueToList(first, deviceA);
        addQueueToList(second, deviceB);
        EXPECT_EQ(queueListOf(queueListHead.next)->rQueue, first);
        EXPECT_EQ(queueListOf(queueListHead.prev)->rQueue, second);
        unsetQueueMRFAMS(first);
        EXPECT_EQ(entryOf(first), nullptr);
        EXPECT_NE(entryOf(second), nullptr);
        unsetQueueMRFAMS(second);
    });
}

TEST_F(QueueRegistry, ADeviceIsRegisteredOnce)
{
    withModule([](ModuleRun &) {
        Queue q;
        addQueueToList(q, deviceA);
        addQueueToList(q, deviceA);
        EXPECT_EQ(devicesOf(q), Devices{deviceA});
        EXPECT_EQ(host::memoryUse().kmallocs, 2u);
        unsetQueueMRFAMS(q);
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
    });
}

TEST_F(QueueRegistry, ADeviceRecordIsTakenOnlyIfItIsNew)
{
    withModule([](ModuleRun &) {
        QueueList ql{};
        INIT_LIST_HEAD(&ql.devList);
        DevList first{};
        DevList second{};
        EXPECT_EQ(isInDevList(nullptr, deviceA), 0);
        EXPECT_EQ(isInDevList(&ql, deviceA), 0);
        EXPECT_EQ(addDevToList(nullptr, deviceA, &first), 0);
        EXPECT_EQ(first.kdev, 0u);
        EXPECT_EQ(addDevToList(&ql, deviceA, &first), 1);
        EXPECT_EQ(first.kdev, deviceA);
        EXPECT_EQ(isInDevList(&ql, deviceA), 1);
        EXPECT_EQ(addDevToList(&ql, deviceA, &second), 0);
        EXPECT_EQ(second.kdev, 0u);
        EXPECT_EQ(second.list.next, nullptr);
        EXPECT_EQ(addDevToList(&ql, deviceB, &second), 1);
        EXPECT_EQ(ql.devList.prev, &second.list);
    });
}

TEST_F(QueueRegistry, MemoryForRecordsIsAskedForUntilItIsThere)
{
    withModule([](ModuleRun &) {
        Queue q;
        // And without I/O: a hook may register a device.
        host::IoPathScope onIoPath;
        host::failNth(host::Fault::kmalloc, 1, 3);
        addQueueToList(q, deviceA);
        EXPECT_EQ(host::faultsInjected(host::Fault::kmalloc), 3u);
        EXPECT_EQ(devicesOf(q), Devices{deviceA});
        host::clearFaults();
        host::failNth(host::Fault::kmalloc, 2, 2);
        addQueueToList(q, deviceB);
        EXPECT_EQ(host::faultsInjected(host::Fault::kmalloc), 2u);
        EXPECT_EQ(devicesOf(q), (Devices{deviceA, deviceB}));
        unsetQueueMRFAMS(q);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(QueueRegistry, NoQueueIsRefusedWithAMessage)
{
    withModule([](ModuleRun &) {
        addQueueToList(nullptr, deviceA);
        EXPECT_EQ(takeLog(), (Lines{"<3>addQueueToList: Could not add queue to list (null).\n"}));
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
        EXPECT_EQ(countQueueAMS(nullptr), 0);
        EXPECT_EQ(takeLog(), (Lines{"<3>countQueueAMS: Could not count ams sessions for request "
                                    "queue because queue was null.\n"}));
        unsetQueueMRFAMS(nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<3>unsetQueueMRFAMS: Could not unset MRFS for request queue "
                                    "because queue was null.\n"}));
    });
}

TEST_F(QueueRegistry, LookingUpNoQueueLowersTheUsersCount)
{
    withModule([](ModuleRun &) {
        EXPECT_EQ(getRealMRF(nullptr), nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<4>getRealMRF: Can't get MRF on NULL queue.\n"}));
        EXPECT_EQ(atomic_read(&queueListUsers), 0);
        // Nobody waits for ever because of it, and the next writer mends it.
        Queue q;
        addQueueToList(q, deviceA);
        EXPECT_EQ(atomic_read(&queueListUsers), 1);
        unsetQueueMRFAMS(q);
    });
}

TEST_F(QueueRegistry, TheRealFunctionIsTheOneFromBeforeTheHook)
{
    withModule([](ModuleRun &) {
        Queue q;
        EXPECT_EQ(getRealMRF(q), ownFunction);
        q.hook(zelAMRF);
        EXPECT_EQ(getRealMRF(q), zelAMRF); // what an unregistered queue has
        q.hook(ownFunction);
        addQueueToList(q, deviceA);
        q.hook(zelMRF);
        EXPECT_EQ(getRealMRF(q), ownFunction);
        // An entry without a function is passed over.
        entryOf(q)->realMRF = nullptr;
        EXPECT_EQ(getRealMRF(q), zelMRF);
        entryOf(q)->realMRF = ownFunction;
        EXPECT_EQ(atomic_read(&queueListUsers), 1);
        unsetQueueMRFAMS(q);
    });
}

TEST_F(QueueRegistry, HookingRegistersTheDeviceAndRemembersTheRealFunction)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk({.blockSizes = {4096, 4096}});
        struct request_queue *q = disk.disk().queue();
        make_request_fn *own = q->function;
        OpenRecord a;
        OpenRecord b;
        ASSERT_EQ(getDiskInfo(&a->diskInfo, disk.device(1)), 0);
        ASSERT_EQ(getDiskInfo(&b->diskInfo, disk.device(2)), 0);
        EXPECT_EQ(setMRF(a.get(), zelMRF), 0);
        EXPECT_EQ(q->function, zelMRF);
        EXPECT_EQ(setMRF(b.get(), zelAMRF), 0);
        EXPECT_EQ(q->function, zelAMRF);
        EXPECT_EQ(setMRF(a.get(), zelMRF), 0);
        EXPECT_EQ(q->function, zelMRF);
        EXPECT_EQ(entryOf(q)->realMRF, own);
        EXPECT_EQ(devicesOf(q), (Devices{disk.device(1), disk.device(2)}));

        unSetMRFDEV(&a->diskInfo);
        EXPECT_EQ(q->function, zelMRF);
        EXPECT_EQ(devicesOf(q), Devices{disk.device(2)});
        unSetMRFDEV(&a->diskInfo); // not registered any more
        EXPECT_EQ(q->function, zelMRF);
        unSetMRFDEV(&b->diskInfo);
        EXPECT_EQ(q->function, own);
        EXPECT_EQ(entryOf(q), nullptr);
        unSetMRFDEV(&b->diskInfo); // without an entry
        EXPECT_EQ(q->function, own);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(QueueRegistry, HookingADeviceWithoutAQueueAnswers1)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        EXPECT_EQ(setMRF(record.get(), zelMRF), 1);
        test::TestDisk disk;
        ASSERT_EQ(getDiskInfo(&record->diskInfo, disk.device()), 0);
        disk.unmount();
        EXPECT_EQ(setMRF(record.get(), zelMRF), 1);
        EXPECT_TRUE(list_empty(&queueListHead));
    });
}

// A block device whose disk has the given queue, as it is while the disk goes away.
class DeviceOnQueue
{
public:
    explicit DeviceOnQueue(struct request_queue *q) : bdev_(deviceA, false)
    {
        disk_.queue = q;
        bdev_.bd_disk = &disk_;
    }
    struct block_device *bdev() { return &bdev_; }

private:
    struct gendisk disk_;
    struct block_device bdev_;
};

TEST_F(QueueRegistry, HookingAQueueThatIsGoingAwayAnswers1)
{
    withModule([](ModuleRun &) {
        Queue q;
        ASSERT_EQ(blk_get_queue(q), 0);
        q.retire();
        {
            DeviceOnQueue device(q);
            OpenRecord record;
            record->diskInfo.kdev = deviceA;
            record->diskInfo.bdev = device.bdev();
            EXPECT_EQ(setMRF(record.get(), zelMRF), 1);
            EXPECT_TRUE(list_empty(&queueListHead));
            EXPECT_EQ(q.function(), ownFunction);
            record->diskInfo.bdev = nullptr;
        }
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
        blk_put_queue(q);
    });
}

TEST_F(QueueRegistry, UnhookingADeviceWithoutAQueueSaysWhich)
{
    withModule([](ModuleRun &) {
        DiskInfo info{};
        info.kdev = 259u << 20 | 70000;
        unSetMRFDEV(&info);
        EXPECT_EQ(takeLog(), (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=259, "
                                    "MINOR=70000 while unsetting MRF."}));
        unSetMRFDEV(nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=0, "
                                    "MINOR=0 while unsetting MRF."}));
    });
}

TEST_F(QueueRegistry, UnhookingASessionIsUnhookingItsDevice)
{
    withModule([](ModuleRun &) {
        unSetMRFAMS(nullptr);
        EXPECT_EQ(takeLog(), Lines());
        Queue q;
        DeviceOnQueue device(q);
        addQueueToList(q, deviceA);
        q.hook(zelAMRF);
        AutoMapSession ams{};
        ams.diskInfo.kdev = deviceA;
        ams.diskInfo.bdev = device.bdev();
        unSetMRFAMS(&ams);
        EXPECT_EQ(q.function(), ownFunction);
        EXPECT_EQ(entryOf(q), nullptr);
    });
}

// A session may be closed late, when its device has got a new one already.
TEST_F(QueueRegistry, UnhookingADeviceEndsTheTrackingThatItsNextSessionHasBegun)
{
    withModule([](ModuleRun &) {
        Queue q;
        DeviceOnQueue device(q);
        addQueueToList(q, deviceA);
        addQueueToList(q, deviceB);
        FakeSession next(deviceA, AMS_IN_SYNC);
        FakeSession other(deviceB, AMS_IN_SYNC);
        AutoMapSession closing{};
        closing.diskInfo.kdev = deviceA;
        closing.diskInfo.bdev = device.bdev();
        unSetMRFAMS(&closing);
        EXPECT_EQ(devicesOf(q), Devices{deviceB});
        EXPECT_EQ(next.state(), 0u);
        EXPECT_EQ(other.state(), 1u);
        unsetQueueMRFAMS(q);
    });
}

// The lock of such a queue may be gone, and nobody calls its function.
TEST_F(QueueRegistry, TheQueueOfARemovedDiskIsForgottenAndNothingElse)
{
    withModule([](ModuleRun &) {
        Queue gone;
        Queue alive;
        addQueueToList(gone, deviceA);
        addQueueToList(alive, deviceB);
        gone.hook(zelAMRF);
        alive.hook(zelAMRF);
        ASSERT_EQ(gone.references(), 2);
        gone.retire();
        unhookAllQueues();
        EXPECT_TRUE(list_empty(&queueListHead));
        EXPECT_EQ(alive.function(), ownFunction);
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
    });
}

TEST_F(QueueRegistry, SessionsOfAQueueAreCountedWhateverTheirState)
{
    withModule([](ModuleRun &) {
        Queue q;
        Queue other;
        EXPECT_EQ(countQueueAMS(q), 0);
        addQueueToList(q, deviceA);
        addQueueToList(q, deviceB);
        addQueueToList(q, 300u << 20 | 5); // beyond the session table
        addQueueToList(q, 8u << 20 | 256);
        addQueueToList(other, deviceC);
        EXPECT_EQ(countQueueAMS(q), 0);
        {
            FakeSession a(deviceA, AMS_NOT_IN_SYNC);
            FakeSession c(deviceC, AMS_IN_SYNC);
            EXPECT_EQ(countQueueAMS(q), 1);
            FakeSession b(deviceB, AMS_IN_SYNC);
            EXPECT_EQ(countQueueAMS(q), 2);
            EXPECT_EQ(countQueueAMS(other), 1);
        }
        EXPECT_EQ(atomic_read(&queueListUsers), 1);
        EXPECT_EQ(atomic_read(&amListUsers), 1);
        EXPECT_EQ(takeLog(), Lines());
        unsetQueueMRFAMS(q);
        unsetQueueMRFAMS(other);
    });
}

TEST_F(QueueRegistry, DroppingAQueueEndsTheTrackingOfItsDevices)
{
    withModule([](ModuleRun &) {
        Queue q;
        Queue other;
        addQueueToList(q, deviceA);
        addQueueToList(q, deviceB);
        addQueueToList(q, 300u << 20 | 5);
        addQueueToList(other, deviceC);
        q.hook(zelMRF);
        other.hook(zelAMRF);
        FakeSession a(deviceA, AMS_IN_SYNC);
        FakeSession c(deviceC, AMS_IN_SYNC);
        unsetQueueMRFAMS(q);
        EXPECT_EQ(a.state(), 0u);
        EXPECT_EQ(c.state(), 1u);
        EXPECT_EQ(q.function(), ownFunction);
        EXPECT_EQ(other.function(), zelAMRF);
        EXPECT_EQ(entryOf(q), nullptr);
        EXPECT_EQ(devicesOf(other), Devices{deviceC});
        EXPECT_EQ(host::memoryUse().kmallocs, 2u);
        unsetQueueMRFAMS(q); // without an entry
        EXPECT_EQ(q.function(), ownFunction);
        unsetQueueMRFAMS(other);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(QueueRegistry, AnEntryKeepsItsQueueAlive)
{
    withModule([](ModuleRun &) {
        Queue q;
        addQueueToList(q, deviceA);
        addQueueToList(q, deviceB);
        EXPECT_EQ(q.references(), 2);
        unsetQueueMRFAMS(q);
        EXPECT_EQ(q.references(), 1);

        DeviceOnQueue device(q);
        addQueueToList(q, deviceA);
        EXPECT_EQ(q.references(), 2);
        DiskInfo info{};
        info.kdev = deviceA;
        info.bdev = device.bdev();
        unSetMRFDEV(&info);
        EXPECT_EQ(q.references(), 1);
    });
}

TEST_F(QueueRegistry, WhateverIsLeftIsUnhookedByItsQueue)
{
    withModule([](ModuleRun &) {
        Queue gone;
        Queue here;
        addQueueToList(gone, deviceA);
        addQueueToList(here, deviceB);
        addQueueToList(here, deviceC);
        gone.hook(zelAMRF);
        here.hook(zelAMRF);
        gone.retire();
        unhookAllQueues();
        EXPECT_EQ(here.function(), ownFunction);
        EXPECT_EQ(here.references(), 1);
        EXPECT_TRUE(list_empty(&queueListHead));
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
        unhookAllQueues();
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(QueueRegistry, AQueueWithoutALockIsHookedWithoutOne)
{
    withModule([](ModuleRun &) {
        Queue q(false);
        DeviceOnQueue device(q);
        OpenRecord record;
        record->diskInfo.kdev = deviceA;
        record->diskInfo.bdev = device.bdev();
        EXPECT_EQ(setMRF(record.get(), zelAMRF), 0);
        EXPECT_EQ(q.function(), zelAMRF);
        EXPECT_EQ(getRealMRF(q), ownFunction);
        unSetMRFDEV(&record->diskInfo);
        EXPECT_EQ(q.function(), ownFunction);
        record->diskInfo.bdev = nullptr;
    });
}

TEST_F(QueueRegistry, ADevicesQueueIsItsDisksIfItHasOne)
{
    withModule([](ModuleRun &) {
        EXPECT_EQ(zelGetRequestQueue(nullptr), nullptr);
        test::TestDisk disk;
        struct block_device *bdev = disk.bdev();
        EXPECT_EQ(zelGetRequestQueue(bdev), disk.disk().queue());
        bdev = bdget(disk.device());
        disk.unmount();
        EXPECT_EQ(zelGetRequestQueue(bdev), nullptr);
    });
}

TEST_P(QueueRegistryUsers, AWriterWaitsForReadersAndKeepsNewOnesOut)
{
    withModule([](ModuleRun &) {
        Queue q;
        unsigned long entry = spin_lock_irqsave(&queueListUsersLock);
        atomic_inc(&queueListUsers);
        spin_unlock_irqrestore(&queueListUsersLock, entry);
        std::atomic<bool> added{false};
        host::Task writer = host::spawn("writer", [&] {
            addQueueToList(q, deviceA);
            added = true;
        });
        host::sleepNanoseconds(2'000'000);
        EXPECT_FALSE(added);
        EXPECT_EQ(isInQueueList(q, deviceA), 0);
        smp_mb();
        atomic_dec(&queueListUsers);
        writer.join();
        EXPECT_EQ(isInQueueList(q, deviceA), 1);
        EXPECT_EQ(atomic_read(&queueListUsers), 1);
        unsetQueueMRFAMS(q);
    });
}

// A queue that is hooked and not registered would call its hook for ever: getRealMRF gives the hook
// itself.
TEST_F(QueueRegistry, NoQueueIsHookedThatTheRegistryDoesNotKnow)
{
    forSeeds(60, [](ModuleRun &) {
        Queue q;
        DeviceOnQueue device(q);
        OpenRecord record;
        record->diskInfo.kdev = deviceA;
        record->diskInfo.bdev = device.bdev();
        host::Task hooking = host::spawn("hooking", [&] {
            EXPECT_EQ(setMRF(record.get(), zelAMRF), 0);
            EXPECT_EQ(setMRF(record.get(), zelMRF), 0);
        });
        host::Task dropping = host::spawn("dropping", [&] {
            unsetQueueMRFAMS(q);
            host::yield();
            unSetMRFDEV(&record->diskInfo);
        });
        hooking.join();
        dropping.join();
        EXPECT_EQ(q.function() == ownFunction, entryOf(q) == nullptr);
        unhookAllQueues();
        q.hook(ownFunction);
        record->diskInfo.bdev = nullptr;
    });
}

} // namespace
