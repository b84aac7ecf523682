/* One bit for each block of a device, in the layout that the module exchanges. */
#pragma once

#include "lowMemory.h"

namespace zelsend
{

/* Block b is bit b % 8 of byte b / 8. Bits from the block count on are always zero. */
class BlockBits
{
public:
    /* All clear, for `blocks` (at least 1) blocks. False: out of memory. */
    bool create(uint32_t blocks);

    uint32_t blocks() const { return blocks_; }
    uint8_t *data() const { return static_cast<uint8_t *>(memory_.data()); }
    size_t size() const { return blocks_ / 8 + (blocks_ % 8 != 0 ? 1 : 0); }

    bool test(uint32_t block) const { return (data()[block / 8] >> (block % 8) & 1) != 0; }
    void set(uint32_t block) { data()[block / 8] |= static_cast<uint8_t>(1U << (block % 8)); }
    void clear(uint32_t block) { data()[block / 8] &= static_cast<uint8_t>(~(1U << (block % 8))); }

    void setAll();
    /* Sets what is set in `other`, which covers the same number of blocks. */
    void merge(const BlockBits &other);
    /* After bytes came from elsewhere: makes the bits beyond the last block zero again. */
    void clearTail();

    uint32_t count() const;
    /* The first block from `from` on that is set; blocks() if there is none. */
    uint32_t findSet(uint32_t from) const;

private:
    LowMemory memory_;
    uint32_t blocks_ = 0;
};

} // namespace zelsend
