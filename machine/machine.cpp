#include "machine.h"

#include "server.h"

#include <host/log.h>
#include <host/module.h>
#include <kernel/block.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include <sys/stat.h>

extern "C" {
int zelInit(void);
void zelExit(void);
// Where the link step put the module's own data.
extern unsigned char moduleDataStart[] __asm__("__start_zelmod_data") __attribute__((weak));
extern unsigned char moduleDataEnd[] __asm__("__stop_zelmod_data") __attribute__((weak));
extern unsigned char moduleBssStart[] __asm__("__start_zelmod_bss") __attribute__((weak));
extern unsigned char moduleBssEnd[] __asm__("__stop_zelmod_bss") __attribute__((weak));
}

namespace machine
{
namespace
{

const host::ModuleImage zelmod = {"zelmod",      zelInit,        zelExit,     moduleDataStart,
                                  moduleDataEnd, moduleBssStart, moduleBssEnd};

// onKernelLog takes a plain function; there is one machine in a process.
std::ofstream logFile;

void writeLog(const std::string &message)
{
    std::ostream &out = logFile.is_open() ? static_cast<std::ostream &>(logFile) : std::cerr;
    out << message << std::flush;
}

std::uint64_t imageSectors(const std::string &image)
{
    struct stat status;
    if (stat(image.c_str(), &status) != 0)
        throw std::runtime_error(image + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode) || status.st_size < 1024 * 1024)
        throw std::runtime_error(image + ": not a disk image");
    return static_cast<std::uint64_t>(status.st_size) / 512;
}

// The module, loaded for the length of a scope.
class Loaded
{
public:
    Loaded()
    {
        if (int error = host::loadModule(zelmod))
            throw std::runtime_error("zelmod could not be loaded: " +
                                     std::string(std::strerror(-error)));
    }
    ~Loaded() { host::unloadModule(); }
    Loaded(const Loaded &) = delete;
};

// What the file system holds at each freeze, into files that appear when they are whole.
class ManifestRecorder
{
public:
    ManifestRecorder(ExtFs &fs, std::string directory) : fs_(fs), directory_(std::move(directory))
    {
        fs_.manifest(); // read everything once, so that later ones are quick
    }

    void record()
    {
        std::string name = directory_ + "/" + std::to_string(++count_) + ".manifest";
        std::ofstream out(name + ".partial");
        printManifest(out, fs_.manifest());
        out.close();
        if (!out || rename((name + ".partial").c_str(), name.c_str()) != 0)
            failed_ = true;
    }

    bool failed() const { return failed_; }

private:
    ExtFs &fs_;
    std::string directory_;
    unsigned count_ = 0;
    std::atomic<bool> failed_ = false;
};

void runUntilStopped(const MachineOptions &options, const std::function<bool()> &stopped,
                     const std::function<void()> &ready)
{
    host::DiskOptions diskOptions;
    diskOptions.file = options.image;
    diskOptions.maxLatencyNanoseconds = 0;
    auto disk = host::Disk::attach(imageSectors(options.image), diskOptions);
    kernel_dev_t device = disk->device(options.partition);

    Loaded module;
    auto fs = std::make_shared<ExtFs>();
    host::Mount mount(device, fs);
    if (!mount.mounted())
        throw std::runtime_error(options.image + ": partition " +
                                 std::to_string(options.partition) +
                                 " has no ext file system that can be mounted");
    std::unique_ptr<ManifestRecorder> recorder;
    if (!options.manifests.empty()) {
        recorder = std::make_unique<ManifestRecorder>(*fs, options.manifests);
        mount.onFrozen([&] { recorder->record(); });
    }

    Server server(options.socket, [&](const std::string &path) -> kernel_dev_t {
        if (path == "/dev/sda")
            return disk->device();
        for (const host::Partition &partition : disk->partitions())
            if (path == "/dev/sda" + std::to_string(partition.number))
                return disk->device(partition.number);
        return 0;
    });
    Writers writers(fs, options.writers);
    ready();
    while (!stopped() && writers.failure().empty() && !(recorder && recorder->failed()))
        server.serve(100);
    if (!writers.failure().empty())
        throw std::runtime_error(writers.failure());
    if (recorder && recorder->failed())
        throw std::runtime_error(options.manifests + ": a manifest could not be written");
}

} // namespace

int runMachine(const MachineOptions &options, const std::function<bool()> &stopped,
               const std::function<void()> &ready)
{
    if (!options.log.empty()) {
        logFile.open(options.log);
        if (!logFile)
            throw std::runtime_error(options.log + ": " + std::strerror(errno));
    }
    host::Kernel kernel;
    host::onKernelLog(writeLog);
    kernel.run([&] { runUntilStopped(options, stopped, ready); });
    host::onKernelLog(nullptr);
    std::vector<std::string> violations = kernel.violations();
    for (const std::string &violation : violations)
        std::cerr << "zelmachine: " << violation << "\n";
    return violations.empty() ? 0 : 2;
}

} // namespace machine
