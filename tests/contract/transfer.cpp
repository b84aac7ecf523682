#include "transfer.h"

namespace
{

void transferEnded(struct bio *bio, int error)
{
    auto *transfer = static_cast<Transfer *>(bio_private(bio));
    transfer->error = error;
    transfer->left = bio_size(bio);
    transfer->uptodate = bio_uptodate(bio);
    complete(&transfer->done);
}

} // namespace

const char *Transfer::begin(struct block_device *bdev, sector_t sector, unsigned long rw)
{
    init_completion(&done);
    page = alloc_pages(GFP_KERNEL, 0);
    REQUIRE(page != nullptr);
    bio = bio_alloc(GFP_KERNEL, 1);
    REQUIRE(bio != nullptr);
    bio_set_bdev(bio, bdev);
    bio_set_sector(bio, sector);
    bio_set_rw(bio, rw);
    bio_set_vec(bio, 0, page, PAGE_SIZE, 0);
    bio_set_vcnt(bio, 1);
    bio_set_idx(bio, 0);
    bio_set_size(bio, PAGE_SIZE);
    bio_set_private(bio, this);
    bio_set_end_io(bio, transferEnded);
    return nullptr;
}

const char *Transfer::succeeded()
{
    wait_for_completion(&done);
    REQUIRE(error == 0);
    REQUIRE(left == 0);
    REQUIRE(uptodate != 0);
    return nullptr;
}

const char *Transfer::failed()
{
    wait_for_completion(&done);
    REQUIRE(error == -KERNEL_EIO);
    REQUIRE(uptodate == 0);
    return nullptr;
}

void Transfer::finish()
{
    bio_put(bio);
    __free_pages(page, 0);
}

unsigned char *Transfer::bytes()
{
    return static_cast<unsigned char *>(page_address(page));
}

bool Transfer::sameBytes(Transfer *other)
{
    for (unsigned int i = 0; i < PAGE_SIZE; i++)
        if (bytes()[i] != other->bytes()[i])
            return false;
    return true;
}
