// The commands that steer change tracking and exchange block maps.
#include <cstring>

#include <host/block.h>
#include <host/faults.h>
#include <host/memory.h>

#include "support/agent.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"

namespace
{

using test::Agent;
using test::Bitmap;
using test::Lines;
using test::ModuleRun;
using test::takeLog;
using test::TestDisk;

AutoMapState autoMapState(Agent &agent)
{
    AutoMapState ams{};
    EXPECT_EQ(agent.getAutoMapState(&ams), 0);
    return ams;
}

unsigned stateOf(Agent &agent)
{
    State state{};
    EXPECT_EQ(agent.getState(&state), 0);
    return state.state;
}

void writeBlock(TestDisk &disk, u64 block)
{
    std::vector<unsigned char> bytes(disk.blockSize(), 0x77);
    EXPECT_EQ(host::writeDevice(disk.bdev(), block * (disk.blockSize() / 512), bytes.data(),
                                bytes.size()),
              0);
}

// A tracked device of which a backup was taken and closed: what the next one needs.
AMSessionKey firstBackup(TestDisk &disk)
{
    Agent agent;
    EXPECT_EQ(agent.begin(disk.device()), 0);
    return autoMapState(agent).amsKey;
}

class AutoMapCommands : public test::ModuleTest
{
};

TEST_F(AutoMapCommands, WithoutASessionTheStateIsAllZero)
{
    withModule([](ModuleRun &) {
        Agent agent;
        AutoMapState ams;
        AutoMapState zero{};
        std::memset(&ams, 0xee, sizeof(ams));
        EXPECT_EQ(agent.getAutoMapState(&ams), 0);
        EXPECT_EQ(std::memcmp(&ams, &zero, sizeof(ams)), 0);
        TestDisk disk;
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 10), 0);
        std::memset(&ams, 0xee, sizeof(ams));
        EXPECT_EQ(agent.getAutoMapState(&ams), 0);
        EXPECT_EQ(std::memcmp(&ams, &zero, sizeof(ams)), 0);
    });
}

TEST_F(AutoMapCommands, TheStateTellsTheSessionsMapAndKey)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        AutoMapState ams = autoMapState(agent);
        EXPECT_EQ(ams.major, disk.major());
        EXPECT_EQ(ams.minor, disk.minor());
        EXPECT_EQ(ams.state, 1u);
        EXPECT_EQ(ams.mapLen, agent.blocks());
        EXPECT_EQ(ams.mapSize, (agent.blocks() + 7) / 8);
        AutoMapSession *session = amList[disk.major()][disk.minor()];
        EXPECT_EQ(std::memcmp(&ams.amsKey, &session->sessionKey, sizeof(ams.amsKey)), 0);
        EXPECT_EQ(atomic_read(&session->users), 1);

        setAMSState(session, AMS_NOT_IN_SYNC);
        EXPECT_EQ(autoMapState(agent).state, 0u);
        EXPECT_EQ(autoMapState(agent).mapLen, agent.blocks());
    });
}

TEST_F(AutoMapCommands, AShortStateEndsBeforeTheKey)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        AutoMapState ams;
        std::memset(&ams, 0xee, sizeof(ams));
        EXPECT_EQ(agent.getAutoMapState(&ams, 20), 0);
        EXPECT_EQ(ams.mapSize, (agent.blocks() + 7) / 8);
        AMSessionKey untouched;
        std::memset(&untouched, 0xee, sizeof(untouched));
        EXPECT_EQ(std::memcmp(&ams.amsKey, &untouched, sizeof(untouched)), 0);
    });
}

TEST_F(AutoMapCommands, AStateThatCannotBeWrittenAnswers7)
{
    withModule([](ModuleRun &) {
        Agent agent;
        host::failNth(host::Fault::copyToUser, 1);
        AutoMapState ams{};
        EXPECT_EQ(agent.getAutoMapState(&ams), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMapState: copy to user space failed\n"}));
    });
}

TEST_F(AutoMapCommands, SwitchesAreSetInAnyStateAndStay)
{
    withModule([](ModuleRun &) {
        test::OpenRecord record;
        for (unsigned state : {0u, 2u, 6u, 12u}) {
            setBackupState(record.get(), state);
            EXPECT_EQ(ioctlNoLoadFromAutoMap(record.get()), 0);
            EXPECT_EQ(ioctlNoStartAutoMap(record.get()), 0);
            EXPECT_EQ(record->noLoadFromAutoMap, 1);
            EXPECT_EQ(record->noStartAutoMap, 1);
        }
        setBackupState(record.get(), 0);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapCommands, NoStartEndsTheTracking)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        AMSessionKey key = firstBackup(disk);
        Agent agent;
        EXPECT_EQ(agent.noStartAutoMap(), 0);
        ASSERT_EQ(agent.begin(disk.device(), key), 0);
        EXPECT_EQ(stateOf(agent), 4u);
        EXPECT_EQ(autoMapState(agent).mapLen, 0u);
        EXPECT_EQ(amList[disk.major()][disk.minor()], nullptr);
        Bitmap map;
        EXPECT_EQ(agent.getAutoMap(&map, agent.blocks()), 2);
    });
}

TEST_F(AutoMapCommands, NoLoadStartsAFreshSession)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        AMSessionKey key = firstBackup(disk);
        writeBlock(disk, 5);
        Agent agent;
        EXPECT_EQ(agent.noLoadFromAutoMap(), 0);
        ASSERT_EQ(agent.begin(disk.device(), key), 0);
        EXPECT_EQ(stateOf(agent), 4u);
        AutoMapState ams = autoMapState(agent);
        EXPECT_EQ(ams.state, 1u);
        EXPECT_NE(std::memcmp(&ams.amsKey, &key, sizeof(key)), 0);
        takeLog();
        Bitmap map;
        EXPECT_EQ(agent.getAutoMap(&map, agent.blocks()), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error automap is NULL \n"}));
    });
}

TEST_F(AutoMapCommands, TheChangedBlocksAreHandedOutOnce)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        AMSessionKey key = firstBackup(disk);
        writeBlock(disk, 5);
        writeBlock(disk, 200);
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device(), key), 0);
        Backup *b = loadActiveSession();
        int cur = atomic_read(&b->curAllocPages);
        Bitmap map;
        ASSERT_EQ(agent.getAutoMap(&map, agent.blocks()), 0);
        EXPECT_EQ(test::countBits(map), 2u);
        EXPECT_TRUE(test::testBit(map, 5));
        EXPECT_TRUE(test::testBit(map, 200));
        EXPECT_EQ(b->blockMap.map, nullptr);
        EXPECT_EQ(atomic_read(&b->curAllocPages), cur - 1);
        EXPECT_EQ(atomic_read(&b->blockMap.users), 1);
        takeLog();
        EXPECT_EQ(agent.getAutoMap(&map, agent.blocks()), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error automap is NULL \n"}));
        EXPECT_EQ(atomic_read(&b->blockMap.users), 1);
        // The session goes on with an empty one.
        EXPECT_EQ(autoMapState(agent).state, 1u);
    });
}

TEST_F(AutoMapCommands, OfAFirstBackupThereIsNoMap)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        takeLog();
        Bitmap map;
        EXPECT_EQ(agent.getAutoMap(&map, agent.blocks()), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error automap is NULL \n"}));
    });
}

TEST_F(AutoMapCommands, TheMapIsOnlyThereBetweenSnapshotAndLoad)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        AMSessionKey key = firstBackup(disk);
        Agent agent;
        Bitmap map;
        const Lines notLoaded{"<3>ioctlGetAutoMap: backup error map not loaded \n"};
        takeLog();
        EXPECT_EQ(agent.getAutoMap(&map, disk.blocks()), 2);
        EXPECT_EQ(takeLog(), notLoaded);
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 100), 0);
        takeLog();
        EXPECT_EQ(agent.getAutoMap(&map, disk.blocks()), 2);
        EXPECT_EQ(takeLog(), notLoaded);
        ASSERT_EQ(agent.snapShot(key), 0);
        ASSERT_EQ(agent.loadBlockMap(disk.blocks()), 0);
        takeLog();
        EXPECT_EQ(agent.getAutoMap(&map, disk.blocks()), 2);
        EXPECT_EQ(takeLog(), notLoaded);
    });
}

TEST_F(AutoMapCommands, AWrongLengthKeepsTheMapForARetry)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        AMSessionKey key = firstBackup(disk);
        writeBlock(disk, 7);
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device(), key), 0);
        takeLog();
        Bitmap map;
        for (std::uint32_t length : {agent.blocks() - 1, agent.blocks() + 1}) {
            EXPECT_EQ(agent.getAutoMap(&map, length), 2);
            EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error map size mismatch kernel "
                                        "map size=" +
                                        std::to_string(agent.blocks()) +
                                        " user map size=" + std::to_string(length) + "\n"}));
        }
        EXPECT_EQ(agent.getAutoMap(&map, agent.blocks()), 0);
        EXPECT_TRUE(test::testBit(map, 7));
    });
}

TEST_F(AutoMapCommands, AMapThatCannotBeWrittenIsKeptToo)
{
    withModule([](ModuleRun &) {
        // More blocks than one page of the map covers: 40960 of 1024 bytes.
        TestDisk disk({.mebibytes = 40, .blockSizes = {1024}});
        AMSessionKey key = firstBackup(disk);
        writeBlock(disk, 33000);
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device(), key), 0);
        std::uint32_t bytes = (agent.blocks() + 7) / 8;
        ASSERT_GT(bytes, 4096u);
        takeLog();
        host::Process &process = agent.process();
        // Fails in the second page, whose share is the rest.
        std::uint32_t memory = process.allocateBeforeHole(bytes - 1);
        UserBlockMap user{memory, agent.blocks()};
        GetAutoMap record{process.put(user), sizeof(user)};
        EXPECT_EQ(agent.ioctl(ZEL_GET_AUTO_MAP, process.put(record)), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: copy to user space failed data=" +
                                    test::pointerText(memory + 4096) +
                                    " bytesCopied=" + std::to_string(bytes - 4096) +
                                    " bytesInMap=" + std::to_string(bytes) + "\n"}));
        EXPECT_EQ(host::memoryUse().kmaps, 0u);
        // Nothing after the map's last byte is written.
        std::uint32_t exact = process.allocateBeforeHole(bytes);
        UserBlockMap again{exact, agent.blocks()};
        GetAutoMap retry{process.put(again), sizeof(again)};
        EXPECT_EQ(agent.ioctl(ZEL_GET_AUTO_MAP, process.put(retry)), 0);
        EXPECT_EQ(process.pointer<u8>(exact)[33000 / 8], 1 << 33000 % 8);
    });
}

TEST_F(AutoMapCommands, ANullMapSelectsEveryBlock)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        Backup *b = loadActiveSession();
        int cur = atomic_read(&b->curAllocPages);
        int total = atomic_read(&b->totalAllocPages);
        takeLog();
        EXPECT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        EXPECT_EQ(stateOf(agent), 6u);
        EXPECT_EQ(b->blockMap.size, agent.blocks());
        EXPECT_NE(blockInMap(&b->blockMap, 0), 0);
        EXPECT_NE(blockInMap(&b->blockMap, agent.blocks() - 1), 0);
        EXPECT_EQ(atomic_read(&b->curAllocPages), cur + 1);
        EXPECT_EQ(atomic_read(&b->totalAllocPages), total + 1);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapCommands, ALoadedMapSelectsItsBlocks)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        Bitmap map = test::emptyBitmap(agent.blocks());
        test::setBit(map, 3);
        EXPECT_EQ(agent.loadBlockMap(map, agent.blocks()), 0);
        Backup *b = loadActiveSession();
        EXPECT_EQ(blockInMap(&b->blockMap, 2), 0);
        EXPECT_NE(blockInMap(&b->blockMap, 3), 0);
    });
}

TEST_F(AutoMapCommands, AMapIsLoadedOnceAfterTheSnapshot)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        const Lines notComplete{"<3>ioctlLoadBlockMap: backup error snapshot not complete\n"};
        EXPECT_EQ(agent.loadBlockMap(100), 2);
        EXPECT_EQ(takeLog(), notComplete);
        EXPECT_EQ(stateOf(agent), 0u);
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 10), 0);
        takeLog();
        EXPECT_EQ(agent.loadBlockMap(disk.blocks()), 2);
        EXPECT_EQ(takeLog(), notComplete);
        EXPECT_EQ(stateOf(agent), 2u);
        ASSERT_EQ(agent.snapShot(), 0);
        ASSERT_EQ(agent.loadBlockMap(disk.blocks()), 0);
        takeLog();
        EXPECT_EQ(agent.loadBlockMap(disk.blocks()), 2);
        EXPECT_EQ(takeLog(), notComplete);
        EXPECT_EQ(stateOf(agent), 6u);
    });
}

TEST_F(AutoMapCommands, AMapThatCannotBeMadeSpoilsTheBackup)
{
    struct Case {
        host::Fault fault;
        bool fails;
        std::uint32_t blocks;
        int result;
        Lines messages;
    };
    const Case cases[] = {
        {host::Fault::vmalloc,
         true,
         800,
         5,
         {"<3>newBlockMap: failed allocating (" + std::to_string(sizeof(void *)) +
          ") bytes of memory for block map page array\n"}},
        {host::Fault::page,
         true,
         800,
         5,
         {"<3>newBlockMap: failed allocating page number (0) for block map\n",
          "<3>newBlockMap: Out of Memory Error.\n"}},
        {host::Fault::count, false, 0, 2, {"<3>newBlockMap: block size size=0 invalid\n"}},
    };
    for (const Case &each : cases) {
        withModule([&each](ModuleRun &) {
            TestDisk disk;
            Agent agent;
            ASSERT_EQ(agent.begin(disk.device()), 0);
            int cur = atomic_read(&loadActiveSession()->curAllocPages);
            takeLog();
            host::clearFaults();
            if (each.fails)
                host::failNth(each.fault, 1);
            EXPECT_EQ(agent.loadBlockMap(each.blocks), each.result);
            Lines expected = each.messages;
            expected.push_back("<3>newBUBlockMap: error creating map of size=" +
                               std::to_string(each.blocks) + "\n");
            expected.push_back("<3>ioctlLoadBlockMap: backup error failed to load device map\n");
            EXPECT_EQ(takeLog(), expected);
            EXPECT_EQ(stateOf(agent), 9u);
            EXPECT_EQ(atomic_read(&loadActiveSession()->curAllocPages), cur);
        });
    }
}

TEST_F(AutoMapCommands, AMapThatCannotBeReadAnswers6)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        takeLog();
        host::Process &process = agent.process();
        std::uint32_t bytes = (agent.blocks() + 7) / 8;
        std::uint32_t memory = process.allocateBeforeHole(bytes - 1);
        UserBlockMap user{memory, agent.blocks()};
        LoadBlockMap record{process.put(user), 0};
        EXPECT_EQ(agent.ioctl(ZEL_LOAD_BLOCK_MAP, process.put(record)), 6);
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>newBlockMap: copy to user space failed data=" +
                             test::pointerText(memory) + " bytesCopied=" + std::to_string(bytes) +
                             " bytesInMap=" + std::to_string(bytes) + "\n",
                         "<3>newBlockMap: Out of Memory Error.\n",
                         "<3>newBUBlockMap: error creating map of size=" +
                             std::to_string(agent.blocks()) + "\n",
                         "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
        EXPECT_EQ(stateOf(agent), 9u);
    });
}

TEST_F(AutoMapCommands, AMapThatNobodyFetchedIsReleasedByTheLoad)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        AMSessionKey key = firstBackup(disk);
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device(), key), 0);
        Backup *b = loadActiveSession();
        ASSERT_NE(b->blockMap.map, nullptr);
        int cur = atomic_read(&b->curAllocPages);
        host::MemoryUse before = host::memoryUse();
        EXPECT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        EXPECT_EQ(atomic_read(&b->curAllocPages), cur);
        EXPECT_TRUE(host::memoryUse() == before);
        EXPECT_NE(blockInMap(&b->blockMap, 1), 0);
    });
}

TEST_F(AutoMapCommands, LoadingTrimsTheCacheToTheMap)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        Backup *b = loadActiveSession();
        writeBlock(disk, 10);
        writeBlock(disk, 20);
        writeBlock(disk, 30);
        EXPECT_EQ(atomic_read(&b->curCBs), 3);
        Bitmap map = test::emptyBitmap(agent.blocks());
        test::setBit(map, 20);
        ASSERT_EQ(agent.loadBlockMap(map, agent.blocks()), 0);
        EXPECT_EQ(atomic_read(&b->curCBs), 1);
        EXPECT_EQ(atomic_read(&b->totalCleanedCBs), 2);
        std::uint32_t dirty = 0;
        EXPECT_EQ(agent.getDirtyBlock(&dirty), 0);
        EXPECT_EQ(dirty, 20u);
    });
}

TEST_F(AutoMapCommands, AStateThatChangedUnderTheLoadSpoilsTheBackup)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        Backup *b = loadActiveSession();
        takeLog();
        down_read(&b->writers);
        host::Task loading =
            host::spawn("loading", [&] { EXPECT_EQ(agent.loadBlockMap(agent.blocks()), 3); });
        while (backupState(b) != BACKUP_LOADING_MAP)
            host::sleepNanoseconds(100'000);
        setBackupState(b, BACKUP_SNAPPED);
        up_read(&b->writers);
        loading.join();
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: error cleaning cache\n"}));
        EXPECT_EQ(stateOf(agent), 9u);
    });
}

TEST_F(AutoMapCommands, AFailureFoundDuringTheLoadIsFinal)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        Backup *b = loadActiveSession();
        down_read(&b->writers);
        host::Task loading =
            host::spawn("loading", [&] { EXPECT_EQ(agent.loadBlockMap(agent.blocks()), 0); });
        while (backupState(b) != BACKUP_LOADING_MAP)
            host::sleepNanoseconds(100'000);
        setBackupState(b, BACKUP_ERR_CACHE);
        up_read(&b->writers);
        loading.join();
        EXPECT_EQ(stateOf(agent), 10u);
    });
}

TEST_F(AutoMapCommands, AnEmptyCacheHasNoDirtyBlock)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        ASSERT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        std::uint32_t dirty = 0;
        EXPECT_EQ(agent.getDirtyBlock(&dirty), 0);
        EXPECT_EQ(dirty, 0xffffffffu);
    });
}

TEST_F(AutoMapCommands, TheDirtyBlockIsTheNewestOfTheLowestBucket)
{
    withModule([](ModuleRun &) {
        // Blocks that share a bucket are 4096 apart.
        TestDisk disk({.mebibytes = 40});
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        ASSERT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        writeBlock(disk, 700);
        writeBlock(disk, 5);
        writeBlock(disk, 4096 + 5);
        std::uint32_t dirty = 0;
        EXPECT_EQ(agent.getDirtyBlock(&dirty), 0);
        EXPECT_EQ(dirty, 4096u + 5);
    });
}

TEST_F(AutoMapCommands, WithoutALoadedMapThereIsNoDirtyBlock)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        std::uint32_t dirty = 77;
        EXPECT_EQ(agent.getDirtyBlock(&dirty), 2);
        ASSERT_EQ(agent.begin(disk.device()), 0);
        writeBlock(disk, 5);
        EXPECT_EQ(agent.getDirtyBlock(&dirty), 2);
        EXPECT_EQ(dirty, 77u);
        ASSERT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        setBackupState(loadActiveSession(), BACKUP_ERR_READ);
        EXPECT_EQ(agent.getDirtyBlock(&dirty), 2);
        EXPECT_EQ(dirty, 77u);
    });
}

TEST_F(AutoMapCommands, ADirtyBlockThatCannotBeWrittenAnswersMinus14)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        ASSERT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        takeLog();
        DirtyBlock record{host::Process::badAddress};
        EXPECT_EQ(agent.ioctl(ZEL_GET_DIRTY_BLOCK, agent.process().put(record)), -14);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(AutoMapCommands, ADirtyBlockMayBeAskedForDuringTheLoad)
{
    withModule([](ModuleRun &) {
        TestDisk disk;
        Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        writeBlock(disk, 5);
        host::Task asking = host::spawn("asking", [&] {
            std::uint32_t dirty = 0;
            int result;
            while ((result = agent.getDirtyBlock(&dirty)) == 2)
                host::yield();
            EXPECT_EQ(result, 0);
            EXPECT_EQ(dirty, 5u);
        });
        EXPECT_EQ(agent.loadBlockMap(agent.blocks()), 0);
        asking.join();
    });
}

} // namespace
