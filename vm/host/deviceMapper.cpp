#include "deviceMapper.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace vm
{
namespace
{

constexpr const char *controlNode = "/dev/device-mapper";
constexpr unsigned miscMajor = 10;
constexpr std::uint32_t listBytes = 4096; // room for the names of tens of targets

void *pointer(std::uint32_t address)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(address));
}

void putText(GuestProcess &process, const std::string &text)
{
    std::memcpy(pointer(process.area()), text.c_str(), text.size() + 1);
}

// The kernel gives the control device any free number. False if it has no device mapper.
bool addControlNode(Worker &worker)
{
    std::string list = worker.read("/proc/misc");
    std::size_t name = list.find("device-mapper");
    if (name == std::string::npos)
        return false;
    std::size_t line = list.rfind('\n', name);
    unsigned minor = 0;
    if (std::sscanf(list.c_str() + (line == std::string::npos ? 0 : line + 1), "%u", &minor) != 1)
        throw std::runtime_error("the guest's list of devices is not understood");
    int made = worker.makeNode(controlNode, S_IFCHR, miscMajor, minor);
    if (made != 0 && made != -EEXIST)
        throw std::runtime_error("the guest: mknod failed with " + std::to_string(made));
    return true;
}

} // namespace

// As the kernel takes it: the target, if there is one, lies behind the header.
struct MappedDevice::Command {
    dm_ioctl header;
    dm_target_spec target;
    char text[512];

    explicit Command(const std::string &name)
    {
        std::memset(this, 0, sizeof(*this));
        header.version[0] = DM_VERSION_MAJOR;
        header.data_size = sizeof(*this);
        header.data_start = sizeof(header);
        name.copy(header.name, sizeof(header.name) - 1);
    }
};

int MappedDevice::run(std::uint32_t number, Command &command)
{
    std::memcpy(pointer(process_.area()), &command, sizeof(command));
    int result = process_.systemCall(SYS_ioctl, control_, number, process_.area());
    std::memcpy(&command, pointer(process_.area()), sizeof(command));
    return result;
}

bool hasSnapshots(Guest &guest)
{
    Worker worker(guest);
    if (!addControlNode(worker))
        return false;
    GuestProcess process(guest);
    putText(process, controlNode);
    std::int32_t control = process.systemCall(SYS_open, process.area(), O_RDWR);
    // The names of its targets, each behind a header.
    dm_ioctl header{};
    header.version[0] = DM_VERSION_MAJOR;
    header.data_size = listBytes;
    header.data_start = sizeof(header);
    std::memcpy(pointer(process.area()), &header, sizeof(header));
    if (control < 0 || process.systemCall(SYS_ioctl, control, DM_LIST_VERSIONS, process.area()) < 0)
        throw std::runtime_error("the guest's device mapper does not tell its targets");
    std::string list(static_cast<const char *>(pointer(process.area())), listBytes);
    return list.find("snapshot-origin") != std::string::npos;
}

MappedDevice::MappedDevice(Guest &guest, const std::string &name, std::uint64_t sectors,
                           const std::string &target, const std::string &parameters)
    : process_(guest), name_(name)
{
    auto expect = [&](int result, const char *what) {
        if (result < 0)
            throw std::runtime_error("the guest's device mapper: " + name + ": " + what +
                                     " failed with " + std::to_string(result));
    };
    Worker worker(guest);
    if (!addControlNode(worker))
        throw std::runtime_error("the guest's kernel has no device mapper");
    putText(process_, controlNode);
    control_ = process_.systemCall(SYS_open, process_.area(), O_RDWR);
    expect(control_, "opening the control device");

    Command create(name);
    expect(run(DM_DEV_CREATE, create), "making the device");
    Command load(name);
    load.header.target_count = 1;
    load.target.length = sectors;
    target.copy(load.target.target_type, sizeof(load.target.target_type) - 1);
    parameters.copy(load.text, sizeof(load.text) - 1);
    Command resume(name); // without the flag that asks for the opposite
    int loaded = run(DM_TABLE_LOAD, load);
    int resumed = loaded < 0 ? loaded : run(DM_DEV_SUSPEND, resume);
    if (resumed < 0) {
        Command remove(name);
        run(DM_DEV_REMOVE, remove);
    }
    expect(resumed, "loading its table");

    auto number = static_cast<unsigned>(create.header.dev);
    unsigned minor = (number & 0xff) | (number >> 12 & 0xfff00);
    expect(worker.makeNode(node(), S_IFBLK, number >> 8 & 0xfff, minor), "mknod");
}

MappedDevice::~MappedDevice()
{
    Command remove(name_);
    try {
        if (run(DM_DEV_REMOVE, remove) < 0)
            std::fprintf(stderr, "the guest's device %s could not be removed\n", name_.c_str());
        putText(process_, node());
        process_.systemCall(SYS_unlink, process_.area());
    } catch (const GuestLost &) {
        // Whoever next asks something of the guest is told.
    }
}

std::string MappedDevice::status()
{
    Command status(name_);
    if (run(DM_TABLE_STATUS, status) < 0 || status.header.target_count != 1)
        throw std::runtime_error("the guest's device " + name_ + " has no status");
    return status.text;
}

int MappedDevice::setSuspended(std::uint32_t flags)
{
    Command command(name_);
    command.header.flags = flags;
    return run(DM_DEV_SUSPEND, command);
}

Suspension::Suspension(MappedDevice &device) : device_(device)
{
    int result = device_.setSuspended(DM_SUSPEND_FLAG | DM_SKIP_LOCKFS_FLAG);
    if (result < 0)
        throw std::runtime_error("the guest's device mapper: " + device_.name_ +
                                 ": suspending failed with " + std::to_string(result));
}

Suspension::~Suspension()
{
    try {
        if (device_.setSuspended(0) < 0)
            std::fprintf(stderr, "the guest's device %s could not be resumed\n",
                         device_.name_.c_str());
    } catch (const GuestLost &) {
        // Whoever next asks something of the guest is told.
    }
}

SnappedDevice::SnappedDevice(Guest &guest, const std::string &origin, std::uint64_t sectors,
                             const std::string &store, const char *persistence,
                             unsigned chunkSectors)
    : snapshot_(guest, "snapshot", sectors, "snapshot",
                origin + " " + store + " " + persistence + " " + std::to_string(chunkSectors)),
      origin_(guest, "origin", sectors, "snapshot-origin", origin)
{
}

std::uint64_t SnappedDevice::savedSectors()
{
    std::string status = snapshot_.status();
    unsigned long long used = 0;
    if (std::sscanf(status.c_str(), "%llu/", &used) != 1)
        throw std::runtime_error("the kernel's snapshot is " + status);
    return used;
}

} // namespace vm
