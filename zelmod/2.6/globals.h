/* Records shared by the whole module: bitmaps, cached blocks, mappings of the transfer buffer. */
#ifndef ZELMOD_GLOBALS_H
#define ZELMOD_GLOBALS_H

#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/types.h>
#include <kernel/vm.h>

/*
 * One bit per block of a device, in single pages that may be high memory.
 *
 * `users` (idle value 1) and `usersLock` are the users protocol of users.h; `sem` serialises access
 * to the pages. Bits are little-endian: block n is bit n & 7 of byte n >> 3.
 */
typedef struct _BlockMap {
    u32 size;          /* blocks covered; 0 when there are no pages */
    u32 numBytes;      /* (size + 7) >> 3; stale once the map is closed */
    struct page **map; /* one entry per 32768 blocks; NULL when there are no pages */
    atomic_t users;
    spinlock_t usersLock;
    struct semaphore sem;
} BlockMap;

/* One block's contents as of the snapshot. In exactly one bucket, under that bucket's semaphore. */
typedef struct _CachePage {
    struct _CachePage *next;
    char *data; /* blockSize bytes of Backup.dataCache */
    u32 blockNum;
} CachePage;

static_assert(sizeof(CachePage) == 12 || sizeof(void *) != 4);

/* One bucket of the block table: newest entry first. */
typedef struct _HashTable {
    CachePage *busy;
    struct semaphore sem; /* guards the list */
} HashTable;

static_assert(__builtin_offsetof(HashTable, sem) == sizeof(void *));

inline constexpr int maxMappingPages = 256;

/* One mapping of the transfer buffer. `vma` is NULL while the slot is free. */
typedef struct _BackupVMA {
    int vmPages;
    struct vm_area_struct *vma;
    struct page *mmPages[maxMappingPages]; /* in mapping order; from vmPages on nothing */
} BackupVMA;

#endif
