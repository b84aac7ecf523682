/* A second, independent reading of docs/formats.md, to check what zelsend writes. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/checksum.h"
#include "agent/options.h"
#include "agent/stream.h"

namespace test
{

struct BadStream : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct ReadStream {
    zel::HeaderRecord header;
    std::vector<zel::ExtentRecord> extents;
    std::map<std::uint32_t, std::string> blocks; // zeros for what was not read
    std::set<std::uint32_t> unreadable;
    std::set<std::uint32_t> doubtful;
    std::optional<zel::EndRecord> end;
    std::optional<zel::AbortRecord> abort;

    std::string id() const { return zelsend::formatStreamId(header.id).text; }
    std::string parent() const { return zelsend::formatStreamId(header.parent).text; }
};

inline void require(bool condition, const char *what)
{
    if (!condition) {
        throw BadStream(what);
    }
}

// Takes a record from the stream and checks its seal, the CRC-32C of all before its last member.
template<class Record> Record takeRecord(const std::string &stream, std::size_t *at)
{
    Record record;
    require(stream.size() - *at >= sizeof(record), "cut");
    std::memcpy(&record, stream.data() + *at, sizeof(record));
    require(record.checksum == zel::crc32c(&record, sizeof(record) - 4), "record checksum");
    *at += sizeof(record);
    return record;
}

inline void takeExtent(const std::string &stream, std::size_t *at, ReadStream *result)
{
    using zel::Content;
    auto extent = takeRecord<zel::ExtentRecord>(stream, at);
    const zel::HeaderRecord &header = result->header;
    std::uint64_t end = std::uint64_t{extent.firstBlock} + extent.blockCount;
    require(extent.blockCount > 0 && end <= header.numBlocks, "block range");
    require(extent.content <= Content::Doubtful, "content");
    bool data = extent.content == Content::Data;
    require(extent.payloadBytes == (data ? extent.blockCount * header.blockSize : 0) &&
                extent.payloadBytes <= zel::maxPayloadBytes,
            "payload size");
    require(stream.size() - *at >= extent.payloadBytes, "cut");
    require(extent.payloadChecksum ==
                (data ? zel::crc32c(stream.data() + *at, extent.payloadBytes) : 0),
            "payload checksum");
    for (std::uint32_t i = 0; i < extent.blockCount; i++) {
        std::uint32_t block = extent.firstBlock + i;
        std::string bytes =
            data ? stream.substr(*at + std::size_t{i} * header.blockSize, header.blockSize)
                 : std::string(header.blockSize, '\0');
        require(result->blocks.emplace(block, bytes).second, "a block came twice");
        if (extent.content == Content::Unreadable) {
            result->unreadable.insert(block);
        } else if (extent.content == Content::Doubtful) {
            result->doubtful.insert(block);
        }
    }
    *at += extent.payloadBytes;
    result->extents.push_back(extent);
}

inline std::uint32_t blocksOf(const ReadStream &stream, zel::Content content)
{
    std::uint32_t blocks = 0;
    for (const auto &extent : stream.extents) {
        blocks += extent.content == content ? extent.blockCount : 0;
    }
    return blocks;
}

// Reads a stream that is complete or was given up in order; throws BadStream for any other.
inline ReadStream readStream(const std::string &stream)
{
    ReadStream result = {};
    std::size_t at = 0;
    result.header = takeRecord<zel::HeaderRecord>(stream, &at);
    const zel::HeaderRecord &header = result.header;
    require(std::memcmp(header.magic, zel::streamMagic, sizeof(header.magic)) == 0 &&
                header.version == 1 && header.headerBytes == sizeof(header),
            "header");
    std::uint32_t checksum = zel::crc32c(&header, sizeof(header));
    std::uint32_t sequence = 0;
    std::uint64_t payload = 0;
    for (;; sequence++) {
        struct {
            zel::RecordType type;
            std::uint32_t sequence;
        } head;
        require(stream.size() - at >= sizeof(head), "cut");
        std::memcpy(&head, stream.data() + at, sizeof(head));
        require(head.sequence == sequence, "sequence");
        if (head.type != zel::RecordType::Extent) {
            break;
        }
        takeExtent(stream, &at, &result);
        const zel::ExtentRecord &extent = result.extents.back();
        checksum = zel::crc32c(&extent, sizeof(extent), checksum);
        payload += extent.payloadBytes;
    }
    zel::RecordType last;
    std::memcpy(&last, stream.data() + at, sizeof(last));
    if (last == zel::RecordType::Abort) {
        result.abort = takeRecord<zel::AbortRecord>(stream, &at);
    } else {
        require(last == zel::RecordType::End, "record type");
        result.end = takeRecord<zel::EndRecord>(stream, &at);
        const zel::EndRecord &end = *result.end;
        require(end.dataBlocks == blocksOf(result, zel::Content::Data) &&
                    end.zeroBlocks == blocksOf(result, zel::Content::Zero) &&
                    end.unreadableBlocks == blocksOf(result, zel::Content::Unreadable) &&
                    end.doubtfulBlocks == blocksOf(result, zel::Content::Doubtful) &&
                    end.payloadBytes == payload && end.streamBytes == at &&
                    end.streamChecksum == checksum,
                "totals");
        require(result.blocks.size() == header.sentBlocks, "number of blocks");
        require(header.kind == zel::StreamKind::Incremental ||
                    header.sentBlocks == header.numBlocks,
                "a full stream with gaps");
    }
    require(at == stream.size(), "bytes behind the end");
    return result;
}

// What a receiver holds: the image of every complete point.
class Receiver
{
public:
    // Takes what arrived of a stream; true if that made a point.
    bool take(const std::string &stream)
    {
        ReadStream read;
        try {
            read = readStream(stream);
        } catch (const BadStream &) {
            return false;
        }
        if (!read.end) {
            return false;
        }
        std::string image(std::size_t{read.header.numBlocks} * read.header.blockSize, '\0');
        if (read.header.kind == zel::StreamKind::Incremental) {
            image = images_.at(read.parent()); // throws where the sender took a wrong parent
        }
        for (const auto &[block, bytes] : read.blocks) {
            image.replace(std::size_t{block} * read.header.blockSize, bytes.size(), bytes);
        }
        newest_ = read.id();
        images_[newest_] = image;
        return true;
    }

    // The newest point's id, or "none".
    const std::string &newest() const { return newest_; }
    const std::string &image() const { return images_.at(newest_); }
    // Forgets the newest point, as a repository that was put back to an older copy.
    void fallBackTo(const std::string &id) { newest_ = id; }

private:
    std::map<std::string, std::string> images_;
    std::string newest_ = "none";
};

} // namespace test
