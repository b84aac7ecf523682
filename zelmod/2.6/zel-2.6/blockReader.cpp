/*
 * Reading blocks from the disk, one bio each, straight to the queue's real function.
 *
 * A read's buffer head is locked before it is submitted; its end unlocks it. Two references are on
 * it: the owner's, and the completion's, which is dropped after the unlock.
 */
#include <kernel/block.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/task.h>

#include "zellib.h"

static unsigned int maxBlockRequests(const Backup *b)
{
    return b->diskInfo.blocksPerPage * static_cast<unsigned int>(b->maxVMPages);
}

/* Makes the table of requests: 0 or 5. */
int allocateBlockRequests(Backup *b)
{
    unsigned long size = maxBlockRequests(b) * sizeof(BIORequest *);
    b->mmBIORequests = static_cast<BIORequest **>(vmalloc(size));
    if (b->mmBIORequests == NULL)
        return ZEL_RESULT_NO_MEMORY;
    __builtin_memset(b->mmBIORequests, 0, size);
    return 0;
}

void freeMMBRs(Backup *b)
{
    if (b->mmBIORequests != NULL)
        vfree(b->mmBIORequests);
    b->mmBIORequests = NULL;
}

/* Requests come from kmalloc: there is no cache of them to make or to close. */
void allocateBRCache(Backup *) {}

void closeBRCache(Backup *) {}

struct buffer_head *allocBH()
{
    struct buffer_head *bh;
    while ((bh = alloc_buffer_head(GFP_NOIO)) == NULL)
        schedule();
    return bh;
}

struct bio *allocBIO()
{
    struct bio *bio;
    while ((bio = bio_alloc(GFP_NOIO, 1)) == NULL)
        schedule();
    return bio;
}

void releaseBH(struct buffer_head *bh)
{
    wait_on_buffer(bh);
    while (bh_count(bh) > 1)
        schedule();
    smp_mb();
    put_bh(bh);
    free_buffer_head(bh);
}

/* Sets a new buffer head up for a read of block `blockNum` to `offset` in `page`. */
void initBH(Backup *b, struct buffer_head *bh, struct page *page, unsigned int offset,
            unsigned int blockNum)
{
    bh_set_blocknr(bh, blockNum);
    bh_set_bdev(bh, b->diskInfo.bdev);
    set_bh_page(bh, page, offset);
    bh_set_end_io(bh, zelBHEndIO);
    bh_set_state(bh, BH_STATE_Lock | BH_STATE_Req | BH_STATE_Mapped);
    bh_set_size(bh, static_cast<size_t>(b->diskInfo.blockSize));
    bh_init_assoc_buffers(bh);
    bh_set_count(bh, 1);
    get_bh(bh);
}

/* Sets a new bio up for the read that `bh` describes. Its sector is the disk's: the kernel does not
 * remap what goes straight to the real function. Takes a reference besides the completion's. */
void initBIO(Backup *b, struct bio *bio, struct buffer_head *bh)
{
    bio_set_bdev(bio, bh_bdev(bh));
    bio_set_sector(bio, bh_blocknr(bh) * static_cast<unsigned int>(b->diskInfo.sectorsPerBlock) +
                            b->diskInfo.partitionStart);
    unsigned int offset = reinterpret_cast<uintptr_t>(bh_data(bh)) & (PAGE_SIZE - 1);
    bio_set_vec(bio, 0, bh_page(bh), static_cast<unsigned int>(bh_size(bh)), offset);
    bio_set_vcnt(bio, 1);
    bio_set_idx(bio, 0);
    bio_set_private(bio, bh);
    bio_set_size(bio, static_cast<unsigned int>(bh_size(bh)));
    bio_set_end_io(bio, zelBIOEndIO);
    bio_get(bio);
}

void submitRead(Backup *b, struct bio *bio, struct buffer_head *bh)
{
    bio_set_rw(bio, READ);
    if (submitToRealMRF(b, bio))
        return;
    /* Nobody else will end it, and its owner waits. */
    zelBHEndIO(bh, 0);
    bio_put(bio);
}

/* The end of a read. Interrupt context. */
void zelBIOEndIO(struct bio *bio, int error)
{
    auto *bh = static_cast<struct buffer_head *>(bio_private(bio));
    int uptodate = bio_uptodate(bio);
    if (uptodate == 0)
        printk("<4>%s: IO error, bio=%p, major=%d, sector=%llu\n", __func__,
               static_cast<void *>(bio), deviceMajor(bdev_dev(bio_bdev(bio))),
               static_cast<unsigned long long>(bio_sector(bio)));
    if (error == -KERNEL_EOPNOTSUPP) {
        bio_set_eopnotsupp(bio);
        set_buffer_eopnotsupp(bh);
    }
    bh_end_io(bh)(bh, uptodate);
    bio_put(bio);
}

/* Interrupt context. */
void zelBHEndIO(struct buffer_head *bh, int uptodate)
{
    if (uptodate == 0) {
        kernel_dev_t kdev = bdev_dev(bh_bdev(bh));
        printk("<4>%s: buffer_head I/O error bh=%p, major=%d, minor=%d, block=%llu\n", __func__,
               static_cast<void *>(bh), deviceMajor(kdev), deviceMinor(kdev),
               static_cast<unsigned long long>(bh_blocknr(bh)));
    } else {
        set_buffer_uptodate(bh);
    }
    unlock_buffer(bh);
    put_bh(bh);
}

/* A zeroed record for a read; never refused. */
static BIORequest *newBR()
{
    BIORequest *br;
    while ((br = static_cast<BIORequest *>(kmalloc(sizeof(BIORequest), GFP_NOIO))) == NULL)
        schedule();
    __builtin_memset(br, 0, sizeof(*br));
    return br;
}

/* A run of blocks to be read, and how many of them the disk was asked for. */
struct ReadRun {
    Backup *b;
    unsigned int startBlockNum;
    unsigned int numBlocks;
    BackupVMA *bvma;
    unsigned int submitted;
};

static void submitReads(void *data)
{
    auto *run = static_cast<ReadRun *>(data);
    Backup *b = run->b;
    unsigned int blocksPerPage = b->diskInfo.blocksPerPage;
    unsigned int blockSize = static_cast<unsigned int>(b->diskInfo.blockSize);
    u32 cached = 0; /* of the blocks of bn's word; what is cached from now on is found later */
    for (unsigned int i = 0; i < run->numBlocks; i++) {
        unsigned int bn = run->startBlockNum + i;
        if (i == 0 || bn % blocksPerWord == 0)
            cached = blocksInMap(&b->cacheMap, bn / blocksPerWord);
        if ((cached >> bn % blocksPerWord & 1) != 0)
            continue;
        BIORequest *br = newBR();
        b->mmBIORequests[i] = br;
        struct buffer_head *bh = allocBH();
        br->bio = allocBIO();
        atomic_inc(&b->curAllocBRs);
        atomic_inc(&b->totalAllocBRs);
        initBH(b, bh, run->bvma->mmPages[i / blocksPerPage], (i % blocksPerPage) * blockSize, bn);
        initBIO(b, br->bio, bh);
        submitRead(b, br->bio, bh);
        atomic_inc(&b->totalReadBlocks);
        run->submitted++;
    }
}

/*
 * Submits the reads of those blocks of a run that are not in the cache, each to its place in the
 * mapping, and returns their number. All are on their way before anything waits.
 */
unsigned int readBlocks(Backup *b, unsigned int startBlockNum, unsigned int numBlocks,
                        BackupVMA *bvma)
{
    ReadRun run = {b, startBlockNum, numBlocks, bvma, 0};
    submit_together(submitReads, &run);
    return run.submitted;
}

/* 1 if block `i` of the current read was left to the disk. */
int isRequestSubmitted(Backup *b, int i)
{
    return b->mmBIORequests[i] != NULL ? 1 : 0;
}

/* Puts zeros where the read should have put the block. */
static void zeroFill(struct bio *bio)
{
    for (unsigned int v = 0; v < bio_vcnt(bio); v++) {
        unsigned int offset = bio_vec_offset(bio, v);
        unsigned int length = bio_vec_length(bio, v);
        if (offset + length > PAGE_SIZE) {
            printk("<2>%s: BIO segment greater than page size (offset=%d, length=%d)",
                   "waitForSubmitted", offset, length);
            BUG();
        }
        char *bytes = static_cast<char *>(kmap(bio_vec_page(bio, v)));
        __builtin_memset(bytes + offset, 0, length);
        kunmap(bio_vec_page(bio, v));
    }
}

/* Waits for all reads of a run: 0, or 12 if a block could not be read. The backup does not want
 * these blocks any more, if it has said which ones it wants. */
int waitForSubmitted(Backup *b, unsigned int startBlockNum, unsigned int numBlocks)
{
    int ret = 0;
    for (unsigned int i = 0; i < numBlocks; i++) {
        BIORequest *br = b->mmBIORequests[i];
        if (br == NULL)
            continue;
        auto *bh = static_cast<struct buffer_head *>(bio_private(br->bio));
        wait_on_buffer(bh);
        if (buffer_uptodate(bh) == 0) {
            zeroFill(br->bio);
            ret = ZEL_RESULT_UNREADABLE;
        }
        if (backupState(b) == BACKUP_MAP_LOADED)
            unSetBlock(&b->blockMap, startBlockNum + i);
    }
    return ret;
}

/* Releases all reads of a run, waiting for those that have not ended. */
void freeSubmitted(Backup *b, unsigned int numBlocks)
{
    for (unsigned int i = 0; i < numBlocks; i++) {
        BIORequest *br = b->mmBIORequests[i];
        if (br == NULL)
            continue;
        if (br->bio != NULL) {
            releaseBH(static_cast<struct buffer_head *>(bio_private(br->bio)));
            bio_set_private(br->bio, NULL);
            bio_put(br->bio);
            br->bio = NULL;
            atomic_dec(&b->curAllocBRs);
        }
        kfree(br);
        b->mmBIORequests[i] = NULL;
    }
}
