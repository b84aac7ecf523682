/* Buffer heads. */
#define KERNEL_GLUE
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/fs.h>

#include "seamTypes.h"

#include <kernel/block.h>

struct buffer_head *zk_alloc_buffer_head(gfp_t gfp)
{
    return alloc_buffer_head(gfp);
}

void zk_free_buffer_head(struct buffer_head *bh)
{
    free_buffer_head(bh);
}

void zk_set_bh_page(struct buffer_head *bh, struct page *page, unsigned long offset)
{
    set_bh_page(bh, page, offset);
}

struct page *zk_bh_page(struct buffer_head *bh)
{
    return bh->b_page;
}

char *zk_bh_data(struct buffer_head *bh)
{
    return bh->b_data;
}

sector_t zk_bh_blocknr(struct buffer_head *bh)
{
    return bh->b_blocknr;
}

void zk_bh_set_blocknr(struct buffer_head *bh, sector_t block)
{
    bh->b_blocknr = block;
}

size_t zk_bh_size(struct buffer_head *bh)
{
    return bh->b_size;
}

void zk_bh_set_size(struct buffer_head *bh, size_t bytes)
{
    bh->b_size = bytes;
}

struct block_device *zk_bh_bdev(struct buffer_head *bh)
{
    return bh->b_bdev;
}

void zk_bh_set_bdev(struct buffer_head *bh, struct block_device *bdev)
{
    bh->b_bdev = bdev;
}

bh_end_io_t *zk_bh_end_io(struct buffer_head *bh)
{
    return bh->b_end_io;
}

void zk_bh_set_end_io(struct buffer_head *bh, bh_end_io_t *function)
{
    bh->b_end_io = function;
}

void zk_bh_set_state(struct buffer_head *bh, unsigned long state)
{
    bh->b_state = state;
}

void zk_bh_init_assoc_buffers(struct buffer_head *bh)
{
    INIT_LIST_HEAD(&bh->b_assoc_buffers);
}

int zk_bh_count(struct buffer_head *bh)
{
    return atomic_read(&bh->b_count);
}

void zk_bh_set_count(struct buffer_head *bh, int count)
{
    atomic_set(&bh->b_count, count);
}

void zk_get_bh(struct buffer_head *bh)
{
    get_bh(bh);
}

void zk_put_bh(struct buffer_head *bh)
{
    put_bh(bh);
}

int zk_buffer_uptodate(struct buffer_head *bh)
{
    return buffer_uptodate(bh) != 0;
}

void zk_set_buffer_uptodate(struct buffer_head *bh)
{
    set_buffer_uptodate(bh);
}

void zk_unlock_buffer(struct buffer_head *bh)
{
    unlock_buffer(bh);
}

void zk_wait_on_buffer(struct buffer_head *bh)
{
    wait_on_buffer(bh);
}
