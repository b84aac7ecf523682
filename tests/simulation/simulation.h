/*
 * One random run of a small machine under the deterministic scheduler: writers that keep changing
 * one or two file systems, an agent that backs them up, other users of the control device that get
 * in its way, and faults. A model knows what every block held at every freeze.
 */
#pragma once

#include <cstdint>
#include <string>

namespace simulation
{

struct Result {
    std::string failure;       // empty: everything was as it must be
    unsigned points = 0;       // backups that were whole and compared
    unsigned incrementals = 0; // of these
    unsigned spoilt = 0;       // backups that the module or the agent gave up
    unsigned faults = 0;       // injected
};

// Everything follows from the seed. With `trace`, each step goes to standard error.
Result simulate(std::uint64_t seed, bool trace = false);

} // namespace simulation
