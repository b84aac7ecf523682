// Direct transfers: each goes to the disk at once, through no cache, and has been made when its
// system call returns.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"

namespace vm
{
namespace
{

// Where the requests go, as multiples of their size.
uint32_t *placesOf(const Transfers &transfers)
{
    auto all = static_cast<uint32_t>(transfers.length / transfers.bytes);
    if (transfers.requests > all) {
        errno = EINVAL;
        fail("more requests than places");
    }
    auto *places = static_cast<uint32_t *>(sharedMemory(all * 4));
    for (uint32_t i = 0; i < all; i++)
        places[i] = i;
    if (transfers.seed == 0)
        return places;
    uint64_t random = transfers.seed;
    for (uint32_t i = 0; i < transfers.requests; i++) {
        // The multiplier is Knuth's; the upper bits are the good ones.
        random = random * 6364136223846793005 + 1442695040888963407;
        uint32_t other = i + static_cast<uint32_t>(random >> 33) % (all - i);
        uint32_t place = places[i];
        places[i] = places[other];
        places[other] = place;
    }
    return places;
}

struct Span {
    uint64_t begin;
    uint64_t end;
};

// One process's share of the requests, when `gate` says that all processes are there.
Span work(const Transfers &transfers, const uint32_t *places, uint32_t process, int gate,
          Times &times)
{
    int file = open(transfers.device, O_RDWR | O_DIRECT);
    if (file < 0)
        fail(transfers.device);
    void *bytes = sharedMemory(transfers.bytes);
    memset(bytes, static_cast<int>('a' + process), transfers.bytes);
    char byte;
    if (read(gate, &byte, 1) != 0)
        fail("waiting for the others");
    Span span = {now(), 0};
    uint64_t before = span.begin;
    for (uint32_t i = process; i < times.count(); i += transfers.processes) {
        uint32_t place = places[i % transfers.requests];
        auto offset = static_cast<off_t>(transfers.start + uint64_t{place} * transfers.bytes);
        ssize_t done = transfers.write ? pwrite(file, bytes, transfers.bytes, offset)
                                       : pread(file, bytes, transfers.bytes, offset);
        if (done != static_cast<ssize_t>(transfers.bytes))
            fail("a transfer");
        uint64_t after = now();
        times.set(i, before, after);
        before = after;
    }
    span.end = before;
    return span;
}

} // namespace

int measureTransfers(const Transfers &transfers)
{
    const uint32_t *places = placesOf(transfers);
    Times times(transfers.requests * transfers.times);
    auto *spans = static_cast<Span *>(sharedMemory(transfers.processes * sizeof(Span)));
    int gate[2];
    if (pipe(gate) != 0)
        fail("pipe");
    for (uint32_t process = 0; process < transfers.processes; process++) {
        int child = fork();
        if (child < 0)
            fail("fork");
        if (child == 0) {
            close(gate[1]);
            spans[process] = work(transfers, places, process, gate[0], times);
            _exit(0);
        }
    }
    usleep(20000); // until they wait
    close(gate[1]);
    for (uint32_t process = 0; process < transfers.processes; process++) {
        int status = 0;
        if (wait(&status) < 0 || status != 0)
            return 1;
    }
    Span whole = spans[0];
    for (uint32_t process = 1; process < transfers.processes; process++) {
        if (spans[process].begin < whole.begin)
            whole.begin = spans[process].begin;
        if (spans[process].end > whole.end)
            whole.end = spans[process].end;
    }
    times.print(whole.end - whole.begin);
    return 0;
}

} // namespace vm
