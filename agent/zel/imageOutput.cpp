#include "imageOutput.h"

#include "error.h"
#include "file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <vector>

namespace zel
{

namespace fs = std::filesystem;

namespace
{

// Hands `count` zeros in pieces to `write(offset, bytes)`.
template<typename Write> void writeZeros(uint64_t offset, uint64_t count, Write write)
{
    static const std::vector<std::byte> zeros(1U << 20);
    for (uint64_t end = offset + count; offset < end;) {
        size_t part = std::min<uint64_t>(end - offset, zeros.size());
        write(offset, std::span(zeros).first(part));
        offset += part;
    }
}

class SparseFile : public ImageOutput
{
public:
    SparseFile(fs::path path, uint64_t imageBytes, bool force)
        : path_(std::move(path)), partial_(path_.string() + ".partial"), force_(force),
          file_(File::open(partial_, O_WRONLY | O_CREAT | O_NOFOLLOW))
    {
        if (flock(file_.descriptor(), LOCK_EX | LOCK_NB) != 0)
            throw Error(ExitCode::usage, partial_.string() + " is being written");
        owner_ = true;
        file_.truncate(0); // what a killed restore may have left
        file_.truncate(imageBytes);
    }
    ~SparseFile() override
    {
        std::error_code ignored;
        if (owner_)
            fs::remove(partial_, ignored);
    }
    void data(uint64_t offset, std::span<const std::byte> bytes) override
    {
        file_.writeAt(bytes, offset);
    }
    void zeros(uint64_t, uint64_t) override {} // they are there

    void finish() override
    {
        file_.sync();
        unsigned flags = force_ ? 0 : RENAME_NOREPLACE;
        int failed = renameat2(AT_FDCWD, partial_.c_str(), AT_FDCWD, path_.c_str(), flags);
        // Not every file system has the flag.
        if (failed != 0 && errno == EINVAL && !fs::exists(fs::symlink_status(path_)))
            failed = std::rename(partial_.c_str(), path_.c_str());
        if (failed != 0)
            throw Error(ExitCode::fellShort,
                        "cannot name " + path_.string() + ": " + std::strerror(errno));
        owner_ = false;
        syncDirectory(fs::absolute(path_).parent_path());
    }

private:
    fs::path path_;
    fs::path partial_;
    bool force_;
    bool owner_ = false;
    File file_;
};

class BlockDevice : public ImageOutput
{
public:
    // O_EXCL: the system refuses it while it is mounted.
    BlockDevice(const fs::path &path, uint64_t imageBytes)
        : file_(File::open(path, O_WRONLY | O_EXCL))
    {
        if (file_.size() < imageBytes)
            throw Error(ExitCode::usage, path.string() + " has " + std::to_string(file_.size()) +
                                             " bytes, the image " + std::to_string(imageBytes));
    }
    void data(uint64_t offset, std::span<const std::byte> bytes) override
    {
        file_.writeAt(bytes, offset);
    }
    void zeros(uint64_t offset, uint64_t count) override
    {
        writeZeros(offset, count, [this](uint64_t at, auto bytes) { file_.writeAt(bytes, at); });
    }
    void finish() override { file_.sync(); }

private:
    File file_;
};

class StandardOutput : public ImageOutput
{
public:
    StandardOutput() : file_(File::duplicate(STDOUT_FILENO, "standard output")) {}
    void data(uint64_t, std::span<const std::byte> bytes) override { file_.write(bytes); }
    void zeros(uint64_t offset, uint64_t count) override
    {
        writeZeros(offset, count, [this](uint64_t, auto bytes) { file_.write(bytes); });
    }
    void finish() override { file_.close(); }

private:
    File file_;
};

} // namespace

std::unique_ptr<ImageOutput> openImage(const fs::path &path, uint64_t imageBytes, bool force)
{
    if (path == "-") {
        if (isatty(STDOUT_FILENO) == 1)
            throw Error(ExitCode::usage, "standard output is a terminal");
        return std::make_unique<StandardOutput>();
    }
    fs::file_status status = fs::status(path);
    if (!fs::exists(status) && !fs::is_symlink(fs::symlink_status(path)))
        return std::make_unique<SparseFile>(path, imageBytes, force);
    if (!fs::is_regular_file(status) && !fs::is_block_file(status))
        throw Error(ExitCode::usage, path.string() + " is neither a file nor a block device");
    if (!force)
        throw Error(ExitCode::usage, path.string() + " exists; --force overwrites it");
    if (fs::is_block_file(status))
        return std::make_unique<BlockDevice>(path, imageBytes);
    return std::make_unique<SparseFile>(fs::canonical(path), imageBytes, force);
}

} // namespace zel
