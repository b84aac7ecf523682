/* The checks of memory: each fault is planted and must be reported. */
#include <cstdio>
#include <unistd.h>

#include <host/memory.h>
#include <host/task.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "kernel/host/internal.h"
#include "kernel/host/sanitizers.h"
#include "support/hostTest.h"

using namespace host;

namespace
{

class MemoryChecksTest : public test::SchedulerTest
{
protected:
    // Expects `access` to end the program.
    void expectDeath(void (*access)())
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        EXPECT_DEATH(inKernel([&] {
                         std::fputs("in the kernel\n", stderr);
                         access();
                         _exit(0);
                     }),
                     "in the kernel");
    }
};
INSTANTIATE_SCHEDULERS(MemoryChecksTest);

int nothing(void *)
{
    return 0;
}

TEST_P(MemoryChecksTest, AllocationsThatMayStartIoOnTheIoPath)
{
    inKernel([] {
        IoPathScope scope;
        kfree(kmalloc(10, GFP_NOIO));
        __free_pages(alloc_pages(GFP_NOIO, 0), 0);
        EXPECT_EQ(Kernel::current().violations(), std::vector<std::string>{});
        IoPathScope nested;
        kfree(kmalloc(10, GFP_KERNEL));
        __free_pages(alloc_pages(GFP_HIGHUSER, 0), 0);
        vfree(vmalloc(100));
        kmem_cache_destroy(kmem_cache_create("test", 8, 0, 0, nullptr));
        kernel_thread(nothing, nullptr, 0);
    });
    std::vector<std::string> violations = kernel().takeViolations();
    EXPECT_EQ(violations,
              (std::vector<std::string>{
                  "allocation that may start I/O on the I/O path: kmalloc() by main (1)",
                  "allocation that may start I/O on the I/O path: alloc_pages() by main (1)",
                  "allocation that may start I/O on the I/O path: vmalloc() by main (1)",
                  "allocation that may start I/O on the I/O path: kmem_cache_create() by main (1)",
                  "allocation that may start I/O on the I/O path: kernel_thread() by main (1)",
              }));
    inKernel([] {
        {
            IoPathScope scope;
        }
        kfree(kmalloc(10, GFP_KERNEL));
    });
}

TEST_P(MemoryChecksTest, AllocationsInAtomicContext)
{
    inKernel([] {
        spinlock_t lock;
        spin_lock_init(&lock);
        unsigned long flags = spin_lock_irqsave(&lock);
        kfree(kmalloc(10, GFP_NOIO));
        spin_unlock_irqrestore(&lock, flags);
    });
    expectViolation("sleep in atomic context: kmalloc() by main (1) holding &lock");
    inKernel([] { runInInterrupt([] { __free_pages(alloc_pages(GFP_NOIO, 0), 0); }); });
    expectViolation("sleep in atomic context: alloc_pages() by main (2) in interrupt context");
    inKernel([] {
        struct page *page = alloc_pages(GFP_KERNEL, 0);
        spinlock_t lock;
        spin_lock_init(&lock);
        unsigned long flags = spin_lock_irqsave(&lock);
        kmap(page);
        kunmap(page);
        spin_unlock_irqrestore(&lock, flags);
        __free_pages(page, 0);
    });
    expectViolation("sleep in atomic context: kmap() by main (3) holding &lock");
}

TEST_P(MemoryChecksTest, KunmapWithoutKmap)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_HIGHUSER, 0);
        kmap(page);
        kunmap(page);
        kunmap(page);
        __free_pages(page, 0);
    });
    expectViolation("kunmap without kmap: page ");
}

TEST_P(MemoryChecksTest, FreeingAPageThatIsKmapped)
{
    inKernel([] {
        for (unsigned gfp : {GFP_HIGHUSER, GFP_KERNEL}) {
            struct page *page = alloc_pages(gfp, 0);
            kmap(page);
            __free_pages(page, 0);
        }
    });
    EXPECT_EQ(memoryUse().kmaps, 0u);
    expectViolation("page freed while kmapped: page ");
}

TEST_P(MemoryChecksTest, FreeingAPageTwice)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_KERNEL, 0);
        __free_pages(page, 0);
        __free_pages(page, 0);
    });
    expectViolation("double free: page ");
}

TEST_P(MemoryChecksTest, FreeingPagesWithTheWrongOrder)
{
    inKernel([] { __free_pages(alloc_pages(GFP_KERNEL, 1), 0); });
    expectViolation("bad free: page ");
}

TEST_P(MemoryChecksTest, MappingAFreedPage)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_HIGHUSER, 0);
        __free_pages(page, 0);
        kmap(page);
        kunmap(page);
        get_page(page);
    });
    expectViolation("use after free: page ");
}

TEST_P(MemoryChecksTest, FreeingAnObjectTwice)
{
    inKernel([] {
        void *object = kmalloc(40, GFP_KERNEL);
        kfree(object);
        kfree(object);
    });
    expectViolation("double free: kfree() by main (1)");
}

TEST_P(MemoryChecksTest, FreeingWhatWasNotAllocated)
{
    inKernel([] {
        auto *object = static_cast<char *>(kmalloc(40, GFP_KERNEL));
        kfree(object + 8);
        kfree(object);
        int local;
        kfree(&local);
    });
    expectViolation("bad free: kfree() of what it does not free by main (1) at ");
    inKernel([] { vfree(reinterpret_cast<void *>(0x1000)); });
    expectViolation("bad free: vfree() by main (2)");
}

TEST_P(MemoryChecksTest, FreeingASlabObjectToAnotherCache)
{
    inKernel([] {
        kmem_cache *one = kmem_cache_create("one", 24, 0, 0, nullptr);
        kmem_cache *two = kmem_cache_create("two", 24, 0, 0, nullptr);
        void *object = kmem_cache_alloc(one, GFP_KERNEL);
        kmem_cache_free(two, object);
        EXPECT_EQ(memoryUse().cacheObjects, 1u);
        kmem_cache_free(one, object);
        kmem_cache_destroy(one);
        kmem_cache_destroy(two);
    });
    expectViolation("bad free: kmem_cache_free() to another cache by main (1) at ");
}

TEST_P(MemoryChecksTest, DestroyingACacheWithObjects)
{
    inKernel([] {
        kmem_cache *cache = kmem_cache_create("test", 24, 0, 0, nullptr);
        void *object = kmem_cache_alloc(cache, GFP_KERNEL);
        kmem_cache_destroy(cache);
        kmem_cache_free(cache, object);
        kmem_cache_destroy(cache);
    });
    expectViolation("cache destroyed with live objects: test, 1 objects, by main (1)");
}

TEST_P(MemoryChecksTest, DestroyingACacheTwice)
{
    inKernel([] {
        kmem_cache *cache = kmem_cache_create("test", 24, 0, 0, nullptr);
        kmem_cache_destroy(cache);
        kmem_cache_destroy(cache);
    });
    expectViolation("bad free: kmem_cache_destroy() of no cache by main (1)");
}

// Writes to freed memory; sanitizers would end the program at the write itself.
__attribute__((no_sanitize("address", "thread"))) void writeAnyway(void *memory, std::size_t offset)
{
    static_cast<volatile unsigned char *>(memory)[offset] = 1;
}

TEST_P(MemoryChecksTest, WritingToAFreedPage)
{
    inKernel([] {
        struct page *page = alloc_pages(GFP_KERNEL, 0);
        void *bytes = page_address(page);
        __free_pages(page, 0);
        writeAnyway(bytes, 1000);
        for (int i = 0; i < 200; i++)
            __free_pages(alloc_pages(GFP_KERNEL, 0), 0);
    });
    expectViolation("use after free: written: page 0 (last allocated by main (1) at ");
}

TEST_P(MemoryChecksTest, WritingToAFreedObject)
{
    if (sanitizedHeap) {
        // The object's memory belongs to the sanitizer then, which ends the program.
        expectDeath([] {
            auto *object = static_cast<volatile char *>(kmalloc(40, GFP_KERNEL));
            kfree(const_cast<char *>(object));
            object[0] = 1;
        });
        return;
    }
    inKernel([] {
        void *object = kmalloc(40, GFP_KERNEL);
        kfree(object);
        writeAnyway(object, 12);
        for (int i = 0; i < 40; i++)
            kfree(kmalloc(40, GFP_KERNEL));
        kmem_cache *cache = kmem_cache_create("test", 24, 0, 0, nullptr);
        void *slab = kmem_cache_alloc(cache, GFP_KERNEL);
        kmem_cache_free(cache, slab);
        writeAnyway(slab, 23);
        kmem_cache_destroy(cache);
    });
    std::vector<std::string> violations = kernel().takeViolations();
    ASSERT_EQ(violations.size(), 2u);
    EXPECT_EQ(violations[0].find("use after free: written: object of 40 bytes at offset 12, last "
                                 "allocated by main (1) at "),
              0u);
    EXPECT_EQ(violations[1].find("use after free: written: object of 24 bytes at offset 23"), 0u);
}

TEST_P(MemoryChecksTest, AnUnmappedHighPageCannotBeTouched)
{
    if (threadSanitized) {
        inKernel([] {
            struct page *page = alloc_pages(GFP_HIGHUSER, 0);
            void *first = kmap(page);
            kunmap(page);
            EXPECT_EQ(kmap(page), first);
            kunmap(page);
            __free_pages(page, 0);
        });
        return;
    }
    expectDeath([] {
        struct page *page = alloc_pages(GFP_HIGHUSER, 0);
        auto *bytes = static_cast<volatile char *>(kmap(page));
        bytes[0] = 1;
        kunmap(page);
        bytes[0] = 2;
    });
}

TEST_P(MemoryChecksTest, AVmallocRangeEndsAtAHole)
{
    expectDeath([] {
        auto *range = static_cast<volatile char *>(vmalloc(4096));
        range[4095] = 1;
        range[4096] = 1;
    });
}

} // namespace
