#include <host/faults.h>

#include <array>
#include <atomic>

#include "internal.h"

namespace host
{
namespace
{

struct Counter {
    std::atomic<unsigned> calls{0};
    std::atomic<unsigned> injected{0};
    // The calls, counted from 1, that fail; 0: none.
    std::atomic<unsigned> firstFailing{0};
    std::atomic<unsigned> lastFailing{0};
};

std::array<Counter, static_cast<std::size_t>(Fault::count)> counters;

Counter &counter(Fault kind)
{
    return counters[static_cast<std::size_t>(kind)];
}

} // namespace

const char *faultName(Fault kind)
{
    switch (kind) {
    case Fault::kmalloc:
        return "kmalloc";
    case Fault::page:
        return "page";
    case Fault::vmalloc:
        return "vmalloc";
    case Fault::cacheCreate:
        return "cacheCreate";
    case Fault::cacheAlloc:
        return "cacheAlloc";
    case Fault::bufferHead:
        return "bufferHead";
    case Fault::bio:
        return "bio";
    case Fault::kernelThread:
        return "kernelThread";
    case Fault::copyFromUser:
        return "copyFromUser";
    case Fault::copyToUser:
        return "copyToUser";
    case Fault::registerDevice:
        return "registerDevice";
    case Fault::read:
        return "read";
    case Fault::write:
        return "write";
    case Fault::count:
        break;
    }
    return "none";
}

void failNth(Fault kind, unsigned n, unsigned repeat)
{
    Counter &faults = counter(kind);
    unsigned first = faults.calls.load() + n;
    faults.lastFailing = first + repeat - 1;
    faults.firstFailing = first;
}

void clearFaults()
{
    for (Counter &faults : counters) {
        faults.firstFailing = 0;
        faults.lastFailing = 0;
        faults.calls = 0;
        faults.injected = 0;
    }
}

unsigned faultCalls(Fault kind)
{
    return counter(kind).calls;
}

unsigned faultsInjected(Fault kind)
{
    return counter(kind).injected;
}

bool faultHits(Fault kind)
{
    Counter &faults = counter(kind);
    unsigned call = faults.calls.fetch_add(1, std::memory_order_relaxed) + 1;
    unsigned first = faults.firstFailing.load(std::memory_order_relaxed);
    if (first == 0 || call < first || call > faults.lastFailing.load(std::memory_order_relaxed))
        return false;
    faults.injected.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace host
