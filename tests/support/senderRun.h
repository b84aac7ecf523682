/* Runs zelsend in the test's process against a fake device. */
#pragma once

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "agent/zelsend.h"
#include "support/fakeDevice.h"
#include "support/faultyCalls.h"

namespace test
{

// A directory that is removed at the end. In memory where possible: the tests make a great many
// files durable.
class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        std::filesystem::path memory = "/dev/shm";
        std::string name =
            (access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path()) /
            "zelsendXXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        path_ = name;
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
    TemporaryDirectory(const TemporaryDirectory &) = delete;

    const std::filesystem::path &path() const { return path_; }

private:
    std::filesystem::path path_;
};

// A file without a name.
class MemoryFile
{
public:
    MemoryFile() : descriptor_(memfd_create("test", MFD_CLOEXEC)) {}
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile &) = delete;

    int descriptor() const { return descriptor_; }
    std::string contents() const
    {
        std::string all(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END)), '\0');
        if (pread(descriptor_, all.data(), all.size(), 0) != static_cast<ssize_t>(all.size())) {
            throw std::runtime_error("memory file");
        }
        return all;
    }

private:
    int descriptor_;
};

struct SenderResult {
    int exitCode;
    std::string stream;
    std::string messages;
};

class SenderRun
{
public:
    explicit SenderRun(FakeDevice *device) : device_(device) {}

    // zelsend with these arguments, --state and (unless one is given) the device.
    SenderResult operator()(std::vector<std::string> arguments = {}) const
    {
        MemoryFile stream;
        MemoryFile messages;
        int code = run(arguments, stream.descriptor(), messages.descriptor());
        return {code, stream.contents(), messages.contents()};
    }

    // The same, with a reader that takes only so many bytes of the stream.
    SenderResult withReaderOf(std::uint64_t bytes, const std::vector<std::string> &arguments) const
    {
        MemoryFile stream;
        MemoryFile messages;
        closeReaderAfter(stream.descriptor(), bytes);
        int code = run(arguments, stream.descriptor(), messages.descriptor());
        keepReader();
        return {code, stream.contents(), messages.contents()};
    }

    // The same in a process of its own, which is killed at its `call`-th system call (see
    // faultyCalls.h; a command to the device counts twice, before and after it is done).
    SenderResult killedAt(int call, const std::vector<std::string> &arguments) const
    {
        MemoryFile stream;
        MemoryFile messages;
        pid_t child = fork();
        if (child == 0) {
            device_->before = device_->after = [](std::uint32_t) { countFaultyCall(); };
            startFaultyCalls(Fault::Kill, call);
            _exit(run(arguments, stream.descriptor(), messages.descriptor()));
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status)) {
            throw std::runtime_error("zelsend crashed");
        }
        return {WEXITSTATUS(status), stream.contents(), messages.contents()};
    }

    const std::filesystem::path &state() const { return directory_.path(); }

private:
    int run(const std::vector<std::string> &arguments, int stream, int messages) const
    {
        std::vector<const char *> list = {"zelsend", "--state", directory_.path().c_str()};
        for (const std::string &argument : arguments) {
            list.push_back(argument.c_str());
        }
        zelsend::Options options;
        zelsend::Outcome parsed =
            zelsend::parseOptions(static_cast<int>(list.size()), list.data(), &options);
        if (!parsed && options.device == nullptr) {
            list.push_back(FakeDevice::path);
            options = {};
            parsed = zelsend::parseOptions(static_cast<int>(list.size()), list.data(), &options);
        }
        if (!parsed) {
            return static_cast<int>(parsed.code);
        }
        return static_cast<int>(zelsend::runZelsend(options, device_->device(), stream, messages));
    }

    FakeDevice *device_;
    TemporaryDirectory directory_;
};

} // namespace test
