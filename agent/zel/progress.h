/* How far a long command is. */
#pragma once

#include "console.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace zel
{

class Progress
{
public:
    // `label` says what is being done, `total` is in bytes. `console` must outlive this.
    Progress(Console &console, std::string label, uint64_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // `done` bytes of the total are. Draws at most ten times a second, answers SIGUSR1, and
    // throws Error (interrupted) when the user wants to end: call it often.
    void update(uint64_t done);

private:
    using Clock = std::chrono::steady_clock;
    std::string bar(uint64_t done, Clock::duration elapsed) const;
    std::string line(uint64_t done) const;

    Console &console_;
    std::string label_;
    uint64_t total_;
    bool shown_;
    Clock::time_point start_;
    Clock::time_point drawn_;
};

} // namespace zel
