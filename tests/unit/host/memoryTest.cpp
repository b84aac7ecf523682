/* Pages, objects and ranges, and the account of them. */
#include <algorithm>
#include <cstring>
#include <set>
#include <sys/mman.h>

#include <host/memory.h>
#include <host/task.h>
#include <kernel/memory.h>

#include "kernel/host/sanitizers.h"
#include "support/hostTest.h"

using namespace host;

namespace
{

class MemoryTest : public test::SchedulerTest
{
protected:
    Options options() const override
    {
        Options result = SchedulerTest::options();
        result.lowPages = 128;
        result.highPages = 128;
        return result;
    }
    static bool allBytesAre(const void *memory, unsigned char byte, std::size_t bytes)
    {
        auto *at = static_cast<const unsigned char *>(memory);
        return std::all_of(at, at + bytes, [=](unsigned char b) { return b == byte; });
    }
    bool heldNames(const std::string &text)
    {
        std::vector<std::string> held = memoryHeld();
        return std::any_of(held.begin(), held.end(), [&](const std::string &line) {
            return line.find(text) != std::string::npos;
        });
    }
};
INSTANTIATE_SCHEDULERS(MemoryTest);

TEST_P(MemoryTest, ALowPageHasAnAddressAndIsNotZeroed)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_NOIO, 0);
        void *address = page_address(page);
        ASSERT_NE(address, nullptr);
        EXPECT_TRUE(allBytesAre(address, 0x5a, PAGE_SIZE));
        EXPECT_EQ(kmap(page), address);
        kunmap(page);
        EXPECT_EQ(page_address(page), address);
        __free_pages(page, 0);
    });
}

TEST_P(MemoryTest, AHighPageHasAnAddressOnlyWhileMapped)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_HIGHUSER, 0);
        EXPECT_EQ(memoryUse().highPages, 1u);
        EXPECT_EQ(page_address(page), nullptr);
        auto *first = static_cast<unsigned char *>(kmap(page));
        EXPECT_EQ(page_address(page), first);
        EXPECT_TRUE(allBytesAre(first, 0x5a, PAGE_SIZE));
        EXPECT_EQ(kmap(page), first) << "mappings of one page nest";
        first[5] = 77;
        kunmap(page);
        EXPECT_EQ(page_address(page), first);
        EXPECT_EQ(memoryUse().kmaps, 1u);
        kunmap(page);
        EXPECT_EQ(page_address(page), nullptr);
        EXPECT_EQ(memoryUse().kmaps, 0u);
        EXPECT_EQ(pageBytes(page)[5], 77);
        __free_pages(page, 0);
    });
}

TEST_P(MemoryTest, HighMemoryRunsOutIntoLowAndThenOut)
{
    inKernel([] {
        std::vector<struct page *> pages;
        while (struct page *page = alloc_pages(GFP_HIGHUSER, 0))
            pages.push_back(page);
        EXPECT_EQ(pages.size(), 256u);
        EXPECT_EQ(memoryUse().highPages, 128u);
        EXPECT_EQ(alloc_pages(GFP_NOIO, 0), nullptr);
        EXPECT_EQ(std::set(pages.begin(), pages.end()).size(), 256u);
        for (struct page *page : pages)
            __free_pages(page, 0);
        EXPECT_EQ(memoryUse(), MemoryUse());
    });
}

TEST_P(MemoryTest, LowRequestsNeverGetHighPages)
{
    inKernel([] {
        std::vector<struct page *> pages;
        while (struct page *page = alloc_pages(GFP_KERNEL, 0))
            pages.push_back(page);
        EXPECT_EQ(pages.size(), 128u);
        EXPECT_EQ(memoryUse().highPages, 0u);
        for (struct page *page : pages)
            __free_pages(page, 0);
    });
}

TEST_P(MemoryTest, BlocksOfPagesAreContiguous)
{
    inKernel([] {
        std::vector<struct page *> singles;
        for (int i = 0; i < 100; i++)
            singles.push_back(alloc_pages(GFP_KERNEL, 0));
        for (struct page *page : singles)
            __free_pages(page, 0);
        std::vector<struct page *> blocks;
        while (struct page *block = alloc_pages(GFP_KERNEL, 3))
            blocks.push_back(block);
        EXPECT_EQ(blocks.size(), 16u);
        EXPECT_EQ(memoryUse().pages, 128u);
        for (struct page *block : blocks) {
            auto *bytes = static_cast<unsigned char *>(page_address(block));
            EXPECT_TRUE(allBytesAre(bytes, 0x5a, 8 * PAGE_SIZE));
            std::memset(bytes, 1, 8 * PAGE_SIZE);
        }
        for (struct page *block : blocks)
            __free_pages(block, 3);
    });
}

TEST_P(MemoryTest, TheLastReferenceFreesAPage)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_KERNEL, 0);
        get_page(page);
        __free_pages(page, 0);
        EXPECT_EQ(memoryUse().pages, 1u);
        __free_pages(page, 0);
        EXPECT_EQ(memoryUse().pages, 0u);
    });
}

TEST_P(MemoryTest, KmallocGivesUpTo128KiB)
{
    inKernel([] {
        for (std::size_t size : {1u, 31u, 32u, 33u, 1000u, 128u * 1024u}) {
            void *object = kmalloc(size, GFP_KERNEL);
            ASSERT_NE(object, nullptr);
            EXPECT_TRUE(allBytesAre(object, 0x5a, size));
            EXPECT_EQ(memoryUse().kmallocs, 1u);
            EXPECT_EQ(memoryUse().kmallocBytes, size);
            std::memset(object, 0, size);
            kfree(object);
        }
        EXPECT_EQ(kmalloc(128 * 1024 + 1, GFP_KERNEL), nullptr);
        kfree(nullptr);
    });
}

TEST_P(MemoryTest, FreedMemoryComesBackFresh)
{
    inKernel([] {
        for (int i = 0; i < 200; i++) {
            void *object = kmalloc(100, GFP_NOIO);
            EXPECT_TRUE(allBytesAre(object, 0x5a, 100));
            std::memset(object, 0, 100);
            kfree(object);
            struct page *page = alloc_pages(GFP_NOIO, 0);
            EXPECT_TRUE(allBytesAre(page_address(page), 0x5a, PAGE_SIZE));
            std::memset(page_address(page), 0, PAGE_SIZE);
            __free_pages(page, 0);
        }
    });
}

TEST_P(MemoryTest, VmallocGivesWholeRanges)
{
    inKernel([] {
        void *range = vmalloc(100'000);
        EXPECT_TRUE(allBytesAre(range, 0x5a, 100'000));
        EXPECT_EQ(memoryUse().vmallocs, 1u);
        std::memset(range, 1, 100'000);
        vfree(range);
        vfree(nullptr);
        EXPECT_EQ(vmalloc(0), nullptr);
    });
}

TEST_P(MemoryTest, SlabCachesCountTheirObjects)
{
    inKernel([] {
        kmem_cache *cache = kmem_cache_create("test", 12, 0, SLAB_HWCACHE_ALIGN, nullptr);
        std::vector<void *> objects;
        for (int i = 0; i < 50; i++) {
            objects.push_back(kmem_cache_alloc(cache, GFP_NOIO));
            EXPECT_TRUE(allBytesAre(objects.back(), 0x5a, 12));
        }
        EXPECT_EQ(memoryUse().caches, 1u);
        EXPECT_EQ(memoryUse().cacheObjects, 50u);
        for (void *object : objects)
            kmem_cache_free(cache, object);
        kmem_cache_destroy(cache);
    });
}

TEST_P(MemoryTest, WhatIsHeldIsNamedWithItsPlace)
{
    inKernel([&] {
        struct page *page = alloc_pages(GFP_HIGHUSER, 0);
        kmap(page);
        void *object = kmalloc(77, GFP_KERNEL);
        void *range = vmalloc(5000);
        kmem_cache *cache = kmem_cache_create("test", 40, 0, 0, nullptr);
        void *slab = kmem_cache_alloc(cache, GFP_KERNEL);
        EXPECT_TRUE(heldNames("pages of 4096 bytes by main (1) at "));
        EXPECT_TRUE(heldNames("kmap of 4096 bytes"));
        EXPECT_TRUE(heldNames("kmalloc of 77 bytes"));
        EXPECT_TRUE(heldNames("vmalloc of 5000 bytes"));
        EXPECT_TRUE(heldNames("slab cache of objects of 40 bytes"));
        EXPECT_TRUE(heldNames("slab object of 40 bytes"));
        EXPECT_TRUE(heldNames("MemoryTest_WhatIsHeldIsNamedWithItsPlace"));
        kmem_cache_free(cache, slab);
        kmem_cache_destroy(cache);
        vfree(range);
        kfree(object);
        kunmap(page);
        __free_pages(page, 0);
        EXPECT_EQ(memoryHeld(), std::vector<std::string>{});
    });
}

TEST_P(MemoryTest, ForgivenMemoryIsOffTheAccount)
{
    inKernel([&] {
        void *object = kmalloc(77, GFP_KERNEL);
        struct page *page = alloc_pages(GFP_KERNEL, 0);
        forgiveHeldMemory();
        EXPECT_EQ(memoryUse(), MemoryUse());
        kfree(object);
        __free_pages(page, 0);
        EXPECT_EQ(memoryUse(), MemoryUse());
    });
}

TEST_P(MemoryTest, HostPagesAreNotOnTheAccount)
{
    inKernel([&] {
        struct page *low = allocHostPage();
        struct page *high = allocHostPage(true);
        EXPECT_EQ(memoryUse(), MemoryUse());
        EXPECT_NE(page_address(low), nullptr);
        EXPECT_EQ(page_address(high), nullptr);
        std::memset(pageBytes(high), 3, PAGE_SIZE);
        EXPECT_EQ(static_cast<unsigned char *>(kmap(high))[100], 3);
        kunmap(high);
        freeHostPage(low);
        freeHostPage(high);
    });
}

TEST_P(MemoryTest, PagesLieInOneFile)
{
    inKernel([&] {
        struct page *page = allocHostPage(true);
        pageBytes(page)[17] = 99;
        void *view = mmap(nullptr, PAGE_SIZE, PROT_READ, MAP_SHARED, pageMemoryFile(),
                          static_cast<off_t>(pageFileOffset(page)));
        ASSERT_NE(view, MAP_FAILED);
        EXPECT_EQ(static_cast<unsigned char *>(view)[17], 99);
        munmap(view, PAGE_SIZE);
        freeHostPage(page);
    });
}

TEST_P(MemoryTest, KmapWaitsWhenItsWindowIsFull)
{
    Options larger = options();
    larger.highPages = 1000;
    restart(larger);
    inKernel([] {
        std::vector<struct page *> pages;
        for (int i = 0; i < 512; i++) {
            pages.push_back(alloc_pages(GFP_HIGHUSER, 0));
            kmap(pages.back());
        }
        struct page *last = alloc_pages(GFP_HIGHUSER, 0);
        Task waiter = spawn("waiter", [&] {
            kmap(last);
            kunmap(last);
        });
        while (!threadSanitized && !waiter.asleep())
            yield();
        kunmap(pages[100]);
        waiter.join();
        __free_pages(last, 0);
        kmap(pages[100]);
        for (struct page *page : pages) {
            kunmap(page);
            __free_pages(page, 0);
        }
    });
}

TEST_P(MemoryTest, HighPagesKeepTheirContentsFromKmapToKmap)
{
    Options larger = options();
    larger.highPages = 1000;
    restart(larger);
    inKernel([] {
        std::vector<struct page *> pages;
        for (int i = 0; i < 900; i++)
            pages.push_back(alloc_pages(GFP_HIGHUSER, 0));
        for (int round = 0; round < 4; round++)
            for (int i = 0; i < 900; i++) {
                auto *number = static_cast<int *>(kmap(pages[i]));
                EXPECT_EQ(*number, round == 0 ? 0x5a5a5a5a : i * round);
                *number = i * (round + 1);
                kunmap(pages[i]);
                EXPECT_EQ(page_address(pages[i]), nullptr);
            }
        for (struct page *page : pages)
            __free_pages(page, 0);
    });
}

TEST_P(MemoryTest, TasksAllocateAtOnce)
{
    inKernel([] {
        kmem_cache *cache = kmem_cache_create("test", 64, 0, 0, nullptr);
        std::vector<Task> tasks;
        for (int t = 0; t < 4; t++)
            tasks.push_back(spawn("allocator", [&, t] {
                for (int i = 0; i < 100; i++) {
                    auto *object = static_cast<unsigned char *>(kmalloc(50, GFP_KERNEL));
                    auto *slab = static_cast<unsigned char *>(kmem_cache_alloc(cache, GFP_NOIO));
                    struct page *page = alloc_pages(GFP_HIGHUSER, 0);
                    auto *bytes = static_cast<unsigned char *>(kmap(page));
                    std::memset(object, t, 50);
                    std::memset(slab, t, 64);
                    std::memset(bytes, t, PAGE_SIZE);
                    yield();
                    EXPECT_EQ(object[49], t);
                    EXPECT_EQ(slab[63], t);
                    EXPECT_EQ(bytes[PAGE_SIZE - 1], t);
                    kunmap(page);
                    __free_pages(page, 0);
                    kmem_cache_free(cache, slab);
                    kfree(object);
                }
            }));
        for (Task &task : tasks)
            task.join();
        kmem_cache_destroy(cache);
    });
}

TEST_P(MemoryTest, WithoutChecksEverythingWorksTheSame)
{
    Options lean = options();
    lean.checks = false;
    restart(lean);
    inKernel([] {
        for (int i = 0; i < 100; i++) {
            struct page *page = alloc_pages(GFP_HIGHUSER, 0);
            EXPECT_EQ(page_address(page), nullptr);
            void *address = kmap(page);
            EXPECT_EQ(page_address(page), address);
            std::memset(address, 1, PAGE_SIZE);
            kunmap(page);
            __free_pages(page, 0);
            void *object = kmalloc(200, GFP_NOIO);
            std::memset(object, 1, 200);
            EXPECT_EQ(memoryUse().kmallocs, 1u);
            kfree(object);
        }
    });
}

} // namespace
