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
    // Of the disks that are measured on, in milliseconds a request: one with moving heads, and one
    // that takes no time.
    std::vector<double> serviceTimes = {8, 0};
};

[[noreturn]] void usage()
{
    std::cerr << "usage: vm_bench --kernel FILE --module FILE --guest FILE --bench-guest FILE\n"
                 "                --folder FOLDER [--kernel-modules FOLDER] [--rounds N]\n"
                 "                [--scheduler NAME] [--processors 1|2]\n"
                 "                [--service-time MILLISECONDS]\n";
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

// With a much slower disk the guest would seem dead.
double serviceTime(const std::string &text)
{
    constexpr double most = 100;
    double time = 0;
    const char *end = text.data() + text.size();
    auto [last, error] = std::from_chars(text.data(), end, time, std::chars_format::fixed);
    if (error != std::errc() || last != end || !(time >= 0 && time <= most))
        refuse("--service-time " + text +
               vm::format(": not a number of milliseconds up to %g", most));
    return time;
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
                            {"service-time", required_argument, nullptr, 't'},
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
        else if (found == 't')
            options.serviceTimes = {serviceTime(optarg)};
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
        std::string aim = goal.least == 0 ? "" : vm::format("%.2f", goal.least);
        std::printf("%-50s %-22s %-22s", goal.what.c_str(), vm::withSpread(goal.byRate, 2).c_str(),
                    vm::withSpread(goal.byWork, 2).c_str());
        if (judged)
            std::printf(" %4s: %s", aim.c_str(), vm::verdict(goal));
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

void describe(const vm::Samples &served)
{
    if (!served.empty())
        std::printf("The disk's %zu requests took %.3f ms (quartiles %.3f to %.3f, 99 %% %.3f).\n",
                    served.size(), vm::median(served), vm::quantile(served, 0.25),
                    vm::quantile(served, 0.75), vm::quantile(served, 0.99));
}

void measureAll(const vm::MachineOptions &options, unsigned rounds)
{
    vm::Machine machine(options);
    std::printf("\n");
    if (machine.isSlow())
        std::printf("A disk that takes %g ms for each request, one after the other.\n",
                    options.serviceTime);
    else
        std::printf("A disk in the host's memory, which takes no time.\n");
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
    print(goals, freezes, machine.isSlow());
    describe(machine.served());
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
        for (double serviceTime : options.serviceTimes) {
            options.machine.serviceTime = serviceTime;
            measureAll(options.machine, options.rounds);
        }
        return 0;
    } catch (const std::exception &failure) {
        std::fflush(stdout);
        std::cerr << "vm_bench: " << failure.what() << '\n';
        return 1;
    }
}
