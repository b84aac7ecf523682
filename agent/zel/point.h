/* One backup of one device at one instant, as the repository knows it, and the file that says so.
 */
#pragma once

#include "chunk.h"

#include <filesystem>
#include <optional>
#include <string>

namespace zel
{

inline constexpr char pointFileName[] = "point.json";

struct Point {
    std::string name;
    std::filesystem::path directory;

    uint64_t number = 0; // counts the points of a repository in the order they were received
    StreamId id = {};
    StreamId parent = {}; // none for a full one
    std::string host;
    std::string device;
    std::string reason; // why it is full although an incremental was wanted; else empty
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t blockSize = 0;
    uint32_t numBlocks = 0;
    uint64_t partitionSizeKb = 0;
    int64_t snapshotSeconds = 0; // since 1970 UTC
    uint32_t snapshotNanoseconds = 0;
    ChunkSummary chunks;

    bool isFull() const { return parent == StreamId{}; }
    uint64_t bytesStored() const { return chunks.dataBytes + chunks.indexBytes(); }
    uint64_t imageBytes() const { return uint64_t{numBlocks} * blockSize; }
    uint64_t unreadBlocks() const
    {
        return chunks.blocksOf(Content::Unreadable) + chunks.blocksOf(Content::Doubtful);
    }
};

// The contents of `point.json`; it carries its own checksum.
std::string pointText(const Point &point);
// Reads `directory`/point.json. Throws Error (corrupt) on anything that pointText() would not
// have written.
Point readPoint(const std::filesystem::path &directory);

// What a stream says about the point that it makes; no name, number, directory or chunks yet.
Point pointFrom(const HeaderRecord &header);

// "2026-11-21T08:46:23Z"
std::string timeText(int64_t seconds);

} // namespace zel
