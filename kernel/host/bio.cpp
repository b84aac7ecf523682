/* Bios: allocation, reference counts, fields and their end. */
#include "blockInternal.h"

namespace host
{

namespace
{

constexpr int maxVectors = 256;

Graveyard<bio> graveyard;
const KernelReset reset([] { graveyard.clear(); });

bio *checked(bio *record, const char *function)
{
    checkAlive(record, bioAlive, function);
    return record;
}

} // namespace

bio *allocateBio(unsigned vectors, bool ofModule)
{
    auto *record = new bio;
    record->ofModule = ofModule;
    record->bi_max_vecs = static_cast<unsigned short>(vectors);
    record->bi_io_vec = std::make_unique<bio_vec[]>(vectors);
    return record;
}

void endBio(bio *record, int error)
{
    if (error)
        record->uptodate = false;
    else if (!record->uptodate)
        error = -KERNEL_EIO;
    record->flight.store(Flight::none, std::memory_order_relaxed);
    runInInterrupt([&] {
        if (record->bi_end_io)
            record->bi_end_io(record, error);
    });
}

} // namespace host

using namespace host;

bio *bio_alloc(gfp_t gfp, int vectors)
{
    switchPoint();
    checkAllocation(gfp, "bio_alloc");
    if (faultHits(Fault::bio) || vectors < 0 || vectors > maxVectors)
        return nullptr;
    bio *record = allocateBio(static_cast<unsigned>(vectors), true);
    hold(record->held, HeldKind::bio, sizeof(bio), __builtin_return_address(0));
    return record;
}

void bio_get(bio *record)
{
    if (checkAlive(record, bioAlive, "bio_get"))
        record->bi_cnt.fetch_add(1, std::memory_order_relaxed);
}

void bio_put(bio *record)
{
    switchPoint();
    if (!checkAlive(record, bioAlive, "bio_put"))
        return;
    if (record->bi_cnt.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (record->flight.load(std::memory_order_relaxed) != Flight::none) {
        reportViolation("bio freed while in flight", "by " + currentName());
        record->bi_cnt.store(1, std::memory_order_relaxed);
        return;
    }
    if (record->ofModule)
        letGo(record->held, HeldKind::bio);
    graveyard.bury(record);
}

sector_t bio_sector(bio *record)
{
    return checked(record, "bio_sector")->bi_sector;
}

void bio_set_sector(bio *record, sector_t sector)
{
    checked(record, "bio_set_sector")->bi_sector = sector;
}

unsigned int bio_size(bio *record)
{
    return checked(record, "bio_size")->bi_size;
}

void bio_set_size(bio *record, unsigned int bytes)
{
    checked(record, "bio_set_size")->bi_size = bytes;
}

unsigned long bio_rw(bio *record)
{
    return checked(record, "bio_rw")->bi_rw & 3;
}

void bio_set_rw(bio *record, unsigned long rw)
{
    checked(record, "bio_set_rw")->bi_rw = rw;
}

block_device *bio_bdev(bio *record)
{
    return checked(record, "bio_bdev")->bi_bdev;
}

void bio_set_bdev(bio *record, block_device *bdev)
{
    checked(record, "bio_set_bdev")->bi_bdev = bdev;
}

void *bio_private(bio *record)
{
    return checked(record, "bio_private")->bi_private;
}

void bio_set_private(bio *record, void *data)
{
    checked(record, "bio_set_private")->bi_private = data;
}

void bio_set_end_io(bio *record, bio_end_io_t *function)
{
    checked(record, "bio_set_end_io")->bi_end_io = function;
}

unsigned short bio_vcnt(bio *record)
{
    return checked(record, "bio_vcnt")->bi_vcnt;
}

void bio_set_vcnt(bio *record, unsigned short count)
{
    checked(record, "bio_set_vcnt")->bi_vcnt = count;
}

void bio_set_idx(bio *record, unsigned short index)
{
    checked(record, "bio_set_idx")->bi_idx = index;
}

static bio_vec *vectorOf(bio *record, unsigned int index, const char *function)
{
    checked(record, function);
    if (index < record->bi_max_vecs)
        return &record->bi_io_vec[index];
    reportViolation("bio vector out of bounds", std::string(function) + " by " + currentName());
    return nullptr;
}

void bio_set_vec(bio *record, unsigned int index, struct page *page, unsigned int length,
                 unsigned int offset)
{
    if (bio_vec *vec = vectorOf(record, index, "bio_set_vec"))
        *vec = {page, length, offset};
}

struct page *bio_vec_page(bio *record, unsigned int index)
{
    bio_vec *vec = vectorOf(record, index, "bio_vec_page");
    return vec ? vec->bv_page : nullptr;
}

unsigned int bio_vec_length(bio *record, unsigned int index)
{
    bio_vec *vec = vectorOf(record, index, "bio_vec_length");
    return vec ? vec->bv_len : 0;
}

unsigned int bio_vec_offset(bio *record, unsigned int index)
{
    bio_vec *vec = vectorOf(record, index, "bio_vec_offset");
    return vec ? vec->bv_offset : 0;
}

int bio_uptodate(bio *record)
{
    return checked(record, "bio_uptodate")->uptodate;
}

void bio_set_eopnotsupp(bio *record)
{
    checked(record, "bio_set_eopnotsupp")->eopnotsupp = true;
}
