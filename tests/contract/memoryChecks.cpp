// Pages, address ranges and slab caches.
#include <kernel/memory.h>

#include "contract.h"

namespace
{

void fill(void *memory, unsigned int bytes, unsigned int seed)
{
    auto *to = static_cast<volatile unsigned char *>(memory);
    for (unsigned int i = 0; i < bytes; i++)
        to[i] = static_cast<unsigned char>(seed + i * 7);
}

bool filled(const void *memory, unsigned int bytes, unsigned int seed)
{
    auto *from = static_cast<const volatile unsigned char *>(memory);
    for (unsigned int i = 0; i < bytes; i++)
        if (from[i] != static_cast<unsigned char>(seed + i * 7))
            return false;
    return true;
}

const char *lowPageHasOneAddress(const Environment *)
{
    struct page *page = alloc_pages(GFP_KERNEL, 0);
    REQUIRE(page != nullptr);
    void *address = page_address(page);
    REQUIRE(address != nullptr);
    REQUIRE(reinterpret_cast<unsigned long>(address) % PAGE_SIZE == 0);
    REQUIRE(kmap(page) == address);
    fill(address, PAGE_SIZE, 1);
    kunmap(page);
    REQUIRE(page_address(page) == address);
    REQUIRE(filled(address, PAGE_SIZE, 1));
    __free_pages(page, 0);
    return nullptr;
}

const char *mappedPageKeepsItsContents(const Environment *)
{
    constexpr unsigned int count = 32;
    static struct page *pages[count];
    for (unsigned int i = 0; i < count; i++) {
        pages[i] = alloc_pages(GFP_HIGHUSER, 0);
        REQUIRE(pages[i] != nullptr);
        void *address = kmap(pages[i]);
        REQUIRE(address != nullptr);
        REQUIRE(page_address(pages[i]) == address);
        fill(address, PAGE_SIZE, i);
        kunmap(pages[i]);
    }
    for (unsigned int i = 0; i < count; i++) {
        void *address = kmap(pages[i]);
        REQUIRE(filled(address, PAGE_SIZE, i));
        REQUIRE(kmap(pages[i]) == address);
        kunmap(pages[i]);
        REQUIRE(page_address(pages[i]) == address);
        REQUIRE(filled(address, PAGE_SIZE, i));
        kunmap(pages[i]);
        __free_pages(pages[i], 0);
    }
    return nullptr;
}

const char *pageLivesUntilItsLastReference(const Environment *)
{
    struct page *page = alloc_pages(GFP_KERNEL, 0);
    REQUIRE(page != nullptr);
    fill(page_address(page), PAGE_SIZE, 5);
    get_page(page);
    __free_pages(page, 0);
    struct page *other = alloc_pages(GFP_KERNEL, 0);
    REQUIRE(other != nullptr);
    REQUIRE(other != page);
    fill(page_address(other), PAGE_SIZE, 6);
    REQUIRE(filled(page_address(page), PAGE_SIZE, 5));
    __free_pages(other, 0);
    __free_pages(page, 0);
    return nullptr;
}

const char *smallMemoryOfAllSizes(const Environment *)
{
    static const unsigned int sizes[] = {1, 12, 100, 1000, 4096, 4097, 131072};
    static void *objects[7];
    unsigned int i = 0;
    for (unsigned int size : sizes) {
        objects[i] = kmalloc(size, i % 2 == 0 ? GFP_KERNEL : GFP_NOIO);
        REQUIRE(objects[i] != nullptr);
        REQUIRE(reinterpret_cast<unsigned long>(objects[i]) % sizeof(void *) == 0);
        fill(objects[i], size, i);
        i++;
    }
    for (i = 0; i < 7; i++) {
        REQUIRE(filled(objects[i], sizes[i], i));
        kfree(objects[i]);
    }
    kfree(nullptr);
    return nullptr;
}

const char *rangeIsContiguous(const Environment *)
{
    constexpr unsigned int bytes = 16 * 1024 + 5;
    void *range = vmalloc(bytes);
    REQUIRE(range != nullptr);
    fill(range, bytes, 9);
    void *other = vmalloc(bytes);
    REQUIRE(other != nullptr);
    fill(other, bytes, 10);
    REQUIRE(filled(range, bytes, 9));
    vfree(other);
    vfree(range);
    vfree(nullptr);
    return nullptr;
}

const char *cacheObjects(const char *name, unsigned int size)
{
    constexpr unsigned int count = 50;
    static void *objects[count];
    struct kmem_cache *cache = kmem_cache_create(name, size, 0, SLAB_HWCACHE_ALIGN, nullptr);
    REQUIRE(cache != nullptr);
    for (unsigned int i = 0; i < count; i++) {
        objects[i] = kmem_cache_alloc(cache, i % 2 == 0 ? GFP_KERNEL : GFP_NOIO);
        REQUIRE(objects[i] != nullptr);
        REQUIRE(reinterpret_cast<unsigned long>(objects[i]) % sizeof(void *) == 0);
        fill(objects[i], size, i);
    }
    for (unsigned int i = 0; i < count; i++)
        REQUIRE(filled(objects[i], size, i));
    kmem_cache_free(cache, objects[0]);
    objects[0] = kmem_cache_alloc(cache, GFP_NOIO);
    REQUIRE(objects[0] != nullptr);
    fill(objects[0], size, 0);
    for (unsigned int i = 0; i < count; i++) {
        REQUIRE(filled(objects[i], size, i));
        kmem_cache_free(cache, objects[i]);
    }
    kmem_cache_destroy(cache);
    return nullptr;
}

const char *cachesOfAllSizes(const Environment *)
{
    REQUIRE_HELD(cacheObjects("contract12", 12));
    REQUIRE_HELD(cacheObjects("contract24", 24));
    REQUIRE_HELD(cacheObjects("contract40", 40));
    REQUIRE_HELD(cacheObjects("contract1024", 1024));
    REQUIRE_HELD(cacheObjects("contract4096", 4096));
    return nullptr;
}

const char *cacheNameCanBeUsedAgain(const Environment *)
{
    static char name[] = "contractAgain";
    REQUIRE_HELD(cacheObjects(name, 20));
    REQUIRE_HELD(cacheObjects(name, 20));
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"lowPageHasOneAddress", lowPageHasOneAddress},
    {"mappedPageKeepsItsContents", mappedPageKeepsItsContents},
    {"pageLivesUntilItsLastReference", pageLivesUntilItsLastReference},
    {"smallMemoryOfAllSizes", smallMemoryOfAllSizes},
    {"rangeIsContiguous", rangeIsContiguous},
    {"cachesOfAllSizes", cachesOfAllSizes},
    {"cacheNameCanBeUsedAgain", cacheNameCanBeUsedAgain},
};

} // namespace

constinit const struct ContractSubject memoryContract = subjectOf(checks);
