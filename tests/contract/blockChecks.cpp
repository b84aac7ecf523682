// Block devices and bios.
#include "transfer.h"

namespace
{

const char *openDeviceShowsItsDisk(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->mounted);
    REQUIRE(bdev != nullptr);
    REQUIRE(bdev_dev(bdev) == environment->mounted);
    REQUIRE(bdget(environment->mounted) == bdev);
    struct gendisk *disk = bdev_disk(bdev);
    REQUIRE(disk != nullptr);
    struct block_device *whole = bdev_contains(bdev);
    REQUIRE(whole != nullptr && whole != bdev);
    REQUIRE(bdev_contains(whole) == whole);
    REQUIRE(bdev_disk(whole) == disk);
    int number = static_cast<int>(deviceMinor(environment->mounted)) - disk_first_minor(disk);
    REQUIRE(number > 0 && number < disk_minors(disk));
    REQUIRE(static_cast<int>(deviceMinor(bdev_dev(whole))) == disk_first_minor(disk));
    rcu_read_lock();
    int length = disk_part_tbl_len(disk);
    struct hd_struct *part = number < length ? disk_part(disk, number) : nullptr;
    rcu_read_unlock();
    REQUIRE(part != nullptr);
    REQUIRE(part == bdev_part(bdev));
    REQUIRE(part_start_sect(part) > 0);
    REQUIRE(part_nr_sects(part) > 0);
    REQUIRE(part_start_sect(part) + part_nr_sects(part) <= get_capacity(disk));
    REQUIRE(disk_queue(disk) != nullptr);
    struct hd_struct *all = bdev_part(whole);
    REQUIRE(all != nullptr);
    REQUIRE(part_start_sect(all) == 0);
    REQUIRE(part_nr_sects(all) == get_capacity(disk));
    return nullptr;
}

const char *closedDeviceShowsNone(const Environment *environment)
{
    struct block_device *bdev = bdget(environment->closed);
    REQUIRE(bdev != nullptr);
    REQUIRE(bdev_dev(bdev) == environment->closed);
    REQUIRE(bdev_disk(bdev) == nullptr);
    REQUIRE(bdev_part(bdev) == nullptr);
    REQUIRE(bdev_contains(bdev) == nullptr);
    return nullptr;
}

const char *unknownDeviceIsMadeAndShowsNone(const Environment *environment)
{
    kernel_dev_t number = environment->freeMajor << 20 | 3;
    struct block_device *bdev = bdget(number);
    REQUIRE(bdev != nullptr);
    REQUIRE(bdev_dev(bdev) == number);
    REQUIRE(bdget(number) == bdev);
    REQUIRE(bdev_disk(bdev) == nullptr);
    REQUIRE(bdev_part(bdev) == nullptr);
    REQUIRE(bdev_contains(bdev) == nullptr);
    return nullptr;
}

const char *partitionsLieInsideTheirDisk(const Environment *environment)
{
    struct block_device *whole = bdev_contains(bdget(environment->mounted));
    struct gendisk *disk = bdev_disk(whole);
    unsigned int found = 0;
    sector_t end = 0; // of the last one: they are in the order of the disk
    rcu_read_lock();
    int length = disk_part_tbl_len(disk);
    bool inside = true;
    for (int number = 1; number < length; number++) {
        struct hd_struct *part = disk_part(disk, number);
        if (part == nullptr)
            continue;
        found++;
        inside = inside && part_start_sect(part) >= end;
        end = part_start_sect(part) + part_nr_sects(part);
    }
    rcu_read_unlock();
    REQUIRE(found == 3);
    REQUIRE(inside);
    REQUIRE(end <= get_capacity(disk));
    return nullptr;
}

const char *bioKeepsItsFields(const Environment *environment)
{
    struct bio *bio = bio_alloc(GFP_NOIO, 3);
    struct page *page = alloc_pages(GFP_KERNEL, 0);
    struct block_device *bdev = bdget(environment->mounted);
    REQUIRE(bio != nullptr);
    REQUIRE(page != nullptr);
    REQUIRE(bio_uptodate(bio) != 0);
    bio_set_sector(bio, 0x1234567890ull);
    bio_set_size(bio, 5000);
    bio_set_bdev(bio, bdev);
    bio_set_private(bio, page);
    bio_set_rw(bio, WRITE | 1 << 4);
    bio_set_vcnt(bio, 2);
    bio_set_vec(bio, 1, page, 904, 512);
    REQUIRE(bio_sector(bio) == 0x1234567890ull);
    REQUIRE(bio_size(bio) == 5000);
    REQUIRE(bio_bdev(bio) == bdev);
    REQUIRE(bio_private(bio) == page);
    REQUIRE(bio_rw(bio) == WRITE);
    bio_set_rw(bio, READA);
    REQUIRE(bio_rw(bio) == READA);
    REQUIRE(bio_vcnt(bio) == 2);
    REQUIRE(bio_vec_page(bio, 1) == page);
    REQUIRE(bio_vec_length(bio, 1) == 904);
    REQUIRE(bio_vec_offset(bio, 1) == 512);
    bio_get(bio);
    bio_put(bio);
    REQUIRE(bio_sector(bio) == 0x1234567890ull);
    bio_set_eopnotsupp(bio);
    bio_put(bio);
    __free_pages(page, 0);
    return nullptr;
}

const char *whatIsWrittenIsRead(const Environment *environment)
{
    static Transfer out;
    static Transfer in;
    struct block_device *bdev = bdget(environment->unmounted);
    REQUIRE_HELD(out.begin(bdev, 16, WRITE));
    for (unsigned int i = 0; i < PAGE_SIZE; i++)
        out.bytes()[i] = static_cast<unsigned char>(i * 13 + i / 256);
    generic_make_request(out.bio);
    REQUIRE_HELD(out.succeeded());
    REQUIRE_HELD(in.begin(bdev, 16, READ));
    generic_make_request(in.bio);
    REQUIRE_HELD(in.succeeded());
    REQUIRE(in.sameBytes(&out));
    in.finish();
    out.finish();
    return nullptr;
}

const char *bioBeyondTheEndFails(const Environment *environment)
{
    static Transfer transfer;
    struct block_device *bdev = bdget(environment->mounted);
    struct gendisk *disk = bdev_disk(bdev);
    const struct {
        struct block_device *bdev;
        sector_t sectors;
    } devices[] = {{bdev_contains(bdev), get_capacity(disk)},
                   {bdev, part_nr_sects(bdev_part(bdev))}};
    for (const auto &device : devices) {
        const sector_t sectors[] = {device.sectors, device.sectors - 1, device.sectors + 4096,
                                    ~sector_t{0} >> 1};
        for (sector_t sector : sectors) {
            REQUIRE_HELD(transfer.begin(device.bdev, sector, READ));
            generic_make_request(transfer.bio);
            REQUIRE_HELD(transfer.failed());
            transfer.finish();
        }
        REQUIRE_HELD(transfer.begin(device.bdev, device.sectors - PAGE_SIZE / 512, READ));
        generic_make_request(transfer.bio);
        REQUIRE_HELD(transfer.succeeded());
        transfer.finish();
    }
    return nullptr;
}

struct Together {
    Transfer transfers[3];
    int calls;
    const char *failure;
};

void submitAllAndWaitForOne(void *data)
{
    auto *together = static_cast<Together *>(data);
    together->calls++;
    for (Transfer &transfer : together->transfers)
        generic_make_request(transfer.bio);
    together->failure = together->transfers[1].succeeded();
}

// Also one that is waited for before all are submitted.
const char *biosSubmittedTogetherEnd(const Environment *environment)
{
    static Together together;
    struct block_device *bdev = bdget(environment->mounted);
    together.calls = 0;
    for (unsigned int i = 0; i < 3; i++)
        REQUIRE_HELD(together.transfers[i].begin(bdev, 8 + i * (PAGE_SIZE / 512), READ));
    submit_together(submitAllAndWaitForOne, &together);
    REQUIRE(together.calls == 1);
    REQUIRE_HELD(together.failure);
    REQUIRE_HELD(together.transfers[0].succeeded());
    REQUIRE_HELD(together.transfers[2].succeeded());
    for (Transfer &transfer : together.transfers)
        transfer.finish();
    return nullptr;
}

void endedForGood(struct bio *bio, int)
{
    auto *done = static_cast<struct completion *>(bio_private(bio));
    bio_put(bio);
    complete(done);
}

const char *bioMayBeFreedAsItEnds(const Environment *environment)
{
    static Transfer transfer;
    REQUIRE_HELD(transfer.begin(bdget(environment->mounted), 8, READ));
    bio_set_private(transfer.bio, &transfer.done);
    bio_set_end_io(transfer.bio, endedForGood);
    generic_make_request(transfer.bio);
    wait_for_completion(&transfer.done);
    __free_pages(transfer.page, 0);
    return nullptr;
}

const char *bioLivesUntilItsLastReference(const Environment *environment)
{
    static Transfer transfer;
    REQUIRE_HELD(transfer.begin(bdget(environment->mounted), 8, READ));
    bio_set_private(transfer.bio, &transfer.done);
    bio_set_end_io(transfer.bio, endedForGood);
    bio_get(transfer.bio);
    generic_make_request(transfer.bio);
    wait_for_completion(&transfer.done);
    REQUIRE(bio_private(transfer.bio) == &transfer.done);
    REQUIRE(bio_uptodate(transfer.bio) != 0);
    REQUIRE(bio_vec_page(transfer.bio, 0) == transfer.page);
    transfer.finish();
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"openDeviceShowsItsDisk", openDeviceShowsItsDisk},
    {"closedDeviceShowsNone", closedDeviceShowsNone},
    {"unknownDeviceIsMadeAndShowsNone", unknownDeviceIsMadeAndShowsNone},
    {"partitionsLieInsideTheirDisk", partitionsLieInsideTheirDisk},
    {"bioKeepsItsFields", bioKeepsItsFields},
    {"whatIsWrittenIsRead", whatIsWrittenIsRead},
    {"bioBeyondTheEndFails", bioBeyondTheEndFails},
    {"biosSubmittedTogetherEnd", biosSubmittedTogetherEnd},
    {"bioMayBeFreedAsItEnds", bioMayBeFreedAsItEnds},
    {"bioLivesUntilItsLastReference", bioLivesUntilItsLastReference},
};

} // namespace

constinit const struct ContractSubject blockContract = subjectOf(checks);
