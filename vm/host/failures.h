/* Makes the n-th call of a kind by the module fail. */
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "debugger.h"
#include "worker.h"

namespace vm
{

/*
 * The calls are those of the functions by which the module's own sources reach the kernel. In the
 * loaded module they are led to a few instructions behind its code, which count them and go on to
 * the function; the emulator's debugger stops the n-th there and lets it go back to its caller with
 * the result of a failure. Neither the kernel nor the module's file is another one than usual.
 */
class Failures
{
public:
    // `module` is the module as it is in a file. At most one at a time has the debugger's
    // breakpoints; clear() comes before its end.
    Failures(const std::string &module, Debugger &debugger);
    ~Failures();
    Failures(const Failures &) = delete;

    // For the module as it is loaded now; it must still be when this is cleared. The first call of
    // the registration of its device may be asked for before it is loaded.
    void failNth(const std::string &kind, unsigned n, Worker &worker);
    // How many calls were made to fail; no more will.
    unsigned clear();

private:
    using Bytes = std::map<std::uint32_t, std::string>; // by address

    void failInModule(const std::string &kind, unsigned n, Worker &worker);
    void onCall(StoppedGuest &guest);

    const std::string module_;
    Bytes changed_;                                  // as it was before
    std::map<std::uint32_t, std::uint32_t> results_; // by the address of a breakpoint
    std::atomic<unsigned> failed_{0};
    Debugger &debugger_;
};

} // namespace vm
