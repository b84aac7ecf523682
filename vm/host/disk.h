/* The guest's disk, in memory: it knows each write at the instant when it takes effect. */
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "blockStorage.h"

namespace vm
{

constexpr unsigned sectorBytes = 512;

// Any thread may call these. Offsets and lengths are bytes.
class Disk : public BlockStorage
{
public:
    using Bytes = std::vector<unsigned char>;

    explicit Disk(Bytes contents) : bytes_(std::move(contents)) {}
    Disk(const Disk &) = delete;

    std::uint64_t size() const override { return bytes_.size(); }
    // EIO where they are to fail.
    int read(std::uint64_t offset, void *to, std::size_t bytes) override;
    int write(std::uint64_t offset, const void *from, std::size_t bytes) override;
    // Past the failures and the observer.
    Bytes contents(std::uint64_t offset, std::size_t bytes) const;

    // Is called after each write with the disk as it then is; no other access happens meanwhile.
    using Observer =
        std::function<void(std::uint64_t offset, std::size_t bytes, const Bytes &disk)>;
    void observe(Observer observer);

    // What is not answered for the time being, nor what the same peer asks after it.
    enum class Hold { nothing, reads, all };
    void hold(Hold what);
    // Whether a read waits for that, whoever asked for it.
    bool holdsRead() const;

    void failReads(std::uint64_t offset, std::size_t bytes);
    void clearReadFailures();
    // A write that fails changes nothing.
    void failWrites(std::uint64_t offset, std::size_t bytes);
    void clearWriteFailures();

private:
    struct Range {
        std::uint64_t offset;
        std::size_t bytes;
    };
    static bool fails(const std::vector<Range> &failing, std::uint64_t offset, std::size_t bytes);
    bool holds(std::uint64_t offset, std::size_t bytes) const;

    mutable std::mutex mutex_; // guards everything
    Bytes bytes_;
    Observer observer_;
    std::vector<Range> failingReads_;
    std::vector<Range> failingWrites_;
    std::condition_variable released_;
    Hold hold_ = Hold::nothing;
    unsigned held_ = 0; // reads
};

// Holds what is asked of a disk for as long as this lives.
class HeldDisk
{
public:
    HeldDisk(Disk &disk, Disk::Hold what) : disk_(disk) { disk_.hold(what); }
    ~HeldDisk() { disk_.hold(Disk::Hold::nothing); }
    HeldDisk(const HeldDisk &) = delete;

private:
    Disk &disk_;
};

} // namespace vm
