/* What can be done to a scenario's process from outside. */
#pragma once

#include <host/process.h>

namespace vm
{

// Ends it with all that this closes, whatever it does; what it is asked to do is not done any more.
void kill(host::Process &process);

} // namespace vm
