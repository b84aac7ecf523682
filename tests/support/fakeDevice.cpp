#include "fakeDevice.h"

#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <sys/mman.h>

namespace test
{

using Bits = std::vector<bool>;

struct FakeDevice::Kernel {
    std::uint32_t blockSize;
    std::uint32_t blocks;
    std::uint32_t tail;
    bool mounted;
    bool tracked;
    std::uint32_t trackingState;
    std::uint32_t mapBlocks;
    std::uint32_t snapshots;
    std::uint32_t snapshotBlocks;
    std::uint32_t keys;
    AMSessionKey key;
    std::uint8_t changed[maxBlocks];
    std::uint8_t unreadable[maxBlocks];
    std::uint32_t contents[maxBlocks];
    std::uint32_t atSnapshot[maxBlocks];
};

// An open file of the control device with its backup.
struct FakeDevice::File {
    std::uint32_t state = BACKUP_IDLE;
    bool noLoad = false;
    bool noStart = false;
    std::uint32_t blocks = 0;
    std::uint32_t maxCacheBlocks = 0;
    std::optional<Bits> blockMap;
    Bits cacheMap;
    std::map<std::uint32_t, std::uint32_t> cache;
    std::map<char *, std::size_t> mappings;
};

namespace
{

template<class T> T *user(UserAddress address)
{
    return reinterpret_cast<T *>(std::uintptr_t{address});
}

template<class T> void answer(UserAddress address, std::uint32_t length, const T &value)
{
    std::memcpy(user<char>(address), &value, std::min<std::size_t>(length, sizeof(value)));
}

} // namespace

FakeDevice::FakeDevice(std::uint32_t blocks, std::uint32_t blockSize)
{
    void *memory =
        mmap(nullptr, sizeof(Kernel), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || blocks > maxBlocks) {
        throw std::runtime_error("no fake device of that size");
    }
    kernel_ = new (memory) Kernel{};
    kernel_->blockSize = blockSize;
    kernel_->blocks = blocks;
    kernel_->mounted = true;
    for (std::uint32_t i = 0; i < blocks; i++) {
        kernel_->contents[i] = i % 4 == 3 ? 0 : i + 1;
    }
}

FakeDevice::~FakeDevice()
{
    munmap(kernel_, sizeof(Kernel));
}

std::uint32_t FakeDevice::blocks() const
{
    return kernel_->blocks;
}

std::uint32_t FakeDevice::blockSize() const
{
    return kernel_->blockSize;
}

std::string FakeDevice::contentsOf(std::uint32_t number) const
{
    std::string block(kernel_->blockSize, '\0');
    if (number != 0) {
        std::uint64_t word = number * 0x9e3779b97f4a7c15;
        for (std::size_t i = 0; i < block.size(); i += sizeof(word)) {
            word = word * 6364136223846793005 + 1442695040888963407;
            std::memcpy(&block[i], &word, sizeof(word));
        }
        block[0] = 1; // never all zeros
    }
    return block;
}

void FakeDevice::write(std::uint32_t block, std::uint32_t number)
{
    File *b = active_;
    if (b != nullptr && b->state >= BACKUP_SNAPPED && b->state <= BACKUP_MAP_LOADED &&
        block < b->blocks && !b->cacheMap[block] &&
        (b->state != BACKUP_MAP_LOADED || (*b->blockMap)[block])) {
        if (b->cache.size() == b->maxCacheBlocks) {
            spoil(BACKUP_ERR_CACHE);
        } else if (kernel_->unreadable[block] != 0) {
            spoil(BACKUP_ERR_READ);
        } else {
            b->cache[block] = kernel_->contents[block];
            b->cacheMap[block] = true;
        }
    }
    kernel_->contents[block] = number;
    if (kernel_->tracked && kernel_->trackingState == AMS_IN_SYNC) {
        if (block < kernel_->mapBlocks) {
            kernel_->changed[block] = 1;
        } else {
            kernel_->trackingState = AMS_NOT_IN_SYNC;
        }
    }
}

std::string FakeDevice::image() const
{
    std::string image;
    for (std::uint32_t i = 0; i < kernel_->blocks; i++) {
        image += contentsOf(kernel_->contents[i]);
    }
    return image;
}

std::string FakeDevice::snapshotImage() const
{
    std::string image;
    for (std::uint32_t i = 0; i < kernel_->snapshotBlocks; i++) {
        image += contentsOf(kernel_->atSnapshot[i]);
    }
    return image;
}

std::uint32_t FakeDevice::snapshots() const
{
    return kernel_->snapshots;
}

void FakeDevice::setUnreadable(std::uint32_t block, bool unreadable)
{
    kernel_->unreadable[block] = unreadable ? 1 : 0;
}

void FakeDevice::resize(std::uint32_t blocks)
{
    kernel_->blocks = blocks;
}

void FakeDevice::unmount()
{
    kernel_->mounted = false;
}

void FakeDevice::setTail(std::uint32_t kilobytes)
{
    kernel_->tail = kilobytes;
}

void FakeDevice::reformat(std::uint32_t blockSize)
{
    kernel_->blockSize = blockSize;
}

void FakeDevice::strandInCache(std::uint32_t block)
{
    active_->cache[block] = kernel_->contents[block];
    active_->cacheMap[block] = true;
}

void FakeDevice::reload()
{
    kernel_->tracked = false;
}

void FakeDevice::loseSync()
{
    kernel_->trackingState = AMS_NOT_IN_SYNC;
}

void FakeDevice::spoil(std::uint32_t state)
{
    active_->state = state;
    loseSync();
}

std::uint32_t FakeDevice::cachedBlocks() const
{
    return active_ != nullptr ? static_cast<std::uint32_t>(active_->cache.size()) : 0;
}

std::string FakeDevice::save() const
{
    return {reinterpret_cast<const char *>(kernel_), sizeof(*kernel_)};
}

void FakeDevice::restore(const std::string &saved)
{
    std::memcpy(kernel_, saved.data(), sizeof(*kernel_));
}

void FakeDevice::answerNext(std::uint32_t command, int result)
{
    answers_[command].push_back(result);
}

void FakeDevice::newKey()
{
    std::minstd_rand random(++kernel_->keys);
    for (std::uint8_t &byte : kernel_->key.key) {
        byte = static_cast<std::uint8_t>(random() >> 8);
    }
}

int FakeDevice::startBackup(File &file, const StartBackup &record)
{
    lastMaxCacheBlocks_ = record.maxCacheBlocks;
    if (active_ != nullptr) {
        file.state = BACKUP_REJECTED;
        return ZEL_RESULT_BUSY;
    }
    if (!kernel_->mounted || record.major != major || record.minor != minor) {
        return ZEL_RESULT_NOT_MOUNTED;
    }
    file.blocks = record.totalBlocks;
    file.maxCacheBlocks = record.maxCacheBlocks;
    file.cacheMap.assign(record.totalBlocks, false);
    file.state = BACKUP_STARTED;
    active_ = &file;
    return 0;
}

int FakeDevice::snapShot(File &file, const SnapShot &record)
{
    if (file.state != BACKUP_STARTED) {
        return ZEL_RESULT_INVALID;
    }
    Kernel &k = *kernel_;
    bool keep = k.tracked && k.trackingState == AMS_IN_SYNC && !file.noLoad && !file.noStart;
    if (keep && std::memcmp(user<char>(record.amsKey), k.key.key, sizeof(k.key.key)) != 0) {
        return 0;
    }
    keep = keep && k.mapBlocks == file.blocks;
    if (!keep) {
        k.tracked = !file.noStart;
        k.trackingState = AMS_NOT_IN_SYNC;
        k.mapBlocks = file.blocks;
        std::memset(k.changed, 0, sizeof(k.changed));
    }
    newKey();
    if (!k.mounted) {
        return ZEL_RESULT_INVALID;
    }
    if (keep) {
        file.blockMap.emplace(k.changed, k.changed + file.blocks);
        std::memset(k.changed, 0, sizeof(k.changed));
    }
    k.trackingState = AMS_IN_SYNC;
    k.snapshots++;
    k.snapshotBlocks = k.blocks;
    std::memcpy(k.atSnapshot, k.contents, sizeof(k.contents));
    file.state = BACKUP_SNAPPED;
    return 0;
}

int FakeDevice::getAutoMap(File &file, const GetAutoMap &record)
{
    auto map = user<UserBlockMap>(record.bm);
    if (file.state != BACKUP_SNAPPED || !file.blockMap || file.blockMap->size() != map->mapLen) {
        return ZEL_RESULT_INVALID;
    }
    // The module leaves whatever it has in the bits behind the last block.
    std::memset(user<char>(map->map), 0, (map->mapLen + 7) / 8);
    for (std::uint32_t i = 0; i < (map->mapLen + 7) / 8 * 8; i++) {
        if (i >= map->mapLen || (*file.blockMap)[i]) {
            user<std::uint8_t>(map->map)[i / 8] |= static_cast<std::uint8_t>(1U << (i % 8));
        }
    }
    file.blockMap.reset();
    return 0;
}

int FakeDevice::loadBlockMap(File &file, const LoadBlockMap &record)
{
    auto map = user<UserBlockMap>(record.bm);
    if (file.state != BACKUP_SNAPPED) {
        return ZEL_RESULT_INVALID;
    }
    file.blockMap.emplace(map->mapLen, true);
    for (std::uint32_t i = 0; i < map->mapLen && map->map != 0; i++) {
        (*file.blockMap)[i] = (user<std::uint8_t>(map->map)[i / 8] >> (i % 8) & 1) != 0;
    }
    file.state = BACKUP_MAP_LOADED;
    for (auto at = file.cache.begin(); at != file.cache.end();) {
        bool wanted = (*file.blockMap)[at->first];
        if (!wanted) {
            file.cacheMap[at->first] = false;
        }
        at = wanted ? std::next(at) : file.cache.erase(at);
    }
    return 0;
}

int FakeDevice::readBlocks(File &file, const ReadBlocks &record)
{
    auto mapping = file.mappings.find(user<char>(record.data));
    std::uint64_t end = std::uint64_t{record.startBlockNum} + record.numBlocks;
    if ((file.state != BACKUP_MAP_LOADED && file.state != BACKUP_SNAPPED) || end > file.blocks ||
        mapping == file.mappings.end() ||
        std::uint64_t{record.numBlocks} * kernel_->blockSize > mapping->second) {
        return ZEL_RESULT_INVALID;
    }
    int result = 0;
    // The agent sees the pages read-only, the module does not.
    mprotect(mapping->first, mapping->second, PROT_READ | PROT_WRITE);
    for (std::uint32_t i = 0; i < record.numBlocks; i++) {
        std::uint32_t block = record.startBlockNum + i;
        std::string bytes;
        if (file.cacheMap[block]) {
            bytes = contentsOf(file.cache.at(block));
            if (file.state == BACKUP_MAP_LOADED) {
                file.cache.erase(block);
                file.cacheMap[block] = false;
            }
        } else if (kernel_->unreadable[block] != 0) {
            bytes = contentsOf(0);
            result = ZEL_RESULT_UNREADABLE;
        } else {
            bytes = contentsOf(kernel_->contents[block]);
        }
        if (file.state == BACKUP_MAP_LOADED) {
            (*file.blockMap)[block] = false;
        }
        std::memcpy(mapping->first + std::size_t{i} * kernel_->blockSize, bytes.data(),
                    bytes.size());
    }
    mprotect(mapping->first, mapping->second, PROT_READ);
    return result;
}

int FakeDevice::command(File &file, std::uint32_t command, void *argument)
{
    auto &scripted = answers_[command];
    if (!scripted.empty()) {
        int result = scripted.front();
        scripted.pop_front();
        return result;
    }
    Kernel &k = *kernel_;
    switch (command) {
    case ZEL_GET_BLOCK_SIZE: {
        auto record = static_cast<GetBlockSize *>(argument);
        if (!k.mounted || record->major != major || record->minor != minor) {
            return ZEL_RESULT_NOT_MOUNTED;
        }
        answer(record->bs, record->len,
               BlockSize{major, minor, static_cast<std::int32_t>(k.blockSize),
                         static_cast<std::uint32_t>(std::uint64_t{k.blocks} * k.blockSize / 1024) +
                             k.tail});
        return 0;
    }
    case ZEL_START_BACKUP:
        return startBackup(file, *static_cast<StartBackup *>(argument));
    case ZEL_SNAP_SHOT:
        return snapShot(file, *static_cast<SnapShot *>(argument));
    case ZEL_GET_STATE: {
        auto record = static_cast<GetState *>(argument);
        std::uint32_t pages = std::min<std::uint32_t>(k.blockSize * 256 / 4096, 256);
        answer(record->s, record->len,
               ::State{major, minor, file.state, static_cast<std::int32_t>(k.blockSize),
                       static_cast<std::int32_t>(pages * 4096)});
        return 0;
    }
    case ZEL_GET_AUTO_MAP_STATE: {
        auto record = static_cast<GetAutoMapState *>(argument);
        AutoMapState state = {};
        if (k.tracked) {
            state = {major, minor, k.trackingState, k.mapBlocks, (k.mapBlocks + 7) / 8, k.key};
        }
        answer(record->ams, record->len, state);
        return 0;
    }
    case ZEL_NO_LOAD_FROM_AUTO_MAP:
        file.noLoad = true;
        return 0;
    case ZEL_NO_START_AUTO_MAP:
        file.noStart = true;
        return 0;
    case ZEL_LOAD_BLOCK_MAP:
        return loadBlockMap(file, *static_cast<LoadBlockMap *>(argument));
    case ZEL_GET_AUTO_MAP:
        return getAutoMap(file, *static_cast<GetAutoMap *>(argument));
    case ZEL_GET_DIRTY_BLOCK:
        if (file.state != BACKUP_MAP_LOADED) {
            return ZEL_RESULT_INVALID;
        }
        *user<std::uint32_t>(static_cast<DirtyBlock *>(argument)->blockNum) =
            file.cache.empty() ? 0xffffffff : file.cache.begin()->first;
        return 0;
    case ZEL_READ_BLOCKS:
        return readBlocks(file, *static_cast<ReadBlocks *>(argument));
    default:
        return ZEL_RESULT_UNKNOWN_COMMAND;
    }
}

struct FakeDevice::Calls {
    static FakeDevice &of(void *self) { return *static_cast<FakeDevice *>(self); }

    static int resolve(void *, const char *name, std::uint32_t *major, std::uint32_t *minor)
    {
        if (std::string(name) != path) {
            return -ENOENT;
        }
        *major = FakeDevice::major;
        *minor = FakeDevice::minor;
        return 0;
    }

    static int open(void *self, const char *name)
    {
        if (std::string(name) != control) {
            return -ENOENT;
        }
        int descriptor = of(self).nextFile_++;
        of(self).files_[descriptor] = std::make_unique<File>();
        return descriptor;
    }

    static int ioctl(void *self, int descriptor, std::uint32_t command, void *argument)
    {
        FakeDevice &fake = of(self);
        fake.commands_.push_back(command);
        fake.before(command);
        int result = fake.command(*fake.files_.at(descriptor), command, argument);
        fake.after(command);
        return result;
    }

    static int map(void *self, int descriptor, std::size_t bytes, void **address)
    {
        FakeDevice &fake = of(self);
        File &file = *fake.files_.at(descriptor);
        fake.before(mapCommand);
        auto &scripted = fake.answers_[mapCommand];
        if (!scripted.empty()) {
            int result = scripted.front();
            scripted.pop_front();
            return result;
        }
        if (file.state < BACKUP_STARTED || file.mappings.size() == 2) {
            return ZEL_RESULT_INVALID;
        }
        void *place =
            mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
        if (place == MAP_FAILED) {
            return -ENOMEM;
        }
        file.mappings[static_cast<char *>(place)] = bytes;
        fake.mappings_++;
        *address = place;
        fake.after(mapCommand);
        return 0;
    }

    static int unmap(void *self, void *address, std::size_t bytes)
    {
        for (auto &[descriptor, file] : of(self).files_) {
            if (file->mappings.erase(static_cast<char *>(address)) != 0) {
                of(self).mappings_--;
                return munmap(address, bytes);
            }
        }
        return -EINVAL;
    }

    static int close(void *self, int descriptor)
    {
        FakeDevice &fake = of(self);
        if (fake.active_ == fake.files_.at(descriptor).get()) {
            fake.active_ = nullptr;
        }
        fake.files_.erase(descriptor);
        return 0;
    }
};

zelsend::Device FakeDevice::device()
{
    return {this,       Calls::resolve, Calls::open, Calls::ioctl,
            Calls::map, Calls::unmap,   Calls::close};
}

} // namespace test
