/* What a block server offers. */
#pragma once

#include <cstddef>
#include <cstdint>

namespace vm
{

// Offsets and lengths are bytes. Accesses give 0 or an errno value: EINVAL past the end.
class BlockStorage
{
public:
    virtual ~BlockStorage() = default;
    virtual std::uint64_t size() const = 0;
    virtual int read(std::uint64_t offset, void *to, std::size_t bytes) = 0;
    virtual int write(std::uint64_t offset, const void *from, std::size_t bytes) = 0;
};

} // namespace vm
