#include "hash.h"

#include <new>

namespace zel
{

uint64_t hashOf(std::span<const std::byte> data)
{
    return XXH3_64bits(data.data(), data.size());
}

RunningHash::RunningHash() : state_(XXH3_createState())
{
    if (state_ == nullptr)
        throw std::bad_alloc();
    XXH3_64bits_reset(state_);
}

RunningHash::~RunningHash()
{
    XXH3_freeState(state_);
}

void RunningHash::add(std::span<const std::byte> data)
{
    XXH3_64bits_update(state_, data.data(), data.size());
}

uint64_t RunningHash::value() const
{
    return XXH3_64bits_digest(state_);
}

} // namespace zel
