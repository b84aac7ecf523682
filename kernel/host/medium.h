/* What a disk keeps its sectors on, with a volatile write cache in front of it. */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace host
{

// Offsets and lengths are bytes and need not be whole sectors. Any task or context; none of it
// calls the kernel.
class Medium
{
public:
    // In `file` (made or made longer if need be), or in memory if that is empty. Throws
    // std::system_error.
    Medium(std::uint64_t bytes, const std::string &file, bool writeCache);
    ~Medium();
    Medium(const Medium &) = delete;

    void read(std::uint64_t offset, void *data, std::size_t bytes) const;
    // `chance` is a random number: a write over a sector not yet flushed may have let the cache
    // write that sector's last contents to the medium first.
    void write(std::uint64_t offset, const void *data, std::size_t bytes, std::uint64_t chance);
    void flush();
    // Each sector not flushed goes back to its durable contents or keeps those written, as
    // `random` says; how many do is random too.
    void crash(std::uint64_t (*random)());

private:
    static constexpr unsigned sectorBytes = 512;
    static constexpr unsigned chunkSectors = 8;
    // The durable contents of those sectors of one chunk that were written since the last flush.
    struct Chunk {
        std::uint8_t written = 0; // bit for each sector
        std::array<unsigned char, sectorBytes * chunkSectors> durable;
    };

    void keepDurable(std::uint64_t offset, std::size_t bytes, std::uint64_t chance);
    void load(std::uint64_t offset, void *data, std::size_t bytes) const;
    void store(std::uint64_t offset, const void *data, std::size_t bytes);

    const std::uint64_t bytes_;
    const bool writeCache_;
    int file_ = -1;
    unsigned char *memory_ = nullptr;
    mutable std::mutex lock_;
    std::unordered_map<std::uint64_t, Chunk> unflushed_; // by chunk number
};

} // namespace host
