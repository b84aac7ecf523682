/* Buffer heads: allocation, reference counts, state bits and the wait for their lock. */
#include "blockInternal.h"

#include <cstdint>
#include <kernel/layout.h>

namespace host
{

namespace
{

// Bits that the seam sets one by one, by their positions in 2.6.30.
constexpr unsigned long stateUptodate = 1 << 0;
constexpr unsigned long stateEopnotsupp = 1 << 13;

Graveyard<buffer_head> graveyard;
const KernelReset reset([] { graveyard.clear(); });

// As in the kernel, buffers share a few places to sleep at.
WaitQueue waitQueues[8] = {
    WaitQueue("a buffer"), WaitQueue("a buffer"), WaitQueue("a buffer"), WaitQueue("a buffer"),
    WaitQueue("a buffer"), WaitQueue("a buffer"), WaitQueue("a buffer"), WaitQueue("a buffer"),
};

WaitQueue &waitQueueOf(const buffer_head *bh)
{
    return waitQueues[reinterpret_cast<std::uintptr_t>(bh) / sizeof(buffer_head) % 8];
}

// Memory of the kernel's that a former user is done with: unreferenced, unlocked, nothing else.
void leaveTraces(buffer_head *bh)
{
    constexpr std::uintptr_t nowhere = 0x5c5c5c5c;
    bh->b_state.store(stateUptodate | stateEopnotsupp | BH_STATE_Req | BH_STATE_Mapped,
                      std::memory_order_relaxed);
    bh->b_page = reinterpret_cast<struct page *>(nowhere);
    bh->b_data = reinterpret_cast<char *>(nowhere);
    bh->b_blocknr = nowhere;
    bh->b_size = nowhere;
    bh->b_bdev = reinterpret_cast<block_device *>(nowhere);
    bh->b_end_io = reinterpret_cast<bh_end_io_t *>(nowhere);
}

buffer_head *checked(buffer_head *bh, const char *function)
{
    checkAlive(bh, bufferAlive, function);
    return bh;
}

bool isLocked(const buffer_head *bh)
{
    return bh->b_state.load(std::memory_order_acquire) & BH_STATE_Lock;
}

} // namespace

} // namespace host

using namespace host;

buffer_head *alloc_buffer_head(gfp_t gfp)
{
    switchPoint();
    checkAllocation(gfp, "alloc_buffer_head");
    if (faultHits(Fault::bufferHead))
        return nullptr;
    auto *bh = new buffer_head;
    leaveTraces(bh);
    hold(bh->held, HeldKind::bufferHead, sizeof(buffer_head), __builtin_return_address(0));
    return bh;
}

void free_buffer_head(buffer_head *bh)
{
    switchPoint();
    if (!checkAlive(bh, bufferAlive, "free_buffer_head"))
        return;
    if (int count = bh->b_count.load(std::memory_order_acquire); count != 0)
        reportViolation("buffer head freed with references",
                        std::to_string(count) + ", by " + currentName());
    if (isLocked(bh))
        reportViolation("buffer head freed while locked", "by " + currentName());
    letGo(bh->held, HeldKind::bufferHead);
    graveyard.bury(bh);
}

void set_bh_page(buffer_head *bh, struct page *page, unsigned long offset)
{
    checked(bh, "set_bh_page");
    if (offset >= PAGE_SIZE)
        reportViolation("buffer outside its page", "by " + currentName());
    bh->b_page = page;
    auto address = reinterpret_cast<std::uintptr_t>(page_address(page)); // 0 for a high page
    bh->b_data = reinterpret_cast<char *>(address + offset);
}

struct page *bh_page(buffer_head *bh)
{
    return checked(bh, "bh_page")->b_page;
}

char *bh_data(buffer_head *bh)
{
    return checked(bh, "bh_data")->b_data;
}

sector_t bh_blocknr(buffer_head *bh)
{
    return checked(bh, "bh_blocknr")->b_blocknr;
}

void bh_set_blocknr(buffer_head *bh, sector_t block)
{
    checked(bh, "bh_set_blocknr")->b_blocknr = block;
}

size_t bh_size(buffer_head *bh)
{
    return checked(bh, "bh_size")->b_size;
}

void bh_set_size(buffer_head *bh, size_t bytes)
{
    checked(bh, "bh_set_size")->b_size = bytes;
}

block_device *bh_bdev(buffer_head *bh)
{
    return checked(bh, "bh_bdev")->b_bdev;
}

void bh_set_bdev(buffer_head *bh, block_device *bdev)
{
    checked(bh, "bh_set_bdev")->b_bdev = bdev;
}

bh_end_io_t *bh_end_io(buffer_head *bh)
{
    return checked(bh, "bh_end_io")->b_end_io;
}

void bh_set_end_io(buffer_head *bh, bh_end_io_t *function)
{
    checked(bh, "bh_set_end_io")->b_end_io = function;
}

void bh_set_state(buffer_head *bh, unsigned long state)
{
    checked(bh, "bh_set_state")->b_state.store(state, std::memory_order_relaxed);
}

void bh_init_assoc_buffers(buffer_head *bh)
{
    // The list is always empty here: no buffer is ever associated with an inode.
    checked(bh, "bh_init_assoc_buffers");
}

int bh_count(buffer_head *bh)
{
    switchPoint();
    return checked(bh, "bh_count")->b_count.load(std::memory_order_acquire);
}

void bh_set_count(buffer_head *bh, int count)
{
    checked(bh, "bh_set_count")->b_count.store(count, std::memory_order_relaxed);
}

void get_bh(buffer_head *bh)
{
    checked(bh, "get_bh")->b_count.fetch_add(1, std::memory_order_relaxed);
}

void put_bh(buffer_head *bh)
{
    switchPoint();
    checked(bh, "put_bh")->b_count.fetch_sub(1, std::memory_order_acq_rel);
}

int buffer_uptodate(buffer_head *bh)
{
    return (checked(bh, "buffer_uptodate")->b_state.load(std::memory_order_relaxed) &
            stateUptodate) != 0;
}

void set_buffer_uptodate(buffer_head *bh)
{
    checked(bh, "set_buffer_uptodate")->b_state.fetch_or(stateUptodate, std::memory_order_relaxed);
}

void set_buffer_eopnotsupp(buffer_head *bh)
{
    checked(bh, "set_buffer_eopnotsupp")
        ->b_state.fetch_or(stateEopnotsupp, std::memory_order_relaxed);
}

void unlock_buffer(buffer_head *bh)
{
    if (!checkAlive(bh, bufferAlive, "unlock_buffer"))
        return;
    bool wasLocked = true;
    // The waiter may free the buffer as soon as the bit is clear.
    waitQueueOf(bh).wake([&] {
        wasLocked = bh->b_state.fetch_and(~static_cast<unsigned long>(BH_STATE_Lock),
                                          std::memory_order_release) &
                    BH_STATE_Lock;
    });
    if (!wasLocked)
        reportViolation("unlock of an unlocked buffer", "by " + currentName());
}

void wait_on_buffer(buffer_head *bh)
{
    maySleep("wait_on_buffer");
    if (!checkAlive(bh, bufferAlive, "wait_on_buffer"))
        return;
    waitQueueOf(bh).wait([bh] { return !isLocked(bh); });
    checkAlive(bh, bufferAlive, "wait_on_buffer");
}
