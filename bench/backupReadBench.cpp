/* How fast a backup reads blocks that nobody has written, against reading the same straight. */
#include <cstring>

#include "subjects.h"

namespace bench
{
namespace
{

constexpr unsigned readsPerRun = 16;
constexpr std::size_t largeBio = 128 * 1024;

// Runs `read(first block, count)` over the still blocks; `bytes()` are what the last one gave.
template<class Read, class Bytes>
void inReads(benchmark::State &state, BenchMachine &machine, test::TestDisk &disk, const Read &read,
             const Bytes &bytes)
{
    std::uint32_t count = machine.blocksPerRead();
    std::uint32_t reads = machine.stillBlocks() / count;
    std::uint32_t number = 0;
    std::uint32_t first = 0;
    bool good = true;
    while (state.KeepRunningBatch(count)) {
        first = machine.firstStill() + number * count;
        number = (number + 1) % reads;
        good = read(first, count) == 0 && good;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * blockBytes);
    std::vector<unsigned char> medium(std::size_t{count} * blockBytes);
    disk.disk().peek(disk.start() + std::uint64_t{first} * sectorsPerBlock, medium.data(),
                     medium.size());
    if (!good)
        state.SkipWithError("a read failed");
    else if (std::memcmp(bytes(), medium.data(), medium.size()) != 0)
        state.SkipWithError("what was read is not what the disk has");
}

void backup(benchmark::State &state, BenchMachine &machine)
{
    inReads(
        state, machine, machine.kept,
        [&](std::uint32_t first, std::uint32_t count) { return machine.readBlocks(first, count); },
        [&] { return machine.buffer(); });
    if (!machine.backupIsSound())
        state.SkipWithError("the backup was spoiled");
}

void straight(benchmark::State &state, BenchMachine &machine, std::size_t bytesPerBio)
{
    std::vector<unsigned char> buffer(std::size_t{machine.blocksPerRead()} * blockBytes);
    inReads(
        state, machine, machine.plain,
        [&](std::uint32_t first, std::uint32_t count) {
            return host::readDevice(machine.plain.bdev(), std::uint64_t{first} * sectorsPerBlock,
                                    buffer.data(), std::size_t{count} * blockBytes, bytesPerBio);
        },
        [&] { return buffer.data(); });
}

} // namespace

void registerBackupRead(BenchMachine &machine)
{
    benchmark::internal::Benchmark *benchmarks[] = {
        add("read/backup", [&](benchmark::State &state) { backup(state, machine); }),
        add("read/blocks", [&](benchmark::State &state) { straight(state, machine, blockBytes); }),
        add("read/large", [&](benchmark::State &state) { straight(state, machine, largeBio); }),
    };
    for (benchmark::internal::Benchmark *benchmark : benchmarks)
        benchmark->Iterations(readsPerRun * machine.blocksPerRead())
            ->UseRealTime()
            ->MeasureProcessCPUTime();
}

} // namespace bench
