#include "blockSet.h"

#include <algorithm>

namespace zel
{

BlockSet::BlockSet(uint64_t numBlocks)
    : regions_((numBlocks + blocksPerRegion - 1) / blocksPerRegion)
{
}

bool BlockSet::insert(uint64_t first, uint64_t count)
{
    while (count > 0) {
        uint64_t within = first % blocksPerRegion;
        uint64_t part = std::min(count, blocksPerRegion - within);
        if (!insertInRegion(regions_[first / blocksPerRegion], within, part))
            return false;
        first += part;
        count -= part;
    }
    return true;
}

bool BlockSet::insertInRegion(Region &region, uint64_t first, uint64_t count)
{
    if (region.count + count > blocksPerRegion)
        return false;
    region.count += static_cast<uint32_t>(count);
    if (count == blocksPerRegion)
        return true;
    if (region.bits == nullptr)
        region.bits = std::make_unique<std::array<uint64_t, blocksPerRegion / 64>>();
    for (uint64_t end = first + count; first < end;) {
        uint64_t bit = first % 64;
        uint64_t part = std::min(end - first, 64 - bit);
        uint64_t mask = (part == 64 ? ~uint64_t{0} : (uint64_t{1} << part) - 1) << bit;
        uint64_t &word = (*region.bits)[first / 64];
        if ((word & mask) != 0)
            return false;
        word |= mask;
        first += part;
    }
    if (region.count == blocksPerRegion)
        region.bits.reset();
    return true;
}

} // namespace zel
