#include "agent.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace test
{
namespace
{

constexpr std::uint32_t mostBlocksPerRead = 256;

// Memory of the process for the length of one command.
class Scratch
{
public:
    Scratch(host::Process &process, std::size_t bytes)
        : process_(process), address_(process.allocate(bytes))
    {
    }
    ~Scratch() { process_.release(address_); }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    std::uint32_t address() const { return address_; }
    unsigned char *bytes() { return process_.pointer<unsigned char>(address_); }

private:
    host::Process &process_;
    std::uint32_t address_;
};

// A record that the command fills: in the process's memory meanwhile, the caller's before and
// after.
template<class T> class Answer
{
public:
    Answer(host::Process &process, T *answer) : scratch_(process, sizeof(T)), answer_(answer)
    {
        std::memcpy(scratch_.bytes(), answer_, sizeof(T));
    }
    ~Answer() { std::memcpy(answer_, scratch_.bytes(), sizeof(T)); }
    Answer(const Answer &) = delete;
    Answer &operator=(const Answer &) = delete;
    std::uint32_t address() const { return scratch_.address(); }

private:
    Scratch scratch_;
    T *answer_;
};

std::size_t bitmapBytes(std::uint32_t blocks)
{
    return (static_cast<std::size_t>(blocks) + 7) / 8;
}

} // namespace

Bitmap emptyBitmap(std::uint32_t blocks)
{
    return Bitmap(bitmapBytes(blocks), 0);
}

Bitmap fullBitmap(std::uint32_t blocks)
{
    Bitmap map(bitmapBytes(blocks), 0xff);
    if (blocks % 8 != 0)
        map.back() = static_cast<std::uint8_t>((1u << (blocks % 8)) - 1);
    return map;
}

bool testBit(const Bitmap &map, std::uint32_t block)
{
    return (map.at(block / 8) >> (block % 8) & 1) != 0;
}

void setBit(Bitmap &map, std::uint32_t block)
{
    map.at(block / 8) = static_cast<std::uint8_t>(map.at(block / 8) | 1u << (block % 8));
}

std::uint32_t countBits(const Bitmap &map)
{
    std::uint32_t count = 0;
    for (std::uint8_t byte : map)
        count += static_cast<std::uint32_t>(std::popcount(byte));
    return count;
}

Agent::Agent(const std::string &name) : process_(name), fd_(process_.open("/dev/zelmod")) {}

Agent::Agent(Agent &parent, const std::string &name)
    : process_(name), fd_(process_.inherit(parent.process_, parent.fd_)), blocks_(parent.blocks_),
      blockSize_(parent.blockSize_)
{
}

int Agent::open()
{
    fd_ = process_.open("/dev/zelmod");
    return fd_;
}

int Agent::close()
{
    int fd = fd_;
    fd_ = -1;
    return process_.close(fd);
}

int Agent::ioctl(std::uint32_t command, std::uint32_t argument)
{
    return process_.ioctl(fd_, command, argument);
}

template<class T> int Agent::command(std::uint32_t number, const T &record)
{
    Scratch scratch(process_, sizeof(T));
    std::memcpy(scratch.bytes(), &record, sizeof(T));
    return ioctl(number, scratch.address());
}

int Agent::getBlockSize(kernel_dev_t device, BlockSize *answer, std::uint32_t len)
{
    Answer<BlockSize> memory(process_, answer);
    return command(ZEL_GET_BLOCK_SIZE,
                   GetBlockSize{deviceMajor(device), deviceMinor(device), memory.address(), len});
}

int Agent::startBackup(kernel_dev_t device, std::uint32_t totalBlocks, std::uint32_t maxCacheBlocks)
{
    return command(ZEL_START_BACKUP, StartBackup{deviceMajor(device), deviceMinor(device),
                                                 totalBlocks, maxCacheBlocks});
}

int Agent::snapShot(const AMSessionKey &key, std::uint32_t len)
{
    Scratch memory(process_, sizeof(key));
    std::memcpy(memory.bytes(), &key, sizeof(key));
    return command(ZEL_SNAP_SHOT, SnapShot{memory.address(), len});
}

int Agent::getState(State *answer, std::uint32_t len)
{
    Answer<State> memory(process_, answer);
    return command(ZEL_GET_STATE, GetState{memory.address(), len});
}

int Agent::getAutoMapState(AutoMapState *answer, std::uint32_t len)
{
    Answer<AutoMapState> memory(process_, answer);
    return command(ZEL_GET_AUTO_MAP_STATE, GetAutoMapState{memory.address(), len});
}

int Agent::loadBlockMap(std::uint32_t blocks)
{
    Scratch map(process_, sizeof(UserBlockMap));
    UserBlockMap record{0, blocks};
    std::memcpy(map.bytes(), &record, sizeof(record));
    return command(ZEL_LOAD_BLOCK_MAP, LoadBlockMap{map.address(), sizeof(UserBlockMap)});
}

int Agent::loadBlockMap(const Bitmap &map, std::uint32_t blocks)
{
    Scratch bits(process_, map.size());
    std::copy(map.begin(), map.end(), bits.bytes());
    Scratch user(process_, sizeof(UserBlockMap));
    UserBlockMap record{bits.address(), blocks};
    std::memcpy(user.bytes(), &record, sizeof(record));
    return command(ZEL_LOAD_BLOCK_MAP, LoadBlockMap{user.address(), sizeof(UserBlockMap)});
}

int Agent::getAutoMap(Bitmap *map, std::uint32_t blocks)
{
    map->resize(bitmapBytes(blocks));
    Scratch bits(process_, map->size());
    std::copy(map->begin(), map->end(), bits.bytes());
    Scratch user(process_, sizeof(UserBlockMap));
    UserBlockMap record{bits.address(), blocks};
    std::memcpy(user.bytes(), &record, sizeof(record));
    int result = command(ZEL_GET_AUTO_MAP, GetAutoMap{user.address(), sizeof(UserBlockMap)});
    map->assign(bits.bytes(), bits.bytes() + map->size());
    return result;
}

int Agent::getDirtyBlock(std::uint32_t *block)
{
    Answer<std::uint32_t> memory(process_, block);
    return command(ZEL_GET_DIRTY_BLOCK, DirtyBlock{memory.address()});
}

int Agent::readBlocks(std::uint32_t start, std::uint32_t count, std::uint32_t buffer)
{
    return command(ZEL_READ_BLOCKS, ReadBlocks{start, count, buffer});
}

int Agent::versionMajor(std::int32_t *version)
{
    Answer<std::int32_t> memory(process_, version);
    return ioctl(ZEL_GET_VERSION_MAJOR, memory.address());
}

int Agent::versionMinor(std::int32_t *version)
{
    Answer<std::int32_t> memory(process_, version);
    return ioctl(ZEL_GET_VERSION_MINOR, memory.address());
}

int Agent::mapBuffer(std::size_t bytes, std::uint32_t *address)
{
    return process_.mmap(fd_, bytes, false, false, 0, address);
}

const unsigned char *Agent::buffer(std::uint32_t address, std::size_t bytes)
{
    if (!process_.touch(address, bytes))
        return nullptr;
    return process_.pointer<const unsigned char>(address);
}

int Agent::begin(kernel_dev_t device, const AMSessionKey &key, std::uint32_t maxCacheBlocks)
{
    BlockSize size{};
    int result = getBlockSize(device, &size);
    if (result != 0)
        return result;
    blockSize_ = static_cast<std::uint32_t>(size.blockSize);
    blocks_ = static_cast<std::uint32_t>(std::uint64_t{size.partitionSizeKB} * 1024 / blockSize_);
    result = startBackup(device, blocks_, maxCacheBlocks);
    return result != 0 ? result : snapShot(key);
}

int Agent::readInto(std::vector<unsigned char> &image, const Bitmap &wanted)
{
    State state{};
    int result = getState(&state);
    std::uint32_t address = 0;
    if (result == 0)
        result = mapBuffer(static_cast<std::size_t>(state.mmapSize), &address);
    if (result != 0)
        return result;
    std::uint32_t most =
        std::min(mostBlocksPerRead, static_cast<std::uint32_t>(state.mmapSize) / blockSize_);
    for (std::uint32_t block = 0; block < blocks_ && (result == 0 || result == 12);) {
        std::uint32_t count = 0;
        while (block + count < blocks_ && count < most && testBit(wanted, block + count))
            count++;
        if (count == 0) {
            block++;
            continue;
        }
        int read = readBlocks(block, count, address);
        if (read != 0)
            result = read;
        const unsigned char *bytes = buffer(address, std::size_t{count} * blockSize_);
        if ((read == 0 || read == 12) && bytes != nullptr)
            std::memcpy(&image.at(std::size_t{block} * blockSize_), bytes,
                        std::size_t{count} * blockSize_);
        block += count;
    }
    int unmapped = unmapBuffer(address);
    return result != 0 ? result : unmapped;
}

int Agent::readWhole(std::vector<unsigned char> *image)
{
    image->assign(std::size_t{blocks_} * blockSize_, 0);
    return readInto(*image, fullBitmap(blocks_));
}

} // namespace test
