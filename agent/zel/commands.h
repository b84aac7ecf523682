/* The commands of zel: each does its work through the repository library and says what came of
 * it. They return the exit code, or throw Error. */
#pragma once

#include "byteSource.h"
#include "console.h"

#include <string>
#include <vector>

namespace zel
{

ExitCode receiveCommand(ByteSource &input, const std::string &repository, const std::string &name,
                        Console &console);
ExitCode listCommand(const std::string &repository, Console &console);
// Each of `points` with its chain; all if there are none.
ExitCode verifyCommand(const std::string &repository, const std::vector<std::string> &points,
                       Console &console);
// An empty `file` is the point's name with ".img" in the current directory.
ExitCode restoreCommand(const std::string &repository, const std::string &point, std::string file,
                        bool force, Console &console);
ExitCode diffCommand(const std::string &repository, const std::string &a, const std::string &b,
                     Console &console);
ExitCode lastCommand(const std::string &repository, const std::string &device, Console &console);

} // namespace zel
