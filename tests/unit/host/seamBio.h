/* A bio made through the seam, as the module makes them: one page, one buffer head to wait at. */
#pragma once

#include <cstdint>
#include <cstring>

#include <host/memory.h>
#include <kernel/block.h>
#include <kernel/layout.h>
#include <kernel/memory.h>

namespace test
{

// Single use: made, submitted once, waited for, gone. The disk's sectors, not the partition's, if
// it is handed to a queue's own function.
class SeamBio
{
public:
    SeamBio(struct block_device *device, std::uint64_t sector, unsigned bytes, unsigned long rw)
        : page_(alloc_pages(GFP_NOIO, 0)), buffer_(alloc_buffer_head(GFP_NOIO)),
          bio_(bio_alloc(GFP_NOIO, 1))
    {
        set_bh_page(buffer_, page_, 0);
        bh_set_size(buffer_, bytes);
        bh_set_bdev(buffer_, device);
        bh_set_state(buffer_, BH_STATE_Lock | BH_STATE_Req | BH_STATE_Mapped);
        get_bh(buffer_);
        bio_set_bdev(bio_, device);
        bio_set_sector(bio_, sector);
        bio_set_vec(bio_, 0, page_, bytes, 0);
        bio_set_vcnt(bio_, 1);
        bio_set_idx(bio_, 0);
        bio_set_size(bio_, bytes);
        bio_set_rw(bio_, rw);
        bio_set_private(bio_, this);
        bio_set_end_io(bio_, ended);
        std::memset(data(), 0, PAGE_SIZE);
    }
    ~SeamBio()
    {
        put_bh(buffer_);
        free_buffer_head(buffer_);
        bio_put(bio_);
        __free_pages(page_, 0);
    }
    SeamBio(const SeamBio &) = delete;

    struct bio *bio() { return bio_; }
    struct buffer_head *buffer() { return buffer_; }
    unsigned char *data() { return static_cast<unsigned char *>(page_address(page_)); }
    void submit() { generic_make_request(bio_); }
    // Sleeps until it has ended; gives its error.
    int wait()
    {
        wait_on_buffer(buffer_);
        return error_;
    }

private:
    static void ended(struct bio *bio, int error)
    {
        auto *self = static_cast<SeamBio *>(bio_private(bio));
        self->error_ = error;
        if (!error)
            set_buffer_uptodate(self->buffer_);
        unlock_buffer(self->buffer_);
    }

    struct page *page_;
    struct buffer_head *buffer_;
    struct bio *bio_;
    int error_ = 0;
};

} // namespace test
