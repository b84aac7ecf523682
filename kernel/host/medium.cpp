#include "medium.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace host
{

namespace
{

[[noreturn]] void fail(const char *what, const std::string &file)
{
    throw std::system_error(errno, std::generic_category(), std::string(what) + " " + file);
}

// An image that stops working in the middle of a run leaves nothing to go on with.
[[noreturn]] void die(const char *what)
{
    std::fprintf(stderr, "disk image: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

} // namespace

Medium::Medium(std::uint64_t bytes, const std::string &file, bool writeCache)
    : bytes_(bytes), writeCache_(writeCache)
{
    if (file.empty()) {
        void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            fail("no memory for a disk", "");
        memory_ = static_cast<unsigned char *>(memory);
        return;
    }
    file_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_LARGEFILE, 0644);
    if (file_ < 0)
        fail("cannot open", file);
    struct stat64 status;
    bool failed =
        fstat64(file_, &status) != 0 || (static_cast<std::uint64_t>(status.st_size) < bytes &&
                                         ftruncate64(file_, static_cast<off64_t>(bytes)) != 0);
    if (failed) {
        close(file_);
        fail("cannot size", file);
    }
}

Medium::~Medium()
{
    if (memory_)
        munmap(memory_, bytes_);
    if (file_ >= 0)
        close(file_);
}

void Medium::load(std::uint64_t offset, void *data, std::size_t bytes) const
{
    if (memory_) {
        std::memcpy(data, memory_ + offset, bytes);
        return;
    }
    auto *to = static_cast<unsigned char *>(data);
    while (bytes > 0) {
        ssize_t got = pread64(file_, to, bytes, static_cast<off64_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            die("read");
        to += got;
        offset += static_cast<std::uint64_t>(got);
        bytes -= static_cast<std::size_t>(got);
    }
}

void Medium::store(std::uint64_t offset, const void *data, std::size_t bytes)
{
    if (memory_) {
        std::memcpy(memory_ + offset, data, bytes);
        return;
    }
    auto *from = static_cast<const unsigned char *>(data);
    while (bytes > 0) {
        ssize_t put = pwrite64(file_, from, bytes, static_cast<off64_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            die("write");
        from += put;
        offset += static_cast<std::uint64_t>(put);
        bytes -= static_cast<std::size_t>(put);
    }
}

void Medium::read(std::uint64_t offset, void *data, std::size_t bytes) const
{
    std::lock_guard guard(lock_);
    load(offset, data, bytes);
}

void Medium::keepDurable(std::uint64_t offset, std::size_t bytes, std::uint64_t chance)
{
    if (bytes == 0)
        return;
    std::uint64_t last = (offset + bytes - 1) / sectorBytes;
    for (std::uint64_t sector = offset / sectorBytes; sector <= last;) {
        std::uint64_t number = sector / chunkSectors;
        Chunk &chunk = unflushed_[number];
        bool destage = (chance & 3) == 0;
        chance = chance >> 2 | chance << 62;
        for (; sector <= last && sector / chunkSectors == number; sector++) {
            unsigned index = sector % chunkSectors;
            if ((chunk.written & 1 << index) && !destage)
                continue;
            load(sector * sectorBytes, chunk.durable.data() + index * sectorBytes, sectorBytes);
            chunk.written |= static_cast<std::uint8_t>(1 << index);
        }
    }
}

void Medium::write(std::uint64_t offset, const void *data, std::size_t bytes, std::uint64_t chance)
{
    std::lock_guard guard(lock_);
    if (writeCache_)
        keepDurable(offset, bytes, chance);
    store(offset, data, bytes);
}

void Medium::flush()
{
    std::lock_guard guard(lock_);
    unflushed_.clear();
}

void Medium::crash(std::uint64_t (*random)())
{
    std::lock_guard guard(lock_);
    std::vector<std::uint64_t> numbers;
    for (const auto &entry : unflushed_)
        numbers.push_back(entry.first);
    std::sort(numbers.begin(), numbers.end());
    std::uint64_t lostOfEight = random() % 9;
    for (std::uint64_t number : numbers) {
        const Chunk &chunk = unflushed_[number];
        std::uint64_t dice = random();
        for (unsigned index = 0; index < chunkSectors; index++, dice >>= 3) {
            if ((chunk.written & 1 << index) && (dice & 7) < lostOfEight)
                store((number * chunkSectors + index) * sectorBytes,
                      chunk.durable.data() + index * sectorBytes, sectorBytes);
        }
    }
    unflushed_.clear();
}

} // namespace host
