/* Creating slab caches. */
#define KERNEL_GLUE
#include <linux/slab.h>

#include <kernel/memory.h>

struct kmem_cache *zk_kmem_cache_create(const char *name, size_t size, size_t align,
                                        unsigned long flags, void (*constructor)(void *))
{
    /* A process's memory may be copied to and from all of an object, as of any other memory. */
    return kmem_cache_create_usercopy(name, size, align, flags, 0, size, constructor);
}
