#include "environment.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace vm
{
namespace
{

constexpr const char *diskSocket = "disk.socket";
constexpr const char *debuggerSocket = "debugger.socket";
constexpr const char *moduleName = "zelmod";
constexpr unsigned controlMajor = 120;
constexpr const char *writes = "write"; // the kind of failure of a scenario's own writes
constexpr const char *longestRequest = "max_sectors_kb";

std::string numbered(const char *name, unsigned partition)
{
    return name + std::to_string(partition);
}

GuestOptions optionsOf(const Setting &setting)
{
    GuestOptions options = {setting.kernel,      setting.initramfs, diskSocket,
                            setting.diskKind,    debuggerSocket,    setting.console,
                            setting.emulatorLog, setting.timeout,   setting.mebibytes};
    options.has64Bits = setting.has64Bits;
    options.kernelOptions = setting.kernelOptions;
    return options;
}

class ThreadBackground : public scenario::Environment::Background
{
public:
    explicit ThreadBackground(std::function<void()> body)
        : thread_([this, body = std::move(body)] {
              try {
                  body();
              } catch (...) {
                  exception_ = std::current_exception();
              }
          })
    {
    }
    ~ThreadBackground() override
    {
        if (thread_.joinable())
            thread_.join();
    }
    void join() override
    {
        if (!thread_.joinable())
            return;
        thread_.join();
        if (exception_)
            std::rethrow_exception(exception_);
    }

private:
    std::exception_ptr exception_;
    std::thread thread_;
};

} // namespace

bool canFailWith64Bits(const std::string &kind)
{
    return kind.empty() || kind == writes;
}

Environment::Environment(const Setting &setting, const scenario::Layout &layout) : setting_(setting)
{
    DiskImage image = makeDiskImage(layout, setting.fileSystem);
    for (const Volume &volume : image.volumes)
        devices_.push_back(std::make_unique<Device>(volume, image.bytes));
    disk_ = std::make_unique<Disk>(std::move(image.bytes));
    disk_->observe([this](std::uint64_t offset, std::size_t bytes, const Disk::Bytes &disk) {
        for (auto &device : devices_)
            device->onDiskWrite(offset, bytes, disk);
    });
    server_ = std::make_unique<BlockServer>(*disk_, diskSocket);
    guest_ = bootGuest(optionsOf(setting));

    Worker worker(*guest_);
    require(worker.write("/proc/sys/kernel/panic_on_oops", "1"), "panic_on_oops");
    require(worker.makeNode("/dev/zelmod", S_IFCHR, controlMajor, 0), "mknod");
    findDevices(worker);
    mountAll(worker);
}

Environment::~Environment()
{
    writers_.clear();
    failures_.reset();
    guest_.reset(); // before the disk that it uses
}

void Environment::findDevices(Worker &worker)
{
    std::vector<unsigned> partitions;
    for (auto &device : devices_)
        partitions.push_back(device->volume().partition);
    GuestDisk disk = findDisk(worker, setting_.diskKind, partitions);
    for (unsigned i = 0; i < devices_.size(); i++)
        devices_[i]->number = disk.numbers[i];
    diskFolder_ = disk.folder;
}

void Environment::mountAll(Worker &worker)
{
    for (unsigned i = 0; i < devices_.size(); i++) {
        addNode(worker, i);
        require(worker.makeFolder(folder(i)), "mkdir");
        require(mount(worker, i), "mount");
    }
}

void Environment::addNode(Worker &worker, unsigned index)
{
    kernel_dev_t number = device(index);
    require(worker.makeNode(node(index), S_IFBLK, deviceMajor(number), deviceMinor(number)),
            "mknod");
}

int Environment::mount(Worker &worker, unsigned index)
{
    return worker.mount(node(index), folder(index), setting_.fileSystem, "data=ordered");
}

std::string Environment::node(unsigned index) const
{
    return numbered("/dev/disk", devices_.at(index)->volume().partition);
}

std::string Environment::folder(unsigned index) const
{
    return numbered("/mnt/", devices_.at(index)->volume().partition);
}

std::uint64_t Environment::offsetOf(unsigned index, std::uint32_t place) const
{
    return startSector(index) * sectorBytes +
           std::uint64_t{blockAt(index, place)} * blockSize(index);
}

scenario::Image Environment::contents(unsigned index) const
{
    return disk_->contents(startSector(index) * sectorBytes,
                           std::size_t{blocks(index)} * blockSize(index));
}

std::string Environment::kernelLog() const
{
    std::ifstream in(setting_.console, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void Environment::spoil(unsigned index, std::uint32_t place, const scenario::Image &bytes)
{
    disk_->write(offsetOf(index, place), bytes.data(), bytes.size());
}

void Environment::giveUp(unsigned index)
{
    unmount(index);
    givenUp_.insert(index);
}

void Environment::unmount(unsigned index)
{
    {
        std::lock_guard lock(mutex_);
        writers_.clear(); // with their open files
    }
    Worker worker(*guest_);
    require(worker.unmount(folder(index)), "unmounting");
}

void Environment::mountAt(unsigned index, kernel_dev_t number)
{
    Worker worker(*guest_);
    require(worker.remove(node(index)), "unlink");
    devices_.at(index)->number = number;
    addNode(worker, index);
    require(mount(worker, index), "mount");
}

std::string Environment::diskName() const
{
    return diskFolder_.substr(diskFolder_.rfind('/') + 1);
}

std::string Environment::end()
{
    std::string problems;
    writers_.clear();
    {
        Worker worker(*guest_);
        for (unsigned i = 0; i < devices_.size(); i++) {
            int result = givenUp_.count(i) != 0 ? 0 : worker.unmount(folder(i));
            if (result != 0)
                problems += "unmounting failed with " + std::to_string(result) + "\n";
        }
    }
    if (!guest_->powerOff())
        problems += "the guest did not end\n";
    for (unsigned i = 0; i < devices_.size(); i++)
        if (givenUp_.count(i) == 0 && !soundFileSystem(contents(i)))
            problems += "the file system of device " + std::to_string(i) + " is damaged\n";
    return problems;
}

int Environment::load()
{
    return writer().worker.loadModule(setting_.modulePath,
                                      static_cast<std::uint32_t>(setting_.module.size()));
}

int Environment::unload()
{
    int result = writer().worker.unloadModule(moduleName);
    return result == -EAGAIN ? -EBUSY : result; // what delete_module says of a module in use
}

// One unload is not held to account here for a record: what many leave behind is counted
// (soak.cpp).
void Environment::acceptLostSession() {}

int Environment::Writer::open(const std::string &path, int flags)
{
    auto found = files.find(path);
    if (found != files.end())
        return found->second;
    int file = worker.open(path, flags);
    require(std::min(file, 0), "opening " + path);
    return files[path] = file;
}

Environment::Writer &Environment::writer()
{
    std::lock_guard lock(mutex_);
    std::unique_ptr<Writer> &writer = writers_[std::this_thread::get_id()];
    if (!writer)
        writer = std::make_unique<Writer>(*guest_);
    return *writer;
}

void Environment::dropWriter()
{
    std::unique_ptr<Writer> writer;
    std::lock_guard lock(mutex_);
    auto found = writers_.find(std::this_thread::get_id());
    if (found == writers_.end())
        return;
    writer = std::move(found->second);
    writers_.erase(found);
}

void Environment::write(unsigned index, std::uint32_t first, std::uint32_t count)
{
    Device &device = *devices_.at(index);
    Writer &own = writer();
    int file = own.open(folder(index) + "/" + volumeFile, O_RDWR);
    std::vector<unsigned char> bytes = device.beginWrite(first, count);
    int result = own.worker.writeAt(file, device.fileOffset(first), bytes, false);
    device.endWrite(first, count, result == 0);
    require(result, "a write to a file");
}

void Environment::sync(unsigned index)
{
    Writer &own = writer();
    int file = own.open(folder(index) + "/" + volumeFile, O_RDWR);
    require(own.worker.sync(file), "fsync");
}

int Environment::writeThrough(unsigned index, std::uint32_t first, std::uint32_t count)
{
    Device &device = *devices_.at(index);
    if (device.blockAt(first + count - 1) != device.blockAt(first) + count - 1)
        throw std::logic_error("a write to places that do not lie side by side");
    Writer &own = writer();
    int file = own.open(node(index), O_RDWR | O_DIRECT);
    std::vector<unsigned char> bytes = device.beginWrite(first, count);
    std::uint64_t offset = std::uint64_t{device.blockAt(first)} * device.volume().blockSize;
    // The disk's blocks fail, and not just one transfer: a driver tries again, and in other pieces.
    bool fails = writesToFailure_ != 0 && --writesToFailure_ == 0;
    if (fails)
        disk_->failWrites(offsetOf(index, first), bytes.size());
    int result = own.worker.writeAt(file, offset, bytes, true);
    if (fails) {
        disk_->clearWriteFailures();
        failedWrites_++;
    }
    device.endWrite(first, count, result == 0);
    return result;
}

std::string Environment::lostWrites(unsigned index)
{
    sync(index);
    return devices_.at(index)->lostWrites(contents(index));
}

// A disk driver may fail all of a request for a part of it, and requests for neighbouring blocks
// are made one by the kernel: keep them apart, as far as it goes (a page).
void Environment::failReads(unsigned index, std::uint32_t first, std::uint32_t count)
{
    setQueue(longestRequest, "4");
    for (std::uint32_t place = first; place < first + count; place++)
        disk_->failReads(offsetOf(index, place), blockSize(index));
}

void Environment::clearReadFailures()
{
    disk_->clearReadFailures();
    setQueue(longestRequest, "128");
}

std::string Environment::queue(const std::string &property)
{
    return writer().worker.read(diskFolder_ + "/queue/" + property);
}

void Environment::setQueue(const std::string &property, const std::string &value)
{
    require(writer().worker.write(diskFolder_ + "/queue/" + property, value), property);
}

// Of the writes only a scenario's own fail: a file system does not outlive the failure of one of
// its journal's.
void Environment::failNth(const std::string &kind, unsigned n)
{
    if (kind == writes) {
        writesToFailure_ = n;
        return;
    }
    if (!failures_)
        failures_ = std::make_unique<Failures>(setting_.module, guest_->debugger());
    failures_->failNth(kind, n, writer().worker);
}

unsigned Environment::clearFailures()
{
    writesToFailure_ = 0;
    return std::exchange(failedWrites_, 0) + (failures_ ? failures_->clear() : 0);
}

std::unique_ptr<scenario::Environment::Background> Environment::start(std::function<void()> body)
{
    return std::make_unique<ThreadBackground>([this, body = std::move(body)] {
        struct End {
            Environment &environment;
            ~End() { environment.dropWriter(); }
        } end{*this};
        body();
    });
}

void Environment::pause(unsigned microseconds)
{
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

} // namespace vm
