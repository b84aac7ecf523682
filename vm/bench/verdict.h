/* Whether what was measured reaches what it should. */
#pragma once

#include "subjects.h"

namespace vm
{

// By rate, of a goal that has a least ratio. Where the quartiles lie on both sides of the goal, the
// rounds differ too much to tell.
const char *verdict(const Goal &goal);
// That the large file system is frozen for no longer than the small one, but for a tick of the
// clock.
const char *verdict(const FreezeTimes &times);

} // namespace vm
