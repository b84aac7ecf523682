/* Scenarios of the agent that users have: zelsend in the guest, zel on this side. */
#pragma once

#include <string>
#include <vector>

#include "selfChecks.h"

namespace vm
{

// `zel` is the path of that program.
std::vector<GuestScenario> zelsendScenarios(const std::string &zel);

} // namespace vm
