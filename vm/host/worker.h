/* A process of the guest that prepares the machine and writes to its disks. */
#pragma once

#include <string>
#include <vector>

#include <sys/syscall.h>

#include "guest.h"

namespace vm
{

// Throws std::runtime_error unless the result of a call, of the guest's or of an agent in it, is 0.
void require(int result, const std::string &what);

// Each method is a system call or a few, and gives a negated errno if one failed.
class Worker
{
public:
    explicit Worker(Guest &guest) : process_(guest) {}

    int open(const std::string &path, int flags);
    int close(int file) { return process_.systemCall(SYS_close, file); }
    // What a file holds; empty if there is none.
    std::string read(const std::string &path);
    // What is left to be read of an open one.
    std::string readRest(int file);
    // The names in a folder; none if there is no such folder.
    std::vector<std::string> list(const std::string &path);
    int write(const std::string &path, const std::string &text);
    int writeInto(int file, const std::string &value);
    int makeFolder(const std::string &path);
    int makeNode(const std::string &path, unsigned kind, unsigned major, unsigned minor);
    int remove(const std::string &path);
    int mount(const std::string &device, const std::string &folder, const std::string &type,
              const std::string &options);
    int unmount(const std::string &folder);

    // Into a file at an offset; through memory of the process that is aligned for direct transfers
    // if asked for. -EIO too if not all was written.
    int writeAt(int file, std::uint64_t offset, const std::vector<unsigned char> &bytes,
                bool direct);
    // All of the file, from its beginning.
    int writeAll(int file, const std::vector<unsigned char> &bytes);
    // A direct read, whose bytes are not looked at.
    int readDirect(int file, std::uint64_t offset, std::uint32_t bytes);
    int control(int file, std::uint32_t command)
    {
        return process_.systemCall(SYS_ioctl, file, command, 0);
    }
    // As a 64-bit program does it, with the address of some memory.
    int wideControl(int file, std::uint32_t command)
    {
        constexpr std::uint32_t ioctlNumber = 16;
        return process_.wideCall(ioctlNumber, static_cast<std::uint32_t>(file), command, data());
    }
    int sync(int file) { return process_.systemCall(SYS_fsync, file); }
    int syncAll() { return process_.systemCall(SYS_sync); }

    int loadModule(const std::string &path, std::uint32_t bytes);
    // The same of what is at an address of the process.
    int loadImage(std::uint32_t address, std::uint32_t bytes)
    {
        return process_.systemCall(SYS_init_module, address, bytes, text(0, ""));
    }
    int unloadModule(const std::string &name);

private:
    std::uint32_t text(unsigned number, const std::string &value);
    std::uint32_t data() const { return process_.area() + textBytes * texts; }
    // Memory of the process alone, as most memory is.
    int mapOwnMemory();

    static constexpr std::uint32_t textBytes = 4096;
    static constexpr std::uint32_t texts = 16;
    static constexpr std::uint32_t readBytes = 64 * 1024;

    GuestProcess process_;
    std::uint32_t ownMemory_ = 0;
};

} // namespace vm
