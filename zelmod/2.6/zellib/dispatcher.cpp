/* Decodes the control commands: copies each one's record in and calls its handler. */
#include <kernel/chardev.h>
#include <kernel/log.h>
#include <kernel/uaccess.h>

#include "zellib.h"

template<class T> static T *userPointer(unsigned long address)
{
    return reinterpret_cast<T *>(address);
}

/* Reads a whole record of the agent's. */
template<class T> static bool copyRecord(T *record, unsigned long address)
{
    return copy_from_user(record, userPointer<T>(address), sizeof(T)) == 0;
}

/* Reads a map command's record and then the UserBlockMap that it points to. */
template<class T> static bool copyMapRecord(UserBlockMap *userBM, unsigned long address)
{
    T record;
    return copyRecord(&record, address) && copyRecord(userBM, record.bm);
}

static kernel_dev_t joinDevice(u32 major, u32 minor)
{
    return major << 20 | minor;
}

static int answerVersion(unsigned long address, u32 version)
{
    if (copy_to_user(userPointer<u32>(address), &version, sizeof(version)) != 0) {
        printk("<3>%s: copy to user space %s\n", "zelIOCTL", "failed");
        return ZEL_RESULT_COPY_OUT_FAILED;
    }
    return 0;
}

/* The handlers' results are returned as they are. No lock is held: the handlers take theirs. */
static int runCommand(Backup *b, unsigned int cmd, unsigned long arg)
{
    switch (cmd) {
    case ZEL_GET_BLOCK_SIZE: {
        GetBlockSize r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlGetBlockSize(b, joinDevice(r.major, r.minor), userPointer<BlockSize>(r.bs),
                                 r.len);
    }
    case ZEL_START_BACKUP: {
        StartBackup r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlStartBackup(b, joinDevice(r.major, r.minor), r.totalBlocks, r.maxCacheBlocks);
    }
    case ZEL_SNAP_SHOT: {
        SnapShot r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlSnapShot(b, userPointer<AMSessionKey>(r.amsKey), r.len);
    }
    case ZEL_GET_STATE: {
        GetState r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlGetState(b, userPointer<State>(r.s), r.len);
    }
    case ZEL_GET_AUTO_MAP_STATE: {
        GetAutoMapState r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlGetAutoMapState(b, userPointer<AutoMapState>(r.ams), r.len);
    }
    case ZEL_NO_LOAD_FROM_AUTO_MAP:
        return ioctlNoLoadFromAutoMap(b);
    case ZEL_NO_START_AUTO_MAP:
        return ioctlNoStartAutoMap(b);
    case ZEL_LOAD_BLOCK_MAP: {
        UserBlockMap userBM;
        if (!copyMapRecord<LoadBlockMap>(&userBM, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlLoadBlockMap(b, &userBM);
    }
    case ZEL_GET_AUTO_MAP: {
        UserBlockMap userBM;
        if (!copyMapRecord<GetAutoMap>(&userBM, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlGetAutoMap(b, &userBM);
    }
    case ZEL_GET_DIRTY_BLOCK: {
        DirtyBlock r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlGetDirtyBlock(b, userPointer<u32>(r.blockNum));
    }
    case ZEL_READ_BLOCKS: {
        ReadBlocks r;
        if (!copyRecord(&r, arg))
            return ZEL_RESULT_COPY_IN_FAILED;
        return ioctlReadBlocks(b, r.startBlockNum, r.numBlocks, userPointer<void>(r.data));
    }
    case ZEL_GET_VERSION_MAJOR:
        return answerVersion(arg, ZEL_VERSION_MAJOR);
    case ZEL_GET_VERSION_MINOR:
        return answerVersion(arg, ZEL_VERSION_MINOR);
    case ZEL_SYNC:
        return ioctlSync(b);
    case ZEL_SHUTDOWN:
        return zelShutdown();
    case ZEL_RESERVED:
        return ZEL_RESULT_CHANGED;
    default:
        printk("<3>%s: ioctl command not found%s", "zelIOCTL", "\n");
        return ZEL_RESULT_UNKNOWN_COMMAND;
    }
}

int zelIOCTL(struct inode *, struct file *file, unsigned int cmd, unsigned long arg)
{
    if (atomic_read(&initDone) != 1)
        return ZEL_RESULT_NOT_INITIALISED;
    auto *b = static_cast<Backup *>(file_private_data(file));
    if (b == NULL)
        return ZEL_RESULT_INVALID;
    atomic_inc(&b->ioctlCount);
    return runCommand(b, cmd, arg);
}
