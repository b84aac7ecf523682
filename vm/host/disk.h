/* The guest's disk, in memory: it knows each write at the instant when it takes effect. */
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace vm
{

constexpr unsigned sectorBytes = 512;

// Any thread may call these. Offsets and lengths are bytes.
class Disk
{
public:
    using Bytes = std::vector<unsigned char>;

    explicit Disk(Bytes contents) : bytes_(std::move(contents)) {}
    Disk(const Disk &) = delete;

    std::uint64_t size() const { return bytes_.size(); }
    // 0 or an errno value: EIO where reads are to fail, EINVAL past the end.
    int read(std::uint64_t offset, void *to, std::size_t bytes);
    int write(std::uint64_t offset, const void *from, std::size_t bytes);
    // Past the failures and the observer.
    Bytes contents(std::uint64_t offset, std::size_t bytes) const;

    // Is called after each write with the disk as it then is; no other access happens meanwhile.
    using Observer =
        std::function<void(std::uint64_t offset, std::size_t bytes, const Bytes &disk)>;
    void observe(Observer observer);

    // Until released no read is answered, nor what is asked after it by the same peer.
    void holdReads(bool hold);
    // Whether a read waits for that.
    bool holdsRead() const;

    void failReads(std::uint64_t offset, std::size_t bytes);
    void clearReadFailures();

private:
    struct Range {
        std::uint64_t offset;
        std::size_t bytes;
    };
    bool holds(std::uint64_t offset, std::size_t bytes) const;

    mutable std::mutex mutex_; // guards everything
    Bytes bytes_;
    Observer observer_;
    std::vector<Range> failing_;
    std::condition_variable released_;
    bool hold_ = false;
    unsigned held_ = 0; // reads
};

// Holds a disk's reads for as long as this lives.
class HeldReads
{
public:
    explicit HeldReads(Disk &disk) : disk_(disk) { disk_.holdReads(true); }
    ~HeldReads() { disk_.holdReads(false); }
    HeldReads(const HeldReads &) = delete;

private:
    Disk &disk_;
};

} // namespace vm
