/* Which blocks of a device have been seen: a bit per block, but only where it is needed. A region
 * of which no block or every block is in the set takes no memory of its own. */
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace zel
{

class BlockSet
{
public:
    explicit BlockSet(uint64_t numBlocks);

    // Adds `count` blocks from `first` on. False if one of them was in the set, which then is not
    // to be used any more. The range must lie within the device.
    bool insert(uint64_t first, uint64_t count);

private:
    static constexpr uint64_t blocksPerRegion = 1U << 15;
    struct Region {
        uint32_t count = 0; // of blocks in the set
        // None while the region is empty or full.
        std::unique_ptr<std::array<uint64_t, blocksPerRegion / 64>> bits;
    };
    bool insertInRegion(Region &region, uint64_t first, uint64_t count);

    std::vector<Region> regions_;
};

} // namespace zel
