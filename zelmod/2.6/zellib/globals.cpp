/* The module's globals. */
#include <kernel/list.h>
#include <kernel/sync.h>

#include "zellib.h"

atomic_t initDone;

spinlock_t busyLock;
int busy;

struct rw_semaphore activeSessionUsers;
Backup *activeSession;
int activeSessionRetiring;

AutoMapSession *amList[maxAMMajor][maxAMMinor];
atomic_t amListUsers;
spinlock_t amListUsersLock;
atomic_t curAllocAMPages;

struct list_head queueListHead;
atomic_t queueListUsers;
spinlock_t queueListUsersLock;

struct semaphore signalThread;
struct semaphore cacheThreadOwner;
int backup_cachePID;
atomic_t backup_cacheThreadContinue;
struct completion backup_cacheThreadExited;
struct completion backup_cacheThreadStartCompleted;

/* Everything but signalThread, which zelInit initialises. At load, before anybody can call. */
void initGlobals()
{
    atomic_set(&initDone, 0);
    spin_lock_init(&busyLock);
    init_rwsem(&activeSessionUsers);
    atomic_set(&amListUsers, 1);
    spin_lock_init(&amListUsersLock);
    atomic_set(&curAllocAMPages, 0);
    INIT_LIST_HEAD(&queueListHead);
    atomic_set(&queueListUsers, 1);
    spin_lock_init(&queueListUsersLock);
    sema_init(&cacheThreadOwner, 1);
    atomic_set(&backup_cacheThreadContinue, 0);
    init_completion(&backup_cacheThreadExited);
    init_completion(&backup_cacheThreadStartCompleted);
}
