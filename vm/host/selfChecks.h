/* Checks of the environment itself, which need no module: it must see what scenarios rely on. */
#pragma once

#include "environment.h"

namespace vm
{

// A scenario, of this environment only.
struct GuestScenario {
    std::string name;
    scenario::Layout layout;
    std::function<void(Environment &)> run; // throws scenario::Failure
    std::chrono::seconds longer{0};         // than the time that any scenario has
    unsigned mebibytes = 1024;              // of the guest's memory, with a kernel of 32 bits
    unsigned mebibytesWith64Bits = 1024;
    std::string failing = {}; // as scenario::Scenario has it
    bool needs64Bits = false; // of the kernel
    // Of Debian's kernel, to be loaded at the start; parameters may stand behind a name and a
    // space.
    std::vector<std::string> drivers = {};
    std::string kernelOptions = {}; // as GuestOptions has them
};

std::vector<GuestScenario> selfChecks();

} // namespace vm
