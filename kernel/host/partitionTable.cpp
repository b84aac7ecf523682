#include "partitionTable.h"

#include <algorithm>
#include <stdexcept>

namespace host
{

namespace
{

constexpr unsigned tableOffset = 446;
constexpr unsigned entryBytes = 16;
constexpr unsigned entries = 4;
constexpr unsigned char typeLinux = 0x83;

std::uint32_t load32(const unsigned char *bytes)
{
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

void store32(unsigned char *bytes, std::uint64_t value)
{
    for (unsigned i = 0; i < 4; i++)
        bytes[i] = static_cast<unsigned char>(value >> 8 * i);
}

bool isExtended(unsigned char type)
{
    return type == 0x05 || type == 0x0f || type == 0x85;
}

} // namespace

std::vector<Partition> parsePartitionTable(const BootSector &sector)
{
    std::vector<Partition> result;
    if (sector[510] != 0x55 || sector[511] != 0xaa)
        return result;
    for (unsigned i = 0; i < entries; i++) {
        // The boot flag of a table is one of two values; other boot sectors have code there.
        if (sector[tableOffset + i * entryBytes] & 0x7f)
            return {};
        const unsigned char *entry = &sector[tableOffset + i * entryBytes];
        std::uint32_t sectors = load32(entry + 12);
        if (entry[4] != 0 && !isExtended(entry[4]) && sectors != 0)
            result.push_back({i + 1, load32(entry + 8), sectors});
    }
    return result;
}

void writePartitionTable(BootSector &sector, const std::vector<Partition> &partitions)
{
    std::fill(sector.begin() + tableOffset, sector.end(), 0);
    for (const Partition &partition : partitions) {
        if (partition.number < 1 || partition.number > entries || partition.start > UINT32_MAX ||
            partition.sectors > UINT32_MAX)
            throw std::invalid_argument("a partition that a master boot record cannot hold");
        unsigned char *entry = &sector[tableOffset + (partition.number - 1) * entryBytes];
        entry[4] = typeLinux;
        store32(entry + 8, partition.start);
        store32(entry + 12, partition.sectors);
    }
    sector[510] = 0x55;
    sector[511] = 0xaa;
}

} // namespace host
