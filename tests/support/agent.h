/* A backup agent in a process of its own: the control device's commands as plain calls. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <host/process.h>
#include <kernel/types.h>
#include <zelmod.h>

namespace test
{

// One bit a block, least significant bit of the first byte first, as the control device has it.
using Bitmap = std::vector<std::uint8_t>;

Bitmap emptyBitmap(std::uint32_t blocks);
Bitmap fullBitmap(std::uint32_t blocks); // the bits past the last block are 0
bool testBit(const Bitmap &map, std::uint32_t block);
void setBit(Bitmap &map, std::uint32_t block);
std::uint32_t countBits(const Bitmap &map);

/*
 * A process that has opened /dev/zelmod. Every method is one system call, made by the calling task
 * as a task of that process, and returns what the kernel gives the process: 0, one of the
 * module's result codes or a negated errno. From a task only, the constructor and destructor too.
 *
 * An answer is the agent's memory after the command: it is copied to the process before and back
 * after it, so what the command did not write is as the caller had it. `len` is what the record
 * tells the module.
 */
class Agent
{
public:
    explicit Agent(const std::string &name = "agent");
    // A child of the parent's process, with the same open file and the device that it backs up.
    Agent(Agent &parent, const std::string &name);
    // Exits: unmaps its buffers, then closes the device.
    ~Agent() = default;

    host::Process &process() { return process_; }
    // The descriptor, or the errno value with which opening failed.
    int fd() const { return fd_; }
    bool opened() const { return fd_ >= 0; }
    int open(); // after a close
    int close();

    int ioctl(std::uint32_t command, std::uint32_t argument = 0);

    int getBlockSize(kernel_dev_t device, BlockSize *answer, std::uint32_t len = sizeof(BlockSize));
    int startBackup(kernel_dev_t device, std::uint32_t totalBlocks, std::uint32_t maxCacheBlocks);
    int snapShot(const AMSessionKey &key = {}, std::uint32_t len = sizeof(AMSessionKey));
    int getState(State *answer, std::uint32_t len = sizeof(State));
    int getAutoMapState(AutoMapState *answer, std::uint32_t len = sizeof(AutoMapState));
    int noLoadFromAutoMap() { return ioctl(ZEL_NO_LOAD_FROM_AUTO_MAP); }
    int noStartAutoMap() { return ioctl(ZEL_NO_START_AUTO_MAP); }
    // Selects every block of a device that has this many.
    int loadBlockMap(std::uint32_t blocks);
    int loadBlockMap(const Bitmap &map, std::uint32_t blocks);
    // `map` is made to hold `blocks` bits.
    int getAutoMap(Bitmap *map, std::uint32_t blocks);
    int getDirtyBlock(std::uint32_t *block);
    int readBlocks(std::uint32_t start, std::uint32_t count, std::uint32_t buffer);
    int versionMajor(std::int32_t *version);
    int versionMinor(std::int32_t *version);
    int sync() { return ioctl(ZEL_SYNC); }
    int shutdown() { return ioctl(ZEL_SHUTDOWN); }

    // Maps a transfer buffer, private and read-only.
    int mapBuffer(std::size_t bytes, std::uint32_t *address);
    int unmapBuffer(std::uint32_t address) { return process_.munmap(address); }
    // The buffer as the process sees it, its pages faulted in; nullptr if it would get a signal.
    const unsigned char *buffer(std::uint32_t address, std::size_t bytes);

    /*
     * The usual start of a backup: asks for the device's block size, starts a backup of all its
     * blocks and takes the snapshot. The first result that is not 0. Afterwards blocks() and
     * blockSize() are those of the device.
     */
    int begin(kernel_dev_t device, const AMSessionKey &key = {},
              std::uint32_t maxCacheBlocks = 1u << 20);
    std::uint32_t blocks() const { return blocks_; }
    std::uint32_t blockSize() const { return blockSize_; }

    /*
     * After begin: reads the blocks in `wanted` through a buffer of its own, in runs as long as
     * it takes, into their places in `image`. 0, or 12 if some could not be read (they are zeroed
     * in the image), or the first other result, where it stopped.
     */
    int readInto(std::vector<unsigned char> &image, const Bitmap &wanted);
    // The same for every block, into an image made for it.
    int readWhole(std::vector<unsigned char> *image);

private:
    // The record is placed in the process's memory for the length of the command.
    template<class T> int command(std::uint32_t number, const T &record);

    host::Process process_;
    int fd_;
    std::uint32_t blocks_ = 0;
    std::uint32_t blockSize_ = 0;
};

} // namespace test
