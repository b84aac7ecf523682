// The records of the control interface, byte for byte as a 32-bit agent lays them out.
#include <cstddef>
#include <cstring>

#include <host/block.h>

#include "support/agent.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::takeLog;

#define EXPECT_FIELD(record, field, offset, width)                                                 \
    do {                                                                                           \
        EXPECT_EQ(offsetof(record, field), std::size_t(offset)) << #record "." #field;             \
        EXPECT_EQ(sizeof(record::field), std::size_t(width)) << #record "." #field;                \
    } while (0)

TEST(Records, BlockSizeQuery)
{
    EXPECT_EQ(sizeof(BlockSize), 16u);
    EXPECT_FIELD(BlockSize, major, 0, 4);
    EXPECT_FIELD(BlockSize, minor, 4, 4);
    EXPECT_FIELD(BlockSize, blockSize, 8, 4);
    EXPECT_FIELD(BlockSize, partitionSizeKB, 12, 4);
    EXPECT_TRUE(std::is_signed_v<decltype(BlockSize::blockSize)>);
    EXPECT_EQ(sizeof(GetBlockSize), 16u);
    EXPECT_FIELD(GetBlockSize, major, 0, 4);
    EXPECT_FIELD(GetBlockSize, minor, 4, 4);
    EXPECT_FIELD(GetBlockSize, bs, 8, 4);
    EXPECT_FIELD(GetBlockSize, len, 12, 4);
}

TEST(Records, StartAndSnapshot)
{
    EXPECT_EQ(sizeof(StartBackup), 16u);
    EXPECT_FIELD(StartBackup, major, 0, 4);
    EXPECT_FIELD(StartBackup, minor, 4, 4);
    EXPECT_FIELD(StartBackup, totalBlocks, 8, 4);
    EXPECT_FIELD(StartBackup, maxCacheBlocks, 12, 4);
    EXPECT_EQ(sizeof(AMSessionKey), 56u);
    EXPECT_FIELD(AMSessionKey, key, 0, 56);
    EXPECT_EQ(sizeof(SnapShot), 8u);
    EXPECT_FIELD(SnapShot, amsKey, 0, 4);
    EXPECT_FIELD(SnapShot, len, 4, 4);
}

TEST(Records, StateQueries)
{
    EXPECT_EQ(sizeof(State), 20u);
    EXPECT_FIELD(State, major, 0, 4);
    EXPECT_FIELD(State, minor, 4, 4);
    EXPECT_FIELD(State, state, 8, 4);
    EXPECT_FIELD(State, blockSize, 12, 4);
    EXPECT_FIELD(State, mmapSize, 16, 4);
    EXPECT_EQ(sizeof(GetState), 8u);
    EXPECT_FIELD(GetState, s, 0, 4);
    EXPECT_FIELD(GetState, len, 4, 4);
    EXPECT_EQ(sizeof(AutoMapState), 76u);
    EXPECT_FIELD(AutoMapState, major, 0, 4);
    EXPECT_FIELD(AutoMapState, minor, 4, 4);
    EXPECT_FIELD(AutoMapState, state, 8, 4);
    EXPECT_FIELD(AutoMapState, mapLen, 12, 4);
    EXPECT_FIELD(AutoMapState, mapSize, 16, 4);
    EXPECT_FIELD(AutoMapState, amsKey, 20, 56);
    EXPECT_EQ(sizeof(GetAutoMapState), 8u);
    EXPECT_FIELD(GetAutoMapState, ams, 0, 4);
    EXPECT_FIELD(GetAutoMapState, len, 4, 4);
}

TEST(Records, MapsAndBlocks)
{
    EXPECT_EQ(sizeof(UserBlockMap), 8u);
    EXPECT_FIELD(UserBlockMap, map, 0, 4);
    EXPECT_FIELD(UserBlockMap, mapLen, 4, 4);
    EXPECT_EQ(sizeof(LoadBlockMap), 8u);
    EXPECT_FIELD(LoadBlockMap, bm, 0, 4);
    EXPECT_FIELD(LoadBlockMap, len, 4, 4);
    EXPECT_EQ(sizeof(GetAutoMap), 8u);
    EXPECT_FIELD(GetAutoMap, bm, 0, 4);
    EXPECT_FIELD(GetAutoMap, len, 4, 4);
    EXPECT_EQ(sizeof(DirtyBlock), 4u);
    EXPECT_FIELD(DirtyBlock, blockNum, 0, 4);
    EXPECT_EQ(sizeof(ReadBlocks), 12u);
    EXPECT_FIELD(ReadBlocks, startBlockNum, 0, 4);
    EXPECT_FIELD(ReadBlocks, numBlocks, 4, 4);
    EXPECT_FIELD(ReadBlocks, data, 8, 4);
}

TEST(Records, Statistics)
{
    EXPECT_EQ(sizeof(Stats), 128u);
    std::size_t offset = 0;
#define EXPECT_NEXT(field)                                                                         \
    EXPECT_FIELD(Stats, field, offset, 4);                                                         \
    offset += 4
    EXPECT_NEXT(driverVerMajor);
    EXPECT_NEXT(driverVerMinor);
    EXPECT_NEXT(driverVerMinor2);
    EXPECT_NEXT(major);
    EXPECT_NEXT(minor);
    EXPECT_NEXT(state);
    EXPECT_NEXT(partitionStart);
    EXPECT_NEXT(blockSize);
    EXPECT_NEXT(blocksPerPage);
    EXPECT_NEXT(partitionSizeKB);
    EXPECT_NEXT(numBlocks);
    EXPECT_NEXT(maxVMPages);
    EXPECT_NEXT(vmPages);
    EXPECT_NEXT(maxCacheBlocks);
    EXPECT_NEXT(curAllocAMPages);
    EXPECT_NEXT(totalAllocPages);
    EXPECT_NEXT(curAllocPages);
    EXPECT_NEXT(totalAllocBRs);
    EXPECT_NEXT(curAllocBRs);
    EXPECT_NEXT(totalAllocCPs);
    EXPECT_NEXT(curAllocCPs);
    EXPECT_NEXT(peakAllocCPs);
    EXPECT_NEXT(totalCBs);
    EXPECT_NEXT(curCBs);
    EXPECT_NEXT(totalReadBlocks);
    EXPECT_NEXT(totalReadCBs);
    EXPECT_NEXT(totalCleanedCBs);
    EXPECT_NEXT(ioctlCount);
    EXPECT_NEXT(eTimeToFreeze.tv_sec);
    EXPECT_NEXT(eTimeToFreeze.tv_nsec);
    EXPECT_NEXT(eTimeFrozen.tv_sec);
    EXPECT_NEXT(eTimeFrozen.tv_nsec);
#undef EXPECT_NEXT
    EXPECT_EQ(offset, sizeof(Stats));
}

// As the kernel's _IOW('*', number, record) and _IO('*', number) build them.
constexpr unsigned writes(unsigned number, std::size_t recordBytes)
{
    return 1u << 30 | static_cast<unsigned>(recordBytes) << 16 | '*' << 8 | number;
}

TEST(Records, CommandNumbersTellTheirRecordsSize)
{
    EXPECT_EQ(unsigned(ZEL_GET_BLOCK_SIZE), writes(0, sizeof(GetBlockSize)));
    EXPECT_EQ(unsigned(ZEL_START_BACKUP), writes(1, sizeof(StartBackup)));
    EXPECT_EQ(unsigned(ZEL_SNAP_SHOT), writes(2, sizeof(SnapShot)));
    EXPECT_EQ(unsigned(ZEL_GET_STATE), writes(3, sizeof(GetState)));
    EXPECT_EQ(unsigned(ZEL_GET_AUTO_MAP_STATE), writes(4, sizeof(GetAutoMapState)));
    EXPECT_EQ(unsigned(ZEL_NO_LOAD_FROM_AUTO_MAP), unsigned('*' << 8 | 5));
    EXPECT_EQ(unsigned(ZEL_NO_START_AUTO_MAP), unsigned('*' << 8 | 6));
    EXPECT_EQ(unsigned(ZEL_LOAD_BLOCK_MAP), writes(7, sizeof(LoadBlockMap)));
    EXPECT_EQ(unsigned(ZEL_GET_AUTO_MAP), writes(8, sizeof(GetAutoMap)));
    EXPECT_EQ(unsigned(ZEL_GET_DIRTY_BLOCK), writes(9, sizeof(DirtyBlock)));
    EXPECT_EQ(unsigned(ZEL_READ_BLOCKS), writes(10, sizeof(ReadBlocks)));
    EXPECT_EQ(unsigned(ZEL_GET_VERSION_MAJOR), writes(12, 4));
    EXPECT_EQ(unsigned(ZEL_GET_VERSION_MINOR), writes(13, 4));
    EXPECT_EQ(unsigned(ZEL_SYNC), writes(14, 4));
    EXPECT_EQ(unsigned(ZEL_SHUTDOWN), writes(15, 4));
    EXPECT_EQ(unsigned(ZEL_RESERVED), writes(16, 4));
}

TEST(Records, CachedBlocksTakeTwelveBytesWithThirtyTwoBitPointers)
{
    constexpr size_t pointer = sizeof(void *);
    EXPECT_EQ(sizeof(CachePage), pointer == 4 ? 12u : 24u);
    EXPECT_FIELD(CachePage, next, 0, pointer);
    EXPECT_FIELD(CachePage, data, pointer, pointer);
    EXPECT_FIELD(CachePage, blockNum, 2 * pointer, 4);
}

class RecordsExchanged : public test::ModuleTest
{
};

TEST_F(RecordsExchanged, AnswersAreCutToWhatTheAgentCanTake)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 1), 0);
        State state;
        std::memset(&state, 0xee, sizeof(state));
        EXPECT_EQ(agent.getState(&state, 8), 0);
        EXPECT_EQ(state.major, disk.major());
        EXPECT_EQ(state.minor, disk.minor());
        EXPECT_EQ(state.state, 0xeeeeeeeeu);
        EXPECT_EQ(state.blockSize, static_cast<std::int32_t>(0xeeeeeeee));
        EXPECT_EQ(agent.getState(&state, 0), 0);
        EXPECT_EQ(state.state, 0xeeeeeeeeu);
    });
}

TEST_F(RecordsExchanged, AnswersAreNeverLongerThanTheirRecord)
{
    withModule([](ModuleRun &) {
        test::Agent agent;
        std::uint32_t memory = agent.process().allocate(64);
        std::memset(agent.process().pointer<void>(memory), 0xee, 64);
        GetState record{memory, 0xffffffff};
        EXPECT_EQ(agent.ioctl(ZEL_GET_STATE, agent.process().put(record)), 0);
        EXPECT_EQ(agent.process().pointer<std::uint8_t>(memory)[19], 0x00);
        EXPECT_EQ(agent.process().pointer<std::uint8_t>(memory)[20], 0xee);
    });
}

TEST_F(RecordsExchanged, AShortKeyIsComparedWithZerosForTheRest)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        ASSERT_EQ(agent.begin(disk.device()), 0);
        AutoMapState ams{};
        ASSERT_EQ(agent.getAutoMapState(&ams), 0);
        agent.close();
        // The session's key as an agent would have to know it by its first 20 bytes.
        AMSessionKey &inModule = amList[disk.major()][disk.minor()]->sessionKey;
        std::memset(inModule.key + 20, 0, sizeof(inModule.key) - 20);
        inModule.key[19] = ams.amsKey.key[19] = 0x5a; // it may have been 0

        ASSERT_GE(agent.open(), 0);
        ASSERT_EQ(agent.startBackup(disk.device(), disk.blocks(), 1), 0);
        State state{};
        EXPECT_EQ(agent.snapShot(ams.amsKey, 56), 0);
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.state, 2u);
        EXPECT_EQ(agent.snapShot(ams.amsKey, 19), 0);
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.state, 2u);
        EXPECT_EQ(agent.snapShot(ams.amsKey, 20), 0);
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.state, 4u);
    });
}

} // namespace
