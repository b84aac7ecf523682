/*
 * host::Process for scenarios on a real kernel: each is a process of the guest. Its memory is in
 * the part of it that is shared with this program, so that an address means the same on both
 * sides, and its system calls are made there. Only what scenarios use is here.
 */
#include "remoteProcess.h"

#include <csignal>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "guest.h"

namespace host
{
namespace
{

constexpr std::uint32_t pageBytes = 4096;

std::uint32_t wholePages(std::size_t bytes)
{
    return (static_cast<std::uint32_t>(bytes) + pageBytes - 1) / pageBytes * pageBytes;
}

// Pieces of a range of addresses, each of whole pages.
class Pieces
{
public:
    // The first gap of this size from `begin` on; throws if there is none before `end`.
    std::uint32_t take(std::uint32_t begin, std::uint32_t end, std::size_t bytes)
    {
        std::uint32_t at = begin;
        for (const auto &[start, length] : taken_) {
            if (start - at >= wholePages(bytes))
                break;
            at = start + length;
        }
        if (wholePages(bytes) > end - at)
            throw std::length_error("a process of the guest lacks memory");
        taken_[at] = wholePages(bytes);
        return at;
    }
    bool has(std::uint32_t address) const { return taken_.count(address) != 0; }
    std::uint32_t length(std::uint32_t address) const { return taken_.at(address); }
    void give(std::uint32_t address) { taken_.erase(address); }
    bool empty() const { return taken_.empty(); }

private:
    std::map<std::uint32_t, std::uint32_t> taken_; // lengths by address
};

} // namespace

struct Process::Impl {
    std::string name;
    std::unique_ptr<vm::GuestProcess> guest;
    Pieces memory;
    Pieces mappings;
    std::set<int> files;

    // Made when it is first needed: it may become another's child.
    vm::GuestProcess &process()
    {
        if (!guest)
            guest = std::make_unique<vm::GuestProcess>(vm::Guest::current());
        return *guest;
    }
};

struct ProcessAccess {
    static vm::GuestProcess &guest(Process &process) { return process.impl_->process(); }
};

Process::Process(std::string name) : impl_(std::make_unique<Impl>())
{
    impl_->name = std::move(name);
}

Process::~Process() = default;

const std::string &Process::name() const
{
    return impl_->name;
}

std::uint32_t Process::allocate(std::size_t bytes, bool writable)
{
    if (!writable)
        throw std::logic_error("memory that is shared with the guest is writable");
    std::uint32_t area = impl_->process().area();
    std::uint32_t address = impl_->memory.take(area, area + vm::memoryBytes, bytes);
    std::memset(pointer<void>(address), 0, bytes);
    return address;
}

void Process::release(std::uint32_t address)
{
    impl_->memory.give(address);
}

int Process::open(const std::string &path)
{
    std::uint32_t text = allocate(path.size() + 1);
    path.copy(pointer<char>(text), path.size());
    int fd = impl_->process().systemCall(SYS_open, text, O_RDWR);
    release(text);
    if (fd >= 0)
        impl_->files.insert(fd);
    return fd;
}

int Process::close(int fd)
{
    impl_->files.erase(fd);
    return impl_->process().systemCall(SYS_close, fd);
}

int Process::inherit(Process &parent, int fd)
{
    if (impl_->guest || !parent.impl_->mappings.empty())
        throw std::logic_error("a child that would not be just like one of a fork");
    impl_->guest =
        std::make_unique<vm::GuestProcess>(vm::Guest::current(), &parent.impl_->process());
    impl_->files = parent.impl_->files;
    for (int other : parent.impl_->files)
        if (other != fd)
            close(other);
    return impl_->files.count(fd) != 0 ? fd : -EBADF;
}

int Process::ioctl(int fd, std::uint32_t command, std::uint32_t argument)
{
    return impl_->process().systemCall(SYS_ioctl, fd, command, argument);
}

int Process::mmap(int fd, std::size_t bytes, bool writable, bool shared, std::size_t pageOffset,
                  std::uint32_t *address)
{
    // Beside the process's shared memory, where the mirror of the mapping is.
    std::uint32_t area = impl_->process().area() + vm::mirrorOffset;
    std::uint32_t place = impl_->mappings.take(area + vm::memoryBytes, area + vm::areaBytes, bytes);
    auto mapped = static_cast<std::uint32_t>(impl_->process().systemCall(
        SYS_mmap2, place, bytes, PROT_READ | (writable ? PROT_WRITE : 0),
        shared ? MAP_SHARED : MAP_PRIVATE, fd, pageOffset));
    if (mapped == place) {
        *address = place;
        return 0;
    }
    impl_->mappings.give(place);
    // A refusal is a negated errno or, as the module has it, a small positive number.
    if (mapped >= pageBytes && mapped <= static_cast<std::uint32_t>(-pageBytes))
        throw std::logic_error("the guest maps elsewhere than asked for");
    return static_cast<int>(mapped);
}

int Process::munmap(std::uint32_t address)
{
    if (!impl_->mappings.has(address))
        return -EINVAL;
    int result = impl_->process().systemCall(SYS_munmap, address, impl_->mappings.length(address));
    impl_->mappings.give(address);
    return result;
}

bool Process::touch(std::uint32_t address, std::size_t bytes)
{
    return impl_->process().copy(address - vm::mirrorOffset, address,
                                 static_cast<std::uint32_t>(bytes)) == 0;
}

} // namespace host

namespace vm
{

void kill(host::Process &process)
{
    host::ProcessAccess::guest(process).signal(SIGKILL);
}

} // namespace vm
