#include <array>
#include <cstring>

#include <host/faults.h>
#include <host/process.h>
#include <kernel/sync.h>
#include <kernel/task.h>
#include <kernel/uaccess.h>

#include "support/hostTest.h"

namespace
{

using Bytes = std::array<unsigned char, 16>;

class UserMemory : public test::SchedulerTest
{
protected:
    // Runs `body` as a task of a process.
    void inProcess(const std::function<void(host::Process &process)> &body)
    {
        inKernel([&] {
            host::Process process("user");
            host::setCurrentProcess(&process);
            body(process);
        });
    }
};

INSTANTIATE_SCHEDULERS(UserMemory);

void *user(std::uint64_t address)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(address));
}

TEST_P(UserMemory, isZeroedAndCopiedBothWays)
{
    inProcess([](host::Process &process) {
        std::uint32_t address = process.allocate(10000);
        Bytes bytes;
        bytes.fill(0xff);
        EXPECT_EQ(copy_from_user(bytes.data(), user(address + 5000), bytes.size()), 0u);
        EXPECT_EQ(bytes, Bytes{});
        bytes.fill(0x42);
        EXPECT_EQ(copy_to_user(user(address + 4090), bytes.data(), bytes.size()), 0u);
        EXPECT_EQ(std::memcmp(process.pointer<char>(address + 4090), bytes.data(), 16), 0);
        Bytes back{};
        EXPECT_EQ(copy_from_user(back.data(), user(address + 4090), back.size()), 0u);
        EXPECT_EQ(back, bytes);
    });
}

// Copies of up to 7 bytes are made byte by byte, longer ones in words at multiples of 4 of the
// target.
TEST_P(UserMemory, readStopsAtAHoleAndZeroesTheRest)
{
    inProcess([](host::Process &process) {
        std::uint32_t address = process.allocateBeforeHole(6);
        std::memset(process.pointer<char>(address), 0x55, 6);
        struct {
            unsigned offset, count, left;
        } cases[] = {{0, 16, 12}, {1, 15, 9}, {2, 14, 8}, {5, 16, 13},
                     {6, 16, 10}, {0, 8, 4},  {0, 7, 1},  {0, 6, 0}};
        for (const auto &one : cases) {
            alignas(8) std::array<unsigned char, 32> bytes;
            bytes.fill(0xff);
            EXPECT_EQ(copy_from_user(bytes.data() + one.offset, user(address), one.count),
                      one.left);
            for (unsigned i = 0; i < bytes.size(); i++) {
                bool inside = i >= one.offset && i < one.offset + one.count;
                bool copied = inside && i < one.offset + one.count - one.left;
                EXPECT_EQ(bytes[i], copied ? 0x55 : inside ? 0 : 0xff) << i;
            }
        }
    });
}

TEST_P(UserMemory, writeStopsAtAHole)
{
    inProcess([](host::Process &process) {
        Bytes bytes;
        bytes.fill(0x66);
        struct {
            unsigned before, count, left;
        } cases[] = {{6, 16, 10}, {10, 16, 6}, {5, 7, 2}, {11, 14, 3}, {4, 16, 12}};
        for (const auto &one : cases) {
            std::uint32_t address = process.allocateBeforeHole(one.before);
            EXPECT_EQ(copy_to_user(user(address), bytes.data(), one.count), one.left);
            EXPECT_EQ(
                std::memcmp(process.pointer<char>(address), bytes.data(), one.count - one.left), 0);
        }
    });
}

TEST_P(UserMemory, badAddressCopiesNothing)
{
    inProcess([](host::Process &process) {
        Bytes bytes;
        bytes.fill(0xff);
        EXPECT_EQ(copy_from_user(bytes.data(), user(host::Process::badAddress), 16), 16u);
        EXPECT_EQ(bytes, Bytes{});
        EXPECT_EQ(copy_to_user(user(host::Process::badAddress), bytes.data(), 16), 16u);
        std::uint32_t gone = process.allocate(16);
        process.release(gone);
        EXPECT_EQ(copy_from_user(bytes.data(), user(gone), 16), 16u);
        EXPECT_EQ(copy_from_user(bytes.data(), bytes.data(), 16), 16u) << "kernel memory";
    });
}

TEST_P(UserMemory, rangeBeyondFourGibibytesCopiesNothing)
{
    inProcess([](host::Process &) {
        Bytes bytes;
        bytes.fill(0xff);
        EXPECT_EQ(copy_from_user(bytes.data(), user(0xfffffff8), 16), 16u);
        EXPECT_EQ(bytes, Bytes{});
        EXPECT_EQ(copy_to_user(user(0xfffffff8), bytes.data(), 16), 16u);
#if UINTPTR_MAX > 0xffffffff
        bytes.fill(0xff);
        EXPECT_EQ(copy_from_user(bytes.data(), user(0x100000000), 16), 16u);
        EXPECT_EQ(bytes, Bytes{});
#endif
    });
}

TEST_P(UserMemory, readOnlyMemoryIsReadButNotWritten)
{
    inProcess([](host::Process &process) {
        std::uint32_t address = process.allocate(16, false);
        Bytes bytes;
        bytes.fill(0x77);
        EXPECT_EQ(copy_to_user(user(address), bytes.data(), 16), 16u);
        EXPECT_EQ(put_user(1, static_cast<u32 *>(user(address))), -KERNEL_EFAULT);
        EXPECT_EQ(copy_from_user(bytes.data(), user(address), 16), 0u);
        EXPECT_EQ(bytes, Bytes{});
    });
}

TEST_P(UserMemory, putUserWritesOneWord)
{
    inProcess([](host::Process &process) {
        std::uint32_t address = process.allocate(8);
        EXPECT_EQ(put_user(0x12345678, static_cast<u32 *>(user(address))), 0);
        EXPECT_EQ(process.pointer<u32>(address)[0], 0x12345678u);
        EXPECT_EQ(process.pointer<u32>(address)[1], 0u);
        EXPECT_EQ(put_user(1, static_cast<u32 *>(user(host::Process::badAddress))), -KERNEL_EFAULT);
    });
}

TEST_P(UserMemory, isThatOfTheCallingProcess)
{
    inProcess([](host::Process &process) {
        std::uint32_t address = process.allocate(16);
        Bytes bytes{};
        host::Process other("other");
        host::setCurrentProcess(&other);
        EXPECT_EQ(copy_to_user(user(address), bytes.data(), 16), 16u);
        host::setCurrentProcess(&process);
        EXPECT_EQ(copy_to_user(user(address), bytes.data(), 16), 0u);
    });
}

TEST_P(UserMemory, copiesOfEachDirectionCanBeMadeToFail)
{
    inProcess([](host::Process &process) {
        std::uint32_t address = process.allocate(16);
        std::memset(process.pointer<char>(address), 0x55, 16);
        Bytes bytes;
        bytes.fill(0xff);
        host::clearFaults();
        host::failNth(host::Fault::copyFromUser, 1);
        host::failNth(host::Fault::copyToUser, 1, 2);
        EXPECT_EQ(copy_from_user(bytes.data(), user(address), 16), 16u);
        EXPECT_EQ(bytes, Bytes{});
        EXPECT_EQ(copy_to_user(user(address), bytes.data(), 16), 16u);
        EXPECT_EQ(put_user(0, static_cast<u32 *>(user(address))), -KERNEL_EFAULT);
        EXPECT_EQ(*process.pointer<u32>(address), 0x55555555u);
        EXPECT_EQ(copy_from_user(bytes.data(), user(address), 16), 0u);
        EXPECT_EQ(host::faultsInjected(host::Fault::copyFromUser), 1u);
        EXPECT_EQ(host::faultsInjected(host::Fault::copyToUser), 2u);
        host::clearFaults();
    });
}

TEST_P(UserMemory, usedByAKernelThreadIsReported)
{
    inKernel([&] {
        struct completion done;
        init_completion(&done);
        auto thread = [](void *argument) {
            Bytes bytes;
            bytes.fill(0xff);
            EXPECT_EQ(copy_from_user(bytes.data(), user(0x1000), 16), 16u);
            EXPECT_EQ(bytes, Bytes{});
            complete_and_exit(static_cast<struct completion *>(argument), 0);
            return 0;
        };
        EXPECT_GT(kernel_thread(thread, &done, 0), 0);
        wait_for_completion(&done);
    });
    expectViolation("user memory used by a kernel thread");
}

TEST_P(UserMemory, usedInAtomicContextIsReported)
{
    inProcess([&](host::Process &process) {
        std::uint32_t address = process.allocate(16);
        spinlock_t lock;
        spin_lock_init(&lock);
        Bytes bytes{};
        unsigned long flags = spin_lock_irqsave(&lock);
        EXPECT_EQ(copy_from_user(bytes.data(), user(address), 16), 0u);
        spin_unlock_irqrestore(&lock, flags);
        expectViolation("copy_from_user");
        flags = spin_lock_irqsave(&lock);
        EXPECT_EQ(copy_to_user(user(address), bytes.data(), 16), 0u);
        spin_unlock_irqrestore(&lock, flags);
        expectViolation("copy_to_user");
        flags = spin_lock_irqsave(&lock);
        EXPECT_EQ(put_user(1, static_cast<u32 *>(user(address))), 0);
        spin_unlock_irqrestore(&lock, flags);
        expectViolation("put_user");
    });
}

// Reaches the low half of a page at 0x5000 and nothing else.
class OtherMemory : public host::Process::RemoteMemory
{
public:
    std::array<unsigned char, 2048> bytes{};

    std::size_t read(std::uint32_t address, void *to, std::size_t count) override
    {
        std::size_t reached = reach(address, count);
        std::memcpy(to, bytes.data() + (address - 0x5000), reached);
        return reached;
    }
    std::size_t write(std::uint32_t address, const void *from, std::size_t count) override
    {
        std::size_t reached = reach(address, count);
        std::memcpy(bytes.data() + (address - 0x5000), from, reached);
        return reached;
    }

private:
    static std::size_t reach(std::uint32_t address, std::size_t count)
    {
        if (address < 0x5000 || address >= 0x5800)
            return 0;
        return std::min<std::size_t>(count, 0x5800 - address);
    }
};

TEST_P(UserMemory, canBeElsewhere)
{
    inProcess([](host::Process &process) {
        auto memory = std::make_shared<OtherMemory>();
        process.useRemoteMemory(memory);
        Bytes bytes;
        bytes.fill(0x31);
        EXPECT_EQ(copy_to_user(user(0x5010), bytes.data(), 16), 0u);
        EXPECT_EQ(memory->bytes[0x10], 0x31);
        EXPECT_EQ(copy_from_user(bytes.data(), user(0x57f8), 16), 8u);
        EXPECT_EQ(bytes, Bytes{});
        EXPECT_EQ(copy_from_user(bytes.data(), user(0x4ff8), 16), 16u);
    });
}

} // namespace
