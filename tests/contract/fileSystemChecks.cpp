// Mounted file systems: finding, flushing and freezing them.
#include <kernel/fs.h>

#include "transfer.h"

namespace
{

const char *mountedDeviceHasASuperBlock(const Environment *environment)
{
    struct super_block *sb = get_super(bdget(environment->mounted));
    REQUIRE(sb != nullptr);
    unsigned long size = sb_blocksize(sb);
    REQUIRE(size == 512 || size == 1024 || size == 2048 || size == 4096);
    drop_super(sb);
    REQUIRE(get_super(bdget(environment->mounted)) == sb);
    drop_super(sb);
    return nullptr;
}

const char *otherDevicesHaveNone(const Environment *environment)
{
    REQUIRE(get_super(nullptr) == nullptr);
    REQUIRE(get_super(bdget(environment->unmounted)) == nullptr);
    REQUIRE(get_super(bdget(environment->closed)) == nullptr);
    return nullptr;
}

const char *frozenDeviceThaws(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->mounted);
    struct super_block *mounted = get_super(bdev);
    REQUIRE(mounted != nullptr);
    drop_super(mounted);
    for (unsigned int i = 0; i < 3; i++) {
        struct super_block *sb = freeze_bdev(bdev);
        REQUIRE(sb == mounted);
        REQUIRE(thaw_bdev(bdev, sb) == 0);
    }
    return nullptr;
}

// Another task, which holds the super block or the freeze as the calling one does.
struct Other {
    struct block_device *bdev;
    struct super_block *sb;
    int thawed;
    struct completion taken;
    struct completion go;
    Thread thread;
};

void holdSuperBlock(void *argument)
{
    auto *other = static_cast<Other *>(argument);
    other->sb = get_super(other->bdev);
    complete(&other->taken);
    wait_for_completion(&other->go);
    if (other->sb != nullptr)
        drop_super(other->sb);
}

void holdFrozen(void *argument)
{
    auto *other = static_cast<Other *>(argument);
    other->sb = freeze_bdev(other->bdev);
    complete(&other->taken);
    wait_for_completion(&other->go);
    other->thawed = thaw_bdev(other->bdev, other->sb);
}

const char *begin(Other *other, struct block_device *bdev, void (*body)(void *))
{
    other->bdev = bdev;
    init_completion(&other->taken);
    init_completion(&other->go);
    REQUIRE(other->thread.start(body, other));
    return nullptr;
}

const char *superBlockIsHeldByAnyNumber(const Environment *environment)
{
    static Other other;
    struct block_device *bdev = bdget(environment->mounted);
    struct super_block *sb = get_super(bdev);
    REQUIRE(sb != nullptr);
    REQUIRE_HELD(begin(&other, bdev, holdSuperBlock));
    wait_for_completion(&other.taken);
    drop_super(sb);
    complete(&other.go);
    other.thread.join();
    REQUIRE(other.sb == sb);
    return nullptr;
}

const char *freezesNest(const Environment *environment)
{
    static Other other;
    struct block_device *bdev = bdget(environment->mounted);
    struct super_block *sb = freeze_bdev(bdev);
    REQUIRE(sb != nullptr);
    REQUIRE_HELD(begin(&other, bdev, holdFrozen));
    wait_for_completion(&other.taken);
    REQUIRE(thaw_bdev(bdev, sb) == 0);
    REQUIRE(freeze_bdev(bdev) == sb);
    complete(&other.go);
    other.thread.join();
    REQUIRE(other.sb == sb);
    REQUIRE(other.thawed == 0);
    REQUIRE(thaw_bdev(bdev, sb) == 0);
    return nullptr;
}

const char *frozenDeviceIsReadAndWritten(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    struct super_block *sb = freeze_bdev(bdev);
    REQUIRE(sb != nullptr);
    // A block that is written back as it is.
    REQUIRE_HELD(transfer.begin(bdev, 0, READ));
    generic_make_request(transfer.bio);
    REQUIRE_HELD(transfer.succeeded());
    bio_put(transfer.bio);
    struct page *page = transfer.page;
    REQUIRE_HELD(transfer.begin(bdev, 0, WRITE));
    for (unsigned int i = 0; i < PAGE_SIZE; i++)
        transfer.bytes()[i] = static_cast<unsigned char *>(page_address(page))[i];
    generic_make_request(transfer.bio);
    REQUIRE_HELD(transfer.succeeded());
    transfer.finish();
    __free_pages(page, 0);
    REQUIRE(thaw_bdev(bdev, sb) == 0);
    return nullptr;
}

const char *freezingAnUnmountedDeviceOwesAThaw(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->unmounted);
    for (unsigned int i = 0; i < 3; i++) {
        REQUIRE(freeze_bdev(bdev) == nullptr);
        REQUIRE(thaw_bdev(bdev, nullptr) == 0);
    }
    return nullptr;
}

const char *devicesAreFlushed(const Environment *environment)
{
    REQUIRE(fsync_bdev(bdget(environment->mounted)) == 0);
    REQUIRE(fsync_bdev(bdget(environment->unmounted)) == 0);
    REQUIRE(fsync_bdev(nullptr) == 0);
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"mountedDeviceHasASuperBlock", mountedDeviceHasASuperBlock},
    {"otherDevicesHaveNone", otherDevicesHaveNone},
    {"frozenDeviceThaws", frozenDeviceThaws},
    {"superBlockIsHeldByAnyNumber", superBlockIsHeldByAnyNumber},
    {"freezesNest", freezesNest},
    {"frozenDeviceIsReadAndWritten", frozenDeviceIsReadAndWritten},
    {"freezingAnUnmountedDeviceOwesAThaw", freezingAnUnmountedDeviceOwesAThaw},
    {"devicesAreFlushed", devicesAreFlushed},
};

} // namespace

constinit const struct ContractSubject fileSystemContract = subjectOf(checks);
