/* A backup driven by the module's own functions, for tests that look into its records. */
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "agent.h"
#include "moduleTest.h"
#include "testDisk.h"

namespace test
{

// Gives other tasks turns until `condition` holds. False if it does not within a long time.
bool eventually(const std::function<bool()> &condition);
// Until the task sleeps, and goes on sleeping when others have had turns.
bool fallsAsleep(const host::Task &task);

// The function of a queue, read as the module must read it.
make_request_fn *functionOf(struct request_queue *q);
// What the disk itself gave the queue.
make_request_fn *ownFunctionOf(struct request_queue *q);
// The count of a semaphore that nobody waits for.
int countOf(struct semaphore *sem);
// Whether a map has this block's bit, looked up without its locks.
bool inMap(const BlockMap &map, unsigned block);

// A file system that says its block size and does nothing.
class BareFs : public host::FileSystem
{
public:
    explicit BareFs(unsigned blockSize) : blockSize_(blockSize) {}
    unsigned blockSize() const override { return blockSize_; }
    bool mount(struct block_device *) override { return true; }
    void sync() override {}
    void unmount() override {}

private:
    unsigned blockSize_;
};

// A bio that is nowhere, for functions that only look at it.
class FreeBio
{
public:
    FreeBio(struct block_device *bdev, sector_t sector, unsigned size, unsigned long rw = WRITE);
    ~FreeBio() { bio_put(bio_); }
    FreeBio(const FreeBio &) = delete;
    operator struct bio *() const { return bio_; }

private:
    struct bio *bio_;
};

// A bio under way. Copies name the same one.
class AsyncBio
{
public:
    explicit AsyncBio(const host::BioSpec &spec);
    bool ended() const { return state_->ended; }
    int error() const { return state_->error; }

private:
    struct State {
        std::atomic<bool> ended{false};
        std::atomic<int> error{0};
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

// The transfer buffer of a record, mapped at a made-up address.
class MappedBuffer
{
public:
    // `result` (0 unless said) must be what the mapping gives.
    explicit MappedBuffer(OpenRecord &record, unsigned pages, unsigned long start = 0x40000000,
                          int result = 0);
    ~MappedBuffer() { unmap(); }
    MappedBuffer(const MappedBuffer &) = delete;
    void unmap();

    struct vm_area_struct *vma() { return &vma_; }
    void *address() const { return reinterpret_cast<void *>(vma_.start); }
    BackupVMA *slot();
    // `bytes` from `offset` on.
    std::vector<unsigned char> bytes(std::size_t offset, std::size_t count);
    void fill(unsigned char value);

private:
    OpenRecord &record_;
    struct vm_area_struct vma_;
    bool mapped_ = false;
};

// The StartBackup command on a record, as the system call that it is: what it leaves taken is no
// lock of the calling task's.
int startBackup(OpenRecord &record, kernel_dev_t device, unsigned totalBlocks,
                unsigned maxCacheBlocks);

// A disk with file systems and an open record of the control device to back it up with. From a
// task, while the module is loaded.
class BackupRun
{
public:
    explicit BackupRun(ModuleRun &run, const TestDiskOptions &options = {});
    // Lets everything that the disk keeps go on, closes the record and waits for the last bio.
    ~BackupRun();
    BackupRun(const BackupRun &) = delete;

    Backup *b() const { return record.get(); }
    // The commands, for a partition of the disk; their results.
    int start(unsigned partition = 1, unsigned maxCacheBlocks = 1u << 20);
    int snap(const AMSessionKey &key = {}, unsigned len = sizeof(AMSessionKey));
    int load();
    int load(const std::set<unsigned> &blocks);
    // All three; false, with test failures, if one does not give 0.
    bool begin(unsigned partition = 1, unsigned maxCacheBlocks = 1u << 20);
    int read(unsigned first, unsigned count, MappedBuffer &buffer)
    {
        return ioctlReadBlocks(b(), first, count, buffer.address());
    }

    // The partition's session without a reference, or NULL.
    AutoMapSession *session(unsigned partition = 1) const;
    // Makes the partition tracked by a backup of its own that ends at once. The key with which the
    // next one can go on.
    AMSessionKey track(unsigned partition);

    // Blocks on the medium, and as bios to the partition's device.
    std::vector<unsigned char> block(unsigned number, unsigned partition = 1) const;
    int write(unsigned first, unsigned count, unsigned char fill, unsigned partition = 1);
    AsyncBio writeAsync(unsigned first, unsigned count, unsigned char fill, unsigned partition = 1);
    AsyncBio readAsync(unsigned first, unsigned count, unsigned partition = 1);
    std::vector<unsigned char> pattern(unsigned char fill, unsigned partition = 1) const
    {
        return std::vector<unsigned char>(disk.blockSize(partition), fill);
    }

    // The disk keeps the module's own reads, and nothing else, until disk.disk().release().
    void holdModuleReads();
    // Ends the record's file in a task of its own.
    host::Task closeInTask();

    ModuleRun &run;
    TestDisk disk;
    OpenRecord record;

private:
    unsigned partition_ = 1;
};

unsigned stateOf(const BackupRun &backup);

} // namespace test

inline bool operator==(const AMSessionKey &a, const AMSessionKey &b)
{
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}
