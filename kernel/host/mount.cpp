/* Mounted file systems: super blocks, freezing and thawing. */
#include <host/filesystem.h>

#include <algorithm>
#include <utility>

#include "blockInternal.h"

// One mounted file system.
struct super_block {
    struct rw_semaphore s_umount;
    block_device *s_bdev = nullptr;
    unsigned long s_blocksize = 0;
    int s_count = 1;     // guarded by the registry's guard
    bool s_root = false; // it is mounted; changed under s_umount, taken for writing
    host::FileSystem *fs = nullptr;
    host::FreezeGate *gate = nullptr;
    std::mutex settingsGuard;
    std::function<void()> onFrozen; // guarded by settingsGuard
    std::atomic<int> freezeError{0};
};

namespace host
{

namespace
{

std::mutex registryGuard;
std::vector<super_block *> mounted; // or being mounted
std::vector<super_block *> all;     // also those unmounted that are still referenced

const KernelReset reset([] {
    for (super_block *sb : all)
        delete sb;
    all.clear();
    mounted.clear();
});

super_block *newSuper(block_device *device)
{
    static lock_class_key classKey;
    auto *sb = new super_block;
    init_rwsem_named(&sb->s_umount, "s_umount", &classKey);
    sb->s_bdev = device;
    return sb;
}

// False, and nothing done, if the device has a file system already.
bool addSuper(super_block *sb)
{
    std::lock_guard guard(registryGuard);
    for (const super_block *other : mounted)
        if (other->s_bdev == sb->s_bdev)
            return false;
    mounted.push_back(sb);
    all.push_back(sb);
    return true;
}

void removeSuper(super_block *sb)
{
    std::lock_guard guard(registryGuard);
    mounted.erase(std::find(mounted.begin(), mounted.end(), sb));
}

void freeSuper(super_block *sb)
{
    checkFreed(&sb->s_umount, sizeof(sb->s_umount), "super block");
    delete sb;
}

void putSuper(super_block *sb)
{
    {
        std::lock_guard guard(registryGuard);
        if (--sb->s_count > 0)
            return;
        all.erase(std::find(all.begin(), all.end(), sb));
    }
    freeSuper(sb);
}

super_block *referToSuper(block_device *device)
{
    std::lock_guard guard(registryGuard);
    for (super_block *sb : mounted) {
        if (sb->s_bdev == device) {
            sb->s_count++;
            return sb;
        }
    }
    return nullptr;
}

// Whether somebody besides the mount has a reference.
bool isReferenced(const super_block *sb)
{
    std::lock_guard guard(registryGuard);
    auto found = std::find(all.begin(), all.end(), sb);
    bool isMounted = std::find(mounted.begin(), mounted.end(), sb) != mounted.end();
    return found != all.end() && (*found)->s_count > (isMounted ? 1 : 0);
}

void lockFlag(block_device *device, bool *flag)
{
    device->freezing.wait([flag] { return !std::exchange(*flag, true); });
}

void unlockFlag(block_device *device, bool *flag)
{
    device->freezing.wake([flag] { *flag = false; });
}

super_block *errorPointer(int error)
{
    return reinterpret_cast<super_block *>(static_cast<std::intptr_t>(error));
}

// Everything that is dirty on the device, its own buffers included, is durable afterwards, as for a
// file system that uses barriers.
int syncAll(block_device *device, super_block *sb)
{
    if (sb)
        sb->fs->sync();
    int result = syncDevice(device);
    if (gendisk *disk = device->bd_disk.load(std::memory_order_acquire))
        flushDisk(disk);
    return result;
}

void runFrozenHook(super_block *sb)
{
    std::function<void()> hook;
    {
        std::lock_guard guard(sb->settingsGuard);
        hook = sb->onFrozen;
    }
    if (hook)
        hook();
}

} // namespace

/* The gate. */

struct FreezeGate::Impl {
    WaitQueue queue{"a frozen file system"};
    bool frozen = false; // guarded by `queue`
    unsigned inside = 0; // likewise
};

FreezeGate::FreezeGate() : impl_(std::make_unique<Impl>()) {}

FreezeGate::~FreezeGate() = default;

void FreezeGate::enter()
{
    maySleep("entering a file system");
    impl_->queue.wait([this] {
        if (impl_->frozen)
            return false;
        impl_->inside++;
        return true;
    });
}

void FreezeGate::leave()
{
    impl_->queue.wake([this] { impl_->inside--; });
}

void FreezeGate::freeze()
{
    maySleep("freezing a file system");
    impl_->queue.wake([this] { impl_->frozen = true; });
    impl_->queue.wait([this] { return impl_->inside == 0; });
}

void FreezeGate::thaw()
{
    impl_->queue.wake([this] { impl_->frozen = false; });
}

bool FreezeGate::frozen() const
{
    bool result = false;
    impl_->queue.wake([&] { result = impl_->frozen; });
    return result;
}

/* Mounts. */

struct Mount::Impl {
    std::shared_ptr<FileSystem> fs;
    FreezeGate gate;
    block_device *device = nullptr;
    super_block *sb = nullptr; // set while mounted
};

Mount::Mount(kernel_dev_t number, std::shared_ptr<FileSystem> fs) : impl_(std::make_unique<Impl>())
{
    impl_->fs = std::move(fs);
    block_device *device = openDevice(number);
    if (!device)
        return;
    super_block *sb = newSuper(device);
    sb->fs = impl_->fs.get();
    sb->gate = &impl_->gate;

    lockFlag(device, &device->mountLocked);
    down_write(&sb->s_umount);
    bool added = addSuper(sb);
    if (added) {
        impl_->fs->useGate(impl_->gate);
        sb->s_root = impl_->fs->mount(device);
        if (sb->s_root)
            sb->s_blocksize = impl_->fs->blockSize();
        else
            removeSuper(sb);
    }
    bool isMounted = sb->s_root;
    up_write(&sb->s_umount);
    unlockFlag(device, &device->mountLocked);

    if (isMounted) {
        impl_->device = device;
        impl_->sb = sb;
        return;
    }
    if (added)
        putSuper(sb);
    else
        freeSuper(sb);
    closeDevice(device);
}

Mount::~Mount()
{
    super_block *sb = impl_->sb;
    if (!sb || !Kernel::exists())
        return;
    down_write(&sb->s_umount);
    impl_->fs->unmount();
    sb->s_root = false;
    removeSuper(sb);
    up_write(&sb->s_umount);
    putSuper(sb);
    closeDevice(impl_->device);
}

bool Mount::mounted() const
{
    return impl_->sb != nullptr;
}

block_device *Mount::device() const
{
    return impl_->device;
}

FileSystem &Mount::fileSystem()
{
    return *impl_->fs;
}

FreezeGate &Mount::gate()
{
    return impl_->gate;
}

void Mount::onFrozen(std::function<void()> hook)
{
    if (!impl_->sb)
        return;
    std::lock_guard guard(impl_->sb->settingsGuard);
    impl_->sb->onFrozen = std::move(hook);
}

void Mount::failNextFreeze(int error)
{
    if (impl_->sb)
        impl_->sb->freezeError = error;
}

} // namespace host

using namespace host;

super_block *get_super(block_device *bdev)
{
    maySleep("get_super");
    if (!bdev)
        return nullptr;
    while (super_block *sb = referToSuper(bdev)) {
        down_read(&sb->s_umount);
        if (sb->s_root)
            return sb;
        up_read(&sb->s_umount);
        putSuper(sb);
    }
    return nullptr;
}

void drop_super(super_block *sb)
{
    maySleep("drop_super");
    if (!isReferenced(sb)) {
        reportViolation("drop_super without get_super", "by " + currentName());
        return;
    }
    up_read(&sb->s_umount);
    putSuper(sb);
}

unsigned long sb_blocksize(super_block *sb)
{
    return sb->s_blocksize;
}

int fsync_bdev(block_device *bdev)
{
    maySleep("fsync_bdev");
    if (!bdev)
        return 0;
    super_block *sb = get_super(bdev);
    int result = syncAll(bdev, sb);
    if (sb)
        drop_super(sb);
    return result;
}

super_block *freeze_bdev(block_device *bdev)
{
    maySleep("freeze_bdev");
    lockFlag(bdev, &bdev->freezeLocked);
    if (bdev->bd_fsfreeze_count++ > 0) {
        // The kernel gets it with the lock held, which can lock it up against an unmount.
        unlockFlag(bdev, &bdev->freezeLocked);
        return get_super(bdev);
    }
    lockFlag(bdev, &bdev->mountLocked);
    super_block *sb = get_super(bdev);
    int error = sb ? sb->freezeError.exchange(0) : 0;
    if (sb)
        sb->gate->freeze();
    syncAll(bdev, sb);
    if (error) {
        sb->gate->thaw();
        drop_super(sb);
        bdev->bd_fsfreeze_count--;
        unlockFlag(bdev, &bdev->mountLocked);
        unlockFlag(bdev, &bdev->freezeLocked);
        return errorPointer(error);
    }
    bdev->frozen = sb;
    unlockFlag(bdev, &bdev->freezeLocked);
    if (sb)
        runFrozenHook(sb);
    return sb;
}

int thaw_bdev(block_device *bdev, super_block *sb)
{
    maySleep("thaw_bdev");
    lockFlag(bdev, &bdev->freezeLocked);
    if (bdev->bd_fsfreeze_count == 0) {
        unlockFlag(bdev, &bdev->freezeLocked);
        reportViolation("thaw_bdev without freeze_bdev",
                        deviceName(bdev->bd_dev) + " by " + currentName());
        return -KERNEL_EINVAL;
    }
    if (sb != bdev->frozen) {
        reportViolation("thaw_bdev of another super block than freeze_bdev gave",
                        deviceName(bdev->bd_dev) + " by " + currentName());
        sb = bdev->frozen;
    }
    bool last = --bdev->bd_fsfreeze_count == 0;
    if (last) {
        bdev->frozen = nullptr;
        if (sb)
            sb->gate->thaw();
    }
    if (sb)
        drop_super(sb);
    if (last)
        unlockFlag(bdev, &bdev->mountLocked);
    unlockFlag(bdev, &bdev->freezeLocked);
    return 0;
}
