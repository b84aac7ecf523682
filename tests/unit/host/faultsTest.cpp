/* Failing the n-th call. */
#include <set>

#include <host/faults.h>
#include <host/memory.h>
#include <kernel/memory.h>
#include <kernel/task.h>

#include "support/hostTest.h"

using namespace host;

namespace
{

class FaultsTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(FaultsTest);

// Whether the next call works; what it gave is given back.
bool kmallocWorks()
{
    void *object = kmalloc(10, GFP_KERNEL);
    kfree(object);
    return object != nullptr;
}

TEST_P(FaultsTest, TheNthCallFails)
{
    inKernel([] {
        EXPECT_TRUE(kmallocWorks());
        failNth(Fault::kmalloc, 3);
        EXPECT_TRUE(kmallocWorks());
        EXPECT_TRUE(kmallocWorks());
        EXPECT_FALSE(kmallocWorks());
        EXPECT_TRUE(kmallocWorks());
        EXPECT_EQ(faultCalls(Fault::kmalloc), 5u);
        EXPECT_EQ(faultsInjected(Fault::kmalloc), 1u);
    });
}

TEST_P(FaultsTest, SeveralCallsInARowFail)
{
    inKernel([] {
        failNth(Fault::kmalloc, 2, 3);
        std::vector<bool> worked;
        for (int i = 0; i < 6; i++)
            worked.push_back(kmallocWorks());
        EXPECT_EQ(worked, (std::vector<bool>{true, false, false, false, true, true}));
        EXPECT_EQ(faultsInjected(Fault::kmalloc), 3u);
    });
}

TEST_P(FaultsTest, ClearingMakesEverythingWorkAgain)
{
    inKernel([] {
        failNth(Fault::kmalloc, 1, 100);
        EXPECT_FALSE(kmallocWorks());
        clearFaults();
        EXPECT_EQ(faultCalls(Fault::kmalloc), 0u);
        EXPECT_EQ(faultsInjected(Fault::kmalloc), 0u);
        EXPECT_TRUE(kmallocWorks());
    });
}

int nothing(void *)
{
    return 0;
}

TEST_P(FaultsTest, EachKindOfAllocationFailsByItself)
{
    inKernel([] {
        kmem_cache *cache = kmem_cache_create("test", 16, 0, 0, nullptr);
        failNth(Fault::page, 1);
        EXPECT_EQ(alloc_pages(GFP_KERNEL, 0), nullptr);
        failNth(Fault::vmalloc, 1);
        EXPECT_EQ(vmalloc(100), nullptr);
        failNth(Fault::cacheCreate, 1);
        EXPECT_EQ(kmem_cache_create("other", 16, 0, 0, nullptr), nullptr);
        failNth(Fault::cacheAlloc, 1);
        EXPECT_EQ(kmem_cache_alloc(cache, GFP_KERNEL), nullptr);
        failNth(Fault::kernelThread, 1);
        EXPECT_EQ(kernel_thread(nothing, nullptr, 0), -KERNEL_ENOMEM);
        EXPECT_TRUE(kmallocWorks());
        EXPECT_GT(kernel_thread(nothing, nullptr, 0), 0);
        kmem_cache_destroy(cache);
    });
}

TEST_P(FaultsTest, TheHostsOwnNeedsNeverFail)
{
    inKernel([] {
        failNth(Fault::page, 1, 10);
        struct page *page = allocHostPage();
        EXPECT_NE(page, nullptr);
        freeHostPage(page);
        EXPECT_EQ(faultCalls(Fault::page), 0u);
    });
}

TEST(FaultNamesTest, EveryKindHasItsOwnName)
{
    std::set<std::string> names;
    for (int kind = 0; kind < static_cast<int>(Fault::count); kind++)
        names.insert(faultName(static_cast<Fault>(kind)));
    EXPECT_EQ(names.size(), static_cast<std::size_t>(Fault::count));
    EXPECT_FALSE(names.contains("none"));
}

} // namespace
