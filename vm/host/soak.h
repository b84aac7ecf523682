/* The module loaded, used and unloaded again and again in one boot: nothing of it may stay. */
#pragma once

#include <vector>

#include "selfChecks.h"

namespace vm
{

// With this many cycles.
std::vector<GuestScenario> soakScenarios(unsigned cycles);

} // namespace vm
