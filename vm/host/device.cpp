#include "device.h"

#include <algorithm>

#include "blockContents.h"
#include "disk.h"
#include "extFile.h"

namespace vm
{
namespace
{

scenario::Image contentsOf(const Volume &volume, const std::vector<unsigned char> &disk)
{
    auto from = disk.begin() + static_cast<std::ptrdiff_t>(volume.startSector * sectorBytes);
    return {from, from + static_cast<std::ptrdiff_t>(volume.blocks) * volume.blockSize};
}

} // namespace

Device::Device(const Volume &volume, std::vector<unsigned char> &image)
    : volume_(volume), places_(volume.fileBlocks.size() - directBlocks),
      written_(test::emptyBitmap(volume.blocks)), allWrites_(written_), ownWrites_(written_)
{
    unsigned char *start = &image[static_cast<std::size_t>(volume.startSector * sectorBytes)];
    for (std::uint32_t place = 0; place < places(); place++)
        renderBlock(place, 0, start + std::size_t{blockAt(place)} * volume.blockSize,
                    volume.blockSize);
    frozen_ = contentsOf(volume, image);
}

std::uint32_t Device::places() const
{
    return static_cast<std::uint32_t>(places_.size());
}

std::uint32_t Device::blockAt(std::uint32_t place) const
{
    return volume_.fileBlocks.at(directBlocks + place);
}

std::uint64_t Device::fileOffset(std::uint32_t place) const
{
    return std::uint64_t{directBlocks + place} * volume_.blockSize;
}

std::vector<unsigned char> Device::beginWrite(std::uint32_t first, std::uint32_t count)
{
    std::unique_lock lock(mutex_);
    auto begin = places_.begin() + first;
    auto end = begin + count;
    changed_.wait(lock, [&] {
        return std::none_of(begin, end, [](const Place &place) { return place.busy; });
    });
    std::uint64_t generation = ++lastGeneration_;
    std::vector<unsigned char> bytes(std::size_t{count} * volume_.blockSize);
    for (std::uint32_t i = 0; i < count; i++) {
        places_[first + i].busy = true;
        places_[first + i].begun = generation;
        renderBlock(first + i, generation, &bytes[std::size_t{i} * volume_.blockSize],
                    volume_.blockSize);
    }
    return bytes;
}

void Device::endWrite(std::uint32_t first, std::uint32_t count, bool done)
{
    std::lock_guard lock(mutex_);
    for (std::uint32_t i = first; i < first + count; i++) {
        Place &place = places_[i];
        place.busy = false;
        (done ? place.done : place.begun) = done ? place.begun : place.done;
    }
    changed_.notify_all();
}

void Device::onDiskWrite(std::uint64_t offset, std::size_t bytes,
                         const std::vector<unsigned char> &disk)
{
    std::uint64_t start = volume_.startSector * sectorBytes;
    std::uint64_t length = std::uint64_t{volume_.blocks} * volume_.blockSize;
    if (offset + bytes <= start || offset >= start + length)
        return;
    std::uint64_t from = std::max(offset, start) - start;
    std::uint64_t to = std::min(offset + bytes, start + length) - start;
    std::lock_guard lock(mutex_);
    for (std::uint64_t block = from / volume_.blockSize; block * volume_.blockSize < to; block++)
        test::setBit(written_, static_cast<std::uint32_t>(block));
    if (from >= superblockOffset + superblockBytes || to <= superblockOffset) {
        if (isFrozen_ && lostAtFreeze_.empty())
            lostAtFreeze_ = "block " + std::to_string(from / volume_.blockSize) +
                            " was written while the file system was frozen";
        return;
    }
    bool wasInUse = inUse_;
    inUse_ = inUse(&disk[static_cast<std::size_t>(start + superblockOffset)]);
    if (wasInUse && !inUse_)
        freeze(disk);
    isFrozen_ = !inUse_;
}

void Device::freeze(const std::vector<unsigned char> &disk)
{
    frozen_ = contentsOf(volume_, disk);
    if (lostAtFreeze_.empty())
        lostAtFreeze_ = compare(frozen_);
    freezes_++;
    allWrites_ = written_;
    ownWrites_ = written_;
    for (std::uint32_t place = 0; place < places(); place++) {
        std::uint32_t block = blockAt(place);
        ownWrites_[block / 8] =
            static_cast<std::uint8_t>(ownWrites_[block / 8] & ~(1u << block % 8));
    }
    written_ = test::emptyBitmap(volume_.blocks);
}

unsigned Device::freezes() const
{
    std::lock_guard lock(mutex_);
    return freezes_;
}

test::Bitmap Device::written() const
{
    std::lock_guard lock(mutex_);
    return allWrites_;
}

test::Bitmap Device::ownWrites() const
{
    std::lock_guard lock(mutex_);
    return ownWrites_;
}

std::string Device::compare(const scenario::Image &image) const
{
    for (std::uint32_t i = 0; i < places(); i++) {
        const Place &place = places_[i];
        std::uint64_t found = 0;
        std::string name = "place " + std::to_string(i) + ", block " + std::to_string(blockAt(i));
        if (!parseBlock(i, &image[std::size_t{blockAt(i)} * volume_.blockSize], volume_.blockSize,
                        &found))
            return name + ", is broken on the disk";
        if (found != place.done && !(place.busy && found == place.begun))
            return name + ", has generation " + std::to_string(found) + " on the disk and not " +
                   std::to_string(place.done);
    }
    return "";
}

std::string Device::lostWrites(const scenario::Image &now)
{
    std::lock_guard lock(mutex_);
    std::string lost = compare(now);
    return lost.empty() ? lostAtFreeze_ : lost;
}

} // namespace vm
