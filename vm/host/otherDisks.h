/* What the module does with disks that are not the guest's own: kinds that it must refuse, and one
 * that leads to another. */
#pragma once

#include <vector>

#include "selfChecks.h"

namespace vm
{

std::vector<GuestScenario> otherDiskScenarios();

} // namespace vm
