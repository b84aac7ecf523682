#include "machineClient.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "lowMemory.h"
#include "machineProtocol.h"

namespace zelsend
{

using machine::MappedPage;
using machine::MemoryAnswer;
using machine::Message;
using machine::MessageType;
using machine::pageBytes;
using machine::Request;
using machine::RequestType;

namespace
{

bool sendAll(int socket, const void *data, size_t bytes)
{
    auto at = static_cast<const char *>(data);
    while (bytes > 0) {
        ssize_t sent = send(socket, at, bytes, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        at += sent;
        bytes -= static_cast<size_t>(sent);
    }
    return true;
}

bool receiveAll(int socket, void *data, size_t bytes)
{
    auto at = static_cast<char *>(data);
    while (bytes > 0) {
        ssize_t got = recv(socket, at, bytes, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        at += got;
        bytes -= static_cast<size_t>(got);
    }
    return true;
}

// Receives a message and the file descriptor that may come with it (else *file is -1).
bool receiveMessage(int socket, Message *message, int *file)
{
    union {
        struct cmsghdr header;
        char space[CMSG_SPACE(sizeof(int))];
    } control;
    struct iovec place = {message, sizeof(*message)};
    struct msghdr header = {};
    header.msg_iov = &place;
    header.msg_iovlen = 1;
    header.msg_control = &control;
    header.msg_controllen = sizeof(control);
    *file = -1;
    ssize_t got;
    do {
        got = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
        return false;
    }
    struct cmsghdr *attached = CMSG_FIRSTHDR(&header);
    if (attached != nullptr && attached->cmsg_level == SOL_SOCKET &&
        attached->cmsg_type == SCM_RIGHTS && attached->cmsg_len == CMSG_LEN(sizeof(int))) {
        memcpy(file, CMSG_DATA(attached), sizeof(int));
    }
    auto done = static_cast<size_t>(got);
    if (receiveAll(socket, reinterpret_cast<char *>(message) + done, sizeof(*message) - done)) {
        return true;
    }
    if (*file >= 0) {
        close(*file);
    }
    return false;
}

char *pointer(uint32_t address)
{
    return reinterpret_cast<char *>(uintptr_t{address});
}

uint32_t bytesToPageEnd(uint32_t address, uint32_t bytes)
{
    uint32_t rest = pageBytes - address % pageBytes;
    return bytes < rest ? bytes : rest;
}

// Reading from a bad address into a pipe fails with EFAULT, where a load would end the program. A
// piece lies within one page, so it is copied whole or not at all. Both give the bytes copied.
uint32_t copyFromMemory(const int *pipe, uint32_t address, uint32_t bytes, char *to)
{
    uint32_t copied = 0;
    while (copied < bytes) {
        uint32_t piece = bytesToPageEnd(address + copied, bytes - copied);
        if (write(pipe[1], pointer(address + copied), piece) != static_cast<ssize_t>(piece) ||
            read(pipe[0], to + copied, piece) != static_cast<ssize_t>(piece)) {
            break;
        }
        copied += piece;
    }
    return copied;
}

uint32_t copyToMemory(const int *pipe, uint32_t address, uint32_t bytes, char *from)
{
    uint32_t copied = 0;
    while (copied < bytes) {
        uint32_t piece = bytesToPageEnd(address + copied, bytes - copied);
        if (write(pipe[1], from + copied, piece) != static_cast<ssize_t>(piece)) {
            break;
        }
        if (read(pipe[0], pointer(address + copied), piece) != static_cast<ssize_t>(piece)) {
            // Takes the piece out of the pipe again; what it was is not needed.
            static_cast<void>(!read(pipe[0], from + copied, piece));
            break;
        }
        copied += piece;
    }
    return copied;
}

bool answerMemory(int socket, const int *pipe, const Message &message)
{
    static char buffer[machine::maxMemoryBytes];
    if (message.bytes > sizeof(buffer)) {
        return false;
    }
    MemoryAnswer answer;
    if (message.type == MessageType::ReadMemory) {
        answer.copied = copyFromMemory(pipe, message.address, message.bytes, buffer);
        return sendAll(socket, &answer, sizeof(answer)) && sendAll(socket, buffer, answer.copied);
    }
    if (!receiveAll(socket, buffer, message.bytes)) {
        return false;
    }
    answer.copied = copyToMemory(pipe, message.address, message.bytes, buffer);
    return sendAll(socket, &answer, sizeof(answer));
}

// Maps the pages that the machine named over the reserved place.
int mapPages(int socket, int file, char *place, uint32_t pages)
{
    int result = 0;
    for (uint32_t i = 0; i < pages; i++) {
        MappedPage page;
        if (!receiveAll(socket, &page, sizeof(page))) {
            return -EIO;
        }
        if (mmap(place + i * pageBytes, pageBytes, PROT_READ, MAP_SHARED | MAP_FIXED, file,
                 static_cast<off_t>(page.offset)) == MAP_FAILED) {
            result = -errno;
        }
    }
    return result;
}

} // namespace

// The functions of the table.
struct MachineClient::Calls {
    // Sends a request and serves the machine until its reply, of which a failed connection makes
    // one with -EIO. *file is set to the descriptor that came along, or closed where it is not
    // wanted.
    static Message call(MachineClient *client, Request request, const char *text, int *file)
    {
        constexpr Message broken = {MessageType::Reply, -EIO, 0, 0, 0, 0};
        request.textBytes = static_cast<uint32_t>(strlen(text));
        if (request.textBytes > machine::maxTextBytes) {
            return {MessageType::Reply, -ENAMETOOLONG, 0, 0, 0, 0};
        }
        if (!sendAll(client->socket_, &request, sizeof(request)) ||
            !sendAll(client->socket_, text, request.textBytes)) {
            return broken;
        }
        for (;;) {
            Message message;
            int attached;
            if (!receiveMessage(client->socket_, &message, &attached)) {
                return broken;
            }
            if (attached >= 0 && (file == nullptr || message.type != MessageType::Reply)) {
                close(attached);
                attached = -1;
            }
            switch (message.type) {
            case MessageType::Reply:
                if (file != nullptr) {
                    *file = attached;
                }
                return message;
            case MessageType::ReadMemory:
            case MessageType::WriteMemory:
                if (answerMemory(client->socket_, client->pipe_, message)) {
                    continue;
                }
            }
            return broken;
        }
    }

    static Request request(RequestType type)
    {
        Request request = {};
        request.type = type;
        return request;
    }

    static MachineClient *of(void *self) { return static_cast<MachineClient *>(self); }

    static int resolve(void *self, const char *path, uint32_t *major, uint32_t *minor)
    {
        Message reply = call(of(self), request(RequestType::Resolve), path, nullptr);
        *major = reply.major;
        *minor = reply.minor;
        return reply.result;
    }

    static int open(void *self, const char *path)
    {
        Request open = request(RequestType::Open);
        open.flags = O_RDWR;
        return call(of(self), open, path, nullptr).result;
    }

    static int ioctl(void *self, int descriptor, uint32_t command, void *argument)
    {
        Request control = request(RequestType::Ioctl);
        control.descriptor = descriptor;
        control.command = command;
        control.argument = userAddress(argument);
        return call(of(self), control, "", nullptr).result;
    }

    static int map(void *self, int descriptor, size_t bytes, void **address)
    {
        void *place = reserveLowAddresses(bytes);
        if (place == nullptr) {
            return -ENOMEM;
        }
        Request map = request(RequestType::Map);
        map.descriptor = descriptor;
        map.address = userAddress(place);
        map.bytes = static_cast<uint32_t>(bytes);
        map.protection = PROT_READ;
        map.flags = MAP_PRIVATE;
        int file = -1;
        int result = call(of(self), map, "", &file).result;
        if (result == 0 && file < 0) {
            result = -EIO;
        }
        if (result == 0) {
            auto pages = static_cast<uint32_t>((bytes + pageBytes - 1) / pageBytes);
            result = mapPages(of(self)->socket_, file, static_cast<char *>(place), pages);
        }
        if (file >= 0) {
            close(file);
        }
        if (result != 0) {
            munmap(place, bytes);
            return result;
        }
        *address = place;
        return 0;
    }

    static int unmap(void *self, void *address, size_t bytes)
    {
        Request unmap = request(RequestType::Unmap);
        unmap.address = userAddress(address);
        unmap.bytes = static_cast<uint32_t>(bytes);
        int result = call(of(self), unmap, "", nullptr).result;
        munmap(address, bytes);
        return result;
    }

    static int closeFile(void *self, int descriptor)
    {
        Request close = request(RequestType::Close);
        close.descriptor = descriptor;
        return call(of(self), close, "", nullptr).result;
    }
};

MachineClient::~MachineClient()
{
    const int descriptors[] = {socket_, pipe_[0], pipe_[1]};
    for (int descriptor : descriptors) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

Outcome MachineClient::connect(const char *path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path)) {
        return failure(ExitCode::Usage, "--machine: the path '%s' is too long", path);
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
    if (pipe(pipe_) != 0) {
        return failure(ExitCode::FellShort, "no pipe: %s", strerror(errno));
    }
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0 ||
        ::connect(socket_, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) {
        return failure(ExitCode::Refused, "machine %s: %s", path, strerror(errno));
    }
    Request hello = Calls::request(RequestType::Hello);
    hello.command = machine::protocolMagic;
    hello.argument = machine::protocolVersion;
    int result = Calls::call(this, hello, "", nullptr).result;
    if (result != 0) {
        return failure(ExitCode::Refused, "machine %s: %s", path,
                       result < 0 ? strerror(-result) : "it speaks another protocol");
    }
    return {};
}

Device MachineClient::device()
{
    return {this,       Calls::resolve, Calls::open,     Calls::ioctl,
            Calls::map, Calls::unmap,   Calls::closeFile};
}

} // namespace zelsend
