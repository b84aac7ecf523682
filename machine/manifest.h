/* What a file system holds: every entry with its kind, size and a hash of its contents. */
#pragma once

#include <ext2fs/ext2fs.h>

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>

namespace machine
{

struct ManifestEntry {
    char kind = '?'; // 'f' file, 'd' directory, 'l' symbolic link, 'o' other
    std::uint32_t mode = 0;
    std::uint64_t size = 0; // bytes
    std::uint64_t hash = 0; // XXH3 of a file's contents or of a link's target
    bool operator==(const ManifestEntry &) const = default;
};

using Manifest = std::map<std::string, ManifestEntry>; // by path from the root, "/..."

// Reads the entry of inode `number`. Throws std::runtime_error if the file system cannot be read.
ManifestEntry readEntry(ext2_filsys fs, ext2_ino_t number);
// Walks the whole tree.
Manifest readManifest(ext2_filsys fs);
// The manifest of an image file of one file system, opened read-only.
Manifest readImageManifest(const std::string &image);

// One line for each entry, in the order of the paths; the same text for the same contents.
void printManifest(std::ostream &out, const Manifest &manifest);

} // namespace machine
