/* A disk with partitions and file systems, as most tests want it. */
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <host/block.h>
#include <host/filesystem.h>

namespace test
{

struct TestDiskOptions {
    unsigned mebibytes = 1; // shared evenly by the partitions
    // The block size of each partition's file system; the first partition is number 1.
    std::vector<unsigned> blockSizes = {4096};
    // False: no MBR; the one file system lies on the whole disk, which is partition 0.
    bool partitioned = true;
    bool mounted = true;
    host::DiskOptions disk = {};
};

// A RAM disk, each partition formatted with a SyntheticFs and mounted. The first partition starts
// at sector 63. Make it and destroy it from a task.
class TestDisk
{
public:
    explicit TestDisk(const TestDiskOptions &options = {});
    ~TestDisk();
    TestDisk(const TestDisk &) = delete;

    host::Disk &disk() { return *disk_; }
    kernel_dev_t device(unsigned partition = 1) const { return disk_->device(partition); }
    unsigned major(unsigned partition = 1) const { return deviceMajor(device(partition)); }
    unsigned minor(unsigned partition = 1) const { return deviceMinor(device(partition)); }
    std::uint64_t start(unsigned partition = 1) const { return slot(partition).start; }
    std::uint64_t sectors(unsigned partition = 1) const { return slot(partition).sectors; }
    unsigned blockSize(unsigned partition = 1) const { return slot(partition).blockSize; }
    // Whole blocks of the partition.
    std::uint32_t blocks(unsigned partition = 1) const;

    host::SyntheticFs &fs(unsigned partition = 1) { return *slot(partition).fs; }
    // The mount; it must be mounted.
    host::Mount &mount(unsigned partition = 1) { return *slot(partition).mount; }
    bool mounted(unsigned partition = 1) const { return slot(partition).mount != nullptr; }
    void unmount(unsigned partition = 1);
    void remount(unsigned partition = 1);
    // The partition's open block device; it must be mounted.
    struct block_device *bdev(unsigned partition = 1) { return mount(partition).device(); }

    // The medium's bytes of the partition's whole blocks, past the block layer.
    std::vector<unsigned char> image(unsigned partition = 1) const;

private:
    struct Slot {
        std::uint64_t start = 0;
        std::uint64_t sectors = 0;
        unsigned blockSize = 0;
        std::shared_ptr<host::SyntheticFs> fs;
        std::unique_ptr<host::Mount> mount;
    };
    const Slot &slot(unsigned partition) const;
    Slot &slot(unsigned partition);

    bool partitioned_;
    std::unique_ptr<host::Disk> disk_;
    std::vector<Slot> slots_;
};

} // namespace test
