#include "manifest.h"

#include <et/com_err.h>
#include <xxhash.h>

#include <cstdio>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <vector>

namespace machine
{
namespace
{

[[noreturn]] void fail(const std::string &what, errcode_t error)
{
    throw std::runtime_error(what + ": " + error_message(error));
}

void check(const char *what, errcode_t error)
{
    if (error != 0)
        fail(what, error);
}

std::uint64_t hashContents(ext2_filsys fs, ext2_ino_t number, const ext2_inode_large &inode)
{
    ext2_file_t file;
    check("opening a file",
          ext2fs_file_open2(fs, number,
                            const_cast<ext2_inode *>(reinterpret_cast<const ext2_inode *>(&inode)),
                            0, &file));
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t *)> state(XXH3_createState(),
                                                                           XXH3_freeState);
    XXH3_64bits_reset(state.get());
    std::vector<char> buffer(1 << 20);
    unsigned int got = 0;
    do {
        errcode_t error =
            ext2fs_file_read(file, buffer.data(), static_cast<unsigned>(buffer.size()), &got);
        if (error != 0) {
            ext2fs_file_close(file);
            fail("reading a file", error);
        }
        XXH3_64bits_update(state.get(), buffer.data(), got);
    } while (got > 0);
    check("closing a file", ext2fs_file_close(file));
    return XXH3_64bits_digest(state.get());
}

struct Walk {
    ext2_filsys fs;
    Manifest *manifest;
    std::string path;
    std::string error; // an exception may not pass through libext2fs
};

void walkDirectory(Walk &walk, ext2_ino_t directory);

int visit(ext2_ino_t, int entryKind, ext2_dir_entry *entry, int, int, char *, void *context)
{
    auto &walk = *static_cast<Walk *>(context);
    std::string name(entry->name, ext2fs_dirent_name_len(entry));
    if (entryKind == DIRENT_DOT_FILE || entryKind == DIRENT_DOT_DOT_FILE || entry->inode == 0)
        return 0;
    std::size_t length = walk.path.size();
    walk.path += "/" + name;
    try {
        ManifestEntry made = readEntry(walk.fs, entry->inode);
        if (made.kind == 'd')
            walkDirectory(walk, entry->inode);
        (*walk.manifest)[walk.path] = made;
    } catch (const std::exception &e) {
        walk.error = walk.path + ": " + e.what();
        return DIRENT_ABORT;
    }
    walk.path.resize(length);
    return 0;
}

void walkDirectory(Walk &walk, ext2_ino_t directory)
{
    check("reading a directory", ext2fs_dir_iterate2(walk.fs, directory, 0, nullptr, visit, &walk));
    if (!walk.error.empty())
        throw std::runtime_error(walk.error);
}

} // namespace

ManifestEntry readEntry(ext2_filsys fs, ext2_ino_t number)
{
    ext2_inode_large inode = {};
    check(
        "reading an inode",
        ext2fs_read_inode_full(fs, number, reinterpret_cast<ext2_inode *>(&inode), sizeof(inode)));
    ManifestEntry entry;
    entry.mode = inode.i_mode & 07777;
    if (LINUX_S_ISDIR(inode.i_mode)) {
        entry.kind = 'd'; // its size is the file system's affair
        return entry;
    }
    entry.size = EXT2_I_SIZE(&inode);
    if (LINUX_S_ISREG(inode.i_mode)) {
        entry.kind = 'f';
        entry.hash = hashContents(fs, number, inode);
    } else if (LINUX_S_ISLNK(inode.i_mode)) {
        entry.kind = 'l';
        entry.hash = ext2fs_is_fast_symlink(reinterpret_cast<ext2_inode *>(&inode))
                         ? XXH3_64bits(inode.i_block, entry.size)
                         : hashContents(fs, number, inode);
    } else {
        entry.kind = 'o';
    }
    return entry;
}

Manifest readManifest(ext2_filsys fs)
{
    Manifest manifest;
    Walk walk = {fs, &manifest, "", ""};
    walkDirectory(walk, EXT2_ROOT_INO);
    return manifest;
}

Manifest readImageManifest(const std::string &image)
{
    ext2_filsys fs;
    errcode_t error = ext2fs_open(image.c_str(), EXT2_FLAG_64BITS, 0, 0, unix_io_manager, &fs);
    if (error != 0)
        fail(image, error);
    try {
        Manifest manifest = readManifest(fs);
        ext2fs_close_free(&fs);
        return manifest;
    } catch (...) {
        ext2fs_close_free(&fs);
        throw;
    }
}

void printManifest(std::ostream &out, const Manifest &manifest)
{
    for (const auto &[path, entry] : manifest) {
        char line[64];
        std::snprintf(line, sizeof(line), "%c %04o %12llu %016llx ", entry.kind, entry.mode,
                      static_cast<unsigned long long>(entry.size),
                      static_cast<unsigned long long>(entry.hash));
        out << line << path << "\n";
    }
}

} // namespace machine
