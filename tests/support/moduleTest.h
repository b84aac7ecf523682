/* The fixture of tests that call the module's functions and look into its records. */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <host/process.h>

#include "hostTest.h"
#include "kernel/host/fileInternal.h"
#include "zellib.h"

namespace test
{

using Lines = std::vector<std::string>;

// The kernel log's messages since the last call (or the start of the kernel).
Lines takeLog();
// How the kernel log shows an address.
std::string pointerText(std::uint64_t address);

// What a test needs besides its fixture: a process that the test's own task belongs to.
class ModuleRun
{
public:
    ModuleRun() { host::setCurrentProcess(&process_); }
    ModuleRun(const ModuleRun &) = delete;

    host::Process &process() { return process_; }
    // Copies bytes to the process; its address as the process knows it.
    std::uint32_t put(const void *bytes, std::size_t count);
    // An address of the process as the module takes it.
    template<class T> static T *user(std::uint32_t address)
    {
        return reinterpret_cast<T *>(static_cast<std::uintptr_t>(address));
    }

private:
    host::Process process_{"agent"};
};

// Options for a deterministic kernel.
host::Options seeded(std::uint64_t seed);

// Runs the bodies of tests with the module loaded, as a task of a process. The log is empty when
// the body begins, the banner of the load taken away.
template<class Base> class WithModule : public Base
{
protected:
    void withModule(const std::function<void(ModuleRun &)> &body)
    {
        this->inKernel([&] {
            LoadedModule module;
            ModuleRun run;
            takeLog();
            body(run);
        });
    }

    // The same with a deterministic kernel, made again for each of many seeds; builds that run
    // slowly take fewer.
    void forSeeds(unsigned seeds, const std::function<void(ModuleRun &)> &body)
    {
        for (unsigned seed = 1; seed <= seeds / SEED_DIVISOR && !this->HasFailure(); seed++) {
            SCOPED_TRACE("seed " + std::to_string(seed));
            this->restart(seeded(seed));
            withModule(body);
        }
    }
};

using ModuleTest = WithModule<HostTest>;
// With each scheduler; see SchedulerTest.
using ModuleSchedulerTest = WithModule<SchedulerTest>;

// The control device, opened by the calling task, and the record of this open file. From a task.
class OpenRecord
{
public:
    OpenRecord();
    ~OpenRecord();
    OpenRecord(const OpenRecord &) = delete;

    Backup *get() const { return static_cast<Backup *>(file_->privateData); }
    Backup *operator->() const { return get(); }
    struct file *file() const { return file_; }
    int ioctl(unsigned int command, unsigned long argument = 0);
    // Releases the file now.
    void close();

private:
    struct file *file_ = nullptr;
};

} // namespace test
