#include "blockBits.h"

#include <string.h>

namespace zelsend
{

bool BlockBits::create(uint32_t blocks)
{
    blocks_ = blocks;
    return memory_.allocate(size());
}

void BlockBits::setAll()
{
    memset(data(), 0xff, size());
    clearTail();
}

void BlockBits::merge(const BlockBits &other)
{
    for (size_t i = 0; i < size(); i++) {
        data()[i] |= other.data()[i];
    }
}

void BlockBits::clearTail()
{
    if (blocks_ % 8 != 0) {
        data()[size() - 1] &= static_cast<uint8_t>((1U << (blocks_ % 8)) - 1);
    }
}

uint32_t BlockBits::count() const
{
    uint32_t count = 0;
    for (size_t i = 0; i < size(); i++) {
        count += static_cast<uint32_t>(__builtin_popcount(data()[i]));
    }
    return count;
}

uint32_t BlockBits::findSet(uint32_t from) const
{
    uint32_t block = from;
    while (block < blocks_) {
        uint32_t rest = static_cast<uint32_t>(data()[block / 8]) >> (block % 8);
        if (rest != 0) {
            return block + static_cast<uint32_t>(__builtin_ctz(rest));
        }
        uint32_t step = 8 - block % 8;
        if (step >= blocks_ - block) {
            break;
        }
        block += step;
    }
    return blocks_;
}

} // namespace zelsend
