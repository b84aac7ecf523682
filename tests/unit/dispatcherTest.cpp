// The command dispatcher, by what a process gets for each command number.
#include <cstring>

#include <host/block.h>
#include <host/faults.h>
#include <host/process.h>

#include "support/agent.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

constexpr std::uint32_t bad = host::Process::badAddress;

struct CommandSize {
    unsigned number;
    std::size_t bytes;
};
constexpr CommandSize recordCommands[] = {{0x40102a00, 16}, {0x40102a01, 16}, {0x40082a02, 8},
                                          {0x40082a03, 8},  {0x40082a04, 8},  {0x40082a07, 8},
                                          {0x40082a08, 8},  {0x40042a09, 4},  {0x400c2a0a, 12}};

class Dispatcher : public test::ModuleTest
{
};

TEST_F(Dispatcher, RecordsThatCannotBeReadAnswer6WithoutAWord)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        for (const CommandSize &command : recordCommands) {
            EXPECT_EQ(record.ioctl(command.number, bad), 6) << std::hex << command.number;
            EXPECT_EQ(backupState(record.get()), 0u);
        }
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(Dispatcher, RecordsAreReadWholeAndNoFurther)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        for (const CommandSize &command : recordCommands) {
            std::uint32_t cut = run.process().allocateBeforeHole(command.bytes - 1);
            EXPECT_EQ(record.ioctl(command.number, cut), 6) << std::hex << command.number;
            std::uint32_t whole = run.process().allocateBeforeHole(command.bytes);
            if (command.number == 0x40082a07 || command.number == 0x40082a08) {
                UserBlockMap map{};
                std::uint32_t pointer = run.put(&map, sizeof(map));
                std::memcpy(run.process().pointer<void>(whole), &pointer, sizeof(pointer));
            }
            EXPECT_NE(record.ioctl(command.number, whole), 6) << std::hex << command.number;
        }
    });
}

TEST_F(Dispatcher, TheBlockMapBehindARecordMustBeReadableToo)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        for (unsigned command : {0x40082a07u, 0x40082a08u}) {
            LoadBlockMap toNowhere{bad, sizeof(UserBlockMap)};
            EXPECT_EQ(record.ioctl(command, run.put(&toNowhere, sizeof(toNowhere))), 6);
            LoadBlockMap toCut{run.process().allocateBeforeHole(7), sizeof(UserBlockMap)};
            EXPECT_EQ(record.ioctl(command, run.put(&toCut, sizeof(toCut))), 6);
            EXPECT_EQ(takeLog(), Lines());
            // Its `len` is not looked at.
            LoadBlockMap toWhole{run.process().allocateBeforeHole(8), 0};
            EXPECT_EQ(record.ioctl(command, run.put(&toWhole, sizeof(toWhole))), 2);
            EXPECT_EQ(takeLog().size(), 1u);
        }
    });
}

TEST_F(Dispatcher, EachNumberReachesItsHandler)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        std::uint32_t memory = run.process().allocate(256);

        GetBlockSize size{77, 5, memory, 16};
        EXPECT_EQ(record.ioctl(0x40102a00, run.put(&size, sizeof(size))), 8);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=77 minor=5 not found, getting "
                                    "super block failed\n"}));

        SnapShot snap{memory, 56};
        EXPECT_EQ(record.ioctl(0x40082a02, run.put(&snap, sizeof(snap))), 2);
        EXPECT_EQ(takeLog(), Lines());

        GetState state{memory, 20};
        std::memset(run.process().pointer<void>(memory), 0xff, 256);
        EXPECT_EQ(record.ioctl(0x40082a03, run.put(&state, sizeof(state))), 0);
        EXPECT_EQ(run.process().pointer<u32>(memory)[4], 0u);
        EXPECT_EQ(run.process().pointer<u32>(memory)[5], 0xffffffffu);

        GetAutoMapState ams{memory, 76};
        std::memset(run.process().pointer<void>(memory), 0xff, 256);
        EXPECT_EQ(record.ioctl(0x40082a04, run.put(&ams, sizeof(ams))), 0);
        EXPECT_EQ(run.process().pointer<u32>(memory)[18], 0u);
        EXPECT_EQ(run.process().pointer<u32>(memory)[19], 0xffffffffu);

        EXPECT_EQ(record->noLoadFromAutoMap, 0);
        EXPECT_EQ(record.ioctl(0x2a05, bad), 0);
        EXPECT_EQ(record->noLoadFromAutoMap, 1);
        EXPECT_EQ(record->noStartAutoMap, 0);
        EXPECT_EQ(record.ioctl(0x2a06, bad), 0);
        EXPECT_EQ(record->noStartAutoMap, 1);

        LoadBlockMap map{memory, 8};
        EXPECT_EQ(record.ioctl(0x40082a07, run.put(&map, sizeof(map))), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: backup error snapshot not complete\n"}));
        EXPECT_EQ(record.ioctl(0x40082a08, run.put(&map, sizeof(map))), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error map not loaded \n"}));

        DirtyBlock dirty{memory};
        EXPECT_EQ(record.ioctl(0x40042a09, run.put(&dirty, sizeof(dirty))), 2);
        EXPECT_EQ(takeLog(), Lines());

        ReadBlocks read{0, 1, memory};
        EXPECT_EQ(record.ioctl(0x400c2a0a, run.put(&read, sizeof(read))), 2);
        EXPECT_EQ(takeLog().size(), 1u);

        StartBackup start{77, 6, 11, 22};
        EXPECT_EQ(record.ioctl(0x40102a01, run.put(&start, sizeof(start))), 8);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=77 minor=6 not found, getting "
                                    "super block failed\n"}));
        EXPECT_EQ(record->maxCacheBlocks, 22u);
        EXPECT_EQ(record->diskInfo.numBlocks, 11u);
    });
}

TEST_F(Dispatcher, TheLengthOfAnAnswerIsPassedOn)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        BlockSize size;
        std::memset(&size, 0xee, sizeof(size));
        EXPECT_EQ(agent.getBlockSize(disk.device(), &size, 8), 0);
        EXPECT_EQ(size.major, disk.major());
        EXPECT_EQ(size.minor, disk.minor());
        EXPECT_EQ(size.blockSize, static_cast<std::int32_t>(0xeeeeeeee));
        EXPECT_EQ(agent.getBlockSize(disk.device(), &size, sizeof(size)), 0);
        EXPECT_EQ(size.blockSize, 4096);
    });
}

TEST_F(Dispatcher, VersionCommandsWriteFourBytes)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        std::uint32_t address = run.process().allocateBeforeHole(4);
        auto *value = run.process().pointer<std::int32_t>(address);
        EXPECT_EQ(record.ioctl(0x40042a0c, address), 0);
        EXPECT_EQ(*value, 3);
        EXPECT_EQ(record.ioctl(0x40042a0d, address), 0);
        EXPECT_EQ(*value, 1);
        EXPECT_EQ(takeLog(), Lines());
        for (unsigned command : {0x40042a0cu, 0x40042a0du}) {
            EXPECT_EQ(record.ioctl(command, bad), 7);
            EXPECT_EQ(takeLog(), (Lines{"<3>zelIOCTL: copy to user space failed\n"}));
        }
    });
}

TEST_F(Dispatcher, TheReservedCommandAnswers3WhateverItsArgument)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        EXPECT_EQ(record.ioctl(0x40042a10, bad), 3);
        EXPECT_EQ(record.ioctl(0x40042a10, 0), 3);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(Dispatcher, SyncAndShutdownIgnoreTheirArgument)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        EXPECT_EQ(record.ioctl(0x40042a0e, bad), 0);
        EXPECT_EQ(record.ioctl(0x40042a0f, bad), 0);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(Dispatcher, UnknownNumbersAnswer4AndSaySo)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        std::uint32_t memory = run.process().allocate(256);
        // The undefined number 11, those past the last, and known numbers with another size, type
        // or direction.
        for (unsigned command : {0x40042a0bu, 0x2a0bu, 0x40042a11u, 0u, 0xffffffffu, 0x40142a00u,
                                 0x40082a05u, 0x40042b0cu, 0x80042a0cu, 0x2a0fu}) {
            EXPECT_EQ(record.ioctl(command, memory), 4) << std::hex << command;
            EXPECT_EQ(takeLog(), (Lines{"<3>zelIOCTL: ioctl command not found\n"}));
        }
    });
}

TEST_F(Dispatcher, EveryCommandThatGetsInIsCounted)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        EXPECT_EQ(atomic_read(&record->ioctlCount), 0);
        record.ioctl(0x40042a10);
        EXPECT_EQ(atomic_read(&record->ioctlCount), 1);
        record.ioctl(0x40042a0b);
        EXPECT_EQ(atomic_read(&record->ioctlCount), 2);
        record.ioctl(0x40102a01, bad);
        EXPECT_EQ(atomic_read(&record->ioctlCount), 3);
        record.ioctl(0x40042a0c, run.process().allocate(4));
        EXPECT_EQ(atomic_read(&record->ioctlCount), 4);
    });
}

TEST_F(Dispatcher, NothingWorksBeforeTheDeviceIsRegistered)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        atomic_set(&initDone, 0);
        for (unsigned command : {0x40042a10u, 0x40042a0bu, 0x2a05u, 0x40042a0fu})
            EXPECT_EQ(record.ioctl(command), 1);
        EXPECT_EQ(atomic_read(&record->ioctlCount), 0);
        EXPECT_EQ(takeLog(), Lines());
        atomic_set(&initDone, 1);
    });
}

TEST_F(Dispatcher, AFileWithoutARecordAnswers2)
{
    withModule([](ModuleRun &) {
        struct file file;
        EXPECT_EQ(zelIOCTL(nullptr, &file, 0x40042a10, 0), 2);
        EXPECT_EQ(zelIOCTL(nullptr, &file, 0x40042a0b, 0), 2);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(Dispatcher, ResultsOfHandlersAreReturnedAsTheyAre)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        host::failNth(host::Fault::kernelThread, 1);
        // A negative one: what kernel_thread said.
        EXPECT_LT(agent.startBackup(disk.device(), disk.blocks(), 1), 0);
        EXPECT_EQ(agent.startBackup(disk.device(), disk.blocks(), 1), 9);
        agent.close();
    });
}

TEST_F(Dispatcher, AMinorOf2To20SpillsIntoTheMajor)
{
    withModule([](ModuleRun &run) {
        OpenRecord record;
        GetBlockSize query{76, (1u << 20) + 5, run.process().allocate(16), 16};
        EXPECT_EQ(record.ioctl(ZEL_GET_BLOCK_SIZE, run.put(&query, sizeof(query))), 8);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=77 minor=5 not found, getting "
                                    "super block failed\n"}));
        StartBackup start{64, (13u << 20) + 6, 1, 1};
        EXPECT_EQ(record.ioctl(ZEL_START_BACKUP, run.put(&start, sizeof(start))), 8);
        EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=77 minor=6 not found, getting "
                                    "super block failed\n"}));
    });
}

} // namespace
