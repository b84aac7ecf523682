/* Makes backup streams, whole ones and wrong ones. */
#pragma once

#include "checksum.h"
#include "stream.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace test
{

using Bytes = std::vector<std::byte>;

// The id whose bytes are all `number`.
zel::StreamId streamId(uint8_t number);

// Sets a record's checksum, which is its last member.
template<typename Record> void seal(Record &record)
{
    record.checksum = zel::crc32c(&record, sizeof record - sizeof record.checksum);
}

template<typename Record> void append(Bytes &bytes, const Record &record)
{
    auto view = std::as_bytes(std::span(&record, 1));
    bytes.insert(bytes.end(), view.begin(), view.end());
}

// Fills a text member of a record.
template<size_t size> void setText(char (&member)[size], const std::string &text)
{
    std::memset(member, 0, size);
    std::memcpy(member, text.data(), std::min(text.size(), size - 1));
}

// Not sealed, without a place in the sequence: what StreamBuilder::extent() takes.
zel::ExtentRecord extentRecord(uint32_t first, uint32_t count, zel::Content content,
                               uint32_t payloadBytes);

// A device in memory, every block of which is different and none of which is zero.
class Image
{
public:
    Image(uint32_t numBlocks, uint32_t blockSize, uint32_t seed);

    uint32_t blockSize() const { return blockSize_; }
    uint32_t numBlocks() const { return static_cast<uint32_t>(bytes_.size() / blockSize_); }
    const Bytes &bytes() const { return bytes_; }
    std::span<const std::byte> blocks(uint32_t first, uint32_t count) const;
    // New contents for some blocks.
    void fill(uint32_t first, uint32_t count, uint32_t seed);
    void clear(uint32_t first, uint32_t count);

private:
    uint32_t blockSize_;
    Bytes bytes_;
};

class StreamBuilder
{
public:
    // A full stream; an incremental if there is a parent.
    StreamBuilder(uint32_t numBlocks, uint32_t blockSize, zel::StreamId id,
                  zel::StreamId parent = {});

    // Everything in it may be changed until bytes(). `sentBlocks` counts along.
    zel::HeaderRecord header = {};

    StreamBuilder &data(uint32_t first, std::span<const std::byte> blocks);
    // For every content but data.
    StreamBuilder &empty(uint32_t first, uint32_t count, zel::Content content);
    // Any record: sequence and checksums are filled in, the rest is as the caller wants it.
    StreamBuilder &extent(zel::ExtentRecord record, std::span<const std::byte> payload);

    // The stream so far, ended properly.
    Bytes bytes() const;
    // The same, given up by the sender.
    Bytes aborted(const std::string &reason) const;
    // Header and extents only.
    Bytes unfinished() const;
    // The end record that goes with the stream so far, not sealed.
    zel::EndRecord endRecord() const;

private:
    zel::HeaderRecord sealedHeader() const;

    Bytes extents_;
    Bytes records_; // without payloads
    uint32_t count_ = 0;
    uint64_t payloadBytes_ = 0;
    uint32_t contentBlocks_[4] = {};
};

// A full stream of a whole image, `perExtent` blocks at a time, zero blocks sent as such.
Bytes fullStream(const Image &image, zel::StreamId id, uint32_t perExtent = 4);

} // namespace test
