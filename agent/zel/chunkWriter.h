/* Writes the chunks of one point. */
#pragma once

#include "chunk.h"
#include "file.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace zel
{

class ChunkWriter
{
public:
    // Creates both files in `directory`.
    ChunkWriter(const std::filesystem::path &directory, uint32_t blockSize);
    ~ChunkWriter();

    // Whole blocks from `first` on, in any order, each block once (the caller sees to that).
    // Blocks that hold only zeros are kept as such.
    void addData(uint64_t first, std::span<const std::byte> blocks);
    // For every content but data.
    void addEmpty(uint64_t first, uint64_t count, Content content);
    // Sorts the index and makes both files durable. Nothing may be added any more.
    ChunkSummary finish();

private:
    struct Compressor;
    void flush();
    void append(const Chunk &chunk, Encoding encoding, std::span<const std::byte> payload);
    void writeEntries();
    void sortIndex();

    uint32_t blockSize_;
    File data_;
    File index_;
    ChunkSummary summary_;
    std::optional<Chunk> pending_;       // may still grow
    std::vector<std::byte> pendingData_; // of a pending data chunk
    std::vector<IndexEntry> entries_;    // not yet written
    std::unique_ptr<Compressor> compressor_;
};

} // namespace zel
