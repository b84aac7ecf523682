/* Wall-clock time and random bytes. */
#include <kernel/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/random.h>

#include "core.h"

using namespace host;

namespace
{

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t tickNanoseconds = 4'000'000;
// When deterministic kernels boot, in seconds since 1970.
constexpr std::uint64_t virtualBootTime = 1'245'000'000;

std::uint64_t wallClockNanoseconds()
{
    if (deterministic)
        return virtualBootTime * nanosecondsPerSecond + core->scheduler->now();
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec);
}

} // namespace

void current_kernel_time(struct kernel_timespec *now)
{
    pointOfSwitch();
    std::uint64_t time = wallClockNanoseconds() / tickNanoseconds * tickNanoseconds;
    now->tv_sec = static_cast<s32>(time / nanosecondsPerSecond);
    now->tv_nsec = static_cast<s32>(time % nanosecondsPerSecond);
}

void get_random_bytes(void *buffer, int count)
{
    pointOfSwitch();
    auto *bytes = static_cast<unsigned char *>(buffer);
    auto left = static_cast<std::size_t>(count);
    while (left > 0) {
        std::size_t done;
        if (deterministic) {
            std::uint64_t number = randomNumber();
            done = std::min(left, sizeof(number));
            std::memcpy(bytes, &number, done);
        } else {
            ssize_t got = getrandom(bytes, left, 0);
            if (got <= 0) {
                std::perror("getrandom");
                std::abort();
            }
            done = static_cast<std::size_t>(got);
        }
        bytes += done;
        left -= done;
    }
}
