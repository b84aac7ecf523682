#include "chainReader.h"

#include "error.h"

#include <algorithm>

namespace zel
{

ChainReader::ChainReader(const std::vector<const Point *> &chain)
    : blockSize_(chain.front()->blockSize), numBlocks_(chain.front()->numBlocks)
{
    layers_.reserve(chain.size());
    for (const Point *point : chain) {
        ChunkReader reader(point->directory, blockSize_, numBlocks_, point->chunks);
        std::optional<Chunk> first = reader.next();
        layers_.push_back({point, std::move(reader), first});
    }
}

std::optional<Run> ChainReader::next()
{
    if (position_ == numBlocks_)
        return std::nullopt;
    uint64_t end = numBlocks_;
    source_ = nullptr;
    for (Layer &layer : layers_) {
        while (layer.chunk && layer.chunk->end() <= position_)
            layer.chunk = layer.reader.next();
        if (!layer.chunk)
            continue;
        if (layer.chunk->first <= position_) {
            end = std::min(end, layer.chunk->end());
            source_ = &layer;
            break;
        }
        end = std::min(end, layer.chunk->first);
    }
    if (source_ == nullptr)
        throw Error(ExitCode::corrupt, "point " + layers_.back().point->name + ": block " +
                                           std::to_string(position_) +
                                           " is missing from the full backup");
    run_ = {position_, end - position_, source_->chunk->content, source_->point};
    position_ = end;
    return run_;
}

std::span<const std::byte> ChainReader::data()
{
    std::span<const std::byte> blocks = source_->reader.data(decoder_);
    return blocks.subspan((run_.first - source_->chunk->first) * blockSize_,
                          run_.count * blockSize_);
}

} // namespace zel
