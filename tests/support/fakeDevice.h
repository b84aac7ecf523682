/*
 * A control device for the agent's tests: it keeps one block device in memory and answers the
 * module's commands with the module's meaning, so that a test can write to the device at any
 * moment of a backup and know what the backup must contain.
 *
 * What outlives a process (the device's contents, the tracking) lies in memory shared with forked
 * children; what the kernel frees at a process's end (open files, a running backup) does not.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/device.h"
#include "zelmod.h"

namespace test
{

class FakeDevice
{
public:
    static constexpr std::uint32_t major = 8;
    static constexpr std::uint32_t minor = 1;
    static constexpr std::uint32_t maxBlocks = 2048;
    static constexpr char path[] = "/dev/fake1";
    static constexpr char control[] = "/dev/zelmod";

    FakeDevice(std::uint32_t blocks, std::uint32_t blockSize);
    ~FakeDevice();
    FakeDevice(const FakeDevice &) = delete;

    zelsend::Device device();

    // The block device. Contents are made from a number: 0 is a block of zeros.
    std::uint32_t blocks() const;
    std::uint32_t blockSize() const;
    std::string contentsOf(std::uint32_t number) const;
    // As by a file system: tracked, and during a backup the old contents are saved first.
    void write(std::uint32_t block, std::uint32_t number);
    std::string image() const;
    // The device's image at its last snapshot.
    std::string snapshotImage() const;
    std::uint32_t snapshots() const;
    void setUnreadable(std::uint32_t block, bool unreadable);
    void resize(std::uint32_t blocks);
    void unmount();
    void setTail(std::uint32_t kilobytes);  // of the partition, behind the last block
    void reformat(std::uint32_t blockSize); // as many blocks of another size

    // The module.
    void reload(); // unloaded and loaded: nothing is tracked
    void loseSync();
    void spoil(std::uint32_t state); // of the running backup; also loses sync, as the module does
    void strandInCache(std::uint32_t block); // its old contents arrive after its delivery
    std::uint32_t openFiles() const { return static_cast<std::uint32_t>(files_.size()); }
    std::uint32_t mappings() const { return mappings_; }
    std::uint32_t cachedBlocks() const;
    std::uint32_t lastMaxCacheBlocks() const { return lastMaxCacheBlocks_; }
    const std::vector<std::uint32_t> &commands() const { return commands_; }
    // The device and the tracking as they were when `saved` was made.
    std::string save() const;
    void restore(const std::string &saved);

    // Called before and after each command is carried out (a map as command 0).
    std::function<void(std::uint32_t command)> before = [](std::uint32_t) {};
    std::function<void(std::uint32_t command)> after = [](std::uint32_t) {};
    // The next such command is not carried out and answers this.
    void answerNext(std::uint32_t command, int result);
    static constexpr std::uint32_t mapCommand = 0;

private:
    struct Kernel;
    struct File;
    struct Calls;

    int command(File &file, std::uint32_t command, void *argument);
    int startBackup(File &file, const StartBackup &record);
    int snapShot(File &file, const SnapShot &record);
    int getAutoMap(File &file, const GetAutoMap &record);
    int loadBlockMap(File &file, const LoadBlockMap &record);
    int readBlocks(File &file, const ReadBlocks &record);
    void newKey();

    Kernel *kernel_;
    std::map<int, std::unique_ptr<File>> files_;
    File *active_ = nullptr;
    int nextFile_ = 100;
    std::uint32_t mappings_ = 0;
    std::uint32_t lastMaxCacheBlocks_ = 0;
    std::vector<std::uint32_t> commands_;
    std::map<std::uint32_t, std::deque<int>> answers_;
};

} // namespace test
