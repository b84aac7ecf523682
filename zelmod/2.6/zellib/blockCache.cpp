/*
 * The cache of blocks as they were at the snapshot.
 *
 * A table of buckets, each a list under its own semaphore; cacheMap says which blocks are taken
 * care of. Whoever uses the cache holds cacheUsers for reading, and one bucket at a time inside it.
 *
 *   block is           in cacheMap   in a bucket
 *   untouched          no            no
 *   just saved         no            yes           until its write has been passed on
 *   saved              yes           yes
 *   delivered          no            no            state 6 only; then it is not in blockMap either
 *
 * Once the state is above 6 nothing is saved or found any more.
 */
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/sync.h>

#include "guards.h"
#include "zellib.h"

/* Appends at least two digits, lower case. */
static char *appendHex(char *at, unsigned int value)
{
    int digits = 2;
    while (digits < 8 && value >> (digits * 4) != 0)
        digits++;
    while (digits-- > 0)
        *at++ = "0123456789abcdef"[value >> (digits * 4) & 0xf];
    return at;
}

/* "zelXX%02x%02x" of a device. */
static void formatCacheName(char *name, const char *prefix, kernel_dev_t kdev)
{
    while (*prefix != '\0')
        *name++ = *prefix++;
    name = appendHex(name, deviceMajor(kdev));
    *appendHex(name, deviceMinor(kdev)) = '\0';
}

static HashTable *bucketOf(Backup *b, unsigned int bn)
{
    return b->blockTable[bn & (hashBuckets - 1)];
}

/* Makes the buckets: 0 or 5. What it made before a failure stays for closeBlockTable. */
int newBlockTable(Backup *b)
{
    kernel_dev_t kdev = b->diskInfo.kdev;
    formatCacheName(b->htCacheName, "zelHT", kdev);
    b->htCache = kmem_cache_create(b->htCacheName, sizeof(HashTable), 0, SLAB_HWCACHE_ALIGN, NULL);
    if (b->htCache == NULL) {
        printk("<3>%s: kmem_cache_create failed for HashTable structs during backup start "
               "major=%d minor=%d\n",
               __func__, deviceMajor(kdev), deviceMinor(kdev));
        return ZEL_RESULT_NO_MEMORY;
    }
    b->blockTable = static_cast<HashTable **>(vmalloc(hashBuckets * sizeof(HashTable *)));
    if (b->blockTable == NULL)
        return ZEL_RESULT_NO_MEMORY;
    __builtin_memset(b->blockTable, 0, hashBuckets * sizeof(HashTable *));
    for (unsigned int i = 0; i < hashBuckets; i++) {
        b->blockTable[i] = static_cast<HashTable *>(kmem_cache_alloc(b->htCache, GFP_KERNEL));
        if (b->blockTable[i] == NULL)
            return ZEL_RESULT_NO_MEMORY;
        __builtin_memset(b->blockTable[i], 0, sizeof(HashTable));
    }
    for (unsigned int i = 0; i < hashBuckets; i++) {
        b->blockTable[i]->busy = NULL;
        sema_init(&b->blockTable[i]->sem, 1);
    }
    return 0;
}

void closeBlockTable(Backup *b)
{
    if (b->blockTable != NULL) {
        for (unsigned int i = 0; i < hashBuckets; i++)
            if (b->blockTable[i] != NULL)
                kmem_cache_free(b->htCache, b->blockTable[i]);
        vfree(b->blockTable);
        b->blockTable = NULL;
    }
    if (b->htCache != NULL)
        kmem_cache_destroy(b->htCache);
    b->htCache = NULL;
}

int newDataCaches(Backup *b, kernel_dev_t dev)
{
    size_t cpSize = 8 + 4 * b->diskInfo.blocksPerPage;
    if (cpSize < sizeof(CachePage))
        cpSize = sizeof(CachePage);
    formatCacheName(b->cpCacheName, "zelCP", dev);
    b->cpCache = kmem_cache_create(b->cpCacheName, cpSize, 0, SLAB_HWCACHE_ALIGN, NULL);
    formatCacheName(b->dataCacheName, "zelDC", dev);
    b->dataCache = kmem_cache_create(b->dataCacheName, static_cast<size_t>(b->diskInfo.blockSize),
                                     0, SLAB_HWCACHE_ALIGN, NULL);
    if (b->cpCache != NULL && b->dataCache != NULL)
        return 0;
    if (b->cpCache == NULL && b->dataCache != NULL) {
        /* closeCache takes a record without cpCache for one without any cache. */
        kmem_cache_destroy(b->dataCache);
        b->dataCache = NULL;
    }
    return ZEL_RESULT_NO_MEMORY;
}

/* Those of a word's blocks whose old contents still have to be saved before a write to them. */
static u32 blocksToCache(Backup *b, unsigned int word)
{
    u32 wanted = 0xffffffff;
    if (backupState(b) == BACKUP_MAP_LOADED)
        wanted = blocksInMap(&b->blockMap, word);
    return wanted != 0 ? wanted & ~blocksInMap(&b->cacheMap, word) : 0;
}

/* 1 if the block's old contents still have to be saved before a write to it. */
int doWeCacheBlock(Backup *b, unsigned int bn)
{
    return blocksToCache(b, bn / blocksPerWord) >> bn % blocksPerWord & 1;
}

bool doWeCacheAnyBlock(Backup *b, BlockRange range)
{
    for (unsigned int word = range.startBN / blocksPerWord; word <= range.endBN / blocksPerWord;
         word++) {
        u32 inRange = blocksInRange(range, word);
        if (inRange != 0 && (blocksToCache(b, word) & inRange) != 0)
            return true;
    }
    return false;
}

/* A record with room for a block, or NULL; then the backup is spoiled. On the write path. */
static CachePage *getCacheBlock(Backup *b)
{
    if (static_cast<unsigned int>(atomic_read(&b->curAllocCPs)) == b->maxCacheBlocks) {
        setBackupState(b, BACKUP_ERR_CACHE);
        printk("<3>%s: configured max cache memory reached (%u blocks) failed to allocate cache "
               "object\n",
               __func__, b->maxCacheBlocks);
        return NULL;
    }
    if (b->cpCache == NULL) {
        printk("<2>%s: b->cpCache was destroyed before kmem_cache_alloc!%s", __func__, "\n");
        BUG();
    }
    auto *cp = static_cast<CachePage *>(kmem_cache_alloc(b->cpCache, GFP_NOIO));
    if (cp == NULL) {
        setBackupState(b, BACKUP_ERR_CACHE);
        printk("<3>%s: system out of memory, failed to allocate cache object.%s", __func__, "\n");
        return NULL;
    }
    __builtin_memset(cp, 0, sizeof(*cp));
    if (b->dataCache == NULL) {
        printk("<2>%s: b->dataCache was destroyed before kmem_cache_alloc!%s", __func__, "\n");
        BUG();
    }
    cp->data = static_cast<char *>(kmem_cache_alloc(b->dataCache, GFP_NOIO));
    if (cp->data == NULL) {
        kmem_cache_free(b->cpCache, cp);
        setBackupState(b, BACKUP_ERR_CACHE);
        printk("<3>%s: system out of memory failed to allocate block for write cache%s", __func__,
               "\n");
        return NULL;
    }
    atomic_inc(&b->curAllocCPs);
    atomic_inc(&b->totalAllocCPs);
    atomic_inc(&b->curCBs);
    atomic_inc(&b->totalCBs);
    if (atomic_read(&b->curAllocCPs) > atomic_read(&b->peakAllocCPs))
        atomic_set(&b->peakAllocCPs, atomic_read(&b->curAllocCPs));
    return cp;
}

/* Keeps a block unless it is not wanted or taken care of: 0. 1 if it could not be kept; then the
 * backup is spoiled. The caller is inside cacheUsers. */
int saveBlock(Backup *b, const char *data, unsigned int bn)
{
    if (doWeCacheBlock(b, bn) == 0)
        return 0;
    HashTable *ht = bucketOf(b, bn);
    SemaphoreGuard bucket(&ht->sem);
    CachePage *cp = getCacheBlock(b);
    if (cp == NULL)
        return 1;
    cp->blockNum = bn;
    __builtin_memcpy(cp->data, data, static_cast<size_t>(b->diskInfo.blockSize));
    cp->next = ht->busy;
    ht->busy = cp;
    return 0;
}

/* A write to the block has been passed on: it is taken care of, if it still had to be. A reader
 * that takes its entry away comes before or after, never in between: a mark without an entry would
 * make every further read of the block fail. */
void markWritten(Backup *b, unsigned int bn)
{
    ReadGuard user(&b->cacheUsers);
    SemaphoreGuard bucket(&bucketOf(b, bn)->sem);
    if (doWeCacheBlock(b, bn) != 0)
        setBlock(&b->cacheMap, bn);
}

/* The block's entry, or NULL. `*prev` becomes the entry before it, unless it is the first. */
CachePage *locateBlockInList(CachePage *list, unsigned int bn, CachePage **prev)
{
    CachePage *before = NULL;
    for (CachePage *cp = list; cp != NULL; before = cp, cp = cp->next) {
        if (cp->blockNum != bn)
            continue;
        if (before != NULL)
            *prev = before;
        return cp;
    }
    return NULL;
}

static void unlinkCachePage(HashTable *ht, CachePage *cp, CachePage *prev)
{
    if (prev != NULL)
        prev->next = cp->next;
    else
        ht->busy = cp->next;
}

/* Copies a block from the cache: its size in bytes, or 0 if it is not there. Once the backup has
 * said which blocks it wants, it is given each only once. */
unsigned int cacheRead(Backup *b, char *dest, unsigned int bn)
{
    ReadGuard user(&b->cacheUsers);
    if (backupState(b) > BACKUP_MAP_LOADED)
        return 0;
    HashTable *ht = bucketOf(b, bn);
    SemaphoreGuard bucket(&ht->sem);
    CachePage *prev = NULL;
    CachePage *cp = locateBlockInList(ht->busy, bn, &prev);
    if (cp == NULL)
        return 0;
    unsigned int size = static_cast<unsigned int>(b->diskInfo.blockSize);
    __builtin_memcpy(dest, cp->data, size);
    atomic_inc(&b->totalReadCBs);
    if (backupState(b) == BACKUP_MAP_LOADED) {
        unSetBlock(&b->blockMap, bn);
        unSetBlock(&b->cacheMap, bn);
        unlinkCachePage(ht, cp, prev);
        freeCachePage(b, cp);
    }
    return size;
}

/* Fills the slots of a run that were not left to the disk; how many it found. */
unsigned int readFromCache(Backup *b, unsigned int startBN, unsigned int count, BackupVMA *vma)
{
    unsigned int found = 0;
    for (unsigned int i = 0; i < count; i++) {
        if (isRequestSubmitted(b, static_cast<int>(i)) != 0)
            continue;
        if (cacheRead(b, mmPageAddr(b, i, vma), startBN + i) != 0)
            found++;
        else
            printk("<4>%s: expected to read block number (%u) from cache and block not found in "
                   "cache\n",
                   __func__, startBN + i);
    }
    return found;
}

/* After the disk reads have ended: what was overwritten meanwhile was saved before, and the saved
 * contents are the right ones. */
void readCheckCache(Backup *b, unsigned int startBN, unsigned int count, BackupVMA *vma)
{
    for (unsigned int i = 0; i < count; i++)
        if (isRequestSubmitted(b, static_cast<int>(i)) != 0)
            cacheRead(b, mmPageAddr(b, i, vma), startBN + i);
}

/* The caller has unlinked `cp` and holds its bucket. */
void freeCachePage(Backup *b, CachePage *cp)
{
    unSetBlock(&b->cacheMap, cp->blockNum);
    kmem_cache_free(b->dataCache, cp->data);
    cp->data = NULL;
    kmem_cache_free(b->cpCache, cp);
    atomic_dec(&b->curAllocCPs);
    atomic_dec(&b->curCBs);
}

void closeList(Backup *b, CachePage *list)
{
    while (list != NULL) {
        CachePage *next = list->next;
        freeCachePage(b, list);
        list = next;
    }
}

/* Frees every saved block and the caches that they came from. */
void closeCache(Backup *b)
{
    WriteGuard users(&b->cacheUsers);
    if (b->cpCache == NULL)
        return;
    for (unsigned int i = 0; i < hashBuckets; i++) {
        HashTable *ht = b->blockTable[i];
        if (down_trylock(&ht->sem) != 0) {
            printk("<3>%s: ht->sem contended%s", __func__, "\n");
            down(&ht->sem);
        }
        closeList(b, ht->busy);
        up(&ht->sem);
    }
    kmem_cache_destroy(b->cpCache);
    if (b->dataCache != NULL)
        kmem_cache_destroy(b->dataCache);
    b->cpCache = NULL;
}

/* Drops what the backup does not want, as its map has just said. 0, or 3 if the state is not that
 * of a loaded map. */
int cleanUpCache(Backup *b)
{
    ReadGuard user(&b->cacheUsers);
    unsigned int state = backupState(b);
    if (state > BACKUP_MAP_LOADED)
        return 0;
    if (state != BACKUP_MAP_LOADED)
        return ZEL_RESULT_CHANGED;
    for (unsigned int i = 0; i < hashBuckets; i++) {
        HashTable *ht = b->blockTable[i];
        SemaphoreGuard bucket(&ht->sem);
        CachePage *prev = NULL;
        CachePage *next;
        for (CachePage *cp = ht->busy; cp != NULL; cp = next) {
            next = cp->next;
            if (blockInMap(&b->blockMap, cp->blockNum) != 0) {
                prev = cp;
                continue;
            }
            unlinkCachePage(ht, cp, prev);
            freeCachePage(b, cp);
            atomic_inc(&b->totalCleanedCBs);
        }
    }
    return 0;
}

/* The newest block of the first bucket that has one; 0xffffffff if none has. */
unsigned int anyDirtyBlock(Backup *b)
{
    constexpr unsigned int none = 0xffffffff;
    if (atomic_read(&b->curCBs) == 0)
        return none;
    ReadGuard user(&b->cacheUsers);
    if (backupState(b) > BACKUP_MAP_LOADED)
        return none;
    for (unsigned int i = 0; i < hashBuckets; i++) {
        HashTable *ht = b->blockTable[i];
        SemaphoreGuard bucket(&ht->sem);
        if (ht->busy != NULL)
            return ht->busy->blockNum;
    }
    return none;
}
