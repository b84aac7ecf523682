#include <atomic>
#include <functional>

#include <host/block.h>
#include <host/filesystem.h>
#include <host/task.h>

#include "kernel/host/blockInternal.h"
#include "support/hostTest.h"

namespace
{

using host::Disk;
using host::FreezeGate;
using host::Mount;

class MountTest : public test::SchedulerTest
{
};
INSTANTIATE_SCHEDULERS(MountTest);

// A file system that counts what is done to it.
class CountingFs : public host::FileSystem
{
public:
    explicit CountingFs(unsigned blockSize = 1024) : blockSize_(blockSize) {}
    unsigned blockSize() const override { return blockSize_; }
    void useGate(FreezeGate &gate) override { gate_ = &gate; }
    bool mount(struct block_device *device) override
    {
        mounts++;
        device_ = device;
        return accept;
    }
    void sync() override
    {
        syncs++;
        frozenAtSync = gate_->frozen();
        if (onSync)
            onSync();
    }
    void unmount() override { unmounts++; }

    bool accept = true;
    int mounts = 0, syncs = 0, unmounts = 0;
    bool frozenAtSync = false;
    std::function<void()> onSync;
    struct block_device *device_ = nullptr;

private:
    unsigned blockSize_;
    FreezeGate *gate_ = nullptr;
};

void inOtherTask(const std::function<void()> &body)
{
    host::spawn("other", body).join();
}

struct Machine {
    Machine() : disk(Disk::attach(4096)), fs(std::make_shared<CountingFs>())
    {
        disk->partition({{1, 63, 1000}, {2, 2000, 1000}});
        mount = std::make_unique<Mount>(disk->device(1), fs);
        device = bdget(disk->device(1)); // known for longer than it is mounted
    }
    std::unique_ptr<Disk> disk;
    std::shared_ptr<CountingFs> fs;
    std::unique_ptr<Mount> mount;
    struct block_device *device;
};

TEST_P(MountTest, theSuperBlockIsFoundWhileMounted)
{
    inKernel([] {
        Machine machine;
        ASSERT_TRUE(machine.mount->mounted());
        EXPECT_EQ(bdev_dev(machine.device), machine.disk->device(1));
        struct super_block *sb = get_super(machine.device);
        ASSERT_NE(sb, nullptr);
        EXPECT_EQ(sb_blocksize(sb), 1024u);
        inOtherTask([&] {
            struct super_block *again = get_super(bdget(machine.disk->device(1)));
            EXPECT_EQ(again, sb);
            drop_super(again);
        });
        drop_super(sb);
        EXPECT_EQ(get_super(nullptr), nullptr);
        EXPECT_EQ(get_super(bdget(machine.disk->device(2))), nullptr);

        machine.mount.reset();
        EXPECT_EQ(machine.fs->unmounts, 1);
        EXPECT_EQ(get_super(machine.device), nullptr);
        EXPECT_EQ(bdev_disk(bdget(machine.disk->device(1))), nullptr);
    });
}

TEST_P(MountTest, aDeviceHoldsOneFileSystem)
{
    inKernel([] {
        Machine machine;
        Mount second(machine.disk->device(1), std::make_shared<CountingFs>());
        EXPECT_FALSE(second.mounted());
        EXPECT_EQ(second.device(), nullptr);
        Mount nowhere(machine.disk->device(4), std::make_shared<CountingFs>());
        EXPECT_FALSE(nowhere.mounted());
        auto refusing = std::make_shared<CountingFs>();
        refusing->accept = false;
        Mount refused(machine.disk->device(2), refusing);
        EXPECT_FALSE(refused.mounted());
        EXPECT_EQ(get_super(bdget(machine.disk->device(2))), nullptr);
        EXPECT_EQ(bdev_disk(bdget(machine.disk->device(2))), nullptr);
    });
}

TEST_P(MountTest, unmountingWaitsForReferences)
{
    inKernel([] {
        Machine machine;
        struct super_block *sb = get_super(machine.device);
        host::Task unmounter = host::spawn("unmounter", [&] { machine.mount.reset(); });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_EQ(machine.fs->unmounts, 0);
        drop_super(sb);
        unmounter.join();
        EXPECT_EQ(machine.fs->unmounts, 1);
    });
}

TEST_P(MountTest, aFreezeFlushesAndHoldsWriters)
{
    inKernel([] {
        Machine machine;
        std::atomic<int> written{0};
        unsigned char dirty[512] = {5}, read = 0;
        host::writeBuffered(machine.device, 7, dirty, sizeof(dirty));
        int frozenHooks = 0;
        machine.mount->onFrozen([&] {
            frozenHooks++;
            EXPECT_EQ(machine.fs->syncs, 1);
            EXPECT_TRUE(machine.mount->gate().frozen());
        });
        struct super_block *sb = freeze_bdev(machine.device);
        ASSERT_NE(sb, nullptr);
        EXPECT_EQ(frozenHooks, 1);
        EXPECT_TRUE(machine.fs->frozenAtSync);
        machine.disk->peek(63 + 7, &read, 1);
        EXPECT_EQ(read, 5);
        EXPECT_EQ(host::frozenDevices(), std::vector<std::string>{"8:1"});

        host::Task writer = host::spawn("writer", [&] {
            host::WriterScope scope(machine.mount->gate());
            written++;
        });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_EQ(written, 0);
        EXPECT_EQ(thaw_bdev(machine.device, sb), 0);
        writer.join();
        EXPECT_EQ(written, 1);
        EXPECT_FALSE(machine.mount->gate().frozen());
        EXPECT_TRUE(host::frozenDevices().empty());
        machine.mount->onFrozen({});
        thaw_bdev(machine.device, freeze_bdev(machine.device));
        EXPECT_EQ(frozenHooks, 1);
    });
}

TEST_P(MountTest, aFreezeWaitsForWritersInside)
{
    inKernel([] {
        Machine machine;
        std::atomic<bool> frozen{false};
        machine.mount->gate().enter();
        host::Task freezer = host::spawn("freezer", [&] {
            struct super_block *sb = freeze_bdev(machine.device);
            frozen = true;
            thaw_bdev(machine.device, sb);
        });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_FALSE(frozen);
        EXPECT_EQ(machine.fs->syncs, 0);
        machine.mount->gate().leave();
        freezer.join();
        EXPECT_TRUE(frozen);
    });
}

TEST_P(MountTest, whatWasWrittenBeforeAFreezeSurvivesACrash)
{
    for (unsigned round = 0; round < 6; round++) {
        inKernel([] {
            Machine machine;
            std::vector<unsigned char> data(65536, 0x77), read(data.size());
            machine.fs->onSync = [&] {
                EXPECT_EQ(host::writeDevice(machine.device, 100, data.data(), data.size()), 0);
            };
            thaw_bdev(machine.device, freeze_bdev(machine.device));
            machine.disk->crash();
            machine.disk->peek(163, read.data(), read.size());
            EXPECT_EQ(read, data);
        });
    }
}

TEST_P(MountTest, freezesNest)
{
    inKernel([] {
        Machine machine;
        struct super_block *outer = freeze_bdev(machine.device);
        inOtherTask([&] {
            struct super_block *inner = freeze_bdev(machine.device);
            EXPECT_EQ(inner, outer);
            EXPECT_EQ(machine.fs->syncs, 1);
            EXPECT_EQ(thaw_bdev(machine.device, inner), 0);
        });
        EXPECT_TRUE(machine.mount->gate().frozen());
        EXPECT_EQ(thaw_bdev(machine.device, outer), 0);
        EXPECT_FALSE(machine.mount->gate().frozen());
    });
}

TEST_P(MountTest, anUnmountedDeviceFreezesToNothingAndOwesAThaw)
{
    inKernel([] {
        Machine machine;
        struct block_device *device = bdget(machine.disk->device(2));
        EXPECT_EQ(freeze_bdev(device), nullptr);
        EXPECT_EQ(host::frozenDevices(), std::vector<std::string>{"8:2"});
        // Nothing can be mounted meanwhile.
        std::atomic<bool> mounted{false};
        host::Task mounter = host::spawn("mounter", [&] {
            Mount mount(machine.disk->device(2), std::make_shared<CountingFs>());
            mounted = mount.mounted();
        });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_FALSE(mounted);
        EXPECT_EQ(thaw_bdev(device, nullptr), 0);
        mounter.join();
        EXPECT_TRUE(mounted);
    });
}

TEST_P(MountTest, unmountingWaitsForTheThaw)
{
    inKernel([] {
        Machine machine;
        struct super_block *sb = freeze_bdev(machine.device);
        host::Task unmounter = host::spawn("unmounter", [&] { machine.mount.reset(); });
        for (unsigned i = 0; i < 20; i++)
            host::yield();
        EXPECT_EQ(machine.fs->unmounts, 0);
        EXPECT_EQ(thaw_bdev(machine.device, sb), 0);
        unmounter.join();
        EXPECT_EQ(machine.fs->unmounts, 1);
    });
}

TEST_P(MountTest, aFailedFreezeGivesAnErrorPointerAndFreezesNothing)
{
    inKernel([] {
        Machine machine;
        machine.mount->failNextFreeze(-KERNEL_EIO);
        struct super_block *sb = freeze_bdev(machine.device);
        EXPECT_EQ(reinterpret_cast<std::intptr_t>(sb), -KERNEL_EIO);
        EXPECT_FALSE(machine.mount->gate().frozen());
        EXPECT_TRUE(IS_ERR(sb));
        sb = freeze_bdev(machine.device);
        EXPECT_FALSE(IS_ERR(sb) || IS_ERR(nullptr));
        EXPECT_TRUE(machine.mount->gate().frozen());
        EXPECT_EQ(thaw_bdev(machine.device, sb), 0);
    });
}

TEST_P(MountTest, fsyncWritesTheFileSystemAndTheDevicesBuffers)
{
    inKernel([] {
        Machine machine;
        unsigned char data[512] = {8}, read = 0;
        host::writeBuffered(machine.device, 1, data, sizeof(data));
        EXPECT_EQ(fsync_bdev(machine.device), 0);
        EXPECT_EQ(machine.fs->syncs, 1);
        machine.disk->peek(64, &read, 1);
        EXPECT_EQ(read, 8);
        EXPECT_EQ(fsync_bdev(nullptr), 0);
        EXPECT_EQ(fsync_bdev(bdget(machine.disk->device(2))), 0);

        host::writeBuffered(machine.device, 1, data, sizeof(data));
        machine.disk->failSectors(64, 1, false, true);
        EXPECT_EQ(fsync_bdev(machine.device), -KERNEL_EIO);
    });
}

TEST_P(MountTest, unpairedCallsAreReported)
{
    inKernel([] {
        Machine machine;
        EXPECT_EQ(thaw_bdev(machine.device, nullptr), -KERNEL_EINVAL);
    });
    expectViolation("thaw_bdev without freeze_bdev");
    inKernel([] {
        Machine machine;
        struct super_block *sb = get_super(machine.device);
        drop_super(sb);
        drop_super(sb);
    });
    expectViolation("drop_super without get_super");
    inKernel([] {
        Machine machine;
        freeze_bdev(machine.device);
        EXPECT_EQ(thaw_bdev(machine.device, nullptr), 0);
    });
    expectViolation("thaw_bdev of another super block");
}

TEST_P(MountTest, freezingInAtomicContextIsReported)
{
    inKernel([] {
        Machine machine;
        struct super_block *sb = nullptr;
        host::runInInterrupt([&] { sb = get_super(machine.device); });
        drop_super(sb);
    });
    expectViolation("sleep in atomic context");
}

} // namespace
