/* The parts of its kernel that the guest loads before anything else. */
#pragma once

#include <string>
#include <vector>

#include "initramfs.h"

namespace vm
{

// The files of the modules for the guest's disks and their file systems, of `more` and of all that
// those depend on, and a list of them in the order in which they must be loaded, which the guest
// follows. In `more` parameters may stand behind a name and a space. `folder` is where a kernel's
// modules are, as in /lib/modules/RELEASE/kernel. Throws std::runtime_error where one is missing.
std::vector<GuestFile> kernelModules(const std::string &folder,
                                     const std::vector<std::string> &more = {});

} // namespace vm
