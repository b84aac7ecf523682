/* The files that the guest starts with. */
#pragma once

#include <string>
#include <vector>

namespace vm
{

struct GuestFile {
    std::string name; // without the leading slash
    std::string contents;
};

// Writes an archive (newc) with these files, executable, the folders that the guest mounts things
// on, and the devices that programs expect.
void writeInitramfs(const std::string &path, const std::vector<GuestFile> &files);

} // namespace vm
