/* Bios. */
#define KERNEL_GLUE
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/sched.h>

#include "seamTypes.h"

#include <kernel/block.h>

#include "bioSets.h"

/* What a 2.6.30 kernel's bi_rw has beside the direction, as far as it is still known. */
enum {
    ahead = 1 << 1,
    barrier = 1 << 2,
    synchronous = 1 << 3,
    metadata = 1 << 5,
    discard = 1 << 6,
};

/* A bio of the module's, with the function that it is to end with. */
struct own_bio {
    seam_end_io *ended;
    bool passed; /* to its disk */
    struct bio bio;
};

/*
 * A set has a few bios in reserve, for which a task waits where there is no memory. Those of the
 * cache thread are its own: it has one at a time, so that it always gets on, and with it the writes
 * that wait for it, which may be what memory is waiting for. An agent keeps the bios of all that it
 * reads at once, and would have the reserve for as long as it waits for more.
 */
static struct bio_set threadsBios;
static struct bio_set processesBios;

static int initBioSet(struct bio_set *set)
{
    return bioset_init(set, BIO_POOL_SIZE, offsetof(struct own_bio, bio), BIOSET_NEED_BVECS);
}

int createBioSets(void)
{
    int error = initBioSet(&threadsBios);

    if (error != 0)
        return error;
    error = initBioSet(&processesBios);
    if (error != 0)
        bioset_exit(&threadsBios);
    return error;
}

void destroyBioSets(void)
{
    bioset_exit(&processesBios);
    bioset_exit(&threadsBios);
}

static __always_inline bool isOwn(const struct bio *bio)
{
    return bio->bi_pool == &threadsBios || bio->bi_pool == &processesBios;
}

struct bio *zk_bio_alloc(gfp_t gfp, int vectors)
{
    struct bio_set *set = current->flags & PF_KTHREAD ? &threadsBios : &processesBios;
    struct bio *bio = bio_alloc_bioset(NULL, vectors, 0, gfp, set);

    if (bio != NULL)
        container_of(bio, struct own_bio, bio)->passed = false;
    return bio;
}

void markPassed(struct bio *bio)
{
    if (isOwn(bio))
        container_of(bio, struct own_bio, bio)->passed = true;
}

bool notrace wasPassed(const struct bio *bio)
{
    return isOwn(bio) && container_of(bio, struct own_bio, bio)->passed;
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
    return bio->bi_iter.bi_sector;
}

void zk_bio_set_sector(struct bio *bio, sector_t sector)
{
    bio->bi_iter.bi_sector = sector;
}

unsigned int zk_bio_size(struct bio *bio)
{
    return bio->bi_iter.bi_size;
}

void zk_bio_set_size(struct bio *bio, unsigned int bytes)
{
    bio->bi_iter.bi_size = bytes;
}

/* Whatever changes blocks is a write: discarding and zeroing as well. A flush without contents
 * changes none; it is shown as what needs neither to be held nor to be recorded. */
unsigned long zk_bio_rw(struct bio *bio)
{
    if (op_is_write(bio_op(bio)))
        return bio_sectors(bio) != 0 ? WRITE : ahead;
    return bio->bi_opf & REQ_RAHEAD ? ahead : READ;
}

void zk_bio_set_rw(struct bio *bio, unsigned long rw)
{
    bio->bi_opf = rw & WRITE ? rw & discard ? REQ_OP_DISCARD : REQ_OP_WRITE : REQ_OP_READ;
    if (rw & ahead)
        bio->bi_opf |= REQ_RAHEAD;
    if (rw & barrier)
        bio->bi_opf |= REQ_PREFLUSH | REQ_FUA;
    if (rw & synchronous)
        bio->bi_opf |= REQ_SYNC;
    if (rw & metadata)
        bio->bi_opf |= REQ_META;
}

/* A bio that was remapped to its disk still has the partition's device, for the statistics. */
struct block_device *zk_bio_bdev(struct bio *bio)
{
    if (bio_flagged(bio, BIO_REMAPPED) && bio_sectors(bio) != 0)
        return bdev_whole(bio->bi_bdev);
    return bio->bi_bdev;
}

void zk_bio_set_bdev(struct bio *bio, struct block_device *bdev)
{
    bio_set_dev(bio, bdev);
}

void *zk_bio_private(struct bio *bio)
{
    return bio->bi_private;
}

void zk_bio_set_private(struct bio *bio, void *data)
{
    bio->bi_private = data;
}

/* Not every driver counts the size down. */
static void endBio(struct bio *bio)
{
    if (bio->bi_status == BLK_STS_OK)
        bio->bi_iter.bi_size = 0;
    container_of(bio, struct own_bio, bio)->ended(bio, blk_status_to_errno(bio->bi_status));
}

void zk_bio_set_end_io(struct bio *bio, seam_end_io *function)
{
    container_of(bio, struct own_bio, bio)->ended = function;
    bio->bi_end_io = endBio;
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
    bio->bi_iter.bi_idx = index;
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
    return bio->bi_status == BLK_STS_OK;
}

/* The bio's status says it where it is so; a flag beside it this kernel does not have, nor for the
 * buffer that was to be read, where it only told why it is not up to date. */
void zk_bio_set_eopnotsupp(struct bio *bio) {}

void zk_set_buffer_eopnotsupp(struct buffer_head *bh) {}
