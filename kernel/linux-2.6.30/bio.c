/* Bios. */
#define KERNEL_GLUE
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/fs.h>

#include <kernel/block.h>

struct bio *zk_bio_alloc(gfp_t gfp, int vectors)
{
    return bio_alloc(gfp, vectors);
}

void zk_bio_get(struct bio *bio)
{
    bio_get(bio);
}

void zk_bio_put(struct bio *bio)
{
    bio_put(bio);
}

sector_t zk_bio_sector(struct bio *bio)
{
    return bio->bi_sector;
}

void zk_bio_set_sector(struct bio *bio, sector_t sector)
{
    bio->bi_sector = sector;
}

unsigned int zk_bio_size(struct bio *bio)
{
    return bio->bi_size;
}

void zk_bio_set_size(struct bio *bio, unsigned int bytes)
{
    bio->bi_size = bytes;
}

unsigned long zk_bio_rw(struct bio *bio)
{
    return bio_rw(bio);
}

void zk_bio_set_rw(struct bio *bio, unsigned long rw)
{
    bio->bi_rw = rw;
}

struct block_device *zk_bio_bdev(struct bio *bio)
{
    return bio->bi_bdev;
}

void zk_bio_set_bdev(struct bio *bio, struct block_device *bdev)
{
    bio->bi_bdev = bdev;
}

void *zk_bio_private(struct bio *bio)
{
    return bio->bi_private;
}

void zk_bio_set_private(struct bio *bio, void *data)
{
    bio->bi_private = data;
}

void zk_bio_set_end_io(struct bio *bio, bio_end_io_t *function)
{
    bio->bi_end_io = function;
}

unsigned short zk_bio_vcnt(struct bio *bio)
{
    return bio->bi_vcnt;
}

void zk_bio_set_vcnt(struct bio *bio, unsigned short count)
{
    bio->bi_vcnt = count;
}

void zk_bio_set_idx(struct bio *bio, unsigned short index)
{
    bio->bi_idx = index;
}

void zk_bio_set_vec(struct bio *bio, unsigned int index, struct page *page, unsigned int length,
                    unsigned int offset)
{
    struct bio_vec *vec = &bio->bi_io_vec[index];

    vec->bv_page = page;
    vec->bv_len = length;
    vec->bv_offset = offset;
}

struct page *zk_bio_vec_page(struct bio *bio, unsigned int index)
{
    return bio->bi_io_vec[index].bv_page;
}

unsigned int zk_bio_vec_length(struct bio *bio, unsigned int index)
{
    return bio->bi_io_vec[index].bv_len;
}

unsigned int zk_bio_vec_offset(struct bio *bio, unsigned int index)
{
    return bio->bi_io_vec[index].bv_offset;
}

int zk_bio_uptodate(struct bio *bio)
{
    return bio_flagged(bio, BIO_UPTODATE) != 0;
}

void zk_bio_set_eopnotsupp(struct bio *bio)
{
    set_bit(BIO_EOPNOTSUPP, &bio->bi_flags);
}

void zk_set_buffer_eopnotsupp(struct buffer_head *bh)
{
    set_buffer_eopnotsupp(bh);
}
