/* Looks into a module's file. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <elf.h>

namespace vm
{

// What there is of a function in the module's code, as offsets in it.
struct Function {
    std::uint32_t begin = 0;
    std::vector<std::uint32_t> calls; // where a call has the distance to it
};

// One object file of 32 or 64 bits with a section of code. Throws std::runtime_error where there is
// not what is looked for.
class ObjectFile
{
public:
    // The file's contents must outlive this.
    explicit ObjectFile(const std::string &file);

    bool has64Bits() const { return is64_; }
    // Of 32 bits only.
    Function function(const std::string &name) const;
    // Where in the file an object of this name lies.
    std::size_t data(const std::string &name) const;

    struct Section {
        std::string name;
        std::uint32_t bytes;
        bool isCode;
    };
    // Those that stay in memory.
    std::vector<Section> lastingSections() const;

    static constexpr const char *code = ".text";

private:
    // Either size's records, in the form of 64 bits.
    Elf64_Shdr section(std::uint64_t i) const;
    Elf64_Sym symbol(const Elf64_Shdr &table, std::uint64_t i) const;
    std::string text(const Elf64_Shdr &table, std::uint64_t at) const;
    std::string nameOf(const Elf64_Shdr &section) const;

    const std::string &file_;
    bool is64_;
    std::uint64_t sectionsAt_;
    unsigned sectionCount_;
    unsigned namesIndex_; // of the section with the sections' names
};

} // namespace vm
