/* I/O by the host kernel itself: by tasks to a device, and through a device's dirty buffers. */
#include "blockInternal.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace host
{

namespace
{

constexpr std::size_t largestBio = 128 * 1024;

// What a bio of the host carries in bi_private.
struct HostBio {
    std::function<void(int)> done;
    std::uint32_t bytes;
    unsigned char *readInto; // or nullptr
};

// Calls `body(bytes of the page, offset of them in the bio, length)` for each vector.
template<class Body> void forEachVector(const bio *record, std::uint32_t bytes, const Body &body)
{
    std::uint32_t offset = 0;
    for (unsigned i = 0; i < record->bi_vcnt; i++) {
        const bio_vec &vec = record->bi_io_vec[i];
        std::uint32_t length = std::min<std::uint32_t>(vec.bv_len, bytes - offset);
        body(pageBytes(vec.bv_page) + vec.bv_offset, offset, length);
        offset += length;
    }
}

void hostEndIo(bio *record, int error)
{
    std::unique_ptr<HostBio> host(static_cast<HostBio *>(record->bi_private));
    if (host->readInto && error == 0)
        forEachVector(record, host->bytes,
                      [&](unsigned char *data, std::uint32_t offset, std::uint32_t length) {
                          std::memcpy(host->readInto + offset, data, length);
                      });
    for (unsigned i = 0; i < record->bi_vcnt; i++)
        freeHostPage(record->bi_io_vec[i].bv_page);
    bio_put(record);
    host->done(error);
}

int transfer(block_device *device, std::uint64_t sector, unsigned char *data, std::size_t bytes,
             std::size_t bytesPerBio, unsigned long rw)
{
    if (device->isDirty.load(std::memory_order_acquire))
        syncDevice(device);
    bytesPerBio = std::max<std::size_t>(512, bytesPerBio & ~std::size_t{511});
    BioBatch batch;
    while (bytes > 0) {
        std::size_t part = std::min(bytes, bytesPerBio);
        batch.submit({device, sector, static_cast<std::uint32_t>(part), rw, data});
        sector += part >> 9;
        data += part;
        bytes -= part;
    }
    return batch.wait();
}

} // namespace

bio *submitHostBio(const BioSpec &spec, std::function<void(int error)> done)
{
    unsigned pages = (spec.bytes + PAGE_SIZE - 1) >> PAGE_SHIFT;
    bio *record = allocateBio(pages, false);
    record->bi_bdev = spec.device;
    record->bi_sector = spec.sector;
    record->bi_rw = spec.rw;
    record->bi_size = spec.bytes;
    record->bi_vcnt = static_cast<unsigned short>(pages);
    for (unsigned i = 0; i < pages; i++)
        record->bi_io_vec[i] = {allocHostPage(),
                                std::min<unsigned>(PAGE_SIZE, spec.bytes - (i << PAGE_SHIFT)), 0};
    bool writes = spec.rw & WRITE;
    if (writes)
        forEachVector(record, spec.bytes,
                      [&](unsigned char *data, std::uint32_t offset, std::uint32_t length) {
                          if (spec.data)
                              std::memcpy(data, spec.data + offset, length);
                          else
                              std::memset(data, 0, length);
                      });
    record->bi_private = new HostBio{std::move(done), spec.bytes, writes ? nullptr : spec.data};
    record->bi_end_io = hostEndIo;
    generic_make_request(record);
    return record;
}

void BioBatch::submit(const BioSpec &spec)
{
    queue_.wake([this] { pending_++; });
    submitHostBio(spec, [this](int error) {
        queue_.wake([&] {
            pending_--;
            if (error && error_ == 0)
                error_ = error;
        });
    });
}

int BioBatch::wait()
{
    queue_.wait([this] { return pending_ == 0; });
    return error_;
}

int syncDevice(block_device *device)
{
    // One at a time: what another task has taken out to write has to be waited for as well, and a
    // sector's older contents must not be written after its newer ones.
    device->writeback.wait([device] { return !std::exchange(device->writingBack, true); });
    std::map<sector_t, std::array<unsigned char, 512>> dirty;
    {
        std::lock_guard guard(device->dirtyGuard);
        dirty.swap(device->dirty);
        device->isDirty.store(false, std::memory_order_release);
    }
    BioBatch batch;
    std::vector<unsigned char> run;
    for (auto at = dirty.begin(); at != dirty.end();) {
        sector_t first = at->first;
        run.clear();
        do {
            run.insert(run.end(), at->second.begin(), at->second.end());
            ++at;
        } while (at != dirty.end() && at->first == first + (run.size() >> 9) &&
                 run.size() < largestBio);
        batch.submit({device, first, static_cast<std::uint32_t>(run.size()), WRITE, run.data()});
    }
    int result = batch.wait();
    device->writeback.wake([device] { device->writingBack = false; });
    return result;
}

void writeBuffered(block_device *device, std::uint64_t sector, const void *data, std::size_t bytes)
{
    switchPoint();
    std::lock_guard guard(device->dirtyGuard);
    auto *from = static_cast<const unsigned char *>(data);
    for (; bytes >= 512; bytes -= 512, from += 512)
        std::memcpy(device->dirty[sector++].data(), from, 512);
    device->isDirty.store(!device->dirty.empty(), std::memory_order_release);
}

int readDevice(block_device *device, std::uint64_t sector, void *data, std::size_t bytes,
               std::size_t bytesPerBio)
{
    maySleep("readDevice");
    return transfer(device, sector, static_cast<unsigned char *>(data), bytes, bytesPerBio, READ);
}

int writeDevice(block_device *device, std::uint64_t sector, const void *data, std::size_t bytes,
                std::size_t bytesPerBio)
{
    maySleep("writeDevice");
    // Only read from: the direction says so.
    auto *from = const_cast<unsigned char *>(static_cast<const unsigned char *>(data));
    return transfer(device, sector, from, bytes, bytesPerBio, WRITE);
}

int submitAndWait(const BioSpec &spec)
{
    maySleep("submitAndWait");
    BioBatch batch;
    batch.submit(spec);
    return batch.wait();
}

bio *submitAsync(const BioSpec &spec, std::function<void(int error)> done)
{
    return submitHostBio(spec, std::move(done));
}

} // namespace host
