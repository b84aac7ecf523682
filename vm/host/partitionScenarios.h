/* What the kernel does with the partition table of a disk that the module has hooked. */
#pragma once

#include <vector>

#include "selfChecks.h"

namespace vm
{

std::vector<GuestScenario> partitionScenarios();

} // namespace vm
