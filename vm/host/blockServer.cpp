#include "blockServer.h"

#include <cerrno>
#include <cstdint>
#include <vector>

#include <endian.h>

namespace vm
{
namespace
{

constexpr std::uint64_t greeting = 0x4e42444d41474943;    // "NBDMAGIC"
constexpr std::uint64_t optionMagic = 0x49484156454f5054; // "IHAVEOPT"
constexpr std::uint64_t optionReplyMagic = 0x3e889045565a9;
constexpr std::uint32_t requestMagic = 0x25609513;
constexpr std::uint32_t replyMagic = 0x67446698;

constexpr std::uint16_t fixedNewStyle = 1;
constexpr std::uint16_t exportFlags = 1 | 4; // has flags, knows to flush
constexpr std::uint32_t optionGo = 7;
constexpr std::uint32_t replyAcknowledge = 1;
constexpr std::uint32_t replyInformation = 3;
constexpr std::uint32_t replyUnsupported = 0x80000001;

enum Command : std::uint16_t { commandRead, commandWrite, commandDisconnect, commandFlush };

constexpr std::uint32_t mostBytes = 64u << 20; // of an option or a transfer

template<class T> T swapped(T value)
{
    if constexpr (sizeof(T) == 2)
        return htobe16(value);
    else if constexpr (sizeof(T) == 4)
        return htobe32(value);
    else
        return htobe64(value);
}

// One connection. Every method gives false when the peer is gone or talks nonsense.
class Connection
{
public:
    Connection(int socket, BlockStorage &disk) : socket_(socket), disk_(disk) {}

    void run()
    {
        if (agree())
            while (answerRequest()) {
            }
    }

private:
    template<class T> bool get(T *value)
    {
        bool received = receiveAll(socket_, value, sizeof(*value));
        *value = swapped(*value);
        return received;
    }
    template<class... T> bool put(T... values)
    {
        std::vector<unsigned char> bytes;
        (append(bytes, swapped(values)), ...);
        return sendAll(socket_, bytes.data(), bytes.size());
    }
    template<class T> static void append(std::vector<unsigned char> &bytes, T value)
    {
        const auto *from = reinterpret_cast<const unsigned char *>(&value);
        bytes.insert(bytes.end(), from, from + sizeof(value));
    }

    // The handshake, until the peer wants to go: only what it takes for that is known here.
    bool agree()
    {
        std::uint32_t flags = 0;
        if (!put(greeting, optionMagic, fixedNewStyle) || !get(&flags))
            return false;
        for (;;) {
            std::uint64_t magic = 0;
            std::uint32_t option = 0;
            std::uint32_t length = 0;
            if (!get(&magic) || !get(&option) || !get(&length) || magic != optionMagic ||
                length > mostBytes)
                return false;
            std::vector<unsigned char> data(length);
            if (!receiveAll(socket_, data.data(), length))
                return false;
            if (option == optionGo)
                return put(optionReplyMagic, option, replyInformation, std::uint32_t{12},
                           std::uint16_t{0}, disk_.size(), exportFlags) &&
                       put(optionReplyMagic, option, replyAcknowledge, std::uint32_t{0});
            if (!put(optionReplyMagic, option, replyUnsupported, std::uint32_t{0}))
                return false;
        }
    }

    bool answerRequest()
    {
        std::uint32_t magic = 0;
        std::uint16_t flags = 0;
        std::uint16_t command = 0;
        std::uint64_t handle = 0;
        std::uint64_t offset = 0;
        std::uint32_t length = 0;
        if (!get(&magic) || !get(&flags) || !get(&command) || !get(&handle) || !get(&offset) ||
            !get(&length) || magic != requestMagic || length > mostBytes)
            return false;
        std::vector<unsigned char> data;
        int error = EINVAL;
        switch (command) {
        case commandRead:
            data.resize(length);
            error = disk_.read(offset, data.data(), length);
            break;
        case commandWrite: {
            std::vector<unsigned char> written(length);
            if (!receiveAll(socket_, written.data(), length))
                return false;
            error = disk_.write(offset, written.data(), length);
            break;
        }
        case commandFlush:
            error = 0;
            break;
        case commandDisconnect:
            return false;
        }
        if (!put(replyMagic, static_cast<std::uint32_t>(error), handle))
            return false;
        return error != 0 || sendAll(socket_, data.data(), data.size());
    }

    int socket_;
    BlockStorage &disk_;
};

} // namespace

BlockServer::BlockServer(BlockStorage &disk, const std::string &path)
    : disk_(disk), listener_(listenAt(path)), thread_([this] { serve(); })
{
}

BlockServer::~BlockServer()
{
    ::shutdown(listener_.get(), SHUT_RDWR); // nobody else will come
    thread_.join();
}

void BlockServer::serve()
{
    for (;;) {
        Descriptor peer(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (peer.get() < 0)
            return;
        Connection(peer.get(), disk_).run();
    }
}

} // namespace vm
