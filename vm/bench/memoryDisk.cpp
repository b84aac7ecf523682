#include "memoryDisk.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sys/mman.h>

#include "vm/host/disk.h"

namespace vm
{

// The descriptor stays open in the emulator and in the shell that makes a file system.
MemoryDisk::MemoryDisk(std::uint64_t bytes) : bytes_(bytes), memory_(::memfd_create("disk", 0))
{
    if (memory_.get() < 0 || ::ftruncate(memory_.get(), static_cast<off_t>(bytes)) != 0)
        throwErrno("a disk in memory");
}

std::string MemoryDisk::path() const
{
    return "/proc/self/fd/" + std::to_string(memory_.get());
}

std::string MemoryDisk::drive() const
{
    return "file=" + path() + ",format=raw,if=virtio,cache=unsafe,file.locking=off";
}

int MemoryDisk::read(std::uint64_t offset, void *to, std::size_t bytes)
{
    if (offset > bytes_ || bytes > bytes_ - offset)
        return EINVAL;
    ssize_t done = ::pread(memory_.get(), to, bytes, static_cast<off_t>(offset));
    return done == static_cast<ssize_t>(bytes) ? 0 : EIO;
}

int MemoryDisk::write(std::uint64_t offset, const void *from, std::size_t bytes)
{
    if (offset > bytes_ || bytes > bytes_ - offset)
        return EINVAL;
    ssize_t done = ::pwrite(memory_.get(), from, bytes, static_cast<off_t>(offset));
    return done == static_cast<ssize_t>(bytes) ? 0 : EIO;
}

void MemoryDisk::put(std::uint64_t offset, const void *from, std::size_t bytes)
{
    int failure = write(offset, from, bytes);
    if (failure != 0)
        throw std::system_error(failure, std::generic_category(), "writing to a disk in memory");
}

void MemoryDisk::partition(const std::vector<Partition> &partitions)
{
    constexpr unsigned char linuxType = 0x83;
    unsigned char record[sectorBytes] = {};
    unsigned char *entry = record + 446;
    for (const Partition &partition : partitions) {
        auto start = static_cast<std::uint32_t>(partition.start / sectorBytes);
        auto sectors = static_cast<std::uint32_t>(partition.bytes / sectorBytes);
        entry[4] = linuxType;
        std::memcpy(entry + 8, &start, sizeof(start));
        std::memcpy(entry + 12, &sectors, sizeof(sectors));
        entry += 16;
    }
    record[510] = 0x55;
    record[511] = 0xaa;
    put(0, record, sizeof(record));
}

void MemoryDisk::makeFileSystem(std::uint64_t start, std::uint64_t bytes)
{
    std::string command = "PATH=$PATH:/usr/sbin:/sbin mke2fs -q -F -t ext3 -b 4096 -m 0 -N 16"
                          " -O none,has_journal,filetype,sparse_super,large_file -J size=16";
    command += " -E nodiscard,offset=" + std::to_string(start);
    command += " " + path() + " " + std::to_string(bytes / 1024) + "k >mke2fs.log 2>&1";
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

void MemoryDisk::fill(std::uint64_t start, std::uint64_t bytes)
{
    std::vector<unsigned char> piece(1 << 20, 'f');
    for (std::uint64_t done = 0; done < bytes; done += piece.size())
        put(start + done, piece.data(), piece.size());
}

} // namespace vm
