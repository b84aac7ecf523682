#include "deviceModel.h"

#include <algorithm>

namespace simulation
{

DeviceModel::DeviceModel(test::TestDisk &disk, unsigned partition)
    : disk_(disk), partition_(partition), blocks_(disk.blocks(partition)),
      touched_(1, test::emptyBitmap(blocks_))
{
    disk_.mount(partition_).onFrozen([this] { freeze(); });
}

DeviceModel::~DeviceModel()
{
    disk_.mount(partition_).onFrozen({});
}

void DeviceModel::written(std::uint64_t sector, std::uint32_t bytes)
{
    if (sector < disk_.start(partition_) || bytes == 0)
        return;
    std::uint64_t first = (sector - disk_.start(partition_)) * 512 / blockSize();
    std::uint64_t last = ((sector - disk_.start(partition_)) * 512 + bytes - 1) / blockSize();
    for (std::uint64_t bn = first; bn <= last && bn < blocks_; bn++)
        test::setBit(touched_.back(), static_cast<std::uint32_t>(bn));
}

void DeviceModel::freeze()
{
    if (std::string wrong = compareDisk(); !wrong.empty() && failure_.empty())
        failure_ = "at a freeze: " + wrong;
    std::vector<std::uint64_t> generations(blocks_);
    for (std::uint32_t bn = 0; bn < blocks_; bn++)
        generations[bn] = disk_.fs(partition_).generation(bn);
    frozen_.push_back(std::move(generations));
    touched_.push_back(test::emptyBitmap(blocks_));
}

test::Bitmap DeviceModel::changed(unsigned since, unsigned until) const
{
    test::Bitmap map = test::emptyBitmap(blocks_);
    for (std::uint32_t bn = 0; bn < blocks_; bn++)
        if (frozen(since)[bn] != frozen(until)[bn])
            test::setBit(map, bn);
    return map;
}

test::Bitmap DeviceModel::touched(unsigned since, unsigned until) const
{
    test::Bitmap map = test::emptyBitmap(blocks_);
    for (unsigned n = since; n < until; n++)
        for (std::size_t i = 0; i < map.size(); i++)
            map[i] |= touched_.at(n)[i];
    return map;
}

std::string DeviceModel::compare(const Image &image, unsigned n, bool mayBeZero) const
{
    Image expected(blockSize());
    for (std::uint32_t bn = 0; bn < blocks_; bn++) {
        host::SyntheticFs::render(bn, frozen(n)[bn], blockSize(), expected.data());
        auto at = image.begin() + static_cast<std::ptrdiff_t>(bn) * blockSize();
        auto end = at + blockSize();
        if (std::equal(at, end, expected.begin()))
            continue;
        if (mayBeZero && std::all_of(at, end, [](unsigned char byte) { return byte == 0; }))
            continue;
        std::uint64_t found = 0;
        bool whole = host::SyntheticFs::parse(bn, &*at, blockSize(), &found);
        return "block " + std::to_string(bn) + " of the image has " +
               (whole ? "generation " + std::to_string(found) : std::string("broken contents")) +
               ", the freeze found generation " + std::to_string(frozen(n)[bn]);
    }
    return "";
}

std::string DeviceModel::compareDisk() const
{
    Image block(blockSize());
    for (std::uint32_t bn = 0; bn < blocks_; bn++) {
        std::uint64_t sector =
            disk_.start(partition_) + static_cast<std::uint64_t>(bn) * blockSize() / 512;
        const_cast<test::TestDisk &>(disk_).disk().peek(sector, block.data(), block.size());
        std::uint64_t expected = disk_.fs(partition_).generation(bn);
        std::uint64_t found = 0;
        if (!host::SyntheticFs::parse(bn, block.data(), blockSize(), &found))
            return "block " + std::to_string(bn) + " on the disk is broken";
        if (found != expected)
            return "block " + std::to_string(bn) + " on the disk has generation " +
                   std::to_string(found) + ", the file system wrote " + std::to_string(expected);
    }
    return "";
}

} // namespace simulation
