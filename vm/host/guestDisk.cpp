#include "guestDisk.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <sstream>
#include <thread>

#include <sys/stat.h>

namespace vm
{

namespace
{

constexpr unsigned attempts = 100;
constexpr std::chrono::milliseconds pause{100};

// Of a device whose folder this is in the guest's /sys; nothing if it is not there.
std::optional<kernel_dev_t> readNumber(Worker &worker, const std::string &folder)
{
    unsigned major = 0;
    unsigned minor = 0;
    if (std::sscanf(worker.read(folder + "dev").c_str(), "%u:%u", &major, &minor) != 2)
        return {};
    return major << 20 | minor;
}

} // namespace

bool hasDriver(const std::string &devices, const std::string &diskKind)
{
    std::istringstream lines(devices);
    bool ofBlocks = false;
    for (std::string line; std::getline(lines, line);) {
        std::string name = line.substr(line.rfind(' ') + 1);
        ofBlocks = ofBlocks || line == "Block devices:";
        // ATA disks are the SCSI layer's, or a driver's with a name for each controller.
        if (ofBlocks &&
            (diskKind == "virtio" ? name == "virtblk" : name == "sd" || name.rfind("ide", 0) == 0))
            return true;
    }
    return false;
}

GuestDisk findDisk(Worker &worker, const std::string &diskKind,
                   const std::vector<unsigned> &partitions)
{
    if (!hasDriver(worker.read("/proc/devices"), diskKind))
        throw NoDriver("the kernel has no driver for disks of kind " + diskKind);
    for (unsigned attempt = 0; attempt < attempts; attempt++) {
        for (std::string name : {"hda", "sda", "vda"}) {
            GuestDisk disk{"/sys/block/" + name, {}};
            for (unsigned partition : partitions) {
                std::string folder = disk.folder + "/";
                if (partition != 0)
                    folder += name + std::to_string(partition) + "/";
                std::optional<kernel_dev_t> number = readNumber(worker, folder);
                if (!number)
                    break;
                disk.numbers.push_back(*number);
            }
            if (disk.numbers.size() == partitions.size())
                return disk;
        }
        std::this_thread::sleep_for(pause);
    }
    throw std::runtime_error("the guest has not found its disk");
}

kernel_dev_t numberOfDevice(Worker &worker, const std::string &name)
{
    for (unsigned attempt = 0; attempt < attempts; attempt++) {
        if (auto number = readNumber(worker, "/sys/class/block/" + name + "/"))
            return *number;
        std::this_thread::sleep_for(pause);
    }
    throw std::runtime_error("the guest has no block device " + name);
}

std::string addDeviceNode(Worker &worker, const std::string &name)
{
    kernel_dev_t number = numberOfDevice(worker, name);
    std::string path = "/dev/" + name;
    if (worker.makeNode(path, S_IFBLK, deviceMajor(number), deviceMinor(number)) != 0)
        throw std::runtime_error("the guest makes no node for the block device " + name);
    return path;
}

} // namespace vm
