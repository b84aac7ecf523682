/* Pages, address ranges and slab caches. */
#ifndef KERNEL_MEMORY_H
#define KERNEL_MEMORY_H

#include <kernel/layout.h>
#include <kernel/types.h>

#if !defined(KERNEL_GLUE)
typedef unsigned int gfp_t;
struct page;
struct kmem_cache;
#endif

/*
 * `gfp` is GFP_KERNEL (may sleep and start I/O to free memory), GFP_NOIO (may sleep, starts no
 * I/O: for the write path) or GFP_HIGHUSER (like GFP_KERNEL, may give high memory). Each returns
 * NULL where there is no memory. What is returned is not zeroed.
 */

/* 2^order pages, owned by the caller until __free_pages. */
SEAM(struct page *, alloc_pages, (gfp_t gfp, unsigned int order));
/* Drops the caller's reference; the last one frees. Any context. */
SEAM(void, __free_pages, (struct page * page, unsigned int order));
/* Takes a further reference (on the compound head). Any context. */
SEAM(void, get_page, (struct page * page));
/* The kernel address of a page; NULL for a high page that is not mapped. Any context. */
SEAM(void *, page_address, (struct page * page));
/* Maps a page, high or low, and returns its kernel address. Process context, may sleep.
 * Each kmap has its kunmap; mappings of one page nest. */
SEAM(void *, kmap, (struct page * page));
SEAM(void, kunmap, (struct page * page));

/* Up to 128 KiB, physically contiguous. Process context with GFP_KERNEL or GFP_NOIO. */
SEAM(void *, kmalloc, (size_t size, gfp_t gfp));
/* NULL is allowed. Any context. */
SEAM(void, kfree, (const void *object));

/* Virtually contiguous. Process context, may sleep; neither from atomic context. */
SEAM(void *, vmalloc, (unsigned long size));
/* NULL is allowed. */
SEAM(void, vfree, (const void *range));

/* A cache of objects of one size. `name` must outlive the cache. NULL on failure. Process context,
 * may sleep. The constructor is always NULL here. */
SEAM(struct kmem_cache *, kmem_cache_create,
     (const char *name, size_t size, size_t align, unsigned long flags,
      void (*constructor)(void *)));
/* All objects must have been freed. Process context, may sleep. */
SEAM(void, kmem_cache_destroy, (struct kmem_cache * cache));
SEAM(void *, kmem_cache_alloc, (struct kmem_cache * cache, gfp_t gfp));
/* Any context. */
SEAM(void, kmem_cache_free, (struct kmem_cache * cache, void *object));

#endif
