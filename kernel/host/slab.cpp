#include "slab.h"

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sys/mman.h>

#include <kernel/memory.h>

#include "core.h"
#include "objectPool.h"
#include "pages.h"
#include "sanitizers.h"

struct kmem_cache {
    kmem_cache(const char *cacheName, std::size_t size, std::size_t align)
        : name(cacheName), objectSize(size), pool(host::HeldKind::cacheObject, size, align)
    {
    }
    std::string name;
    std::size_t objectSize;
    std::atomic<unsigned> objects{0};
    host::HeldRecord held;
    host::ObjectPool pool;
};

using namespace host;

namespace
{

constexpr std::size_t smallestKmalloc = 32;
constexpr std::size_t largestKmalloc = 128 * 1024;
constexpr std::size_t kmallocPoolCount =
    std::bit_width(largestKmalloc) - std::bit_width(smallestKmalloc) + 1;
constexpr std::size_t hostPage = 4096;

/* Everything that one kernel hands out. */
struct Slabs {
    std::array<std::unique_ptr<ObjectPool>, kmallocPoolCount> kmallocPools;
    HiddenMutex mutex; // of the tables below
    std::map<kmem_cache *, std::unique_ptr<kmem_cache>> caches;
    struct Range {
        std::size_t bytes;
        HeldRecord held;
    };
    std::map<const void *, Range> ranges;

    Slabs()
    {
        for (std::size_t i = 0; i < kmallocPools.size(); i++)
            kmallocPools[i] =
                std::make_unique<ObjectPool>(HeldKind::kmalloc, smallestKmalloc << i, 0);
    }
};

Slabs *slabs;

std::size_t mappedBytes(std::size_t bytes)
{
    return (bytes + hostPage - 1) / hostPage * hostPage;
}

std::size_t kmallocPoolIndex(std::size_t bytes)
{
    std::size_t index = 0;
    while (smallestKmalloc << index < bytes)
        index++;
    return index;
}

} // namespace

namespace host
{

void startSlabs()
{
    slabs = new Slabs;
}

void endSlabs()
{
    for (const auto &[start, range] : slabs->ranges)
        munmap(const_cast<void *>(start), mappedBytes(range.bytes) + hostPage);
    delete slabs;
    slabs = nullptr;
    endObjects();
}

} // namespace host

void *kmalloc(std::size_t size, gfp_t gfp)
{
    checkAllocation(gfp, "kmalloc");
    pointOfSwitch();
    if (faultHits(Fault::kmalloc) || size > largestKmalloc)
        return nullptr;
    return slabs->kmallocPools[kmallocPoolIndex(size)]->take(size, __builtin_return_address(0));
}

void kfree(const void *object)
{
    pointOfSwitch();
    if (object == nullptr ||
        !checkObjectFree(object, HeldKind::kmalloc, nullptr, "kfree", __builtin_return_address(0)))
        return;
    ObjectPool &pool = ObjectPool::of(object);
    checkFreed(object, pool.size(), "a kmalloc object");
    pool.give(const_cast<void *>(object));
    pointOfSwitch();
}

void *vmalloc(unsigned long size)
{
    checkAllocation(GFP_KERNEL, "vmalloc");
    pointOfSwitch();
    if (faultHits(Fault::vmalloc) || size == 0)
        return nullptr;
    // The page behind it stays without access.
    std::size_t bytes = mappedBytes(size);
    void *start =
        mmap(nullptr, bytes + hostPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start == MAP_FAILED)
        return nullptr;
    if (mprotect(static_cast<char *>(start) + bytes, hostPage, PROT_NONE) != 0) {
        std::perror("a guard page");
        std::abort();
    }
    if (checking) {
        std::memset(start, freshByte, bytes);
        forgetLocks(start, bytes);
    }
    HiddenScope scope(slabs->mutex);
    Slabs::Range &range = slabs->ranges[start];
    range.bytes = size;
    hold(range.held, HeldKind::vmalloc, size, __builtin_return_address(0));
    return start;
}

void vfree(const void *start)
{
    maySleep("vfree");
    if (start == nullptr)
        return;
    std::size_t bytes = 0;
    {
        HiddenScope scope(slabs->mutex);
        auto entry = slabs->ranges.find(start);
        if (entry != slabs->ranges.end()) {
            bytes = mappedBytes(entry->second.bytes);
            letGo(entry->second.held, HeldKind::vmalloc);
            slabs->ranges.erase(entry);
        }
    }
    if (bytes == 0) {
        reportViolation("bad free", "vfree() by " + currentName() + " at " +
                                        symbolName(__builtin_return_address(0)));
        return;
    }
    checkFreed(start, bytes, "a vmalloc range");
    munmap(const_cast<void *>(start), bytes + hostPage);
}

struct kmem_cache *kmem_cache_create(const char *name, std::size_t size, std::size_t align,
                                     unsigned long, void (*)(void *))
{
    checkAllocation(GFP_KERNEL, "kmem_cache_create");
    pointOfSwitch();
    if (faultHits(Fault::cacheCreate))
        return nullptr;
    auto cache = std::make_unique<kmem_cache>(name, size, align);
    kmem_cache *handle = cache.get();
    hold(handle->held, HeldKind::cache, size, __builtin_return_address(0));
    HiddenScope scope(slabs->mutex);
    slabs->caches.emplace(handle, std::move(cache));
    return handle;
}

void kmem_cache_destroy(struct kmem_cache *cache)
{
    maySleep("kmem_cache_destroy");
    std::unique_ptr<kmem_cache> owned;
    bool known;
    unsigned left = 0;
    {
        HiddenScope scope(slabs->mutex);
        auto entry = slabs->caches.find(cache);
        known = entry != slabs->caches.end();
        if (known) {
            left = cache->objects;
            // As in the kernel, a cache in use stays.
            if (left == 0) {
                owned = std::move(entry->second);
                slabs->caches.erase(entry);
            }
        }
    }
    if (!known)
        reportViolation("bad free", "kmem_cache_destroy() of no cache by " + currentName());
    else if (left != 0)
        reportViolation("cache destroyed with live objects", cache->name + ", " +
                                                                 std::to_string(left) +
                                                                 " objects, by " + currentName());
    else
        letGo(owned->held, HeldKind::cache);
}

void *kmem_cache_alloc(struct kmem_cache *cache, gfp_t gfp)
{
    checkAllocation(gfp, "kmem_cache_alloc");
    pointOfSwitch();
    if (faultHits(Fault::cacheAlloc))
        return nullptr;
    cache->objects.fetch_add(1, std::memory_order_relaxed);
    return cache->pool.take(cache->objectSize, __builtin_return_address(0));
}

void kmem_cache_free(struct kmem_cache *cache, void *object)
{
    pointOfSwitch();
    if (!checkObjectFree(object, HeldKind::cacheObject, &cache->pool, "kmem_cache_free",
                         __builtin_return_address(0)))
        return;
    checkFreed(object, cache->objectSize, "a slab object");
    cache->pool.give(object);
    cache->objects.fetch_sub(1, std::memory_order_relaxed);
    pointOfSwitch();
}
