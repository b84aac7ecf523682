#include "contract.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "contract/control.h"
#include "guestDisk.h"
#include "kernelLog.h"

namespace vm
{
namespace
{

constexpr const char *controlNode = "/dev/zelcontract";
constexpr const char *freeNode = "/dev/contract";
constexpr const char *moduleName = "zelcontract";

// The devices of the disk, as the checks want them.
enum : unsigned { mounted, unmounted, closed };
const scenario::Layout layout{3, {1024, 4096, 4096}, true};

constexpr std::uint32_t pageBytes = 4096;

void require(bool condition, const std::string &what)
{
    if (!condition)
        throw std::runtime_error("the guest: " + what + " failed");
}

// A process of the guest that calls the checks.
class Caller
{
public:
    explicit Caller(Environment &environment)
        : process_(environment.guest()), call_(*reinterpret_cast<ContractCall *>(process_.area()))
    {
        call_ = {};
        call_.mounted = environment.device(mounted);
        call_.unmounted = environment.device(unmounted);
        call_.closed = environment.device(closed);
        // A page, a hole, and a page that cannot be written.
        call_.user = ownMemory;
        call_.userBytes = pageBytes;
        call_.userReadOnly = ownMemory + 2 * pageBytes;
        map(call_.user, PROT_READ | PROT_WRITE);
        map(call_.userReadOnly, PROT_READ);
        auto path = process_.area() + static_cast<std::uint32_t>(sizeof(ContractCall));
        std::strcpy(reinterpret_cast<char *>(path), controlNode);
        file_ = process_.systemCall(SYS_open, path, O_RDWR);
        std::strcpy(reinterpret_cast<char *>(path), freeNode);
        call_.path = path;
        require(file_ >= 0, std::string("opening ") + controlNode);
    }

    // The name of this check, or nothing past the last one.
    std::optional<std::string> name(unsigned number)
    {
        int result = call(CONTRACT_DESCRIBE, number);
        if (result == -ENOENT)
            return {};
        require(result == CONTRACT_DESCRIBED, "naming a check");
        return call_.text;
    }

    // Empty, or what does not hold.
    std::string run(unsigned number)
    {
        int result = call(CONTRACT_RUN, number);
        require(result == CONTRACT_HOLDS || result == CONTRACT_FAILS, "running a check");
        return result == CONTRACT_HOLDS ? "" : std::string("does not hold: ") + call_.text;
    }

private:
    static constexpr std::uint32_t ownMemory = 0x70000000;

    void map(std::uint32_t address, unsigned protection)
    {
        int result = process_.systemCall(SYS_mmap2, address, pageBytes, protection,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        require(result == static_cast<int>(address), "mapping memory");
    }
    int call(unsigned command, unsigned number)
    {
        call_.number = number;
        return process_.systemCall(SYS_ioctl, file_, command, process_.area());
    }

    GuestProcess process_;
    ContractCall &call_; // in memory that the process shares with this program
    int file_ = -1;
};

// One boot of the guest, ready for the checks.
class Boot
{
public:
    explicit Boot(const ContractRun &run)
        : setting_(run.setting), console_(setting_.console), environment_(setting_, layout),
          worker_(environment_.guest())
    {
        if (run.inMemory)
            moveToMemory();
        for (unsigned index : {unmounted, closed})
            environment_.giveUp(index);
        require(worker_.open(environment_.node(unmounted), O_RDWR) >= 0, "opening a partition");
        require(worker_.makeNode(controlNode, S_IFCHR, CONTRACT_MAJOR, 0) == 0, "mknod");
        require(worker_.makeNode(freeNode, S_IFCHR, CONTRACT_FREE_MAJOR, 0) == 0, "mknod");
        require(worker_.loadModule(setting_.modulePath,
                                   static_cast<std::uint32_t>(setting_.module.size())) == 0,
                "loading the checks");
        caller_.emplace(environment_);
    }

    Caller &caller() { return *caller_; }

    // What the kernel has reported since it was last asked.
    std::string reports()
    {
        FaultReports reports = faultReports(console_.news());
        printNotes(reports);
        return describe(reports);
    }

    // Why the guest is lost, with what its tasks wait for.
    std::string lost(const std::string &reason)
    {
        environment_.guest().showBlockedTasks();
        return reason + endOfLogs(setting_.console, setting_.emulatorLog);
    }

    std::string end()
    {
        caller_.reset();
        int result = worker_.unloadModule(moduleName);
        if (result != 0)
            return "unloading the checks failed with " + std::to_string(result);
        return environment_.end();
    }

private:
    // All of the disk, its partition table included.
    void moveToMemory()
    {
        constexpr unsigned all[] = {mounted, unmounted, closed};
        for (unsigned index : all)
            environment_.unmount(index);
        int file = worker_.open(addDeviceNode(worker_, "ram0"), O_WRONLY);
        const Disk &disk = environment_.disk();
        require(worker_.writeAll(file, disk.contents(0, disk.size())) == 0, "copying the disk");
        require(worker_.control(file, BLKRRPART) == 0, "reading its partitions");
        worker_.close(file);
        for (unsigned index : all) {
            std::string partition = "ram0p" + std::to_string(index + 1);
            environment_.mountAt(index, numberOfDevice(worker_, partition));
        }
    }

    const Setting &setting_;
    ConsoleReader console_;
    Environment environment_;
    Worker worker_;
    std::optional<Caller> caller_;
};

// What a body says is wrong, or the kernel meanwhile.
CheckResult watched(Boot &boot, const std::string &name, const std::function<std::string()> &body)
{
    CheckResult result{contractPrefix + name, "", {}};
    auto begin = std::chrono::steady_clock::now();
    try {
        result.problem = body();
        std::string reports = boot.reports();
        if (!result.problem.empty() && !reports.empty())
            result.problem += "\n    ";
        result.problem += reports;
    } catch (const GuestLost &lost) {
        result.problem = boot.lost(lost.what());
    }
    result.taken = std::chrono::steady_clock::now() - begin;
    return result;
}

// Runs the checks from this number on, until one does not hold; the next one's number then.
std::optional<unsigned> runSome(const ContractRun &run, unsigned next)
{
    Boot boot(run);
    bool ran = false;
    for (; std::optional<std::string> name = boot.caller().name(next); next++) {
        if (!run.chosen(contractPrefix + *name))
            continue;
        CheckResult result = watched(boot, *name, [&] { return boot.caller().run(next); });
        run.report(result);
        ran = true;
        if (!result.problem.empty())
            return next + 1;
    }
    if (ran)
        run.report(watched(boot, "nothingIsLeft", [&] { return boot.end(); }));
    return {};
}

} // namespace

void runContract(const ContractRun &run)
{
    std::optional<unsigned> next = 0;
    while (next) {
        try {
            next = runSome(run, *next);
        } catch (const NoDriver &) {
            throw;
        } catch (const std::exception &failure) {
            run.report({std::string(contractPrefix) + "boots",
                        failure.what() + endOfLogs(run.setting.console, run.setting.emulatorLog),
                        {}});
            next = {};
        }
        run.booted();
    }
}

} // namespace vm
