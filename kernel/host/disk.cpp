/* Disks: the driver behind a request queue, with its faults, its delays and its medium. */
#include <algorithm>
#include <cstring>
#include <deque>

#include "blockInternal.h"
#include "medium.h"
#include "partitionTable.h"

namespace host
{

namespace
{

constexpr unsigned char garbage = 0xe5;

struct Request {
    bio *record = nullptr;
    std::uint64_t sector = 0; // of the disk
    std::uint32_t bytes = 0;
    bool write = false;
    int error = 0;          // what it will end with, if not 0
    std::uint64_t due = 0;  // not served before this time
    std::uint64_t rank = 0; // among those due at the same time

    std::uint64_t endSector() const { return sector + (bytes + 511) / 512; }
};

bool overlap(const Request &a, const Request &b)
{
    return a.sector < b.endSector() && b.sector < a.endSector();
}

struct FailingSectors {
    std::uint64_t first, end;
    bool reads, writes;
    int error;
};

// What tests set while tasks submit. Shared, so that a reader keeps what it has found.
template<class T> class Setting
{
public:
    void set(std::shared_ptr<const T> value)
    {
        std::lock_guard guard(guard_);
        isSet_.store(value != nullptr, std::memory_order_release);
        value_ = std::move(value);
    }
    std::shared_ptr<const T> get() const
    {
        if (!isSet_.load(std::memory_order_acquire))
            return nullptr;
        std::lock_guard guard(guard_);
        return value_;
    }

private:
    mutable std::mutex guard_;
    std::atomic<bool> isSet_{false};
    std::shared_ptr<const T> value_;
};

using HoldFilter = std::function<bool(bio *)>;
using Observer = std::function<void(bio *, std::uint64_t, std::uint32_t, bool)>;

} // namespace

// The part of a disk that its service task shares.
class DiskState
{
public:
    DiskState(std::uint64_t sectors, const DiskOptions &options);

    // The disk's own make_request_fn.
    static int makeRequest(request_queue *queue, bio *record);
    void serve();
    // Draws when a request that comes now is served.
    void start(Request &request, std::uint64_t now) const;

    const DiskOptions options;
    gendisk disk;
    Medium medium;
    Setting<HoldFilter> holdFilter;
    Setting<Observer> observer;
    Setting<std::vector<FailingSectors>> failing;

    WaitQueue work{"a request to a disk"};
    WaitQueue idle{"a disk to become idle"};
    bool holding = false;         // guarded by `work`, as are:
    std::deque<Request> held;     // in order of arrival
    std::vector<Request> arrived; // not yet seen by the service task
    bool stopping = false;
    unsigned inFlight = 0;              // until end_io has returned; guarded by `idle`
    std::atomic<unsigned> owed{0};      // bios, held ones too, whose end_io was not yet called
    std::atomic<bool> forgotten{false}; // the kernel that it belonged to is gone

private:
    int expectedError(const bio *record, const Request &request) const;
    // Which of the requests to serve next.
    std::size_t choose(const std::vector<Request> &requests) const;
    void complete(const Request &request);
    void move(const Request &request);
};

namespace
{

std::mutex registryGuard;
std::vector<std::weak_ptr<DiskState>> registry;

const KernelReset reset([] {
    for (const auto &entry : registry)
        if (std::shared_ptr<DiskState> state = entry.lock())
            state->forgotten = true;
    registry.clear();
});

} // namespace

DiskState::DiskState(std::uint64_t sectors, const DiskOptions &given)
    : options(given), medium(sectors << 9, given.file, given.writeCache)
{
    disk.device = options.major << 20 | options.firstMinor;
    disk.first_minor = static_cast<int>(options.firstMinor);
    disk.minors = static_cast<int>(options.minors);
    disk.capacity = sectors;
    disk.part0 = {0, sectors, false};
    disk.part_tbl = std::vector<std::atomic<hd_struct *>>(options.minors);
    disk.part_tbl[0] = &disk.part0;
}

int DiskState::expectedError(const bio *record, const Request &request) const
{
    if (request.bytes > 0 && request.endSector() > disk.capacity)
        return -KERNEL_EIO;
    // Every call counts, so that the n-th is the same whatever else fails.
    bool injected = false;
    if (request.write)
        injected = faultHits(Fault::write);
    else if (record->ofModule)
        injected = faultHits(Fault::read);
    if (injected)
        return -KERNEL_EIO;
    if (auto ranges = failing.get()) {
        for (const FailingSectors &range : *ranges) {
            if ((request.write ? range.writes : range.reads) && request.sector < range.end &&
                range.first < request.endSector())
                return range.error;
        }
    }
    return 0;
}

void DiskState::start(Request &request, std::uint64_t now) const
{
    std::uint64_t random = randomNumber();
    std::uint64_t latency =
        options.maxLatencyNanoseconds ? random % options.maxLatencyNanoseconds : 0;
    request.due = now + latency;
    request.rank = random;
}

int DiskState::makeRequest(request_queue *queue, bio *record)
{
    switchPoint();
    DiskState &state = *queue->disk;
    if (!checkAlive(record, bioAlive, "a disk's make_request_fn"))
        return 0;
    if (record->flight.load(std::memory_order_relaxed) == Flight::atDisk) {
        reportViolation("bio submitted while in flight", "by " + currentName());
        return 0;
    }
    record->flight.store(Flight::atDisk, std::memory_order_relaxed);
    if (queue->dead.load(std::memory_order_acquire)) {
        endBio(record, -KERNEL_EIO);
        return 0;
    }

    Request request;
    request.record = record;
    request.sector = record->bi_sector;
    // Bios of less than a sector come here without having been remapped. Others that name a
    // partition were not submitted to it: their sector is the disk's.
    if (record->bi_size < 512 &&
        record->bi_bdev != record->bi_bdev->bd_contains.load(std::memory_order_acquire))
        if (hd_struct *part = record->bi_bdev->bd_part.load(std::memory_order_acquire))
            request.sector += part->start_sect;
    request.bytes = record->bi_size;
    request.write = record->bi_rw & WRITE;
    request.error = state.expectedError(record, request);
    if (auto observer = state.observer.get())
        (*observer)(record, request.sector, request.bytes, request.write);
    auto filter = state.holdFilter.get();
    bool hold = filter && (!*filter || (*filter)(record));
    state.start(request, nowNanoseconds());

    // Counted first: it may have ended before this returns.
    state.owed.fetch_add(1, std::memory_order_relaxed);
    state.idle.wake([&] { state.inFlight++; });
    bool wasHeld = false;
    state.work.wake([&] {
        wasHeld = hold && state.holding;
        if (wasHeld)
            state.held.push_back(request);
        else
            state.arrived.push_back(request);
    });
    if (wasHeld)
        state.idle.wake([&] { state.inFlight--; });
    return 0;
}

std::size_t DiskState::choose(const std::vector<Request> &requests) const
{
    if (!options.outOfOrder)
        return 0;
    std::size_t best = 0;
    for (std::size_t i = 1; i < requests.size(); i++) {
        const Request &a = requests[i], &b = requests[best];
        if (a.due < b.due || (a.due == b.due && a.rank < b.rank))
            best = i;
    }
    for (std::size_t i = 0; i < best; i++)
        if (requests[best].write && requests[i].write && overlap(requests[i], requests[best]))
            return i; // the first such: nothing that it overlaps came before it
    return best;
}

void DiskState::serve()
{
    std::vector<Request> requests; // in order of arrival
    for (;;) {
        bool stop = false;
        work.wait([&] {
            requests.insert(requests.end(), arrived.begin(), arrived.end());
            arrived.clear();
            stop = stopping;
            return stop || !requests.empty();
        });
        if (requests.empty() && stop)
            return;
        std::size_t next = choose(requests);
        std::uint64_t now = nowNanoseconds();
        if (requests[next].due > now) {
            sleepNanoseconds(requests[next].due - now);
            continue;
        }
        Request request = requests[next];
        requests.erase(requests.begin() + static_cast<std::ptrdiff_t>(next));
        complete(request);
    }
}

void DiskState::move(const Request &request)
{
    std::uint64_t chance = request.write ? randomNumber() : 0;
    std::uint64_t offset = request.sector << 9;
    std::uint32_t left = request.bytes;
    bio *record = request.record;
    for (unsigned i = record->bi_idx; i < record->bi_vcnt && left > 0; i++) {
        const bio_vec &vec = record->bi_io_vec[i];
        std::uint32_t length = std::min<std::uint32_t>(vec.bv_len, left);
        unsigned char *data = pageBytes(vec.bv_page) + vec.bv_offset;
        if (request.write) {
            if (!request.error)
                medium.write(offset, data, length, chance);
        } else if (request.error) {
            std::memset(data, garbage, length);
        } else {
            medium.read(offset, data, length);
        }
        offset += length;
        left -= length;
    }
}

void DiskState::complete(const Request &request)
{
    move(request);
    switchPoint();
    // As the kernel leaves a bio whose whole request has ended, with an error or without.
    bio *record = request.record;
    record->bi_sector += request.bytes >> 9;
    record->bi_size = 0;
    record->bi_idx = record->bi_vcnt;
    owed.fetch_sub(1, std::memory_order_relaxed);
    endBio(record, request.error);
    idle.wake([this] { inFlight--; });
}

namespace
{

class DiskImpl : public Disk
{
public:
    DiskImpl(std::uint64_t sectors, const DiskOptions &options);
    ~DiskImpl() override;

    std::uint64_t sectors() const override { return state_->disk.capacity; }
    bool partition(const std::vector<Partition> &partitions) override;
    bool rereadPartitions() override;
    std::vector<Partition> partitions() const override;
    kernel_dev_t device(unsigned partition) const override
    {
        return state_->disk.device + partition;
    }
    request_queue *queue() const override { return state_->disk.queue; }
    void peek(std::uint64_t sector, void *data, std::size_t bytes) const override
    {
        state_->medium.read(sector << 9, data, bytes);
    }
    void poke(std::uint64_t sector, const void *data, std::size_t bytes) override
    {
        state_->medium.write(sector << 9, data, bytes, 0);
    }
    void failSectors(std::uint64_t first, std::uint64_t count, bool reads, bool writes,
                     int error) override;
    void clearFailures() override { state_->failing.set(nullptr); }
    void hold(std::function<bool(bio *)> filter) override;
    unsigned heldCount() const override;
    void release() override;
    bool releaseOne(unsigned index) override;
    void waitIdle() override;
    void flush() override;
    void crash() override;
    void observe(Observer observer) override;

private:
    // `count` held requests from `index` on, all if there are fewer, go to the service task.
    unsigned letGo(unsigned index, unsigned count, bool endHolding);

    std::shared_ptr<DiskState> state_;
};

DiskImpl::DiskImpl(std::uint64_t sectors, const DiskOptions &options)
    : state_(std::make_shared<DiskState>(sectors, options))
{
    std::string name = "disk " + deviceName(state_->disk.device);
    state_->disk.queue =
        newQueue(state_.get(), DiskState::makeRequest, options.queueLock, "queue of " + name);
    {
        std::lock_guard guard(registryGuard);
        registry.push_back(state_);
    }
    TaskOptions service;
    service.name = name;
    service.service = true;
    spawn([state = state_] { state->serve(); }, service);
    addDisk(&state_->disk);
}

DiskImpl::~DiskImpl()
{
    if (state_->forgotten)
        return;
    if (state_->owed)
        reportViolation("disk removed with bios in flight", deviceName(state_->disk.device));
    removeDisk(&state_->disk);
    retireQueue(state_->disk.queue);
    state_->work.wake([this] {
        for (Request &request : state_->held) {
            request.error = -KERNEL_EIO;
            state_->arrived.push_back(request);
        }
        state_->held.clear();
        state_->stopping = true;
    });
}

bool DiskImpl::partition(const std::vector<Partition> &partitions)
{
    BootSector sector{};
    peek(0, sector.data(), sector.size());
    writePartitionTable(sector, partitions);
    block_device *whole = openDevice(device(0));
    writeBuffered(whole, 0, sector.data(), sector.size());
    bool read = rereadPartitions();
    closeDevice(whole);
    return read;
}

bool DiskImpl::rereadPartitions()
{
    block_device *whole = openDevice(device(0));
    mutex_lock(&whole->bd_mutex);
    int result = rescanPartitions(&state_->disk, whole);
    mutex_unlock(&whole->bd_mutex);
    closeDevice(whole);
    return result == 0;
}

std::vector<Partition> DiskImpl::partitions() const
{
    std::vector<Partition> result;
    block_device *whole = openDevice(device(0));
    mutex_lock(&whole->bd_mutex);
    for (int number = 1; number < state_->disk.part_tbl_len; number++)
        if (const hd_struct *part = state_->disk.part_tbl[number])
            result.push_back({static_cast<unsigned>(number), part->start_sect, part->nr_sects});
    mutex_unlock(&whole->bd_mutex);
    closeDevice(whole);
    return result;
}

void DiskImpl::failSectors(std::uint64_t first, std::uint64_t count, bool reads, bool writes,
                           int error)
{
    auto old = state_->failing.get();
    auto ranges = old ? *old : std::vector<FailingSectors>();
    ranges.push_back({first, first + count, reads, writes, error});
    state_->failing.set(std::make_shared<const std::vector<FailingSectors>>(std::move(ranges)));
}

void DiskImpl::hold(std::function<bool(bio *)> filter)
{
    state_->holdFilter.set(std::make_shared<const HoldFilter>(std::move(filter)));
    state_->work.wake([this] { state_->holding = true; });
}

unsigned DiskImpl::heldCount() const
{
    unsigned count = 0;
    state_->work.wake([&] { count = static_cast<unsigned>(state_->held.size()); });
    return count;
}

unsigned DiskImpl::letGo(unsigned index, unsigned count, bool endHolding)
{
    std::vector<Request> released;
    state_->work.wake([&] {
        if (endHolding)
            state_->holding = false;
        auto &held = state_->held;
        std::size_t first = std::min<std::size_t>(index, held.size());
        std::size_t last = std::min<std::size_t>(std::uint64_t{first} + count, held.size());
        auto from = held.begin() + static_cast<std::ptrdiff_t>(first);
        auto to = held.begin() + static_cast<std::ptrdiff_t>(last);
        released.assign(from, to);
        held.erase(from, to);
    });
    auto moved = static_cast<unsigned>(released.size());
    std::uint64_t now = nowNanoseconds();
    for (Request &request : released)
        state_->start(request, now); // not when it came: that may be long ago
    state_->idle.wake([&] { state_->inFlight += moved; });
    state_->work.wake(
        [&] { state_->arrived.insert(state_->arrived.end(), released.begin(), released.end()); });
    return moved;
}

void DiskImpl::release()
{
    letGo(0, UINT32_MAX, true);
    state_->holdFilter.set(nullptr);
}

bool DiskImpl::releaseOne(unsigned index)
{
    return letGo(index, 1, false) == 1;
}

void DiskImpl::waitIdle()
{
    maySleep("Disk::waitIdle");
    state_->idle.wait([this] { return state_->inFlight == 0; });
}

void DiskImpl::flush()
{
    maySleep("Disk::flush");
    state_->medium.flush();
}

void DiskImpl::crash()
{
    if (state_->owed != heldCount())
        reportViolation("disk crashed with bios in flight", deviceName(state_->disk.device));
    state_->medium.crash(randomNumber);
}

void DiskImpl::observe(Observer observer)
{
    state_->observer.set(observer ? std::make_shared<const Observer>(std::move(observer))
                                  : nullptr);
}

} // namespace

void flushDisk(gendisk *disk)
{
    disk->queue->disk->medium.flush();
}

std::unique_ptr<Disk> Disk::attach(std::uint64_t sectors, const DiskOptions &options)
{
    return std::make_unique<DiskImpl>(sectors, options);
}

} // namespace host
