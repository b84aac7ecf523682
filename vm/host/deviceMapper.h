/* Devices that the kernel makes of others, its own snapshots among them. */
#pragma once

#include <cstdint>
#include <string>

#include "vm/host/guest.h"
#include "vm/host/worker.h"

namespace vm
{

// Whether the guest's kernel can make both devices of a snapshot.
bool hasSnapshots(Guest &guest);

// A device that the kernel's device mapper makes.
class MappedDevice
{
public:
    // With one target for all of its sectors, and a node in the guest.
    MappedDevice(Guest &guest, const std::string &name, std::uint64_t sectors,
                 const std::string &target, const std::string &parameters);
    ~MappedDevice();
    MappedDevice(const MappedDevice &) = delete;

    std::string node() const { return "/dev/" + name_; }
    // What its target says of itself.
    std::string status();

private:
    friend class Suspension;
    struct Command;
    int run(std::uint32_t number, Command &command);
    int setSuspended(std::uint32_t flags);

    GuestProcess process_;
    const std::string name_;
    int control_ = -1;
};

// The device finishes what it has been given and then puts all bios aside, for as long as this
// lives. A file system on it is not frozen for that.
class Suspension
{
public:
    explicit Suspension(MappedDevice &device);
    ~Suspension();
    Suspension(const Suspension &) = delete;

private:
    MappedDevice &device_;
};

// A device with a snapshot, which saves the old contents of what is written to it.
class SnappedDevice
{
public:
    // The blocks of `origin` are saved to `store`, whose first block is zero if it is to outlive
    // the machine ("P"; "N" if not), in chunks of so many sectors.
    SnappedDevice(Guest &guest, const std::string &origin, std::uint64_t sectors,
                  const std::string &store, const char *persistence, unsigned chunkSectors);

    // What to write to, in place of the origin.
    std::string node() const { return origin_.node(); }
    // Sectors of the store that are in use; throws if the snapshot has been given up.
    std::uint64_t savedSectors();

private:
    MappedDevice snapshot_; // before the origin, which splits what it is given by its snapshots
    MappedDevice origin_;
};

} // namespace vm
