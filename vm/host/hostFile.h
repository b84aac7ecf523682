/* Files of the machine that the emulator runs on. */
#pragma once

#include <string>

namespace vm
{

// What a file has; throws std::runtime_error where it cannot be read.
std::string contentsOf(const std::string &path);

} // namespace vm
