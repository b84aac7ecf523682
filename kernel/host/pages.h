/* Page frames and their mappings. */
#pragma once

#include <atomic>
#include <cstddef>

#include "internal.h"

/* One page frame; all fields 0 while it was never used. */
struct page {
    std::atomic<int> count; // references
    bool used;
    bool freedBefore; // its bytes are poison
    bool host;
    unsigned char order; // of the block that begins here
    std::atomic<int> kmaps;
    std::atomic<void *> window; // where a high page is mapped
    host::HeldRecord held;
    host::HeldRecord kmapHeld;
};

namespace host
{

constexpr unsigned char freshByte = 0x5a;  // new memory is full of it
constexpr unsigned char poisonByte = 0x6b; // freed memory is full of it

void startPages(unsigned lowPages, unsigned highPages);
void endPages();
// The first byte that is no poison, or `bytes`.
std::size_t findDamage(const unsigned char *memory, std::size_t bytes);

} // namespace host
