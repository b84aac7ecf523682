/* System calls of processes outside the machine, over a local socket (agent/machineProtocol.h). */
#pragma once

#include <host/task.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace machine
{

// Listens at a path and serves each connection as a process of the machine, in a task of its own.
// Construct, use and destroy it in a task of a parallel host kernel.
class Server
{
public:
    // The device number behind a path such as "/dev/sda1"; 0 if there is none.
    using Resolver = std::function<std::uint32_t(const std::string &path)>;

    // Throws std::runtime_error if it cannot listen. A socket file that a machine which is gone has
    // left behind is replaced; one that is in use is not.
    Server(const std::string &path, Resolver resolver);
    // Cuts all connections (their processes exit) and removes the socket.
    ~Server();
    Server(const Server &) = delete;

    // Accepts what is waiting; returns after at most this time.
    void serve(int milliseconds);

private:
    struct Client {
        int socket;
        host::Task task;
    };

    std::string path_;
    Resolver resolver_;
    int listener_ = -1;
    std::vector<Client> clients_;
};

} // namespace machine
