#include "extFile.h"

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
constexpr std::size_t inodeFlags = 32;
constexpr std::size_t inodeBlocks = 40;
constexpr std::uint32_t hasExtents = 0x80000;
constexpr std::size_t extentBytes = 12; // and as much for what is before the first of a node
constexpr std::uint16_t extentMagic = 0xf30a;
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
            throw std::runtime_error("not an ext3 or ext4 file system");
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
        if ((load<std::uint32_t>(inode + inodeFlags) & hasExtents) != 0) {
            addExtents(inode + inodeBlocks);
            return blocks_;
        }
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

    // The file's blocks below a node of its tree of extents.
    void addExtents(const unsigned char *node)
    {
        if (load<std::uint16_t>(node) != extentMagic)
            throw std::runtime_error("a file with a broken tree of extents");
        auto entries = load<std::uint16_t>(node + 2);
        bool leaf = load<std::uint16_t>(node + 6) == 0;
        for (std::uint32_t i = 1; i <= entries; i++) {
            const unsigned char *entry = node + i * extentBytes;
            if (load<std::uint32_t>(entry) != blocks_.size())
                throw std::runtime_error("a file with holes");
            if (!leaf) {
                auto below = load<std::uint32_t>(entry + 4);
                addExtents(at(std::uint64_t{below} * blockSize_));
                continue;
            }
            auto first = load<std::uint32_t>(entry + 8);
            for (std::uint16_t n = 0; n < load<std::uint16_t>(entry + 4); n++)
                blocks_.push_back(first + n);
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
