/* Names for addresses in reports, from the program's own symbol table. */
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

namespace host
{
namespace
{

struct Symbol {
    std::uintptr_t address;
    std::size_t size;
    const char *name; // in the mapped file
};

std::uintptr_t loadAddress()
{
    std::uintptr_t address = 0;
    dl_iterate_phdr(
        [](dl_phdr_info *info, std::size_t, void *result) {
            *static_cast<std::uintptr_t *>(result) = info->dlpi_addr;
            return 1; // the first one is the program
        },
        &address);
    return address;
}

// All functions of the program, by address; empty if it was stripped.
std::vector<Symbol> readSymbols()
{
    std::vector<Symbol> symbols;
    int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0)
        return symbols;
    void *file =
        mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (file == MAP_FAILED)
        return symbols;
    const char *base = static_cast<const char *>(file);
    const auto *header = static_cast<const ElfW(Ehdr) *>(file);
    const auto *sections = reinterpret_cast<const ElfW(Shdr) *>(base + header->e_shoff);
    std::uintptr_t load = loadAddress();
    for (unsigned i = 0; i < header->e_shnum; i++) {
        if (sections[i].sh_type != SHT_SYMTAB)
            continue;
        const auto *entries = reinterpret_cast<const ElfW(Sym) *>(base + sections[i].sh_offset);
        const char *names = base + sections[sections[i].sh_link].sh_offset;
        for (std::size_t n = 0; n < sections[i].sh_size / sizeof(*entries); n++)
            if ((entries[n].st_info & 0xf) == STT_FUNC && entries[n].st_value != 0)
                symbols.push_back({load + static_cast<std::uintptr_t>(entries[n].st_value),
                                   static_cast<std::size_t>(entries[n].st_size),
                                   names + entries[n].st_name});
    }
    std::sort(symbols.begin(), symbols.end(),
              [](const Symbol &a, const Symbol &b) { return a.address < b.address; });
    return symbols;
}

std::string demangled(const char *name)
{
    int status = 0;
    std::unique_ptr<char, void (*)(void *)> text(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
    return status == 0 ? text.get() : name;
}

} // namespace

std::string symbolName(const void *address)
{
    static HiddenMutex mutex;
    HiddenScope scope(mutex);
    static const std::vector<Symbol> symbols = readSymbols();
    auto value = reinterpret_cast<std::uintptr_t>(address);
    char text[32];
    auto after = std::upper_bound(symbols.begin(), symbols.end(), value,
                                  [](std::uintptr_t v, const Symbol &s) { return v < s.address; });
    if (after == symbols.begin() || value - (after - 1)->address > (after - 1)->size) {
        std::snprintf(text, sizeof(text), "%p", address);
        return text;
    }
    const Symbol &symbol = *(after - 1);
    std::snprintf(text, sizeof(text), "+0x%lx", static_cast<unsigned long>(value - symbol.address));
    return demangled(symbol.name) + text;
}

} // namespace host
