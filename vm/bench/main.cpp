/*
 * Measures in a real kernel what the module costs and how fast it reads, side by side with the
 * kernel alone and with the kernel's own snapshots. A goal that is missed is said and is no
 * failure.
 */
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <vector>

#include <getopt.h>

#include "machine.h"
#include "subjects.h"
#include "verdict.h"

namespace
{

struct Options {
    vm::MachineOptions machine;
    std::string folder;
    unsigned rounds = 7;
    // Of each disk to measure on, whether it is a rotating one; the other takes no time.
    std::vector<bool> disks = {true, false};
};

[[noreturn]] void usage()
{
    std::cerr << "usage: vm_bench --kernel FILE --module FILE --guest FILE --bench-guest FILE\n"
                 "                --folder FOLDER [--kernel-modules FOLDER] [--rounds N]\n"
                 "                [--scheduler NAME] [--processors 1|2]\n"
                 "                [--disk rotating|memory]\n";
    std::exit(2);
}

[[noreturn]] void refuse(const std::string &what)
{
    std::cerr << "vm: " << what << '\n';
    std::exit(2);
}

unsigned positiveNumber(const std::string &option, const std::string &text)
{
    unsigned number = 0;
    const char *end = text.data() + text.size();
    auto [last, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || last != end || number == 0)
        refuse("--" + option + " " + text + ": not a number above 0");
    return number;
}

bool isRotating(const std::string &disk)
{
    if (disk != "rotating" && disk != "memory")
        refuse("--disk " + disk + ": not one of rotating, memory");
    return disk == "rotating";
}

Options parse(int count, char **arguments)
{
    const option known[] = {{"kernel", required_argument, nullptr, 'k'},
                            {"module", required_argument, nullptr, 'm'},
                            {"guest", required_argument, nullptr, 'g'},
                            {"bench-guest", required_argument, nullptr, 'b'},
                            {"folder", required_argument, nullptr, 'f'},
                            {"kernel-modules", required_argument, nullptr, 'K'},
                            {"rounds", required_argument, nullptr, 'r'},
                            {"scheduler", required_argument, nullptr, 's'},
                            {"processors", required_argument, nullptr, 'p'},
                            {"disk", required_argument, nullptr, 'd'},
                            {}};
    Options options;
    options.machine.scheduler = "deadline";
    std::map<int, std::string *> paths = {{'k', &options.machine.kernel},
                                          {'m', &options.machine.module},
                                          {'g', &options.machine.guest},
                                          {'b', &options.machine.benchGuest},
                                          {'f', &options.folder}};
    int found = 0;
    while ((found = getopt_long(count, arguments, "", known, nullptr)) != -1) {
        if (found == 'r')
            options.rounds = positiveNumber("rounds", optarg);
        else if (found == 's')
            options.machine.scheduler = optarg;
        else if (found == 'K')
            options.machine.kernelModules = std::filesystem::absolute(optarg);
        else if (found == 'p')
            options.machine.processors = positiveNumber("processors", optarg);
        else if (found == 'd')
            options.disks = {isRotating(optarg)};
        else if (paths.count(found) != 0)
            *paths[found] = std::filesystem::absolute(optarg);
        else
            usage();
    }
    for (const auto &[letter, path] : paths)
        if (path->empty())
            usage();
    if (optind != count || options.machine.processors > 2)
        usage();
    return options;
}

// Without time for the disk's requests what a ratio tells is what the processor pays, which no goal
// is set for.
void print(const vm::Goals &goals, const vm::FreezeTimes &freezes, bool judged)
{
    std::printf("\nRatios in each round: medians (quartiles)%s\n", judged ? ", and the goals" : "");
    std::printf("%-50s %-22s %-22s\n", "", "by rate", "by processor time");
    for (const vm::Goal &goal : goals) {
        std::printf("%-50s %-22s %-22s", goal.what.c_str(), vm::withSpread(goal.byRate, 2).c_str(),
                    vm::withSpread(goal.byWork, 2).c_str());
        if (judged && goal.least != 0)
            std::printf(" %.2f: %s", goal.least, vm::verdict(goal));
        std::printf("\n");
    }
    std::printf("%-50s %-22s to %-25s %s\n", "time frozen, ms, 1 GiB to 64 GiB: no growth",
                vm::withSpread(freezes.small, 1).c_str(), vm::withSpread(freezes.large, 1).c_str(),
                judged ? vm::verdict(freezes) : "");
}

double loadAverage()
{
    double load = 0;
    if (::getloadavg(&load, 1) != 1)
        throw std::runtime_error("the load average is not known");
    return load;
}

void measureAll(const vm::MachineOptions &options, unsigned rounds)
{
    vm::Machine machine(options);
    std::printf("\n");
    std::printf(machine.isRotating()
                    ? "A rotating disk of 7,200 turns a minute, without a write cache.\n"
                    : "A disk in the host's memory, which takes no time.\n");
    std::printf(
        "Each of %u rounds measures all lines of a table; numbers are medians (quartiles).\n"
        "Guest: processors %u, scheduler %s, virtio disks. Latencies and the host's processor\n"
        "time are microseconds a request; reading the clock (%s) takes %.1f.\n"
        "The host's load average: %.1f.\n",
        rounds, options.processors, options.scheduler.c_str(), machine.clockSource().c_str(),
        vm::median(machine.measure({"clock", "1000"}).each), loadAverage());
    std::fflush(stdout);
    vm::Goals goals = vm::measureWrites(machine, rounds);
    for (vm::Goal &goal : vm::measureReads(machine, rounds))
        goals.push_back(std::move(goal));
    vm::FreezeTimes freezes = vm::measureFreezes(machine, rounds);
    machine.end();
    print(goals, freezes, machine.isRotating());
    if (machine.isRotating()) {
        vm::Samples delays = machine.delays();
        std::printf("The disk's %zu requests took %.3f ms longer than they should (99 %%: %.3f).\n",
                    delays.size(), vm::median(delays), vm::quantile(delays, 0.99));
    }
    std::printf("The host's load average: %.1f.\n", loadAverage());
    std::fflush(stdout);
}

} // namespace

int main(int count, char **arguments)
{
    Options options = parse(count, arguments);
    try {
        std::filesystem::create_directories(options.folder);
        std::filesystem::current_path(options.folder);
        for (bool rotating : options.disks) {
            options.machine.rotating = rotating;
            measureAll(options.machine, options.rounds);
        }
        return 0;
    } catch (const std::exception &failure) {
        std::fflush(stdout);
        std::cerr << "vm_bench: " << failure.what() << '\n';
        return 1;
    }
}
