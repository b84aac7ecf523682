/* From a point back to an image of the device. */
#pragma once

#include "console.h"
#include "imageOutput.h"
#include "repository.h"

namespace zel
{

struct Restored {
    uint64_t imageBytes = 0;
    uint64_t dataBytes = 0;    // of the image, that are not zero
    uint64_t unreadBlocks = 0; // zeros in place of what the backup could not read
    size_t chainLength = 0;
};

// Writes the device as it was at `point` to `output` and finishes it. Everything that is written
// was checked. Throws Error; then finish() was not called.
Restored restore(const Repository &repository, const Point &point, ImageOutput &output,
                 Console &console);

} // namespace zel
