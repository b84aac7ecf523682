#include <cstring>
#include <string>
#include <vector>

#include <host/memory.h>
#include <host/process.h>
#include <kernel/sync.h>
#include <kernel/uaccess.h>

#include "support/hostTest.h"
#include "unit/host/testDevice.h"

namespace
{

using test::TestDevice;

// A device that maps `pages`, which it holds a reference on, as the module does with its buffer.
class Mapping : public test::SchedulerTest
{
protected:
    void run(const std::function<void(host::Process &process, int fd, TestDevice &device)> &body)
    {
        inKernel([&] {
            TestDevice device;
            ASSERT_EQ(device.add(), 0);
            for (gfp_t gfp : {GFP_KERNEL, GFP_HIGHUSER}) {
                pages.push_back(alloc_pages(gfp, 0));
                std::memset(host::pageBytes(pages.back()), 0x10 + gfp % 7, PAGE_SIZE);
            }
            device.fault = [&](struct vm_area_struct *vma, struct vm_fault *fault) {
                std::size_t index = (vmf_virtual_address(fault) - vma_start(vma)) / PAGE_SIZE;
                EXPECT_EQ(vmf_virtual_address(fault) % PAGE_SIZE, 0u);
                if (index >= pages.size())
                    return static_cast<int>(VM_FAULT_SIGBUS);
                get_page(pages[index]);
                vmf_set_page(fault, pages[index]);
                faults++;
                return 0;
            };
            {
                host::Process process("user");
                body(process, process.open(TestDevice::path), device);
            }
            for (struct page *page : pages)
                __free_pages(page, 0);
        });
    }

    std::vector<struct page *> pages;
    unsigned faults = 0;
};

INSTANTIATE_SCHEDULERS(Mapping);

TEST_P(Mapping, showsTheDevicesPagesAsTheyAreTouched)
{
    run([&](host::Process &process, int fd, TestDevice &) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, 2 * PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_EQ(faults, 0u);
        EXPECT_TRUE(process.touch(address + 10, 20));
        EXPECT_EQ(faults, 1u);
        EXPECT_TRUE(process.touch(address, 2 * PAGE_SIZE));
        EXPECT_EQ(faults, 2u);
        const unsigned char *seen = process.pointer<unsigned char>(address);
        for (unsigned i = 0; i < 2; i++) {
            unsigned char *bytes = host::pageBytes(pages[i]);
            EXPECT_EQ(std::memcmp(seen + i * PAGE_SIZE, bytes, PAGE_SIZE), 0);
            bytes[77] = static_cast<unsigned char>(0xa0 + i);
            EXPECT_EQ(seen[i * PAGE_SIZE + 77], 0xa0 + i) << "the same memory";
        }
        EXPECT_FALSE(process.touch(address + 2 * PAGE_SIZE, 1)) << "a hole follows";
    });
}

TEST_P(Mapping, isDescribedToTheDevice)
{
    run([&](host::Process &process, int fd, TestDevice &device) {
        unsigned long flags = 0;
        device.mmap = [&](struct vm_area_struct *vma) {
            EXPECT_EQ(vma_end(vma) - vma_start(vma), 3u * PAGE_SIZE);
            EXPECT_EQ(vma_start(vma) % PAGE_SIZE, 0u);
            EXPECT_EQ(vma_pgoff(vma), 9u);
            EXPECT_NE(vma_file(vma), nullptr);
            flags = vma_flags(vma) & (VM_READ | VM_WRITE | VM_SHARED);
            return 2;
        };
        std::uint32_t address = 0;
        process.mmap(fd, 2 * PAGE_SIZE + 1, false, false, 9, &address);
        EXPECT_EQ(flags, VM_READ + 0u);
        process.mmap(fd, 2 * PAGE_SIZE + 1, true, false, 9, &address);
        EXPECT_EQ(flags, VM_READ + VM_WRITE + 0u);
        process.mmap(fd, 2 * PAGE_SIZE + 1, false, true, 9, &address);
        EXPECT_EQ(flags, VM_READ + VM_SHARED + 0u);
    });
}

TEST_P(Mapping, refusedByTheDeviceIsNoMapping)
{
    run([&](host::Process &process, int fd, TestDevice &device) {
        int result = 2;
        std::uint32_t tried = 0;
        device.mmap = [&](struct vm_area_struct *vma) {
            tried = static_cast<std::uint32_t>(vma_start(vma));
            return result;
        };
        device.closed = [](struct vm_area_struct *) { ADD_FAILURE() << "there is no mapping"; };
        std::uint32_t address = 0;
        EXPECT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 2);
        result = -KERNEL_EINVAL;
        EXPECT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), -KERNEL_EINVAL);
        EXPECT_EQ(address, 0u);
        EXPECT_FALSE(process.touch(tried, 1));
        EXPECT_EQ(process.munmap(tried), -KERNEL_EINVAL);
        EXPECT_EQ(process.mmap(fd, 0, false, false, 0, &address), -KERNEL_EINVAL);
        EXPECT_EQ(process.mmap(5, PAGE_SIZE, false, false, 0, &address), -9);
    });
}

TEST_P(Mapping, faultThatTheDeviceRefusesIsASignal)
{
    run([&](host::Process &process, int fd, TestDevice &) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, 3 * PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_TRUE(process.touch(address, 2 * PAGE_SIZE));
        EXPECT_FALSE(process.touch(address, 3 * PAGE_SIZE));
        EXPECT_EQ(process.mappedPage(address, 0), pages[0]);
        EXPECT_EQ(process.mappedPage(address, 2), nullptr);
        EXPECT_EQ(process.mappedPage(address, 3), nullptr);
    });
}

TEST_P(Mapping, canBeEnlargedInPlace)
{
    run([&](host::Process &process, int fd, TestDevice &) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_FALSE(process.touch(address + PAGE_SIZE, 1));
        EXPECT_EQ(process.growMapping(address, 2 * PAGE_SIZE), 0);
        EXPECT_TRUE(process.touch(address + PAGE_SIZE, 1));
        EXPECT_EQ(process.growMapping(address, 18 * PAGE_SIZE), -KERNEL_ENOMEM);
        EXPECT_EQ(process.growMapping(address, PAGE_SIZE), -KERNEL_EINVAL);
        EXPECT_EQ(process.growMapping(address + PAGE_SIZE, PAGE_SIZE), -KERNEL_EINVAL);
    });
}

TEST_P(Mapping, unmappingDropsPagesThenClosesThenReleasesTheFile)
{
    std::vector<std::string> order;
    run([&](host::Process &process, int fd, TestDevice &device) {
        device.closed = [&](struct vm_area_struct *vma) {
            EXPECT_NE(vma_file(vma), nullptr);
            order.push_back("close");
            // The mapping's reference is gone: freeing the last one gives the page back.
            unsigned before = host::memoryUse().pages;
            __free_pages(pages.back(), 0);
            pages.pop_back();
            EXPECT_EQ(host::memoryUse().pages, before - 1);
        };
        device.release = [&](struct file *) { order.push_back("release"); };
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, 2 * PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_TRUE(process.touch(address, 2 * PAGE_SIZE));
        EXPECT_EQ(process.close(fd), 0);
        EXPECT_EQ(order, std::vector<std::string>()) << "the mapping holds the file";
        EXPECT_EQ(process.munmap(address), 0);
        EXPECT_EQ(order, (std::vector<std::string>{"close", "release"}));
        EXPECT_FALSE(process.touch(address, 1));
        EXPECT_EQ(process.munmap(address), -KERNEL_EINVAL);
    });
}

TEST_P(Mapping, exitUnmapsBeforeItClosesFiles)
{
    std::vector<std::string> order;
    run([&](host::Process &process, int fd, TestDevice &device) {
        device.closed = [&](struct vm_area_struct *) { order.push_back("close"); };
        device.release = [&](struct file *) { order.push_back("release"); };
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 0);
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_TRUE(process.touch(address, 1));
    });
    EXPECT_EQ(order, (std::vector<std::string>{"close", "close", "release"}));
}

TEST_P(Mapping, freedPageStaysUntilItIsUnmapped)
{
    run([&](host::Process &process, int fd, TestDevice &) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_TRUE(process.touch(address, 1));
        unsigned before = host::memoryUse().pages;
        unsigned char first = host::pageBytes(pages[0])[0];
        __free_pages(pages[0], 0);
        pages.erase(pages.begin());
        EXPECT_EQ(host::memoryUse().pages, before);
        EXPECT_EQ(*process.pointer<unsigned char>(address), first);
        EXPECT_EQ(process.munmap(address), 0);
        EXPECT_EQ(host::memoryUse().pages, before - 1);
    });
}

TEST_P(Mapping, freeingAPageThatIsStillMappedIsReported)
{
    run([&](host::Process &process, int fd, TestDevice &device) {
        device.fault = [&](struct vm_area_struct *, struct vm_fault *fault) {
            vmf_set_page(fault, pages[0]); // without a reference
            return 0;
        };
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_TRUE(process.touch(address, 1));
        __free_pages(pages[0], 0);
        expectViolation("page freed while mapped");
        pages.erase(pages.begin());
        EXPECT_EQ(process.munmap(address), 0);
        kernel().takeViolations(); // of the second free, if any
    });
}

TEST_P(Mapping, faultWithoutAPageIsReported)
{
    run([&](host::Process &process, int fd, TestDevice &device) {
        device.fault = [](struct vm_area_struct *, struct vm_fault *) { return 0; };
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_FALSE(process.touch(address, 1));
        expectViolation("fault without a page");
    });
}

TEST_P(Mapping, copiesFromItFaultItsPagesInAndReadOnlyOnesAreNotWritten)
{
    run([&](host::Process &process, int fd, TestDevice &device) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, 2 * PAGE_SIZE, false, false, 0, &address), 0);
        device.ioctl = [&](unsigned, unsigned long) {
            std::vector<unsigned char> bytes(PAGE_SIZE);
            auto *user = process.pointer<unsigned char>(address + PAGE_SIZE / 2);
            EXPECT_EQ(copy_from_user(bytes.data(), user, PAGE_SIZE), 0u);
            EXPECT_EQ(bytes.front(), *host::pageBytes(pages[0]));
            EXPECT_EQ(bytes.back(), *host::pageBytes(pages[1]));
            EXPECT_EQ(copy_to_user(user, bytes.data(), PAGE_SIZE), PAGE_SIZE + 0u);
            return 0;
        };
        EXPECT_EQ(process.ioctl(fd, 1, 0), 0);
        EXPECT_EQ(faults, 2u);
    });
}

TEST_P(Mapping, sharedWritableOneIsWrittenThrough)
{
    run([&](host::Process &process, int fd, TestDevice &) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, true, true, 0, &address), 0);
        ASSERT_TRUE(process.touch(address, 1));
        *process.pointer<unsigned char>(address + 3) = 0x99;
        EXPECT_EQ(host::pageBytes(pages[0])[3], 0x99);
    });
}

TEST_P(Mapping, whatAProcessWritesToAPrivateOneStaysItsOwn)
{
    run([&](host::Process &process, int fd, TestDevice &) {
        std::uint32_t address = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, true, false, 0, &address), 0);
        ASSERT_TRUE(process.touch(address, 1));
        unsigned char before = host::pageBytes(pages[0])[3];
        *process.pointer<unsigned char>(address + 3) = static_cast<unsigned char>(before + 1);
        EXPECT_EQ(host::pageBytes(pages[0])[3], before);
    });
}

TEST_P(Mapping, faultsWaitForAMappingInTheMaking)
{
    run([&](host::Process &process, int fd, TestDevice &device) {
        std::uint32_t first = 0;
        ASSERT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &first), 0);
        bool making = true;
        struct completion entered;
        init_completion(&entered);
        device.mmap = [&](struct vm_area_struct *) {
            complete(&entered);
            for (int i = 0; i < 100; i++)
                host::yield();
            making = false;
            return 0;
        };
        host::Task mapper = host::spawn("mapper", [&] {
            std::uint32_t second = 0;
            EXPECT_EQ(process.mmap(fd, PAGE_SIZE, false, false, 0, &second), 0);
        });
        wait_for_completion(&entered);
        EXPECT_TRUE(process.touch(first, 1));
        EXPECT_FALSE(making);
        mapper.join();
    });
}

TEST_P(Mapping, ofARemoteProcessLiesWhereItSays)
{
    struct Nothing : host::Process::RemoteMemory {
        std::size_t read(std::uint32_t, void *, std::size_t) override { return 0; }
        std::size_t write(std::uint32_t, const void *, std::size_t) override { return 0; }
    };
    run([&](host::Process &process, int fd, TestDevice &device) {
        process.useRemoteMemory(std::make_shared<Nothing>());
        std::uint32_t address = 0x40000000;
        ASSERT_EQ(process.mmap(fd, 2 * PAGE_SIZE, false, false, 0, &address), 0);
        EXPECT_EQ(address, 0x40000000u);
        EXPECT_EQ(process.mappedPage(address, 1), pages[1]);
        device.ioctl = [&](unsigned, unsigned long argument) {
            unsigned char byte = 0;
            EXPECT_EQ(copy_from_user(&byte, reinterpret_cast<void *>(argument), 1), 0u);
            EXPECT_EQ(byte, *host::pageBytes(pages[1]));
            return 0;
        };
        EXPECT_EQ(process.ioctl(fd, 1, address + PAGE_SIZE), 0);
        EXPECT_EQ(process.munmap(address), 0);
        EXPECT_FALSE(process.touch(address, 1));
    });
}

} // namespace
