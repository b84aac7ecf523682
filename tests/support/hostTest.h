/* The fixture of all tests that need a host kernel, and the module under test. */
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/kernel.h>
#include <host/module.h>

namespace test
{

// Owns a Kernel for the length of one test. At its end nothing may have been reported and nothing
// of the module's memory be held; a test that plants a fault takes the reports away itself.
class HostTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // What the kernel is started with; override to change it.
    virtual host::Options options() const { return {}; }
    host::Kernel &kernel() { return *kernel_; }
    // Ends the kernel as at the end of a test and starts one with these options.
    void restart(const host::Options &options);

    // Runs `body` as a process's task until it and its tasks have ended. Several times if need be.
    void inKernel(const std::function<void()> &body) { kernel_->run(body); }

    // Takes what was reported: expects at least one, each containing `text`.
    void expectViolation(const std::string &text);

private:
    void stop();

    std::unique_ptr<host::Kernel> kernel_;
};

// A HostTest that runs with each scheduler: use TEST_P, and INSTANTIATE_SCHEDULERS(Fixture) once.
class SchedulerTest : public HostTest, public testing::WithParamInterface<host::Scheduling>
{
protected:
    host::Options options() const override
    {
        host::Options result;
        result.scheduling = GetParam();
        return result;
    }
};

std::string schedulerName(const testing::TestParamInfo<host::Scheduling> &info);

#define INSTANTIATE_SCHEDULERS(Fixture)                                                            \
    INSTANTIATE_TEST_SUITE_P(                                                                      \
        , Fixture, testing::Values(host::Scheduling::parallel, host::Scheduling::deterministic),   \
        test::schedulerName)

// The module under test, as the link step laid it out.
const host::ModuleImage &zelmodImage();

// The module, loaded for as long as this lives. From a task, both ends.
class LoadedModule
{
public:
    // A load that fails is a test failure, unless `expected` says which result it must have.
    explicit LoadedModule(int expected = 0, const host::ModuleImage &image = zelmodImage());
    // Unloads it if that was not done; being unable to is a test failure.
    ~LoadedModule();
    LoadedModule(const LoadedModule &) = delete;

    // Unloads now; the kernel's answer (-EBUSY while it is in use).
    int unload();
};

} // namespace test
