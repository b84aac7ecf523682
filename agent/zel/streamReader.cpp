#include "streamReader.h"

#include "checksum.h"
#include "error.h"

#include <algorithm>
#include <cstring>

namespace zel
{

namespace
{

template<typename Record> std::span<std::byte> bytesOf(Record &record)
{
    return std::as_writable_bytes(std::span(&record, 1));
}

// Every record's checksum is its last member.
template<typename Record> bool intact(const Record &record)
{
    return crc32c(&record, sizeof record - sizeof record.checksum) == record.checksum;
}

template<size_t size> bool isText(const char (&text)[size])
{
    size_t length = strnlen(text, size);
    auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
    return length < size && std::none_of(text, text + length, isControl) &&
           std::all_of(text + length, text + size, [](char c) { return c == 0; });
}

std::string blocksName(uint64_t first, uint64_t count)
{
    return "blocks " + std::to_string(first) + " to " + std::to_string(first + count - 1);
}

constexpr size_t typeAndSequence = 8; // what all records after the header start with

} // namespace

StreamReader::StreamReader(ByteSource &source) : source_(source), seen_(0)
{
    read(bytesOf(header_), "header");
    checkHeader();
    recordsChecksum_ = crc32c(&header_, sizeof header_);
    seen_ = BlockSet(header_.numBlocks);
}

void StreamReader::refuse(uint64_t position, const std::string &what)
{
    throw Error(ExitCode::corrupt,
                "stream refused at byte " + std::to_string(position) + ": " + what);
}

void StreamReader::read(std::span<std::byte> buffer, const std::string &what)
{
    size_t done = 0;
    while (done < buffer.size()) {
        size_t n = source_.read(buffer.subspan(done));
        if (n == 0)
            refuse(position_, position_ == 0 ? "it is empty" : "cut in the " + what);
        done += n;
        position_ += n;
    }
}

void StreamReader::checkHeader() const
{
    if (std::memcmp(header_.magic, streamMagic, sizeof streamMagic) != 0)
        refuse(0, "this is no backup stream");
    if (header_.version != streamVersion)
        refuse(offsetof(HeaderRecord, version),
               "version " + std::to_string(header_.version) + " is not known");
    if (header_.headerBytes != sizeof header_)
        refuse(offsetof(HeaderRecord, headerBytes), "wrong header size");
    if (!intact(header_))
        refuse(0, "header damaged (checksum differs)");

    bool full = header_.kind == StreamKind::Full;
    if (!full && header_.kind != StreamKind::Incremental)
        refuse(offsetof(HeaderRecord, kind), "unknown kind of backup");
    uint32_t blockSize = header_.blockSize;
    if (blockSize != 512 && blockSize != 1024 && blockSize != 2048 && blockSize != 4096)
        refuse(offsetof(HeaderRecord, blockSize),
               "block size " + std::to_string(blockSize) + " is not possible");
    if (header_.numBlocks == 0)
        refuse(offsetof(HeaderRecord, numBlocks), "a device without blocks");
    if (header_.sentBlocks > header_.numBlocks || (full && header_.sentBlocks < header_.numBlocks))
        refuse(offsetof(HeaderRecord, sentBlocks), std::to_string(header_.sentBlocks) + " of " +
                                                       std::to_string(header_.numBlocks) +
                                                       " blocks is not possible");
    if (header_.snapshotNanoseconds >= 1000000000)
        refuse(offsetof(HeaderRecord, snapshotNanoseconds), "time out of range");
    if (header_.id == StreamId{})
        refuse(offsetof(HeaderRecord, id), "stream without an id");
    bool hasParent = header_.parent != StreamId{};
    if (hasParent == full || header_.parent == header_.id)
        refuse(offsetof(HeaderRecord, parent), "the parent does not go with the kind of backup");
    if (header_.reserved != 0 || header_.reserved2 != 0)
        refuse(offsetof(HeaderRecord, reserved), "reserved members in use");
    if (!isText(header_.hostName) || !isText(header_.device) || !isText(header_.reason))
        refuse(offsetof(HeaderRecord, hostName), "malformed text");
}

std::optional<StreamExtent> StreamReader::next()
{
    // The three records differ in size; an extent is the shortest.
    alignas(8) std::byte record[sizeof(AbortRecord)];
    std::span<std::byte> bytes(record);
    std::string number = "record " + std::to_string(sequence_);
    uint64_t start = position_;
    read(bytes.first(typeAndSequence), number + " after the header");

    RecordType type;
    std::memcpy(&type, record, sizeof type);
    switch (type) {
    case RecordType::Extent:
        return readExtent(bytes.first(sizeof(ExtentRecord)));
    case RecordType::End:
        readEnd(bytes.first(sizeof(EndRecord)));
        return std::nullopt;
    case RecordType::Abort:
        readAbort(bytes.first(sizeof(AbortRecord)));
    }
    refuse(start, number + " after the header is damaged (unknown type)");
}

StreamExtent StreamReader::readExtent(std::span<std::byte> record)
{
    uint64_t start = position_ - typeAndSequence;
    std::string name = "extent " + std::to_string(sequence_);
    read(record.subspan(typeAndSequence), name);
    ExtentRecord extent;
    std::memcpy(&extent, record.data(), sizeof extent);
    if (!intact(extent))
        refuse(start, name + " damaged (checksum differs)");
    if (extent.sequence != sequence_)
        refuse(start, name + " is missing, " + std::to_string(extent.sequence) + " came instead");
    if (extent.blockCount == 0 ||
        uint64_t{extent.firstBlock} + extent.blockCount > header_.numBlocks)
        refuse(start, name + " lies outside the device");
    if (extent.content > Content::Doubtful)
        refuse(start, name + " has an unknown content");
    bool isData = extent.content == Content::Data;
    uint64_t due = isData ? uint64_t{extent.blockCount} * header_.blockSize : 0;
    if (extent.payloadBytes != due || due > maxPayloadBytes ||
        (!isData && extent.payloadChecksum != 0))
        refuse(start, name + " has a wrong length");
    std::string blocks = blocksName(extent.firstBlock, extent.blockCount);
    if (!seen_.insert(extent.firstBlock, extent.blockCount))
        refuse(start, name + " repeats some of the " + blocks);
    blocksSeen_ += extent.blockCount;
    if (blocksSeen_ > header_.sentBlocks)
        refuse(start, name + " brings more blocks than were announced");

    payload_.resize(extent.payloadBytes);
    read(payload_, "contents of extent " + std::to_string(sequence_) + ", " + blocks);
    if (isData && crc32c(payload_.data(), payload_.size()) != extent.payloadChecksum)
        refuse(start + sizeof extent, "contents of " + blocks + " damaged (checksum differs)");

    contentBlocks_[static_cast<size_t>(extent.content)] += extent.blockCount;
    payloadBytes_ += extent.payloadBytes;
    recordsChecksum_ = crc32c(&extent, sizeof extent, recordsChecksum_);
    sequence_++;
    return {extent.firstBlock, extent.blockCount, extent.content, payload_};
}

void StreamReader::readEnd(std::span<std::byte> record)
{
    uint64_t start = position_ - typeAndSequence;
    read(record.subspan(typeAndSequence), "end record");
    std::memcpy(&end_, record.data(), sizeof end_);
    if (!intact(end_))
        refuse(start, "end record damaged (checksum differs)");
    auto blocksOf = [this](Content content) {
        return contentBlocks_[static_cast<size_t>(content)];
    };
    if (end_.sequence != sequence_ || end_.dataBlocks != blocksOf(Content::Data) ||
        end_.zeroBlocks != blocksOf(Content::Zero) ||
        end_.unreadableBlocks != blocksOf(Content::Unreadable) ||
        end_.doubtfulBlocks != blocksOf(Content::Doubtful) || end_.payloadBytes != payloadBytes_ ||
        end_.streamBytes != position_ || end_.streamChecksum != recordsChecksum_)
        refuse(start, "the totals do not match what came");
    if (blocksSeen_ != header_.sentBlocks)
        refuse(start, std::to_string(blocksSeen_) + " blocks came, " +
                          std::to_string(header_.sentBlocks) + " were announced");
    checkNothingFollows();
}

void StreamReader::readAbort(std::span<std::byte> record)
{
    uint64_t start = position_ - typeAndSequence;
    read(record.subspan(typeAndSequence), "abort record");
    AbortRecord abort;
    std::memcpy(&abort, record.data(), sizeof abort);
    if (!intact(abort))
        refuse(start, "abort record damaged (checksum differs)");
    if (abort.sequence != sequence_ || !isText(abort.reason))
        refuse(start, "malformed abort record");
    checkNothingFollows();
    throw Error(ExitCode::fellShort, std::string("the sender gave up: ") + abort.reason);
}

void StreamReader::checkNothingFollows()
{
    std::byte extra;
    if (source_.read(std::span(&extra, 1)) != 0)
        refuse(position_, "something follows the last record");
}

std::string toText(const StreamId &id)
{
    std::string text;
    for (uint8_t byte : id.bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

std::optional<StreamId> streamIdFrom(const std::string &text)
{
    StreamId id = {};
    if (text.size() != 2 * sizeof id.bytes)
        return std::nullopt;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (digit < 0)
            return std::nullopt;
        id.bytes[i / 2] = static_cast<uint8_t>(id.bytes[i / 2] << 4 | digit);
    }
    return id;
}

} // namespace zel
