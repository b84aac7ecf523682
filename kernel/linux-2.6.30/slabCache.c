/* Creating slab caches. */
#define KERNEL_GLUE
#include <linux/slab.h>

#include <kernel/memory.h>

struct kmem_cache *zk_kmem_cache_create(const char *name, size_t size, size_t align,
                                        unsigned long flags, void (*constructor)(void *))
{
    return kmem_cache_create(name, size, align, flags, constructor);
}
