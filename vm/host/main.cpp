/*
 * Runs the scenarios in a real kernel under an emulator and prints a line for each. The module
 * tells whether that is a kernel of 32 or of 64 bits.
 */
#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>

#include <getopt.h>

#include "contract.h"
#include "environment.h"
#include "hostFile.h"
#include "initramfs.h"
#include "kernelLog.h"
#include "kernelModules.h"
#include "objectFile.h"
#include "otherDisks.h"
#include "partitionScenarios.h"
#include "refusals.h"
#include "selfChecks.h"
#include "soak.h"
#include "zelsendScenarios.h"

namespace
{

using scenario::Scenario;
using vm::contentsOf;

struct Options {
    std::string kernel;
    std::string kernelModules;       // the folder of what of it is not built in, if that matters
    std::string fileSystem = "ext3"; // or "ext4"
    std::string module;
    std::string guest;
    std::string zelsend;
    std::string zel;
    std::string folder;
    std::vector<std::string> disks;
    std::vector<std::string> names; // of scenarios: those that contain one of them
    unsigned timeout = 300;         // seconds, for each scenario
    unsigned cycles = 5;            // of the module's load and unload in one boot
};

struct Totals {
    unsigned passed = 0;
    unsigned failed = 0;
    unsigned skipped = 0;
};

[[noreturn]] void usage()
{
    std::cerr << "usage: vm_scenarios --kernel FILE --module FILE --guest FILE --zelsend FILE\n"
                 "                    --zel FILE --folder FOLDER [--kernel-modules FOLDER]\n"
                 "                    [--file-system ext3|ext4] [--disk ide|virtio]...\n"
                 "                    [--timeout SECONDS] [--cycles COUNT] [NAME...]\n";
    std::exit(2);
}

unsigned positiveNumber(const char *option, const std::string &text)
{
    unsigned number = 0;
    const char *end = text.data() + text.size();
    auto [last, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || last != end || number == 0) {
        std::cerr << "vm: --" << option << ' ' << text << ": not a number above 0\n";
        std::exit(2);
    }
    return number;
}

Options parse(int count, char **arguments)
{
    const option known[] = {
        {"kernel", required_argument, nullptr, 'k'},
        {"module", required_argument, nullptr, 'm'},
        {"guest", required_argument, nullptr, 'g'},
        {"zelsend", required_argument, nullptr, 's'},
        {"zel", required_argument, nullptr, 'z'},
        {"folder", required_argument, nullptr, 'f'},
        {"disk", required_argument, nullptr, 'd'},
        {"timeout", required_argument, nullptr, 't'},
        {"cycles", required_argument, nullptr, 'c'},
        {"kernel-modules", required_argument, nullptr, 'K'},
        {"file-system", required_argument, nullptr, 'F'},
        {},
    };
    Options options;
    std::map<int, std::string *> texts = {{'k', &options.kernel}, {'m', &options.module},
                                          {'g', &options.guest},  {'s', &options.zelsend},
                                          {'z', &options.zel},    {'f', &options.folder}};
    int found = 0;
    while ((found = getopt_long(count, arguments, "", known, nullptr)) != -1) {
        if (found == 'd')
            options.disks.push_back(optarg);
        else if (found == 't')
            options.timeout = positiveNumber("timeout", optarg);
        else if (found == 'c')
            options.cycles = positiveNumber("cycles", optarg);
        else if (found == 'K')
            options.kernelModules = std::filesystem::absolute(optarg);
        else if (found == 'F')
            options.fileSystem = optarg;
        else if (texts.count(found) != 0)
            *texts[found] = std::filesystem::absolute(optarg);
        else
            usage();
    }
    for (const auto &[letter, text] : texts)
        if (text->empty())
            usage();
    options.names.assign(arguments + optind, arguments + count);
    if (options.disks.empty())
        options.disks = {"ide", "virtio"};
    return options;
}

// What is to be run: all, or what has one of these parts in its name.
class Choice
{
public:
    explicit Choice(const std::vector<std::string> &parts) : parts_(parts) {}

    bool has(const std::string &name)
    {
        bool found = parts_.empty();
        for (const std::string &part : parts_)
            if (name.find(part) != std::string::npos) {
                found = true;
                used_.insert(part);
            }
        return found;
    }

    // The contract's checks are known only in the guest: by a part that begins like their names.
    bool hasContract() const
    {
        return parts_.empty() || std::any_of(parts_.begin(), parts_.end(), isOfContract);
    }

    // Throws if a part, other than of the contract unless that has been run, was in no name.
    void refuseUnused(bool contractToo) const
    {
        for (const std::string &part : parts_)
            if (used_.count(part) == 0 && (contractToo || !isOfContract(part)))
                throw std::runtime_error(part + ": no scenario or check has that in its name");
    }

private:
    static bool isOfContract(const std::string &part) { return part.rfind("Contract", 0) == 0; }

    const std::vector<std::string> &parts_;
    std::set<std::string> used_;
};

void expectLoad(int result, const char *what)
{
    if (result != 0)
        throw scenario::Failure(std::string(what) + " the module failed with " +
                                std::to_string(result));
}

// The disk in the guest's memory, on which the contract is tried, too.
constexpr const char *inMemory = "memory";

// Each goes through tens of loads of the module.
constexpr std::chrono::minutes timeForFailures{20};

vm::GuestScenario withModule(const Scenario &scenario, std::chrono::seconds longer)
{
    vm::GuestScenario result{scenario.name, scenario.layout,
                             [run = scenario.run](vm::Environment &environment) {
                                 expectLoad(environment.load(), "loading");
                                 run(environment);
                                 expectLoad(environment.unload(), "unloading");
                             },
                             longer};
    result.failing = scenario.failing;
    return result;
}

// Empty, or why it failed. May throw NoDriver.
std::string runInGuest(const vm::Setting &setting, const vm::GuestScenario &scenario)
{
    std::string problem;
    try {
        vm::Environment environment(setting, scenario.layout);
        try {
            scenario.run(environment);
        } catch (const vm::GuestLost &lost) {
            environment.guest().showBlockedTasks();
            return lost.what() + vm::endOfLogs(setting.console, setting.emulatorLog);
        } catch (const std::exception &failure) {
            problem = failure.what();
        }
        if (problem.empty())
            problem = environment.end();
    } catch (const vm::NoDriver &) {
        throw;
    } catch (const std::exception &failure) {
        if (problem.empty())
            problem = failure.what() + vm::endOfLogs(setting.console, setting.emulatorLog);
    }
    vm::FaultReports reports = vm::faultReports(contentsOf(setting.console));
    vm::printNotes(reports);
    std::string reported = vm::describe(reports);
    return problem.empty() || reported.empty() ? problem + reported : problem + "\n    " + reported;
}

class Run
{
public:
    explicit Run(const Options &options) : options_(options)
    {
        setting_.kernel = options.kernel;
        setting_.initramfs = "initramfs";
        setting_.console = "scenario.log";
        setting_.emulatorLog = "emulator.log";
        setting_.timeout = std::chrono::seconds(options.timeout);
        setting_.module = contentsOf(options.module);
        setting_.modulePath = "/zelmod.ko";
        setting_.fileSystem = options.fileSystem;
        setting_.has64Bits = vm::ObjectFile(setting_.module).has64Bits();
        files_ = {{"zelsend", contentsOf(options.zelsend)}, {"zelmod.ko", setting_.module}};
        writeInitramfs(setting_.initramfs, files_);
        for (const std::string &path : {setting_.console, setting_.emulatorLog})
            std::ofstream(path, std::ios::trunc);
        log_.open("console.log", std::ios::trunc);
    }

    void run(const vm::GuestScenario &scenario, const std::string &disk)
    {
        std::string name = scenario.name + " on " + disk;
        if (setting_.has64Bits && !vm::canFailWith64Bits(scenario.failing))
            return skip(name, "calls are made to fail in a 32-bit kernel only");
        if (scenario.needs64Bits && !setting_.has64Bits)
            return skip(name, "what it is about is for 64-bit kernels only");
        if (!scenario.drivers.empty() && options_.kernelModules.empty())
            return skip(name, "the drivers that it needs are those of Debian's kernel");
        vm::Setting setting = setting_;
        setting.diskKind = disk;
        setting.kernelOptions = scenario.kernelOptions;
        setting.mebibytes = setting_.has64Bits ? scenario.mebibytesWith64Bits : scenario.mebibytes;
        setting.timeout = std::chrono::seconds(options_.timeout) + scenario.longer;
        if (!scenario.drivers.empty()) {
            setting.initramfs = "drivers.initramfs";
            writeInitramfs(setting.initramfs, files_, scenario.drivers);
        }
        auto begin = std::chrono::steady_clock::now();
        try {
            std::string problem = runInGuest(setting, scenario);
            std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            report(name, problem, taken);
        } catch (const vm::NoDriver &reason) {
            skip(name, reason.what());
        }
        keepConsole(name);
    }

    // The checks of the contract, if their module is there; false if they could not be run. `disk`
    // may also be that in memory.
    bool runContract(const std::string &module, const std::string &disk, Choice &choice)
    {
        vm::ContractRun run{setting_, {}, {}, {}};
        run.inMemory = disk == inMemory;
        run.setting.diskKind = run.inMemory ? "virtio" : disk;
        run.setting.initramfs = "contract.initramfs";
        run.setting.modulePath = "/zelcontract.ko";
        run.setting.module = contentsOf(module);
        std::vector<std::string> drivers;
        if (run.inMemory)
            drivers = {vm::memoryDriver};
        writeInitramfs(run.setting.initramfs, {{"zelcontract.ko", run.setting.module}}, drivers);
        run.chosen = [&](const std::string &name) { return choice.has(name); };
        run.report = [&](const vm::CheckResult &result) {
            report(result.name + " on " + disk, result.problem, result.taken);
        };
        run.booted = [&] { keepConsole("Contract on " + disk); };
        try {
            vm::runContract(run);
            return true;
        } catch (const vm::NoDriver &reason) {
            skip("Contract on " + disk, reason.what());
            keepConsole("Contract on " + disk);
            return false;
        }
    }

    void skip(const std::string &name, const char *reason)
    {
        totals_.skipped++;
        std::printf("skipped %s: %s\n", name.c_str(), reason);
    }

    const Totals &totals() const { return totals_; }

private:
    // With these files, the first program, and these drivers besides those that every boot has.
    void writeInitramfs(const std::string &path, std::vector<vm::GuestFile> files,
                        const std::vector<std::string> &drivers = {}) const
    {
        files.push_back({"init", contentsOf(options_.guest)});
        if (!options_.kernelModules.empty())
            for (vm::GuestFile &file : vm::kernelModules(options_.kernelModules, drivers))
                files.push_back(std::move(file));
        vm::writeInitramfs(path, files);
    }

    // For the next boot the logs are empty, even if that one does not come to pass.
    void keepConsole(const std::string &name)
    {
        log_ << "=== " << name << '\n';
        for (const std::string &path : {setting_.console, setting_.emulatorLog}) {
            log_ << contentsOf(path) << std::flush;
            std::ofstream(path, std::ios::trunc);
        }
    }

    void report(const std::string &name, const std::string &problem,
                std::chrono::duration<double> taken)
    {
        (problem.empty() ? totals_.passed : totals_.failed)++;
        std::printf("%s %s (%.1f s)\n", problem.empty() ? "passed " : "FAILED ", name.c_str(),
                    taken.count());
        if (!problem.empty())
            std::printf("    %s\n", problem.c_str());
        std::fflush(stdout);
    }

    const Options &options_;
    vm::Setting setting_;
    std::vector<vm::GuestFile> files_; // of scenarios
    Totals totals_;
    std::ofstream log_;
};

int runAll(const Options &options)
{
    std::filesystem::create_directories(options.folder);
    std::filesystem::current_path(options.folder);
    std::vector<vm::GuestScenario> all = vm::selfChecks();
    for (auto list :
         {scenario::chainScenarios, scenario::spoiltScenarios, scenario::writerScenarios,
          scenario::unloadScenarios, scenario::readerScenarios})
        for (const Scenario &scenario : list())
            all.push_back(withModule(scenario, std::chrono::seconds(0)));
    for (const Scenario &scenario : scenario::failureScenarios())
        all.push_back(withModule(scenario, timeForFailures));
    for (vm::GuestScenario &scenario : vm::refusalScenarios())
        all.push_back(std::move(scenario));
    for (vm::GuestScenario &scenario : vm::partitionScenarios())
        all.push_back(std::move(scenario));
    for (vm::GuestScenario &scenario : vm::otherDiskScenarios())
        all.push_back(std::move(scenario));
    for (vm::GuestScenario &scenario : vm::zelsendScenarios(options.zel))
        all.push_back(std::move(scenario));
    for (const vm::GuestScenario &scenario : vm::soakScenarios(options.cycles))
        all.push_back(scenario);
    Choice choice(options.names);
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&](const auto &scenario) { return !choice.has(scenario.name); }),
              all.end());
    choice.refuseUnused(false);
    Run run(options);
    if (choice.hasContract()) {
        auto checks = std::filesystem::path(options.module).replace_filename("zelcontract.ko");
        if (!std::filesystem::exists(checks)) {
            run.skip("Contract", "there is no zelcontract.ko beside the module");
        } else {
            bool ran = false;
            for (const std::string &disk : options.disks)
                ran = run.runContract(checks, disk, choice) || ran;
            // With a driver of Debian's kernel, and in the guest that has a virtio disk.
            if (!options.kernelModules.empty() &&
                std::count(options.disks.begin(), options.disks.end(), "virtio") != 0)
                ran = run.runContract(checks, inMemory, choice) || ran;
            choice.refuseUnused(ran);
        }
    }
    for (const vm::GuestScenario &scenario : all)
        for (const std::string &disk : options.disks)
            run.run(scenario, disk);
    const Totals &totals = run.totals();
    std::printf("%u passed, %u failed, %u skipped\n", totals.passed, totals.failed, totals.skipped);
    return totals.failed == 0 && totals.passed != 0 ? 0 : 1;
}

} // namespace

int main(int count, char **arguments)
{
    Options options = parse(count, arguments);
    std::signal(SIGPIPE, SIG_IGN); // a receiver may end early
    try {
        return runAll(options);
    } catch (const std::exception &failure) {
        std::cerr << "vm: " << failure.what() << '\n';
        return 1;
    }
}
