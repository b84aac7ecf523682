#include "guestProgram.h"

#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vm
{
namespace
{

constexpr std::uint32_t errorBytes = 4096; // of standard error, at once

void *pointer(std::uint32_t address)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(address));
}

void require(std::int32_t result, const char *what)
{
    if (result < 0)
        throw std::runtime_error(std::string("the guest: ") + what + " failed with " +
                                 std::to_string(result));
}

void closeAll(GuestProcess &process, std::initializer_list<int> files)
{
    for (int file : files)
        require(process.systemCall(SYS_close, file), "close");
}

void become(GuestProcess &process, int file, int standard)
{
    require(process.systemCall(SYS_dup2, file, standard), "dup2");
}

// What a reading process has at the start of its memory.
std::string_view piece(const GuestProcess &reader, std::int32_t bytes)
{
    return {static_cast<const char *>(pointer(reader.area())), static_cast<std::size_t>(bytes)};
}

} // namespace

// A program keeps none of these but what it was given as its own.
GuestProgram::Pipe::Pipe(GuestProcess &maker)
{
    require(maker.systemCall(SYS_pipe2, maker.area(), O_CLOEXEC), "pipe2");
    const auto *ends = static_cast<const int *>(pointer(maker.area()));
    read = ends[0];
    write = ends[1];
}

GuestProgram::GuestProgram(Guest &guest, const std::vector<std::string> &arguments,
                           const std::vector<std::string> &environment)
    : outputReader_(guest), input_(outputReader_), output_(outputReader_), error_(outputReader_),
      program_(guest, &outputReader_), errorReader_(guest, &outputReader_)
{
    become(program_, input_.read, STDIN_FILENO);
    become(program_, output_.write, STDOUT_FILENO);
    become(program_, error_.write, STDERR_FILENO);
    closeAll(outputReader_, {input_.read, input_.write, output_.write, error_.read, error_.write});
    closeAll(errorReader_, {input_.read, input_.write, output_.read, output_.write, error_.write});
    program_.execute(arguments, environment);
    gathering_ = std::thread([this] { gatherErrors(); });
}

GuestProgram::~GuestProgram()
{
    try {
        program_.signal(SIGKILL);
    } catch (const GuestLost &) {
        // Whoever next asks something of the guest is told.
    }
    gathering_.join();
}

std::string_view GuestProgram::read(std::uint32_t bytes)
{
    if (bytes > memoryBytes)
        throw std::length_error("a piece that is too long for the guest");
    std::int32_t count = outputReader_.fill(output_.read, outputReader_.area(), bytes);
    require(count, "reading standard output");
    return piece(outputReader_, count);
}

void GuestProgram::closeOutput()
{
    closeAll(outputReader_, {output_.read});
}

void GuestProgram::gatherErrors()
{
    std::int32_t count = 1;
    while (count > 0) {
        try {
            count = errorReader_.systemCall(SYS_read, error_.read, errorReader_.area(), errorBytes);
        } catch (const GuestLost &) {
            count = 0; // whoever waits for the program is told
        }
        std::lock_guard lock(mutex_);
        if (count > 0)
            errors_ += piece(errorReader_, count);
        errorsEnded_ = count <= 0;
        changed_.notify_all();
    }
}

std::string GuestProgram::errors() const
{
    std::lock_guard lock(mutex_);
    return errors_;
}

bool GuestProgram::waitForError(const std::string &text)
{
    std::unique_lock lock(mutex_);
    auto found = [&] { return errors_.find(text) != std::string::npos; };
    changed_.wait(lock, [&] { return found() || errorsEnded_; });
    return found();
}

int GuestProgram::wait()
{
    std::int32_t status = program_.waitForEnd();
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return errorsEnded_; });
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ProgramResult runProgram(Guest &guest, const std::vector<std::string> &arguments,
                         const std::vector<std::string> &environment)
{
    GuestProgram program(guest, arguments, environment);
    ProgramResult result;
    for (std::string_view piece = program.read(); !piece.empty(); piece = program.read())
        result.output += piece;
    result.code = program.wait();
    result.errors = program.errors();
    return result;
}

} // namespace vm
