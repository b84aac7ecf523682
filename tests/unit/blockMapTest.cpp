// Block maps: the bitmaps that stand for a device's blocks.
#include <algorithm>
#include <cstring>

#include <host/faults.h>
#include <host/memory.h>

#include "support/backupRun.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::takeLog;

constexpr u32 largestSize = 4294967288u;
constexpr std::size_t page = PAGE_SIZE;

// A map in the kernel's memory, so that its locks are watched; closed at the end.
class Map
{
public:
    Map() : map_(static_cast<BlockMap *>(kmalloc(sizeof(BlockMap), GFP_KERNEL)))
    {
        std::memset(map_, 0, sizeof(BlockMap));
        initBlockMap(map_);
    }
    ~Map()
    {
        unsigned freed = 0;
        closeBlockMap(map_, &freed);
        kfree(map_);
    }
    Map(const Map &) = delete;

    operator BlockMap *() const { return map_; }
    BlockMap *operator->() const { return map_; }
    int create(unsigned size, const void *data, int zeroFill)
    {
        return newBlockMap(map_, size, data, zeroFill, &pages);
    }
    std::uint8_t byte(std::size_t index) const
    {
        return host::pageBytes(map_->map[index / page])[index % page];
    }

    unsigned pages = 777; // what newBlockMap stored

private:
    BlockMap *map_;
};

class BlockMaps : public test::ModuleTest
{
};
class BlockMapUsers : public test::ModuleSchedulerTest
{
};
INSTANTIATE_SCHEDULERS(BlockMapUsers);

TEST_F(BlockMaps, OneBlockTakesOneByteOfOnePage)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(1, nullptr, 1), 0);
        EXPECT_EQ(map.pages, 1u);
        EXPECT_EQ(map->size, 1u);
        EXPECT_EQ(map->numBytes, 1u);
        EXPECT_EQ(map.byte(0), 0x00);
        EXPECT_EQ(atomic_read(&map->users), 1);
        EXPECT_EQ(down_trylock(&map->sem), 0);
        EXPECT_EQ(down_trylock(&map->sem), 1);
        up(&map->sem);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(BlockMaps, OneBlockOfUserDataReadsOneByte)
{
    withModule([](ModuleRun &run) {
        std::uint32_t address = run.process().allocateBeforeHole(1);
        *run.process().pointer<std::uint8_t>(address) = 0x5a;
        Map map;
        ASSERT_EQ(map.create(1, ModuleRun::user<void>(address), 0), 0);
        EXPECT_EQ(map.byte(0), 0x5a);
    });
}

TEST_F(BlockMaps, ZeroFillOneMakesAnEmptyMapAndAnyOtherAFullOne)
{
    withModule([](ModuleRun &) {
        for (int fill : {1, 0, 2, -1}) {
            Map map;
            ASSERT_EQ(map.create(100, nullptr, fill), 0);
            for (unsigned i = 0; i < 13; i++)
                EXPECT_EQ(map.byte(i), fill == 1 ? 0x00 : 0xff) << fill;
            EXPECT_EQ(blockInMap(map, 99), fill == 1 ? 0 : -1);
        }
    });
}

TEST_F(BlockMaps, APageHolds32768Blocks)
{
    withModule([](ModuleRun &run) {
        Map one;
        ASSERT_EQ(one.create(32768, nullptr, 1), 0);
        EXPECT_EQ(one.pages, 1u);
        EXPECT_EQ(one->numBytes, 4096u);

        // The second page's share is one byte: the next one is no memory of the process.
        std::uint32_t address = run.process().allocateBeforeHole(4097);
        std::memset(run.process().pointer<void>(address), 0x11, 4096);
        run.process().pointer<std::uint8_t>(address)[4096] = 0x22;
        Map two;
        ASSERT_EQ(two.create(32769, ModuleRun::user<void>(address), 0), 0);
        EXPECT_EQ(two.pages, 2u);
        EXPECT_EQ(two->numBytes, 4097u);
        EXPECT_EQ(two.byte(4095), 0x11);
        EXPECT_EQ(two.byte(4096), 0x22);
    });
}

TEST_F(BlockMaps, PageCountsWrapWhereSizesAreTooLarge)
{
    EXPECT_EQ(numPagesInBlockMap(1), 1u);
    EXPECT_EQ(numPagesInBlockMap(32768), 1u);
    EXPECT_EQ(numPagesInBlockMap(32769), 2u);
    EXPECT_EQ(numPagesInBlockMap(largestSize), 131072u);
    EXPECT_EQ(numPagesInBlockMap(largestSize + 1), 0u);
    EXPECT_EQ(numPagesInBlockMap(0), 0u);
}

TEST_F(BlockMaps, SizesWithoutBytesAreRefusedAndLeaveTheRecordAlone)
{
    withModule([](ModuleRun &) {
        for (u32 size : {0u, largestSize + 1, 0xffffffffu}) {
            Map map;
            ASSERT_EQ(map.create(40, nullptr, 0), 0);
            map.pages = 777;
            EXPECT_EQ(map.create(size, nullptr, 1), 2);
            EXPECT_EQ(map.pages, 777u);
            EXPECT_EQ(map->size, 40u);
            EXPECT_EQ(blockInMap(map, 39), -1);
            EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: block size size=" + std::to_string(size) +
                                        " invalid\n"}));
        }
    });
}

TEST_F(BlockMaps, TheLargestSizeAsksForItsWholePageArray)
{
    withModule([](ModuleRun &) {
        host::failNth(host::Fault::vmalloc, 1);
        Map map;
        EXPECT_EQ(map.create(largestSize, nullptr, 1), 5);
        EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating (" +
                                    std::to_string(131072 * sizeof(void *)) +
                                    ") bytes of memory for block map page array\n"}));
        EXPECT_EQ(map.pages, 777u);
        EXPECT_EQ(map->map, nullptr);
        EXPECT_EQ(map->size, 0u);
        EXPECT_EQ(host::memoryUse().pages, 0u);
    });
}

TEST_F(BlockMaps, AFailedPageReleasesThoseBeforeIt)
{
    withModule([](ModuleRun &) {
        for (unsigned n = 1; n <= 3; n++) {
            host::clearFaults();
            host::failNth(host::Fault::page, n);
            Map map;
            EXPECT_EQ(map.create(3 * 32768, nullptr, 1), 5);
            EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating page number (" +
                                            std::to_string(n - 1) + ") for block map\n",
                                        "<3>newBlockMap: Out of Memory Error.\n"}));
            EXPECT_EQ(map.pages, 777u);
            EXPECT_EQ(map->map, nullptr);
            EXPECT_EQ(map->size, 0u);
            EXPECT_EQ(host::memoryUse().pages, 0u);
            EXPECT_EQ(host::memoryUse().vmallocs, 0u);
            EXPECT_EQ(setBlock(map, 1), 1);
        }
    });
}

TEST_F(BlockMaps, AFaultInTheFourthUserPageReleasesAll)
{
    withModule([](ModuleRun &run) {
        std::uint32_t address = run.process().allocateBeforeHole(3 * page);
        std::memset(run.process().pointer<void>(address), 0xff, 3 * page);
        Map map;
        EXPECT_EQ(map.create(5 * 32768, ModuleRun::user<void>(address), 0), 6);
        EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: copy to user space failed data=" +
                                        test::pointerText(address + 3 * page) +
                                        " bytesCopied=4096 bytesInMap=20480\n",
                                    "<3>newBlockMap: Out of Memory Error.\n"}));
        EXPECT_EQ(map.pages, 777u);
        EXPECT_EQ(map->map, nullptr);
        EXPECT_EQ(host::memoryUse().pages, 0u);
        EXPECT_EQ(host::memoryUse().kmaps, 0u);
    });
}

TEST_F(BlockMaps, TheCountInTheMessageIsTheLastPagesShare)
{
    withModule([](ModuleRun &) {
        Map map;
        auto *bad = ModuleRun::user<void>(host::Process::badAddress);
        EXPECT_EQ(map.create(800, bad, 0), 6);
        EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: copy to user space failed data=" +
                                        test::pointerText(host::Process::badAddress) +
                                        " bytesCopied=100 bytesInMap=100\n",
                                    "<3>newBlockMap: Out of Memory Error.\n"}));
    });
}

TEST_F(BlockMaps, BlocksBeyondTheMapAreToldEachInItsWay)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(1000, nullptr, 0), 0);
        EXPECT_EQ(setBlock(map, 1000), 1000);
        EXPECT_EQ(unSetBlock(map, 1000), 1);
        EXPECT_EQ(blockInMap(map, 1000), 0);
        EXPECT_EQ(setBlock(map, 0xffffffff), -1);
        EXPECT_EQ(setBlock(map, 999), 0);
        EXPECT_EQ(blockInMap(map, 999), -1);
        EXPECT_EQ(unSetBlock(map, 999), 0);
        EXPECT_EQ(blockInMap(map, 999), 0);
        EXPECT_EQ(atomic_read(&map->users), 1);
    });
}

TEST_F(BlockMaps, BitsLieWhereUserSpaceExpectsThem)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(40000, nullptr, 1), 0);
        EXPECT_EQ(setBlock(map, 9), 0);
        EXPECT_EQ(map.byte(1), 0x02);
        EXPECT_EQ(setBlock(map, 39), 0);
        EXPECT_EQ(map.byte(4), 0x80);
        EXPECT_EQ(setBlock(map, 32767), 0);
        EXPECT_EQ(map.byte(4095), 0x80);
        EXPECT_EQ(setBlock(map, 32768), 0);
        EXPECT_EQ(host::pageBytes(map->map[1])[0], 0x01);
        EXPECT_EQ(unSetBlock(map, 9), 0);
        EXPECT_EQ(map.byte(1), 0x00);
        EXPECT_EQ(map.byte(4), 0x80);
    });
}

TEST_F(BlockMaps, ARangeIsSetOverAllItsPagesAndUpToTheMapsEnd)
{
    withModule([](ModuleRun &) {
        constexpr unsigned size = 2 * 32768 + 10;
        for (BlockRange range : {BlockRange{0, 0}, BlockRange{5, 4}, BlockRange{32760, 32767},
                                 BlockRange{32768, 32768}, BlockRange{32767, 65536},
                                 BlockRange{65540, size - 1}, BlockRange{65540, size},
                                 BlockRange{size, size + 3}, BlockRange{size + 2, 0xffffffff}}) {
            Map map;
            ASSERT_EQ(map.create(size, nullptr, 1), 0);
            u64 end = u64{range.endBN} + 1;
            u64 beyond = range.startBN < size ? std::min<u64>(end, size) : range.startBN;
            EXPECT_EQ(setBlocks(map, range), beyond) << range.startBN;
            for (unsigned bn = 0; bn < size; bn++)
                ASSERT_EQ(blockInMap(map, bn), bn >= range.startBN && bn < end ? -1 : 0) << bn;
            EXPECT_EQ(atomic_read(&map->users), 1);
        }
    });
}

TEST_F(BlockMaps, AWordTellsWhichOfItsBlocksAreInTheMap)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(32768 + 40, nullptr, 0), 0);
        EXPECT_EQ(unSetBlock(map, 33), 0);
        EXPECT_EQ(unSetBlock(map, 32768 + 32), 0);
        EXPECT_EQ(blocksInMap(map, 0), 0xffffffffu);
        EXPECT_EQ(blocksInMap(map, 1), 0xfffffffdu);
        EXPECT_EQ(blocksInMap(map, 1024), 0xffffffffu);
        EXPECT_EQ(blocksInMap(map, 1025), 0xfeu);
        EXPECT_EQ(blocksInMap(map, 1026), 0u);
        EXPECT_EQ(blocksInMap(map, 0x07ffffff), 0u);
        EXPECT_EQ(atomic_read(&map->users), 1);
    });
}

TEST_F(BlockMaps, AWordHasItsPartOfARange)
{
    for (unsigned start = 0; start < 100; start++)
        for (unsigned end = start == 0 ? 0 : start - 1; end < 100; end++)
            for (unsigned word = start / 32; word <= end / 32; word++)
                for (unsigned bit = 0; bit < 32; bit++) {
                    unsigned bn = word * 32 + bit;
                    ASSERT_EQ(blocksInRange({start, end}, word) >> bit & 1,
                              bn >= start && bn <= end ? 1u : 0u)
                        << start << " " << end << " " << bn;
                }
    EXPECT_EQ(blocksInRange({0, 0xffffffff}, 0x07ffffff), 0xffffffffu);
}

TEST_F(BlockMaps, AClosedMapIsEmpty)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(40000, nullptr, 0), 0);
        unsigned freed = 777;
        closeBlockMap(map, &freed);
        EXPECT_EQ(freed, 2u);
        EXPECT_EQ(map->map, nullptr);
        EXPECT_EQ(map->size, 0u);
        EXPECT_EQ(map->numBytes, 5000u);
        EXPECT_EQ(setBlock(map, 5), 5);
        EXPECT_EQ(unSetBlock(map, 5), 1);
        EXPECT_EQ(blockInMap(map, 5), 0);
        EXPECT_EQ(setBlock(map, 0), 0); // its own number: no different from success
        EXPECT_EQ(host::memoryUse().pages, 0u);
        EXPECT_EQ(host::memoryUse().vmallocs, 0u);
        freed = 777;
        closeBlockMap(map, &freed);
        EXPECT_EQ(freed, 777u);
    });
}

TEST_F(BlockMaps, MemoryIsOneBitABlockInHighPagesAndOnePointerAPage)
{
    withModule([](ModuleRun &) {
        Map map;
        host::MemoryUse before = host::memoryUse();
        ASSERT_EQ(map.create(10 * 32768, nullptr, 1), 0);
        host::MemoryUse use = host::memoryUse();
        EXPECT_EQ(use.pages - before.pages, 10u);
        EXPECT_EQ(use.highPages, 10u);
        EXPECT_EQ(use.vmallocs, 1u);
        EXPECT_EQ(use.kmallocs, before.kmallocs);
        EXPECT_EQ(use.kmaps, 0u);
        EXPECT_EQ(setBlock(map, 70000), 0);
        EXPECT_EQ(blockInMap(map, 70000), -1);
        EXPECT_EQ(host::memoryUse().kmaps, 0u);
    });
}

TEST_F(BlockMaps, ReleasingABackupsMapTakesItsPagesOffTheCount)
{
    withModule([](ModuleRun &) {
        test::OpenRecord record;
        unsigned pages = 0;
        ASSERT_EQ(newBlockMap(&record->blockMap, 40000, nullptr, 1, &pages), 0);
        atomic_set(&record->curAllocPages, 7);
        releaseBackupMap(record.get(), &record->blockMap);
        EXPECT_EQ(atomic_read(&record->curAllocPages), 5);
        EXPECT_EQ(host::memoryUse().pages, 0u);
        releaseBackupMap(record.get(), &record->blockMap);
        EXPECT_EQ(atomic_read(&record->curAllocPages), 5);
    });
}

TEST_P(BlockMapUsers, BitsSetAtOnceAreAllThere)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(64, nullptr, 1), 0);
        std::vector<host::Task> tasks;
        for (unsigned first = 0; first < 4; first++) {
            tasks.push_back(host::spawn("setter", [&map, first] {
                for (unsigned bn = first; bn < 64; bn += 4)
                    EXPECT_EQ(setBlock(map, bn), 0);
            }));
        }
        for (host::Task &task : tasks)
            task.join();
        for (unsigned i = 0; i < 8; i++)
            EXPECT_EQ(map.byte(i), 0xff);
        EXPECT_EQ(atomic_read(&map->users), 1);
    });
}

TEST_P(BlockMapUsers, WhoeverChangesABitIsInside)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(64, nullptr, 1), 0);
        for (int (*operation)(BlockMap *, unsigned) : {setBlock, unSetBlock, blockInMap}) {
            down(&map->sem);
            host::Task task = host::spawn("task", [&] { operation(map, 3); });
            EXPECT_TRUE(test::fallsAsleep(task));
            EXPECT_EQ(atomic_read(&map->users), 2);
            up(&map->sem);
            task.join();
            EXPECT_EQ(atomic_read(&map->users), 1);
        }
    });
}

TEST_P(BlockMapUsers, TheWriterWaitsForThoseInsideAndKeepsOthersOut)
{
    withModule([](ModuleRun &) {
        Map map;
        ASSERT_EQ(map.create(64, nullptr, 1), 0);
        unsigned long entry = spin_lock_irqsave(&map->usersLock);
        atomic_inc(&map->users);
        spin_unlock_irqrestore(&map->usersLock, entry);
        std::atomic<bool> inside{false};
        host::Task writer = host::spawn("writer", [&] {
            unsigned long flags;
            waitForBlockMapUsers(map, &flags);
            inside = true;
            EXPECT_EQ(atomic_read(&map->users), 1);
            EXPECT_EQ(host::pageBytes(map->map[0])[0], 0x04);
            spin_unlock_irqrestore(&map->usersLock, flags);
        });
        host::sleepNanoseconds(2'000'000);
        EXPECT_FALSE(inside);
        EXPECT_EQ(setBlock(map, 2), 0); // a waiting writer keeps nobody out
        smp_mb();
        atomic_dec(&map->users);
        writer.join();
        EXPECT_TRUE(inside);
        EXPECT_EQ(setBlock(map, 3), 0);
    });
}

} // namespace
