#include "failures.h"

#include <cerrno>
#include <sstream>
#include <stdexcept>

#include "objectFile.h"

namespace vm
{
namespace
{

// The result that stands for the number of bytes that were to be copied: none was.
constexpr std::uint32_t allBytes = 0x80000000;

struct FailingFunction {
    const char *kind;
    const char *name;
    std::uint32_t result;
};

const FailingFunction functions[] = {
    {"kmalloc", "zk_kmalloc", 0},
    {"page", "zk_alloc_pages", 0},
    {"vmalloc", "zk_vmalloc", 0},
    {"cacheCreate", "zk_kmem_cache_create", 0},
    {"cacheAlloc", "zk_kmem_cache_alloc", 0},
    {"bufferHead", "zk_alloc_buffer_head", 0},
    {"bio", "zk_bio_alloc", 0},
    {"kernelThread", "zk_kernel_thread", static_cast<std::uint32_t>(-EAGAIN)},
    {"copyFromUser", "zk_copy_from_user", allBytes},
    {"copyToUser", "zk_copy_to_user", allBytes},
    {"copyToUser", "zk_put_user", static_cast<std::uint32_t>(-EFAULT)},
    {"read", "zk_bio_uptodate", 0}, // the module looks at the end of each of its reads
};

// The kernel's own function, which has another name in newer ones: it is called before the module's
// place can be known.
constexpr const char *registrations[] = {"register_chrdev", "__register_chrdev"};

std::uint32_t addressOfRegistration(Worker &worker)
{
    std::istringstream symbols(worker.read("/proc/kallsyms"));
    std::string address;
    std::string type;
    for (std::string symbol; symbols >> address >> type && std::getline(symbols, symbol);)
        for (std::string name : registrations)
            if (symbol == " " + name)
                return static_cast<std::uint32_t>(std::stoul(address, nullptr, 16));
    throw std::runtime_error("the guest's kernel does not tell where devices are registered");
}

// Where a section of the loaded module is; 0 if the kernel does not tell.
std::uint32_t addressOf(const std::string &section, Worker &worker)
{
    std::string address = worker.read("/sys/module/zelmod/sections/" + section);
    return address.empty() ? 0 : static_cast<std::uint32_t>(std::stoul(address, nullptr, 16));
}

std::uint32_t addressOfNeeded(const std::string &section, Worker &worker)
{
    std::uint32_t address = addressOf(section, worker);
    if (address == 0)
        throw std::runtime_error("the guest's kernel does not tell where the module is");
    return address;
}

std::uint32_t endOfModule(Worker &worker)
{
    std::istringstream modules(worker.read("/proc/modules"));
    for (std::string line; std::getline(modules, line);) {
        std::istringstream words(line);
        std::string name, count, users, state, start;
        std::uint32_t size = 0;
        if (words >> name >> size >> count >> users >> state >> start && name == "zelmod")
            return static_cast<std::uint32_t>(std::stoul(start, nullptr, 16)) + size;
    }
    throw std::runtime_error("the guest's kernel does not tell how long the module is");
}

// Where nothing of the module is, but code can run. A newer kernel has whole pages for the code,
// whose rest nobody uses; an older one has code and data side by side, and runs either.
std::uint32_t roomForCode(const ObjectFile &file, Worker &worker, std::uint32_t bytes)
{
    constexpr std::uint32_t page = 4096;
    std::uint32_t end = 0;
    for (const ObjectFile::Section &section : file.lastingSections())
        if (section.isCode)
            end = std::max(end, addressOf(section.name, worker) + section.bytes);
    std::uint32_t pageEnd = (end + page - 1) / page * page;
    bool sharesPage = false;
    for (const ObjectFile::Section &section : file.lastingSections()) {
        std::uint32_t address = addressOf(section.name, worker);
        sharesPage |= address >= end && address < pageEnd;
    }
    if (sharesPage) {
        end = endOfModule(worker);
        pageEnd = (end + page - 1) / page * page;
    }
    if (pageEnd - end < bytes)
        throw std::runtime_error("the module leaves no room behind its code");
    return end;
}

// Memory of the module that can be written and that nobody uses: what the module's name leaves of
// the room for one, behind the state and two pointers in the kernel's record of it.
std::uint32_t roomForCounter(Worker &worker)
{
    constexpr std::uint32_t nameOffset = 12;
    constexpr std::uint32_t nameRoom = 60;
    return addressOfNeeded(".gnu.linkonce.this_module", worker) + nameOffset + nameRoom -
           sizeof(std::uint32_t);
}

std::string bytesOf(std::uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof(value)};
}

// What a jump or call has in the four bytes at `at` to get to `to`.
std::string distance(std::uint32_t at, std::uint32_t to)
{
    return bytesOf(to - (at + 4));
}

/*
 * Counts down, and goes on to a function:
 *
 *     lock decl counter
 *     jz nth
 *     jmp function
 * nth:
 *     jmp function
 */
constexpr std::uint32_t nthOffset = 14;
constexpr std::uint32_t stubBytes = 20;

std::string stubAt(std::uint32_t start, std::uint32_t counter, std::uint32_t function)
{
    using namespace std::string_literals;
    std::string code = "\xf0\xff\x0d"s + bytesOf(counter) + "\x74\x05\xe9"s;
    code += distance(start + 10, function) + "\xe9"s + distance(start + nthOffset + 1, function);
    code.resize(stubBytes, '\x90');
    return code;
}

} // namespace

Failures::Failures(const std::string &module, Debugger &debugger)
    : module_(module), debugger_(debugger)
{
    debugger_.onBreakpoint([this](StoppedGuest &guest) { onCall(guest); });
}

Failures::~Failures()
{
    debugger_.onBreakpoint({});
}

void Failures::failInModule(const std::string &kind, unsigned n, Worker &worker)
{
    ObjectFile file(module_);
    std::uint32_t start = addressOfNeeded(ObjectFile::code, worker);
    std::uint32_t counter = roomForCounter(worker);
    std::uint32_t stub = roomForCode(file, worker, 2 * stubBytes); // no kind has more functions
    Bytes bytes = {{counter, bytesOf(n)}};
    for (const FailingFunction &failing : functions) {
        if (failing.kind != kind)
            continue;
        Function function = file.function(failing.name);
        bytes[stub] = stubAt(stub, counter, start + function.begin);
        results_[stub + nthOffset] = failing.result;
        for (std::uint32_t call : function.calls) {
            bytes[start + call] = distance(start + call, stub);
            changed_[start + call] = distance(start + call, start + function.begin);
        }
        stub += stubBytes;
    }
    if (results_.empty())
        throw std::logic_error("calls of " + kind + " cannot be made to fail");
    debugger_.whileStopped([&](StoppedGuest &guest) {
        for (const auto &[address, piece] : bytes)
            guest.write(address, piece);
        for (const auto &[address, result] : results_)
            guest.setBreakpoint(address);
    });
}

void Failures::failNth(const std::string &kind, unsigned n, Worker &worker)
{
    clear();
    if (kind != "registerDevice")
        return failInModule(kind, n, worker);
    if (n != 1)
        throw std::logic_error("the device is registered once");
    std::uint32_t function = addressOfRegistration(worker);
    results_[function] = static_cast<std::uint32_t>(-EBUSY);
    debugger_.whileStopped([&](StoppedGuest &guest) { guest.setBreakpoint(function); });
}

unsigned Failures::clear()
{
    if (!results_.empty())
        debugger_.whileStopped([this](StoppedGuest &guest) {
            for (const auto &[address, result] : results_)
                guest.removeBreakpoint(address);
            for (const auto &[address, bytes] : changed_)
                guest.write(address, bytes);
        });
    results_.clear();
    changed_.clear();
    return failed_.exchange(0);
}

void Failures::onCall(StoppedGuest &guest)
{
    std::uint32_t result = results_.at(guest.get(StoppedGuest::eip));
    guest.returnFromCall(result != allBytes ? result : guest.get(StoppedGuest::ecx));
    failed_++;
}

} // namespace vm
