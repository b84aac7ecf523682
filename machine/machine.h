/*
 * A protected server: a host kernel with one disk, zelmod loaded, a real ext file system mounted,
 * and programs that keep changing it. Agents elsewhere reach its control device over a socket.
 */
#pragma once

#include "extFs.h"
#include "writers.h"

#include <host/block.h>
#include <host/filesystem.h>
#include <host/kernel.h>

#include <functional>
#include <memory>
#include <string>

namespace machine
{

struct MachineOptions {
    std::string image; // of the whole disk
    unsigned partition = 1;
    std::string socket;    // to listen at
    std::string manifests; // a directory that gets <n>.manifest at the n-th freeze; may be empty
    std::string log;       // a file that gets the kernel log; empty: standard error
    WriterOptions writers;
};

// Runs until `stopped` says so. Calls `ready` when agents can connect. Returns a process's exit
// code: 0, or 2 if the host kernel's checkers reported something (on standard error). Throws
// std::runtime_error where it cannot start.
int runMachine(const MachineOptions &options, const std::function<bool()> &stopped,
               const std::function<void()> &ready);

} // namespace machine
