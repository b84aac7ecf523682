/* Pages, address ranges and slab caches. */
#define KERNEL_GLUE
#include <linux/gfp.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

#include <kernel/memory.h>

struct page *zk_alloc_pages(gfp_t gfp, unsigned int order)
{
    return alloc_pages(gfp, order);
}

void zk___free_pages(struct page *page, unsigned int order)
{
    __free_pages(page, order);
}

void zk_get_page(struct page *page)
{
    get_page(page);
}

void *zk_page_address(struct page *page)
{
    return page_address(page);
}

void *zk_kmap(struct page *page)
{
    return kmap(page);
}

void zk_kunmap(struct page *page)
{
    kunmap(page);
}

void *zk_kmalloc(size_t size, gfp_t gfp)
{
    return kmalloc(size, gfp);
}

void zk_kfree(const void *object)
{
    kfree(object);
}

void *zk_vmalloc(unsigned long size)
{
    return vmalloc(size);
}

void zk_vfree(const void *range)
{
    vfree(range);
}

void zk_kmem_cache_destroy(struct kmem_cache *cache)
{
    kmem_cache_destroy(cache);
}

void *zk_kmem_cache_alloc(struct kmem_cache *cache, gfp_t gfp)
{
    return kmem_cache_alloc(cache, gfp);
}

void zk_kmem_cache_free(struct kmem_cache *cache, void *object)
{
    kmem_cache_free(cache, object);
}
