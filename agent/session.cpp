#include "session.h"

#include <errno.h>
#include <string.h>

namespace zelsend
{

// A command's record beside what it points to.
struct Session::Records {
    union {
        GetBlockSize getBlockSize;
        StartBackup startBackup;
        SnapShot snapShot;
        GetState getState;
        GetAutoMapState getAutoMapState;
        GetAutoMap getAutoMap;
        LoadBlockMap loadBlockMap;
        DirtyBlock dirtyBlock;
        ReadBlocks readBlocks;
    };
    union {
        BlockSize blockSize;
        AMSessionKey key;
        ::State state;
        AutoMapState autoMapState;
        UserBlockMap userBlockMap;
        uint32_t blockNumber;
    };
};

Outcome Session::open(const char *control)
{
    if (!memory_.allocate(sizeof(Records))) {
        return failure(ExitCode::FellShort, "out of memory");
    }
    int opened = device_.open(device_.self, control);
    if (opened < 0) {
        return failure(ExitCode::Refused, "%s: %s", control, strerror(-opened));
    }
    descriptor_ = opened;
    return {};
}

void Session::close()
{
    if (buffer_ != nullptr) {
        device_.unmap(device_.self, buffer_, bufferBytes_);
        buffer_ = nullptr;
    }
    if (descriptor_ >= 0) {
        device_.close(device_.self, descriptor_);
        descriptor_ = -1;
    }
}

Result Session::blockSize(uint32_t major, uint32_t minor, BlockSize *answer)
{
    Records *r = records();
    r->getBlockSize = {major, minor, userAddress(&r->blockSize), sizeof(r->blockSize)};
    Result result = device_.ioctl(device_.self, descriptor_, ZEL_GET_BLOCK_SIZE, r);
    *answer = r->blockSize;
    return result;
}

Result Session::start(uint32_t major, uint32_t minor, uint32_t totalBlocks, uint32_t maxCacheBlocks)
{
    records()->startBackup = {major, minor, totalBlocks, maxCacheBlocks};
    return device_.ioctl(device_.self, descriptor_, ZEL_START_BACKUP, records());
}

Result Session::noLoadFromAutoMap()
{
    return device_.ioctl(device_.self, descriptor_, ZEL_NO_LOAD_FROM_AUTO_MAP, nullptr);
}

Result Session::snapShot(const AMSessionKey &key)
{
    Records *r = records();
    r->key = key;
    r->snapShot = {userAddress(&r->key), sizeof(r->key)};
    return device_.ioctl(device_.self, descriptor_, ZEL_SNAP_SHOT, r);
}

Result Session::state(::State *answer)
{
    Records *r = records();
    r->getState = {userAddress(&r->state), sizeof(r->state)};
    Result result = device_.ioctl(device_.self, descriptor_, ZEL_GET_STATE, r);
    *answer = r->state;
    return result;
}

Result Session::autoMapState(AutoMapState *answer)
{
    Records *r = records();
    r->getAutoMapState = {userAddress(&r->autoMapState), sizeof(r->autoMapState)};
    Result result = device_.ioctl(device_.self, descriptor_, ZEL_GET_AUTO_MAP_STATE, r);
    *answer = r->autoMapState;
    return result;
}

Result Session::autoMap(BlockBits *changes)
{
    Records *r = records();
    r->userBlockMap = {userAddress(changes->data()), changes->blocks()};
    r->getAutoMap = {userAddress(&r->userBlockMap), sizeof(r->userBlockMap)};
    Result result = device_.ioctl(device_.self, descriptor_, ZEL_GET_AUTO_MAP, r);
    changes->clearTail();
    return result;
}

Result Session::loadBlockMap(const BlockBits *wanted, uint32_t totalBlocks)
{
    Records *r = records();
    r->userBlockMap = {wanted != nullptr ? userAddress(wanted->data()) : 0, totalBlocks};
    r->loadBlockMap = {userAddress(&r->userBlockMap), sizeof(r->userBlockMap)};
    return device_.ioctl(device_.self, descriptor_, ZEL_LOAD_BLOCK_MAP, r);
}

Result Session::dirtyBlock(uint32_t *block)
{
    Records *r = records();
    r->blockNumber = noBlock;
    r->dirtyBlock = {userAddress(&r->blockNumber)};
    Result result = device_.ioctl(device_.self, descriptor_, ZEL_GET_DIRTY_BLOCK, r);
    *block = r->blockNumber;
    return result;
}

Result Session::mapBuffer(uint32_t bytes)
{
    Result result = device_.map(device_.self, descriptor_, bytes, &buffer_);
    if (result != 0) {
        buffer_ = nullptr;
    }
    bufferBytes_ = bytes;
    return result;
}

Result Session::readBlocks(uint32_t first, uint32_t count)
{
    records()->readBlocks = {first, count, userAddress(buffer_)};
    return device_.ioctl(device_.self, descriptor_, ZEL_READ_BLOCKS, records());
}

Outcome refused(const char *what, Result result)
{
    const char *why = "it answered a code that this program does not know";
    switch (result) {
    case ZEL_RESULT_NOT_INITIALISED:
        why = "the module is not ready";
        break;
    case ZEL_RESULT_INVALID:
        why = "the module's state or the request is not valid";
        break;
    case ZEL_RESULT_CHANGED:
        why = "the backup's state changed meanwhile";
        break;
    case ZEL_RESULT_UNKNOWN_COMMAND:
        why = "the module does not know the command";
        break;
    case ZEL_RESULT_NO_MEMORY:
        why = "the kernel is out of memory";
        break;
    case ZEL_RESULT_COPY_IN_FAILED:
    case ZEL_RESULT_COPY_OUT_FAILED:
        why = "the module could not reach this program's memory";
        break;
    case ZEL_RESULT_NOT_MOUNTED:
        why = "no file system is mounted on the device, or the kernel log says why it cannot be "
              "backed up";
        break;
    case ZEL_RESULT_BUSY:
    case ZEL_RESULT_HAS_BACKUP:
        why = "another backup is running";
        break;
    default:
        if (result < 0) {
            why = strerror(-result);
        }
    }
    return failure(ExitCode::Refused, "%s was refused: %s (%d)", what, why, result);
}

} // namespace zelsend
