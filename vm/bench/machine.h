/* The guest that is measured in: its disks, its module and the program that measures. */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "memoryDisk.h"
#include "rotatingDisk.h"
#include "samples.h"
#include "tests/support/agent.h"
#include "vm/host/blockServer.h"
#include "vm/host/guest.h"
#include "vm/host/worker.h"

namespace vm
{

struct MachineOptions {
    std::string kernel;
    std::string kernelModules; // the folder of what of it is not built in, if that matters
    std::string module;
    std::string guest; // the programs
    std::string benchGuest;
    std::string scheduler; // of the disks' requests, as the kernel names it
    unsigned processors = 1;
    bool rotating = false; // whether the disks have moving heads
};

// A device of the guest that transfers go to, and where on it.
struct Area {
    std::string node;
    std::uint64_t start; // bytes
    std::uint64_t bytes;
};

// What the first disk has been asked for.
struct DiskCounts {
    double reads = 0;
    double readBytes = 0;
    double writes = 0;
};

struct Measured {
    double seconds = 0; // all requests together
    // With the start of the program: seconds that the host's processors have worked, and what the
    // first disk was asked for.
    double work = 0;
    DiskCounts disk;
    Samples each; // of a request, in microseconds
};

/*
 * The disks lie in the host's memory. Rotating ones are served by this program, which takes the
 * time that they would; others by the emulator, as fast as it can.
 *
 * The first disk has three partitions: one with a file system on its first part, which is mounted,
 * and behind it an area that the file system does not know; one of that area's size; and one for
 * what a snapshot saves. Two more disks have a file system each that fills them, 1 and 64 GiB.
 */
class Machine
{
public:
    static constexpr std::uint64_t areaBytes = 128u << 20;
    enum Volume { first, small, large };

    // Boots it; needs mke2fs, and makes files in the current folder.
    explicit Machine(const MachineOptions &options);
    // Unmounts and ends it. Throws if the kernel has reported a fault, as all that is done with the
    // guest does if it fails.
    void end();

    bool isRotating() const { return !servers_.empty(); }
    // How much longer than they should the first disk's requests have taken, in milliseconds; of a
    // rotating disk.
    Samples delays() const { return servers_.front()->disk.delays(); }

    Guest &guest() { return *guest_; }
    Worker &worker() { return *worker_; }

    kernel_dev_t device(Volume volume) const { return devices_[volume]; }
    std::string folder(Volume volume) const;
    const Area &area() const { return area_; }     // on the first disk's file system's device
    const Area &origin() const { return origin_; } // of a snapshot
    const Area &store() const { return store_; }   // of what it saves
    const Area &ramStore() const { return ramStore_; }

    void load();
    void unload();

    // Runs the program that measures. Throws if the guest's clock does not go as the host's does.
    Measured measure(const std::vector<std::string> &arguments);
    // Of `requests` of `bytes` in an area, the same so many times over; seed 0 is one after the
    // other, any other at random.
    Measured transfers(const char *kind, const Area &area, std::uint32_t bytes,
                       std::uint32_t requests, std::uint32_t processes, std::uint32_t seed,
                       std::uint32_t times = 1);

    // The number behind the last such text in the kernel's log.
    double logged(const std::string &text) const;
    std::string clockSource();
    // How long a tick of the kernel's clock is, in milliseconds.
    double tick();

private:
    DiskCounts diskCounts();
    std::string addNode(const std::string &disk, unsigned partition, kernel_dev_t *number);
    void mount(Volume volume, const std::string &node);
    // How the emulator gets at the disk.
    std::string drive(MemoryDisk &disk, bool rotating);
    // Makes the system call, which gives a time; in seconds.
    double askClock(long call);

    // The guest's clock, in seconds, at some time between two of the host's.
    struct ClockReading {
        std::chrono::steady_clock::time_point before;
        double guest = 0;
        std::chrono::steady_clock::time_point after;
    };
    ClockReading readClock();
    static void checkClock(const ClockReading &begin, const ClockReading &end);

    struct RotatingServer {
        RotatingServer(MemoryDisk &memory, const std::string &socket)
            : disk(memory), server(disk, socket)
        {
        }
        RotatingDisk disk;
        BlockServer server;
    };

    std::uint32_t moduleBytes_ = 0;
    std::vector<MemoryDisk> disks_;
    // Each serves until the emulator has ended.
    std::vector<std::unique_ptr<RotatingServer>> servers_;
    std::unique_ptr<Guest> guest_;
    std::unique_ptr<Worker> worker_;
    kernel_dev_t devices_[3] = {};
    Area area_;
    Area origin_;
    Area store_;
    Area ramStore_;
};

} // namespace vm
