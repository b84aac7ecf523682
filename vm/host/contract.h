/* Runs the contract's checks, as a module, in the guest's kernel. */
#pragma once

#include <functional>
#include <string>

#include "environment.h"

namespace vm
{

struct CheckResult {
    std::string name;
    std::string problem; // empty: it holds
    std::chrono::duration<double> taken;
};

struct ContractRun {
    Setting setting; // with the checks' module in place of the module under test
    // Whether to run the check of this name.
    std::function<bool(const std::string &)> chosen;
    std::function<void(const CheckResult &)> report;
    // A boot is over, and its console complete.
    std::function<void()> booted;
    // The devices are partitions of a disk in the guest's memory, whose driver takes bios itself;
    // the guest has loaded that driver (memoryDriver).
    bool inMemory = false;
};

// As GuestScenario has drivers.
constexpr const char *memoryDriver = "brd rd_nr=1 rd_size=65536 max_part=16";

// Each check's name here begins with this.
constexpr const char *contractPrefix = "Contract.";

// One boot for all of them, and another one after each check that does not hold, since it may have
// left anything behind. May throw NoDriver.
void runContract(const ContractRun &run);

} // namespace vm
