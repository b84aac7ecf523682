/* How a step of zelsend ended: well, or with an exit code and one line for the user. */
#pragma once

namespace zelsend
{

enum class ExitCode : int {
    Ok = 0,
    Usage = 1,         // bad arguments
    Corrupt = 2,       // something differs or is damaged
    FellShort = 3,     // not all of it could be done: unreadable blocks, a spoilt backup, no space
    Refused = 4,       // the device or the module refused
    Interrupted = 130, // by a signal
};

struct [[nodiscard]] Outcome {
    ExitCode code = ExitCode::Ok;
    char text[240] = "";

    explicit operator bool() const { return code == ExitCode::Ok; }
};

/* An outcome with a text as of printf, without a newline; cut where it is too long. */
[[gnu::format(printf, 2, 3)]] Outcome failure(ExitCode code, const char *format, ...);

} // namespace zelsend
