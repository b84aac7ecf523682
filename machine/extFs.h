/*
 * A real ext2, ext3 or ext4 file system, mounted on a device of the host kernel.
 *
 * libext2fs does the file system's work; this class gives it what a kernel gives a file system: one
 * big lock, a write-back cache, and writers that are held while it is frozen.
 */
#pragma once

#include "manifest.h"

#include <host/filesystem.h>
#include <kernel/sync.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace machine
{

class ExtFs : public host::FileSystem
{
public:
    ExtFs();

    // host::FileSystem
    unsigned blockSize() const override;
    bool mount(struct block_device *device) override;
    void sync() override;
    void unmount() override;
    void useGate(host::FreezeGate &gate) override { gate_ = &gate; }

    // Paths are absolute; parent directories must exist. All pass the gate. Each throws
    // std::runtime_error on failure (no space, no such file). Process context; sleeps while frozen.
    void makeDirectory(const std::string &path);
    // Writes `data` at `offset`, creating the file if need be.
    void writeFile(const std::string &path, std::uint64_t offset, const std::string &data);
    void truncateFile(const std::string &path, std::uint64_t size);
    void removeFile(const std::string &path);
    void renameFile(const std::string &from, const std::string &to);

    // Reads; not held by a freeze.
    std::uint64_t freeBytes();
    std::uint64_t totalBytes();

    // What the file system holds now. Entries that no operation above has touched since the last
    // call are not read again, so that it is quick on a frozen file system.
    Manifest manifest();

    // Writes back some of the dirty data, as a kernel's flusher does.
    void writeBack(std::size_t bytes);

private:
    ext2_ino_t find(const std::string &path); // 0: no such file
    ext2_ino_t parentOf(const std::string &path, std::string *name);
    void link(ext2_ino_t directory, const std::string &name, ext2_ino_t inode, int kind);
    ext2_ino_t createFile(const std::string &path);
    void change(const std::function<void()> &operation, const std::string &path);

    struct semaphore lock_; // all of the below, and libext2fs
    ext2_filsys fs_ = nullptr;
    host::FreezeGate *gate_ = nullptr;
    Manifest manifest_;
    bool manifestKnown_ = false;
    std::set<std::string> touched_; // since the last manifest
};

} // namespace machine
