#include "backupRun.h"

#include "kernel/host/blockInternal.h"

#include <host/memory.h>

namespace test
{

bool eventually(const std::function<bool()> &condition)
{
    constexpr std::uint64_t longTime = 20'000'000'000;
    std::uint64_t start = host::nowNanoseconds();
    while (!condition()) {
        if (host::nowNanoseconds() - start > longTime)
            return false;
        host::sleepNanoseconds(20'000);
    }
    return true;
}

bool fallsAsleep(const host::Task &task)
{
    unsigned asleep = 0;
    return eventually([&] {
        asleep = task.asleep() ? asleep + 1 : 0;
        return asleep > 20;
    });
}

make_request_fn *functionOf(struct request_queue *q)
{
    unsigned long flags = 0;
    zelLockRequestQueue(q, &flags);
    make_request_fn *function = queue_make_request_fn(q);
    zelUnlockRequestQueue(q, &flags);
    return function;
}

make_request_fn *ownFunctionOf(struct request_queue *q)
{
    return q->own;
}

int countOf(struct semaphore *sem)
{
    int count = 0;
    while (down_trylock(sem) == 0)
        count++;
    for (int i = 0; i < count; i++)
        up(sem);
    return count;
}

bool inMap(const BlockMap &map, unsigned block)
{
    const unsigned char *bytes = host::pageBytes(map.map[block >> 15]);
    unsigned char byte = __atomic_load_n(&bytes[(block & 0x7fff) >> 3], __ATOMIC_RELAXED);
    return (byte >> (block & 7) & 1) != 0;
}

FreeBio::FreeBio(struct block_device *bdev, sector_t sector, unsigned size, unsigned long rw)
    : bio_(bio_alloc(GFP_NOIO, 1))
{
    bio_set_bdev(bio_, bdev);
    bio_set_sector(bio_, sector);
    bio_set_size(bio_, size);
    bio_set_rw(bio_, rw);
}

AsyncBio::AsyncBio(const host::BioSpec &spec)
{
    host::submitAsync(spec, [state = state_](int error) {
        state->error = error;
        state->ended = true;
    });
}

MappedBuffer::MappedBuffer(OpenRecord &record, unsigned pages, unsigned long start, int result)
    : record_(record)
{
    vma_.start = start;
    vma_.end = start + static_cast<unsigned long>(pages) * PAGE_SIZE;
    vma_.flags = VM_READ;
    vma_.file = record.file();
    EXPECT_EQ(zelMMAP(record.file(), &vma_), result);
    mapped_ = result == 0;
}

void MappedBuffer::unmap()
{
    if (mapped_)
        zelVMclose(&vma_);
    mapped_ = false;
}

BackupVMA *MappedBuffer::slot()
{
    BackupVMA *slot = nullptr;
    EXPECT_EQ(findVMA(record_.get(), &vma_, &slot), 1);
    return slot;
}

std::vector<unsigned char> MappedBuffer::bytes(std::size_t offset, std::size_t count)
{
    std::vector<unsigned char> result;
    for (std::size_t at = offset; at < offset + count; at++)
        result.push_back(host::pageBytes(slot()->mmPages[at / PAGE_SIZE])[at % PAGE_SIZE]);
    return result;
}

void MappedBuffer::fill(unsigned char value)
{
    for (int i = 0; i < slot()->vmPages; i++)
        std::fill_n(host::pageBytes(slot()->mmPages[i]), PAGE_SIZE, value);
}

int startBackup(OpenRecord &record, kernel_dev_t device, unsigned totalBlocks,
                unsigned maxCacheBlocks)
{
    int result = ioctlStartBackup(record.get(), device, totalBlocks, maxCacheBlocks);
    host::leavingKernel("ioctl");
    return result;
}

BackupRun::BackupRun(ModuleRun &moduleRun, const TestDiskOptions &options)
    : run(moduleRun), disk(options)
{
}

BackupRun::~BackupRun()
{
    disk.disk().release();
    record.close();
    disk.disk().waitIdle();
}

int BackupRun::start(unsigned partition, unsigned maxCacheBlocks)
{
    partition_ = partition;
    return startBackup(record, disk.device(partition), disk.blocks(partition), maxCacheBlocks);
}

int BackupRun::snap(const AMSessionKey &key, unsigned len)
{
    return ioctlSnapShot(b(), ModuleRun::user<AMSessionKey>(run.put(&key, sizeof(key))), len);
}

int BackupRun::load()
{
    UserBlockMap map{0, disk.blocks(partition_)};
    return ioctlLoadBlockMap(b(), &map);
}

int BackupRun::load(const std::set<unsigned> &blocks)
{
    Bitmap bits = emptyBitmap(disk.blocks(partition_));
    for (unsigned block : blocks)
        setBit(bits, block);
    UserBlockMap map{run.put(bits.data(), bits.size()), disk.blocks(partition_)};
    return ioctlLoadBlockMap(b(), &map);
}

bool BackupRun::begin(unsigned partition, unsigned maxCacheBlocks)
{
    int started = start(partition, maxCacheBlocks);
    EXPECT_EQ(started, 0);
    if (started != 0)
        return false;
    int snapped = snap();
    EXPECT_EQ(snapped, 0);
    EXPECT_EQ(backupState(b()), unsigned{BACKUP_SNAPPED});
    return snapped == 0;
}

AutoMapSession *BackupRun::session(unsigned partition) const
{
    return *amListSlot(disk.major(partition), disk.minor(partition));
}

AMSessionKey BackupRun::track(unsigned partition)
{
    OpenRecord other;
    EXPECT_EQ(startBackup(other, disk.device(partition), disk.blocks(partition), 16), 0);
    AMSessionKey key{};
    EXPECT_EQ(
        ioctlSnapShot(other.get(), ModuleRun::user<AMSessionKey>(run.put(&key, sizeof(key))), 56),
        0);
    return session(partition)->sessionKey;
}

std::vector<unsigned char> BackupRun::block(unsigned number, unsigned partition) const
{
    std::vector<unsigned char> bytes(disk.blockSize(partition));
    std::uint64_t sector =
        disk.start(partition) + std::uint64_t{number} * (disk.blockSize(partition) >> 9);
    const_cast<TestDisk &>(disk).disk().peek(sector, bytes.data(), bytes.size());
    return bytes;
}

int BackupRun::write(unsigned first, unsigned count, unsigned char fill, unsigned partition)
{
    std::vector<unsigned char> bytes(std::size_t{count} * disk.blockSize(partition), fill);
    return host::writeDevice(disk.bdev(partition),
                             std::uint64_t{first} * (disk.blockSize(partition) >> 9), bytes.data(),
                             bytes.size());
}

AsyncBio BackupRun::writeAsync(unsigned first, unsigned count, unsigned char fill,
                               unsigned partition)
{
    std::vector<unsigned char> bytes(std::size_t{count} * disk.blockSize(partition), fill);
    return AsyncBio({disk.bdev(partition), std::uint64_t{first} * (disk.blockSize(partition) >> 9),
                     static_cast<std::uint32_t>(bytes.size()), WRITE, bytes.data()});
}

AsyncBio BackupRun::readAsync(unsigned first, unsigned count, unsigned partition)
{
    return AsyncBio({disk.bdev(partition), std::uint64_t{first} * (disk.blockSize(partition) >> 9),
                     count * disk.blockSize(partition), READ});
}

void BackupRun::holdModuleReads()
{
    disk.disk().hold([](struct bio *bio) { return bio->ofModule && bio_rw(bio) == READ; });
}

host::Task BackupRun::closeInTask()
{
    return host::spawn("closer", [this] { record.close(); });
}

unsigned stateOf(const BackupRun &backup)
{
    return backupState(backup.b());
}

} // namespace test
