/* The guest's only program: the first process of a real kernel, and all others. */
#pragma once

#include <stdint.h>

#include "../protocol.h"

namespace vm
{

// What all processes inherit.
struct Shared {
    Table *table;
    int sleepers[slots]; // where a slot's process waits for a byte, and where it is put
    int wakers[slots];
};

// Maps the memory that is shared with the driver, and opens the ways to it and between processes.
Shared openShared();
// Tells the driver.
void ring(uint32_t byte);

// Serve requests for ever; the dispatcher hands on those of others.
[[noreturn]] void dispatch(const Shared &shared);
[[noreturn]] void serve(const Shared &shared, uint32_t slot);

// A program to try the running of programs on: its exit code.
int runSample(int arguments, char **argument);

// Says on the console what went wrong, and ends the machine.
[[noreturn]] void fail(const char *what);

} // namespace vm
