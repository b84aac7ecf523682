/* One backup, from the snapshot to the end of the stream. */
#pragma once

#include "device.h"
#include "options.h"
#include "outcome.h"
#include "report.h"

namespace zelsend
{

/* Backs up options.major:options.minor as the options say and writes the stream to `output`. Also
 * FellShort where the stream is whole but some blocks could not be read. */
Outcome backUp(const Device &device, const Options &options, int output, Report *report);

} // namespace zelsend
