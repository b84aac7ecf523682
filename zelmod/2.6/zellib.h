/* What does not depend on the kernel's version: the module's globals and its other functions. */
#ifndef ZELLIB_H
#define ZELLIB_H

#include <kernel/chardev.h>
#include <kernel/list.h>
#include <kernel/sync.h>

#include "queueList.h"
#include "zel-2.6.h"

inline constexpr unsigned int hashBuckets = 4096;
inline constexpr unsigned int maxAMMajor = 256;
inline constexpr unsigned int maxAMMinor = 256;

/* Module-wide data (zellib/globals.cpp). Zero at load; locks and counters that need another idle
 * value get it from initGlobals before anyone can reach the module. */

extern atomic_t initDone; /* 1 once the control device is registered */

extern spinlock_t busyLock;
extern int busy; /* under busyLock: 1 while some record owns "the" backup */

extern struct rw_semaphore activeSessionUsers; /* guards the taking of activeSession by hooks */
extern Backup *activeSession;                  /* through the accessors below */
extern int activeSessionRetiring;              /* under activeSessionUsers: hooks take it no more */

extern AutoMapSession *amList[maxAMMajor][maxAMMinor]; /* under amListUsers (users.h) */
extern atomic_t amListUsers;
extern spinlock_t amListUsersLock;
extern atomic_t curAllocAMPages; /* pages of all sessions' maps */

extern struct list_head queueListHead; /* of QueueList, under queueListUsers (users.h) */
extern atomic_t queueListUsers;
extern spinlock_t queueListUsersLock;

extern struct semaphore signalThread; /* the cache thread's wake-ups */
/* Owned from before the cache thread's start until it has stopped: starts and stops exclude each
 * other. Nests inside bSem and, at a close, inside writers. */
extern struct semaphore cacheThreadOwner;
extern int backup_cachePID; /* above 0 while the thread runs; through the accessors below */
extern atomic_t backup_cacheThreadContinue;
extern struct completion backup_cacheThreadExited;
extern struct completion backup_cacheThreadStartCompleted;

void initGlobals();

/* These two are read by tasks that share no lock with their writers. */
inline Backup *loadActiveSession()
{
    return __atomic_load_n(&activeSession, __ATOMIC_ACQUIRE);
}

inline void storeActiveSession(Backup *b)
{
    __atomic_store_n(&activeSession, b, __ATOMIC_RELEASE);
}

inline int loadCachePID()
{
    return __atomic_load_n(&backup_cachePID, __ATOMIC_RELAXED);
}

inline void storeCachePID(int pid)
{
    __atomic_store_n(&backup_cachePID, pid, __ATOMIC_RELAXED);
}

/* shim-2.6.cpp */
int zelModRegister(unsigned int major, const char *name, struct chrdev_operations *fops);
int zelCheckModUse();
int zelModGet();
void zelModPut();
struct request_queue *zelGetRequestQueue(struct block_device *bdev);
void zelLockRequestQueue(struct request_queue *q, unsigned long *flags);
void zelUnlockRequestQueue(struct request_queue *q, unsigned long *flags);

/* control.cpp: loading, unloading, the file operations. */
extern "C" int zelInit(void);
extern "C" void zelExit(void);
void doModuleUnload();
int zelUnload();
int zelShutdown();
int zelOpen(struct inode *inode, struct file *file);
int zelRelease(struct inode *inode, struct file *file);
long zelRead(struct file *file, char *buffer, size_t count, s64 *position);
long zelWrite(struct file *file, const char *buffer, size_t count, s64 *position);
unsigned int zelPoll(struct file *file, struct poll_table_struct *table);
extern struct chrdev_operations zelFileOps;

/* dispatcher.cpp */
int zelIOCTL(struct inode *inode, struct file *file, unsigned int cmd, unsigned long arg);

/* blockMap.cpp: bitmaps. All may sleep; process context. */
/* Makes `bmap`, whose memory is zero, an empty map that can be used. */
void initBlockMap(BlockMap *bmap);
int newBlockMap(BlockMap *bmap, unsigned int size, const void *data, int zeroFill,
                unsigned int *numPagesAlloc);
void closeBlockMap(BlockMap *bmap, unsigned int *numPagesFreed);
unsigned int numPagesInBlockMap(unsigned int size);
int setBlock(BlockMap *bm, unsigned int blockNum);
int unSetBlock(BlockMap *bm, unsigned int blockNum);
int blockInMap(BlockMap *bm, unsigned int blockNum);
u64 setBlocks(BlockMap *bm, BlockRange range);
/* Ranges are looked at by words of 32 blocks: bit i is block `word` * 32 + i. */
inline constexpr unsigned int blocksPerWord = 32;
u32 blocksInMap(BlockMap *bm, unsigned int word);
/* Which of a word's blocks are in the range. */
inline u32 blocksInRange(BlockRange range, unsigned int word)
{
    u32 bits = 0xffffffff;
    if (word == range.startBN / blocksPerWord)
        bits &= bits << range.startBN % blocksPerWord;
    if (word == range.endBN / blocksPerWord)
        bits &= 0xffffffff >> (blocksPerWord - 1 - range.endBN % blocksPerWord);
    return bits;
}
void waitForBlockMapUsers(BlockMap *bm, unsigned long *flags);
/* Frees a backup's map, if it has pages, and takes them off curAllocPages. */
void releaseBackupMap(Backup *b, BlockMap *bm);

/* queueRegistry.cpp: see there. Process context, may sleep. */
void waitForQueueListUsers(unsigned long *flags);
void addQueueToList(struct request_queue *q, kernel_dev_t kdev);
int addDevToList(QueueList *ql, kernel_dev_t kdev, DevList *dl);
int isInDevList(QueueList *ql, kernel_dev_t kdev);
int isInQueueList(struct request_queue *q, kernel_dev_t kdev);
make_request_fn *getRealMRF(struct request_queue *q);
int setMRF(Backup *b, make_request_fn *fn);
int countQueueAMS(struct request_queue *q);
void unsetQueueMRFAMS(struct request_queue *q);
void unSetMRFAMS(AutoMapSession *ams);
void unSetMRFDEV(DiskInfo *diskInfo);
/* Unhooks whatever the registry still holds, by its queue: for unloading. */
void unhookAllQueues();

/* autoMap.cpp: change-tracking sessions. Process context, may sleep. */
int newAMS(Backup *b, AutoMapSession **amSession);
void updateAM(struct bio *bio, int bioMinor);
void errorAMS(Backup *b);
void errorAMSDEV(kernel_dev_t kdev);
int closeAMS(Backup *b);
void closeAM(AutoMapSession *ams);
void closeAllAMS();
void waitForAMListUsers(unsigned long *flags);
void waitForAMSUsers(AutoMapSession *ams, unsigned long *flags);
/* The session of a device with a reference taken (leaveUsers(&ams->users) drops it), or NULL. */
AutoMapSession *getAMS(unsigned int major, unsigned int minor);
/* The table's slot of a device; NULL for numbers outside the table. The caller is inside amList. */
AutoMapSession **amListSlot(unsigned int major, unsigned int minor);

/* autoMapCommands.cpp */
int ioctlNoLoadFromAutoMap(Backup *b);
int ioctlNoStartAutoMap(Backup *b);
int ioctlGetAutoMapState(Backup *b, AutoMapState *userAMS, unsigned int amsLen);
int ioctlGetAutoMap(Backup *b, const UserBlockMap *userBM);
int ioctlLoadBlockMap(Backup *b, const UserBlockMap *userBM);
int ioctlGetDirtyBlock(Backup *b, u32 *userBlockNumPtr);

/* backup.cpp: start and close. */
int ioctlStartBackup(Backup *b, kernel_dev_t dev, unsigned int totalBlocks,
                     unsigned int maxCacheBlocks);
void closeBackup(Backup *b);

/* writeQueue.cpp: the queue of held bios, and starting, draining and stopping the cache thread. */
MakeRequest *newMR(struct request_queue *q, struct bio *bio, BlockRange range);
void addMRToQueue(Backup *b, MakeRequest *mr);
MakeRequest *getTopMR(Backup *b);
void closeMR(MakeRequest *mr);
int startWorkQueue(Backup *b);
void waitForMRs(Backup *b);
void killWorkQueue(Backup *b);

/* blockCache.cpp: saved blocks. Process context, may sleep. */
int newBlockTable(Backup *b);
void closeBlockTable(Backup *b);
/* Makes cpCache and dataCache, named after `dev`: 0 or 5. */
int newDataCaches(Backup *b, kernel_dev_t dev);
int doWeCacheBlock(Backup *b, unsigned int bn);
/* Whether doWeCacheBlock says so of any block of the range. */
bool doWeCacheAnyBlock(Backup *b, BlockRange range);
int saveBlock(Backup *b, const char *data, unsigned int bn);
void markWritten(Backup *b, unsigned int bn);
unsigned int cacheRead(Backup *b, char *dest, unsigned int bn);
unsigned int readFromCache(Backup *b, unsigned int startBN, unsigned int count, BackupVMA *vma);
void readCheckCache(Backup *b, unsigned int startBN, unsigned int count, BackupVMA *vma);
void freeCachePage(Backup *b, CachePage *cp);
void closeList(Backup *b, CachePage *list);
void closeCache(Backup *b);
CachePage *locateBlockInList(CachePage *list, unsigned int bn, CachePage **prev);
int cleanUpCache(Backup *b);
unsigned int anyDirtyBlock(Backup *b);

/* transferBuffer.cpp: mappings of the transfer buffer. findVMA, checkVMA, maxBVMAs, mmPageAddr and
 * freeMMPages: the caller holds vmAreasSem, or nobody else can reach the record. */
extern const struct vma_operations zelVMOps;
int zelMMAP(struct file *file, struct vm_area_struct *vma);
void zelVMopen(struct vm_area_struct *vma);
void zelVMclose(struct vm_area_struct *vma);
int findVMA(Backup *b, struct vm_area_struct *vma, BackupVMA **bvma);
int checkVMA(Backup *b, unsigned long addr, BackupVMA **bvma);
int maxBVMAs(Backup *b, BackupVMA **bvma);
int getVMAPageCount(Backup *b);
char *mmPageAddr(Backup *b, unsigned int i, BackupVMA *bvma);
void freeMMPages(Backup *b, BackupVMA *bvma);
void freeAllMMPages(Backup *b);

/* readBlocksCommand.cpp */
int ioctlReadBlocks(Backup *b, unsigned int startBlockNum, unsigned int numBlocks, void *data);

/* statistics.cpp */
void setStats(Backup *b, Stats *s);
void printStats(const Stats *s);
int ioctlGetState(Backup *b, State *user, unsigned int len);
int ioctlGetStats(Backup *b, Stats *user, unsigned int len);

#endif
