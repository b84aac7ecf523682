/* Modules that must not be loaded, since they were made for another kernel; programs that must not
 * command one, since they have longer addresses. */
#pragma once

#include <vector>

#include "selfChecks.h"

namespace vm
{

std::vector<GuestScenario> refusalScenarios();

} // namespace vm
