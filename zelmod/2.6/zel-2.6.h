/*
 * The module's main records, and what is bound to the block layer of 2.6 kernels: geometry,
 * hooks, cache thread, pre-image reads, block reader, snapshot and sync, buffer faults.
 */
#ifndef ZEL_2_6_H
#define ZEL_2_6_H

#include <kernel/block.h>
#include <kernel/chardev.h>
#include <kernel/fs.h>
#include <kernel/sync.h>
#include <kernel/types.h>
#include <kernel/vm.h>

#include "globals.h"
#include "stats.h"
#include "zelmod.h"

/* Geometry of one device. Block n starts at sector n << sectorsPerBlockShift of the partition. */
typedef struct _DiskInfo {
    kernel_dev_t kdev;
    sector_t partitionStart; /* first sector on the disk */
    int blockSize;           /* bytes, of the mounted file system */
    unsigned int blocksPerPage;
    struct super_block *superBlock; /* never kept */
    sector_t partitionSizeKB;
    sector_t numBlocks; /* as the agent counts them */
    make_request_fn *realMRF;
    struct block_device *bdev; /* its reference is kept for ever */
    sector_t partitionLen;     /* sectors */
    int sectorsPerBlock;
    int sectorsPerBlockShift;
} DiskInfo;

/* One held bio, from the hook that holds it to the cache thread that passes it on. */
typedef struct _MakeRequest {
    struct request_queue *q;
    struct bio *bio; /* the block layer's; only borrowed */
    unsigned int startBN;
    unsigned int endBN; /* inclusive */
    struct _MakeRequest *next;
} MakeRequest;

/* One read of one block from the disk. */
typedef struct _BIORequest {
    struct bio *bio;
    struct completion event; /* unused: the buffer head's lock tells the end */
} BIORequest;

/* Change tracking of one device. In amList; `users` and `usersLock` keep it alive (users.h). */
typedef struct _AutoMapSession {
    DiskInfo diskInfo; /* of the backup that created it */
    u32 state;         /* AMS_...; through amsState and setAMSState */
    BlockMap map;      /* blocks written since the last snapshot */
    atomic_t users;
    spinlock_t usersLock;
    AMSessionKey sessionKey;
    struct _AutoMapSession *next; /* always NULL */
} AutoMapSession;

/* One backup; one per open file of the control device. */
typedef struct _Backup {
    struct semaphore bSem;       /* serialises the commands of this record */
    volatile unsigned int state; /* BACKUP_...; through backupState and setBackupState */
    struct rw_semaphore writers; /* read: a hook between its state test and its queueing */
    int maxVMPages;              /* pages of the largest mapping */
    BackupVMA vmAreas[2];        /* under vmAreasSem */
    int noLoadFromAutoMap;
    int noStartAutoMap;
    struct kernel_timespec eTimeToFreeze;
    struct kernel_timespec eTimeFrozen;
    DiskInfo diskInfo;
    BlockMap blockMap; /* blocks that the backup still has to read */
    HashTable **blockTable;
    struct kmem_cache *htCache;
    char htCacheName[32];
    BlockMap cacheMap;              /* blocks whose old contents are taken care of */
    struct rw_semaphore cacheUsers; /* read: users of the cache; write: its tear-down */
    struct kmem_cache *cpCache;
    struct kmem_cache *dataCache;
    char cpCacheName[32];
    char dataCacheName[32];
    unsigned int maxCacheBlocks;
    atomic_t mrInQueue; /* bios held and not yet passed on */
    spinlock_t mrLock;  /* mrHead, mrTail */
    MakeRequest *mrHead;
    MakeRequest *mrTail;
    atomic_t ioctlCount;
    atomic_t totalAllocPages;
    atomic_t curAllocPages;
    atomic_t totalAllocCPs;
    atomic_t curAllocCPs;
    atomic_t peakAllocCPs;
    atomic_t totalCBs;
    atomic_t curCBs;
    atomic_t totalReadBlocks;
    atomic_t totalReadCBs;
    atomic_t totalCleanedCBs;
    atomic_t totalAllocBRs;
    atomic_t curAllocBRs;
    BIORequest **mmBIORequests; /* by position in the current read; NULL: not read from disk */
    int startedCacheThread;
    atomic_t hooksInside; /* hooks that took this record from activeSession and still use it */
    /* Guards vmAreas and the pages in it, also while they are filled: a mapping may go away at any
     * time. Nests inside bSem and inside the process's mmap_sem, so no user memory is touched
     * under it. */
    struct semaphore vmAreasSem;
} Backup;

/* State fields are read by tasks that share no lock with their writers; what was stored before a
 * state can be seen by whoever has seen the state. */
inline unsigned int backupState(const Backup *b)
{
    return __atomic_load_n(&b->state, __ATOMIC_ACQUIRE);
}

inline void setBackupState(Backup *b, unsigned int state)
{
    __atomic_store_n(&b->state, state, __ATOMIC_RELEASE);
    smp_mb();
}

/* Moves the state on from `from`. False if it is another by now: a failure found meanwhile, which
 * is final. */
inline bool advanceBackupState(Backup *b, unsigned int from, unsigned int to)
{
    bool advanced = __atomic_compare_exchange_n(&b->state, &from, to, false, __ATOMIC_ACQ_REL,
                                                __ATOMIC_ACQUIRE);
    smp_mb();
    return advanced;
}

inline u32 amsState(const AutoMapSession *ams)
{
    return __atomic_load_n(&ams->state, __ATOMIC_ACQUIRE);
}

inline void setAMSState(AutoMapSession *ams, u32 state)
{
    __atomic_store_n(&ams->state, state, __ATOMIC_RELEASE);
    smp_mb();
}

/* geometry.cpp: see there for the results. Process context, may sleep. */
int getDiskInfo(DiskInfo *di, kernel_dev_t kdev);
struct request_queue *getRequestQueue(DiskInfo *di);
int getDiskMinor(kernel_dev_t kdev);
int ioctlGetBlockSize(Backup *b, kernel_dev_t kdev, BlockSize *user, unsigned int len);

/* hooks.cpp: in the context of whoever submits the bio; may sleep. */
int zelMRF(struct request_queue *q, struct bio *bio);
int zelAMRF(struct request_queue *q, struct bio *bio);
int BIOToMinor(struct bio *bio);
int callRealMRF(Backup *b, struct bio *bio);
/* callRealMRF that tells whether the bio was submitted. */
bool submitToRealMRF(Backup *b, struct bio *bio);

/* The blocks that a bio touches, counted from the start of the partition. */
struct BlockRange {
    unsigned int startBN;
    unsigned int endBN; /* inclusive; below startBN if there is none */
};
BlockRange BIOToBlockNumbers(struct bio *bio, const DiskInfo *di);

/* cacheThread.cpp: the thread "kbackupd" and what it does with one held bio. */
int backup_cache(void *unused);
void processMR(Backup *b, MakeRequest *mr);

/* preImage.cpp: reads block `bn` as it is on the disk and keeps it in the cache. The cache thread;
 * sleeps. */
void cacheBlock(Backup *b, MakeRequest *mr, unsigned int bn);

/* blockReader.cpp: process context under bSem, may sleep; the end-of-I/O functions in interrupt
 * context. */
int allocateBlockRequests(Backup *b);
void freeMMBRs(Backup *b);
void allocateBRCache(Backup *b);
void closeBRCache(Backup *b);
unsigned int readBlocks(Backup *b, unsigned int startBlockNum, unsigned int numBlocks,
                        BackupVMA *bvma);
int isRequestSubmitted(Backup *b, int i);
int waitForSubmitted(Backup *b, unsigned int startBlockNum, unsigned int numBlocks);
void freeSubmitted(Backup *b, unsigned int numBlocks);
void initBH(Backup *b, struct buffer_head *bh, struct page *page, unsigned int offset,
            unsigned int blockNum);
void initBIO(Backup *b, struct bio *bio, struct buffer_head *bh);
/* Submits a bio that initBIO has set up, as a read; one that cannot be submitted fails at once. */
void submitRead(Backup *b, struct bio *bio, struct buffer_head *bh);
void zelBIOEndIO(struct bio *bio, int error);
void zelBHEndIO(struct buffer_head *bh, int uptodate);
/* One buffer head and one bio with a single vector; never refused. */
struct buffer_head *allocBH();
struct bio *allocBIO();
/* Waits for the buffer's I/O and until its completion has let go of it, then frees it. */
void releaseBH(struct buffer_head *bh);

/* snapshot.cpp: process context, may sleep. */
int ioctlSnapShot(Backup *b, AMSessionKey *userKey, unsigned int len);
int ioctlSync(Backup *b);
struct kernel_timespec calcTimeDiff(const struct kernel_timespec *start,
                                    const struct kernel_timespec *end);

/* bufferFault.cpp: in the agent's context with its mmap_sem held. */
int zelVMfault(struct vm_area_struct *vma, struct vm_fault *vmf);
struct page *zelVMnopage(struct vm_area_struct *vma, unsigned long address);

#endif
