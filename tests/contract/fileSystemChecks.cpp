// Mounted file systems: finding, flushing and freezing them.
#include <kernel/block.h>
#include <kernel/fs.h>

#include "contract.h"

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
    {"freezingAnUnmountedDeviceOwesAThaw", freezingAnUnmountedDeviceOwesAThaw},
    {"devicesAreFlushed", devicesAreFlushed},
};

} // namespace

constinit const struct ContractSubject fileSystemContract = subjectOf(checks);
