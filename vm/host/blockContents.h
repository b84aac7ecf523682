/* What scenarios write: blocks that name their place and generation. */
#pragma once

#include <cstddef>
#include <cstdint>

namespace vm
{

void renderBlock(std::uint32_t block, std::uint64_t generation, unsigned char *to,
                 std::size_t bytes);
// False if it is not a whole block with that number.
bool parseBlock(std::uint32_t block, const unsigned char *from, std::size_t bytes,
                std::uint64_t *generation);

} // namespace vm
