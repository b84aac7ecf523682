/* Reading what a held write is about to overwrite. */
#include <kernel/block.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>

#include "guards.h"
#include "zellib.h"

/* Reads block `bn` into `page` and keeps it in the cache. A failure spoils the backup. */
static void saveFromDisk(Backup *b, struct page *page, unsigned int bn)
{
    struct buffer_head *bh = allocBH();
    struct bio *bio = allocBIO();
    atomic_inc(&b->curAllocBRs);
    atomic_inc(&b->totalAllocBRs);
    initBH(b, bh, page, 0, bn);
    initBIO(b, bio, bh);
    submitRead(b, bio, bh);
    wait_on_buffer(bh);
    if (buffer_uptodate(bh) == 0) {
        setBackupState(b, BACKUP_ERR_READ);
        printk("<3>%s: Block read error blockNum=%u MAJOR=%d MINOR=%d\n", "cacheBlock", bn,
               deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
        errorAMS(b);
    } else if (saveBlock(b, static_cast<char *>(page_address(page)), bn) != 0) {
        printk("<3>%s: Error caching blockNum=%u MAJOR=%d MINOR=%d\n", "cacheBlock", bn,
               deviceMajor(b->diskInfo.kdev), deviceMinor(b->diskInfo.kdev));
        errorAMS(b);
    }
    bio_put(bio);
    releaseBH(bh);
    atomic_dec(&b->curAllocBRs);
}

void cacheBlock(Backup *b, MakeRequest *, unsigned int bn)
{
    ReadGuard user(&b->cacheUsers);
    if (backupState(b) > BACKUP_MAP_LOADED)
        return;
    struct page *page = alloc_pages(GFP_NOIO, 0);
    if (page == NULL) {
        setBackupState(b, BACKUP_ERR_CACHE);
        errorAMS(b);
        return;
    }
    atomic_inc(&b->totalAllocPages);
    atomic_inc(&b->curAllocPages);
    saveFromDisk(b, page, bn);
    __free_pages(page, 0);
    atomic_dec(&b->curAllocPages);
}
