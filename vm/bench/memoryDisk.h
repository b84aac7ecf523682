/* Disks of the guest that lie in memory, written to by the emulator itself. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vm/host/descriptor.h"

namespace vm
{

// Offsets and lengths are bytes.
class MemoryDisk
{
public:
    // Takes memory only where it has been written to.
    explicit MemoryDisk(std::uint64_t bytes);

    // A partition table with these partitions, which are whole sectors.
    struct Partition {
        std::uint64_t start;
        std::uint64_t bytes;
    };
    void partition(const std::vector<Partition> &partitions);
    // An ext3 file system; needs mke2fs, whose output is in the current folder.
    void makeFileSystem(std::uint64_t start, std::uint64_t bytes);
    // Writes to all of it.
    void fill(std::uint64_t start, std::uint64_t bytes);

    // The emulator's option.
    std::string drive() const;

private:
    std::string path() const;
    void write(std::uint64_t offset, const void *from, std::size_t bytes);

    Descriptor memory_;
};

} // namespace vm
