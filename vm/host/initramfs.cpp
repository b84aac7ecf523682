#include "initramfs.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <sys/stat.h>

namespace vm
{
namespace
{

class Archive
{
public:
    void add(const std::string &name, mode_t mode, const std::string &contents = "",
             unsigned major = 0, unsigned minor = 0)
    {
        bool last = name == trailer;
        unsigned inode = last ? 0 : ++inodes_;
        unsigned fields[] = {inode,
                             static_cast<unsigned>(mode),
                             0, // owner
                             0, // group
                             1, // links
                             0, // time
                             static_cast<unsigned>(contents.size()),
                             0,
                             0,
                             major,
                             minor,
                             static_cast<unsigned>(name.size() + 1),
                             0};
        bytes_ += "070701";
        for (unsigned field : fields) {
            char text[9];
            std::snprintf(text, sizeof(text), "%08x", field);
            bytes_ += text;
        }
        bytes_.append(name.c_str(), name.size() + 1);
        align();
        bytes_ += contents;
        align();
    }
    const std::string &finish()
    {
        add(trailer, 0);
        return bytes_;
    }

private:
    static constexpr const char *trailer = "TRAILER!!!";
    void align() { bytes_.resize((bytes_.size() + 3) / 4 * 4); }

    std::string bytes_;
    unsigned inodes_ = 0;
};

} // namespace

void writeInitramfs(const std::string &path, const std::vector<GuestFile> &files)
{
    Archive archive;
    for (const char *folder : {"dev", "proc", "sys", "mnt", "modules"})
        archive.add(folder, S_IFDIR | 0755);
    archive.add("dev/console", S_IFCHR | 0600, "", 5, 1);
    archive.add("dev/null", S_IFCHR | 0666, "", 1, 3);
    archive.add("dev/urandom", S_IFCHR | 0644, "", 1, 9);
    for (const GuestFile &file : files)
        archive.add(file.name, S_IFREG | 0755, file.contents);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << archive.finish();
    out.close();
    if (!out)
        throw std::runtime_error(path + ": cannot be written");
}

} // namespace vm
