// The contract on the host kernel, with each scheduler.
#include <tuple>

#include <host/block.h>
#include <host/log.h>
#include <host/module.h>
#include <host/process.h>

#include "contract/checks.h"
#include "support/hostTest.h"
#include "support/testDisk.h"

namespace
{

std::vector<ContractCheck> allChecks()
{
    std::vector<ContractCheck> result;
    for (unsigned i = 0; i < contractSubjectCount; i++)
        result.insert(result.end(), contractSubjects[i]->checks,
                      contractSubjects[i]->checks + contractSubjects[i]->count);
    return result;
}

using Parameter = std::tuple<host::Scheduling, ContractCheck>;

class Contract : public test::HostTest, public testing::WithParamInterface<Parameter>
{
protected:
    host::Options options() const override
    {
        host::Options result;
        result.scheduling = std::get<0>(GetParam());
        return result;
    }
};

std::string parameterName(const testing::TestParamInfo<Parameter> &info)
{
    bool parallel = std::get<0>(info.param) == host::Scheduling::parallel;
    return std::string(std::get<1>(info.param).name) + (parallel ? "_parallel" : "_deterministic");
}

INSTANTIATE_TEST_SUITE_P(, Contract,
                         testing::Combine(testing::Values(host::Scheduling::parallel,
                                                          host::Scheduling::deterministic),
                                          testing::ValuesIn(allChecks())),
                         parameterName);

// The checks are the module: their memory is on its account, their references are its own.
const host::ModuleImage &checksImage()
{
    static unsigned char none;
    static const host::ModuleImage image{"contract", [] { return 0; }, [] {}, &none, &none, &none,
                                         &none};
    return image;
}

void settle()
{
    do
        host::sleepNanoseconds(1'000'000);
    while (!host::othersAsleep());
}

void sendSignal(int pid, int signal)
{
    host::findTask(pid).signal(signal);
}

constexpr unsigned freeMajor = 77;
constexpr const char *freeNode = "/dev/contract";
host::Process *caller; // of the check that runs

int openDevice()
{
    return caller->open(freeNode);
}

int closeFile(int fd)
{
    return caller->close(fd);
}

int callDevice(int fd, unsigned command, unsigned long argument)
{
    return caller->ioctl(fd, command, static_cast<std::uint32_t>(argument));
}

int readFile(int fd, unsigned long to, unsigned bytes)
{
    return static_cast<int>(caller->read(fd, static_cast<std::uint32_t>(to), bytes));
}

int map(int fd, unsigned bytes, int writable, int shared, unsigned long pageOffset,
        unsigned long *address)
{
    std::uint32_t place = 0;
    int result = caller->mmap(fd, bytes, writable != 0, shared != 0, pageOffset, &place);
    *address = place;
    return result;
}

int unmap(unsigned long address, unsigned)
{
    return caller->munmap(static_cast<std::uint32_t>(address));
}

int readLog(unsigned long to, unsigned bytes)
{
    std::string text;
    for (const std::string &message : host::kernelLog())
        text += message;
    if (text.size() > bytes)
        text.erase(0, text.size() - bytes);
    text.copy(caller->pointer<char>(static_cast<std::uint32_t>(to)), text.size());
    return static_cast<int>(text.size());
}

TEST_P(Contract, holds)
{
    inKernel([&] {
        test::TestDiskOptions options;
        options.mebibytes = 2;
        options.blockSizes = {1024, 4096, 4096};
        test::TestDisk disk(options);
        disk.unmount(2);
        disk.unmount(3);
        struct block_device *unmounted = host::openDevice(disk.device(2));
        ASSERT_NE(unmounted, nullptr);
        host::Process process("contract");
        host::setCurrentProcess(&process);
        constexpr unsigned userBytes = 3000;

        ContractEnvironment environment{};
        environment.mounted = disk.device(1);
        environment.unmounted = disk.device(2);
        environment.closed = disk.device(3);
        environment.freeMajor = freeMajor;
        environment.user = process.allocateBeforeHole(userBytes);
        environment.userBytes = userBytes;
        environment.userReadOnly = process.allocate(PAGE_SIZE, false);
        environment.settle = settle;
        environment.sendSignal = sendSignal;
        caller = &process;
        host::makeDeviceNode(freeNode, freeMajor, 0);
        environment.openDevice = openDevice;
        environment.closeFile = closeFile;
        environment.callDevice = callDevice;
        environment.readFile = readFile;
        environment.map = map;
        environment.unmap = unmap;
        environment.readLog = readLog;
        environment.references = host::moduleReferences;

        test::LoadedModule module(0, checksImage());
        EXPECT_STREQ(std::get<1>(GetParam()).run(&environment), nullptr);
        EXPECT_EQ(module.unload(), 0);
        host::closeDevice(unmounted);
    });
}

} // namespace
