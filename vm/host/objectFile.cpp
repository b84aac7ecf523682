#include "objectFile.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace vm
{
namespace
{

template<class T> T recordAt(const std::string &file, std::uint64_t at)
{
    T record;
    if (at > file.size() || sizeof(record) > file.size() - at)
        throw std::runtime_error("the module's file is cut");
    std::memcpy(&record, file.data() + at, sizeof(record));
    return record;
}

Elf64_Shdr widened(const Elf32_Shdr &record)
{
    return {record.sh_name,      record.sh_type,   record.sh_flags, record.sh_addr,
            record.sh_offset,    record.sh_size,   record.sh_link,  record.sh_info,
            record.sh_addralign, record.sh_entsize};
}

Elf64_Sym widened(const Elf32_Sym &record)
{
    return {record.st_name,  record.st_info,  record.st_other,
            record.st_shndx, record.st_value, record.st_size};
}

} // namespace

ObjectFile::ObjectFile(const std::string &file)
    : file_(file),
      is64_(recordAt<std::array<unsigned char, EI_NIDENT>>(file, 0)[EI_CLASS] == ELFCLASS64)
{
    auto read = [this](const auto &header) {
        sectionsAt_ = header.e_shoff;
        sectionCount_ = header.e_shnum;
        namesIndex_ = header.e_shstrndx;
    };
    if (is64_)
        read(recordAt<Elf64_Ehdr>(file, 0));
    else
        read(recordAt<Elf32_Ehdr>(file, 0));
}

Function ObjectFile::function(const std::string &name) const
{
    Function found;
    bool defined = false;
    for (unsigned i = 0; i < sectionCount_; i++) {
        Elf64_Shdr calls = section(i);
        if (calls.sh_type != SHT_REL || nameOf(section(calls.sh_info)) != code)
            continue;
        Elf64_Shdr symbols = section(calls.sh_link);
        for (std::uint64_t at = 0; at < calls.sh_size; at += sizeof(Elf32_Rel)) {
            auto call = recordAt<Elf32_Rel>(file_, calls.sh_offset + at);
            Elf64_Sym called = symbol(symbols, ELF32_R_SYM(call.r_info));
            if (ELF32_R_TYPE(call.r_info) != R_386_PC32 ||
                text(section(symbols.sh_link), called.st_name) != name)
                continue;
            defined = nameOf(section(called.st_shndx)) == code;
            found.begin = static_cast<std::uint32_t>(called.st_value);
            found.calls.push_back(call.r_offset);
        }
    }
    if (!defined)
        throw std::runtime_error("the module does not call " + name);
    return found;
}

std::size_t ObjectFile::data(const std::string &name) const
{
    for (unsigned i = 0; i < sectionCount_; i++) {
        Elf64_Shdr symbols = section(i);
        if (symbols.sh_type != SHT_SYMTAB)
            continue;
        for (std::uint64_t number = 0; number < symbols.sh_size / symbols.sh_entsize; number++) {
            Elf64_Sym found = symbol(symbols, number);
            if (ELF64_ST_TYPE(found.st_info) == STT_OBJECT &&
                text(section(symbols.sh_link), found.st_name) == name)
                return static_cast<std::size_t>(section(found.st_shndx).sh_offset + found.st_value);
        }
    }
    throw std::runtime_error("the module has no " + name);
}

std::vector<ObjectFile::Section> ObjectFile::lastingSections() const
{
    std::vector<Section> lasting;
    for (unsigned i = 0; i < sectionCount_; i++) {
        Elf64_Shdr record = section(i);
        std::string name = nameOf(record);
        if ((record.sh_flags & SHF_ALLOC) != 0 && name.rfind(".init", 0) != 0)
            lasting.push_back({name, static_cast<std::uint32_t>(record.sh_size),
                               (record.sh_flags & SHF_EXECINSTR) != 0});
    }
    return lasting;
}

Elf64_Shdr ObjectFile::section(std::uint64_t i) const
{
    if (is64_)
        return recordAt<Elf64_Shdr>(file_, sectionsAt_ + i * sizeof(Elf64_Shdr));
    return widened(recordAt<Elf32_Shdr>(file_, sectionsAt_ + i * sizeof(Elf32_Shdr)));
}

Elf64_Sym ObjectFile::symbol(const Elf64_Shdr &table, std::uint64_t i) const
{
    if (is64_)
        return recordAt<Elf64_Sym>(file_, table.sh_offset + i * sizeof(Elf64_Sym));
    return widened(recordAt<Elf32_Sym>(file_, table.sh_offset + i * sizeof(Elf32_Sym)));
}

std::string ObjectFile::text(const Elf64_Shdr &table, std::uint64_t at) const
{
    return file_.c_str() + std::min<std::uint64_t>(table.sh_offset + at, file_.size());
}

std::string ObjectFile::nameOf(const Elf64_Shdr &section) const
{
    return text(this->section(namesIndex_), section.sh_name);
}

} // namespace vm
