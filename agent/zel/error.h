/* What a command of `zel` answers with when it cannot go on. */
#pragma once

#include <stdexcept>
#include <string>

namespace zel
{

// The exit codes that zelsend and zel share (docs/zel.md).
enum class ExitCode : int {
    ok = 0,
    usage = 1,     // an argument, name or file that does not fit
    corrupt = 2,   // something differs or is damaged
    fellShort = 3, // done, but not all of it could be had; or it could not be finished
    interrupted = 130,
};

// One line for the user and the exit code that goes with it.
class Error : public std::runtime_error
{
public:
    Error(ExitCode code, const std::string &message) : std::runtime_error(message), exitCode(code)
    {
    }
    const ExitCode exitCode;
};

} // namespace zel
