/* A small seeded generator of random numbers; the same seed gives the same numbers everywhere. */
#pragma once

#include <cstdint>

namespace host
{

class Random
{
public:
    explicit Random(std::uint64_t seed = 1) : state_(seed) {}

    std::uint64_t next()
    {
        state_ += 0x9e3779b97f4a7c15;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

    // Evenly from 0 to bound - 1, for bounds far below 2^32.
    std::uint32_t below(std::uint32_t bound)
    {
        return static_cast<std::uint32_t>(((next() >> 32) * bound) >> 32);
    }

private:
    std::uint64_t state_;
};

} // namespace host
