#include "subjects.h"

#include <cstdio>

namespace vm
{
namespace
{

constexpr std::uint32_t mebi = 1 << 20;
constexpr std::uint32_t blockBytes = 4096;
constexpr std::uint32_t requests = Machine::areaBytes / mebi;
// Of a block; the whole area would take long. The second is for a disk that takes its time.
constexpr std::uint32_t smallRequests = 2048;
constexpr std::uint32_t slowRequests = 256;

struct Series {
    const char *name;
    Samples rate = {}; // MiB a second, of each round
    Samples work = {}; // milliseconds of processor time a MiB, of each round
    Samples size = {}; // KiB that the disk was asked for at once, on average
};

void add(Series &series, const Measured &measured, std::uint32_t bytes)
{
    double mebibytes = static_cast<double>(measured.each.size()) * bytes / mebi;
    series.rate.push_back(mebibytes / measured.seconds);
    series.work.push_back(measured.work * 1e3 / mebibytes);
    series.size.push_back(measured.disk.readBytes / 1024 / measured.disk.reads);
}

} // namespace

Goals measureReads(Machine &machine, unsigned rounds)
{
    Series plain{"plain, 1 MiB at once"};
    Series backup{"backup, 1 MiB at once"};
    Series again{"plain, 1 MiB at once, again"};
    Series small{"plain, 4 KiB at once"};
    const Area &area = machine.area();
    kernel_dev_t device = machine.device(Machine::first);
    auto readPlain = [&](std::uint32_t bytes, std::uint32_t count) {
        return machine.transfers("read", area, bytes, count, 1, 0);
    };
    for (unsigned i = 0; i < rounds; i++) {
        add(plain, readPlain(mebi, requests), mebi);
        machine.load();
        add(backup,
            machine.measure({"backup", std::to_string(deviceMajor(device)),
                             std::to_string(deviceMinor(device)),
                             std::to_string(area.start / blockBytes),
                             std::to_string(mebi / blockBytes), std::to_string(requests)}),
            mebi);
        machine.unload();
        add(again, readPlain(mebi, requests), mebi);
        add(small, readPlain(blockBytes, machine.isRotating() ? slowRequests : smallRequests),
            blockBytes);
    }
    std::printf("\nReads, one after the other\n");
    std::printf("%-34s %-24s %14s %17s\n", "", "MiB a second", "KiB a request",
                "processor, ms/MiB");
    for (const Series *series : {&plain, &again, &backup, &small})
        std::printf("%-34s %-24s %14.0f %17.2f\n", series->name,
                    withSpread(series->rate, 1).c_str(), median(series->size),
                    median(series->work));
    return {{"plain read, again / plain read, 1 MiB at once", ratios(again.rate, plain.rate),
             ratios(plain.work, again.work), 0},
            {"backup / plain read, 1 MiB at once",
             ratios(backup.rate, means(plain.rate, again.rate)),
             ratios(means(plain.work, again.work), backup.work), 0.8},
            {"backup / plain read, 4 KiB at once", ratios(backup.rate, small.rate),
             ratios(small.work, backup.work), 0.8}};
}

} // namespace vm
