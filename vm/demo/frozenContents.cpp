#include "frozenContents.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "vm/host/extFile.h"

namespace vm
{

FrozenContents::FrozenContents(Disk &disk, std::uint64_t start, std::size_t bytes)
    : disk_(disk), start_(start), contents_(disk.contents(start, bytes)),
      written_((bytes + pageBytes - 1) / pageBytes)
{
    disk_.observe([this](std::uint64_t offset, std::size_t length, const Disk::Bytes &now) {
        onWrite(offset, length, now);
    });
}

FrozenContents::~FrozenContents()
{
    disk_.observe(nullptr);
}

void FrozenContents::onWrite(std::uint64_t offset, std::size_t bytes, const Disk::Bytes &disk)
{
    std::lock_guard lock(mutex_);
    std::uint64_t end = start_ + contents_.size();
    if (bytes == 0 || offset + bytes <= start_ || offset >= end)
        return;
    std::uint64_t from = std::max(offset, start_) - start_;
    std::uint64_t to = std::min(offset + bytes, end) - start_;
    for (std::uint64_t page = from / pageBytes; page * pageBytes < to; page++)
        written_[static_cast<std::size_t>(page)] = true;
    if (from >= superblockOffset + superblockBytes || to <= superblockOffset)
        return;
    bool wasInUse = inUse_;
    inUse_ = inUse(&disk[static_cast<std::size_t>(start_ + superblockOffset)]);
    if (wasInUse && !inUse_)
        take(disk);
}

// Only what has changed is copied, as the guest waits with its file system frozen.
void FrozenContents::take(const Disk::Bytes &disk)
{
    for (std::size_t page = 0; page < written_.size(); page++) {
        if (!written_[page])
            continue;
        std::size_t from = page * pageBytes;
        std::size_t to = std::min(from + pageBytes, contents_.size());
        auto partition = disk.begin() + static_cast<std::ptrdiff_t>(start_);
        std::copy(partition + static_cast<std::ptrdiff_t>(from),
                  partition + static_cast<std::ptrdiff_t>(to),
                  contents_.begin() + static_cast<std::ptrdiff_t>(from));
    }
    written_.assign(written_.size(), false);
    freezes_++;
}

unsigned FrozenContents::freezes() const
{
    std::lock_guard lock(mutex_);
    return freezes_;
}

void FrozenContents::save(const std::string &path) const
{
    std::lock_guard lock(mutex_);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(contents_.data()),
              static_cast<std::streamsize>(contents_.size()));
    out.close();
    if (!out)
        throw std::runtime_error(path + ": cannot be written");
}

} // namespace vm
