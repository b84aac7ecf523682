// Statistics and the state query.
#include <cstring>

#include <host/faults.h>
#include <host/memory.h>

#include "support/agent.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

// A record whose fields all differ.
void fill(Backup *b)
{
    b->diskInfo.kdev = 8u << 20 | 5;
    setBackupState(b, 6);
    b->diskInfo.partitionStart = (u64{1} << 32) + 63;
    b->diskInfo.blockSize = 1024;
    b->diskInfo.blocksPerPage = 4;
    b->diskInfo.partitionSizeKB = (u64{2} << 32) + 4000000000u;
    b->diskInfo.numBlocks = (u64{3} << 32) + 3000000000u;
    b->maxVMPages = 64;
    b->maxCacheBlocks = 4294967295u;
    int value = 100;
    for (atomic_t *counter :
         {&b->totalAllocPages, &b->curAllocPages, &b->totalAllocBRs, &b->curAllocBRs,
          &b->totalAllocCPs, &b->curAllocCPs, &b->peakAllocCPs, &b->totalCBs, &b->curCBs,
          &b->totalReadBlocks, &b->totalReadCBs, &b->totalCleanedCBs, &b->ioctlCount})
        atomic_set(counter, value++);
    b->eTimeToFreeze = {1, 500000000};
    b->eTimeFrozen = {2, 7};
}

// So that its release finds an idle record again.
void empty(Backup *b)
{
    setBackupState(b, 0);
    b->diskInfo = {};
}

Lines statisticsLines()
{
    return {"<6>printStats: device: major(8) minor(5)\n",
            "<6>printStats: state: 6\n",
            "<6>printStats: block size: 1024\n",
            "<6>printStats: partition size (KB): 4000000000\n",
            "<6>printStats: file system size (blocks): 3000000000\n",
            "<6>printStats: pages allocated for write journal: 99\n",
            "<6>printStats: max cache size in blocks: -1\n",
            "<6>printStats: total pages allocated: 100\n",
            "<6>printStats: current pages allocated: 101\n",
            "<6>printStats: total Block Requests allocated: 102\n",
            "<6>printStats: current Block Requests allocated: 103\n",
            "<6>printStats: total cached blocks: 104\n",
            "<6>printStats: current cached blocks: 105\n",
            "<6>printStats: peak cached blocks: 106\n",
            "<6>printStats: total block cache data structures: 107\n",
            "<6>printStats: current block cache data structures: 108\n",
            "<6>printStats: total reads from disk: 109\n",
            "<6>printStats: total reads from cache: 110\n",
            "<6>printStats: blocks cleaned from cache: 111\n",
            "<6>printStats: partition start (sector): 63\n",
            "<6>printStats: blocks per page: 4\n",
            "<6>printStats: max buffer size in pages: 64\n",
            "<6>printStats: buffer pages allocated: 0\n",
            "<6>printStats: commands processed: 112\n",
            "<6>printStats: time to freeze in seconds: 1.500000000\n",
            "<6>printStats: time frozen in seconds: 2.000000007\n"};
}

class Statistics : public test::ModuleTest
{
};

TEST_F(Statistics, TheLogHasTwentySixLines)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        fill(record.get());
        atomic_set(&curAllocAMPages, 99);
        Stats stats{};
        setStats(record.get(), &stats);
        atomic_set(&curAllocAMPages, 0);
        printStats(&stats);
        EXPECT_EQ(takeLog(), statisticsLines());
        empty(record.get());
    });
}

TEST_F(Statistics, FillingTheRecordLeavesTheDriversVersion)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        fill(record.get());
        Stats stats{};
        stats.driverVerMajor = 11;
        stats.driverVerMinor = 12;
        stats.driverVerMinor2 = 13;
        setStats(record.get(), &stats);
        EXPECT_EQ(stats.driverVerMajor, 11u);
        EXPECT_EQ(stats.driverVerMinor, 12u);
        EXPECT_EQ(stats.driverVerMinor2, 13u);
        EXPECT_EQ(stats.maxCacheBlocks, 4294967295u);
        EXPECT_EQ(stats.numBlocks, 3000000000u);
        EXPECT_EQ(stats.eTimeFrozen.tv_nsec, 7);
        empty(record.get());
    });
}

TEST_F(Statistics, BufferPagesAreThoseOfMappings)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 1), 0);
        Backup *b = loadActiveSession();
        auto vmPages = [b] {
            Stats stats{};
            setStats(b, &stats);
            return stats.vmPages;
        };
        EXPECT_EQ(vmPages(), 0);
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        ASSERT_EQ(agent.mapBuffer(3 * 4096, &first), 0);
        EXPECT_EQ(vmPages(), 3);
        ASSERT_EQ(agent.mapBuffer(5 * 4096, &second), 0);
        EXPECT_EQ(vmPages(), 8);
        EXPECT_EQ(agent.unmapBuffer(first), 0);
        EXPECT_EQ(vmPages(), 5);
        // Pages without a mapping do not count.
        b->vmAreas[0].vmPages = 9;
        EXPECT_EQ(vmPages(), 5);
        b->vmAreas[0].vmPages = 0;
    });
}

TEST_F(Statistics, ClosingABackupLogsThem)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 17), 0);
        takeLog();
        agent.close();
        Lines log = takeLog();
        std::string device = "major(" + std::to_string(disk.major()) + ") minor(" +
                             std::to_string(disk.minor()) + ")";
        EXPECT_EQ(log.front(), "<6>backup_cache: backupd thread exiting\n");
        ASSERT_EQ(log.size(), 1u + 26u + 1u);
        EXPECT_EQ(log[1], "<6>printStats: device: " + device + "\n");
        EXPECT_EQ(log[2], "<6>printStats: state: 7\n");
        EXPECT_EQ(log[3], "<6>printStats: block size: 4096\n");
        EXPECT_EQ(log[4], "<6>printStats: partition size (KB): " +
                              std::to_string(disk.sectors() / 2) + "\n");
        EXPECT_EQ(log[5], "<6>printStats: file system size (blocks): " +
                              std::to_string(disk.blocks()) + "\n");
        EXPECT_EQ(log[7], "<6>printStats: max cache size in blocks: 17\n");
        EXPECT_EQ(log[8], "<6>printStats: total pages allocated: 1\n");
        EXPECT_EQ(log[9], "<6>printStats: current pages allocated: 0\n");
        EXPECT_EQ(log[20], "<6>printStats: partition start (sector): 63\n");
        EXPECT_EQ(log[22], "<6>printStats: max buffer size in pages: 256\n");
        EXPECT_EQ(log[24], "<6>printStats: commands processed: 1\n");
        EXPECT_EQ(log[25], "<6>printStats: time to freeze in seconds: 0.000000000\n");
        EXPECT_EQ(log[27],
                  "<6>closeBackup: backup finished device major=" + std::to_string(disk.major()) +
                      " minor=" + std::to_string(disk.minor()) + "\n");
    });
}

TEST_F(Statistics, ClosingARecordThatNeverStartedLogsNothing)
{
    withModule([](ModuleRun &) {
        test::Agent agent;
        EXPECT_EQ(agent.ioctl(ZEL_RESERVED), 3);
        agent.close();
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(Statistics, WithoutMemoryTheClosingLogLosesOnlyTheStatistics)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 17), 0);
        takeLog();
        host::failNth(host::Fault::kmalloc, 1);
        agent.close();
        EXPECT_EQ(
            takeLog(),
            (Lines{"<6>backup_cache: backupd thread exiting\n",
                   "<6>closeBackup: backup finished device major=" + std::to_string(disk.major()) +
                       " minor=" + std::to_string(disk.minor()) + "\n"}));
    });
}

TEST_F(Statistics, TheStateOfANewRecordIsZero)
{
    withModule([](ModuleRun &) {
        test::Agent agent;
        State state;
        std::memset(&state, 0xee, sizeof(state));
        EXPECT_EQ(agent.getState(&state), 0);
        State zero{};
        EXPECT_EQ(std::memcmp(&state, &zero, sizeof(zero)), 0);
    });
}

TEST_F(Statistics, TheStateTellsWhatDrivesABackup)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk({.blockSizes = {1024}});
        test::Agent agent;
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 1), 0);
        State state{};
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.major, disk.major());
        EXPECT_EQ(state.minor, disk.minor());
        EXPECT_EQ(state.state, 2u);
        EXPECT_EQ(state.blockSize, 1024);
        EXPECT_EQ(state.mmapSize, 64 * 4096);
        EXPECT_EQ(agent.snapShot(), 0);
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.state, 4u);
        EXPECT_EQ(agent.loadBlockMap(disk.blocks()), 0);
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.state, 6u);
    });
}

TEST_F(Statistics, AStateThatCannotBeWrittenAnswers7)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        std::uint32_t cut = run.process().allocateBeforeHole(19);
        EXPECT_EQ(ioctlGetState(record.get(), ModuleRun::user<State>(cut), 20), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetState: copy to user space failed\n"}));
        EXPECT_EQ(ioctlGetState(record.get(), ModuleRun::user<State>(cut), 19), 0);
    });
}

TEST_F(Statistics, AllCountersCanBeAskedFor)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        fill(record.get());
        std::uint32_t memory = run.process().allocate(256);
        auto *stats = run.process().pointer<Stats>(memory);
        std::memset(stats, 0xee, 256);
        EXPECT_EQ(ioctlGetStats(record.get(), stats, 0xffffffff), 0);
        EXPECT_EQ(stats->driverVerMajor, 0u);
        EXPECT_EQ(stats->driverVerMinor, 0u);
        EXPECT_EQ(stats->driverVerMinor2, 0u);
        EXPECT_EQ(stats->major, 8u);
        EXPECT_EQ(stats->ioctlCount, 112);
        EXPECT_EQ(stats->eTimeFrozen.tv_nsec, 7);
        EXPECT_EQ(run.process().pointer<u8>(memory)[128], 0xee);

        std::memset(stats, 0xee, 256);
        EXPECT_EQ(ioctlGetStats(record.get(), stats, 20), 0);
        EXPECT_EQ(stats->minor, 5u);
        EXPECT_EQ(stats->state, 0xeeeeeeeeu);
        EXPECT_EQ(takeLog(), Lines());
        empty(record.get());
    });
}

TEST_F(Statistics, CountersThatCannotBeGivenAnswer5Or7)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        host::MemoryUse before = host::memoryUse();
        auto *bad = run.process().pointer<Stats>(host::Process::badAddress);
        EXPECT_EQ(ioctlGetStats(record.get(), bad, 128), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetStats: copy to user space failed\n"}));
        host::failNth(host::Fault::kmalloc, 1);
        EXPECT_EQ(ioctlGetStats(record.get(), bad, 128), 5);
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_TRUE(host::memoryUse() == before);
    });
}

} // namespace
