// What this program is when it is not the first process: programs to try the running of programs
// on.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "guest.h"

namespace vm
{
namespace
{

// Shows a variable of its environment; standard input must be empty.
int show(const char *name)
{
    char byte;
    const char *value = getenv(name);
    printf("%s=%s", name, value != nullptr ? value : "");
    return fflush(stdout) == 0 && read(STDIN_FILENO, &byte, 1) == 0 ? 0 : 1;
}

// Writes so many numbers, 0, 1, 2, ..., four bytes each.
int count(uint32_t numbers)
{
    constexpr uint32_t atOnce = 16384;
    static uint32_t buffer[atOnce];
    for (uint32_t next = 0; next < numbers;) {
        uint32_t length = 0;
        while (length < atOnce && next < numbers)
            buffer[length++] = next++;
        if (write(STDOUT_FILENO, buffer, 4 * length) != static_cast<ssize_t>(4 * length))
            return 1;
    }
    return 0;
}

} // namespace

int runSample(int arguments, char **argument)
{
    if (arguments != 3)
        return 2;
    int code = 2;
    if (strcmp(argument[1], "show") == 0)
        code = show(argument[2]);
    else if (strcmp(argument[1], "count") == 0)
        code = count(static_cast<uint32_t>(strtoul(argument[2], nullptr, 10)));
    else if (strcmp(argument[1], "exit") == 0)
        code = atoi(argument[2]);
    dprintf(STDERR_FILENO, "%s: %d\n", argument[1], code);
    return code;
}

} // namespace vm
