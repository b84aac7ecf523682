/*
 * Scenarios: whole backups as an agent sees them, through the control device and the block device
 * below it and nothing else.
 *
 * A scenario is split from the kernel that it runs on: the devices, their writers and what can be
 * made to fail are an Environment's. The agent is test::Agent, whose processes (host/process.h)
 * need open, close, ioctl, mmap and memory at 32-bit addresses, which any process of a real system
 * has.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/agent.h"

namespace scenario
{

using Image = std::vector<unsigned char>;

// What a scenario runs on: one disk.
struct Layout {
    unsigned mebibytes = 1; // shared evenly by the devices
    // The block size of each device's file system; a device is named by its index here. Partitions
    // begin at sector 63, unless there is but one device, which is the whole disk.
    std::vector<unsigned> blockSizes = {4096};
    bool partitioned = true;
};

/*
 * Each device has a mounted file system. The blocks of it that scenarios write to are numbered
 * apart, as places: a real file system needs other blocks for itself. Their contents name place and
 * generation, and the environment remembers for each what was last written to it.
 *
 * Everything may sleep. Problems of the environment itself are exceptions.
 */
class Environment
{
public:
    virtual ~Environment() = default;

    // 0 or a negated errno. If an unload leaves anything behind, the scenario has failed: the
    // environment tells.
    virtual int load() = 0;
    virtual int unload() = 0;
    // One session record may have got lost, as it is documented of a session that cannot be made
    // for want of memory: it is not held against the next unload. No file may be open and no device
    // tracked.
    virtual void acceptLostSession() = 0;

    virtual kernel_dev_t device(unsigned index) const = 0;
    virtual std::uint64_t startSector(unsigned index) const = 0;
    virtual std::uint64_t sectors(unsigned index) const = 0;
    virtual unsigned blockSize(unsigned index) const = 0;
    virtual std::uint32_t blocks(unsigned index) const = 0;
    // How many places there are, at least as many as a device of the layout's size has blocks, and
    // the block of each. They ascend; the first ones lie side by side; the last is the device's
    // last block.
    virtual std::uint32_t places(unsigned index) const = 0;
    virtual std::uint32_t blockAt(unsigned index, std::uint32_t place) const = 0;

    // Writes new generations of `count` places from `first` into the file system, to reach the disk
    // sooner or later. Held while it is frozen.
    virtual void write(unsigned index, std::uint32_t first, std::uint32_t count) = 0;
    virtual void sync(unsigned index) = 0;
    // The same around the file system, as one bio, and waits until it is done: 0 or a negated errno
    // (then the blocks are as before). Not for places that are also written through the file
    // system, and not while a snapshot is taken.
    virtual int writeThrough(unsigned index, std::uint32_t first, std::uint32_t count) = 0;

    // The blocks other than places that the file system wrote, of its own accord, from one freeze
    // to the next, the last two of them.
    virtual test::Bitmap changedByFileSystem(unsigned index) const = 0;
    // How many such blocks it writes at a thaw.
    virtual std::uint32_t blocksChangedByThaw() const = 0;
    // What the device held when its file system was last frozen.
    virtual const Image &frozen(unsigned index) const = 0;
    // Writes everything out. Empty, or the first block, now or at a freeze, that was not on the
    // disk as it was last written, or a write that the disk refused.
    virtual std::string lostWrites(unsigned index) = 0;

    // Reads of these places fail until cleared.
    virtual void failReads(unsigned index, std::uint32_t first, std::uint32_t count) = 0;
    virtual void clearReadFailures() = 0;
    // The n-th call of this kind by the module fails (a "write": by anybody).
    virtual void failNth(const std::string &kind, unsigned n) = 0;
    // How many calls were made to fail, and no more will.
    virtual unsigned clearFailures() = 0;

    // Something that runs beside the scenario. Its end waits for it; join rethrows its exception.
    class Background
    {
    public:
        virtual ~Background() = default;
        virtual void join() = 0;
    };
    virtual std::unique_ptr<Background> start(std::function<void()> body) = 0;
    virtual void pause(unsigned microseconds) = 0;
};

struct Scenario {
    std::string name;
    Layout layout;
    // With the module loaded, and unloaded when it returns. Throws Failure.
    std::function<void(Environment &)> run;
    // The kind of what it makes fail by Environment::failNth; empty for nothing.
    std::string failing = {};
};

// One list for each subject.
std::vector<Scenario> chainScenarios();
std::vector<Scenario> spoiltScenarios();
std::vector<Scenario> writerScenarios();
std::vector<Scenario> unloadScenarios();
std::vector<Scenario> readerScenarios();
std::vector<Scenario> failureScenarios();

class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

inline void expect(bool condition, const std::string &what)
{
    if (!condition)
        throw Failure("expected: " + what);
}

template<class A, class B> void expectEqual(const A &actual, const B &expected, const char *what)
{
    if (actual != static_cast<A>(expected))
        throw Failure(std::string(what) + " is " + std::to_string(actual) + ", expected " +
                      std::to_string(expected));
}

} // namespace scenario
