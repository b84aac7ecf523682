#include "failures.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <elf.h>

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
    bool ofModule = true; // or of the kernel: called before the module's place is known
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
    {"registerDevice", "register_chrdev", static_cast<std::uint32_t>(-EBUSY), false},
    {"read", "zk_bio_uptodate", 0}, // the module looks at the end of each of its reads
};

template<class T> T recordAt(const std::string &file, std::size_t at)
{
    T record;
    if (at > file.size() || sizeof(record) > file.size() - at)
        throw std::runtime_error("the module's file is cut");
    std::memcpy(&record, file.data() + at, sizeof(record));
    return record;
}

// A function of an object file: its section's name and its offset there.
struct Place {
    std::string section;
    std::uint32_t offset;
};

Place findFunction(const std::string &file, const std::string &name)
{
    auto header = recordAt<Elf32_Ehdr>(file, 0);
    auto section = [&](unsigned i) {
        return recordAt<Elf32_Shdr>(file, header.e_shoff + i * sizeof(Elf32_Shdr));
    };
    auto text = [&](const Elf32_Shdr &table, std::uint32_t at) {
        return std::string(file.c_str() + std::min<std::size_t>(table.sh_offset + at, file.size()));
    };
    for (unsigned i = 0; i < header.e_shnum; i++) {
        Elf32_Shdr table = section(i);
        for (std::uint32_t at = 0; table.sh_type == SHT_SYMTAB && at < table.sh_size;
             at += sizeof(Elf32_Sym)) {
            auto symbol = recordAt<Elf32_Sym>(file, table.sh_offset + at);
            if (ELF32_ST_TYPE(symbol.st_info) == STT_FUNC &&
                text(section(table.sh_link), symbol.st_name) == name)
                return {text(section(header.e_shstrndx), section(symbol.st_shndx).sh_name),
                        symbol.st_value};
        }
    }
    throw std::runtime_error("the module has no " + name);
}

std::uint32_t addressInKernel(const std::string &name, Worker &worker)
{
    std::istringstream symbols(worker.read("/proc/kallsyms"));
    std::string address;
    std::string type;
    for (std::string symbol; symbols >> address >> type && std::getline(symbols, symbol);)
        if (symbol == " " + name)
            return static_cast<std::uint32_t>(std::stoul(address, nullptr, 16));
    throw std::runtime_error("the guest's kernel does not tell where " + name + " is");
}

std::uint32_t addressInModule(const std::string &file, const std::string &name, Worker &worker)
{
    Place place = findFunction(file, name);
    std::string start = worker.read("/sys/module/zelmod/sections/" + place.section);
    if (start.empty())
        throw std::runtime_error("the guest's kernel does not tell where the module is");
    return static_cast<std::uint32_t>(std::stoul(start, nullptr, 16)) + place.offset;
}

} // namespace

Failures::Failures(const std::string &module, const std::string &debugger)
    : module_(module), debugger_(debugger, [this](StoppedProcessor &at) { onCall(at); })
{
}

void Failures::failNth(const std::string &kind, unsigned n, Worker &worker)
{
    clear();
    wanted_ = n;
    for (const FailingFunction &function : functions)
        if (function.kind == kind) {
            addresses_.push_back(function.ofModule ? addressInModule(module_, function.name, worker)
                                                   : addressInKernel(function.name, worker));
            results_.push_back(function.result);
        }
    if (addresses_.empty())
        throw std::logic_error("calls of " + kind + " cannot be made to fail");
    for (std::uint32_t address : addresses_)
        debugger_.setBreakpoint(address);
}

unsigned Failures::clear()
{
    for (std::uint32_t address : addresses_)
        debugger_.removeBreakpoint(address);
    addresses_.clear();
    results_.clear();
    calls_ = 0;
    return failed_.exchange(0);
}

void Failures::onCall(StoppedProcessor &processor)
{
    if (++calls_ != wanted_)
        return;
    std::uint32_t address = processor.get(StoppedProcessor::eip);
    auto found = std::find(addresses_.begin(), addresses_.end(), address);
    std::uint32_t result = results_.at(static_cast<std::size_t>(found - addresses_.begin()));
    processor.returnFromCall(result != allBytes ? result : processor.get(StoppedProcessor::ecx));
    failed_++;
}

} // namespace vm
