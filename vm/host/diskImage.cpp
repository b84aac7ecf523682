#include "diskImage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "disk.h"
#include "extFile.h"

namespace vm
{
namespace
{

constexpr std::uint64_t sectorsPerMebibyte = 2048;
constexpr std::uint64_t firstSector = 63; // where the first partition has always begun

// The smallest journal is 1024 blocks, and mke2fs makes none that takes more than half of what is
// free; the rest is for the tables.
constexpr std::uint32_t journalBlocks = 1024;
constexpr std::uint32_t extraBlocks = 2 * journalBlocks + 64;

constexpr const char *imageFile = "filesystem.image";
constexpr const char *sourceFolder = "filesystem.files";
constexpr const char *toolLog = "e2fsprogs.log";

std::vector<unsigned char> contentsOf(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Runs a program of e2fsprogs, which may lie where only root looks. Its output is put into a file.
bool runTool(const std::string &command)
{
    return std::system(
               ("PATH=$PATH:/usr/sbin:/sbin " + command + " >" + toolLog + " 2>&1").c_str()) == 0;
}

// What mke2fs puts into a file system of this kind. Of ext4 it is what it always has, and all that
// is left to the kernel otherwise is done at once: a kernel that does it while scenarios run is one
// more writer.
std::string featuresOf(const std::string &fileSystem)
{
    const std::string common = "none,has_journal,filetype,sparse_super,large_file";
    if (fileSystem == "ext3")
        return common;
    return common + ",ext_attr,dir_index,extent,flex_bg,huge_file,extra_isize,64bit,metadata_csum"
                    " -E lazy_itable_init=0,lazy_journal_init=0";
}

// A file system of this many blocks, with a file of `fileBlocks` blocks if there are any. Empty if
// there is no room for that.
std::vector<unsigned char> makeFileSystem(const std::string &fileSystem, unsigned blockSize,
                                          std::uint32_t blocks, std::uint32_t fileBlocks)
{
    namespace fs = std::filesystem;
    fs::remove(imageFile);
    fs::remove_all(sourceFolder);
    fs::create_directory(sourceFolder);
    std::string options;
    if (fileBlocks != 0) {
        // Not zeros, which would become holes.
        std::ofstream file(fs::path(sourceFolder) / volumeFile, std::ios::binary);
        file << std::string(std::size_t{fileBlocks} * blockSize, '-') << std::flush;
        if (!file)
            throw std::runtime_error(std::string(sourceFolder) + ": cannot be written to");
        options = std::string(" -d ") + sourceFolder;
    }
    options += " -b " + std::to_string(blockSize);
    options += " -J size=" + std::to_string(journalBlocks * blockSize / (1024 * 1024));
    std::string command =
        "mke2fs -q -F -t " + fileSystem + " -m 0 -N 16 -O " + featuresOf(fileSystem);
    command += options + " " + imageFile + " ";
    command += std::to_string(std::uint64_t{blocks} * blockSize / 1024) + "k";
    if (runTool(command))
        return contentsOf(imageFile);
    if (fileBlocks == 0)
        throw std::runtime_error("failed: " + command);
    return {};
}

// The size of the largest file of ext3 that fits into this many blocks, with the blocks that hold
// its block numbers.
std::uint32_t largestFile(std::uint32_t freeBlocks, unsigned blockSize)
{
    std::uint32_t numbers = blockSize / 4; // in a block
    auto all = [&](std::uint32_t blocks) {
        if (blocks > directBlocks)
            blocks++;
        if (std::uint32_t first = directBlocks + 1 + numbers; blocks > first)
            blocks += 1 + (blocks - first + numbers - 1) / numbers;
        return blocks;
    };
    std::uint32_t blocks = freeBlocks;
    while (all(blocks) > freeBlocks)
        blocks--;
    return blocks;
}

// Makes the volume's file system, with a file that fills it up to the last block.
std::vector<unsigned char> fill(Volume &volume, const std::string &fileSystem)
{
    constexpr unsigned attempts = 4; // ext4 may need a block for what it knows of the file
    std::uint32_t free = freeBlocks(makeFileSystem(fileSystem, volume.blockSize, volume.blocks, 0));
    std::uint32_t most = fileSystem == "ext3" ? largestFile(free, volume.blockSize) : free;
    std::string tried;
    for (unsigned i = 0; i < attempts; i++) {
        std::vector<unsigned char> contents =
            makeFileSystem(fileSystem, volume.blockSize, volume.blocks, most - i);
        tried += "\n    of " + std::to_string(most - i) + ": ";
        if (contents.empty()) {
            std::vector<unsigned char> said = contentsOf(toolLog);
            tried.append(said.begin(), said.end());
            continue;
        }
        volume.fileBlocks = firstFilesBlocks(contents);
        if (volume.fileBlocks.size() == most - i && volume.fileBlocks.back() == volume.blocks - 1)
            return contents;
        tried += "has " + std::to_string(volume.fileBlocks.size()) + ", up to block " +
                 std::to_string(volume.fileBlocks.empty() ? 0 : volume.fileBlocks.back());
    }
    throw std::runtime_error("no file fills all of the file system's " +
                             std::to_string(volume.blocks) + " blocks:" + tried);
}

// One entry of a master boot record.
void describePartition(unsigned char *entry, const Volume &volume)
{
    constexpr unsigned char linuxType = 0x83;
    const unsigned char beyondCylinders[3] = {0xfe, 0xff, 0xff};
    std::uint32_t numbers[2] = {static_cast<std::uint32_t>(volume.startSector),
                                static_cast<std::uint32_t>(volume.sectors)};
    std::memcpy(entry + 1, beyondCylinders, 3);
    entry[4] = linuxType;
    std::memcpy(entry + 5, beyondCylinders, 3);
    std::memcpy(entry + 8, numbers, sizeof(numbers));
}

void writeBootRecord(DiskImage &image)
{
    unsigned char *entry = &image.bytes[446];
    for (const Volume &volume : image.volumes) {
        describePartition(entry, volume);
        entry += 16;
    }
    image.bytes[510] = 0x55;
    image.bytes[511] = 0xaa;
}

} // namespace

bool soundFileSystem(const std::vector<unsigned char> &contents)
{
    std::ofstream out(imageFile, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(contents.data()),
              static_cast<std::streamsize>(contents.size()));
    out.close();
    return out && runTool(std::string("e2fsck -fn ") + imageFile);
}

DiskImage makeDiskImage(const scenario::Layout &layout, const std::string &fileSystem)
{
    DiskImage image;
    std::uint64_t first = layout.partitioned ? firstSector : 0;
    std::uint64_t share =
        (layout.mebibytes * sectorsPerMebibyte - first) / layout.blockSizes.size();
    std::uint64_t next = first;
    for (unsigned blockSize : layout.blockSizes) {
        Volume volume;
        volume.partition = layout.partitioned ? static_cast<unsigned>(image.volumes.size()) + 1 : 0;
        volume.startSector = next;
        volume.sectors = share + std::uint64_t{extraBlocks} * blockSize / sectorBytes;
        volume.blockSize = blockSize;
        volume.blocks = static_cast<std::uint32_t>(volume.sectors * sectorBytes / blockSize);
        next += volume.sectors;

        std::vector<unsigned char> contents = fill(volume, fileSystem);
        image.bytes.resize(static_cast<std::size_t>(next * sectorBytes));
        std::copy(contents.begin(), contents.end(),
                  image.bytes.begin() +
                      static_cast<std::ptrdiff_t>(volume.startSector * sectorBytes));
        image.volumes.push_back(std::move(volume));
    }
    if (layout.partitioned)
        writeBootRecord(image);
    return image;
}

} // namespace vm
