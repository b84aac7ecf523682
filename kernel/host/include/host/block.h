/*
 * Disks, their partitions and I/O to them.
 *
 * A disk transfers data and completes bios in interrupt context from a service task of its own, by
 * default out of order, after a random (seeded) latency. Only overlapping writes keep the order in
 * which they came, as the kernel's elevators keep it: a read may be served before an earlier write
 * to the same sectors and after a later one, for as long as neither has completed.
 *
 * From a task, unless said otherwise; what waits, flushes or reads partitions may sleep.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <kernel/block.h>

namespace host
{

struct DiskOptions {
    unsigned major = 8;
    unsigned firstMinor = 0;
    unsigned minors = 16;   // 1 for a disk that takes no partitions
    std::string file;       // an image to keep the sectors in; empty for memory
    bool writeCache = true; // volatile: flush() makes it durable, crash() loses a part of it
    bool outOfOrder = true;
    std::uint64_t maxLatencyNanoseconds = 50'000; // 0: complete at the next switch
    bool queueLock = true;                        // false: a queue whose queue_lock is NULL
};

struct Partition {
    unsigned number; // from 1
    std::uint64_t start;
    std::uint64_t sectors;
};

class Disk
{
public:
    // Attaches a disk of this many sectors. Partitions are read from an MBR, if sector 0 has one.
    static std::unique_ptr<Disk> attach(std::uint64_t sectors, const DiskOptions &options = {});
    // No bio may be in flight, nothing mounted on it. From anywhere. Its queue lives on while
    // somebody holds a reference; bios to it fail.
    virtual ~Disk() = default;

    virtual std::uint64_t sectors() const = 0;
    // Writes an MBR with these primary partitions (at most 4) and reads it again, holding bd_mutex.
    // False: a partition is open, or the table could not be read; the old one is kept if one is
    // open.
    virtual bool partition(const std::vector<Partition> &partitions) = 0;
    virtual bool rereadPartitions() = 0;
    virtual std::vector<Partition> partitions() const = 0;
    // Device number of a partition; 0 for the whole disk.
    virtual kernel_dev_t device(unsigned partition = 0) const = 0;
    virtual struct request_queue *queue() const = 0;

    // The medium (write cache included), past the block layer. Any context; for tests and models.
    virtual void peek(std::uint64_t sector, void *data, std::size_t bytes) const = 0;
    virtual void poke(std::uint64_t sector, const void *data, std::size_t bytes) = 0;

    // Bios to these sectors fail with `error` until cleared. `reads`, `writes`: which. A failed
    // write changes nothing; a failed read leaves other bytes in its pages.
    virtual void failSectors(std::uint64_t first, std::uint64_t count, bool reads, bool writes,
                             int error = -KERNEL_EIO) = 0;
    virtual void clearFailures() = 0;

    // While held, bios that `filter` selects (all if empty) wait inside the disk.
    virtual void hold(std::function<bool(struct bio *)> filter = {}) = 0;
    virtual unsigned heldCount() const = 0;
    virtual void release() = 0; // those held go on, in order of arrival; holding ends
    virtual bool releaseOne(unsigned index) = 0; // just this one, by order of arrival
    virtual void waitIdle() = 0; // until no bio is in flight (held ones count as none)

    // Makes the write cache durable. May sleep.
    virtual void flush() = 0;
    // Power failure: a random (seeded) subset of what was not flushed is lost. No bio in flight.
    virtual void crash() = 0;

    // Every bio as its queue's own make_request_fn received it; {} to stop. For models.
    virtual void
    observe(std::function<void(struct bio *, std::uint64_t sector, std::uint32_t bytes, bool write)>
                observer) = 0;
};

// Opens a block device (it gets bd_disk, bd_part) and closes it again. The last close of a disk
// flushes it with bd_mutex held, as 2.6.30 does. Mounting opens too. May sleep.
struct block_device *openDevice(kernel_dev_t device); // nullptr: no such device
void closeDevice(struct block_device *device);

// I/O by the calling task to an open device, through generic_make_request, as large bios of up to
// `bytesPerBio`; sectors are relative to the device. Returns 0 or a negated errno. May sleep.
int readDevice(struct block_device *device, std::uint64_t sector, void *data, std::size_t bytes,
               std::size_t bytesPerBio = 128 * 1024);
int writeDevice(struct block_device *device, std::uint64_t sector, const void *data,
                std::size_t bytes, std::size_t bytesPerBio = 128 * 1024);

// Writes whole sectors into the device's own dirty buffers, as write(2) to a block device does. The
// last close, fsync_bdev, freeze_bdev, a new partition table and readDevice or writeDevice write
// them to the disk.
void writeBuffered(struct block_device *device, std::uint64_t sector, const void *data,
                   std::size_t bytes);

// One bio made by hand, for tests of ranges and flags. Submits, waits, returns its error. `rw` is
// all of bi_rw; `sector` is relative to the device; `bytes` may be 0.
struct BioSpec {
    struct block_device *device;
    std::uint64_t sector;
    std::uint32_t bytes;
    unsigned long rw;
    unsigned char *data = nullptr; // written from or read into, if given
};
int submitAndWait(const BioSpec &spec);
// The same without waiting; `done` is called in interrupt context. The bio may be gone already when
// this returns: its address is a name only.
struct bio *submitAsync(const BioSpec &spec, std::function<void(int error)> done);

} // namespace host
