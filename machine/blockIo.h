/*
 * The channel between libext2fs and a block device of the host kernel: a write-back cache.
 *
 * What libext2fs writes stays dirty in memory, as in a page cache, until a flush, a periodic
 * write-back or want of room; so a file system that was not flushed is not whole on its disk.
 */
#pragma once

#include <ext2fs/ext2fs.h>
#include <kernel/block.h>

#include <cstddef>

namespace machine
{

// Makes the next channel that libext2fs opens through blockIoManager() work on `device`, which must
// be open and stay so. One thread at a time: the caller holds the file system's lock.
void setBlockIoDevice(struct block_device *device);
io_manager blockIoManager();

// Writes at most this many bytes of the oldest dirty data. Returns what is still dirty.
std::size_t writeBackSome(io_channel channel, std::size_t bytes);

} // namespace machine
