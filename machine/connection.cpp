#include "connection.h"

#include <agent/machineProtocol.h>
#include <host/memory.h>
#include <host/process.h>
#include <kernel/types.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace machine
{
namespace
{

using namespace zelsend::machine;

struct PeerGone {
};

// Exactly this many bytes each way, or PeerGone.
class Wire
{
public:
    explicit Wire(int socket) : socket_(socket) {}

    void receive(void *to, std::size_t bytes)
    {
        auto *at = static_cast<char *>(to);
        while (bytes > 0) {
            ssize_t got = recv(socket_, at, bytes, 0);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                throw PeerGone();
            at += got;
            bytes -= static_cast<std::size_t>(got);
        }
    }

    void send(const void *from, std::size_t bytes)
    {
        auto *at = static_cast<const char *>(from);
        while (bytes > 0) {
            ssize_t sent = ::send(socket_, at, bytes, MSG_NOSIGNAL);
            if (sent < 0 && errno == EINTR)
                continue;
            if (sent <= 0)
                throw PeerGone();
            at += sent;
            bytes -= static_cast<std::size_t>(sent);
        }
    }

    // The message's first byte carries the descriptor.
    void sendWithDescriptor(const Message &message, int descriptor)
    {
        char byte;
        std::memcpy(&byte, &message, 1);
        iovec vector = {&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr header = {};
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        cmsghdr *rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(int));
        ssize_t sent;
        do
            sent = sendmsg(socket_, &header, MSG_NOSIGNAL);
        while (sent < 0 && errno == EINTR);
        if (sent != 1)
            throw PeerGone();
        send(reinterpret_cast<const char *>(&message) + 1, sizeof(message) - 1);
    }

private:
    int socket_;
};

// The peer's memory, asked for piece by piece. It is called from inside a system call, through
// kernel code that knows no exceptions: a peer that goes away shows as memory that is not there.
class PeerMemory : public host::Process::RemoteMemory
{
public:
    explicit PeerMemory(Wire &wire) : wire_(wire) {}

    std::size_t read(std::uint32_t address, void *to, std::size_t bytes) override
    {
        return pieces(address, bytes, [&](std::uint32_t at, std::uint32_t count) {
            std::uint32_t copied = ask(MessageType::ReadMemory, at, count, nullptr);
            wire_.receive(static_cast<char *>(to) + (at - address), copied);
            return copied;
        });
    }

    std::size_t write(std::uint32_t address, const void *from, std::size_t bytes) override
    {
        return pieces(address, bytes, [&](std::uint32_t at, std::uint32_t count) {
            return ask(MessageType::WriteMemory, at, count,
                       static_cast<const char *>(from) + (at - address));
        });
    }

    bool gone() const { return gone_; }

private:
    template<class Copy>
    std::size_t pieces(std::uint32_t address, std::size_t bytes, const Copy &copy)
    {
        std::size_t done = 0;
        try {
            while (done < bytes && !gone_) {
                auto count =
                    static_cast<std::uint32_t>(std::min<std::size_t>(bytes - done, maxMemoryBytes));
                std::uint32_t copied = copy(address + static_cast<std::uint32_t>(done), count);
                done += copied;
                if (copied < count)
                    break;
            }
        } catch (const PeerGone &) {
            gone_ = true;
        }
        return done;
    }

    std::uint32_t ask(MessageType type, std::uint32_t address, std::uint32_t bytes,
                      const char *data)
    {
        Message message = {};
        message.type = type;
        message.address = address;
        message.bytes = bytes;
        wire_.send(&message, sizeof(message));
        if (data != nullptr)
            wire_.send(data, bytes);
        MemoryAnswer answer;
        wire_.receive(&answer, sizeof(answer));
        if (answer.copied > bytes)
            throw PeerGone();
        return answer.copied;
    }

    Wire &wire_;
    bool gone_ = false;
};

class Connection
{
public:
    Connection(int socket, const std::function<std::uint32_t(const std::string &)> &resolve)
        : wire_(socket), resolve_(resolve), memory_(std::make_shared<PeerMemory>(wire_)),
          process_("agent")
    {
        process_.useRemoteMemory(memory_);
        host::setCurrentProcess(&process_);
    }

    ~Connection() { host::setCurrentProcess(nullptr); }
    Connection(const Connection &) = delete;

    void serve()
    {
        try {
            Request request = nextRequest();
            if (request.type != RequestType::Hello || request.command != protocolMagic ||
                request.argument != protocolVersion) {
                reply(-EINVAL);
                return;
            }
            reply(0);
            while (!memory_->gone())
                answer(nextRequest());
        } catch (const PeerGone &) {
        }
    }

private:
    Request nextRequest()
    {
        Request request;
        wire_.receive(&request, sizeof(request));
        if (request.textBytes > maxTextBytes)
            throw PeerGone();
        text_.resize(request.textBytes);
        wire_.receive(text_.data(), text_.size());
        return request;
    }

    void reply(int result, std::uint32_t device = 0)
    {
        Message message = {};
        message.type = MessageType::Reply;
        message.result = result;
        message.major = deviceMajor(device);
        message.minor = deviceMinor(device);
        wire_.send(&message, sizeof(message));
    }

    void answer(const Request &request)
    {
        switch (request.type) {
        case RequestType::Resolve: {
            std::uint32_t device = resolve_(text_);
            return reply(device != 0 ? 0 : -ENOENT, device);
        }
        case RequestType::Open:
            return reply(process_.open(text_));
        case RequestType::Ioctl:
            return reply(process_.ioctl(request.descriptor, request.command, request.argument));
        case RequestType::Map:
            return map(request);
        case RequestType::Unmap:
            return reply(process_.munmap(request.address));
        case RequestType::Close:
            return reply(process_.close(request.descriptor));
        default:
            throw PeerGone();
        }
    }

    void map(const Request &request)
    {
        std::uint32_t pages = request.bytes / pageBytes;
        if (request.bytes % pageBytes != 0 || request.offset % pageBytes != 0)
            return reply(-EINVAL);
        std::uint32_t address = request.address;
        int result =
            process_.mmap(request.descriptor, request.bytes, (request.protection & PROT_WRITE) != 0,
                          (request.flags & MAP_SHARED) != 0,
                          static_cast<std::size_t>(request.offset / pageBytes), &address);
        if (result != 0)
            return reply(result);
        std::vector<MappedPage> mapped;
        for (std::uint32_t i = 0; i < pages && i < maxMappedPages; i++)
            if (struct page *page = process_.mappedPage(address, i))
                mapped.push_back({host::pageFileOffset(page)});
        if (mapped.size() != pages) {
            process_.munmap(address);
            return reply(-EFAULT);
        }
        Message message = {};
        message.type = MessageType::Reply;
        wire_.sendWithDescriptor(message, host::pageMemoryFile());
        wire_.send(mapped.data(), mapped.size() * sizeof(MappedPage));
    }

    Wire wire_;
    const std::function<std::uint32_t(const std::string &)> &resolve_;
    std::shared_ptr<PeerMemory> memory_;
    host::Process process_;
    std::string text_;
};

} // namespace

void serveConnection(int socket,
                     const std::function<std::uint32_t(const std::string &path)> &resolve)
{
    Connection connection(socket, resolve);
    connection.serve();
}

} // namespace machine
