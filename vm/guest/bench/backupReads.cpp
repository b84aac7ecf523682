// A backup's reads, without the agent's own work on what it gets.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <zelmod.h>

#include "bench.h"

namespace vm
{
namespace
{

UserAddress addressOf(const void *pointer)
{
    return static_cast<UserAddress>(reinterpret_cast<uintptr_t>(pointer));
}

// A result of the module is no errno value.
void command(int device, uint32_t number, const void *record, const char *what)
{
    int result = ioctl(device, static_cast<int>(number), record);
    if (result == 0)
        return;
    dprintf(STDERR_FILENO, "%s: %d\n", what, result);
    exit(1);
}

// Takes a backup as far as its first read; gives where its blocks will be.
const void *begin(int device, const BackupReads &reads)
{
    BlockSize size = {};
    GetBlockSize query = {reads.major, reads.minor, addressOf(&size), sizeof(size)};
    command(device, ZEL_GET_BLOCK_SIZE, &query, "block size");
    auto blocks = static_cast<uint32_t>(uint64_t{size.partitionSizeKB} * 1024 /
                                        static_cast<uint32_t>(size.blockSize));
    StartBackup start = {reads.major, reads.minor, blocks, 4096};
    command(device, ZEL_START_BACKUP, &start, "start");
    command(device, ZEL_NO_LOAD_FROM_AUTO_MAP, nullptr, "no load");
    AMSessionKey key = {};
    SnapShot snapshot = {addressOf(&key), sizeof(key)};
    command(device, ZEL_SNAP_SHOT, &snapshot, "snapshot");
    UserBlockMap all = {0, blocks};
    LoadBlockMap load = {addressOf(&all), sizeof(all)};
    command(device, ZEL_LOAD_BLOCK_MAP, &load, "map");
    State state = {};
    GetState ask = {addressOf(&state), sizeof(state)};
    command(device, ZEL_GET_STATE, &ask, "state");
    if (state.state != BACKUP_MAP_LOADED ||
        static_cast<uint32_t>(state.mmapSize) <
            reads.blocks * static_cast<uint32_t>(state.blockSize)) {
        errno = EINVAL;
        fail("the backup's state or buffer");
    }
    void *buffer =
        mmap(nullptr, static_cast<size_t>(state.mmapSize), PROT_READ, MAP_PRIVATE, device, 0);
    if (buffer == MAP_FAILED)
        fail("the transfer buffer");
    return buffer;
}

} // namespace

int measureBackupReads(const BackupReads &reads)
{
    int device = open("/dev/zelmod", O_RDWR);
    if (device < 0)
        fail("/dev/zelmod");
    const void *buffer = begin(device, reads);
    Times times(reads.requests);
    uint64_t start = now();
    uint64_t before = start;
    for (uint32_t i = 0; i < reads.requests; i++) {
        ReadBlocks read = {reads.first + i * reads.blocks, reads.blocks, addressOf(buffer)};
        command(device, ZEL_READ_BLOCKS, &read, "a read");
        uint64_t after = now();
        times.set(i, before, after);
        before = after;
    }
    times.print(before - start);
    return 0;
}

} // namespace vm
