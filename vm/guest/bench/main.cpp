// Says by its arguments what to measure.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bench.h"

namespace vm
{

uint64_t now()
{
    // The C library would first try a call that old kernels do not have.
    struct {
        int32_t seconds;
        int32_t nanoseconds;
    } time = {};
    constexpr int monotonic = 1;
    syscall(SYS_clock_gettime32, monotonic, &time);
    return static_cast<uint64_t>(time.seconds) * 1000000000 +
           static_cast<uint64_t>(time.nanoseconds);
}

void fail(const char *what)
{
    dprintf(STDERR_FILENO, "%s: %s\n", what, strerror(errno));
    exit(1);
}

void *sharedMemory(uint32_t bytes)
{
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("memory");
    memset(memory, 0, bytes); // its pages are there before anything is measured
    return memory;
}

Times::Times(uint32_t count)
    : count_(count), each_(static_cast<uint32_t *>(sharedMemory(count * 4)))
{
}

void Times::set(uint32_t request, uint64_t begin, uint64_t end)
{
    uint64_t time = end - begin;
    each_[request] = time < UINT32_MAX ? static_cast<uint32_t>(time) : UINT32_MAX;
}

void Times::print(uint64_t whole) const
{
    printf("%llu\n", static_cast<unsigned long long>(whole));
    for (uint32_t i = 0; i < count_; i++)
        printf("%lu\n", static_cast<unsigned long>(each_[i]));
}

int measureClock(uint32_t readings)
{
    Times times(readings);
    uint64_t begin = now();
    uint64_t before = begin;
    for (uint32_t i = 0; i < readings; i++) {
        uint64_t after = now();
        times.set(i, before, after);
        before = after;
    }
    times.print(before - begin);
    return 0;
}

} // namespace vm

namespace
{

uint32_t number(const char *text)
{
    return static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

} // namespace

int main(int count, char **argument)
{
    const char *what = count > 1 ? argument[1] : "";
    char **a = argument + 2;
    int code = 2;
    if (count == 10 && (strcmp(what, "write") == 0 || strcmp(what, "read") == 0))
        code = vm::measureTransfers({strcmp(what, "write") == 0, a[0], strtoull(a[1], nullptr, 10),
                                     strtoull(a[2], nullptr, 10), number(a[3]), number(a[4]),
                                     number(a[5]), number(a[6]), number(a[7])});
    else if (count == 7 && strcmp(what, "backup") == 0)
        code = vm::measureBackupReads(
            {number(a[0]), number(a[1]), number(a[2]), number(a[3]), number(a[4])});
    else if (count == 3 && strcmp(what, "clock") == 0)
        code = vm::measureClock(number(a[0]));
    return code == 0 && fflush(stdout) != 0 ? 1 : code;
}
