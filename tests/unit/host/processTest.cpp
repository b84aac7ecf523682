#include <string>
#include <vector>

#include <host/faults.h>
#include <host/process.h>
#include <kernel/sync.h>

#include "support/hostTest.h"
#include "unit/host/testDevice.h"

namespace
{

constexpr int errnoNoEntry = 2;
constexpr int errnoBadDescriptor = 9;

using test::TestDevice;

class Files : public test::SchedulerTest
{
};

INSTANTIATE_SCHEDULERS(Files);

TEST_P(Files, openAsksTheDeviceOfTheNode)
{
    inKernel([] {
        host::Process process("user");
        EXPECT_EQ(process.open("/dev/nothing"), -errnoNoEntry);
        EXPECT_EQ(process.open("/dev/zelmod"), -KERNEL_ENXIO);
        TestDevice device;
        EXPECT_EQ(process.open(TestDevice::path), -KERNEL_ENXIO);
        ASSERT_EQ(device.add(), 0);
        unsigned opened = 0;
        device.open = [&](struct file *file) {
            EXPECT_EQ(file_private_data(file), nullptr);
            file_set_private_data(file, &opened);
            opened++;
            return 0;
        };
        device.release = [&](struct file *file) {
            EXPECT_EQ(file_private_data(file), &opened);
            opened--;
        };
        EXPECT_EQ(process.open(TestDevice::path), 0);
        EXPECT_EQ(process.open(TestDevice::path), 1);
        EXPECT_EQ(opened, 2u);
        EXPECT_EQ(process.close(0), 0);
        EXPECT_EQ(opened, 1u);
        EXPECT_EQ(process.open(TestDevice::path), 0) << "the lowest descriptor that is free";
        EXPECT_EQ(process.close(0), 0);
        EXPECT_EQ(process.close(0), -errnoBadDescriptor);
        EXPECT_EQ(process.close(1), 0);
        EXPECT_EQ(opened, 0u);
    });
}

TEST_P(Files, positiveResultsOfOpenBecomeErrnoValues)
{
    inKernel([] {
        TestDevice device;
        host::Process process("user");
        ASSERT_EQ(device.add(), 0);
        int result = 0;
        device.open = [&](struct file *) { return result; };
        device.release = [](struct file *) { ADD_FAILURE() << "released, but never open"; };
        const std::pair<int, int> table[] = {{1, -KERNEL_ENODEV}, {5, -KERNEL_ENOMEM},
                                             {2, -KERNEL_EBUSY},  {3, -KERNEL_EBUSY},
                                             {12, -KERNEL_EBUSY}, {-KERNEL_EINTR, -KERNEL_EINTR}};
        for (auto [code, errnoValue] : table) {
            result = code;
            EXPECT_EQ(process.open(TestDevice::path), errnoValue) << code;
        }
        EXPECT_EQ(process.close(0), -errnoBadDescriptor);
    });
}

TEST_P(Files, duplicatesShareOneOpenFileAndTheLastCloseReleasesIt)
{
    inKernel([] {
        TestDevice device;
        host::Process process("user");
        ASSERT_EQ(device.add(), 0);
        unsigned releases = 0;
        device.release = [&](struct file *) { releases++; };
        int fd = process.open(TestDevice::path);
        int copy = process.duplicate(fd);
        ASSERT_GE(copy, 0);
        EXPECT_NE(copy, fd);
        EXPECT_EQ(process.duplicate(7), -errnoBadDescriptor);
        EXPECT_EQ(process.close(fd), 0);
        EXPECT_EQ(releases, 0u);
        EXPECT_EQ(process.ioctl(copy, 1, 2), 0);
        EXPECT_EQ(process.close(copy), 0);
        EXPECT_EQ(releases, 1u);
    });
}

TEST_P(Files, closeDuringACommandReleasesAfterIt)
{
    inKernel([] {
        TestDevice device;
        host::Process process("user");
        ASSERT_EQ(device.add(), 0);
        bool inside = true;
        device.release = [&](struct file *) { EXPECT_FALSE(inside); };
        struct completion entered;
        struct completion closed;
        init_completion(&entered);
        init_completion(&closed);
        device.ioctl = [&](unsigned, unsigned long) {
            complete(&entered);
            wait_for_completion(&closed);
            inside = false;
            return 0;
        };
        int fd = process.open(TestDevice::path);
        host::Task task = host::spawn("commander", [&] { EXPECT_EQ(process.ioctl(fd, 1, 0), 0); });
        wait_for_completion(&entered);
        EXPECT_EQ(process.close(fd), 0);
        complete(&closed);
        task.join();
        EXPECT_FALSE(inside);
    });
}

TEST_P(Files, commandsArriveAndReturnUnchanged)
{
    inKernel([] {
        TestDevice device;
        host::Process process("user");
        ASSERT_EQ(device.add(), 0);
        int result = 0;
        device.ioctl = [&](unsigned command, unsigned long argument) {
            EXPECT_EQ(command, 0x40102a00u);
            EXPECT_EQ(argument, 0xfffffff0ul);
            EXPECT_EQ(host::currentProcess(), &process);
            return result;
        };
        int fd = process.open(TestDevice::path);
        for (int each : {0, 1, 12, -KERNEL_EFAULT, 2147483647}) {
            result = each;
            EXPECT_EQ(process.ioctl(fd, 0x40102a00, 0xfffffff0), each);
        }
        EXPECT_EQ(process.ioctl(7, 0x40102a00, 0), -errnoBadDescriptor);
    });
}

TEST_P(Files, readAndWriteGetTheBufferAndTheFilesPosition)
{
    inKernel([] {
        TestDevice device;
        host::Process process("user");
        ASSERT_EQ(device.add(), 0);
        std::uint32_t buffer = process.allocate(64);
        device.read = [&](char *to, std::size_t count, s64 *position) {
            EXPECT_EQ(to, process.pointer<char>(buffer));
            EXPECT_EQ(*position, 0);
            *position += static_cast<s64>(count);
            return 5l;
        };
        device.write = [&](const char *from, std::size_t count, s64 *position) {
            EXPECT_EQ(from, process.pointer<char>(buffer));
            EXPECT_EQ(count, 7u);
            EXPECT_EQ(*position, 64);
            return -5l;
        };
        int fd = process.open(TestDevice::path);
        EXPECT_EQ(process.read(fd, buffer, 64), 5);
        EXPECT_EQ(process.write(fd, buffer, 7), -5);
        EXPECT_EQ(process.poll(fd), 0u);
        EXPECT_EQ(process.read(7, buffer, 1), -errnoBadDescriptor);
        EXPECT_EQ(process.write(7, buffer, 1), -errnoBadDescriptor);
        EXPECT_EQ(process.poll(7), 0x20u);
    });
}

TEST_P(Files, missingOperationsAnswerAsTheKernelDoes)
{
    inKernel([] {
        TestDevice device;
        host::Process process("user");
        device.operations = {};
        ASSERT_EQ(device.add(), 0);
        int fd = process.open(TestDevice::path);
        ASSERT_EQ(fd, 0);
        std::uint32_t address = 0;
        EXPECT_EQ(process.read(fd, 0x1000, 1), -KERNEL_EINVAL);
        EXPECT_EQ(process.write(fd, 0x1000, 1), -KERNEL_EINVAL);
        EXPECT_EQ(process.poll(fd), 0x145u);
        EXPECT_EQ(process.ioctl(fd, 1, 2), -KERNEL_ENOTTY);
        EXPECT_EQ(process.mmap(fd, 4096, false, false, 0, &address), -KERNEL_ENODEV);
        EXPECT_EQ(process.close(fd), 0);
    });
}

TEST_P(Files, exitReleasesWhatIsOpen)
{
    inKernel([] {
        TestDevice device;
        ASSERT_EQ(device.add(), 0);
        unsigned releases = 0;
        device.release = [&](struct file *) { releases++; };
        {
            host::Process process("user");
            process.open(TestDevice::path);
            process.duplicate(0);
            process.open(TestDevice::path);
            EXPECT_EQ(releases, 0u);
        }
        EXPECT_EQ(releases, 2u);
    });
}

TEST_P(Files, aMajorNumberIsRegisteredOnce)
{
    inKernel([&] {
        TestDevice device;
        ASSERT_EQ(device.add(), 0);
        EXPECT_EQ(register_chrdev(TestDevice::major, "other", &device.operations), -KERNEL_EBUSY);
        unregister_chrdev(TestDevice::major, "test");
        EXPECT_EQ(register_chrdev(TestDevice::major, "test", &device.operations), 0);
    });
}

TEST_P(Files, registrationCanBeMadeToFail)
{
    inKernel([&] {
        TestDevice device;
        host::failNth(host::Fault::registerDevice, 1);
        EXPECT_LT(device.add(), 0);
        EXPECT_EQ(device.add(), 0);
        host::clearFaults();
    });
}

TEST_P(Files, wrongUnregisteringIsReported)
{
    inKernel([&] {
        unregister_chrdev(99, "none");
        expectViolation("wrong unregister_chrdev: 99 (none) is not registered");
        TestDevice device;
        ASSERT_EQ(device.add(), 0);
        unregister_chrdev(TestDevice::major, "best");
        expectViolation("wrong unregister_chrdev: 240 (best) is registered as test");
        device.registered = false;
    });
}

TEST_P(Files, aLockTakenAlongOutOfASystemCallIsReported)
{
    inKernel([&] {
        TestDevice device;
        host::Process process("user");
        ASSERT_EQ(device.add(), 0);
        struct rw_semaphore sem;
        init_rwsem(&sem);
        device.ioctl = [&](unsigned, unsigned long) {
            down_read(&sem);
            return 0;
        };
        process.open(TestDevice::path);
        EXPECT_EQ(process.ioctl(0, 1, 2), 0);
        expectViolation("ioctl");
        up_read(&sem);
    });
}

} // namespace
