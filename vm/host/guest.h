/* The machine that is emulated, seen from outside: its processes and their system calls. */
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../protocol.h"
#include "debugger.h"
#include "descriptor.h"
#include "emulator.h"

namespace vm
{

// The guest is gone, or does not answer any more.
class GuestLost : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct GuestOptions {
    std::string kernel;
    std::string initramfs;
    std::string diskSocket; // of its one disk
    std::string diskKind;   // "ide" or "virtio"
    std::string debuggerSocket;
    std::string console; // the file for what the kernel prints
    std::string emulatorLog;
    std::chrono::seconds timeout; // for all that is done with it
    unsigned mebibytes = 1024;    // of memory
    // In place of that disk, if there are any: disks as the emulator's option -drive has them.
    std::vector<std::string> drives = {};
    std::string kernelOptions = {}; // besides those that every guest has
    bool has64Bits = false;         // its kernel; its programs have 32
};

// At most one at a time, as its memory has a fixed place. Any thread may use it.
class Guest
{
public:
    // Starts it; nothing may be asked before it is ready (bootGuest).
    explicit Guest(const GuestOptions &options);
    // Ends it, gently or not.
    ~Guest();
    Guest(const Guest &) = delete;

    static Guest &current();
    // Everything here that waits throws GuestLost if the guest ends or the time is up.
    // This one also knows a limit of its own: false if that is over first.
    bool waitUntilReady(std::chrono::seconds limit);

    // Makes a request of a slot's process and waits for its result.
    std::int32_t request(std::uint32_t slot, Request what,
                         const std::array<std::uint32_t, 7> &arguments);

    // Starts a process as a child of another's and gives its slot.
    std::uint32_t fork(std::uint32_t parent);
    // Makes the slot's process exit, if it is no program, and waits for its end.
    void exit(std::uint32_t slot);

    // Makes the slot's process a program; all are addresses, as execve has them. Nothing can be
    // asked of the process any more.
    void execute(std::uint32_t slot, std::uint32_t path, std::uint32_t arguments,
                 std::uint32_t environment);
    // Waits until the program of the slot's process has ended: its status, as wait tells it. Throws
    // std::runtime_error if there was no such program.
    std::int32_t waitForEnd(std::uint32_t slot);
    // Sends the slot's process a signal, whatever it does, if it has not ended.
    void signal(std::uint32_t slot, int number);

    // Lets the kernel print what its blocked tasks wait for, if it still can.
    void showBlockedTasks();
    // Seconds that processors of the host have worked for it so far.
    double processorTime() const { return emulator_->processorTime(); }
    // For whoever sets breakpoints; lives as long as the guest. Throws std::runtime_error if the
    // emulator is gone.
    Debugger &debugger();
    // Ends the machine, its disks idle; false if it had to be killed.
    bool powerOff();

private:
    struct State {
        bool taken = false;
        bool asked = false;    // by somebody, who has not taken the answer yet
        bool answered = false; // what was asked last
        bool ended = false;    // its process
        bool program = false;  // is what the process has become
    };

    void listen();
    void order(Order what);
    void lose(const std::string &reason);
    // Hands a request over, with mutex_ held.
    void post(std::uint32_t number, Request what, const std::array<std::uint32_t, 7> &arguments);
    // Waits until `done`, with `lock` on mutex_ held.
    template<class Done> void wait(std::unique_lock<std::mutex> &lock, const Done &done);
    // The same, until a time at most: whether it is done or lost.
    template<class Done>
    bool waitUntil(std::unique_lock<std::mutex> &lock, std::chrono::steady_clock::time_point end,
                   const Done &done);
    void goOn();

    const std::chrono::steady_clock::time_point deadline_;
    const std::string debuggerSocket_;
    Descriptor memory_;
    Descriptor listener_;
    std::unique_ptr<Emulator> emulator_;

    std::mutex debugging_; // guards these two
    std::unique_ptr<Debugger> debugger_;
    std::chrono::steady_clock::time_point wentOn_;

    std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    bool ready_ = false;
    std::string lost_; // why
    std::array<State, slots> states_;
    std::thread listening_;
};

// A guest that is ready. Throws GuestLost if it ends, or stands still at each of a few boots; each
// that does is told on standard output.
std::unique_ptr<Guest> bootGuest(const GuestOptions &options);

// A process of the guest, as a program sees its own: memory and system calls. One thread at a time.
class GuestProcess
{
public:
    // A child of `parent`, with its open files, or of a process that has none.
    explicit GuestProcess(Guest &guest, GuestProcess *parent = nullptr);
    ~GuestProcess();
    GuestProcess(const GuestProcess &) = delete;

    // A negated errno if it failed.
    template<class... Argument> std::int32_t systemCall(std::uint32_t number, Argument... arguments)
    {
        return guest_.request(slot_, Request::systemCall,
                              {number, static_cast<std::uint32_t>(arguments)...});
    }
    // As a 64-bit program makes it, by that kind's number of it; the kernel must be of 64 bits.
    std::int32_t wideCall(std::uint32_t number, std::uint32_t first, std::uint32_t second,
                          std::uint32_t third)
    {
        return guest_.request(slot_, Request::wideCall, {number, first, second, third});
    }
    // By the process's own loads and stores: 0, or -EFAULT where it could not.
    std::int32_t copy(std::uint32_t to, std::uint32_t from, std::uint32_t bytes)
    {
        return guest_.request(slot_, Request::copy, {to, from, bytes});
    }

    // Reads from a file or pipe until so many bytes are there, or to its end: how many there are.
    std::int32_t fill(int file, std::uint32_t to, std::uint32_t bytes)
    {
        return guest_.request(slot_, Request::fill, {static_cast<std::uint32_t>(file), to, bytes});
    }
    // Becomes a program, with the arguments (the first is its path too) and the environment
    // ("NAME=value"); nothing else may be asked of it then but what follows.
    void execute(const std::vector<std::string> &arguments,
                 const std::vector<std::string> &environment);
    // As Guest has them.
    std::int32_t waitForEnd() { return guest_.waitForEnd(slot_); }
    void signal(int number) { guest_.signal(slot_, number); }

    std::uint32_t area() const { return sharedAddress + slot_ * areaBytes; }

private:
    Guest &guest_;
    std::uint32_t slot_;
};

} // namespace vm
