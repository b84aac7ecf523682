#include "testDisk.h"

#include <stdexcept>

namespace test
{
namespace
{

constexpr std::uint64_t sectorsPerMebibyte = 2048;
constexpr std::uint64_t firstSector = 63; // where the first partition has always begun

// Open for as long as this lives.
class OpenDevice
{
public:
    explicit OpenDevice(kernel_dev_t device) : device_(host::openDevice(device))
    {
        if (device_ == nullptr)
            throw std::runtime_error("a test disk's device cannot be opened");
    }
    ~OpenDevice() { host::closeDevice(device_); }
    OpenDevice(const OpenDevice &) = delete;
    OpenDevice &operator=(const OpenDevice &) = delete;
    struct block_device *get() const { return device_; }

private:
    struct block_device *device_;
};

} // namespace

TestDisk::TestDisk(const TestDiskOptions &options) : partitioned_(options.partitioned)
{
    std::uint64_t total = options.mebibytes * sectorsPerMebibyte;
    disk_ = host::Disk::attach(total, options.disk);
    std::uint64_t first = partitioned_ ? firstSector : 0;
    std::uint64_t share = (total - first) / options.blockSizes.size();
    std::vector<host::Partition> partitions;
    for (unsigned size : options.blockSizes) {
        Slot slot;
        slot.start = first + share * slots_.size();
        slot.sectors = share;
        slot.blockSize = size;
        slots_.push_back(std::move(slot));
        partitions.push_back({static_cast<unsigned>(slots_.size()), slots_.back().start, share});
    }
    if (partitioned_)
        disk_->partition(partitions);
    unsigned number = partitioned_ ? 1 : 0;
    for (Slot &slot : slots_) {
        slot.fs = host::SyntheticFs::create(slot.blockSize, slot.sectors * 512 / slot.blockSize);
        {
            OpenDevice open(device(number));
            slot.fs->format(open.get());
        }
        if (options.mounted)
            remount(number);
        number++;
    }
}

TestDisk::~TestDisk() = default;

const TestDisk::Slot &TestDisk::slot(unsigned partition) const
{
    return slots_.at(partitioned_ ? partition - 1 : partition);
}

TestDisk::Slot &TestDisk::slot(unsigned partition)
{
    return slots_.at(partitioned_ ? partition - 1 : partition);
}

std::uint32_t TestDisk::blocks(unsigned partition) const
{
    return static_cast<std::uint32_t>(slot(partition).fs->blocks());
}

void TestDisk::unmount(unsigned partition)
{
    slot(partition).mount.reset();
}

void TestDisk::remount(unsigned partition)
{
    slot(partition).mount = std::make_unique<host::Mount>(device(partition), slot(partition).fs);
}

std::vector<unsigned char> TestDisk::image(unsigned partition) const
{
    std::vector<unsigned char> bytes(static_cast<std::size_t>(blocks(partition)) *
                                     blockSize(partition));
    disk_->peek(start(partition), bytes.data(), bytes.size());
    return bytes;
}

} // namespace test
