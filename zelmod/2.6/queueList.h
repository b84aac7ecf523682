/* The registry of hooked request queues. */
#ifndef ZELMOD_QUEUELIST_H
#define ZELMOD_QUEUELIST_H

#include <kernel/block.h>
#include <kernel/list.h>
#include <kernel/types.h>

/* One hooked queue. Owned by the registry, which keeps a reference on the queue. */
typedef struct _QueueList {
    struct request_queue *rQueue; /* never NULL in a live entry */
    make_request_fn *realMRF;     /* what the queue had before it was hooked */
    struct list_head devList;     /* of DevList */
    struct list_head list;        /* in queueListHead */
} QueueList;

/* One device that is interested in a queue. */
typedef struct _DevList {
    kernel_dev_t kdev;
    struct list_head list; /* in QueueList.devList */
} DevList;

/* The record that holds this list link. */
inline QueueList *queueListOf(struct list_head *link)
{
    return reinterpret_cast<QueueList *>(reinterpret_cast<char *>(link) -
                                         __builtin_offsetof(QueueList, list));
}

inline DevList *devListOf(struct list_head *link)
{
    return reinterpret_cast<DevList *>(reinterpret_cast<char *>(link) -
                                       __builtin_offsetof(DevList, list));
}

#endif
