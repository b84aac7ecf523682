#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <unistd.h>

#include <host/block.h>
#include <host/faults.h>
#include <host/task.h>

#include "support/hostTest.h"
#include "unit/host/seamBio.h"

namespace
{

using host::Disk;
using host::DiskOptions;

class DiskTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(DiskTest);

std::vector<unsigned char> pattern(std::size_t bytes, unsigned seed)
{
    std::vector<unsigned char> result(bytes);
    for (std::size_t i = 0; i < bytes; i++)
        result[i] = static_cast<unsigned char>(seed + i * 7 + (i >> 9) * 13);
    return result;
}

// A disk with its whole device open.
struct OpenDisk {
    explicit OpenDisk(std::uint64_t sectors, const DiskOptions &options = {})
        : disk(Disk::attach(sectors, options)), device(host::openDevice(disk->device()))
    {
    }
    ~OpenDisk()
    {
        disk->waitIdle();
        host::closeDevice(device);
    }
    std::unique_ptr<Disk> disk;
    struct block_device *device;
};

unsigned char byteAt(const Disk &disk, std::uint64_t sector)
{
    unsigned char byte;
    disk.peek(sector, &byte, 1);
    return byte;
}

TEST_P(DiskTest, readsBackWhatWasWritten)
{
    inKernel([] {
        OpenDisk open(4096);
        auto written = pattern(1 << 20, 3);
        ASSERT_EQ(host::writeDevice(open.device, 17, written.data(), written.size()), 0);
        std::vector<unsigned char> read(written.size());
        ASSERT_EQ(host::readDevice(open.device, 17, read.data(), read.size(), 4096), 0);
        EXPECT_EQ(read, written);
        open.disk->peek(17, read.data(), read.size());
        EXPECT_EQ(read, written);
    });
}

TEST_P(DiskTest, biosOfManyVectorsAndOddSizesMoveTheirBytes)
{
    inKernel([] {
        OpenDisk open(8192);
        auto written = pattern(256 * 4096, 5);
        ASSERT_EQ(host::submitAndWait({open.device, 8, static_cast<std::uint32_t>(written.size()),
                                       WRITE, written.data()}),
                  0);
        // A part of a sector changes that part only.
        unsigned char odd[700];
        std::fill(std::begin(odd), std::end(odd), 0xee);
        ASSERT_EQ(host::submitAndWait({open.device, 8, sizeof(odd), WRITE, odd}), 0);
        std::fill(written.begin(), written.begin() + sizeof(odd), 0xee);
        std::vector<unsigned char> read(written.size());
        ASSERT_EQ(host::submitAndWait(
                      {open.device, 8, static_cast<std::uint32_t>(read.size()), READ, read.data()}),
                  0);
        EXPECT_EQ(read, written);
        EXPECT_EQ(host::submitAndWait({open.device, 8, 0, WRITE}), 0);
    });
}

TEST_P(DiskTest, completesOutOfOrderUnlessTold)
{
    for (bool outOfOrder : {true, false}) {
        inKernel([outOfOrder] {
            DiskOptions options;
            options.outOfOrder = outOfOrder;
            OpenDisk open(4096, options);
            host::WaitQueue queue("completions");
            std::vector<unsigned> order;
            open.disk->hold(); // so that the disk has them all to choose from
            for (unsigned i = 0; i < 32; i++)
                host::submitAsync({open.device, i * 8, 4096, READ}, [&queue, &order, i](int) {
                    queue.wake([&] { order.push_back(i); });
                });
            open.disk->release();
            queue.wait([&] { return order.size() == 32; });
            EXPECT_EQ(std::is_sorted(order.begin(), order.end()), !outOfOrder);
        });
    }
}

TEST_P(DiskTest, overlappingWritesKeepTheirOrder)
{
    inKernel([] {
        OpenDisk open(4096);
        for (unsigned round = 0; round < 20; round++) {
            std::vector<std::vector<unsigned char>> writes;
            for (unsigned i = 0; i < 8; i++) {
                writes.push_back(pattern(4096, round * 8 + i));
                host::submitAsync({open.device, i, 4096, WRITE, writes.back().data()}, [](int) {});
            }
            open.disk->waitIdle();
            for (unsigned i = 0; i < 8; i++) {
                unsigned char first[512];
                open.disk->peek(i, first, sizeof(first));
                ASSERT_TRUE(std::equal(first, first + 512, writes[i].begin())) << "sector " << i;
            }
        }
    });
}

TEST_P(DiskTest, endsBiosInInterruptContextWithTheirFieldsAdvanced)
{
    inKernel([] {
        OpenDisk open(4096);
        test::SeamBio read(open.device, 64, 2048, READ);
        read.submit();
        EXPECT_EQ(read.wait(), 0);
        EXPECT_EQ(bio_size(read.bio()), 0u);
        EXPECT_EQ(bio_sector(read.bio()), 68u);
        EXPECT_EQ(bio_uptodate(read.bio()), 1);
    });
    inKernel([] {
        OpenDisk open(4096);
        host::submitAsync({open.device, 0, 512, READ},
                          [](int) { host::maySleep("a test's end_io"); });
        open.disk->waitIdle();
    });
    expectViolation("a test's end_io");
}

TEST_P(DiskTest, failsTheChosenSectorsAndChangesNothing)
{
    inKernel([] {
        OpenDisk open(4096);
        auto before = pattern(4096, 1), after = pattern(4096, 99);
        ASSERT_EQ(host::writeDevice(open.device, 96, before.data(), 4096), 0);
        open.disk->failSectors(100, 1, false, true);
        EXPECT_EQ(host::writeDevice(open.device, 96, after.data(), 4096), -KERNEL_EIO);
        EXPECT_EQ(host::writeDevice(open.device, 101, after.data(), 512), 0);
        std::vector<unsigned char> read(4096);
        EXPECT_EQ(host::readDevice(open.device, 96, read.data(), 2560), 0);
        EXPECT_TRUE(std::equal(read.begin(), read.begin() + 2560, before.begin()));

        open.disk->clearFailures();
        open.disk->failSectors(100, 4, true, false, -KERNEL_EOPNOTSUPP);
        test::SeamBio bad(open.device, 96, 4096, READ);
        bad.submit();
        EXPECT_EQ(bad.wait(), -KERNEL_EOPNOTSUPP);
        EXPECT_EQ(bio_uptodate(bad.bio()), 0);
        EXPECT_EQ(buffer_uptodate(bad.buffer()), 0);
        EXPECT_EQ(bio_size(bad.bio()), 0u);
        EXPECT_NE(bad.data()[0], before[0]); // nothing may rely on a failed read's pages

        open.disk->clearFailures();
        EXPECT_EQ(host::readDevice(open.device, 96, read.data(), 4096), 0);
    });
}

TEST_P(DiskTest, injectedFaultsHitReadsByTheModuleAndAllWrites)
{
    inKernel([] {
        OpenDisk open(4096);
        host::clearFaults();
        unsigned char sector[512] = {1};
        host::failNth(host::Fault::read, 2);
        EXPECT_EQ(host::readDevice(open.device, 0, sector, 512), 0);
        int results[3];
        for (int &result : results) {
            test::SeamBio bio(open.device, 0, 512, READ);
            bio.submit();
            result = bio.wait();
        }
        EXPECT_EQ(results[0], 0);
        EXPECT_EQ(results[1], -KERNEL_EIO);
        EXPECT_EQ(results[2], 0);
        EXPECT_EQ(host::faultCalls(host::Fault::read), 3u);

        host::failNth(host::Fault::write, 1);
        EXPECT_EQ(host::writeDevice(open.device, 0, sector, 512), -KERNEL_EIO);
        EXPECT_EQ(host::writeDevice(open.device, 0, sector, 512), 0);
        host::clearFaults();
    });
}

TEST_P(DiskTest, holdsBiosUntilTheyAreReleased)
{
    inKernel([] {
        OpenDisk open(4096);
        std::atomic<int> reads{0}, writes{0};
        open.disk->hold([](struct bio *bio) { return bio_rw(bio) == WRITE; });
        auto data = pattern(512, 200);
        for (unsigned i = 0; i < 3; i++) {
            host::submitAsync({open.device, i, 512, WRITE, data.data()}, [&](int) { writes++; });
            host::submitAsync({open.device, i, 512, READ}, [&](int) { reads++; });
        }
        open.disk->waitIdle();
        EXPECT_EQ(reads, 3);
        EXPECT_EQ(writes, 0);
        EXPECT_EQ(open.disk->heldCount(), 3u);

        EXPECT_TRUE(open.disk->releaseOne(1));
        open.disk->waitIdle();
        EXPECT_EQ(writes, 1);
        EXPECT_EQ(byteAt(*open.disk, 0), 0);
        EXPECT_EQ(byteAt(*open.disk, 1), data[0]);
        EXPECT_EQ(byteAt(*open.disk, 2), 0);
        EXPECT_FALSE(open.disk->releaseOne(2));

        open.disk->release();
        host::submitAsync({open.device, 9, 512, WRITE, data.data()}, [&](int) { writes++; });
        open.disk->waitIdle();
        EXPECT_EQ(writes, 4);
        EXPECT_EQ(open.disk->heldCount(), 0u);
    });
}

TEST_P(DiskTest, showsObserversEveryBio)
{
    inKernel([] {
        OpenDisk open(4096);
        std::atomic<unsigned> bytesRead{0}, bytesWritten{0};
        open.disk->observe([&](struct bio *, std::uint64_t, std::uint32_t bytes, bool write) {
            (write ? bytesWritten : bytesRead) += bytes;
        });
        std::vector<unsigned char> data(8192);
        host::readDevice(open.device, 0, data.data(), 8192, 1024);
        host::writeDevice(open.device, 0, data.data(), 4096);
        open.disk->observe({});
        host::writeDevice(open.device, 0, data.data(), 4096);
        EXPECT_EQ(bytesRead, 8192u);
        EXPECT_EQ(bytesWritten, 4096u);
    });
}

TEST_P(DiskTest, crashLosesPartOfWhatWasNotFlushed)
{
    std::set<unsigned> counts;
    for (unsigned round = 0; round < 12; round++) {
        inKernel([&] {
            OpenDisk open(4096);
            auto old = pattern(64 * 512, 1);
            std::vector<unsigned char> fresh(old.size(), 0xaa), read(old.size());
            host::writeDevice(open.device, 0, old.data(), old.size());
            open.disk->flush();
            host::writeDevice(open.device, 0, fresh.data(), fresh.size());
            host::readDevice(open.device, 0, read.data(), read.size());
            EXPECT_EQ(read, fresh);
            open.disk->crash();
            open.disk->peek(0, read.data(), read.size());
            unsigned lost = 0;
            for (unsigned sector = 0; sector < 64; sector++) {
                auto at = read.begin() + sector * 512;
                bool isOld = std::equal(at, at + 512, old.begin() + sector * 512);
                bool isNew = std::equal(at, at + 512, fresh.begin());
                EXPECT_TRUE(isOld || isNew) << "sector " << sector;
                lost += isOld;
            }
            counts.insert(lost);
        });
    }
    EXPECT_GT(counts.size(), 3u);
}

TEST_P(DiskTest, crashKeepsWhatWasFlushedOrIsNotCached)
{
    for (bool cached : {true, false}) {
        inKernel([cached] {
            DiskOptions options;
            options.writeCache = cached;
            OpenDisk open(4096, options);
            auto data = pattern(65536, 1);
            std::vector<unsigned char> read(data.size());
            host::writeDevice(open.device, 3, data.data(), data.size());
            if (cached)
                open.disk->flush();
            open.disk->crash();
            open.disk->peek(3, read.data(), read.size());
            EXPECT_EQ(read, data);
        });
    }
}

TEST_P(DiskTest, keepsItsSectorsInAnImage)
{
    char name[] = "/tmp/diskTestXXXXXX";
    int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    close(fd);
    auto data = pattern(4096, 42);
    DiskOptions options;
    options.file = name;
    inKernel([&] {
        OpenDisk open(2048, options);
        EXPECT_EQ(host::writeDevice(open.device, 2040, data.data(), 4096), 0);
    });
    inKernel([&] {
        OpenDisk open(2048, options);
        std::vector<unsigned char> read(4096);
        EXPECT_EQ(host::readDevice(open.device, 2040, read.data(), 4096), 0);
        EXPECT_EQ(read, data);
    });
    EXPECT_EQ(unlink(name), 0);
    inKernel([&] {
        options.file = "/no/such/folder/image";
        EXPECT_THROW(Disk::attach(2048, options), std::system_error);
    });
}

TEST_P(DiskTest, removalWithBiosInFlightIsReportedAndFailsThem)
{
    inKernel([] {
        auto disk = Disk::attach(4096);
        struct block_device *device = host::openDevice(disk->device());
        disk->hold();
        host::WaitQueue queue("the end of a bio");
        int result = 0;
        host::submitAsync({device, 0, 512, READ},
                          [&](int error) { queue.wake([&] { result = error; }); });
        EXPECT_EQ(disk->heldCount(), 1u);
        host::closeDevice(device);
        disk.reset();
        queue.wait([&] { return result != 0; });
        EXPECT_EQ(result, -KERNEL_EIO);
    });
    expectViolation("disk removed with bios in flight");
}

TEST_P(DiskTest, manyTasksShareOneDisk)
{
    inKernel([] {
        OpenDisk open(65536);
        std::vector<host::Task> tasks;
        std::atomic<int> wrong{0};
        for (unsigned t = 0; t < 6; t++) {
            tasks.push_back(host::spawn("worker", [&, t] {
                for (unsigned i = 0; i < 10; i++) {
                    auto data = pattern(16384, t * 10 + i);
                    std::vector<unsigned char> read(data.size());
                    host::writeDevice(open.device, t * 512, data.data(), data.size(), 4096);
                    host::readDevice(open.device, t * 512, read.data(), read.size(), 8192);
                    wrong += read != data;
                }
            }));
        }
        for (host::Task &task : tasks)
            task.join();
        EXPECT_EQ(wrong, 0);
    });
}

} // namespace
