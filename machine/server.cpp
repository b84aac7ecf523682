#include "server.h"

#include "connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace machine
{
namespace
{

sockaddr_un addressOf(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        throw std::runtime_error(path + ": no path for a socket (at most " +
                                 std::to_string(sizeof(address.sun_path) - 1) + " bytes)");
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

bool somebodyListens(const sockaddr_un &address)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool connected =
        fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    if (fd >= 0)
        close(fd);
    return connected;
}

} // namespace

Server::Server(const std::string &path, Resolver resolver)
    : path_(path), resolver_(std::move(resolver))
{
    sockaddr_un address = addressOf(path);
    if (somebodyListens(address))
        throw std::runtime_error(path + ": another machine runs there");
    unlink(path.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0 ||
        bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(listener_, 8) != 0) {
        std::string error = std::strerror(errno);
        if (listener_ >= 0)
            close(listener_);
        throw std::runtime_error(path + ": " + error);
    }
}

Server::~Server()
{
    close(listener_);
    unlink(path_.c_str());
    for (Client &client : clients_)
        shutdown(client.socket, SHUT_RDWR);
    for (Client &client : clients_) {
        client.task.join();
        close(client.socket);
    }
}

void Server::serve(int milliseconds)
{
    pollfd waiting = {listener_, POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) > 0) {
        int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            clients_.push_back(
                {fd, host::spawn("agent", [this, fd] { serveConnection(fd, resolver_); })});
    }
    std::erase_if(clients_, [](Client &client) {
        if (!client.task.ended())
            return false;
        client.task.join();
        close(client.socket);
        return true;
    });
}

} // namespace machine
