#include "objectFile.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace vm
{
namespace
{

template<class T> T recordAt(const std::string &file, std::size_t at)
{
    T record;
    if (at > file.size() || sizeof(record) > file.size() - at)
        throw std::runtime_error("the module's file is cut");
    std::memcpy(&record, file.data() + at, sizeof(record));
    return record;
}

} // namespace

ObjectFile::ObjectFile(const std::string &file)
    : file_(file), header_(recordAt<Elf32_Ehdr>(file, 0))
{
}

Function ObjectFile::function(const std::string &name) const
{
    Function found;
    bool defined = false;
    for (unsigned i = 0; i < header_.e_shnum; i++) {
        Elf32_Shdr calls = section(i);
        if (calls.sh_type != SHT_REL || nameOf(section(calls.sh_info)) != code)
            continue;
        Elf32_Shdr symbols = section(calls.sh_link);
        for (std::uint32_t at = 0; at < calls.sh_size; at += sizeof(Elf32_Rel)) {
            auto call = recordAt<Elf32_Rel>(file_, calls.sh_offset + at);
            auto symbol = recordAt<Elf32_Sym>(file_, symbols.sh_offset + ELF32_R_SYM(call.r_info) *
                                                                             sizeof(Elf32_Sym));
            if (ELF32_R_TYPE(call.r_info) != R_386_PC32 ||
                text(section(symbols.sh_link), symbol.st_name) != name)
                continue;
            defined = nameOf(section(symbol.st_shndx)) == code;
            found.begin = symbol.st_value;
            found.calls.push_back(call.r_offset);
        }
    }
    if (!defined)
        throw std::runtime_error("the module does not call " + name);
    return found;
}

std::size_t ObjectFile::data(const std::string &name) const
{
    for (unsigned i = 0; i < header_.e_shnum; i++) {
        Elf32_Shdr symbols = section(i);
        if (symbols.sh_type != SHT_SYMTAB)
            continue;
        for (std::uint32_t at = 0; at < symbols.sh_size; at += sizeof(Elf32_Sym)) {
            auto symbol = recordAt<Elf32_Sym>(file_, symbols.sh_offset + at);
            if (ELF32_ST_TYPE(symbol.st_info) == STT_OBJECT &&
                text(section(symbols.sh_link), symbol.st_name) == name)
                return section(symbol.st_shndx).sh_offset + symbol.st_value;
        }
    }
    throw std::runtime_error("the module has no " + name);
}

std::vector<ObjectFile::Section> ObjectFile::lastingSections() const
{
    std::vector<Section> lasting;
    for (unsigned i = 0; i < header_.e_shnum; i++) {
        Elf32_Shdr record = section(i);
        std::string name = nameOf(record);
        if ((record.sh_flags & SHF_ALLOC) != 0 && name.rfind(".init", 0) != 0)
            lasting.push_back({name, record.sh_size, (record.sh_flags & SHF_EXECINSTR) != 0});
    }
    return lasting;
}

Elf32_Shdr ObjectFile::section(unsigned i) const
{
    return recordAt<Elf32_Shdr>(file_, header_.e_shoff + i * sizeof(Elf32_Shdr));
}

std::string ObjectFile::text(const Elf32_Shdr &table, std::uint32_t at) const
{
    return file_.c_str() + std::min<std::size_t>(table.sh_offset + at, file_.size());
}

std::string ObjectFile::nameOf(const Elf32_Shdr &section) const
{
    return text(this->section(header_.e_shstrndx), section.sh_name);
}

} // namespace vm
