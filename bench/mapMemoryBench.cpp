/* What block maps take of the kernel's memory. */
#include <cstdio>

#include <host/memory.h>

#include "subjects.h"
#include "zellib.h"

namespace bench
{
namespace
{

constexpr std::uint64_t blocksPerPage = std::uint64_t{PAGE_SIZE} * 8;

// Bytes of all vmalloc ranges that the module holds.
std::size_t vmallocBytes()
{
    std::size_t sum = 0;
    for (const std::string &line : host::memoryHeld()) {
        std::size_t bytes;
        if (std::sscanf(line.c_str(), "vmalloc of %zu bytes", &bytes) == 1)
            sum += bytes;
    }
    return sum;
}

bool checkSize(unsigned blocks)
{
    host::MemoryUse before = host::memoryUse();
    std::size_t tableBefore = vmallocBytes();
    BlockMap map{};
    unsigned made = 0;
    if (newBlockMap(&map, blocks, nullptr, 1, &made) != 0) {
        std::printf("map of %u blocks: no memory\n", blocks);
        return false;
    }
    host::MemoryUse use = host::memoryUse();
    std::size_t table = vmallocBytes() - tableBefore;
    unsigned pages = use.pages - before.pages;
    unsigned freed = 0;
    closeBlockMap(&map, &freed);

    auto needed = static_cast<unsigned>((blocks + blocksPerPage - 1) / blocksPerPage);
    // Nothing besides: the same account but for these pages and the one table.
    host::MemoryUse expected = before;
    expected.pages += needed;
    expected.highPages = use.highPages; // which of the pages are high is the kernel's choice
    expected.vmallocs++;
    bool exact = use == expected && table == needed * sizeof(void *) &&
                 host::memoryUse() == before && vmallocBytes() == tableBefore && freed == needed &&
                 made == needed;
    std::printf(
        "  map of %8u blocks: %4u pages (%u needed), table of %5zu bytes (%zu needed): %s\n",
        blocks, pages, needed, table, needed * sizeof(void *), exact ? "exact" : "WRONG");
    return exact;
}

} // namespace

bool checkMapMemory()
{
    std::printf("Memory of block maps: one bit a block in whole pages of %lu blocks, one pointer "
                "a page\n",
                static_cast<unsigned long>(blocksPerPage));
    bool exact = true;
    for (unsigned blocks : {1u, 32768u, 32769u, 1u << 20, (1u << 20) + 1, 10'000'000u})
        exact = checkSize(blocks) && exact;
    return exact;
}

} // namespace bench
