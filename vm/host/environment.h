/* The environment of scenarios in a real kernel: a guest with one disk. */
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "blockServer.h"
#include "device.h"
#include "disk.h"
#include "diskImage.h"
#include "failures.h"
#include "guest.h"
#include "guestDisk.h"
#include "scenario/scenario.h"
#include "worker.h"

namespace vm
{

// What the environments of one run have in common.
struct Setting {
    std::string kernel;
    std::string initramfs;
    std::string modulePath; // in the guest
    std::string module;     // what is there
    std::string diskKind;   // as GuestOptions has it
    std::string fileSystem; // "ext3" or "ext4"
    std::string console;
    std::string emulatorLog;
    std::chrono::seconds timeout{300};
    unsigned mebibytes = 1024; // of the guest's memory
    bool has64Bits = false;    // as GuestOptions has it
    std::string kernelOptions; // likewise
};

// Whether failNth can make this kind fail with a module of 64 bits: not its calls, as what leads
// them elsewhere knows the code of 32 bits only.
bool canFailWith64Bits(const std::string &kind);

class Environment : public scenario::Environment
{
public:
    // Boots the guest and mounts the file systems. May throw NoDriver.
    Environment(const Setting &setting, const scenario::Layout &layout);
    ~Environment() override;

    // Unmounts the device's file system; what then becomes of it does not matter.
    void giveUp(unsigned index);
    // Unmounts it, to be mounted again. Nobody may be writing.
    void unmount(unsigned index);
    // Mounts it at the block device of this number, which leads to the same blocks or has a copy of
    // them: from now on the device is that one, in the guest.
    void mountAt(unsigned index, kernel_dev_t number);
    // What the guest's kernel calls the disk.
    std::string diskName() const;
    // Unmounts and ends the guest. Empty, or what was not as it must be.
    std::string end();
    Guest &guest() { return *guest_; }
    Disk &disk() { return *disk_; }
    // The device's node and where it is mounted, in the guest.
    std::string node(unsigned index) const;
    std::string folder(unsigned index) const;
    // Mounts it as it is mounted at the beginning; a negated errno if that fails.
    int mount(Worker &worker, unsigned index);
    // What the device has now.
    scenario::Image contents(unsigned index) const;
    // As Device has them.
    unsigned freezes(unsigned index) const { return devices_.at(index)->freezes(); }
    test::Bitmap written(unsigned index) const { return devices_.at(index)->written(); }
    // The module's file.
    const std::string &module() const { return setting_.module; }
    // What the kernel has printed so far.
    std::string kernelLog() const;
    // A property of the disk's queue, as the guest's /sys names and shows it.
    std::string queue(const std::string &property);
    void setQueue(const std::string &property, const std::string &value);
    // Puts bytes at a place of the disk, behind the guest's back.
    void spoil(unsigned index, std::uint32_t place, const scenario::Image &bytes);

    int load() override;
    int unload() override;
    void acceptLostSession() override;

    kernel_dev_t device(unsigned index) const override { return devices_.at(index)->number; }
    std::uint64_t startSector(unsigned index) const override
    {
        return devices_.at(index)->volume().startSector;
    }
    std::uint64_t sectors(unsigned index) const override
    {
        return devices_.at(index)->volume().sectors;
    }
    unsigned blockSize(unsigned index) const override
    {
        return devices_.at(index)->volume().blockSize;
    }
    std::uint32_t blocks(unsigned index) const override
    {
        return devices_.at(index)->volume().blocks;
    }
    std::uint32_t places(unsigned index) const override { return devices_.at(index)->places(); }
    std::uint32_t blockAt(unsigned index, std::uint32_t place) const override
    {
        return devices_.at(index)->blockAt(place);
    }

    void write(unsigned index, std::uint32_t first, std::uint32_t count) override;
    void sync(unsigned index) override;
    int writeThrough(unsigned index, std::uint32_t first, std::uint32_t count) override;

    test::Bitmap changedByFileSystem(unsigned index) const override
    {
        return devices_.at(index)->ownWrites();
    }
    std::uint32_t blocksChangedByThaw() const override { return 1; } // the superblock
    const scenario::Image &frozen(unsigned index) const override
    {
        return devices_.at(index)->frozen();
    }
    std::string lostWrites(unsigned index) override;

    void failReads(unsigned index, std::uint32_t first, std::uint32_t count) override;
    void clearReadFailures() override;
    void failNth(const std::string &kind, unsigned n) override;
    unsigned clearFailures() override;

    std::unique_ptr<Background> start(std::function<void()> body) override;
    void pause(unsigned microseconds) override;

private:
    // A process for each thread that writes, with its own open files.
    struct Writer {
        explicit Writer(Guest &guest) : worker(guest) {}
        Worker worker;
        std::map<std::string, int> files;
        int open(const std::string &path, int flags);
    };
    Writer &writer();
    void dropWriter();

    std::uint64_t offsetOf(unsigned index, std::uint32_t place) const; // on the disk
    void findDevices(Worker &worker);
    void mountAll(Worker &worker);
    void addNode(Worker &worker, unsigned index);

    const Setting setting_;
    std::string diskFolder_; // in the guest's /sys
    std::unique_ptr<Disk> disk_;
    std::vector<std::unique_ptr<Device>> devices_;
    std::set<unsigned> givenUp_;
    std::unique_ptr<BlockServer> server_;
    std::unique_ptr<Guest> guest_;
    std::unique_ptr<Failures> failures_; // from the first that is asked for
    unsigned writesToFailure_ = 0;       // by writeThrough; 0: none fails
    unsigned failedWrites_ = 0;
    std::mutex mutex_; // guards writers_
    std::map<std::thread::id, std::unique_ptr<Writer>> writers_;
};

} // namespace vm
