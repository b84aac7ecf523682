/* Where a stream comes from: standard input, or memory in tests. */
#pragma once

#include <cstddef>
#include <span>

namespace zel
{

class ByteSource
{
public:
    virtual ~ByteSource() = default;
    // Reads into `buffer`, at least one byte; 0 at the end. Throws Error (fellShort).
    virtual size_t read(std::span<std::byte> buffer) = 0;
};

// A file descriptor that stays the caller's.
class DescriptorSource : public ByteSource
{
public:
    explicit DescriptorSource(int descriptor) : descriptor_(descriptor) {}
    size_t read(std::span<std::byte> buffer) override;

private:
    int descriptor_;
};

class MemorySource : public ByteSource
{
public:
    // `bytes` must outlive the source.
    explicit MemorySource(std::span<const std::byte> bytes) : rest_(bytes) {}
    size_t read(std::span<std::byte> buffer) override;

private:
    std::span<const std::byte> rest_;
};

} // namespace zel
