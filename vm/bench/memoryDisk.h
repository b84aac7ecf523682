/* Disks of the guest that lie in memory. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vm/host/blockStorage.h"
#include "vm/host/descriptor.h"

namespace vm
{

// Offsets and lengths are bytes.
class MemoryDisk : public BlockStorage
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

    std::uint64_t size() const override { return bytes_; }
    int read(std::uint64_t offset, void *to, std::size_t bytes) override;
    int write(std::uint64_t offset, const void *from, std::size_t bytes) override;

    // The emulator's option, for a disk that it reads and writes itself.
    std::string drive() const;

private:
    std::string path() const;
    void put(std::uint64_t offset, const void *from, std::size_t bytes);

    std::uint64_t bytes_;
    Descriptor memory_;
};

} // namespace vm
