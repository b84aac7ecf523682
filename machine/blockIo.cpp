#include "blockIo.h"

#include <host/block.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>
#include <list>
#include <memory>
#include <unordered_map>
#include <vector>

namespace machine
{
namespace
{

constexpr std::size_t sectorBytes = 512;
constexpr std::size_t chunkBytes = 128 * 1024;
constexpr std::size_t chunkSectors = chunkBytes / sectorBytes;
constexpr std::size_t maxChunks = 512; // 64 MiB

struct block_device *nextDevice = nullptr;

// A run of the device in memory; a set bit is a sector that the device does not have yet.
struct Chunk {
    std::uint64_t number = 0;
    std::array<unsigned char, chunkBytes> data;
    std::bitset<chunkSectors> dirty;
};

class Cache
{
public:
    explicit Cache(struct block_device *device) : device_(device) {}

    errcode_t read(std::uint64_t offset, unsigned char *to, std::size_t bytes)
    {
        return forEachPiece(offset, bytes, [&](Chunk &chunk, std::size_t at, std::size_t count) {
            std::memcpy(to, chunk.data.data() + at, count);
            to += count;
        });
    }

    errcode_t write(std::uint64_t offset, const unsigned char *from, std::size_t bytes)
    {
        return forEachPiece(offset, bytes, [&](Chunk &chunk, std::size_t at, std::size_t count) {
            std::memcpy(chunk.data.data() + at, from, count);
            from += count;
            for (std::size_t s = at / sectorBytes; s < (at + count + sectorBytes - 1) / sectorBytes;
                 s++)
                chunk.dirty.set(s);
        });
    }

    errcode_t flush()
    {
        std::vector<Chunk *> chunks;
        for (auto &chunk : recent_)
            if (chunk->dirty.any())
                chunks.push_back(chunk.get());
        std::sort(chunks.begin(), chunks.end(),
                  [](Chunk *a, Chunk *b) { return a->number < b->number; });
        for (Chunk *chunk : chunks)
            if (errcode_t error = writeBack(*chunk))
                return error;
        return 0;
    }

    errcode_t writeBackOldest(std::size_t bytes)
    {
        for (auto it = recent_.rbegin(); it != recent_.rend() && bytes > 0; ++it) {
            std::size_t dirty = (*it)->dirty.count() * sectorBytes;
            if (dirty == 0)
                continue;
            if (errcode_t error = writeBack(**it))
                return error;
            bytes -= std::min(bytes, dirty);
        }
        return 0;
    }

    std::size_t dirtyBytes() const
    {
        std::size_t sectors = 0;
        for (auto &chunk : recent_)
            sectors += chunk->dirty.count();
        return sectors * sectorBytes;
    }

private:
    template<class Use>
    errcode_t forEachPiece(std::uint64_t offset, std::size_t bytes, const Use &use)
    {
        while (bytes > 0) {
            std::size_t at = offset % chunkBytes;
            std::size_t count = std::min(bytes, chunkBytes - at);
            Chunk *chunk;
            if (errcode_t error = find(offset / chunkBytes, &chunk))
                return error;
            use(*chunk, at, count);
            offset += count;
            bytes -= count;
        }
        return 0;
    }

    // The chunk, read from the device if need be, and now the most recently used.
    errcode_t find(std::uint64_t number, Chunk **found)
    {
        auto known = byNumber_.find(number);
        if (known != byNumber_.end()) {
            recent_.splice(recent_.begin(), recent_, known->second);
            *found = recent_.front().get();
            return 0;
        }
        if (recent_.size() >= maxChunks) {
            if (errcode_t error = writeBack(*recent_.back()))
                return error;
            byNumber_.erase(recent_.back()->number);
            recent_.pop_back();
        }
        auto chunk = std::make_unique<Chunk>();
        chunk->number = number;
        std::uint64_t first = number * chunkSectors;
        std::uint64_t size = part_nr_sects(bdev_part(device_));
        std::uint64_t sectors =
            first < size ? std::min<std::uint64_t>(chunkSectors, size - first) : 0;
        if (sectors == 0 ||
            host::readDevice(device_, first, chunk->data.data(), sectors * sectorBytes) != 0)
            return EXT2_ET_SHORT_READ;
        recent_.push_front(std::move(chunk));
        byNumber_[number] = recent_.begin();
        *found = recent_.front().get();
        return 0;
    }

    errcode_t writeBack(Chunk &chunk)
    {
        for (std::size_t s = 0; s < chunkSectors;) {
            if (!chunk.dirty[s]) {
                s++;
                continue;
            }
            std::size_t end = s;
            while (end < chunkSectors && chunk.dirty[end])
                end++;
            if (host::writeDevice(device_, chunk.number * chunkSectors + s,
                                  chunk.data.data() + s * sectorBytes,
                                  (end - s) * sectorBytes) != 0)
                return EXT2_ET_SHORT_WRITE;
            for (; s < end; s++)
                chunk.dirty.reset(s);
        }
        return 0;
    }

    struct block_device *device_;
    std::list<std::unique_ptr<Chunk>> recent_; // most recently used first
    std::unordered_map<std::uint64_t, std::list<std::unique_ptr<Chunk>>::iterator> byNumber_;
};

Cache &cacheOf(io_channel channel)
{
    return *static_cast<Cache *>(channel->private_data);
}

errcode_t blockIoOpen(const char *name, int, io_channel *channel);

errcode_t blockIoClose(io_channel channel)
{
    if (--channel->refcount > 0)
        return 0;
    errcode_t error = cacheOf(channel).flush();
    delete static_cast<Cache *>(channel->private_data);
    delete[] channel->name;
    delete channel;
    return error;
}

errcode_t blockIoSetBlockSize(io_channel channel, int size)
{
    channel->block_size = size;
    return 0;
}

// libext2fs gives a negative count for a length in bytes.
std::size_t byteCount(io_channel channel, int count)
{
    return count < 0 ? static_cast<std::size_t>(-count)
                     : static_cast<std::size_t>(count) * channel->block_size;
}

errcode_t blockIoRead64(io_channel channel, unsigned long long block, int count, void *data)
{
    return cacheOf(channel).read(block * channel->block_size, static_cast<unsigned char *>(data),
                                 byteCount(channel, count));
}

errcode_t blockIoWrite64(io_channel channel, unsigned long long block, int count, const void *data)
{
    return cacheOf(channel).write(block * channel->block_size,
                                  static_cast<const unsigned char *>(data),
                                  byteCount(channel, count));
}

errcode_t blockIoRead(io_channel channel, unsigned long block, int count, void *data)
{
    return blockIoRead64(channel, block, count, data);
}

errcode_t blockIoWrite(io_channel channel, unsigned long block, int count, const void *data)
{
    return blockIoWrite64(channel, block, count, data);
}

errcode_t blockIoWriteByte(io_channel channel, unsigned long offset, int count, const void *data)
{
    return cacheOf(channel).write(offset, static_cast<const unsigned char *>(data), count);
}

errcode_t blockIoFlush(io_channel channel)
{
    return cacheOf(channel).flush();
}

struct_io_manager makeManager()
{
    struct_io_manager manager = {};
    manager.magic = EXT2_ET_MAGIC_IO_MANAGER;
    manager.name = "host kernel block device";
    manager.open = blockIoOpen;
    manager.close = blockIoClose;
    manager.set_blksize = blockIoSetBlockSize;
    manager.read_blk = blockIoRead;
    manager.write_blk = blockIoWrite;
    manager.flush = blockIoFlush;
    manager.write_byte = blockIoWriteByte;
    manager.read_blk64 = blockIoRead64;
    manager.write_blk64 = blockIoWrite64;
    return manager;
}

struct_io_manager manager = makeManager();

errcode_t blockIoOpen(const char *name, int, io_channel *channel)
{
    if (nextDevice == nullptr)
        return EXT2_ET_BAD_DEVICE_NAME;
    auto *made = new struct_io_channel();
    made->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    made->manager = &manager;
    made->name = new char[std::strlen(name) + 1];
    std::strcpy(made->name, name);
    made->block_size = 1024;
    made->refcount = 1;
    made->private_data = new Cache(nextDevice);
    nextDevice = nullptr;
    *channel = made;
    return 0;
}

} // namespace

void setBlockIoDevice(struct block_device *device)
{
    nextDevice = device;
}

io_manager blockIoManager()
{
    return &manager;
}

std::size_t writeBackSome(io_channel channel, std::size_t bytes)
{
    cacheOf(channel).writeBackOldest(bytes);
    return cacheOf(channel).dirtyBytes();
}

} // namespace machine
