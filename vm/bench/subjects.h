/* What is measured. Each prints a table, and says which goals there are for it. */
#pragma once

#include <string>
#include <vector>

#include "machine.h"
#include "samples.h"

namespace vm
{

struct Goal {
    std::string what;
    Samples byRate; // the ratios of each round: of requests a second, and
    Samples byWork; // of requests that the same processor time is enough for
    double least;   // that the median of the former has to reach; 0 where there is no goal
};
using Goals = std::vector<Goal>;

// Writes to a device that the module has nothing to do with, tracks, or backs up, and to one of
// which the kernel's device mapper has a snapshot.
Goals measureWrites(Machine &machine, unsigned rounds);
// A backup's reads and plain ones.
Goals measureReads(Machine &machine, unsigned rounds);
// For how long a snapshot freezes a small and a large file system, in milliseconds.
struct FreezeTimes {
    Samples small;
    Samples large;
    double tick = 0; // of the clock that they are measured with
};
FreezeTimes measureFreezes(Machine &machine, unsigned rounds);

} // namespace vm
