/* Looks for damage in what is stored. */
#pragma once

#include "console.h"
#include "repository.h"

#include <string>
#include <vector>

namespace zel
{

struct Verified {
    std::string name;
    std::vector<std::string> problems; // none: the point is as it was written
    uint64_t bytes = 0;                // read
    uint64_t unreadBlocks = 0;         // the backup could not read; no damage
};

// Reads all of a point, its own files only. Of many damaged chunks the first ones are named.
Verified verifyPoint(const Point &point, Console &console);

} // namespace zel
