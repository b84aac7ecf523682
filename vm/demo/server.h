/* The server that is backed up: a guest with one disk, whose file system programs keep changing. */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "frozenContents.h"
#include "vm/host/blockServer.h"
#include "vm/host/guest.h"
#include "vm/host/guestProgram.h"
#include "vm/host/worker.h"

namespace vm
{

struct ServerOptions {
    std::string kernel;
    std::string kernelModules; // as kernelModules() has it; empty if all is built in
    std::string module;
    std::string guest; // the programs
    std::string writer;
    std::string zelsend;
    std::string image;      // of the disk, with a file system in its first partition
    std::string fileSystem; // "ext3" or "ext4"
    std::string diskKind;   // as GuestOptions has it
};

// What the server's kernel prints, and the emulator, in the current folder.
constexpr const char *kernelLog = "kernel.log";
constexpr const char *emulatorLog = "emulator.log";

// Whatever fails throws.
class Server
{
public:
    // Reads the image, which stays as it is; boots, loads the module and mounts the file system.
    explicit Server(const ServerOptions &options);

    // As the kernel names itself.
    std::string kernel();
    const std::string &node() const { return node_; }
    // What the disk held at each freeze.
    const FrozenContents &frozen() const { return frozen_; }

    void startWriters(unsigned count);
    // How many changes they have made; none may have been refused.
    unsigned long stopWriters();
    std::unique_ptr<GuestProgram> startBackup(const std::string &parent);
    // Unmounts, unloads and ends it. Throws if the kernel has reported a fault, or e2fsck finds one
    // in the file system.
    void end();

private:
    struct Partition {
        std::uint64_t start; // bytes, as the length
        std::size_t length;
    };
    static Partition firstPartition(const Disk &disk);

    Disk disk_;
    const Partition partition_;
    FrozenContents frozen_;
    BlockServer blockServer_;
    std::unique_ptr<Guest> guest_;
    std::unique_ptr<Worker> worker_;
    std::string node_;
    std::vector<std::unique_ptr<GuestProgram>> writers_;
};

} // namespace vm
