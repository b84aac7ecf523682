#include "selfChecks.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <linux/fs.h>

#include "guestProgram.h"
#include "kernelLog.h"
#include "kernelUse.h"

namespace vm
{
namespace
{

using scenario::expect;
using scenario::expectEqual;
using scenario::Image;

bool has(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
}

void freezeAndThaw(Environment &env, unsigned index)
{
    Worker worker(env.guest());
    int folder = worker.open(env.folder(index), O_RDONLY);
    expect(folder >= 0, "a mounted folder");
    expectEqual(worker.control(folder, FIFREEZE), 0, "the result of freezing");
    expectEqual(worker.control(folder, FITHAW), 0, "the result of thawing");
}

std::uint32_t blockOfSuperblock(Environment &env, unsigned index)
{
    return env.blockSize(index) == 1024 ? 1 : 0;
}

Image placeOf(Environment &env, const Image &image, unsigned index, std::uint32_t place)
{
    auto size = static_cast<std::ptrdiff_t>(env.blockSize(index));
    auto from = image.begin() + env.blockAt(index, place) * size;
    return {from, from + size};
}

// A freeze is seen on its own device, with all that was written before it and nothing after.
void seesFreezes(Environment &env)
{
    Image first = env.frozen(0);
    unsigned freezes = env.freezes(0);
    Image other = env.frozen(1);
    env.write(0, 3, 5);
    expectEqual(env.writeThrough(0, 20, 2), 0, "the result of a direct write");
    freezeAndThaw(env, 0);
    Image second = env.frozen(0);
    expectEqual(env.freezes(0), freezes + 1, "the number of freezes");
    test::Bitmap blocks = env.written(0);
    env.write(0, 3, 1);
    env.sync(0);
    expect(env.frozen(0) == second, "nothing of what follows the freeze");
    expect(env.frozen(1) == other, "a device that was not frozen to have no freeze");
    for (std::uint32_t place = 0; place < env.places(0); place++) {
        bool written = (place >= 3 && place < 8) || place == 20 || place == 21;
        expect((placeOf(env, first, 0, place) != placeOf(env, second, 0, place)) == written,
               "place " + std::to_string(place) + " at the freeze as it was written before");
        expect(test::testBit(blocks, env.blockAt(0, place)) == written,
               "the blocks to be known that were written before the freeze");
    }
    expect(env.lostWrites(0).empty(), "no write to be lost");
}

// What a file system writes for itself is known block by block, and what a thaw writes as told.
void knowsTheFileSystemsBlocks(Environment &env)
{
    freezeAndThaw(env, 0);
    freezeAndThaw(env, 0);
    expectEqual(test::countBits(env.changedByFileSystem(0)), env.blocksChangedByThaw(),
                "the number of blocks from a thaw to the next freeze");
    expect(test::testBit(env.changedByFileSystem(0), blockOfSuperblock(env, 0)),
           "the superblock among them");
    env.write(0, 9, 1);
    freezeAndThaw(env, 0);
    test::Bitmap changed = env.changedByFileSystem(0);
    expect(test::countBits(changed) > env.blocksChangedByThaw(), "a journal that was written to");
    for (std::uint32_t place = 0; place < env.places(0); place++)
        expect(!test::testBit(changed, env.blockAt(0, place)), "no place among them");
}

// What was written and is not on the disk is missed, whether it is old or torn.
void missesLostWrites(Environment &env)
{
    env.write(0, 7, 1);
    env.sync(0);
    Image before = env.contents(0);
    env.write(0, 7, 1);
    expect(env.lostWrites(0).empty(), "no write to be lost yet");
    Image after = env.contents(0);
    Image old = placeOf(env, before, 0, 7);
    Image torn = placeOf(env, after, 0, 7);
    expect(old != torn, "the write to be on the disk");
    std::copy(old.begin(), old.begin() + static_cast<std::ptrdiff_t>(old.size() / 2), torn.begin());
    for (const Image &bytes : {old, torn}) {
        env.spoil(0, 7, bytes);
        expect(!env.lostWrites(0).empty(), "a lost write to be missed");
    }
    env.spoil(0, 7, placeOf(env, after, 0, 7));
    expect(env.lostWrites(0).empty(), "no write to be lost");
    env.spoil(0, 8, old);
    freezeAndThaw(env, 0);
    env.spoil(0, 8, placeOf(env, after, 0, 8));
    expect(!env.lostWrites(0).empty(), "a write that was lost at a freeze to be missed");
}

void failsReads(Environment &env)
{
    env.failReads(0, 5, 1);
    Worker worker(env.guest());
    int disk = worker.open(env.node(0), O_RDONLY | O_DIRECT);
    expect(disk >= 0, "an open disk");
    auto read = [&](std::uint32_t place) {
        return worker.readDirect(disk, std::uint64_t{env.blockAt(0, place)} * env.blockSize(0),
                                 env.blockSize(0));
    };
    expectEqual(read(4), 0, "the result of reading before the bad block");
    expectEqual(read(5), -EIO, "the result of reading it");
    expectEqual(read(6), 0, "the result of reading after it");
    env.clearReadFailures();
    expectEqual(read(5), 0, "the result of reading it later");
}

// A process that dies in a request is no result, and the others go on.
void noticesDeaths(Environment &env)
{
    bool lost = false;
    {
        GuestProcess process(env.guest());
        try {
            constexpr unsigned killed = 9;
            std::int32_t self = process.systemCall(SYS_getpid);
            process.systemCall(SYS_kill, self, killed);
        } catch (const GuestLost &) {
            lost = true;
        }
    }
    expect(lost, "a death to be noticed");
    env.write(0, 1, 1);
    expect(env.lostWrites(0).empty(), "no write to be lost");
}

// The guest notices nothing of its code being translated anew.
void goesOnWithoutTranslations(Environment &env)
{
    constexpr unsigned times = 5;
    std::atomic<bool> stopped{false};
    std::atomic<unsigned> writes{0};
    auto writing = env.start([&] {
        for (; !stopped; writes++) {
            env.write(0, 1, 1);
            env.sync(0);
        }
    });
    for (unsigned i = 0; i < times; i++) {
        unsigned before = writes;
        env.guest().debugger().whileStopped([](StoppedGuest &guest) { guest.dropTranslations(); });
        while (writes == before)
            env.pause(1000);
    }
    stopped = true;
    writing->join();
    expect(env.lostWrites(0).empty(), "no write to be lost");
}

// A program gets what it is given, and its output comes whole and no faster than it is taken.
void runsPrograms(Environment &env)
{
    ProgramResult shown = runProgram(env.guest(), {"/init", "show", "NAME"}, {"A=1", "NAME=some"});
    expect(shown.output == "NAME=some", "the environment of a program: " + shown.output);
    expect(shown.errors == "show: 0\n", "its standard error: " + shown.errors);
    expectEqual(shown.code, 0, "its exit code");
    expectEqual(runProgram(env.guest(), {"/init", "exit", "3"}).code, 3, "another exit code");

    constexpr std::uint32_t numbers = 4 << 20;
    GuestProgram counting(env.guest(), {"/init", "count", std::to_string(numbers)});
    env.pause(300000);
    expect(counting.errors().empty(), "a program to wait for its reader");
    std::uint32_t next = 0;
    for (std::string_view piece = counting.read(); !piece.empty(); piece = counting.read()) {
        expectEqual(piece.size() % sizeof(next), 0u, "an odd end of a piece");
        for (std::size_t at = 0; at < piece.size(); at += sizeof(next), next++)
            expect(std::memcmp(&piece[at], &next, sizeof(next)) == 0,
                   "number " + std::to_string(next) + " of the output");
    }
    expectEqual(next, numbers, "the length of the output");
    expect(counting.waitForError("count: 0"), "the end to be told");
    expectEqual(counting.wait(), 0, "the exit code after all was read");
}

// However a program ends, it is told how, and others go on.
void noticesHowProgramsEnd(Environment &env)
{
    GuestProgram killed(env.guest(), {"/init", "count", "1000000"});
    GuestProgram left(env.guest(), {"/init", "count", "1000000"});
    expect(killed.read(100).size() == 100 && left.read(100).size() == 100, "two programs that run");
    killed.signal(SIGKILL);
    expectEqual(killed.wait(), 128 + SIGKILL, "the end of a killed program");
    left.closeOutput();
    expectEqual(left.wait(), 128 + SIGPIPE, "the end of a program that nobody listens to");
    expect(!left.waitForError("count"), "no more from it");
    {
        GuestProgram dropped(env.guest(), {"/init", "count", "1000000"});
    }
    bool missing = false;
    try {
        runProgram(env.guest(), {"/no/such/program"});
    } catch (const std::runtime_error &) {
        missing = true;
    }
    expect(missing, "a missing program to be told");
    expectEqual(runProgram(env.guest(), {"/init", "exit", "0"}).code, 0, "the next exit code");
}

// What is in use shows in the figures, and what was given back does not.
void countsWhatIsInUse(Environment &env)
{
    constexpr long count = 200;
    constexpr long most = 100; // free objects that an allocator may count as used
    Worker worker(env.guest());
    auto objects = [](const KernelUse &use, const char *cache) {
        return use.at(std::string("objects of ") + cache);
    };
    KernelUse before = lastingUse(worker);
    std::vector<int> files;
    for (long i = 0; i < count; i++)
        files.push_back(worker.open("/proc/self/maps", O_RDONLY));
    auto other = std::make_unique<Worker>(env.guest());
    KernelUse during = lastingUse(worker);
    expect(objects(during, "filp") >= objects(before, "filp") + count - most,
           "open files to count");
    expect(objects(during, "mm_struct") > objects(before, "mm_struct"), "a process's memory");
    expectEqual(during.at("threads"), before.at("threads") + 1, "the threads with one more");
    for (int file : files)
        worker.close(file);
    other.reset();
    KernelUse after = lastingUse(worker);
    expect(objects(after, "filp") < objects(during, "filp"), "closed files not to count");
    expectEqual(after.at("threads"), before.at("threads"), "the threads");
    expect(leftOfModule(worker, slabCaches(worker)).empty(), "nothing of a module that never was");
    expect(!leftOfModule(worker, {}).empty(), "a slab cache more than before to be told");

    expectEqual(worker.mount("none", "/proc", "sysfs", ""), 0, "the result of hiding /proc");
    std::string told;
    try {
        leftOfModule(worker, {});
    } catch (const std::runtime_error &failure) {
        told = failure.what();
    }
    expect(has(told, "no processes"), "what cannot be seen not to be taken for nothing: " + told);
    expectEqual(worker.unmount("/proc"), 0, "the result of showing it again");
}

void findsFaultReports(Environment &)
{
    const std::string circle = "[ INFO: possible circular locking dependency detected ]\n";
    const std::string fine = "[ 1.2] Bringing up CPUs\n[ 1.3] EXT3-fs: mounted filesystem\n"
                             "[ 1.4] RCU CPU stall warnings timeout set to 120.\n"
                             "[ 1.5] I/O error, dev sda, sector 8471 op 0x0:(READ) flags 0x800\n";
    for (std::string report :
         {"[   12.3] BUG: soft lockup - CPU#0 stuck for 61s!\n",
          "Oops: 0000 [#1] SMP\n",
          "WARNING: at fs/buffer.c:1186 mark_buffer_dirty+0x23/0x72()\n",
          "INFO: task kbackupd:812 blocked for more than 120 seconds.\n",
          "BUG: scheduling while atomic: agent/812/0x00000002\n",
          "slab error in kmem_cache_destroy(): cache `pages': Can't free all objects\n",
          "Slab corruption: size-64 start=f5d4c0a8, len=64\n",
          "slab: Internal list corruption detected in cache 'pages'(30), slabp f5d4c000(3).\n",
          "BUG kmalloc-64: Poison overwritten\n",
          "SLUB pages: kmem_cache_destroy called for cache that still has objects.\n",
          "[   12.3] divide error: 0000 [#1] SMP\n",
          "EXT3-fs error (device sda1): ext3_free_blocks_sb: bit already cleared for block 9\n",
          "EXT4-fs error (device vda1) in ext4_free_blocks: Journal has aborted\n",
          "BUG: kernel NULL pointer dereference, address: 00000008\n",
          "Oops: 0002 [#1] PREEMPT SMP\n",
          "WARNING: CPU: 1 PID: 120 at block/blk-core.c:690 submit_bio_noacct+0x1/0x2\n",
          "kernel BUG at mm/slub.c:381!\n",
          "invalid opcode: 0000 [#1] PREEMPT SMP NOPTI\n",
          "INFO: task jbd2/sda1-8:120 blocked for more than 120 seconds.\n",
          "rcu: INFO: rcu_preempt detected stalls on CPUs/tasks:\n",
          "watchdog: BUG: soft lockup - CPU#1 stuck for 122s! [kbackupd:120]\n",
          "list_del corruption. prev->next should be c4a5c0a8, but was c4a5c0b0\n"})
        expect(faultReports(fine + report + fine).lines.size() == 1, "a report: " + report);
    expect(faultReports(fine).lines.empty(), "no report where there is none");
    for (std::string end : {"Restarting system.\n", "reboot: Restarting system\n"})
        expect(faultReports(end + "WARNING: at smp.c\n").lines.empty(),
               "what comes after the end left out");

    FaultReports full =
        faultReports(fine + "[ 9.1] BUG: MAX_STACK_TRACE_ENTRIES too low!\n" + fine);
    expect(full.lines.empty() && full.ofFullTables == 1, "a full table to be told apart");

    const std::string thaw =
        " (&bdev->bd_fsfreeze_mutex){+.+...}, at: [<c10a45f9>] thaw_bdev+0x1a\n";
    const std::string barrier = " (&journal->j_barrier){+.+...}, at: [<c10f8e98>] lock_updates\n";
    const std::string own = " (&(&b->writers)->rw){+.+...}, at: [<f823d648>] zelMRF [zelmod]\n";
    const std::string held = "[ BUG: lock held when returning to user space! ]\n";
    const std::string chain = "[ 9.1] -> #1 (&journal->j_barrier){+.+...}:\n"
                              "[ 9.1] -> #0 (&bdev->bd_fsfreeze_mutex){+.+...}:\n";
    const std::string ownChain = "[ 9.1] -> #2 (&(&b->writers)->rw){+.+...}:\n" + chain;
    const std::string end = "[ 9.1] stack backtrace:\n";
    expectEqual(faultReports(circle + thaw + barrier + chain + end).ofAnyFreeze, 1u,
                "the kernel's own reports");
    expect(faultReports(circle + thaw + barrier + chain + end).lines.empty(),
           "the kernel's own circle left out");
    expect(faultReports(circle + own + barrier + chain + end).lines.size() == 1,
           "a circle of the module's");
    expect(faultReports(circle + thaw + own + chain + end).lines.size() == 1, "another one");
    expect(faultReports(circle + thaw + barrier + ownChain + end).lines.size() == 1,
           "a circle that only goes through a lock of the module's");
    expect(faultReports(circle + thaw + barrier + end).lines.size() == 1,
           "a circle whose chain is not told");
    expect(faultReports(held + "1 lock held:\n #0: " + barrier).lines.empty(),
           "what a freeze holds left out");
    expect(faultReports(held + "2 locks held:\n #0: " + barrier + " #1: " + own).lines.size() == 1,
           "what the module holds");
}

// A kind of disk that the kernel has no driver for is told from a disk that is not there.
void missesDrivers(Environment &)
{
    const std::string characters = "Character devices:\n 21 sg\n\n";
    const std::string virtio = characters + "Block devices:\n  7 loop\n254 virtblk\n";
    const std::string ata = characters + "Block devices:\n259 blkext\n  8 sd\n 65 sd\n";
    const std::string none =
        "Character devices:\n  8 sd\n254 virtblk\n\nBlock devices:\n  7 loop\n";
    expect(hasDriver(virtio, "virtio") && hasDriver(ata, "ide"), "a driver to be seen");
    expect(hasDriver(characters + "Block devices:\n  3 ide0\n", "ide"), "another one");
    expect(!hasDriver(virtio, "ide") && !hasDriver(ata, "virtio"), "another kind's not to count");
    expect(!hasDriver(none, "ide") && !hasDriver(none, "virtio"), "character devices not to count");
}

// A console is read bit by bit, and what tells of a lost guest has the emulator's messages.
void readsLogs(Environment &)
{
    const std::string consoleFile = "selfCheck.console";
    const std::string emulatorFile = "selfCheck.emulator";
    std::ofstream console(consoleFile, std::ios::trunc);
    ConsoleReader reader(consoleFile);
    console << "[ 1.2] Bringing up CPUs\n[ 9.1] BU" << std::flush;
    expect(faultReports(reader.news()).lines.empty(), "no report in the lines so far");
    console << "G: spinlock bad magic on CPU#0\n" << std::flush;
    expectEqual(faultReports(reader.news()).lines.size(), 1u, "the reports with that in two bits");
    expect(reader.news().empty(), "no line to be read twice");

    std::filesystem::remove(emulatorFile);
    std::string without = endOfLogs(consoleFile, emulatorFile);
    expect(has(without, "spinlock bad magic"), "the end of the kernel's log");
    expect(!has(without, "emulator"), "no word of an emulator that has said nothing");
    std::ofstream(emulatorFile) << "could not load kernel\n";
    expect(has(endOfLogs(consoleFile, emulatorFile), "could not load kernel"),
           "the emulator's message");
}

} // namespace

std::vector<GuestScenario> selfChecks()
{
    return {
        {"EnvironmentSeesFreezes", {1, {4096, 1024}, true}, seesFreezes},
        {"EnvironmentKnowsTheFileSystemsBlocks", {}, knowsTheFileSystemsBlocks},
        {"EnvironmentKnowsTheFileSystemsBlocksOf1024",
         {1, {1024}, false},
         knowsTheFileSystemsBlocks},
        {"EnvironmentMissesLostWrites", {}, missesLostWrites},
        {"EnvironmentFailsReads", {}, failsReads},
        {"EnvironmentNoticesDeaths", {}, noticesDeaths},
        {"EnvironmentGoesOnWithoutTranslations", {}, goesOnWithoutTranslations},
        {"EnvironmentRunsPrograms", {}, runsPrograms},
        {"EnvironmentNoticesHowProgramsEnd", {}, noticesHowProgramsEnd},
        {"EnvironmentCountsWhatIsInUse", {}, countsWhatIsInUse},
        {"EnvironmentFindsFaultReports", {}, findsFaultReports},
        {"EnvironmentReadsLogs", {}, readsLogs},
        {"EnvironmentMissesDrivers", {}, missesDrivers},
    };
}

} // namespace vm
