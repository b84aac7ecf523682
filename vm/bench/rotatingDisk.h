/* A disk that takes its time: one with a moving head over turning platters. */
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "samples.h"
#include "vm/host/blockStorage.h"

namespace vm
{

using Milliseconds = std::chrono::duration<double, std::milli>;

/*
 * Where the head of a disk is, and how long it takes to get elsewhere: as the data sheets of a
 * common server disk of 7,200 turns a minute have it, with its write cache off.
 *
 * A seek takes from 1 to 15 ms, with the square root of the distance (8.5 on average). Then the
 * disk turns until the place is under the head, half a turn on average; but inside the track that
 * the head is over it is known how far that is: a block that was just read comes by after one turn.
 * What follows a read is read ahead into the disk's memory, while nothing else is asked for.
 */
class DiskHead
{
public:
    static constexpr Milliseconds turn{60e3 / 7200};
    static constexpr Milliseconds shortestSeek{1};
    static constexpr Milliseconds longestSeek{15};
    // Bytes a millisecond, from the platter and from the disk's memory.
    static constexpr double platterRate = 100e3;
    static constexpr double interfaceRate = 300e3;
    static constexpr double trackBytes = platterRate * turn.count();
    static constexpr double readAheadBytes = 8e6;

    // Of a disk of so many bytes, at its start.
    explicit DiskHead(std::uint64_t bytes) : diskBytes_(static_cast<double>(bytes)) {}

    // Does an access that begins `idle` after the one before has ended; gives what it takes.
    Milliseconds read(std::uint64_t offset, std::size_t bytes, Milliseconds idle);
    Milliseconds write(std::uint64_t offset, std::size_t bytes, Milliseconds idle);

private:
    Milliseconds readAhead(std::size_t bytes, Milliseconds idle);
    // Seeks and turns; gives what both take.
    Milliseconds moveTo(std::uint64_t offset, Milliseconds idle) const;
    Milliseconds transfer(std::uint64_t offset, std::size_t bytes, Milliseconds idle);

    const double diskBytes_;
    std::uint64_t end_ = 0; // of the last access
    bool reading_ = false;  // whether that was a read
    double ahead_ = 0;      // how many bytes behind it were in the disk's memory when it ended
};

// What is written is written for good; one access is begun when the one before has ended. Any
// thread.
class RotatingDisk : public BlockStorage
{
public:
    explicit RotatingDisk(BlockStorage &storage) : storage_(storage), head_(storage.size()) {}
    RotatingDisk(const RotatingDisk &) = delete;

    std::uint64_t size() const override { return storage_.size(); }
    int read(std::uint64_t offset, void *to, std::size_t bytes) override;
    int write(std::uint64_t offset, const void *from, std::size_t bytes) override;

    // How much longer than it should each access has taken, in milliseconds: on a busy machine some
    // take longer.
    Samples delays() const;

private:
    template<class Move, class Access> int serve(const Move &move, const Access &access);

    BlockStorage &storage_;
    mutable std::mutex mutex_; // held during an access
    DiskHead head_;
    std::chrono::steady_clock::time_point lastEnd_ = std::chrono::steady_clock::now();
    Samples delays_;
};

} // namespace vm
