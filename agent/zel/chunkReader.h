/* Reads the chunks of one point in block order, each checked before it is believed. Every Error
 * names the file and the place in it. */
#pragma once

#include "chunk.h"
#include "file.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <vector>
#include <zstd.h>

namespace zel
{

// Turns payloads back into blocks; shared by the readers of a chain, used by one at a time.
class Decoder
{
public:
    Decoder();
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;
    ~Decoder();

    // A buffer of `size` bytes to read a payload into.
    std::span<std::byte> payload(size_t size);
    // False if the payload is not the encoding of exactly `blocks.size()` bytes.
    bool decode(Encoding encoding, std::span<const std::byte> payload,
                std::span<std::byte> blocks) const;

private:
    ZSTD_DCtx *context_;
    std::vector<std::byte> payload_;
};

class ChunkReader
{
public:
    // Compares both files with what the point's metadata say; reads the whole index once.
    ChunkReader(const std::filesystem::path &directory, uint32_t blockSize, uint64_t numBlocks,
                const ChunkSummary &expected);

    // The next chunk, or none at the end.
    std::optional<Chunk> next();
    // The blocks of the data chunk that next() gave last. Valid until the next call of next(). A
    // chunk that nobody asks for is never read.
    std::span<const std::byte> data(Decoder &decoder);
    // Bytes that the current chunk takes in the data file.
    uint32_t payloadBytes() const { return current_.payloadBytes; }

private:
    [[noreturn]] static void refuse(const File &file, const std::string &what);
    void checkIndex(const ChunkSummary &expected);
    size_t fillEntries(uint64_t from);

    uint32_t blockSize_;
    uint64_t numBlocks_;
    File data_;
    File index_;
    uint64_t entryCount_ = 0;
    uint64_t nextEntry_ = 0;
    uint64_t bufferStart_ = 0; // entry number of entries_[0]
    std::vector<IndexEntry> entries_;
    IndexEntry current_ = {};
    std::vector<std::byte> blocks_; // of the current chunk, once decoded
};

} // namespace zel
