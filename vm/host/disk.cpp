#include "disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vm
{

bool Disk::holds(std::uint64_t offset, std::size_t bytes) const
{
    return offset <= bytes_.size() && bytes <= bytes_.size() - offset;
}

bool Disk::fails(const std::vector<Range> &failing, std::uint64_t offset, std::size_t bytes)
{
    return std::any_of(failing.begin(), failing.end(), [&](const Range &range) {
        return offset < range.offset + range.bytes && range.offset < offset + bytes;
    });
}

int Disk::read(std::uint64_t offset, void *to, std::size_t bytes)
{
    std::unique_lock lock(mutex_);
    held_++;
    released_.wait(lock, [this] { return hold_ == Hold::nothing; });
    held_--;
    if (!holds(offset, bytes))
        return EINVAL;
    if (fails(failingReads_, offset, bytes))
        return EIO;
    std::memcpy(to, &bytes_[static_cast<std::size_t>(offset)], bytes);
    return 0;
}

int Disk::write(std::uint64_t offset, const void *from, std::size_t bytes)
{
    std::unique_lock lock(mutex_);
    released_.wait(lock, [this] { return hold_ != Hold::all; });
    if (!holds(offset, bytes))
        return EINVAL;
    if (fails(failingWrites_, offset, bytes))
        return EIO;
    std::memcpy(&bytes_[static_cast<std::size_t>(offset)], from, bytes);
    if (observer_)
        observer_(offset, bytes, bytes_);
    return 0;
}

Disk::Bytes Disk::contents(std::uint64_t offset, std::size_t bytes) const
{
    std::lock_guard lock(mutex_);
    if (!holds(offset, bytes))
        throw std::out_of_range("contents past the end of a disk");
    auto from = bytes_.begin() + static_cast<std::ptrdiff_t>(offset);
    return Bytes(from, from + static_cast<std::ptrdiff_t>(bytes));
}

void Disk::observe(Observer observer)
{
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

void Disk::hold(Hold what)
{
    std::lock_guard lock(mutex_);
    hold_ = what;
    released_.notify_all();
}

bool Disk::holdsRead() const
{
    std::lock_guard lock(mutex_);
    return held_ != 0;
}

void Disk::failReads(std::uint64_t offset, std::size_t bytes)
{
    std::lock_guard lock(mutex_);
    failingReads_.push_back({offset, bytes});
}

void Disk::clearReadFailures()
{
    std::lock_guard lock(mutex_);
    failingReads_.clear();
}

void Disk::failWrites(std::uint64_t offset, std::size_t bytes)
{
    std::lock_guard lock(mutex_);
    failingWrites_.push_back({offset, bytes});
}

void Disk::clearWriteFailures()
{
    std::lock_guard lock(mutex_);
    failingWrites_.clear();
}

} // namespace vm
