/* What changed between two points. */
#pragma once

#include "console.h"
#include "repository.h"

#include <functional>

namespace zel
{

// Calls `report(first, count)` in ascending order for each run of blocks that is not the same in
// both, and returns how many blocks those are. A block that one of the backups could not read is
// different, unless both have it from the same point. Throws Error: usage if the two are of
// different geometry.
uint64_t diff(const Repository &repository, const Point &a, const Point &b,
              const std::function<void(uint64_t first, uint64_t count)> &report, Console &console);

} // namespace zel
