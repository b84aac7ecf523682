/* What a write costs, by how the queue that it goes through is hooked. */
#include <chrono>
#include <ctime>

#include <host/block.h>
#include <host/memory.h>
#include <host/task.h>

#include "subjects.h"
#include "zellib.h"

namespace bench
{
namespace
{

constexpr unsigned biosAtOnce = 64;
constexpr unsigned biosPerRun = 16 * biosAtOnce;
constexpr unsigned objectsPerSavedBlock = 2; // its record and its bytes

// Where the bios of a run go: `count` blocks from `first`, from the start again beyond them.
struct Target {
    test::TestDisk &disk;
    make_request_fn *hook; // that the queue must have
    std::uint32_t first;
    std::uint32_t count;
    unsigned savedPerBio; // blocks
};

std::uint64_t threadCpuNanoseconds()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

// Bios under way.
class InFlight
{
public:
    void submit(const host::BioSpec &spec)
    {
        pending_++;
        host::submitAsync(spec, [this](int error) {
            ended_.wake([&] {
                failed_ = failed_ || error != 0;
                done_++;
            });
        });
    }
    // True if none has failed.
    bool wait()
    {
        ended_.wait([this] { return done_ == pending_; });
        return !failed_;
    }

private:
    host::WaitQueue ended_{"the bios of a benchmark"};
    unsigned pending_ = 0; // the submitter's
    unsigned done_ = 0;
    bool failed_ = false;
};

// Runs `batch(device, first sector of it)` for groups of bios that follow each other on the disk.
// What it measures must have been what its name says: the hook, and the number of blocks saved.
template<class Batch>
void inBatches(benchmark::State &state, const Target &target, const Batch &batch)
{
    struct block_device *device = target.disk.bdev();
    if (hookOf(target.disk) != target.hook) {
        state.SkipWithError("the queue is not hooked as it should be");
        return;
    }
    unsigned objects = host::memoryUse().cacheObjects;
    std::uint32_t at = 0;
    bool written = true;
    while (state.KeepRunningBatch(biosAtOnce)) {
        written = batch(device, std::uint64_t{target.first + at} * sectorsPerBlock) && written;
        at = (at + biosAtOnce) % (target.count / biosAtOnce * biosAtOnce);
    }
    std::uint64_t saved = std::uint64_t{target.savedPerBio} * state.max_iterations;
    if (!written)
        state.SkipWithError("a write failed");
    else if (hookOf(target.disk) != target.hook)
        state.SkipWithError("the queue lost its hook");
    else if (host::memoryUse().cacheObjects != objects + saved * objectsPerSavedBlock)
        state.SkipWithError("the number of blocks saved is not what it should be");
}

unsigned char *contents()
{
    static std::vector<unsigned char> bytes(std::size_t{biosAtOnce} * blockBytes, 0x5a);
    return bytes.data();
}

// The disk stands still meanwhile, so that all there is to see is what the writer goes through.
void submit(benchmark::State &state, const Target &target)
{
    std::uint64_t cpu = 0;
    inBatches(state, target, [&](struct block_device *device, std::uint64_t sector) {
        target.disk.disk().hold();
        InFlight bios;
        auto start = std::chrono::steady_clock::now();
        std::uint64_t cpuStart = threadCpuNanoseconds();
        for (unsigned i = 0; i < biosAtOnce; i++)
            bios.submit({device, sector + i * sectorsPerBlock, blockBytes, WRITE, contents()});
        cpu += threadCpuNanoseconds() - cpuStart;
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        target.disk.disk().release();
        return bios.wait();
    });
    state.counters["writerCpu"] =
        benchmark::Counter(static_cast<double>(cpu), benchmark::Counter::kAvgIterations);
}

void complete(benchmark::State &state, const Target &target)
{
    inBatches(state, target, [](struct block_device *device, std::uint64_t sector) {
        return host::writeDevice(device, sector, contents(), std::size_t{biosAtOnce} * blockBytes,
                                 blockBytes) == 0;
    });
}

// A way to hook a queue. Called before each run: fresh blocks are used up.
struct Way {
    const char *name;
    Target (*target)(BenchMachine &machine);
};

constexpr Way ways[] = {
    {"unhooked",
     [](BenchMachine &machine) {
         return Target{machine.plain, machine.ownHook(), 0, machine.unwantedBlocks(), 0};
     }},
    {"tracked",
     [](BenchMachine &machine) {
         return Target{machine.tracked, zelAMRF, 0, machine.unwantedBlocks(), 0};
     }},
    {"kept",
     [](BenchMachine &machine) {
         return Target{machine.kept, zelMRF, 0, machine.unwantedBlocks(), 0};
     }},
    {"saved",
     [](BenchMachine &machine) {
         return Target{machine.kept, zelMRF, machine.takeFresh(biosPerRun), biosPerRun, 1};
     }},
};

} // namespace

void registerWriteBio(BenchMachine &machine)
{
    for (const Way &way : ways) {
        add(std::string("submit/") + way.name,
            [&machine, way](benchmark::State &state) { submit(state, way.target(machine)); })
            ->Iterations(biosPerRun)
            ->UseManualTime()
            ->Unit(benchmark::kNanosecond);
        add(std::string("complete/") + way.name,
            [&machine, way](benchmark::State &state) { complete(state, way.target(machine)); })
            ->Iterations(biosPerRun)
            ->UseRealTime()
            ->MeasureProcessCPUTime()
            ->Unit(benchmark::kNanosecond);
    }
}

} // namespace bench
