#include <atomic>
#include <cstring>

#include <host/block.h>
#include <host/filesystem.h>
#include <host/kernel.h>
#include <host/task.h>

#include "support/hostTest.h"

namespace
{

using host::Disk;
using host::Mount;
using host::SyntheticFs;

class SyntheticFsTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(SyntheticFsTest);

constexpr std::uint64_t start = 63;

struct Machine {
    explicit Machine(unsigned blockSize = 4096, std::uint64_t blocks = 100,
                     const host::DiskOptions &options = {})
        : disk(Disk::attach(start + blocks * blockSize / 512 + 100, options)),
          fs(SyntheticFs::create(blockSize, blocks))
    {
        disk->partition({{1, start, blocks * blockSize / 512}});
        struct block_device *device = host::openDevice(disk->device(1));
        fs->format(device);
        host::closeDevice(device);
        mount = std::make_unique<Mount>(disk->device(1), fs);
    }

    // The generation that the medium holds, or -1 if it is no whole block.
    std::int64_t onDisk(std::uint64_t block) const
    {
        std::vector<unsigned char> bytes(fs->blockSize());
        disk->peek(start + block * (fs->blockSize() / 512), bytes.data(), bytes.size());
        std::uint64_t generation;
        if (!SyntheticFs::parse(block, bytes.data(), fs->blockSize(), &generation))
            return -1;
        return static_cast<std::int64_t>(generation);
    }
    unsigned differing() const
    {
        unsigned count = 0;
        for (std::uint64_t block = 0; block < fs->blocks(); block++)
            count += onDisk(block) != static_cast<std::int64_t>(fs->generation(block));
        return count;
    }

    std::unique_ptr<Disk> disk;
    std::shared_ptr<SyntheticFs> fs;
    std::unique_ptr<Mount> mount;
};

TEST(SyntheticBlock, isReadBackOnlyWhole)
{
    std::vector<unsigned char> bytes(1024), other(1024);
    std::uint64_t generation = 0;
    SyntheticFs::render(17, 5, 1024, bytes.data());
    ASSERT_TRUE(SyntheticFs::parse(17, bytes.data(), 1024, &generation));
    EXPECT_EQ(generation, 5u);
    EXPECT_FALSE(SyntheticFs::parse(18, bytes.data(), 1024, &generation));
    SyntheticFs::render(17, 6, 1024, other.data());
    EXPECT_NE(std::memcmp(bytes.data() + 512, other.data() + 512, 512), 0);
    std::copy(other.begin() + 512, other.end(), bytes.begin() + 512);
    EXPECT_FALSE(SyntheticFs::parse(17, bytes.data(), 1024, &generation));
    for (std::size_t at : {0, 8, 16, 24, 32, 1023}) {
        SyntheticFs::render(17, 5, 1024, bytes.data());
        bytes[at] ^= 0x40;
        EXPECT_FALSE(SyntheticFs::parse(17, bytes.data(), 1024, &generation)) << at;
    }
}

TEST_P(SyntheticFsTest, formatsMountsAndRefusesWhatIsNotItsOwn)
{
    inKernel([] {
        for (unsigned blockSize : {512, 1024, 2048, 4096}) {
            Machine machine(blockSize, 60);
            ASSERT_TRUE(machine.mount->mounted());
            EXPECT_EQ(machine.differing(), 0u);
            EXPECT_EQ(machine.fs->generation(59), 0u);
            machine.mount.reset();
            unsigned char zeroes[512] = {};
            machine.disk->poke(start + 3 * (blockSize / 512), zeroes, sizeof(zeroes));
            Mount again(machine.disk->device(1), machine.fs);
            EXPECT_FALSE(again.mounted());
        }
        Machine machine;
        Mount tooLarge(machine.disk->device(), SyntheticFs::create(4096, 1 << 20));
        EXPECT_FALSE(tooLarge.mounted());
        EXPECT_THROW(SyntheticFs::create(1000, 10), std::invalid_argument);
    });
}

TEST_P(SyntheticFsTest, writesStayInItsCacheUntilWrittenBack)
{
    inKernel([] {
        Machine machine;
        EXPECT_EQ(machine.fs->write(10, 5), 1u);
        EXPECT_EQ(machine.fs->write(12, 1), 2u);
        EXPECT_EQ(machine.fs->generation(11), 1u);
        EXPECT_EQ(machine.fs->generation(12), 2u);
        EXPECT_EQ(machine.differing(), 5u);
        machine.fs->writeBack(2);
        machine.disk->waitIdle();
        EXPECT_EQ(machine.differing(), 3u);
        EXPECT_EQ(fsync_bdev(machine.mount->device()), 0);
        EXPECT_EQ(machine.differing(), 0u);
        EXPECT_EQ(machine.onDisk(12), 2);
        EXPECT_THROW(machine.fs->write(99, 2), std::out_of_range);
    });
}

TEST_P(SyntheticFsTest, generationsGoOnAfterRemounting)
{
    inKernel([] {
        Machine machine;
        machine.fs->write(0, 100);
        machine.fs->write(50, 1);
        machine.mount.reset();
        EXPECT_EQ(machine.differing(), 0u);
        EXPECT_THROW(machine.fs->write(0, 1), std::logic_error);
        auto other = SyntheticFs::create(4096, 100);
        Mount mount(machine.disk->device(1), other);
        ASSERT_TRUE(mount.mounted());
        EXPECT_EQ(other->generation(50), 2u);
        EXPECT_EQ(other->write(1, 1), 3u);
    });
}

TEST_P(SyntheticFsTest, writesBackInBiosOfSeveralSizes)
{
    inKernel([] {
        Machine machine(1024, 400);
        std::atomic<unsigned> single{0}, several{0};
        machine.disk->observe([&](struct bio *, std::uint64_t, std::uint32_t bytes, bool write) {
            if (write)
                (bytes == 1024 ? single : several)++;
        });
        for (unsigned i = 0; i < 10; i++) {
            machine.fs->write(i * 2, 3);
            machine.fs->write(100, 90);
            machine.fs->write(300 + i * 9, 1);
            EXPECT_EQ(fsync_bdev(machine.mount->device()), 0);
        }
        machine.disk->observe({});
        EXPECT_GT(single, 0u);
        EXPECT_GT(several, 0u);
        EXPECT_EQ(machine.differing(), 0u);
    });
}

TEST_P(SyntheticFsTest, muchDirtIsWrittenByTheWriters)
{
    inKernel([] {
        Machine machine(1024, 400);
        for (std::uint64_t i = 0; i < 400; i++)
            machine.fs->write(i, 1);
        machine.disk->waitIdle();
        EXPECT_LT(machine.differing(), 150u);
    });
}

TEST_P(SyntheticFsTest, aFailedWriteBackLosesTheBlocks)
{
    inKernel([] {
        Machine machine;
        machine.disk->failSectors(start + 8, 1, false, true);
        machine.fs->write(1, 1);
        EXPECT_EQ(fsync_bdev(machine.mount->device()), 0);
        EXPECT_EQ(machine.fs->writeErrors(), 1u);
        EXPECT_EQ(machine.onDisk(1), 0);
        machine.disk->clearFailures();
        machine.fs->write(1, 1);
        EXPECT_EQ(fsync_bdev(machine.mount->device()), 0);
        EXPECT_EQ(machine.onDisk(1), 2);
    });
}

// The medium equals the file system at every instant between freeze and thaw, whatever writers and
// flushers do.
void freezeUnderLoad()
{
    Machine machine(1024, 200);
    std::atomic<bool> stop{false};
    std::vector<host::Task> tasks;
    for (unsigned t = 0; t < 3; t++) {
        tasks.push_back(host::spawn("writer", [&] {
            while (!stop) {
                std::uint64_t first = host::randomNumber() % 190;
                machine.fs->write(first, 1 + host::randomNumber() % 10);
                host::sleepNanoseconds(2000);
            }
        }));
    }
    tasks.push_back(host::spawn("flusher", [&] {
        while (!stop) {
            machine.fs->writeBack(20);
            host::sleepNanoseconds(5000);
        }
    }));
    unsigned frozen = 0;
    machine.mount->onFrozen([&] {
        frozen++;
        EXPECT_EQ(machine.differing(), 0u);
    });
    for (unsigned i = 0; i < 8; i++) {
        host::sleepNanoseconds(100'000);
        struct super_block *sb = freeze_bdev(machine.mount->device());
        host::sleepNanoseconds(50'000);
        EXPECT_EQ(machine.differing(), 0u);
        thaw_bdev(machine.mount->device(), sb);
    }
    stop = true;
    for (host::Task &task : tasks)
        task.join();
    EXPECT_EQ(frozen, 8u);
    machine.mount.reset();
    EXPECT_EQ(machine.differing(), 0u);
}

TEST_P(SyntheticFsTest, frozenMeansThatTheMediumHoldsItAll)
{
    inKernel(freezeUnderLoad);
}

using SyntheticFsSeeds = test::HostTest;

TEST_F(SyntheticFsSeeds, frozenMeansThatTheMediumHoldsItAll)
{
    for (std::uint64_t seed = 2; seed < 30; seed++) {
        host::Options other;
        other.scheduling = host::Scheduling::deterministic;
        other.seed = seed;
        restart(other);
        inKernel(freezeUnderLoad);
    }
}

// A flusher between two of its bios has nothing in flight, but is not done.
TEST_F(SyntheticFsSeeds, aFreezeWaitsForAFlusherBetweenItsBios)
{
    for (std::uint64_t seed = 1; seed < 400; seed++) {
        host::Options other;
        other.scheduling = host::Scheduling::deterministic;
        other.seed = seed;
        restart(other);
        inKernel([seed] {
            host::DiskOptions options;
            options.maxLatencyNanoseconds = 0;
            Machine machine(512, 16, options);
            for (std::uint64_t block = 0; block < 16; block += 4)
                machine.fs->write(block, 1);
            host::Task flusher = host::spawn("flusher", [&] { machine.fs->writeBack(4); });
            struct super_block *sb = freeze_bdev(machine.mount->device());
            EXPECT_EQ(machine.differing(), 0u) << "seed " << seed;
            thaw_bdev(machine.mount->device(), sb);
            flusher.join();
        });
    }
}

TEST_P(SyntheticFsTest, syncWaitsForWriteBackOfOthers)
{
    inKernel([] {
        Machine machine;
        machine.disk->hold();
        machine.fs->write(5, 1);
        machine.fs->writeBack(1);
        EXPECT_EQ(machine.disk->heldCount(), 1u);
        machine.fs->write(5, 1); // again, while it is being written
        host::Task syncer = host::spawn("syncer", [&] { fsync_bdev(machine.mount->device()); });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_FALSE(syncer.ended());
        EXPECT_EQ(machine.disk->heldCount(), 1u); // never two writes of one block at a time
        machine.disk->release();
        syncer.join();
        EXPECT_EQ(machine.onDisk(5), 2);
    });
}

} // namespace
