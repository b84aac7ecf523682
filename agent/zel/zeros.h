/* Blocks that contain nothing. */
#pragma once

#include <cstddef>
#include <cstring>
#include <span>

namespace zel
{

inline bool isZero(std::span<const std::byte> data)
{
    // Every byte is zero if the first is and each equals its neighbour.
    return data.empty() || (data[0] == std::byte{0} &&
                            std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0);
}

} // namespace zel
