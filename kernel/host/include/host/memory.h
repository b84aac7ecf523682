/* Accounting of the module's memory. */
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct page;

namespace host
{

struct MemoryUse {
    unsigned pages = 0;     // alloc_pages not yet freed
    unsigned highPages = 0; // of these
    unsigned kmallocs = 0;  // objects
    std::size_t kmallocBytes = 0;
    unsigned vmallocs = 0;
    unsigned caches = 0; // slab caches
    unsigned cacheObjects = 0;
    unsigned bufferHeads = 0;
    unsigned bios = 0;  // of bio_alloc by the module
    unsigned kmaps = 0; // not yet kunmapped
    bool operator==(const MemoryUse &) const = default;
};

// What the module holds now; the host's own memory is not in it.
MemoryUse memoryUse();
// One line for each thing held, with where it was allocated.
std::vector<std::string> memoryHeld();
// Takes what is held now off the account (a leak that is known and accepted by name in a test).
void forgiveHeldMemory();

// Pages for the host's own use (bios of file systems and processes): never made to fail, not on the
// module's account. `high` asks for high memory.
struct page *allocHostPage(bool high = false);
void freeHostPage(struct page *page);
// The bytes of a page, high or low, mapped or not.
unsigned char *pageBytes(struct page *page);
// All pages are one shared memory file: its descriptor and a page's offset in it.
int pageMemoryFile();
std::size_t pageFileOffset(struct page *page);

} // namespace host
