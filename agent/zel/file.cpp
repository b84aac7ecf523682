#include "file.h"

#include "error.h"
#include "interrupt.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zel
{

namespace
{

[[noreturn]] void refuse(const std::string &what, const std::string &name)
{
    throw Error(ExitCode::fellShort, what + " " + name + ": " + std::strerror(errno));
}

} // namespace

File::File(File &&other) noexcept : fd_(std::exchange(other.fd_, -1)), name_(std::move(other.name_))
{
}

File &File::operator=(File &&other) noexcept
{
    std::swap(fd_, other.fd_);
    std::swap(name_, other.name_);
    return *this;
}

File::~File()
{
    if (fd_ >= 0)
        ::close(fd_);
}

File File::open(const std::filesystem::path &path, int flags, unsigned mode)
{
    int fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    if (fd < 0)
        refuse("cannot open", path.string());
    return File(fd, path.string());
}

File File::duplicate(int descriptor, const std::string &name)
{
    int fd = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
    if (fd < 0)
        refuse("cannot use", name);
    return File(fd, name);
}

uint64_t File::size() const
{
    off_t end = ::lseek(fd_, 0, SEEK_END); // a block device has no st_size
    if (end < 0)
        refuse("cannot measure", name_);
    return static_cast<uint64_t>(end);
}

size_t File::readAt(std::span<std::byte> buffer, uint64_t offset) const
{
    size_t done = 0;
    while (done < buffer.size()) {
        ssize_t n = ::pread(fd_, buffer.data() + done, buffer.size() - done,
                            static_cast<off_t>(offset + done));
        if (n == 0)
            break;
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (errno != EINTR)
            refuse("cannot read", name_);
        checkInterrupted();
    }
    return done;
}

void File::writeAt(std::span<const std::byte> data, uint64_t offset) const
{
    while (!data.empty()) {
        ssize_t n = ::pwrite(fd_, data.data(), data.size(), static_cast<off_t>(offset));
        if (n >= 0) {
            data = data.subspan(static_cast<size_t>(n));
            offset += static_cast<uint64_t>(n);
            continue;
        }
        if (errno != EINTR)
            refuse("cannot write", name_);
        checkInterrupted();
    }
}

void File::write(std::span<const std::byte> data) const
{
    while (!data.empty()) {
        ssize_t n = ::write(fd_, data.data(), data.size());
        if (n >= 0) {
            data = data.subspan(static_cast<size_t>(n));
            continue;
        }
        if (errno != EINTR)
            refuse("cannot write", name_);
        checkInterrupted();
    }
}

void File::truncate(uint64_t size) const
{
    if (::ftruncate(fd_, static_cast<off_t>(size)) != 0)
        refuse("cannot set the size of", name_);
}

void File::sync() const
{
    if (::fsync(fd_) != 0)
        refuse("cannot make durable", name_);
}

void File::close()
{
    if (fd_ >= 0 && ::close(std::exchange(fd_, -1)) != 0)
        refuse("cannot close", name_);
}

void syncDirectory(const std::filesystem::path &directory)
{
    File::open(directory, O_RDONLY | O_DIRECTORY).sync();
}

std::string readTextFile(const std::filesystem::path &path, size_t limit)
{
    File file = File::open(path, O_RDONLY);
    std::string text(limit + 1, '\0');
    text.resize(file.readAt(std::as_writable_bytes(std::span(text)), 0));
    if (text.size() > limit)
        throw Error(ExitCode::corrupt, path.string() + ": too long");
    return text;
}

void writeTextFile(const std::filesystem::path &path, const std::string &text)
{
    File file = File::open(path, O_WRONLY | O_CREAT | O_EXCL);
    file.write(std::as_bytes(std::span(text)));
    file.sync();
    file.close();
}

} // namespace zel
