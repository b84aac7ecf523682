#include "blockContents.h"

#include <cstring>
#include <vector>

namespace vm
{
namespace
{

struct Header {
    std::uint64_t block;
    std::uint64_t generation;
};

} // namespace

// Everything after the header follows from it, and no two headers give the same.
void renderBlock(std::uint32_t block, std::uint64_t generation, unsigned char *to,
                 std::size_t bytes)
{
    Header header{block, generation};
    std::memcpy(to, &header, sizeof(header));
    std::uint64_t state = (header.block << 40 ^ generation) + 1;
    for (std::size_t at = sizeof(header); at < bytes; at += sizeof(state)) {
        state = state * 6364136223846793005 + 1442695040888963407;
        std::memcpy(to + at, &state, sizeof(state));
    }
}

bool parseBlock(std::uint32_t block, const unsigned char *from, std::size_t bytes,
                std::uint64_t *generation)
{
    Header header;
    std::memcpy(&header, from, sizeof(header));
    std::vector<unsigned char> expected(bytes);
    renderBlock(block, header.generation, expected.data(), bytes);
    *generation = header.generation;
    return std::memcmp(expected.data(), from, bytes) == 0;
}

} // namespace vm
