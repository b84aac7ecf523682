#include "hostTest.h"

#include <host/memory.h>
#include <kernel/types.h>

extern "C" {
int zelInit(void);
void zelExit(void);
// Bounds of the module's data, from the linker; absent in a test without the module.
extern unsigned char __start_zelmod_data[] __attribute__((weak));
extern unsigned char __stop_zelmod_data[] __attribute__((weak));
extern unsigned char __start_zelmod_bss[] __attribute__((weak));
extern unsigned char __stop_zelmod_bss[] __attribute__((weak));
}

namespace test
{

void HostTest::SetUp()
{
    kernel_ = std::make_unique<host::Kernel>(options());
}

void HostTest::TearDown()
{
    stop();
}

void HostTest::restart(const host::Options &options)
{
    stop();
    kernel_ = std::make_unique<host::Kernel>(options);
}

void HostTest::stop()
{
    EXPECT_FALSE(host::moduleLoaded());
    EXPECT_EQ(host::memoryHeld(), std::vector<std::string>());
    EXPECT_EQ(kernel_->takeViolations(), std::vector<std::string>());
    kernel_.reset();
}

void HostTest::expectViolation(const std::string &text)
{
    std::vector<std::string> violations = kernel_->takeViolations();
    EXPECT_FALSE(violations.empty()) << "expected: " << text;
    for (const std::string &violation : violations)
        EXPECT_NE(violation.find(text), std::string::npos) << violation;
}

std::string schedulerName(const testing::TestParamInfo<host::Scheduling> &info)
{
    return info.param == host::Scheduling::parallel ? "parallel" : "deterministic";
}

const host::ModuleImage &zelmodImage()
{
    static const host::ModuleImage image{
        "zelmod",           zelInit,          zelExit, __start_zelmod_data, __stop_zelmod_data,
        __start_zelmod_bss, __stop_zelmod_bss};
    return image;
}

LoadedModule::LoadedModule(int expected, const host::ModuleImage &image)
{
    EXPECT_EQ(host::loadModule(image), expected);
}

LoadedModule::~LoadedModule()
{
    if (host::moduleLoaded()) {
        EXPECT_EQ(host::unloadModule(), 0);
    }
}

int LoadedModule::unload()
{
    return host::unloadModule();
}

} // namespace test
