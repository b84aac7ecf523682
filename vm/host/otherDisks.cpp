#include "otherDisks.h"

#include <cstring>
#include <functional>

#include <fcntl.h>
#include <linux/loop.h>

#include "deviceMapper.h"
#include "guestDisk.h"
#include "scenario/chain.h"
#include "zelmod.h"

namespace vm
{
namespace
{

using scenario::Chain;
using scenario::expect;
using scenario::expectEqual;

unsigned countOf(const std::string &text, const std::string &part)
{
    unsigned count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        count++;
    return count;
}

// The device is refused, each time that it is asked for, and the kernel's log says why, once.
// Afterwards the guest's own disk is backed up as if nothing had been.
void expectRefused(Environment &env, const std::string &name, const std::string &reason)
{
    const kernel_dev_t own = env.device(0);
    Worker worker(env.guest());
    const kernel_dev_t refused = numberOfDevice(worker, name);
    const std::size_t before = env.kernelLog().size();
    expectEqual(env.load(), 0, "the result of loading");
    env.mountAt(0, refused);
    for (unsigned time = 0; time < 2; time++) {
        test::Agent agent;
        BlockSize size{};
        expectEqual(agent.getBlockSize(refused, &size), ZEL_RESULT_NOT_MOUNTED,
                    "the answer to GetBlockSize");
        expectEqual(agent.startBackup(refused, env.blocks(0), 1000), ZEL_RESULT_NOT_MOUNTED,
                    "the answer to StartBackup");
        expectEqual(agent.close(), 0, "the result of close");
    }
    std::string log = env.kernelLog().substr(before);
    expectEqual(countOf(log, "zelmod: " + name + " cannot be backed up: " + reason), 1u,
                "the number of times that the log says why");

    env.unmount(0);
    env.mountAt(0, own);
    Chain chain(env, 0);
    chain.takeFull([&](test::Agent &) {
        env.write(0, 3, 4);
        env.sync(0);
    });
    chain.takeIncremental();
    scenario::expectNoLostWrites(env, 0);
    expectEqual(env.unload(), 0, "the result of unloading");
}

// Its first zones are written to like any disk, so that a file system can be copied to them.
constexpr const char *zonedDisk =
    "null_blk nr_devices=1 gb=1 memory_backed=1 zoned=1 zone_size=64 zone_nr_conv=8";

// The device's file system is copied to the disk, which is refused.
void refusesCopyOn(const std::string &name, const std::string &reason, Environment &env)
{
    env.unmount(0);
    {
        Worker worker(env.guest());
        int file = worker.open(addDeviceNode(worker, name), O_WRONLY);
        expect(file >= 0, "the disk to open");
        expectEqual(worker.writeAll(file, env.contents(0)), 0,
                    "the result of copying the file system");
        expectEqual(worker.close(file), 0, "the result of closing the disk");
    }
    expectRefused(env, name, reason);
}

void refusesZonedDisk(Environment &env)
{
    refusesCopyOn("nullb0", "it is zoned, ", env);
}

// A part of the machine's memory, which programs can map: DAX.
void refusesDiskOfMemory(Environment &env)
{
    refusesCopyOn("pmem0", "it can be written to as memory", env);
}

// A loop device that has a disk for its file, and that disk's partitions. While it lives.
class LoopDevice
{
public:
    LoopDevice(Guest &guest, const std::string &node, const std::string &disk) : process_(guest)
    {
        loop_ = open(node);
        loop_config config = {};
        config.fd = static_cast<std::uint32_t>(open(disk));
        config.info.lo_flags = LO_FLAGS_PARTSCAN | LO_FLAGS_DIRECT_IO; // nothing is left for later
        std::memcpy(area(), &config, sizeof(config));
        expectEqual(process_.systemCall(SYS_ioctl, loop_, LOOP_CONFIGURE, process_.area()), 0,
                    "the result of attaching a loop device");
    }
    ~LoopDevice()
    {
        try {
            process_.systemCall(SYS_ioctl, loop_, LOOP_CLR_FD, 0);
        } catch (const GuestLost &) {
            // Whoever next asks something of the guest is told.
        }
    }
    LoopDevice(const LoopDevice &) = delete;

private:
    void *area() const
    {
        return reinterpret_cast<void *>(static_cast<std::uintptr_t>(process_.area()));
    }
    int open(const std::string &path)
    {
        std::memcpy(area(), path.c_str(), path.size() + 1);
        int file = process_.systemCall(SYS_open, process_.area(), O_RDWR, 0);
        expect(file >= 0, path + " to open");
        return file;
    }

    GuestProcess process_;
    int loop_ = -1;
};

// The kernel gives it numbers from those that it keeps for partitions of any disk.
void refusesPartitionOfAnotherNumber(Environment &env)
{
    env.unmount(0);
    Worker worker(env.guest());
    std::string node = addDeviceNode(worker, "loop0");
    LoopDevice loop(env.guest(), node, addDeviceNode(worker, env.diskName()));
    expectRefused(env, "loop0p1", "its device number ");
}

// The stat file of the cache thread, one of the youngest that there are.
std::string findCacheThread(Worker &worker)
{
    std::vector<std::string> names = worker.list("/proc");
    for (auto name = names.rbegin(); name != names.rend(); name++) {
        std::string path = "/proc/" + *name + "/stat";
        if (worker.read(path).find("(kbackupd)") != std::string::npos)
            return path;
    }
    throw std::runtime_error("the guest has no cache thread");
}

// Waits until the cache thread waits for the disk.
void awaitHeldWrite(Environment &env)
{
    constexpr unsigned attempts = 1000;
    constexpr unsigned pause = 10000; // microseconds
    Worker worker(env.guest());
    std::string path = findCacheThread(worker);
    for (unsigned attempt = 0; attempt < attempts; attempt++) {
        if (worker.read(path).find(") D") != std::string::npos)
            return;
        env.pause(pause);
    }
    throw scenario::Failure("expected: a write to be held");
}

// Writes while the device takes nothing: what of the old contents is to be saved is read, and the
// writes are passed on, when the device goes on.
void holdAcrossSuspension(Environment &env, MappedDevice &mapped,
                          const std::function<void()> &write)
{
    std::unique_ptr<scenario::Environment::Background> writing;
    {
        Suspension suspension(mapped);
        writing = env.start(write);
        awaitHeldWrite(env);
    }
    writing->join();
}

void suspendedMappedDevice(Environment &env)
{
    const kernel_dev_t disk = env.device(0);
    env.unmount(0);
    {
        MappedDevice mapped(env.guest(), "mapped", env.sectors(0), "linear",
                            std::to_string(deviceMajor(disk)) + ":" +
                                std::to_string(deviceMinor(disk)) + " 0");
        expectEqual(env.load(), 0, "the result of loading");
        Worker worker(env.guest());
        env.mountAt(0, numberOfDevice(worker, "dm-0"));
        // The file system knows its file from now on, and reads nothing for a write to it.
        env.write(0, 50, 30);
        env.sync(0);
        Chain chain(env, 0);
        for (unsigned round = 0; round < 2; round++) {
            auto point = chain.take([&](test::Agent &) {
                holdAcrossSuspension(env, mapped, [&] {
                    expectEqual(env.writeThrough(0, 40, 3), 0, "the result of a direct write");
                });
                // Some of its blocks are saved already.
                holdAcrossSuspension(env, mapped, [&] {
                    env.write(0, 50 + 10 * round, 20);
                    env.sync(0);
                });
            });
            expect(point.incremental == (round != 0), "only the first backup to be full");
        }
        chain.takeIncremental();
        scenario::expectNoLostWrites(env, 0);
        expectEqual(env.unload(), 0, "the result of unloading");
        env.unmount(0);
    }
    env.mountAt(0, disk);
}

} // namespace

std::vector<GuestScenario> otherDiskScenarios()
{
    GuestScenario zoned = {"RefusesAZonedDisk", {1, {4096}, false}, refusesZonedDisk};
    zoned.drivers = {zonedDisk};
    GuestScenario memory = {"RefusesADiskOfMemory", {1, {4096}, false}, refusesDiskOfMemory};
    memory.drivers = {"nd_e820", "nd_pmem"};
    memory.kernelOptions = "memmap=64M!768M";
    memory.needs64Bits = true; // one of 32 lets nobody map it
    GuestScenario loop = {"RefusesAPartitionOfAnotherNumber", {}, refusesPartitionOfAnotherNumber};
    loop.drivers = {"loop"};
    GuestScenario mapped = {"BackupOfASuspendedMappedDevice", {}, suspendedMappedDevice};
    mapped.drivers = {"dm_mod"};
    return {zoned, memory, loop, mapped};
}

} // namespace vm
