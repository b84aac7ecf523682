/*
 * The block layer's records, and what its files and the rest of the host kernel need of each
 * other. The records' fields have the names and meanings of the kernel's.
 */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <host/block.h>
#include <host/task.h>
#include <kernel/block.h>
#include <kernel/fs.h>

#include "internal.h"

namespace host
{
class DiskState;
} // namespace host

// Start and length of a partition, or of the whole disk as its partition 0. They do not change as
// long as it is in the disk's table.
struct hd_struct {
    sector_t start_sect = 0;
    sector_t nr_sects = 0;
    bool deleted = false; // kept for as long as the disk, so that a late use is seen
};

struct gendisk {
    kernel_dev_t device = 0; // of the whole disk
    int first_minor = 0;
    int minors = 1;
    sector_t capacity = 0;
    struct request_queue *queue = nullptr;
    hd_struct part0;
    // Changed under the whole disk's bd_mutex; read under it or RCU. `minors` slots, of which 0 is
    // the whole disk.
    std::atomic<int> part_tbl_len{1};
    std::vector<std::atomic<hd_struct *>> part_tbl;
    std::vector<std::unique_ptr<hd_struct>> parts;
};

struct request_queue {
    std::atomic<make_request_fn *> function{nullptr};
    make_request_fn *own = nullptr;
    spinlock_t *queue_lock = nullptr; // &lock, or none
    spinlock_t lock;
    std::atomic<int> references{1};
    std::atomic<bool> dead{false}; // its disk is gone
    std::string name;
    host::DiskState *disk = nullptr;
};

struct bio_vec {
    struct page *bv_page;
    unsigned bv_len;
    unsigned bv_offset;
};

namespace host
{
// Where a bio is. Only the disk may hold it while it is `atDisk`.
enum class Flight : unsigned char { none, submitted, atDisk };

constexpr std::uint32_t bioAlive = 0x62696f21;
constexpr std::uint32_t bufferAlive = 0x62756621;
constexpr std::uint32_t recordFreed = 0x66726565;
} // namespace host

struct bio {
    std::uint32_t magic = host::bioAlive;
    bool ofModule = false; // allocated through the seam
    host::HeldRecord held; // then on the module's account
    std::atomic<host::Flight> flight{host::Flight::none};
    std::atomic<int> bi_cnt{1};
    sector_t bi_sector = 0;
    block_device *bi_bdev = nullptr;
    unsigned long bi_rw = 0;
    unsigned bi_size = 0;
    unsigned short bi_vcnt = 0;
    unsigned short bi_idx = 0;
    unsigned short bi_max_vecs = 0;
    bool uptodate = true;
    bool eopnotsupp = false;
    bio *bi_next = nullptr; // in a task's list of bios still to be submitted
    bio_end_io_t *bi_end_io = nullptr;
    void *bi_private = nullptr;
    std::unique_ptr<bio_vec[]> bi_io_vec;
};

struct buffer_head {
    std::uint32_t magic = host::bufferAlive;
    host::HeldRecord held;
    std::atomic<unsigned long> b_state{0};
    std::atomic<int> b_count{0};
    struct page *b_page = nullptr;
    char *b_data = nullptr;
    sector_t b_blocknr = 0;
    size_t b_size = 0;
    block_device *b_bdev = nullptr;
    bh_end_io_t *b_end_io = nullptr;
};

struct block_device {
    block_device(kernel_dev_t number, bool whole);
    ~block_device();

    const kernel_dev_t bd_dev;
    std::atomic<int> references{0};
    struct mutex bd_mutex;
    // Set from the first open to the last close; changed under bd_mutex only.
    std::atomic<gendisk *> bd_disk{nullptr};
    std::atomic<hd_struct *> bd_part{nullptr};
    std::atomic<block_device *> bd_contains{nullptr};
    int bd_openers = 0;               // guarded by bd_mutex
    int bd_part_count = 0;            // openers of its partitions, likewise
    bool bd_invalidated = false;      // the partition table has to be read, likewise
    std::atomic<sector_t> sectors{0}; // size since the last open; 0: not known

    // Sectors written through the device's own buffers and not yet to the disk.
    std::mutex dirtyGuard;
    std::map<sector_t, std::array<unsigned char, 512>> dirty;
    std::atomic<bool> isDirty{false};
    host::WaitQueue writeback{"write-back of a block device"};
    bool writingBack = false; // guarded by `writeback`

    // What bd_fsfreeze_mutex and bd_mount_sem are in the kernel. Not as locks: the kernel itself
    // takes them in orders that a lock checker cannot but report.
    host::WaitQueue freezing{"freezing, thawing or mounting on a block device"};
    bool freezeLocked = false; // these three guarded by `freezing`
    bool mountLocked = false;  // from freeze to thaw, and while mounting
    // These two are changed with freezeLocked set only.
    int bd_fsfreeze_count = 0;
    struct super_block *frozen = nullptr; // what the first freeze_bdev gave
};

namespace host
{

// Freed records are kept for a while, so that a late use is seen: reports it and returns false.
// Both only where Options::checks is on.
template<class Record>
bool checkAlive(const Record *record, std::uint32_t alive, const char *function)
{
    if (record->magic == alive)
        return true;
    reportViolation("use after free", std::string(function) + " by " + currentName());
    return false;
}
template<class Record> class Graveyard
{
public:
    void bury(Record *record)
    {
        record->magic = recordFreed;
        if (!Kernel::current().options().checks) {
            delete record;
            return;
        }
        Record *oldest = nullptr;
        {
            HiddenScope scope(mutex_);
            std::swap(oldest, graves_[next_]);
            graves_[next_] = record;
            next_ = (next_ + 1) % graves_.size();
        }
        delete oldest;
    }
    void clear()
    {
        for (Record *&grave : graves_) {
            delete grave;
            grave = nullptr;
        }
    }

private:
    HiddenMutex mutex_;
    std::array<Record *, 512> graves_{};
    std::size_t next_ = 0;
};

// Queues whose make_request_fn is not their disk's own, by name; not those of disks that are gone,
// whose function nobody calls any more.
std::vector<std::string> hookedQueues();
// Puts the disks' own functions back.
void unhookQueues();
// Tasks inside a make_request_fn that is not the disk's own, or about to call one. From any
// context.
int tasksInHooks();

// Block devices between freeze_bdev and thaw_bdev, by name.
std::vector<std::string> frozenDevices();

// "8:1"
std::string deviceName(kernel_dev_t device);

// Between the block layer's own files.

bio *allocateBio(unsigned vectors, bool ofModule);
// Calls the bio's end_io in interrupt context; the bio may be gone afterwards.
void endBio(bio *record, int error);

// Takes a further reference; `device` must have one.
void holdDevice(block_device *device);
void putDevice(block_device *device);
// Like bdget, for the host's own use: never NULL.
block_device *findDevice(kernel_dev_t device);
// Opens with the caller's reference, which a failure drops: 0 or a negated errno.
int openBlockDevice(block_device *device);
// Reads the partition table again. The device is the whole disk, its bd_mutex held: 0, -EBUSY if a
// partition is open, or -EIO.
int rescanPartitions(gendisk *disk, block_device *whole);
// Writes what is dirty in the device's own buffers and waits for it.
int syncDevice(block_device *device);

// Makes the disk's write cache durable, as a file system with barriers does.
void flushDisk(gendisk *disk);

void addDisk(gendisk *disk);
void removeDisk(gendisk *disk);

request_queue *newQueue(DiskState *disk, make_request_fn *own, bool withLock,
                        const std::string &name);
// The disk is gone: bios fail from here on, and its reference is dropped.
void retireQueue(request_queue *queue);

// Submits one bio on pages of its own: `data` is written from, or read into when it ends. `done`
// runs in interrupt context.
bio *submitHostBio(const BioSpec &spec, std::function<void(int error)> done);

// Counts bios that one task waits for.
class BioBatch
{
public:
    void submit(const BioSpec &spec);
    int wait(); // until all have ended; the first error

private:
    WaitQueue queue_{"I/O"};
    unsigned pending_ = 0; // guarded by queue_
    int error_ = 0;
};

} // namespace host
