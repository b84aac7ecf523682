#include "diskImage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "disk.h"
#include "ext3File.h"

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

std::vector<unsigned char> contentsOf(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Runs a program of e2fsprogs, which may lie where only root looks. Its output is put into a file.
bool runTool(const std::string &command)
{
    return std::system(
               ("PATH=$PATH:/usr/sbin:/sbin " + command + " >e2fsprogs.log 2>&1").c_str()) == 0;
}

// A file system of this many blocks, with a file of `fileBlocks` blocks if there are any.
std::vector<unsigned char> makeFileSystem(unsigned blockSize, std::uint32_t blocks,
                                          std::uint32_t fileBlocks)
{
    namespace fs = std::filesystem;
    fs::remove(imageFile);
    fs::remove_all(sourceFolder);
    fs::create_directory(sourceFolder);
    std::string options;
    if (fileBlocks != 0) {
        // Not zeros, which would become holes.
        std::ofstream(fs::path(sourceFolder) / volumeFile, std::ios::binary)
            << std::string(std::size_t{fileBlocks} * blockSize, '-');
        options = std::string(" -d ") + sourceFolder;
    }
    options += " -b " + std::to_string(blockSize);
    options += " -J size=" + std::to_string(journalBlocks * blockSize / (1024 * 1024));
    std::string command = "mke2fs -q -F -t ext3 -m 0 -N 16"
                          " -O none,has_journal,filetype,sparse_super,large_file";
    command += options + " " + imageFile + " ";
    command += std::to_string(std::uint64_t{blocks} * blockSize / 1024) + "k";
    if (!runTool(command))
        throw std::runtime_error("failed: " + command);
    return contentsOf(imageFile);
}

// The size of the largest file that fits into this many blocks, with the blocks that hold its block
// numbers.
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

DiskImage makeDiskImage(const scenario::Layout &layout)
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

        std::uint32_t most =
            largestFile(freeBlocks(makeFileSystem(blockSize, volume.blocks, 0)), blockSize);
        std::vector<unsigned char> contents = makeFileSystem(blockSize, volume.blocks, most);
        volume.fileBlocks = firstFilesBlocks(contents);
        if (volume.fileBlocks.size() != most || volume.fileBlocks.back() != volume.blocks - 1)
            throw std::runtime_error("the file does not fill its file system");
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
