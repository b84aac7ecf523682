/* The emulator's debugger: changes what the stopped guest has in memory, and stops it where its
 * code comes to an address. */
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "descriptor.h"

namespace vm
{

class Debugger;

// The guest while it is stopped. Addresses are those of its kernel. Everything throws
// std::runtime_error if the emulator is gone or refuses.
class StoppedGuest
{
public:
    void write(std::uint32_t address, const std::string &bytes);
    // Makes the emulator translate the guest's code anew where it comes to it.
    void dropTranslations();
    void setBreakpoint(std::uint32_t address);
    void removeBreakpoint(std::uint32_t address);

    // Of the processor that has come to a breakpoint.
    enum Register : unsigned { eax, ecx, edx, esp = 4, eip = 8 };
    std::uint32_t get(Register which);
    // The breakpoint being where a function begins: goes on behind its call, with this result.
    void returnFromCall(std::uint32_t result);

private:
    friend class Debugger;
    explicit StoppedGuest(Debugger &debugger) : debugger_(debugger) {}
    void set(Register which, std::uint32_t value);

    Debugger &debugger_;
};

// One connection to the emulator, by the remote protocol of gdb. The guest runs, but for moments.
class Debugger
{
public:
    using Action = std::function<void(StoppedGuest &)>;
    explicit Debugger(const std::string &socket);
    ~Debugger();
    Debugger(const Debugger &) = delete;

    // `action` is called, from a thread of this object's, when a processor comes to a breakpoint.
    // It either moves the processor on or removes the breakpoint. Not while there is a breakpoint.
    void onBreakpoint(Action action);

    // Stops the guest for an action, which that thread does; rethrows what it threw.
    void whileStopped(Action action);

private:
    friend class StoppedGuest;

    void listen();
    void onStop();
    void obey(StoppedGuest &guest);

    void send(const std::string &packet);
    std::string receive();
    std::string ask(const std::string &packet);
    void demand(const std::string &packet);

    Descriptor socket_;
    std::set<std::uint32_t> breakpoints_; // the thread's own
    std::mutex sending_;                  // is held from the guest's stop until it goes on
    Action onBreakpoint_;                 // guarded by it
    std::mutex asking_;                   // one action at a time
    std::mutex mutex_;                    // guards what follows
    std::condition_variable changed_;
    Action wanted_;
    std::exception_ptr failure_; // of what was wanted
    bool lost_ = false;
    std::thread thread_;
};

} // namespace vm
