/* The program between its command line and its exit code. */
#pragma once

#include "device.h"
#include "options.h"
#include "outcome.h"

namespace zelsend
{

/* Does what the options of a backup or a confirmation say on `device`; the stream goes to the file
 * descriptor `output`, messages (that of a failure included) to `messages`. */
ExitCode runZelsend(Options options, const Device &device, int output, int messages);

} // namespace zelsend
