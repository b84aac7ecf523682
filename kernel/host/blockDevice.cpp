/* Block devices by number, their opening and closing, their disks and partitions. */
#include "blockInternal.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core.h"
#include "partitionTable.h"

namespace host
{

namespace
{

std::mutex registryGuard;
std::map<kernel_dev_t, block_device *> devices;
std::vector<gendisk *> disks;

const KernelReset reset([] {
    for (const auto &entry : devices)
        delete entry.second;
    devices.clear();
    disks.clear();
});

gendisk *findDisk(kernel_dev_t device, int *partition)
{
    std::lock_guard guard(registryGuard);
    for (gendisk *disk : disks) {
        int number = static_cast<int>(deviceMinor(device)) - disk->first_minor;
        if (deviceMajor(disk->device) == deviceMajor(device) && number >= 0 &&
            number < disk->minors) {
            *partition = number;
            return disk;
        }
    }
    return nullptr;
}

bool isWholeDisk(kernel_dev_t device)
{
    int partition = -1;
    return findDisk(device, &partition) && partition == 0;
}

// With one reference more. `made` is used if the device was not known.
block_device *lookUp(kernel_dev_t device, std::unique_ptr<block_device> *made)
{
    std::lock_guard guard(registryGuard);
    auto found = devices.find(device);
    if (found == devices.end()) {
        if (!made)
            return nullptr;
        found = devices.emplace(device, made->release()).first;
    }
    found->second->references.fetch_add(1, std::memory_order_relaxed);
    return found->second;
}

void clearDisk(block_device *device)
{
    device->bd_part.store(nullptr, std::memory_order_release);
    device->bd_disk.store(nullptr, std::memory_order_release);
    device->bd_contains.store(nullptr, std::memory_order_release);
}

int openLocked(block_device *device, bool forPartition);
void closeLocked(block_device *device, bool forPartition);

// The first open of a partition: opens its whole disk too.
int openPartition(block_device *device, gendisk *disk, int number)
{
    block_device *whole = findDevice(disk->device);
    int result = openLocked(whole, true);
    if (result)
        return result;
    device->bd_contains.store(whole, std::memory_order_release);
    hd_struct *part = number < disk->part_tbl_len ? disk->part_tbl[number].load() : nullptr;
    if (!part || part->nr_sects == 0) {
        clearDisk(device);
        closeLocked(whole, true);
        return -KERNEL_ENXIO;
    }
    device->bd_part.store(part, std::memory_order_release);
    device->sectors.store(part->nr_sects, std::memory_order_relaxed);
    return 0;
}

// Uses up the caller's reference if it fails.
int openLocked(block_device *device, bool forPartition)
{
    int number = 0;
    gendisk *disk = findDisk(device->bd_dev, &number);
    if (!disk) {
        putDevice(device);
        return -KERNEL_ENXIO;
    }
    mutex_lock(&device->bd_mutex);
    int result = 0;
    if (device->bd_openers == 0) {
        device->bd_disk.store(disk, std::memory_order_release);
        device->bd_contains.store(device, std::memory_order_release);
        if (number == 0) {
            device->bd_part.store(&disk->part0, std::memory_order_release);
            device->sectors.store(disk->capacity, std::memory_order_relaxed);
        } else {
            result = openPartition(device, disk, number);
        }
    }
    if (result == 0 && number == 0 && device->bd_invalidated)
        rescanPartitions(disk, device);
    if (result == 0) {
        device->bd_openers++;
        if (forPartition)
            device->bd_part_count++;
    } else {
        clearDisk(device);
    }
    mutex_unlock(&device->bd_mutex);
    if (result)
        putDevice(device);
    return result;
}

void closeLocked(block_device *device, bool forPartition)
{
    block_device *whole = nullptr;
    mutex_lock(&device->bd_mutex);
    if (forPartition)
        device->bd_part_count--;
    if (--device->bd_openers == 0) {
        syncDevice(device);
        block_device *contains = device->bd_contains.load(std::memory_order_relaxed);
        if (contains != device)
            whole = contains;
        clearDisk(device);
    }
    mutex_unlock(&device->bd_mutex);
    putDevice(device);
    if (whole)
        closeLocked(whole, true);
}

void addPartition(gendisk *disk, const Partition &partition)
{
    if (partition.number >= static_cast<unsigned>(disk->minors) ||
        partition.start >= disk->capacity)
        return;
    disk->parts.push_back(std::make_unique<hd_struct>());
    hd_struct *part = disk->parts.back().get();
    part->start_sect = partition.start;
    part->nr_sects = std::min<sector_t>(partition.sectors, disk->capacity - partition.start);
    disk->part_tbl[partition.number] = part;
    disk->part_tbl_len =
        std::max(disk->part_tbl_len.load(), static_cast<int>(partition.number) + 1);
}

} // namespace

std::string deviceName(kernel_dev_t device)
{
    return std::to_string(deviceMajor(device)) + ":" + std::to_string(deviceMinor(device));
}

void holdDevice(block_device *device)
{
    device->references.fetch_add(1, std::memory_order_relaxed);
}

void putDevice(block_device *device)
{
    {
        std::lock_guard guard(registryGuard);
        if (device->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
            return;
        devices.erase(device->bd_dev);
    }
    delete device;
}

block_device *findDevice(kernel_dev_t device)
{
    if (block_device *known = lookUp(device, nullptr))
        return known;
    auto made = std::make_unique<block_device>(device, isWholeDisk(device));
    return lookUp(device, &made);
}

int openBlockDevice(block_device *device)
{
    maySleep("open of a block device");
    return openLocked(device, false);
}

int rescanPartitions(gendisk *disk, block_device *whole)
{
    if (whole->bd_part_count)
        return -KERNEL_EBUSY;
    int result = syncDevice(whole);
    std::vector<hd_struct *> deleted;
    for (int number = 1; number < disk->part_tbl_len; number++)
        if (hd_struct *part = disk->part_tbl[number].exchange(nullptr))
            deleted.push_back(part);
    waitForReaders();
    for (hd_struct *part : deleted)
        *part = {0, 0, true};
    whole->bd_invalidated = false;
    if (result)
        return result;
    // The kernel reads by pages.
    std::array<unsigned char, PAGE_SIZE> start{};
    auto bytes = static_cast<std::uint32_t>(std::min<sector_t>(PAGE_SIZE, disk->capacity << 9));
    result = submitAndWait({whole, 0, bytes, READ, start.data()});
    if (result)
        return result;
    BootSector sector;
    std::memcpy(sector.data(), start.data(), sector.size());
    for (const Partition &partition : parsePartitionTable(sector))
        addPartition(disk, partition);
    return 0;
}

void addDisk(gendisk *disk)
{
    {
        std::lock_guard guard(registryGuard);
        disks.push_back(disk);
    }
    if (disk->minors == 1)
        return;
    block_device *whole = findDevice(disk->device);
    mutex_lock(&whole->bd_mutex);
    whole->bd_invalidated = true;
    mutex_unlock(&whole->bd_mutex);
    if (openBlockDevice(whole) == 0)
        closeDevice(whole);
}

void removeDisk(gendisk *disk)
{
    std::lock_guard guard(registryGuard);
    disks.erase(std::remove(disks.begin(), disks.end(), disk), disks.end());
    for (const auto &entry : devices)
        if (entry.second->bd_disk.load(std::memory_order_acquire) == disk) {
            reportViolation("disk removed while open", deviceName(entry.first));
            clearDisk(entry.second);
        }
}

std::vector<std::string> frozenDevices()
{
    std::vector<std::string> result;
    std::lock_guard guard(registryGuard);
    for (const auto &entry : devices)
        if (entry.second->bd_fsfreeze_count != 0)
            result.push_back(deviceName(entry.first));
    return result;
}

block_device *openDevice(kernel_dev_t device)
{
    block_device *found = findDevice(device);
    return openBlockDevice(found) == 0 ? found : nullptr;
}

void closeDevice(block_device *device)
{
    maySleep("close of a block device");
    closeLocked(device, false);
}

} // namespace host

using namespace host;

block_device::block_device(kernel_dev_t number, bool whole) : bd_dev(number)
{
    // A partition's is taken before its whole disk's: the kernel tells them apart by a subclass.
    initMutex(&bd_mutex, whole ? "bd_mutex of a disk" : "bd_mutex of a partition");
}

block_device::~block_device()
{
    checkFreed(&bd_mutex, sizeof(bd_mutex), "block device");
}

block_device *bdget(kernel_dev_t device)
{
    maySleep("bdget");
    return findDevice(device);
}

kernel_dev_t bdev_dev(block_device *bdev)
{
    return bdev->bd_dev;
}

gendisk *bdev_disk(block_device *bdev)
{
    return bdev->bd_disk.load(std::memory_order_acquire);
}

hd_struct *bdev_part(block_device *bdev)
{
    return bdev->bd_part.load(std::memory_order_acquire);
}

block_device *bdev_contains(block_device *bdev)
{
    return bdev->bd_contains.load(std::memory_order_acquire);
}

struct mutex *bdev_mutex(block_device *bdev)
{
    return &bdev->bd_mutex;
}

request_queue *disk_queue(gendisk *disk)
{
    return disk->queue;
}

int disk_first_minor(gendisk *disk)
{
    return disk->first_minor;
}

int disk_minors(gendisk *disk)
{
    return disk->minors;
}

int disk_part_tbl_len(gendisk *disk)
{
    return disk->part_tbl_len;
}

hd_struct *disk_part(gendisk *disk, int number)
{
    if (requireTask("disk_part").rcuDepth == 0)
        reportViolation("partition table outside of rcu_read_lock",
                        "disk_part by " + currentName());
    if (number < 0 || number >= disk->part_tbl_len) {
        reportViolation("partition table overrun",
                        "slot " + std::to_string(number) + " by " + currentName());
        return nullptr;
    }
    hd_struct *part = disk->part_tbl[number];
    pointOfSwitch(); // it may be taken out of the table before it is looked at
    return part;
}

sector_t get_capacity(gendisk *disk)
{
    return disk->capacity;
}

static hd_struct *checkedPart(hd_struct *part, const char *function)
{
    if (part->deleted)
        reportViolation("use of a deleted partition",
                        std::string(function) + " by " + currentName());
    return part;
}

sector_t part_start_sect(hd_struct *part)
{
    return checkedPart(part, "part_start_sect")->start_sect;
}

sector_t part_nr_sects(hd_struct *part)
{
    return checkedPart(part, "part_nr_sects")->nr_sects;
}
