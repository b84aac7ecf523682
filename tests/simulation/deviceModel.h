/* What one device held at each freeze, and which of its blocks were written in between. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/agent.h"
#include "support/testDisk.h"

namespace simulation
{

using Image = std::vector<unsigned char>;

class DeviceModel
{
public:
    DeviceModel(test::TestDisk &disk, unsigned partition);
    ~DeviceModel();
    DeviceModel(const DeviceModel &) = delete;

    kernel_dev_t device() const { return disk_.device(partition_); }
    std::uint32_t blocks() const { return blocks_; }
    unsigned blockSize() const { return disk_.blockSize(partition_); }
    host::SyntheticFs &fs() { return disk_.fs(partition_); }

    // Of the disk's observer: a write has reached the disk.
    void written(std::uint64_t sector, std::uint32_t bytes);

    // Freezes so far, and what the n-th one (from 1) found.
    unsigned freezes() const { return static_cast<unsigned>(frozen_.size()); }
    const std::vector<std::uint64_t> &frozen(unsigned n) const { return frozen_.at(n - 1); }
    // Blocks whose contents differ between two freezes, and blocks that any write touched in
    // between; `since` below `until`.
    test::Bitmap changed(unsigned since, unsigned until) const;
    test::Bitmap touched(unsigned since, unsigned until) const;

    // Empty, or what is wrong: a block of the image is not as the n-th freeze found it. Blocks of
    // `mayBeZero` may be zeros instead.
    std::string compare(const Image &image, unsigned n, bool mayBeZero) const;
    // Empty, or what is wrong: the disk does not hold what the file system wrote last.
    std::string compareDisk() const;
    // What a freeze found wrong by itself.
    const std::string &failure() const { return failure_; }

private:
    void freeze();

    test::TestDisk &disk_;
    unsigned partition_;
    std::uint32_t blocks_;
    std::vector<std::vector<std::uint64_t>> frozen_; // generations of all blocks
    std::vector<test::Bitmap> touched_;              // before each freeze, and since the last one
    std::string failure_;
};

} // namespace simulation
