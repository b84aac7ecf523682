#include "guestDisk.h"

#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>

namespace vm
{

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
    constexpr unsigned attempts = 100;
    constexpr std::chrono::milliseconds pause{100};
    if (!hasDriver(worker.read("/proc/devices"), diskKind))
        throw NoDriver("the kernel has no driver for disks of kind " + diskKind);
    for (unsigned attempt = 0; attempt < attempts; attempt++) {
        for (std::string name : {"hda", "sda", "vda"}) {
            GuestDisk disk{"/sys/block/" + name, {}};
            for (unsigned partition : partitions) {
                std::string folder = disk.folder + "/";
                if (partition != 0)
                    folder += name + std::to_string(partition) + "/";
                unsigned major = 0;
                unsigned minor = 0;
                if (std::sscanf(worker.read(folder + "dev").c_str(), "%u:%u", &major, &minor) != 2)
                    break;
                disk.numbers.push_back(major << 20 | minor);
            }
            if (disk.numbers.size() == partitions.size())
                return disk;
        }
        std::this_thread::sleep_for(pause);
    }
    throw std::runtime_error("the guest has not found its disk");
}

} // namespace vm
