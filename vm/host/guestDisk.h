/* The guest's disk as its kernel knows it. */
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <kernel/types.h>

#include "worker.h"

namespace vm
{

// The guest's kernel has no driver for disks of that kind, so that nothing can be tried with one.
class NoDriver : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Whether a kernel that lists these devices (as in its /proc/devices) has a driver for disks of a
// kind, as GuestOptions has it.
bool hasDriver(const std::string &devices, const std::string &diskKind);

struct GuestDisk {
    std::string folder;                // in the guest's /sys
    std::vector<kernel_dev_t> numbers; // of the partitions, in the order that they were asked for
};

// Waits until the kernel has found the disk with these partitions (0: the whole disk); its name and
// their numbers differ with its kind and the kernel. Throws NoDriver, or std::runtime_error where
// it is not found.
GuestDisk findDisk(Worker &worker, const std::string &diskKind,
                   const std::vector<unsigned> &partitions);

// The number of a block device, by the name that the guest's kernel has or will soon have for it.
// Throws std::runtime_error where it has none.
kernel_dev_t numberOfDevice(Worker &worker, const std::string &name);
// Its new node in the guest.
std::string addDeviceNode(Worker &worker, const std::string &name);

} // namespace vm
