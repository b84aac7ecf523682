/* What a partition holds whenever its file system is frozen, from the disk itself. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "vm/host/disk.h"

namespace vm
{

// An ext3 or ext4 file system marks its superblock as the last thing that it writes when it is
// frozen or unmounted: the disk's contents at that write are what it holds then.
class FrozenContents
{
public:
    // Of the partition at these bytes of the disk, whose file system is not in use yet. The disk's
    // only observer for as long as this lives.
    FrozenContents(Disk &disk, std::uint64_t start, std::size_t bytes);
    ~FrozenContents();
    FrozenContents(const FrozenContents &) = delete;

    // How often the file system was frozen, or unmounted.
    unsigned freezes() const;
    // Writes what the partition held at the last freeze into a file. Throws std::runtime_error.
    void save(const std::string &path) const;

private:
    static constexpr std::size_t pageBytes = 4096;

    void onWrite(std::uint64_t offset, std::size_t bytes, const Disk::Bytes &disk);
    void take(const Disk::Bytes &disk);

    Disk &disk_;
    const std::uint64_t start_;
    mutable std::mutex mutex_;  // guards what follows
    Disk::Bytes contents_;      // at the last freeze
    std::vector<bool> written_; // each page, since then
    bool inUse_ = false;        // as the superblock says
    unsigned freezes_ = 0;
};

} // namespace vm
