#include "kernelModules.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

namespace vm
{
namespace
{

constexpr const char *guestFolder = "modules/";

// ext4 looks for the checksum by itself.
constexpr const char *neededModules[] = {"virtio_pci", "virtio_blk",     "ata_piix",
                                         "sd_mod",     "crc32c_generic", "ext4"};

// Files have either sign in their names, modules always this one.
std::string moduleName(std::string name)
{
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

class Collection
{
public:
    explicit Collection(const std::string &folder)
    {
        namespace fs = std::filesystem;
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(folder))
            if (entry.path().extension() == ".ko")
                paths_[moduleName(entry.path().stem())] = entry.path();
    }

    // With what it depends on before it.
    void add(const std::string &name, const std::string &parameters = "")
    {
        if (!added_.insert(name).second)
            return;
        auto found = paths_.find(name);
        if (found == paths_.end())
            throw std::runtime_error("the kernel has no module " + name);
        std::ifstream in(found->second, std::ios::binary);
        std::string contents{std::istreambuf_iterator<char>(in), {}};
        std::istringstream needed(dependenciesOf(contents));
        for (std::string other; std::getline(needed, other, ',');)
            add(moduleName(other));
        std::string path = guestFolder + name + ".ko";
        list_ += "/" + path + " " + parameters + "\n";
        files_.push_back({path, std::move(contents)});
    }

    std::vector<GuestFile> finish()
    {
        files_.push_back({std::string(guestFolder) + "list", list_});
        return std::move(files_);
    }

private:
    // As its build has noted them in the module, with commas between them.
    static std::string dependenciesOf(const std::string &module)
    {
        using namespace std::string_literals;
        const std::string label = "\0depends="s;
        std::size_t at = module.find(label);
        return at == std::string::npos ? "" : module.c_str() + at + label.size();
    }

    std::map<std::string, std::string> paths_; // by name
    std::set<std::string> added_;
    std::string list_;
    std::vector<GuestFile> files_;
};

} // namespace

std::vector<GuestFile> kernelModules(const std::string &folder,
                                     const std::vector<std::string> &more)
{
    Collection collection(folder);
    for (const char *name : neededModules)
        collection.add(name);
    for (const std::string &name : more) {
        std::size_t space = name.find(' ');
        collection.add(name.substr(0, space),
                       space == std::string::npos ? "" : name.substr(space + 1));
    }
    return collection.finish();
}

} // namespace vm
