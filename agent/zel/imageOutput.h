/* Where a restored image goes. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>

namespace zel
{

class ImageOutput
{
public:
    virtual ~ImageOutput() = default;
    // The parts of the image come in ascending order, without gaps.
    virtual void data(uint64_t offset, std::span<const std::byte> bytes) = 0;
    virtual void zeros(uint64_t offset, uint64_t count) = 0;
    // Everything is there; makes it durable and gives it its name.
    virtual void finish() = 0;
};

// "-" is standard output; an existing block device is written as it is; everything else becomes a
// sparse file, which has the name `path`.partial until finish() and is removed if that is never
// reached. Throws Error (usage) for an existing file or a device without `force`, and for what is
// neither.
std::unique_ptr<ImageOutput> openImage(const std::filesystem::path &path, uint64_t imageBytes,
                                       bool force);

} // namespace zel
