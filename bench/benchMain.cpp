/*
 * What the module costs on the host kernel.
 *
 * Runs of all benchmarks are mixed in random order, so that what the machine does besides reaches
 * both sides of each comparison alike; what is compared are medians. The program ends in a table
 * against the goals. It fails if a benchmark fails or a map takes other memory than it should; a
 * goal of speed that is missed is told, no more, since it depends on the machine.
 */
#include <cstdio>
#include <exception>
#include <malloc.h>
#include <stdexcept>
#include <string>
#include <vector>

#include <host/kernel.h>
#include <host/module.h>

#include "medians.h"
#include "subjects.h"

extern "C" {
int zelInit(void);
void zelExit(void);
extern unsigned char __start_zelmod_data[];
extern unsigned char __stop_zelmod_data[];
extern unsigned char __start_zelmod_bss[];
extern unsigned char __stop_zelmod_bss[];
}

namespace bench
{
namespace
{

constexpr double mostTrackingNanoseconds = 1000;
constexpr double leastReadShare = 0.6;

class LoadedModule
{
public:
    LoadedModule()
    {
        if (host::loadModule({"zelmod", zelInit, zelExit, __start_zelmod_data, __stop_zelmod_data,
                              __start_zelmod_bss, __stop_zelmod_bss}) != 0)
            throw std::runtime_error("the module cannot be loaded");
    }
    ~LoadedModule() { host::unloadModule(); }
    LoadedModule(const LoadedModule &) = delete;
    LoadedModule &operator=(const LoadedModule &) = delete;
};

const char *verdict(bool met)
{
    return met ? "met" : "MISSED";
}

// One column of a write: its time, what it adds to the unhooked one's, and the ratio.
void printAgainst(double value, double base)
{
    std::printf("  %7.0f %+7.0f %5.2f", value, value - base, value / base);
}

void printWrites(const Medians &medians)
{
    const Measure *submitBase = medians.find("submit/unhooked");
    const Measure *completeBase = medians.find("complete/unhooked");
    if (!submitBase || !completeBase)
        return;
    std::printf("\nWrite bio of one 4 KiB block, nanoseconds: time, added, ratio to unhooked\n"
                "%-34s  %21s  %21s  %21s  %21s\n",
                "", "submit, writer's CPU", "submit, wall clock", "complete, all CPU",
                "complete, wall clock");
    struct Row {
        const char *name, *text;
    };
    for (auto [name, text] :
         {Row{"unhooked", "unhooked queue"}, Row{"tracked", "change tracking (zelAMRF)"},
          Row{"kept", "backup, nothing to save (zelMRF)"},
          Row{"saved", "backup, held and saved (zelMRF)"}}) {
        const Measure *submit = medians.find(std::string("submit/") + name);
        const Measure *complete = medians.find(std::string("complete/") + name);
        if (!submit || !complete)
            continue;
        std::printf("%-34s", text);
        printAgainst(submit->writerCpu, submitBase->writerCpu);
        printAgainst(submit->real, submitBase->real);
        printAgainst(complete->cpu, completeBase->cpu);
        printAgainst(complete->real, completeBase->real);
        std::printf("\n");
    }
}

void printMaps(const Medians &medians)
{
    if (!medians.find("map/create"))
        return;
    std::printf("\nBlock map of 2^20 blocks, nanoseconds\n");
    for (const char *name : {"map/set", "map/test", "map/clear", "map/create"})
        if (const Measure *measure = medians.find(name))
            std::printf("%-34s  %7.0f\n", name, measure->real);
}

void printReads(const Medians &medians)
{
    if (!medians.find("read/backup"))
        return;
    std::printf("\nReading 4 KiB blocks, a MiB at a time: MB/s, nanoseconds of CPU a block\n");
    struct Row {
        const char *name, *text;
    };
    for (auto [name, text] : {Row{"read/backup", "backup (ReadBlocks)"},
                              Row{"read/blocks", "straight, a bio for each block"},
                              Row{"read/large", "straight, bios of 128 KiB"}})
        if (const Measure *measure = medians.find(name))
            std::printf("%-34s  %7.0f %7.0f\n", text, blockBytes * 1e3 / measure->real,
                        measure->cpu);
}

void printGoals(const Medians &medians, bool mapsExact)
{
    std::printf("\nGoals\n");
    const Measure *unhooked = medians.find("submit/unhooked");
    const Measure *tracked = medians.find("submit/tracked");
    if (unhooked && tracked) {
        double cpu = tracked->writerCpu - unhooked->writerCpu;
        double real = tracked->real - unhooked->real;
        std::printf("  tracking adds under %.0f ns a bio: %.0f ns of CPU (%s), %.0f ns by "
                    "the clock (%s)\n",
                    mostTrackingNanoseconds, cpu, verdict(cpu < mostTrackingNanoseconds), real,
                    verdict(real < mostTrackingNanoseconds));
    }
    const Measure *backup = medians.find("read/backup");
    struct Row {
        const char *name, *text;
    };
    for (auto [name, text] :
         {Row{"read/blocks", "by the same bios"}, Row{"read/large", "by bios of 128 KiB"}}) {
        const Measure *straight = medians.find(name);
        if (!backup || !straight)
            continue;
        double share = straight->real / backup->real;
        std::printf(
            "  backup reads at %.0f %% of a straight read %s: %.0f %% (%s); by CPU %.0f %%\n",
            leastReadShare * 100, text, share * 100, verdict(share >= leastReadShare),
            straight->cpu / backup->cpu * 100);
    }
    std::printf("  maps take one bit a block, one pointer a page: %s\n",
                mapsExact ? "exactly" : "NO");
}

// Otherwise the allocator's giving memory back to the system and asking for it again, at moments of
// its own, would be a part of the times that are several times what is measured.
void keepHeap()
{
    constexpr int plenty = 64 << 20;
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_TRIM_THRESHOLD, 16 * plenty);
    mallopt(M_TOP_PAD, plenty);
}

int run(int argc, char **argv)
{
    // What the caller gives comes last and wins.
    std::vector<char *> arguments{argv[0]};
    static char interleave[] = "--benchmark_enable_random_interleaving=true";
    static char repetitions[] = "--benchmark_repetitions=201";
    arguments.push_back(interleave);
    arguments.push_back(repetitions);
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;

    keepHeap();
    host::Options options;
    options.checks = false;
    host::Kernel kernel(options);
    Medians medians;
    bool mapsExact = false;
    kernel.run([&] {
        LoadedModule module;
        mapsExact = checkMapMemory();
        std::printf("The host kernel's checkers are off; parallel scheduler; disks in memory "
                    "without delays.\n");
        std::fflush(stdout);
        BenchMachine machine;
        registerWriteBio(machine);
        registerBlockMap();
        registerBackupRead(machine);
        benchmark::RunSpecifiedBenchmarks(&medians);
    });
    for (const std::string &violation : kernel.violations())
        std::fprintf(stderr, "reported by the host kernel: %s\n", violation.c_str());
    printWrites(medians);
    printMaps(medians);
    printReads(medians);
    printGoals(medians, mapsExact);
    return mapsExact && !medians.failed() && kernel.violations().empty() ? 0 : 1;
}

} // namespace
} // namespace bench

int main(int argc, char **argv)
{
    try {
        return bench::run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench: %s\n", error.what());
        return 1;
    }
}
