#include "outcome.h"

#include <stdarg.h>
#include <stdio.h>

namespace zelsend
{

Outcome failure(ExitCode code, const char *format, ...)
{
    Outcome outcome;
    outcome.code = code;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(outcome.text, sizeof(outcome.text), format, arguments);
    va_end(arguments);
    return outcome;
}

} // namespace zelsend
