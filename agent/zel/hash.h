/* The checksum of the repository: XXH3, 64 bits. It finds damage, not forgery. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <xxhash.h>

namespace zel
{

uint64_t hashOf(std::span<const std::byte> data);

// The same over data that arrives in pieces.
class RunningHash
{
public:
    RunningHash();
    RunningHash(const RunningHash &) = delete;
    RunningHash &operator=(const RunningHash &) = delete;
    ~RunningHash();

    void add(std::span<const std::byte> data);
    uint64_t value() const;

private:
    XXH3_state_t *state_;
};

} // namespace zel
