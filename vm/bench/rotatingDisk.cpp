#include "rotatingDisk.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace vm
{

Milliseconds DiskHead::readAhead(std::size_t bytes, Milliseconds idle)
{
    auto count = static_cast<double>(bytes);
    double ahead = std::min(ahead_ + idle.count() * platterRate, readAheadBytes);
    Milliseconds time(std::max(count / interfaceRate, (count - ahead) / platterRate));
    ahead_ = std::clamp(ahead + time.count() * platterRate - count, 0.0, readAheadBytes);
    return time;
}

Milliseconds DiskHead::moveTo(std::uint64_t offset, Milliseconds idle) const
{
    double distance = static_cast<double>(offset) - static_cast<double>(end_);
    if (std::abs(distance) >= trackBytes)
        return shortestSeek +
               (longestSeek - shortestSeek) * std::sqrt(std::abs(distance) / diskBytes_) + turn / 2;
    Milliseconds since = idle + Milliseconds(ahead_ / platterRate);
    double turns = distance / trackBytes - since / turn;
    return (turns - std::floor(turns)) * turn;
}

Milliseconds DiskHead::transfer(std::uint64_t offset, std::size_t bytes, Milliseconds idle)
{
    Milliseconds time = moveTo(offset, idle);
    ahead_ = 0;
    return time + Milliseconds(static_cast<double>(bytes) / platterRate);
}

Milliseconds DiskHead::read(std::uint64_t offset, std::size_t bytes, Milliseconds idle)
{
    Milliseconds time =
        reading_ && offset == end_ ? readAhead(bytes, idle) : transfer(offset, bytes, idle);
    reading_ = true;
    end_ = offset + bytes;
    return time;
}

Milliseconds DiskHead::write(std::uint64_t offset, std::size_t bytes, Milliseconds idle)
{
    Milliseconds time = transfer(offset, bytes, idle);
    reading_ = false;
    end_ = offset + bytes;
    return time;
}

template<class Move, class Access> int RotatingDisk::serve(const Move &move, const Access &access)
{
    using Clock = std::chrono::steady_clock;
    std::lock_guard lock(mutex_);
    Clock::time_point begin = Clock::now();
    Milliseconds time = move(begin - lastEnd_);
    int result = access();
    std::this_thread::sleep_until(begin + std::chrono::duration_cast<Clock::duration>(time));
    lastEnd_ = Clock::now();
    delays_.push_back(Milliseconds(lastEnd_ - begin - time).count());
    return result;
}

int RotatingDisk::read(std::uint64_t offset, void *to, std::size_t bytes)
{
    return serve([&](Milliseconds idle) { return head_.read(offset, bytes, idle); },
                 [&] { return storage_.read(offset, to, bytes); });
}

int RotatingDisk::write(std::uint64_t offset, const void *from, std::size_t bytes)
{
    return serve([&](Milliseconds idle) { return head_.write(offset, bytes, idle); },
                 [&] { return storage_.write(offset, from, bytes); });
}

Samples RotatingDisk::delays() const
{
    std::lock_guard lock(mutex_);
    return delays_;
}

} // namespace vm
