/* The command line of zel. */
#pragma once

#include "byteSource.h"

#include <ostream>
#include <string>
#include <vector>

namespace zel
{

// Runs one command, `arguments` without the program's name. `input` is what `receive` reads.
// Returns the exit code; never throws.
int runCommand(const std::vector<std::string> &arguments, ByteSource &input, std::ostream &out,
               std::ostream &err);

} // namespace zel
