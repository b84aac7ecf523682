/* A program of the guest, as a shell would run it. */
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "guest.h"

namespace vm
{

// Its standard input is empty. What it writes to standard output comes here as it is written, and
// it waits where nobody takes it. Standard error is gathered by itself. Each running program takes
// three of the guest's processes. Everything that waits throws GuestLost as the guest does.
class GuestProgram
{
public:
    // Starts `arguments[0]`, a path, with these arguments and this environment ("NAME=value").
    explicit GuestProgram(Guest &guest, const std::vector<std::string> &arguments,
                          const std::vector<std::string> &environment = {});
    // Kills it if it still runs.
    ~GuestProgram();
    GuestProgram(const GuestProgram &) = delete;

    // Waits until it has written so many bytes more to standard output, or has ended: the next
    // piece of it, which stays there until the next call; empty at the end. One thread at a time.
    std::string_view read(std::uint32_t bytes = memoryBytes);
    // Nobody reads its standard output any more: it gets SIGPIPE or EPIPE where it writes to it.
    void closeOutput();

    // What it has written to standard error so far.
    std::string errors() const;
    // Waits until it has written this text there; false if it never will.
    bool waitForError(const std::string &text);

    void signal(int number) { program_.signal(number); }
    // Waits for its end, and until all that it wrote to standard error is here: its exit code, or
    // 128 and the number of the signal that ended it. Throws std::runtime_error if there is no such
    // program.
    int wait();

private:
    // The ends of the pipes between the program and those who read from it.
    struct Pipe {
        explicit Pipe(GuestProcess &maker);
        int read;
        int write;
    };
    void gatherErrors();

    GuestProcess outputReader_;
    const Pipe input_;
    const Pipe output_;
    const Pipe error_;
    GuestProcess program_;
    GuestProcess errorReader_;

    mutable std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    std::string errors_;
    bool errorsEnded_ = false;
    std::thread gathering_;
};

// Runs a program to its end.
struct ProgramResult {
    int code; // as GuestProgram::wait has it
    std::string output;
    std::string errors;
};
ProgramResult runProgram(Guest &guest, const std::vector<std::string> &arguments,
                         const std::vector<std::string> &environment = {});

} // namespace vm
