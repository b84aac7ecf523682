/* Files as the repository uses them: descriptors that close themselves, whole reads and writes,
 * errors that name the file. Every function throws Error (fellShort) when the system refuses. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

namespace zel
{

class File
{
public:
    File() = default;
    // Takes over `descriptor`; `name` is for messages.
    File(int descriptor, std::string name) : fd_(descriptor), name_(std::move(name)) {}
    File(File &&other) noexcept;
    File &operator=(File &&other) noexcept;
    ~File();

    // open(2) with close-on-exec.
    static File open(const std::filesystem::path &path, int flags, unsigned mode = 0666);

    // Another descriptor of an open file.
    static File duplicate(int descriptor, const std::string &name);

    int descriptor() const { return fd_; }
    const std::string &name() const { return name_; }
    uint64_t size() const;

    // Up to `buffer.size()` bytes from `offset`; fewer only at the end of the file.
    size_t readAt(std::span<std::byte> buffer, uint64_t offset) const;
    void writeAt(std::span<const std::byte> data, uint64_t offset) const;
    // At the file's own position, for pipes too.
    void write(std::span<const std::byte> data) const;
    void truncate(uint64_t size) const;
    void sync() const;
    // Closes now; errors that the system kept until then are reported.
    void close();

private:
    int fd_ = -1;
    std::string name_;
};

// Makes a directory's entries (creations, renames) durable.
void syncDirectory(const std::filesystem::path &directory);

// A small text file; refused (corrupt) when it is longer than `limit` bytes.
std::string readTextFile(const std::filesystem::path &path, size_t limit);
// Creates the file, which must not exist, and makes its contents durable.
void writeTextFile(const std::filesystem::path &path, const std::string &text);

} // namespace zel
