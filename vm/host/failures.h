/* Makes the n-th call of a kind by the module fail. */
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "debugger.h"
#include "worker.h"

namespace vm
{

/*
 * The calls are those of the functions by which the module's own sources reach the kernel. Where
 * one of them begins, the emulator's debugger counts it, and lets the n-th go back to its caller
 * with the result of a failure: neither kernel nor module are other ones than usual.
 */
class Failures
{
public:
    // `module` is the module as it is in a file; `debugger` the emulator's socket for it.
    Failures(const std::string &module, const std::string &debugger);

    // For the module as it is loaded now. Registering the device may be called for before.
    void failNth(const std::string &kind, unsigned n, Worker &worker);
    // How many calls were made to fail; no more will.
    unsigned clear();

private:
    void onCall(StoppedProcessor &processor);

    const std::string module_;
    std::vector<std::uint32_t> addresses_; // of the breakpoints, and the results at each
    std::vector<std::uint32_t> results_;
    unsigned wanted_ = 0; // which call from the first
    std::atomic<unsigned> calls_{0};
    std::atomic<unsigned> failed_{0};
    Debugger debugger_; // last: its thread uses the others
};

} // namespace vm
