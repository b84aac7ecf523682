/* Writers that give a device no rest. */
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "scenario.h"

namespace scenario
{

// Tasks that write here and there, through the file systems, for as long as this lives.
class Storm
{
public:
    // The writers are dealt out to the first devices in turn.
    Storm(Environment &env, unsigned writers, unsigned devices = 1);
    ~Storm() { stop_ = true; }
    Storm(const Storm &) = delete;
    Storm &operator=(const Storm &) = delete;

    // Waits until this many more writes have ended; throws if a writer gave up.
    void awaitWrites(unsigned more);
    // Waits until no write has ended for so long, as where something below holds all writers.
    void awaitStandstill(unsigned microseconds);
    // Waits for the writers; throws what one of them threw.
    void end();

private:
    void blow(unsigned device, unsigned seed);

    Environment &env_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> failed_{false};
    std::atomic<unsigned> writes_{0};
    std::vector<std::unique_ptr<Environment::Background>> tasks_; // waited for first
};

} // namespace scenario
