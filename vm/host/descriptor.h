/* Descriptors that close themselves, and transfers of whole buffers. */
#pragma once

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vm
{

[[noreturn]] inline void throwErrno(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

// A local socket at this path, which must be short, that waits for one peer.
inline Descriptor listenAt(const std::string &path)
{
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::invalid_argument(path + ": too long for a socket");
    path.copy(address.sun_path, path.size());
    ::unlink(path.c_str());
    if (socket.get() < 0 ||
        ::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(socket.get(), 1) != 0)
        throwErrno(path);
    return socket;
}

// False at the end of the stream or if the peer is gone.
inline bool receiveAll(int socket, void *to, std::size_t bytes)
{
    auto *at = static_cast<char *>(to);
    while (bytes != 0) {
        ssize_t count = ::recv(socket, at, bytes, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        at += count;
        bytes -= static_cast<std::size_t>(count);
    }
    return true;
}

inline bool sendAll(int socket, const void *from, std::size_t bytes)
{
    const auto *at = static_cast<const char *>(from);
    while (bytes != 0) {
        ssize_t count = ::send(socket, at, bytes, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        at += count;
        bytes -= static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace vm
