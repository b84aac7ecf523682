#include "ext3File.h"

#include <cstring>
#include <stdexcept>

namespace vm
{
namespace
{

constexpr std::size_t fieldFreeBlocks = 12;
constexpr std::size_t fieldLogBlockSize = 24;
constexpr std::size_t fieldMagic = 56;
constexpr std::size_t fieldInodeSize = 88;
constexpr std::size_t fieldIncompatible = 96;
constexpr std::size_t groupInodeTable = 8; // in a group's descriptor
constexpr std::size_t inodeSizeField = 4;
constexpr std::size_t inodeBlocks = 40;
constexpr std::uint16_t magic = 0xef53;
constexpr std::uint32_t needsRecovery = 4;
constexpr std::uint32_t firstFile = 12; // after the reserved inodes and lost+found

template<class T> T load(const unsigned char *from)
{
    T value;
    std::memcpy(&value, from, sizeof(value));
    return value;
}

class FileSystem
{
public:
    explicit FileSystem(const std::vector<unsigned char> &image) : image_(image)
    {
        if (load<std::uint16_t>(superblock() + fieldMagic) != magic)
            throw std::runtime_error("not an ext3 file system");
        blockSize_ = 1024u << load<std::uint32_t>(superblock() + fieldLogBlockSize);
    }

    const unsigned char *superblock() const { return at(superblockOffset); }

    std::vector<std::uint32_t> fileBlocks(std::uint32_t inodeNumber)
    {
        std::uint64_t groups = (superblockOffset / blockSize_ + 1) * blockSize_;
        auto table = load<std::uint32_t>(at(groups + groupInodeTable));
        auto size = load<std::uint16_t>(superblock() + fieldInodeSize);
        const unsigned char *inode =
            at(std::uint64_t{table} * blockSize_ + std::uint64_t{inodeNumber - 1} * size);
        left_ = (load<std::uint32_t>(inode + inodeSizeField) + blockSize_ - 1) / blockSize_;
        blocks_.clear();
        for (unsigned i = 0; i < directBlocks + 3; i++)
            addTree(load<std::uint32_t>(inode + inodeBlocks + 4 * i),
                    i < directBlocks ? 0 : i - directBlocks + 1);
        return blocks_;
    }

private:
    const unsigned char *at(std::uint64_t offset) const
    {
        if (offset + superblockBytes > image_.size())
            throw std::runtime_error("a file system that points past its end");
        return &image_[static_cast<std::size_t>(offset)];
    }

    // The file's blocks below `block`, which is one itself at level 0.
    void addTree(std::uint32_t block, unsigned level)
    {
        if (left_ == 0)
            return;
        if (block == 0)
            throw std::runtime_error("a file with holes");
        if (level == 0) {
            blocks_.push_back(block);
            left_--;
            return;
        }
        for (std::uint32_t i = 0; i < blockSize_ / 4 && left_ != 0; i++) {
            std::uint64_t entry = std::uint64_t{block} * blockSize_ + 4 * i;
            addTree(load<std::uint32_t>(at(entry / 1024 * 1024) + entry % 1024), level - 1);
        }
    }

    const std::vector<unsigned char> &image_;
    std::uint32_t blockSize_ = 0;
    std::uint32_t left_ = 0;
    std::vector<std::uint32_t> blocks_;
};

} // namespace

std::vector<std::uint32_t> firstFilesBlocks(const std::vector<unsigned char> &image)
{
    return FileSystem(image).fileBlocks(firstFile);
}

std::uint32_t freeBlocks(const std::vector<unsigned char> &image)
{
    return load<std::uint32_t>(FileSystem(image).superblock() + fieldFreeBlocks);
}

bool inUse(const unsigned char *superblock)
{
    return (load<std::uint32_t>(superblock + fieldIncompatible) & needsRecovery) != 0;
}

} // namespace vm
