/* The partition table of a master boot record: four primary partitions. */
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <host/block.h>

namespace host
{

using BootSector = std::array<unsigned char, 512>;

// Its primary partitions by number; none if it is no master boot record. Extended partitions are
// left out.
std::vector<Partition> parsePartitionTable(const BootSector &sector);
// Replaces the table in `sector` and leaves the boot code alone. Throws std::invalid_argument if a
// partition's number is not 1 to 4 or it does not fit the table's 32 bits.
void writePartitionTable(BootSector &sector, const std::vector<Partition> &partitions);

} // namespace host
