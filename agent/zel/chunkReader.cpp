#include "chunkReader.h"

#include "error.h"
#include "hash.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <new>

namespace zel
{

namespace
{

constexpr size_t entriesPerRead = 2048;

} // namespace

Decoder::Decoder() : context_(ZSTD_createDCtx())
{
    if (context_ == nullptr)
        throw std::bad_alloc();
}

Decoder::~Decoder()
{
    ZSTD_freeDCtx(context_);
}

std::span<std::byte> Decoder::payload(size_t size)
{
    if (payload_.size() < size)
        payload_.resize(size);
    return std::span(payload_).first(size);
}

bool Decoder::decode(Encoding encoding, std::span<const std::byte> payload,
                     std::span<std::byte> blocks) const
{
    if (encoding == Encoding::Raw && payload.size() == blocks.size()) {
        std::memcpy(blocks.data(), payload.data(), payload.size());
        return true;
    }
    return encoding == Encoding::Zstd &&
           ZSTD_decompressDCtx(context_, blocks.data(), blocks.size(), payload.data(),
                               payload.size()) == blocks.size();
}

ChunkReader::ChunkReader(const std::filesystem::path &directory, uint32_t blockSize,
                         uint64_t numBlocks, const ChunkSummary &expected)
    : blockSize_(blockSize), numBlocks_(numBlocks),
      data_(File::open(directory / dataFileName, O_RDONLY)),
      index_(File::open(directory / indexFileName, O_RDONLY)), entryCount_(expected.chunks)
{
    auto checkSize = [](const File &file, uint64_t bytes) {
        if (file.size() != bytes)
            refuse(file, "has " + std::to_string(file.size()) + " bytes instead of " +
                             std::to_string(bytes));
    };
    checkSize(data_, expected.dataBytes);
    checkSize(index_, expected.indexBytes());
    checkIndex(expected);
}

void ChunkReader::refuse(const File &file, const std::string &what)
{
    throw Error(ExitCode::corrupt, file.name() + ": " + what);
}

size_t ChunkReader::fillEntries(uint64_t from)
{
    size_t count = std::min<uint64_t>(entriesPerRead, entryCount_ - from);
    entries_.resize(count);
    bufferStart_ = from;
    auto bytes = std::as_writable_bytes(std::span(entries_));
    if (index_.readAt(bytes, from * sizeof(IndexEntry)) != bytes.size())
        refuse(index_, "cut short");
    return count;
}

void ChunkReader::checkIndex(const ChunkSummary &expected)
{
    RunningHash hash;
    for (uint64_t done = 0; done < entryCount_;) {
        done += fillEntries(done);
        hash.add(std::as_bytes(std::span(entries_)));
    }
    if (hash.value() != expected.indexChecksum)
        refuse(index_, "damaged (checksum differs)");

    // The checksum says that this is what was written; what follows keeps a file that was made up
    // from leading astray.
    ChunkSummary seen = {.indexChecksum = expected.indexChecksum};
    uint64_t lowest = 0;
    for (uint64_t done = 0; done < entryCount_; done += entries_.size()) {
        fillEntries(done);
        for (const IndexEntry &e : entries_) {
            bool isData = e.content == static_cast<uint16_t>(Content::Data);
            bool placed = e.content < contentKinds && e.count > 0 && e.first >= lowest &&
                          e.first < numBlocks_ && e.count <= numBlocks_ - e.first;
            bool sized = isData ? e.count <= maxChunkBytes / blockSize_ && e.payloadBytes > 0 &&
                                      e.payloadBytes <= maxChunkBytes &&
                                      e.payloadBytes <= expected.dataBytes &&
                                      e.payloadOffset <= expected.dataBytes - e.payloadBytes
                                : e.payloadBytes == 0;
            if (!placed || !sized)
                refuse(index_,
                       "entry " + std::to_string(&e - entries_.data() + done) + " makes no sense");
            lowest = uint64_t{e.first} + e.count;
            seen.add(e);
        }
    }
    if (!(seen == expected))
        refuse(index_, "does not match the point's totals");
}

std::optional<Chunk> ChunkReader::next()
{
    blocks_ = {}; // a long chain must not hold a chunk for each of its points
    if (nextEntry_ == entryCount_)
        return std::nullopt;
    if (nextEntry_ < bufferStart_ || nextEntry_ >= bufferStart_ + entries_.size())
        fillEntries(nextEntry_);
    current_ = entries_[nextEntry_++ - bufferStart_];
    return Chunk{current_.first, current_.count, static_cast<Content>(current_.content)};
}

std::span<const std::byte> ChunkReader::data(Decoder &decoder)
{
    if (!blocks_.empty())
        return blocks_;
    auto where = [this] {
        return "at byte " + std::to_string(current_.payloadOffset) + ": blocks " +
               std::to_string(current_.first) + " to " +
               std::to_string(uint64_t{current_.first} + current_.count - 1);
    };
    std::span<std::byte> payload = decoder.payload(current_.payloadBytes);
    if (data_.readAt(payload, current_.payloadOffset) != payload.size())
        refuse(data_, where() + " cut short");
    if (hashOf(payload) != current_.payloadChecksum)
        refuse(data_, where() + " damaged (checksum differs)");
    std::vector<std::byte> blocks(size_t{current_.count} * blockSize_);
    if (!decoder.decode(current_.encoding, payload, blocks))
        refuse(data_, where() + " cannot be decompressed");
    blocks_ = std::move(blocks);
    return blocks_;
}

} // namespace zel
