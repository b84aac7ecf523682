#include "server.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <sys/stat.h>

#include "vm/host/diskImage.h"
#include "vm/host/guestDisk.h"
#include "vm/host/hostFile.h"
#include "vm/host/initramfs.h"
#include "vm/host/kernelLog.h"
#include "vm/host/kernelModules.h"

namespace vm
{
namespace
{

constexpr const char *initramfs = "initramfs";
constexpr const char *diskSocket = "disk.socket";
constexpr const char *debuggerSocket = "debugger.socket";
constexpr std::chrono::seconds timeout{1800};

// In the guest.
constexpr const char *modulePath = "/zelmod.ko";
constexpr const char *folder = "/mnt/1";
constexpr unsigned controlMajor = 120;

Disk::Bytes bytesOf(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    Disk::Bytes bytes(std::filesystem::file_size(path));
    in.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!in)
        throw std::runtime_error(path + ": cannot be read");
    return bytes;
}

GuestOptions guestOptions(const ServerOptions &options)
{
    std::vector<GuestFile> files = {{"init", contentsOf(options.guest)},
                                    {"writer", contentsOf(options.writer)},
                                    {"zelsend", contentsOf(options.zelsend)},
                                    {"zelmod.ko", contentsOf(options.module)}};
    if (!options.kernelModules.empty())
        for (GuestFile &file : kernelModules(options.kernelModules))
            files.push_back(std::move(file));
    writeInitramfs(initramfs, files);
    std::filesystem::remove(emulatorLog);
    return {options.kernel, initramfs, diskSocket,  options.diskKind,
            debuggerSocket, kernelLog, emulatorLog, timeout};
}

} // namespace

Server::Partition Server::firstPartition(const Disk &disk)
{
    constexpr std::uint64_t entry = 446; // in the master boot record
    Disk::Bytes record = disk.contents(entry + 8, 8);
    std::uint32_t sectors[2];
    std::memcpy(sectors, record.data(), sizeof(sectors));
    return {std::uint64_t{sectors[0]} * sectorBytes, std::size_t{sectors[1]} * sectorBytes};
}

Server::Server(const ServerOptions &options)
    : disk_(bytesOf(options.image)), partition_(firstPartition(disk_)),
      frozen_(disk_, partition_.start, partition_.length), blockServer_(disk_, diskSocket),
      guest_(bootGuest(guestOptions(options)))
{
    worker_ = std::make_unique<Worker>(*guest_);
    require(worker_->write("/proc/sys/kernel/panic_on_oops", "1"), "panic_on_oops");
    require(worker_->write("/proc/sys/kernel/hostname", "server"), "hostname");
    // What is written reaches the disk within a second and not half a minute: a backup takes
    // seconds here.
    require(worker_->write("/proc/sys/vm/dirty_writeback_centisecs", "20"), "dirty_writeback");
    require(worker_->write("/proc/sys/vm/dirty_expire_centisecs", "50"), "dirty_expire");

    GuestDisk disk = findDisk(*worker_, options.diskKind, {1});
    node_ = "/dev/" + std::filesystem::path(disk.folder).filename().string() + "1";
    require(worker_->makeNode(node_, S_IFBLK, deviceMajor(disk.numbers[0]),
                              deviceMinor(disk.numbers[0])),
            "mknod");
    require(worker_->makeNode("/dev/zelmod", S_IFCHR, controlMajor, 0), "mknod");
    require(worker_->loadModule(
                modulePath, static_cast<std::uint32_t>(std::filesystem::file_size(options.module))),
            "loading the module");
    require(worker_->makeFolder(folder), "mkdir");
    require(worker_->mount(node_, folder, options.fileSystem, "data=ordered"),
            "mounting the file system");
}

std::string Server::kernel()
{
    std::string release = worker_->read("/proc/sys/kernel/osrelease");
    return "Linux " + release.substr(0, release.find('\n'));
}

void Server::startWriters(unsigned count)
{
    for (unsigned i = 1; i <= count; i++) {
        std::string number = std::to_string(i);
        const std::vector<std::string> arguments = {"/writer", folder + ("/writer-" + number),
                                                    number};
        writers_.push_back(std::make_unique<GuestProgram>(*guest_, arguments));
    }
}

unsigned long Server::stopWriters()
{
    unsigned long changes = 0;
    for (auto &writer : writers_) {
        writer->signal(SIGTERM);
        std::string output(writer->read());
        int code = writer->wait();
        if (code != 0)
            throw std::runtime_error("a writer ended with " + std::to_string(code) + ": " +
                                     writer->errors());
        changes += std::stoul(output);
    }
    writers_.clear();
    return changes;
}

std::unique_ptr<GuestProgram> Server::startBackup(const std::string &parent)
{
    const std::vector<std::string> arguments = {"/zelsend", "--state", "/state",
                                                "--parent", parent,    node_};
    return std::make_unique<GuestProgram>(*guest_, arguments);
}

void Server::end()
{
    require(worker_->unmount(folder), "unmounting");
    require(worker_->unloadModule("zelmod"), "unloading the module");
    worker_.reset();
    if (!guest_->powerOff())
        throw std::runtime_error("the guest did not end");
    guest_.reset();
    FaultReports reports = faultReports(contentsOf(kernelLog));
    printNotes(reports);
    std::string reported = describe(reports);
    if (!reported.empty())
        throw std::runtime_error(reported);
    if (!soundFileSystem(disk_.contents(partition_.start, partition_.length)))
        throw std::runtime_error("e2fsck finds faults in the server's own file system");
}

} // namespace vm
