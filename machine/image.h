/* Making the disk image of a machine: an MBR, one partition, a real ext file system with files. */
#pragma once

#include <cstdint>
#include <string>

namespace machine
{

struct ImageOptions {
    std::string file;
    std::uint64_t mebibytes = 512;    // of the whole disk
    std::string fill;                 // a directory tree to fill the file system with; may be empty
    std::string kind = "ext4";        // ext2, ext3 or ext4
    unsigned blockSize = 4096;        // 1024, 2048 or 4096
    std::uint64_t firstSector = 2048; // of the partition
};

// Runs the real mke2fs. The image appears under its name only when it is whole. Throws
// std::runtime_error with what went wrong.
void createImage(const ImageOptions &options);

} // namespace machine
