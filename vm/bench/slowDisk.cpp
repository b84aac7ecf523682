#include "slowDisk.h"

#include <thread>

namespace vm
{

template<class Access> int SlowDisk::serve(const Access &access)
{
    std::lock_guard lock(mutex_);
    auto begin = std::chrono::steady_clock::now();
    int result = access();
    std::this_thread::sleep_until(
        begin + std::chrono::duration_cast<std::chrono::steady_clock::duration>(time_));
    served_.push_back(Time(std::chrono::steady_clock::now() - begin).count());
    return result;
}

int SlowDisk::read(std::uint64_t offset, void *to, std::size_t bytes)
{
    return serve([&] { return storage_.read(offset, to, bytes); });
}

int SlowDisk::write(std::uint64_t offset, const void *from, std::size_t bytes)
{
    return serve([&] { return storage_.write(offset, from, bytes); });
}

Samples SlowDisk::served() const
{
    std::lock_guard lock(mutex_);
    return served_;
}

} // namespace vm
