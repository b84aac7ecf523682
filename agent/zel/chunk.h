/* The chunks that a point is kept in (docs/formats.md).
 *
 * `data` holds their compressed contents one after the other as they arrived, and nothing else.
 * `index` holds one IndexEntry for each chunk, sorted by block number, so that a point is read in
 * block order although the device sent it in another. */
#pragma once

#include "stream.h"

#include <array>
#include <cstdint>

namespace zel
{

inline constexpr char dataFileName[] = "data";
inline constexpr char indexFileName[] = "index";

// Largest piece of a device that is compressed as one, in bytes.
inline constexpr uint32_t maxChunkBytes = maxPayloadBytes;

enum class Encoding : uint16_t {
    None = 0, // no payload: the content says it all
    Raw = 1,
    Zstd = 2,
};

// As it lies in the index; little-endian.
struct IndexEntry {
    uint32_t first; // block number
    uint32_t count; // blocks, at least 1
    uint16_t content;
    Encoding encoding;
    uint32_t payloadBytes;
    uint64_t payloadOffset;   // in `data`
    uint64_t payloadChecksum; // XXH3 of the payload as it is kept; 0 without one
};
static_assert(sizeof(IndexEntry) == 32);

// Blocks with one sort of content that follow each other.
struct Chunk {
    uint64_t first = 0; // block number
    uint64_t count = 0; // blocks
    Content content = Content::Data;
    uint64_t end() const { return first + count; }
};

inline constexpr size_t contentKinds = 4;

// What the two files of a point hold; kept in its metadata and compared when they are read.
struct ChunkSummary {
    uint64_t chunks = 0;
    std::array<uint64_t, contentKinds> blocks = {}; // by Content
    uint64_t dataBytes = 0;                         // size of `data`
    uint64_t indexChecksum = 0;                     // XXH3 of `index`
    bool operator==(const ChunkSummary &) const = default;

    uint64_t blocksOf(Content content) const { return blocks[static_cast<size_t>(content)]; }
    uint64_t allBlocks() const { return blocks[0] + blocks[1] + blocks[2] + blocks[3]; }
    uint64_t indexBytes() const { return chunks * sizeof(IndexEntry); }
    void add(const IndexEntry &entry)
    {
        chunks++;
        blocks[entry.content] += entry.count;
        dataBytes += entry.payloadBytes;
    }
};

} // namespace zel
