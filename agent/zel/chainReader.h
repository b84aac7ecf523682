/* A device as it was at a point: the blocks of the point, and below them those of its parents. */
#pragma once

#include "chunkReader.h"
#include "repository.h"

#include <optional>
#include <span>
#include <vector>

namespace zel
{

// Blocks that follow each other and come from one chunk.
struct Run {
    uint64_t first = 0; // block number
    uint64_t count = 0; // blocks
    Content content = Content::Data;
    const Point *source = nullptr; // of the chain, whose chunk it is
    uint64_t end() const { return first + count; }
};

class ChainReader
{
public:
    // `chain` as Repository::chain() gives it; the repository must outlive the reader.
    explicit ChainReader(const std::vector<const Point *> &chain);

    // The next run in block order; the runs cover the whole device. None at the end.
    std::optional<Run> next();
    // The contents of the data run that next() gave last, their checksum compared. Valid until
    // the next call of next().
    std::span<const std::byte> data();

private:
    struct Layer {
        const Point *point;
        ChunkReader reader;
        std::optional<Chunk> chunk; // the first that ends beyond the position; none at the end
    };

    uint32_t blockSize_;
    uint64_t numBlocks_;
    uint64_t position_ = 0; // first block that has not been given out
    Decoder decoder_;
    std::vector<Layer> layers_; // newest first
    Layer *source_ = nullptr;   // of the current run
    Run run_;
};

} // namespace zel
