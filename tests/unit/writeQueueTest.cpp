// The queue of held bios, and the start, drain and stop of the thread that empties it.
#include <cstring>

#include <host/faults.h>
#include <host/memory.h>

#include "support/backupRun.h"

namespace
{

using test::BackupRun;
using test::countOf;
using test::eventually;
using test::fallsAsleep;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

class WriteQueue : public test::ModuleTest
{
};

// Names only: the queue does not look at them.
struct request_queue *const queueName = reinterpret_cast<struct request_queue *>(0x1000);
struct bio *const bioName = reinterpret_cast<struct bio *>(0x2000);

TEST_F(WriteQueue, ARequestDescribesItsBio)
{
    withModule([](ModuleRun &) {
        MakeRequest *mr = newMR(queueName, bioName, {3, 9});
        ASSERT_NE(mr, nullptr);
        EXPECT_EQ(mr->q, queueName);
        EXPECT_EQ(mr->bio, bioName);
        EXPECT_EQ(mr->startBN, 3u);
        EXPECT_EQ(mr->endBN, 9u);
        EXPECT_EQ(mr->next, nullptr);
        EXPECT_EQ(host::memoryUse().kmallocs, 1u);
        EXPECT_EQ(host::memoryUse().kmallocBytes, sizeof(MakeRequest));
        closeMR(mr);
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
    });
}

TEST_F(WriteQueue, ARequestIsTriedForOnce)
{
    withModule([](ModuleRun &) {
        host::clearFaults();
        host::failNth(host::Fault::kmalloc, 1, 5);
        EXPECT_EQ(newMR(queueName, bioName, {3, 9}), nullptr);
        EXPECT_EQ(host::faultCalls(host::Fault::kmalloc), 1u);
        host::clearFaults();
    });
}

// As on the path of a write, where nothing may start I/O to find memory.
TEST_F(WriteQueue, ARequestIsMadeWithoutStartingIO)
{
    withModule([](ModuleRun &) {
        host::IoPathScope onIoPath;
        MakeRequest *mr = newMR(queueName, bioName, {0, 0});
        ASSERT_NE(mr, nullptr);
        closeMR(mr);
    });
}

TEST_F(WriteQueue, RequestsLeaveInTheOrderOfTheirArrival)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        Backup *b = record.get();
        EXPECT_EQ(getTopMR(b), nullptr);
        MakeRequest *first = newMR(queueName, bioName, {1, 1});
        MakeRequest *second = newMR(queueName, bioName, {2, 2});
        MakeRequest *third = newMR(queueName, bioName, {3, 3});
        addMRToQueue(b, first);
        EXPECT_EQ(b->mrHead, first);
        EXPECT_EQ(b->mrTail, first);
        addMRToQueue(b, second);
        EXPECT_EQ(getTopMR(b), first);
        EXPECT_EQ(first->next, nullptr);
        EXPECT_EQ(b->mrHead, second);
        EXPECT_EQ(b->mrTail, second);
        addMRToQueue(b, third);
        EXPECT_EQ(second->next, third);
        EXPECT_EQ(getTopMR(b), second);
        EXPECT_EQ(second->next, nullptr);
        EXPECT_EQ(getTopMR(b), third);
        EXPECT_EQ(b->mrHead, nullptr);
        EXPECT_EQ(b->mrTail, nullptr);
        EXPECT_EQ(getTopMR(b), nullptr);
        // They count as queued until they are done.
        EXPECT_EQ(atomic_read(&b->mrInQueue), 3);
        atomic_set(&b->mrInQueue, 0);
        for (MakeRequest *mr : {first, second, third})
            closeMR(mr);
    });
}

TEST_F(WriteQueue, EachRequestIsOneWakeUp)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        int before = countOf(&signalThread);
        EXPECT_EQ(before, 1);
        for (int i = 1; i <= 3; i++) {
            addMRToQueue(record.get(), newMR(queueName, bioName, {0, 0}));
            EXPECT_EQ(countOf(&signalThread), before + i);
            EXPECT_EQ(atomic_read(&record->mrInQueue), i);
        }
        // Taking one is none.
        for (int i = 0; i < 3; i++)
            closeMR(getTopMR(record.get()));
        EXPECT_EQ(countOf(&signalThread), before + 3);
        atomic_set(&record->mrInQueue, 0);
    });
}

TEST_F(WriteQueue, ManyProducersLoseNothing)
{
    forSeeds(10, [](ModuleRun &) {
        OpenRecord record;
        std::vector<host::Task> tasks;
        for (unsigned t = 0; t < 4; t++)
            tasks.push_back(host::spawn("producer", [&record, t] {
                for (unsigned i = 0; i < 5; i++)
                    addMRToQueue(record.get(), newMR(queueName, bioName, {t, i}));
            }));
        unsigned next[4] = {};
        for (unsigned taken = 0; taken < 20;) {
            MakeRequest *mr = getTopMR(record.get());
            if (mr == nullptr) {
                host::yield();
                continue;
            }
            EXPECT_EQ(mr->endBN, next[mr->startBN]++);
            closeMR(mr);
            taken++;
        }
        for (host::Task &task : tasks)
            task.join();
        EXPECT_EQ(getTopMR(record.get()), nullptr);
        EXPECT_EQ(atomic_read(&record->mrInQueue), 20);
        atomic_set(&record->mrInQueue, 0);
        EXPECT_EQ(countOf(&signalThread), 21);
    });
}

/* Start and stop. */

TEST_F(WriteQueue, AStartWaitsUntilTheThreadHasNamedItself)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        ASSERT_EQ(startWorkQueue(record.get()), 0);
        EXPECT_EQ(takeLog(), (Lines{"<6>backup_cache: kbackupd thread started\n"}));
        EXPECT_EQ(record->startedCacheThread, 1);
        EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 1);
        host::Task thread = host::findTask(loadCachePID());
        ASSERT_TRUE(thread);
        EXPECT_EQ(thread.name(), "kbackupd");
        EXPECT_TRUE(fallsAsleep(thread));
        EXPECT_EQ(countOf(&signalThread), 0);

        killWorkQueue(record.get());
        EXPECT_EQ(takeLog(), (Lines{"<6>backup_cache: backupd thread exiting\n"}));
        EXPECT_EQ(loadCachePID(), 0);
        EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 0);
        EXPECT_EQ(countOf(&signalThread), 1);
        EXPECT_TRUE(eventually([&] { return thread.ended(); }));
    });
}

TEST_F(WriteQueue, OnlyTheRecordThatStartedTheThreadStopsIt)
{
    withModule([](ModuleRun &) {
        OpenRecord owner;
        OpenRecord other;
        ASSERT_EQ(startWorkQueue(owner.get()), 0);
        int pid = loadCachePID();
        // One that has not come to its wait yet would not use up the wake-up to stop.
        EXPECT_TRUE(fallsAsleep(host::findTask(pid)));
        killWorkQueue(other.get());
        EXPECT_EQ(loadCachePID(), pid);
        EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 1);
        killWorkQueue(owner.get());
        EXPECT_EQ(loadCachePID(), 0);
        // Once is enough.
        killWorkQueue(owner.get());
        EXPECT_EQ(countOf(&signalThread), 1);
        EXPECT_EQ(countOf(&cacheThreadOwner), 1);
    });
}

TEST_F(WriteQueue, AThreadThatCannotStartGivesItsOwnError)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        host::clearFaults();
        host::failNth(host::Fault::kernelThread, 1);
        int result = startWorkQueue(record.get());
        host::clearFaults();
        EXPECT_LT(result, 0);
        EXPECT_EQ(takeLog(), (Lines{"<3>startWorkQueue: error starting cache thread\n"}));
        EXPECT_EQ(loadCachePID(), result);
        EXPECT_EQ(record->startedCacheThread, 0);
        killWorkQueue(record.get());
        EXPECT_EQ(loadCachePID(), result);
        EXPECT_EQ(countOf(&signalThread), 0);
    });
}

TEST_F(WriteQueue, AnEmptyQueueIsDrainedAtOnce)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        waitForMRs(record.get());
        ASSERT_EQ(startWorkQueue(record.get()), 0);
        takeLog();
        waitForMRs(record.get());
        EXPECT_EQ(takeLog(), Lines());
        killWorkQueue(record.get());
    });
}

} // namespace
