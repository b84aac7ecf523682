#include "debugger.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace vm
{
namespace
{

constexpr char interrupt = 3;
constexpr std::chrono::seconds patience{60};

// Who has asked for the description of a processor may name its registers one by one.
constexpr const char *askForRegisters = "qXfer:features:read:target.xml:0,400";

std::string hexadecimal(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%x", value);
    return text;
}

// The four bytes of a register or of memory, the lowest first, as the protocol has them.
std::string bytesOf(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%08x", __builtin_bswap32(value));
    return text;
}

std::uint32_t valueOf(const std::string &bytes)
{
    std::size_t end = 0;
    std::uint32_t value = 0;
    if (bytes.size() == 8)
        value = static_cast<std::uint32_t>(std::stoul(bytes, &end, 16));
    if (end != 8)
        throw std::runtime_error("the emulator's debugger gives no value: " + bytes);
    return __builtin_bswap32(value);
}

Descriptor connectTo(const std::string &path)
{
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::invalid_argument(path + ": too long for a socket");
    path.copy(address.sun_path, path.size());
    if (socket.get() < 0 ||
        ::connect(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
        throwErrno(path);
    return socket;
}

} // namespace

Debugger::Debugger(const std::string &socket) : socket_(connectTo(socket))
{
    // The guest stops when somebody connects, and the emulator may or may not say so.
    send(askForRegisters);
    while (receive().rfind("T", 0) == 0) {
    }
    send("vCont;c");
    thread_ = std::thread([this] { listen(); });
}

Debugger::~Debugger()
{
    ::shutdown(socket_.get(), SHUT_RDWR);
    thread_.join();
}

void Debugger::onBreakpoint(Action action)
{
    std::lock_guard lock(sending_);
    onBreakpoint_ = std::move(action);
}

void Debugger::whileStopped(Action action)
{
    std::lock_guard one(asking_);
    {
        std::lock_guard lock(mutex_);
        wanted_ = std::move(action);
        failure_ = nullptr;
    }
    {
        // If the guest has stopped meanwhile, it is done before it goes on and this is ignored.
        std::lock_guard lock(sending_);
        sendAll(socket_.get(), &interrupt, 1);
    }
    std::unique_lock lock(mutex_);
    bool done = changed_.wait_for(lock, patience, [this] { return !wanted_ || lost_; });
    if (failure_)
        std::rethrow_exception(failure_);
    if (!done || lost_)
        throw std::runtime_error("the emulator's debugger does not answer");
}

void Debugger::listen()
{
    try {
        for (;;) {
            receive(); // nothing comes by itself but that the guest has stopped
            onStop();
        }
    } catch (const std::exception &) {
        std::lock_guard lock(mutex_);
        lost_ = true;
        changed_.notify_all();
    }
}

void Debugger::onStop()
{
    std::lock_guard lock(sending_);
    StoppedGuest guest(*this);
    if (!breakpoints_.empty() && breakpoints_.count(guest.get(StoppedGuest::eip)) != 0)
        onBreakpoint_(guest);
    obey(guest);
    send("vCont;c");
}

void Debugger::obey(StoppedGuest &guest)
{
    std::lock_guard lock(mutex_);
    if (!wanted_)
        return;
    try {
        wanted_(guest);
    } catch (...) {
        failure_ = std::current_exception();
    }
    wanted_ = nullptr;
    changed_.notify_all();
}

void Debugger::send(const std::string &packet)
{
    unsigned sum = 0;
    for (unsigned char byte : packet)
        sum += byte;
    char end[8];
    std::snprintf(end, sizeof(end), "#%02x", sum & 0xff);
    std::string all = "$" + packet + end;
    if (!sendAll(socket_.get(), all.data(), all.size()))
        throw std::runtime_error("the emulator's debugger is gone");
}

std::string Debugger::receive()
{
    auto next = [this] {
        char byte = 0;
        if (!receiveAll(socket_.get(), &byte, 1))
            throw std::runtime_error("the emulator's debugger is gone");
        return byte;
    };
    while (next() != '$') {
    }
    std::string packet;
    for (char byte = next(); byte != '#'; byte = next())
        packet += byte;
    next(); // a sum, which a local socket does not need
    next();
    if (!sendAll(socket_.get(), "+", 1))
        throw std::runtime_error("the emulator's debugger is gone");
    return packet;
}

std::string Debugger::ask(const std::string &packet)
{
    send(packet);
    return receive();
}

void Debugger::demand(const std::string &packet)
{
    if (ask(packet) != "OK")
        throw std::runtime_error("the emulator's debugger refuses " + packet);
}

void StoppedGuest::write(std::uint32_t address, const std::string &bytes)
{
    std::string text;
    for (unsigned char byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    debugger_.demand("M" + hexadecimal(address) + "," +
                     hexadecimal(static_cast<std::uint32_t>(bytes.size())) + ":" + text);
}

// The emulator drops them all when a processor has gone a single step.
void StoppedGuest::dropTranslations()
{
    debugger_.demand("Hc1");
    std::string reply = debugger_.ask("s");
    if (reply.rfind("T", 0) != 0)
        throw std::runtime_error("the emulator's debugger makes no step: " + reply);
}

void StoppedGuest::setBreakpoint(std::uint32_t address)
{
    debugger_.demand("Z0," + hexadecimal(address) + ",1");
    debugger_.breakpoints_.insert(address);
}

void StoppedGuest::removeBreakpoint(std::uint32_t address)
{
    debugger_.demand("z0," + hexadecimal(address) + ",1");
    debugger_.breakpoints_.erase(address);
}

std::uint32_t StoppedGuest::get(Register which)
{
    return valueOf(debugger_.ask("p" + hexadecimal(which)));
}

void StoppedGuest::set(Register which, std::uint32_t value)
{
    debugger_.demand("P" + hexadecimal(which) + "=" + bytesOf(value));
}

void StoppedGuest::returnFromCall(std::uint32_t result)
{
    std::uint32_t stack = get(esp);
    std::uint32_t caller = valueOf(debugger_.ask("m" + hexadecimal(stack) + ",4"));
    set(eax, result);
    set(esp, stack + 4);
    set(eip, caller);
}

} // namespace vm
