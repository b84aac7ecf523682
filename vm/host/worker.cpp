#include "worker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>

namespace vm
{
namespace
{

// Where a worker maps things for itself.
constexpr std::uint32_t ownMemoryAddress = 0x70000000;
constexpr std::uint32_t moduleAddress = 0x71000000;

unsigned char *pointer(std::uint32_t address)
{
    return reinterpret_cast<unsigned char *>(static_cast<std::uintptr_t>(address));
}

} // namespace

void require(int result, const std::string &what)
{
    if (result != 0)
        throw std::runtime_error("the guest: " + what + " failed with " + std::to_string(result));
}

std::uint32_t Worker::text(unsigned number, const std::string &value)
{
    if (number >= texts || value.size() >= textBytes)
        throw std::length_error("a text that is too long for the guest");
    std::uint32_t address = process_.area() + number * textBytes;
    std::memcpy(pointer(address), value.c_str(), value.size() + 1);
    return address;
}

int Worker::open(const std::string &path, int flags)
{
    return process_.systemCall(SYS_open, text(0, path), flags, 0);
}

std::string Worker::read(const std::string &path)
{
    int file = open(path, O_RDONLY);
    if (file < 0)
        return "";
    std::string contents = readRest(file);
    close(file);
    return contents;
}

std::string Worker::readRest(int file)
{
    const auto *bytes = reinterpret_cast<const char *>(pointer(data()));
    std::string contents;
    int count = 0;
    while ((count = process_.systemCall(SYS_read, file, data(), readBytes)) > 0)
        contents.append(bytes, bytes + count);
    return contents;
}

std::vector<std::string> Worker::list(const std::string &path)
{
    std::vector<std::string> names;
    int folder = open(path, O_RDONLY | O_DIRECTORY);
    if (folder < 0)
        return names;
    int count = 0;
    while ((count = process_.systemCall(SYS_getdents64, folder, data(), readBytes)) > 0)
        for (int at = 0; at < count;) {
            const auto *entry = reinterpret_cast<const dirent64 *>(
                pointer(data() + static_cast<std::uint32_t>(at)));
            names.emplace_back(entry->d_name);
            at += entry->d_reclen;
        }
    close(folder);
    return names;
}

int Worker::write(const std::string &path, const std::string &value)
{
    int file = open(path, O_WRONLY);
    if (file < 0)
        return file;
    int result = writeInto(file, value);
    close(file);
    return result;
}

int Worker::writeInto(int file, const std::string &value)
{
    int count = process_.systemCall(SYS_write, file, text(0, value), value.size());
    return count < 0 ? count : 0;
}

int Worker::makeFolder(const std::string &path)
{
    return process_.systemCall(SYS_mkdir, text(0, path), 0755);
}

int Worker::makeNode(const std::string &path, unsigned kind, unsigned major, unsigned minor)
{
    return process_.systemCall(SYS_mknod, text(0, path), kind | 0600,
                               static_cast<std::uint32_t>(makedev(major, minor)));
}

int Worker::remove(const std::string &path)
{
    return process_.systemCall(SYS_unlink, text(0, path));
}

int Worker::mount(const std::string &device, const std::string &folder, const std::string &type,
                  const std::string &options)
{
    return process_.systemCall(SYS_mount, text(0, device), text(1, folder), text(2, type),
                               MS_NOATIME, text(3, options));
}

int Worker::unmount(const std::string &folder)
{
    return process_.systemCall(SYS_umount2, text(0, folder), 0);
}

int Worker::mapOwnMemory()
{
    if (ownMemory_ != 0)
        return 0;
    int result =
        process_.systemCall(SYS_mmap2, ownMemoryAddress, memoryBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (result != static_cast<int>(ownMemoryAddress))
        return result;
    ownMemory_ = ownMemoryAddress;
    return 0;
}

int Worker::writeAt(int file, std::uint64_t offset, const std::vector<unsigned char> &bytes,
                    bool direct)
{
    if (bytes.size() > memoryBytes - texts * textBytes)
        throw std::length_error("a write that is too long for the guest");
    auto length = static_cast<std::uint32_t>(bytes.size());
    std::uint32_t from = data();
    std::memcpy(pointer(from), bytes.data(), length);
    if (direct) {
        int result = mapOwnMemory();
        if (result == 0)
            result = process_.copy(ownMemory_, from, length);
        if (result != 0)
            return result;
        from = ownMemory_;
    }
    int count =
        process_.systemCall(SYS_pwrite64, file, from, length, static_cast<std::uint32_t>(offset),
                            static_cast<std::uint32_t>(offset >> 32));
    if (count < 0)
        return count;
    return static_cast<std::uint32_t>(count) == length ? 0 : -EIO;
}

int Worker::writeAll(int file, const std::vector<unsigned char> &bytes)
{
    constexpr std::size_t piece = 512 * 1024;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        auto from = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        auto length = static_cast<std::ptrdiff_t>(std::min(piece, bytes.size() - at));
        int result = writeAt(file, at, {from, from + length}, false);
        if (result != 0)
            return result;
    }
    return 0;
}

int Worker::readDirect(int file, std::uint64_t offset, std::uint32_t bytes)
{
    int result = mapOwnMemory();
    if (result != 0)
        return result;
    int count = process_.systemCall(SYS_pread64, file, ownMemory_, bytes,
                                    static_cast<std::uint32_t>(offset),
                                    static_cast<std::uint32_t>(offset >> 32));
    if (count < 0)
        return count;
    return static_cast<std::uint32_t>(count) == bytes ? 0 : -EIO;
}

int Worker::loadModule(const std::string &path, std::uint32_t bytes)
{
    int file = open(path, O_RDONLY);
    if (file < 0)
        return file;
    int result = process_.systemCall(SYS_mmap2, moduleAddress, bytes, PROT_READ,
                                     MAP_PRIVATE | MAP_FIXED, file, 0);
    if (result == static_cast<int>(moduleAddress)) {
        result = loadImage(moduleAddress, bytes);
        process_.systemCall(SYS_munmap, moduleAddress, bytes);
    }
    close(file);
    return result;
}

int Worker::unloadModule(const std::string &name)
{
    return process_.systemCall(SYS_delete_module, text(0, name), O_NONBLOCK);
}

} // namespace vm
