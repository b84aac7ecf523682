/* A disk that takes its time, as one with moving heads does. */
#pragma once

#include <chrono>
#include <mutex>

#include "samples.h"
#include "vm/host/blockStorage.h"

namespace vm
{

/*
 * Each access to the storage below takes the same time, whatever its size and place, and one is
 * begun when the one before has ended. What is written is written for good. Any thread.
 */
class SlowDisk : public BlockStorage
{
public:
    using Time = std::chrono::duration<double, std::milli>;

    SlowDisk(BlockStorage &storage, Time serviceTime) : storage_(storage), time_(serviceTime) {}
    SlowDisk(const SlowDisk &) = delete;

    std::uint64_t size() const override { return storage_.size(); }
    int read(std::uint64_t offset, void *to, std::size_t bytes) override;
    int write(std::uint64_t offset, const void *from, std::size_t bytes) override;

    // What each access has really taken, in milliseconds: on a busy machine some take longer.
    Samples served() const;

private:
    template<class Access> int serve(const Access &access);

    BlockStorage &storage_;
    const Time time_;
    mutable std::mutex mutex_; // held during an access
    Samples served_;
};

} // namespace vm
