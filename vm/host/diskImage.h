/* The contents that the guest's disk starts with. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "scenario/scenario.h"

namespace vm
{

// A device of the disk: a partition, or the whole disk, with a file system that one file fills
// up to the last block.
struct Volume {
    unsigned partition = 0; // 0: the whole disk
    std::uint64_t startSector = 0;
    std::uint64_t sectors = 0;
    unsigned blockSize = 0;
    std::uint32_t blocks = 0;              // whole ones
    std::vector<std::uint32_t> fileBlocks; // of the file, in its order
};

struct DiskImage {
    std::vector<unsigned char> bytes;
    std::vector<Volume> volumes;
};

// The name of the file in each volume.
constexpr const char *volumeFile = "data";

// Whether e2fsck finds nothing wrong with a file system that was unmounted; what it finds is in
// its log in the current folder.
bool soundFileSystem(const std::vector<unsigned char> &contents);

// Each device has the layout's size and, above it, what a journal takes. `fileSystem` is "ext3" or
// "ext4". Needs mke2fs, and makes files in the current folder.
DiskImage makeDiskImage(const scenario::Layout &layout, const std::string &fileSystem);

} // namespace vm
