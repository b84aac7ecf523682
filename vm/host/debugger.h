/* The emulator's debugger: the guest is stopped where a function begins, and may be told to go on
 * as if it had returned. The guest's own code stays as it is, and no kernel needs anything for it.
 */
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

class StoppedProcessor;

/*
 * One connection to the emulator, by the remote protocol of gdb. The guest runs, but for moments.
 */
class Debugger
{
public:
    // `onBreakpoint` is called, from a thread of this object's, for each time that a processor
    // comes to a breakpoint, and may use nothing of this object.
    using Handler = std::function<void(StoppedProcessor &)>;
    Debugger(const std::string &socket, Handler onBreakpoint);
    ~Debugger();
    Debugger(const Debugger &) = delete;

    // At the first instruction of a function of the kernel's or the module's. They throw
    // std::runtime_error if the emulator refuses or is gone.
    void setBreakpoint(std::uint32_t address) { change('Z', address); }
    void removeBreakpoint(std::uint32_t address) { change('z', address); }

private:
    friend class StoppedProcessor;

    void change(char command, std::uint32_t address);
    void listen();
    void onStop(const std::string &reply);
    void obey();

    void send(const std::string &packet);
    std::string receive();
    std::string ask(const std::string &packet);

    const Handler onBreakpoint_;
    Descriptor socket_;
    std::set<std::uint32_t> breakpoints_; // the thread's own
    std::mutex sending_;                  // is held from the guest's stop until it goes on
    std::mutex mutex_;                    // guards what follows
    std::condition_variable changed_;
    std::string wanted_; // a command for when the guest is stopped
    bool refused_ = false;
    bool lost_ = false;
    std::thread thread_;
};

// The processor that has stopped, at a function's first instruction.
class StoppedProcessor
{
public:
    enum Register : unsigned { eax, ecx, edx, esp = 4, eip = 8 };

    std::uint32_t get(Register which);
    // Goes on behind the call, which gets this result.
    void returnFromCall(std::uint32_t result);

private:
    friend class Debugger;
    explicit StoppedProcessor(Debugger &debugger) : debugger_(debugger) {}
    void set(Register which, std::uint32_t value);

    Debugger &debugger_;
    bool returned_ = false;
};

} // namespace vm
