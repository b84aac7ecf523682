/* From a stream to a point. */
#pragma once

#include "byteSource.h"
#include "console.h"
#include "repository.h"

namespace zel
{

struct Received {
    Point point;
    uint32_t sentBlocks = 0; // what the stream brought
    uint64_t streamBytes = 0;
};

// Reads one whole stream and stores its point under `name` (empty: made up from device and time)
// in the repository at `path`, which is made if there is nothing. Throws Error; then nothing has
// changed in the repository.
Received receive(ByteSource &source, const std::filesystem::path &path, const std::string &name,
                 Console &console);

} // namespace zel
