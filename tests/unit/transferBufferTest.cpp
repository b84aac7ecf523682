// The transfer buffer: its mappings, their pages and the faults that bring them in.
#include <cstring>

#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>

#include "support/agent.h"
#include "support/moduleTest.h"
#include "support/testDisk.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::takeLog;

constexpr std::size_t page = PAGE_SIZE;

// A started backup of 4096-byte blocks: mappings of up to 256 pages.
class Started
{
public:
    explicit Started(unsigned blockSize = 4096, unsigned mebibytes = 8)
        : disk({.mebibytes = mebibytes, .blockSizes = {blockSize}})
    {
        EXPECT_EQ(agent.startBackup(disk.device(), disk.blocks(), 100), 0);
        b = loadActiveSession();
        takeLog();
    }
    int map(std::size_t pages, std::uint32_t *address)
    {
        return agent.mapBuffer(pages * page, address);
    }
    int curPages() const { return atomic_read(&b->curAllocPages); }
    int totalPages() const { return atomic_read(&b->totalAllocPages); }

    test::TestDisk disk;
    test::Agent agent;
    Backup *b = nullptr;
};

class TransferBuffer : public test::ModuleTest
{
};

TEST_F(TransferBuffer, AMappingHasPagesOfItsOwnFromTheStart)
{
    withModule([](ModuleRun &) {
        Started backup;
        int cur = backup.curPages();
        int total = backup.totalPages();
        unsigned held = host::memoryUse().pages;
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(7, &address), 0);
        EXPECT_EQ(backup.curPages(), cur + 7);
        EXPECT_EQ(backup.totalPages(), total + 7);
        EXPECT_EQ(host::memoryUse().pages, held + 7);
        EXPECT_EQ(host::memoryUse().highPages, 1u); // the cache map's only
        EXPECT_EQ(backup.b->vmAreas[0].vmPages, 7);
        ASSERT_NE(backup.b->vmAreas[0].vma, nullptr);
        EXPECT_EQ(backup.b->vmAreas[0].vma->operations, &zelVMOps);
        for (int i = 0; i < 7; i++)
            EXPECT_NE(backup.b->vmAreas[0].mmPages[i], nullptr);
        EXPECT_EQ(backup.b->vmAreas[0].mmPages[7], nullptr);
        EXPECT_EQ(backup.b->vmAreas[1].vma, nullptr);
    });
}

TEST_F(TransferBuffer, TheAgentSeesThePagesOfItsMapping)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(3, &address), 0);
        for (int i = 0; i < 3; i++)
            std::memset(host::pageBytes(backup.b->vmAreas[0].mmPages[i]), 0x10 + i, page);
        const unsigned char *bytes = backup.agent.buffer(address, 3 * page);
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(bytes[0], 0x10);
        EXPECT_EQ(bytes[page], 0x11);
        EXPECT_EQ(bytes[3 * page - 1], 0x12);
        EXPECT_EQ(host::userMappings(backup.b->vmAreas[0].mmPages[1]), 1u);
    });
}

TEST_F(TransferBuffer, OnlyPrivateReadOnlyMappingsAreAccepted)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t address = 0;
        host::Process &process = backup.agent.process();
        EXPECT_EQ(process.mmap(backup.agent.fd(), page, true, false, 0, &address), 2);
        EXPECT_EQ(process.mmap(backup.agent.fd(), page, false, true, 0, &address), 2);
        EXPECT_EQ(process.mmap(backup.agent.fd(), page, true, true, 0, &address), 2);
        EXPECT_EQ(backup.b->vmAreas[0].vma, nullptr);
        EXPECT_EQ(process.mmap(backup.agent.fd(), page, false, false, 0, &address), 0);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(TransferBuffer, ProtectionIsRefusedBeforeAnyLock)
{
    withModule([](ModuleRun &) {
        Started backup;
        struct file file;
        file.privateData = backup.b;
        struct vm_area_struct vma;
        vma.start = 0x10000;
        vma.end = 0x11000;
        vma.file = &file;
        down(&backup.b->bSem);
        for (unsigned long flags : {0ul, 2ul, 3ul, 9ul, 11ul, 8ul}) {
            vma.flags = flags;
            EXPECT_EQ(zelMMAP(&file, &vma), 2) << flags;
        }
        up(&backup.b->bSem);
    });
}

TEST_F(TransferBuffer, AFileWithoutARecordIsRefused)
{
    withModule([](ModuleRun &) {
        struct file file;
        struct vm_area_struct vma;
        vma.end = page;
        vma.flags = VM_READ;
        EXPECT_EQ(zelMMAP(&file, &vma), 2);
        EXPECT_EQ(vma.operations, nullptr);
    });
}

TEST_F(TransferBuffer, ItTakesAStartedBackup)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent agent;
        std::uint32_t address = 0;
        EXPECT_EQ(agent.mapBuffer(page, &address), 2);
        // A start that fails half-way leaves state 1.
        host::failNth(host::Fault::cacheCreate, 1);
        EXPECT_EQ(agent.startBackup(disk.device(), disk.blocks(), 1), 5);
        State state{};
        EXPECT_EQ(agent.getState(&state), 0);
        EXPECT_EQ(state.state, 1u);
        EXPECT_EQ(agent.mapBuffer(page, &address), 2);
    });
}

TEST_F(TransferBuffer, ASpoiltBackupCanStillBeMapped)
{
    withModule([](ModuleRun &) {
        Started backup;
        for (unsigned state : {BACKUP_SNAPPED, BACKUP_MAP_LOADED, BACKUP_ERR_READ, BACKUP_ERR_MAP,
                               BACKUP_ERR_CACHE, BACKUP_REJECTED, BACKUP_ERR_QUEUE}) {
            setBackupState(backup.b, state);
            std::uint32_t address = 0;
            EXPECT_EQ(backup.map(1, &address), 0) << state;
            EXPECT_EQ(backup.agent.unmapBuffer(address), 0) << state;
        }
        setBackupState(backup.b, BACKUP_STARTED);
    });
}

TEST_F(TransferBuffer, OnlyOffsetZeroIsAccepted)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t address = 0;
        EXPECT_EQ(backup.agent.process().mmap(backup.agent.fd(), page, false, false, 1, &address),
                  2);
        EXPECT_EQ(backup.b->vmAreas[0].vma, nullptr);
    });
}

TEST_F(TransferBuffer, TheLargestMappingTakes256Blocks)
{
    withModule([](ModuleRun &) {
        for (auto [blockSize, pages] : {std::pair{1024u, 64}, {2048u, 128}, {4096u, 256}}) {
            Started backup(blockSize);
            EXPECT_EQ(backup.b->maxVMPages, pages);
            std::uint32_t address = 0;
            int cur = backup.curPages();
            EXPECT_EQ(backup.map(pages + 1, &address), 2);
            EXPECT_EQ(backup.curPages(), cur);
            EXPECT_EQ(backup.map(pages, &address), 0);
            EXPECT_EQ(backup.curPages(), cur + pages);
            EXPECT_NE(backup.agent.buffer(address, pages * page), nullptr);
        }
    });
}

TEST_F(TransferBuffer, AnEmptyMappingIsRefused)
{
    withModule([](ModuleRun &) {
        Started backup;
        struct file file;
        file.privateData = backup.b;
        struct vm_area_struct vma;
        vma.start = 0x10000;
        vma.end = 0x10fff;
        vma.flags = VM_READ;
        vma.file = &file;
        EXPECT_EQ(zelMMAP(&file, &vma), 2);
        EXPECT_EQ(backup.b->vmAreas[0].vma, nullptr);
        EXPECT_EQ(backup.b->vmAreas[0].vmPages, 0);
    });
}

TEST_F(TransferBuffer, ThereAreTwoMappingsAndTheFirstFreeSlotIsTaken)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        std::uint32_t third = 0;
        ASSERT_EQ(backup.map(1, &first), 0);
        ASSERT_EQ(backup.map(2, &second), 0);
        EXPECT_EQ(backup.map(3, &third), 2);
        EXPECT_EQ(backup.agent.unmapBuffer(second), 0);
        EXPECT_EQ(backup.agent.unmapBuffer(first), 0);
        ASSERT_EQ(backup.map(3, &third), 0);
        EXPECT_EQ(backup.b->vmAreas[0].vmPages, 3);
        ASSERT_EQ(backup.map(4, &first), 0);
        EXPECT_EQ(backup.b->vmAreas[1].vmPages, 4);
        EXPECT_EQ(backup.agent.unmapBuffer(third), 0);
        ASSERT_EQ(backup.map(5, &second), 0);
        EXPECT_EQ(backup.b->vmAreas[0].vmPages, 5);
        EXPECT_EQ(getVMAPageCount(backup.b), 9);
    });
}

TEST_F(TransferBuffer, UnmappingFreesThePagesAndTheTotalGoesOn)
{
    withModule([](ModuleRun &) {
        Started backup;
        int cur = backup.curPages();
        int total = backup.totalPages();
        unsigned held = host::memoryUse().pages;
        for (int round = 1; round <= 3; round++) {
            std::uint32_t address = 0;
            ASSERT_EQ(backup.map(10, &address), 0);
            ASSERT_NE(backup.agent.buffer(address, 10 * page), nullptr);
            EXPECT_EQ(backup.agent.unmapBuffer(address), 0);
            EXPECT_EQ(backup.curPages(), cur);
            EXPECT_EQ(backup.totalPages(), total + 10 * round);
            EXPECT_EQ(host::memoryUse().pages, held);
            EXPECT_EQ(backup.b->vmAreas[0].vma, nullptr);
            EXPECT_EQ(backup.b->vmAreas[0].vmPages, 0);
            EXPECT_EQ(backup.b->vmAreas[0].mmPages[0], nullptr);
        }
    });
}

TEST_F(TransferBuffer, AShortageOfPagesAnswers5AndLeavesTheSlotFree)
{
    withModule([](ModuleRun &) {
        Started backup;
        int cur = backup.curPages();
        unsigned held = host::memoryUse().pages;
        for (unsigned n : {1u, 3u, 5u}) {
            int total = backup.totalPages();
            host::clearFaults();
            host::failNth(host::Fault::page, n);
            std::uint32_t address = 0;
            EXPECT_EQ(backup.map(5, &address), 5);
            EXPECT_EQ(backup.curPages(), cur);
            EXPECT_EQ(backup.totalPages(), total + static_cast<int>(n) - 1);
            EXPECT_EQ(host::memoryUse().pages, held);
            EXPECT_EQ(backup.b->vmAreas[0].vma, nullptr);
            EXPECT_EQ(backup.b->vmAreas[0].vmPages, 0);
        }
        std::uint32_t address = 0;
        EXPECT_EQ(backup.map(5, &address), 0);
        EXPECT_EQ(takeLog(), Lines());

        // Nothing is to be called for a mapping that was not made.
        struct file file;
        file.privateData = backup.b;
        struct vm_area_struct vma;
        vma.end = page;
        vma.flags = VM_READ;
        vma.file = &file;
        host::clearFaults();
        host::failNth(host::Fault::page, 1);
        EXPECT_EQ(zelMMAP(&file, &vma), 5);
        EXPECT_EQ(vma.operations, nullptr);
    });
}

TEST_F(TransferBuffer, TouchingBeyondThePagesIsABusError)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(2, &address), 0);
        ASSERT_EQ(backup.agent.process().growMapping(address, 4 * page), 0);
        EXPECT_TRUE(backup.agent.process().touch(address, 2 * page));
        EXPECT_EQ(takeLog(), Lines());
        EXPECT_FALSE(backup.agent.process().touch(address + 2 * page, 1));
        EXPECT_EQ(takeLog(), (Lines{"<4>zelVMnopage: Bad vm address\n"}));
    });
}

TEST_F(TransferBuffer, FaultsTellTheKernelThePageOrTheBusError)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(2, &address), 0);
        struct vm_area_struct *vma = backup.b->vmAreas[0].vma;
        struct vm_fault fault;
        fault.virtualAddress = address + page + 17;
        EXPECT_EQ(zelVMOps.fault(vma, &fault), 0);
        EXPECT_EQ(fault.page, backup.b->vmAreas[0].mmPages[1]);
        __free_pages(fault.page, 0);
        fault.page = nullptr;
        fault.virtualAddress = address - 1;
        EXPECT_EQ(zelVMfault(vma, &fault), VM_FAULT_SIGBUS);
        EXPECT_EQ(fault.page, nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<4>zelVMnopage: Bad vm address\n"}));
    });
}

TEST_F(TransferBuffer, AMappingWithoutAFileHasNoPages)
{
    withModule([](ModuleRun &) {
        struct vm_area_struct vma;
        EXPECT_EQ(zelVMnopage(&vma, 0), nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<4>zelVMnopage: vma does not have associated backup\n"}));
        zelVMclose(&vma);
        zelVMopen(&vma);
        EXPECT_EQ(takeLog(), Lines());
    });
}

TEST_F(TransferBuffer, AnUnknownMappingShowsTheFirstOnesPages)
{
    withModule([](ModuleRun &) {
        Started backup;
        struct file file;
        file.privateData = backup.b;
        struct vm_area_struct copy;
        copy.start = 0x40000;
        copy.end = 0x42000;
        copy.file = &file;
        EXPECT_EQ(zelVMnopage(&copy, 0x41000), nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<3>zelVMnopage: vma is not found in associated backup\n"}));

        std::uint32_t first = 0;
        std::uint32_t second = 0;
        ASSERT_EQ(backup.map(2, &first), 0);
        ASSERT_EQ(backup.map(2, &second), 0);
        struct page *shown = zelVMnopage(&copy, 0x41000);
        EXPECT_EQ(shown, backup.b->vmAreas[0].mmPages[1]);
        __free_pages(shown, 0);
        EXPECT_EQ(zelVMnopage(&copy, 0x42000), nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<4>zelVMnopage: Bad vm address\n"}));
        // Its end is nobody's end.
        zelVMclose(&copy);
        EXPECT_EQ(getVMAPageCount(backup.b), 4);

        // With only the second slot in use it has nothing to show.
        EXPECT_EQ(backup.agent.unmapBuffer(first), 0);
        EXPECT_EQ(zelVMnopage(&copy, 0x41000), nullptr);
        EXPECT_EQ(takeLog(), (Lines{"<3>zelVMnopage: vma is not found in associated backup\n"}));
    });
}

TEST_F(TransferBuffer, MappingsAreFoundByRecordAndByAddress)
{
    withModule([](ModuleRun &) {
        Started backup;
        BackupVMA *found = nullptr;
        EXPECT_EQ(maxBVMAs(backup.b, &found), 0);
        EXPECT_EQ(found, &backup.b->vmAreas[0]);
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        ASSERT_EQ(backup.map(2, &first), 0);
        EXPECT_EQ(maxBVMAs(backup.b, &found), 0);
        EXPECT_EQ(found, &backup.b->vmAreas[1]);
        ASSERT_EQ(backup.map(2, &second), 0);
        EXPECT_EQ(maxBVMAs(backup.b, &found), 1);

        EXPECT_EQ(findVMA(backup.b, backup.b->vmAreas[1].vma, &found), 1);
        EXPECT_EQ(found, &backup.b->vmAreas[1]);
        EXPECT_EQ(findVMA(backup.b, backup.b->vmAreas[0].vma, &found), 1);
        EXPECT_EQ(found, &backup.b->vmAreas[0]);
        struct vm_area_struct other;
        EXPECT_EQ(findVMA(backup.b, &other, &found), 0);

        EXPECT_EQ(checkVMA(backup.b, second, &found), 1);
        EXPECT_EQ(found, &backup.b->vmAreas[1]);
        EXPECT_EQ(checkVMA(backup.b, first, &found), 1);
        EXPECT_EQ(found, &backup.b->vmAreas[0]);
        EXPECT_EQ(checkVMA(backup.b, first + page, &found), 0);
        EXPECT_EQ(checkVMA(backup.b, 0, &found), 0);
    });
}

TEST_F(TransferBuffer, BlocksLieBackToBack)
{
    withModule([](ModuleRun &) {
        for (unsigned blockSize : {1024u, 2048u, 4096u}) {
            Started backup(blockSize);
            std::uint32_t address = 0;
            ASSERT_EQ(backup.map(4, &address), 0);
            BackupVMA *bvma = &backup.b->vmAreas[0];
            for (unsigned i = 0; i < 4 * page / blockSize; i++) {
                auto *pageStart =
                    static_cast<char *>(page_address(bvma->mmPages[i * blockSize / page]));
                EXPECT_EQ(mmPageAddr(backup.b, i, bvma), pageStart + i * blockSize % page);
            }
        }
    });
}

TEST_F(TransferBuffer, FreeingEmptiesBothSlotsAndMayBeRepeated)
{
    withModule([](ModuleRun &) {
        Started backup;
        int cur = backup.curPages();
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        ASSERT_EQ(backup.map(2, &first), 0);
        ASSERT_EQ(backup.map(3, &second), 0);
        freeAllMMPages(backup.b);
        EXPECT_EQ(backup.curPages(), cur);
        EXPECT_EQ(backup.b->vmAreas[0].vmPages, 0);
        EXPECT_EQ(backup.b->vmAreas[1].vmPages, 0);
        freeAllMMPages(backup.b);
        EXPECT_EQ(backup.curPages(), cur);
        EXPECT_FALSE(backup.agent.process().touch(first, 1));
        EXPECT_EQ(takeLog(), (Lines{"<4>zelVMnopage: Bad vm address\n"}));
    });
}

TEST_F(TransferBuffer, AMappingKeepsItsFileOpen)
{
    withModule([](ModuleRun &) {
        Started backup;
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(2, &address), 0);
        backup.agent.close();
        EXPECT_EQ(loadActiveSession(), backup.b);
        EXPECT_NE(backup.agent.buffer(address, 2 * page), nullptr);
        EXPECT_EQ(backup.agent.unmapBuffer(address), 0);
        EXPECT_EQ(loadActiveSession(), nullptr);
        EXPECT_EQ(host::countLog("backup finished"), 1u);
    });
}

// The pages that a read is filling are not given back under it.
TEST_F(TransferBuffer, UnmappingWaitsForAReadIntoTheMapping)
{
    withModule([](ModuleRun &) {
        Started backup;
        ASSERT_EQ(backup.agent.snapShot(), 0);
        ASSERT_EQ(backup.agent.loadBlockMap(backup.disk.blocks()), 0);
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(4, &address), 0);
        unsigned held = host::memoryUse().pages;
        backup.disk.disk().hold();
        host::TaskOptions inAgent{.name = "thread", .process = &backup.agent.process()};
        host::Task reading =
            host::spawn([&] { EXPECT_EQ(backup.agent.readBlocks(0, 4, address), 0); }, inAgent);
        while (backup.disk.disk().heldCount() < 4)
            host::sleepNanoseconds(100'000);
        host::Task unmapping =
            host::spawn([&] { EXPECT_EQ(backup.agent.unmapBuffer(address), 0); }, inAgent);
        host::sleepNanoseconds(2'000'000);
        EXPECT_FALSE(unmapping.ended());
        EXPECT_EQ(host::memoryUse().pages, held);
        backup.disk.disk().release();
        reading.join();
        unmapping.join();
        EXPECT_EQ(getVMAPageCount(backup.b), 0);
    });
}

// Of the first slot too, which faults of a duplicated mapping look into.
TEST_F(TransferBuffer, AFaultDuringAnUnmapGetsAPageOrNone)
{
    forSeeds(20, [this](ModuleRun &) {
        Started backup(4096, 1);
        std::uint32_t address = 0;
        ASSERT_EQ(backup.map(1, &address), 0);
        struct file file;
        file.privateData = backup.b;
        struct vm_area_struct copy;
        copy.start = 0x40000;
        copy.end = 0x41000;
        copy.file = &file;
        std::vector<host::Task> tasks;
        for (int i = 0; i < 3; i++) {
            tasks.push_back(host::spawn("faulting", [&] {
                while (struct page *shown = zelVMnopage(&copy, 0x40000))
                    __free_pages(shown, 0);
            }));
        }
        host::sleepNanoseconds(1000 * (1 + host::randomNumber() % 20));
        EXPECT_EQ(backup.agent.unmapBuffer(address), 0);
        for (host::Task &task : tasks)
            task.join();
        EXPECT_EQ(kernel().violations(), Lines());
    });
}

} // namespace
