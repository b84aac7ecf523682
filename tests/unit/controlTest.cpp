// Loading and unloading, and the files of the control device.
#include <host/faults.h>
#include <host/log.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"

namespace
{

using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::takeLog;

class Control : public test::ModuleTest
{
};

TEST_F(Control, LoadingAndUnloadingSayWhatTheyDo)
{
    inKernel([] {
        test::LoadedModule module;
        EXPECT_EQ(takeLog(), (Lines{"<6>zelInit: zelmod version 3.1.0 build 9504 loaded\n"}));
        EXPECT_EQ(atomic_read(&initDone), 1);
        EXPECT_EQ(host::registeredDevices(), (Lines{"120 (zelmod)"}));
        EXPECT_EQ(module.unload(), 0);
        EXPECT_EQ(takeLog(),
                  (Lines{"<6>zelUnload: zelmod version 3.1.0 build 9504 ready to be unloaded\n",
                         "<6>zelExit: zelmod version 3.1.0 build 9504 exiting\n"}));
        EXPECT_EQ(host::registeredDevices(), Lines());
    });
}

TEST_F(Control, TheWakeUpSemaphoreStartsWithOneCount)
{
    withModule([](ModuleRun &) {
        EXPECT_EQ(down_trylock(&signalThread), 0);
        EXPECT_EQ(down_trylock(&signalThread), 1);
        up(&signalThread);
    });
}

TEST_F(Control, AFailedRegistrationFailsTheLoad)
{
    inKernel([] {
        host::failNth(host::Fault::registerDevice, 1);
        test::LoadedModule module(-KERNEL_ENOMEM);
        EXPECT_EQ(takeLog(), (Lines{"<6>zelInit: zelmod version 3.1.0 build 9504 load FAILED\n"}));
        EXPECT_FALSE(host::moduleLoaded());
        host::Process process("agent");
        EXPECT_EQ(process.open("/dev/zelmod"), -KERNEL_ENXIO);
    });
}

int initWithLeftovers()
{
    amList[8][1] = reinterpret_cast<AutoMapSession *>(&amList);
    amList[255][255] = reinterpret_cast<AutoMapSession *>(&amList);
    return zelInit();
}

TEST_F(Control, AFailedRegistrationClearsTheSessionTable)
{
    inKernel([] {
        host::ModuleImage image = test::zelmodImage();
        image.init = initWithLeftovers;
        host::failNth(host::Fault::registerDevice, 1);
        test::LoadedModule module(-KERNEL_ENOMEM, image);
        EXPECT_EQ(amList[8][1], nullptr);
        EXPECT_EQ(amList[255][255], nullptr);
        EXPECT_EQ(atomic_read(&initDone), 0);
    });
}

// Its memory is zero then anyhow.
TEST_F(Control, ALoadThatWorksLeavesTheSessionTableAlone)
{
    inKernel([] {
        host::ModuleImage image = test::zelmodImage();
        image.init = initWithLeftovers;
        test::LoadedModule module(0, image);
        EXPECT_NE(amList[8][1], nullptr);
        EXPECT_NE(amList[255][255], nullptr);
        amList[8][1] = nullptr;
        amList[255][255] = nullptr;
    });
}

int unloadResult;

void exitAskingForTheResult()
{
    unloadResult = zelUnload();
}

TEST_F(Control, UnloadingTellsThatItIsDone)
{
    inKernel([] {
        host::ModuleImage image = test::zelmodImage();
        image.exit = exitAskingForTheResult;
        test::LoadedModule module(0, image);
        unloadResult = -1;
        EXPECT_EQ(module.unload(), 0);
        EXPECT_EQ(unloadResult, 0);
        EXPECT_EQ(host::registeredDevices(), Lines());
    });
}

TEST_F(Control, TheFileOperationsAreTheseAndTheModuleOwnsThem)
{
    withModule([](ModuleRun &) {
        EXPECT_EQ(zelFileOps.owner, this_module());
        EXPECT_EQ(zelFileOps.read, zelRead);
        EXPECT_EQ(zelFileOps.write, zelWrite);
        EXPECT_EQ(zelFileOps.poll, zelPoll);
        EXPECT_EQ(zelFileOps.ioctl, zelIOCTL);
        EXPECT_EQ(zelFileOps.mmap, zelMMAP);
        EXPECT_EQ(zelFileOps.open, zelOpen);
        EXPECT_EQ(zelFileOps.release, zelRelease);
    });
}

TEST_F(Control, ReadAndWriteMoveNothingAndPollReportsNothing)
{
    withModule([](ModuleRun &) {
        test::Agent agent;
        std::uint32_t memory = agent.process().allocate(16);
        *agent.process().pointer<std::uint32_t>(memory) = 0x12345678;
        EXPECT_EQ(agent.process().read(agent.fd(), memory, 16), 0);
        EXPECT_EQ(*agent.process().pointer<std::uint32_t>(memory), 0x12345678u);
        EXPECT_EQ(agent.process().write(agent.fd(), memory, 16), 0);
        EXPECT_EQ(agent.process().poll(agent.fd()), 0u);
    });
}

std::vector<const atomic_t *> countersOf(const Backup *b)
{
    return {&b->mrInQueue,     &b->ioctlCount,      &b->totalAllocPages, &b->curAllocPages,
            &b->totalAllocBRs, &b->curAllocBRs,     &b->totalAllocCPs,   &b->curAllocCPs,
            &b->peakAllocCPs,  &b->totalCBs,        &b->curCBs,          &b->totalReadBlocks,
            &b->totalReadCBs,  &b->totalCleanedCBs, &b->hooksInside};
}

TEST_F(Control, ANewRecordIsIdleAndEmpty)
{
    withModule([](ModuleRun &) {
        OpenRecord record;
        EXPECT_EQ(backupState(record.get()), 0u);
        for (const atomic_t *counter : countersOf(record.get()))
            EXPECT_EQ(atomic_read(counter), 0);
        EXPECT_EQ(down_trylock(&record->bSem), 0);
        EXPECT_EQ(down_trylock(&record->bSem), 1);
        up(&record->bSem);
        down_write(&record->writers);
        up_write(&record->writers);
        down_write(&record->cacheUsers);
        up_write(&record->cacheUsers);
        EXPECT_EQ(record->mrHead, nullptr);
        EXPECT_EQ(record->diskInfo.kdev, 0u);
        EXPECT_EQ(record->blockTable, nullptr);
        EXPECT_EQ(record->noStartAutoMap, 0);
        EXPECT_EQ(blockInMap(&record->blockMap, 0), 0);
        EXPECT_EQ(blockInMap(&record->cacheMap, 0), 0);
    });
}

TEST_F(Control, TwoOpensAreTwoRecordsAndOneCanStartABackup)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        test::Agent first;
        test::Agent second;
        EXPECT_EQ(first.startBackup(disk.device(), disk.blocks(), 10), 0);
        EXPECT_EQ(second.startBackup(disk.device(), disk.blocks(), 10), 9);
        State state{};
        EXPECT_EQ(first.getState(&state), 0);
        EXPECT_EQ(state.state, 2u);
        EXPECT_EQ(second.getState(&state), 0);
        EXPECT_EQ(state.state, 12u);
    });
}

TEST_F(Control, AnOpenFileKeepsTheModuleLoaded)
{
    inKernel([] {
        test::LoadedModule module;
        int before = host::moduleReferences();
        {
            test::Agent agent;
            // The kernel's own for the file, and the module's.
            EXPECT_EQ(host::moduleReferences(), before + 2);
            EXPECT_EQ(module.unload(), -KERNEL_EBUSY);
            EXPECT_EQ(agent.ioctl(ZEL_RESERVED), 3);
        }
        EXPECT_EQ(host::moduleReferences(), before);
        EXPECT_EQ(module.unload(), 0);
    });
}

TEST_F(Control, OpeningBeforeTheDeviceIsRegisteredAnswers1)
{
    withModule([](ModuleRun &run) {
        atomic_set(&initDone, 0);
        struct file file;
        EXPECT_EQ(zelOpen(nullptr, &file), 1);
        EXPECT_EQ(file.privateData, nullptr);
        EXPECT_EQ(run.process().open("/dev/zelmod"), -KERNEL_ENODEV);
        atomic_set(&initDone, 1);
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
    });
}

TEST_F(Control, OpeningWithoutMemoryAnswers5)
{
    withModule([](ModuleRun &run) {
        host::failNth(host::Fault::kmalloc, 1, 2);
        struct file file;
        int before = host::moduleReferences();
        EXPECT_EQ(zelOpen(nullptr, &file), 5);
        EXPECT_EQ(file.privateData, nullptr);
        EXPECT_EQ(run.process().open("/dev/zelmod"), -KERNEL_ENOMEM);
        EXPECT_EQ(host::moduleReferences(), before);
    });
}

TEST_F(Control, OpeningWhileTheModuleGoesAnswers3AndLosesTheRecord)
{
    withModule([](ModuleRun &run) {
        host::setModuleGoing(true);
        struct file file;
        EXPECT_EQ(zelOpen(nullptr, &file), 3);
        EXPECT_NE(file.privateData, nullptr);
        EXPECT_EQ(host::memoryUse().kmallocs, 1u);
        EXPECT_EQ(run.process().open("/dev/zelmod"), -KERNEL_EBUSY);
        EXPECT_EQ(host::memoryUse().kmallocs, 2u);
        host::setModuleGoing(false);
        host::forgiveHeldMemory();
    });
}

TEST_F(Control, ReleasingAFileWithoutARecordAnswers2)
{
    withModule([](ModuleRun &) {
        struct file file;
        int before = host::moduleReferences();
        EXPECT_EQ(zelRelease(nullptr, &file), 2);
        EXPECT_EQ(host::moduleReferences(), before);
    });
}

TEST_F(Control, ReleasingFreesTheRecordAndTheReference)
{
    withModule([](ModuleRun &) {
        struct file file;
        int before = host::moduleReferences();
        ASSERT_EQ(zelOpen(nullptr, &file), 0);
        EXPECT_EQ(host::moduleReferences(), before + 1);
        EXPECT_EQ(host::memoryUse().kmallocs, 1u);
        EXPECT_EQ(zelRelease(nullptr, &file), 0);
        EXPECT_EQ(file.privateData, nullptr);
        EXPECT_EQ(host::moduleReferences(), before);
        EXPECT_EQ(host::memoryUse().kmallocs, 0u);
        EXPECT_EQ(zelRelease(nullptr, &file), 2);
    });
}

TEST_F(Control, ReleasingHoldsTheModuleUntilTheRecordIsTornDown)
{
    withModule([](ModuleRun &run) {
        test::BackupRun backup(run);
        ASSERT_TRUE(backup.begin());
        backup.holdModuleReads();
        test::AsyncBio held = backup.writeAsync(3, 1, 0x33);
        ASSERT_TRUE(test::eventually([&] { return backup.disk.disk().heldCount() == 1; }));
        int references = host::moduleReferences();
        struct file *file = backup.record.file();
        host::Task closer = backup.closeInTask();
        ASSERT_TRUE(
            test::eventually([] { return backupState(loadActiveSession()) == BACKUP_CLOSING; }));
        // No command finds the record any more.
        EXPECT_EQ(file->privateData, nullptr);
        EXPECT_EQ(host::moduleReferences(), references);
        backup.disk.disk().release();
        closer.join();
        // Its own, and the kernel's for the file.
        EXPECT_EQ(host::moduleReferences(), references - 2);
    });
}

TEST_F(Control, ShutdownEndsTrackingAndLeavesTheDeviceUsable)
{
    withModule([](ModuleRun &) {
        test::TestDisk disk;
        {
            test::Agent agent;
            ASSERT_EQ(agent.begin(disk.device()), 0);
            agent.close();
        }
        EXPECT_EQ(host::hookedQueues().size(), 1u);
        EXPECT_NE(amList[disk.major()][disk.minor()], nullptr);
        test::Agent agent;
        EXPECT_EQ(agent.shutdown(), 0);
        EXPECT_EQ(host::hookedQueues(), Lines());
        EXPECT_EQ(amList[disk.major()][disk.minor()], nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        EXPECT_EQ(atomic_read(&initDone), 1);
        EXPECT_EQ(host::registeredDevices(), (Lines{"120 (zelmod)"}));
        test::Agent later;
        ASSERT_TRUE(later.opened());
        EXPECT_EQ(later.begin(disk.device()), 0);
        std::vector<unsigned char> image;
        EXPECT_EQ(later.loadBlockMap(later.blocks()), 0);
        EXPECT_EQ(later.readWhole(&image), 0);
        EXPECT_TRUE(image == disk.image());
    });
}

TEST_F(Control, UnloadingEndsTracking)
{
    inKernel([] {
        test::TestDisk disk;
        test::LoadedModule module;
        {
            test::Agent agent;
            ASSERT_EQ(agent.begin(disk.device()), 0);
        }
        EXPECT_EQ(host::hookedQueues().size(), 1u);
        EXPECT_EQ(module.unload(), 0);
        EXPECT_EQ(host::hookedQueues(), Lines());
    });
}

TEST_F(Control, UnloadingUnhooksTheQueueOfADeviceThatWasUnmounted)
{
    inKernel([] {
        test::TestDisk disk;
        test::LoadedModule module;
        {
            test::Agent agent;
            ASSERT_EQ(agent.begin(disk.device()), 0);
        }
        disk.unmount();
        takeLog();
        EXPECT_EQ(module.unload(), 0);
        EXPECT_EQ(host::hookedQueues(), Lines());
        EXPECT_EQ(takeLog(),
                  (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=" +
                             std::to_string(disk.major()) +
                             ", MINOR=" + std::to_string(disk.minor()) + " while unsetting MRF.",
                         "<6>zelUnload: zelmod version 3.1.0 build 9504 ready to be unloaded\n",
                         "<6>zelExit: zelmod version 3.1.0 build 9504 exiting\n"}));
    });
}

TEST_F(Control, TheModuleTellsItselfThatItIsNotInUse)
{
    withModule([](ModuleRun &) { EXPECT_EQ(zelCheckModUse(), 0); });
}

TEST_F(Control, ModuleReferencesAreTakenUnlessItIsGoing)
{
    withModule([](ModuleRun &) {
        int before = host::moduleReferences();
        EXPECT_EQ(zelModGet(), 0);
        EXPECT_EQ(host::moduleReferences(), before + 1);
        zelModPut();
        EXPECT_EQ(host::moduleReferences(), before);
        host::setModuleGoing(true);
        EXPECT_EQ(zelModGet(), 1);
        EXPECT_EQ(host::moduleReferences(), before);
        host::setModuleGoing(false);
    });
}

TEST_F(Control, RegisteringAgainReturnsTheKernelsError)
{
    withModule(
        [](ModuleRun &) { EXPECT_EQ(zelModRegister(120, "zelmod", &zelFileOps), -KERNEL_EBUSY); });
}

} // namespace
