/* Bitmaps of blocks, one bit a block, in single pages that may be high memory. */
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/uaccess.h>

#include "guards.h"
#include "users.h"
#include "zellib.h"

static constexpr unsigned int pageShiftOfBlock = PAGE_SHIFT + 3; /* blocks of one page, log2 */
static constexpr unsigned int blockIndexMask = (1u << pageShiftOfBlock) - 1;

/* Wraps to 0 for the sizes that are too large. */
static u32 bytesInBlockMap(u32 size)
{
    return (size + 7) >> 3;
}

unsigned int numPagesInBlockMap(unsigned int size)
{
    return (bytesInBlockMap(size) + PAGE_SIZE - 1) >> PAGE_SHIFT;
}

void initBlockMap(BlockMap *bmap)
{
    atomic_set(&bmap->users, 1);
    spin_lock_init(&bmap->usersLock);
    sema_init(&bmap->sem, 1);
}

/* Makes page `i`, with `count` bytes from the agent or, if `from` is NULL, of `fill`. Messages and
 * results are newBlockMap's. */
static int newMapPage(BlockMap *bmap, unsigned int i, const char *from, int fill, u32 count)
{
    struct page *page = alloc_pages(GFP_HIGHUSER, 0);
    if (page == NULL) {
        printk("<3>%s: failed allocating page number (%d) for block map\n", "newBlockMap", i);
        return ZEL_RESULT_NO_MEMORY;
    }
    bmap->map[i] = page;
    unsigned long uncopied = 0;
    void *bytes = kmap(page);
    if (from != NULL)
        uncopied = copy_from_user(bytes, from, count);
    else
        __builtin_memset(bytes, fill, count);
    kunmap(page);
    if (uncopied != 0) {
        printk("<3>%s: copy to user space failed data=%p bytesCopied=%d bytesInMap=%d\n",
               "newBlockMap", from, count, bmap->numBytes);
        return ZEL_RESULT_COPY_IN_FAILED;
    }
    return 0;
}

/*
 * Makes `bmap` a map of `size` blocks: from user memory at `data`, else all clear (zeroFill 1) or
 * all set (any other zeroFill). What `bmap` held before is not released. Stores the number of its
 * pages and returns 0, or returns 2 (size), 5 (memory) or 6 (user memory) and `bmap` is empty.
 */
int newBlockMap(BlockMap *bmap, unsigned int size, const void *data, int zeroFill,
                unsigned int *numPagesAlloc)
{
    u32 bytesInMap = bytesInBlockMap(size);
    if (bytesInMap == 0) {
        printk("<3>%s: block size size=%u invalid\n", __func__, size);
        return ZEL_RESULT_INVALID;
    }
    __builtin_memset(bmap, 0, sizeof(*bmap));
    initBlockMap(bmap);
    unsigned int numPages = numPagesInBlockMap(size);
    u32 arrayBytes = numPages * static_cast<u32>(sizeof(struct page *));
    bmap->map = static_cast<struct page **>(vmalloc(arrayBytes));
    if (bmap->map == NULL) {
        printk("<3>%s: failed allocating (%d) bytes of memory for block map page array\n", __func__,
               arrayBytes);
        return ZEL_RESULT_NO_MEMORY;
    }
    __builtin_memset(bmap->map, 0, arrayBytes);
    bmap->size = size;
    bmap->numBytes = bytesInMap;
    const char *cursor = static_cast<const char *>(data);
    for (unsigned int i = 0; i < numPages; i++) {
        u32 rest = bytesInMap & (PAGE_SIZE - 1);
        u32 count = i == numPages - 1 && rest != 0 ? rest : u32{PAGE_SIZE};
        int ret = newMapPage(bmap, i, cursor, zeroFill == 1 ? 0x00 : 0xff, count);
        if (ret != 0) {
            printk("<3>%s: Out of Memory Error.%s", __func__, "\n");
            unsigned int freed = 0;
            closeBlockMap(bmap, &freed);
            return ret;
        }
        if (cursor != NULL)
            cursor += PAGE_SIZE;
    }
    *numPagesAlloc = numPages;
    return 0;
}

/* Releases the pages and stores how many there were; does neither for an empty map. Nobody else may
 * use the map. */
void closeBlockMap(BlockMap *bmap, unsigned int *numPagesFreed)
{
    if (bmap->map == NULL)
        return;
    unsigned int numPages = numPagesInBlockMap(bmap->size);
    for (unsigned int i = 0; i < numPages; i++) {
        if (bmap->map[i] != NULL) {
            __free_pages(bmap->map[i], 0);
            bmap->map[i] = NULL;
        }
    }
    vfree(bmap->map);
    bmap->map = NULL;
    bmap->size = 0;
    *numPagesFreed = numPages;
}

void releaseBackupMap(Backup *b, BlockMap *bm)
{
    if (bm->map == NULL)
        return;
    unsigned int freed = 0;
    closeBlockMap(bm, &freed);
    atomic_sub(freed, &b->curAllocPages);
}

/* The bitmap of the page that a block of the map is in, for the length of a scope. The caller is
 * inside the map's users. */
class MappedPage
{
public:
    MappedPage(BlockMap *bm, unsigned int blockNum)
        : guard_(&bm->sem), page_(bm->map[blockNum >> pageShiftOfBlock]), bitmap_(kmap(page_))
    {
    }
    ~MappedPage() { kunmap(page_); }
    MappedPage(const MappedPage &) = delete;
    MappedPage &operator=(const MappedPage &) = delete;

    void *bitmap() { return bitmap_; }

private:
    SemaphoreGuard guard_;
    struct page *page_;
    void *bitmap_;
};

/* Gives `operation` the bit of `blockNum` (its page's bitmap and its index there); `outOfRange` is
 * the result if there is none. */
template<class Operation>
static int withBit(BlockMap *bm, unsigned int blockNum, int outOfRange, Operation operation)
{
    Users user(&bm->users, &bm->usersLock);
    if (blockNum >= bm->size)
        return outOfRange;
    MappedPage page(bm, blockNum);
    return operation(static_cast<int>(blockNum & blockIndexMask),
                     static_cast<unsigned long *>(page.bitmap()));
}

/* 0, or `blockNum` itself if it is beyond the map. */
int setBlock(BlockMap *bm, unsigned int blockNum)
{
    return withBit(bm, blockNum, static_cast<int>(blockNum), [](int nr, unsigned long *bitmap) {
        set_bit(nr, bitmap);
        return 0;
    });
}

/* 0, or 1 if the block is beyond the map. */
int unSetBlock(BlockMap *bm, unsigned int blockNum)
{
    return withBit(bm, blockNum, 1, [](int nr, unsigned long *bitmap) {
        clear_bit(nr, bitmap);
        return 0;
    });
}

/* -1 if the block is in the map; 0 if not or if it is beyond the map. */
int blockInMap(BlockMap *bm, unsigned int blockNum)
{
    return withBit(bm, blockNum, 0, [](int nr, unsigned long *bitmap) {
        return test_bit(nr, bitmap) != 0 ? -1 : 0;
    });
}

/* Sets a range's blocks one after the other, up to its end or the map's: the first one that it has
 * not set. */
u64 setBlocks(BlockMap *bm, BlockRange range)
{
    Users user(&bm->users, &bm->usersLock);
    u64 bn = range.startBN;
    while (bn <= range.endBN && bn < bm->size) {
        MappedPage page(bm, static_cast<unsigned int>(bn));
        do {
            set_bit(static_cast<int>(bn & blockIndexMask),
                    static_cast<unsigned long *>(page.bitmap()));
            bn++;
        } while (bn <= range.endBN && bn < bm->size && (bn & blockIndexMask) != 0);
    }
    return bn;
}

/* Which of a word's blocks are in the map; those beyond it are not. */
u32 blocksInMap(BlockMap *bm, unsigned int word)
{
    Users user(&bm->users, &bm->usersLock);
    unsigned int first = word * blocksPerWord;
    if (first >= bm->size)
        return 0;
    MappedPage page(bm, first);
    u32 bits = static_cast<u32 *>(page.bitmap())[(first & blockIndexMask) / blocksPerWord];
    unsigned int count = bm->size - first;
    return count < blocksPerWord ? bits & ((1u << count) - 1) : bits;
}

/* The map's one writer: returns holding usersLock, its flags in `*flags`. */
void waitForBlockMapUsers(BlockMap *bm, unsigned long *flags)
{
    waitForUsers(&bm->users, &bm->usersLock, flags);
}
