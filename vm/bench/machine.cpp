#include "machine.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <sys/stat.h>
#include <sys/syscall.h>

#include "vm/host/guestProgram.h"
#include "vm/host/hostFile.h"
#include "vm/host/initramfs.h"
#include "vm/host/kernelLog.h"
#include "vm/host/kernelModules.h"

namespace vm
{
namespace
{

constexpr std::uint64_t mebi = 1u << 20;
constexpr std::uint64_t gibi = 1u << 30;
constexpr std::uint64_t fileSystemBytes = 64 * mebi;
constexpr std::uint64_t storeBytes = 64 * mebi;

constexpr const char *initramfs = "initramfs";
constexpr const char *console = "console.log";
constexpr const char *emulatorLog = "emulator.log";
constexpr const char *modulePath = "/zelmod.ko";
constexpr const char *program = "/bench";
constexpr unsigned controlMajor = 120;
constexpr std::chrono::seconds timeout{7200};
// By how much the guest's clock may go slow or fast.
constexpr double clockTolerance = 1.02;

// What is needed of the kernel besides a disk's and a file system's drivers (ext4's is ext3's,
// too).
const std::vector<std::string> neededModules = {"brd rd_size=" + std::to_string(storeBytes / 1024),
                                                "dm_snapshot"};

MemoryDisk partitionedDisk()
{
    const std::vector<MemoryDisk::Partition> partitions = {
        {mebi, fileSystemBytes + Machine::areaBytes},
        {mebi + fileSystemBytes + Machine::areaBytes, Machine::areaBytes},
        {mebi + fileSystemBytes + 2 * Machine::areaBytes, storeBytes}};
    MemoryDisk disk(partitions.back().start + partitions.back().bytes);
    // A first write to memory takes longer than any later one.
    disk.fill(mebi, fileSystemBytes + 2 * Machine::areaBytes + storeBytes);
    disk.partition(partitions);
    disk.makeFileSystem(partitions[0].start, fileSystemBytes);
    return disk;
}

MemoryDisk wholeDisk(std::uint64_t bytes)
{
    MemoryDisk disk(bytes);
    disk.makeFileSystem(0, bytes);
    return disk;
}

} // namespace

Machine::Machine(const MachineOptions &options)
{
    std::string module = contentsOf(options.module);
    moduleBytes_ = static_cast<std::uint32_t>(module.size());
    std::vector<GuestFile> files = {{"init", contentsOf(options.guest)},
                                    {"bench", contentsOf(options.benchGuest)},
                                    {"zelmod.ko", module}};
    if (!options.kernelModules.empty())
        for (GuestFile &file : kernelModules(options.kernelModules, neededModules))
            files.push_back(std::move(file));
    writeInitramfs(initramfs, files);
    std::filesystem::remove(emulatorLog);
    disks_.push_back(partitionedDisk());
    disks_.push_back(wholeDisk(gibi));
    disks_.push_back(wholeDisk(64 * gibi));

    GuestOptions guest;
    guest.kernel = options.kernel;
    guest.initramfs = initramfs;
    guest.diskKind = "virtio";
    guest.debuggerSocket = "debugger.socket";
    guest.console = console;
    guest.emulatorLog = emulatorLog;
    guest.timeout = timeout;
    for (MemoryDisk &disk : disks_)
        guest.drives.push_back(drive(disk, options.rotating));
    guest.kernelOptions = "ramdisk_size=" + std::to_string(storeBytes / 1024) +
                          " maxcpus=" + std::to_string(options.processors);
    guest_ = bootGuest(guest);
    worker_ = std::make_unique<Worker>(*guest_);

    require(worker_->makeNode("/dev/zelmod", S_IFCHR, controlMajor, 0), "mknod");
    std::string node = addNode("vda", 1, &devices_[first]);
    area_ = {node, fileSystemBytes, areaBytes};
    kernel_dev_t number = 0;
    origin_ = {addNode("vda", 2, &number), 0, areaBytes};
    store_ = {addNode("vda", 3, &number), 0, storeBytes};
    ramStore_ = {addNode("ram0", 0, &number), 0, storeBytes};
    mount(first, node);
    mount(small, addNode("vdb", 0, &devices_[small]));
    mount(large, addNode("vdc", 0, &devices_[large]));
    for (std::string disk : {"vda", "vdb", "vdc"})
        require(worker_->write("/sys/block/" + disk + "/queue/scheduler", options.scheduler),
                "choosing the scheduler " + options.scheduler);
}

std::string Machine::drive(MemoryDisk &disk, bool rotating)
{
    if (!rotating)
        return disk.drive();
    std::string socket = "disk" + std::to_string(servers_.size()) + ".socket";
    servers_.push_back(std::make_unique<RotatingServer>(disk, socket));
    return "file=nbd+unix:///?socket=" + socket + ",format=raw,if=virtio,cache=unsafe";
}

std::string Machine::addNode(const std::string &disk, unsigned partition, kernel_dev_t *number)
{
    std::string name = partition == 0 ? disk : disk + std::to_string(partition);
    std::string folder = "/sys/block/" + disk + (partition == 0 ? "" : "/" + name);
    unsigned major = 0;
    unsigned minor = 0;
    if (std::sscanf(worker_->read(folder + "/dev").c_str(), "%u:%u", &major, &minor) != 2)
        throw std::runtime_error("the guest has no " + name +
                                 "; its kernel needs drivers of virtio disks and ramdisks");
    require(worker_->makeNode("/dev/" + name, S_IFBLK, major, minor), "mknod");
    *number = major << 20 | minor;
    return "/dev/" + name;
}

std::string Machine::folder(Volume volume) const
{
    return "/mnt/" + std::to_string(volume);
}

void Machine::mount(Volume volume, const std::string &node)
{
    require(worker_->makeFolder(folder(volume)), "mkdir");
    require(worker_->mount(node, folder(volume), "ext3", "data=ordered"), "mounting " + node);
}

void Machine::end()
{
    for (Volume volume : {first, small, large})
        require(worker_->unmount(folder(volume)), "unmounting");
    worker_.reset();
    if (!guest_->powerOff())
        throw std::runtime_error("the guest did not end");
    guest_.reset();
    std::string reported = describe(faultReports(contentsOf(console)));
    if (!reported.empty())
        throw std::runtime_error(reported);
}

void Machine::load()
{
    require(worker_->loadModule(modulePath, moduleBytes_), "loading the module");
}

void Machine::unload()
{
    require(worker_->unloadModule("zelmod"), "unloading the module");
}

Measured Machine::measure(const std::vector<std::string> &arguments)
{
    std::vector<std::string> all = {program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Measured measured;
    DiskCounts disk = diskCounts();
    ClockReading begin = readClock();
    double work = guest_->processorTime();
    ProgramResult result = runProgram(*guest_, all);
    measured.work = guest_->processorTime() - work;
    ClockReading end = readClock();
    DiskCounts after = diskCounts();
    measured.disk = {after.reads - disk.reads, after.readBytes - disk.readBytes,
                     after.writes - disk.writes};
    require(result.code, "the measuring program (" + result.errors + ")");
    std::istringstream numbers(result.output);
    double nanoseconds = 0;
    numbers >> nanoseconds;
    measured.seconds = nanoseconds / 1e9;
    while (numbers >> nanoseconds)
        measured.each.push_back(nanoseconds / 1e3);
    if (measured.each.empty())
        throw std::runtime_error("the measuring program has measured nothing");
    checkClock(begin, end);
    return measured;
}

Measured Machine::transfers(const char *kind, const Area &area, std::uint32_t bytes,
                            std::uint32_t requests, std::uint32_t processes, std::uint32_t seed,
                            std::uint32_t times)
{
    Measured measured =
        measure({kind, area.node, std::to_string(area.start), std::to_string(area.bytes),
                 std::to_string(bytes), std::to_string(requests), std::to_string(processes),
                 std::to_string(seed), std::to_string(times)});
    if (measured.each.size() != std::size_t{requests} * times)
        throw std::runtime_error("the measuring program has measured other requests");
    return measured;
}

DiskCounts Machine::diskCounts()
{
    // Of reads and then of writes: how many, how many of them merged, sectors, milliseconds.
    std::istringstream fields(worker_->read("/sys/block/vda/stat"));
    double reads[4];
    double writes = 0;
    for (double &field : reads)
        fields >> field;
    if (!(fields >> writes))
        throw std::runtime_error("the guest's disk has no statistics");
    return {reads[0], reads[2] * 512, writes};
}

double Machine::logged(const std::string &text) const
{
    std::string log = contentsOf(console);
    std::size_t at = log.rfind(text);
    if (at == std::string::npos)
        throw std::runtime_error("the kernel's log lacks '" + text + "'");
    return std::strtod(log.c_str() + at + text.size(), nullptr);
}

std::string Machine::clockSource()
{
    std::string name =
        worker_->read("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    return name.substr(0, name.find('\n'));
}

double Machine::askClock(long call)
{
    struct {
        std::int32_t seconds;
        std::int32_t nanoseconds;
    } time{};
    GuestProcess process(*guest_);
    require(process.systemCall(call, CLOCK_MONOTONIC, process.area()), "asking for the clock");
    std::memcpy(&time, reinterpret_cast<const void *>(std::uintptr_t{process.area()}),
                sizeof(time));
    return time.seconds + time.nanoseconds / 1e9;
}

// The guest has no timers of a higher resolution (Guest says so on its command line).
double Machine::tick()
{
    return askClock(SYS_clock_getres) * 1e3;
}

Machine::ClockReading Machine::readClock()
{
    ClockReading reading;
    reading.before = std::chrono::steady_clock::now();
    reading.guest = askClock(SYS_clock_gettime);
    reading.after = std::chrono::steady_clock::now();
    return reading;
}

void Machine::checkClock(const ClockReading &begin, const ClockReading &end)
{
    std::chrono::duration<double> least = end.before - begin.after;
    std::chrono::duration<double> most = end.after - begin.before;
    double guest = end.guest - begin.guest;
    if (guest * clockTolerance < least.count() || guest > most.count() * clockTolerance)
        throw std::runtime_error(
            format("the guest's clock has gone on by %.3f s, the host's by %.3f to %.3f s", guest,
                   least.count(), most.count()));
}

} // namespace vm
