/* One run of the emulator. */
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace vm
{

// The process ends with this object, and with the thread that made it, whatever happens.
class Emulator
{
public:
    // Its own messages are appended to the file `log`.
    Emulator(const std::vector<std::string> &arguments, const std::string &log);
    ~Emulator();
    Emulator(const Emulator &) = delete;

    // Waits for its end for at most so long; whether it has ended.
    bool waitEnd(unsigned milliseconds);
    // Seconds that processors of the host have worked for it so far.
    double processorTime() const;

private:
    pid_t pid_;
    bool ended_ = false;
};

} // namespace vm
