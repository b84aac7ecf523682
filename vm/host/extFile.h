/* Looks into an ext3 or ext4 file system that is not mounted. */
#pragma once

#include <cstdint>
#include <vector>

namespace vm
{

// The blocks of the first file that was made in a fresh file system with less than 2^32 blocks,
// in the file's order and without those that hold block numbers. `image` begins with the file
// system.
std::vector<std::uint32_t> firstFilesBlocks(const std::vector<unsigned char> &image);

std::uint32_t freeBlocks(const std::vector<unsigned char> &image);

// Whether these bytes of a superblock are those of a file system that is in use: it says so as
// long as it is mounted, except while it is frozen.
bool inUse(const unsigned char *superblock);

constexpr std::uint64_t superblockOffset = 1024;
constexpr std::uint64_t superblockBytes = 1024;
// How many blocks of an ext3 file come before the first one that holds block numbers.
constexpr std::uint32_t directBlocks = 12;

} // namespace vm
