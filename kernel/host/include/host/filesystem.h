/* File systems mounted on devices of the host kernel. */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <kernel/fs.h>
#include <kernel/types.h>

namespace host
{

class FreezeGate;

// What a file system supplies. All are called in process context and may sleep.
class FileSystem
{
public:
    virtual ~FileSystem() = default;
    virtual unsigned blockSize() const = 0;
    // Called before mount: the gate that every modifying operation has to pass. It is valid until
    // unmount returns.
    virtual void useGate(FreezeGate &gate) { static_cast<void>(gate); }
    virtual bool mount(struct block_device *device) = 0;
    // Writes out what is dirty and waits for it. freeze_bdev closes the gate and then calls this:
    // then nothing is dirty after it.
    virtual void sync() = 0;
    // Nothing is dirty after it.
    virtual void unmount() = 0;
};

// The gate that every modifying operation of a file system passes: frozen means held. A task passes
// it once at a time.
class FreezeGate
{
public:
    FreezeGate();
    ~FreezeGate();
    void enter(); // sleeps while frozen
    void leave();
    void freeze(); // sleeps until those inside have left
    void thaw();
    bool frozen() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

class WriterScope
{
public:
    explicit WriterScope(FreezeGate &gate) : gate_(gate) { gate_.enter(); }
    ~WriterScope() { gate_.leave(); }
    WriterScope(const WriterScope &) = delete;

private:
    FreezeGate &gate_;
};

// One mounted file system; unmounts when destroyed (bd_disk is gone then if nobody else has the
// device open). That waits until nobody holds its super block or keeps it frozen. From a task, both
// ends.
class Mount
{
public:
    Mount(kernel_dev_t device, std::shared_ptr<FileSystem> fs);
    ~Mount();
    Mount(const Mount &) = delete;
    // False: there is no such device, something is mounted on it already, or the file system
    // refused.
    bool mounted() const;
    struct block_device *device() const;
    FileSystem &fileSystem();
    FreezeGate &gate();
    // Runs with the file system frozen and flushed, after freeze_bdev has flushed it and before its
    // caller goes on: the instant of a snapshot, for models and manifests. {} to stop.
    void onFrozen(std::function<void()> hook);
    // The next freeze_bdev that would freeze gives this error (a negated errno) as an error
    // pointer and leaves the file system thawed.
    void failNextFreeze(int error);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// A file system of self-describing blocks (number, generation, checksum), with a dirty cache that
// is written back at sync, freeze or pressure. Any block may be written at any time.
class SyntheticFs : public FileSystem
{
public:
    // Throws std::invalid_argument unless the block size is a multiple of 512.
    static std::shared_ptr<SyntheticFs> create(unsigned blockSize, std::uint64_t blocks);
    // Fills every block with generation 0, straight onto the device (open, not mounted). Mounting
    // reads the generations back, and fails if a block is not one of this file system's.
    virtual void format(struct block_device *device) = 0;
    // Writes a new generation of `count` blocks from `first` into the dirty cache; held while
    // frozen. Returns the generation.
    virtual std::uint64_t write(std::uint64_t first, std::uint64_t count) = 0;
    // Writes back some of the dirty blocks (those that a real kernel's flusher would).
    virtual void writeBack(std::uint64_t atMost) = 0;
    virtual std::uint64_t blocks() const = 0;
    // The generation that the file system holds for a block (dirty or not).
    virtual std::uint64_t generation(std::uint64_t block) const = 0;
    // Bios of write-back that failed. Their blocks are clean then, and lost, as in the kernel.
    virtual std::uint64_t writeErrors() const = 0;
    // The bytes that block `number` has in `generation`.
    static void render(std::uint64_t number, std::uint64_t generation, unsigned blockSize,
                       unsigned char *bytes);
    // Reads them back: false if the bytes are no whole block of this number.
    static bool parse(std::uint64_t number, const unsigned char *bytes, unsigned blockSize,
                      std::uint64_t *generation);
};

} // namespace host
