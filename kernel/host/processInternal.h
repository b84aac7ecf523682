/* A process's memory, as the rest of the host kernel reaches it. */
#pragma once

#include <host/process.h>

#include "addressSpace.h"

namespace host
{

struct ProcessAccess {
    static AddressSpace &addressSpace(Process &process);
};

} // namespace host
