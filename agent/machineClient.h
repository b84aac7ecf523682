/* The control device of a machine behind a local socket. */
#pragma once

#include "device.h"
#include "outcome.h"

namespace zelsend
{

/* A connection to a machine: a process of it. The protocol is in machineProtocol.h. */
class MachineClient
{
public:
    MachineClient() = default;
    ~MachineClient();
    MachineClient(const MachineClient &) = delete;
    MachineClient &operator=(const MachineClient &) = delete;

    /* Connects to the machine that listens at `path`. */
    Outcome connect(const char *path);

    /* Its calls; valid while this object lives. A machine that goes away or breaks the protocol
     * shows as -EIO. */
    Device device();

private:
    struct Calls;

    int socket_ = -1;
    int pipe_[2] = {-1, -1}; // carries bytes to and from memory that may not be there
};

} // namespace zelsend
