#include "streamBuilder.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace test
{

using namespace zel;

StreamId streamId(uint8_t number)
{
    StreamId id;
    std::memset(id.bytes, number, sizeof id.bytes);
    return id;
}

ExtentRecord extentRecord(uint32_t first, uint32_t count, Content content, uint32_t payloadBytes)
{
    ExtentRecord record = {};
    record.type = RecordType::Extent;
    record.firstBlock = first;
    record.blockCount = count;
    record.content = content;
    record.payloadBytes = payloadBytes;
    return record;
}

Image::Image(uint32_t numBlocks, uint32_t blockSize, uint32_t seed)
    : blockSize_(blockSize), bytes_(size_t{numBlocks} * blockSize)
{
    fill(0, numBlocks, seed);
}

std::span<const std::byte> Image::blocks(uint32_t first, uint32_t count) const
{
    return std::span(bytes_).subspan(size_t{first} * blockSize_, size_t{count} * blockSize_);
}

void Image::fill(uint32_t first, uint32_t count, uint32_t seed)
{
    std::mt19937 random(seed);
    auto begin = bytes_.begin() + size_t{first} * blockSize_;
    std::generate_n(begin, size_t{count} * blockSize_,
                    [&] { return static_cast<std::byte>(random() % 255 + 1); });
}

void Image::clear(uint32_t first, uint32_t count)
{
    std::fill_n(bytes_.begin() + size_t{first} * blockSize_, size_t{count} * blockSize_,
                std::byte{0});
}

StreamBuilder::StreamBuilder(uint32_t numBlocks, uint32_t blockSize, StreamId id, StreamId parent)
{
    std::memcpy(header.magic, streamMagic, sizeof streamMagic);
    header.version = streamVersion;
    header.headerBytes = sizeof header;
    header.kind = parent == StreamId{} ? StreamKind::Full : StreamKind::Incremental;
    header.blockSize = blockSize;
    header.numBlocks = numBlocks;
    header.partitionSizeKb = (uint64_t{numBlocks} * blockSize + 1023) / 1024;
    header.snapshotSeconds = 1795250783; // 2026-11-21
    header.major = 8;
    header.minor = 1;
    header.id = id;
    header.parent = parent;
    setText(header.hostName, "oldserver");
    setText(header.device, "/dev/sda1");
}

StreamBuilder &StreamBuilder::data(uint32_t first, std::span<const std::byte> blocks)
{
    auto bytes = static_cast<uint32_t>(blocks.size());
    return extent(extentRecord(first, bytes / header.blockSize, Content::Data, bytes), blocks);
}

StreamBuilder &StreamBuilder::empty(uint32_t first, uint32_t count, Content content)
{
    return extent(extentRecord(first, count, content, 0), {});
}

StreamBuilder &StreamBuilder::extent(ExtentRecord record, std::span<const std::byte> payload)
{
    record.sequence = count_++;
    record.payloadChecksum = payload.empty() ? 0 : crc32c(payload.data(), payload.size());
    seal(record);
    append(records_, record);
    append(extents_, record);
    extents_.insert(extents_.end(), payload.begin(), payload.end());
    header.sentBlocks += record.blockCount;
    payloadBytes_ += payload.size();
    if (static_cast<uint32_t>(record.content) < 4)
        contentBlocks_[static_cast<uint32_t>(record.content)] += record.blockCount;
    return *this;
}

HeaderRecord StreamBuilder::sealedHeader() const
{
    HeaderRecord sealed = header;
    seal(sealed);
    return sealed;
}

Bytes StreamBuilder::unfinished() const
{
    Bytes stream;
    append(stream, sealedHeader());
    stream.insert(stream.end(), extents_.begin(), extents_.end());
    return stream;
}

EndRecord StreamBuilder::endRecord() const
{
    HeaderRecord sealed = sealedHeader();
    return {.type = RecordType::End,
            .sequence = count_,
            .dataBlocks = contentBlocks_[0],
            .zeroBlocks = contentBlocks_[1],
            .unreadableBlocks = contentBlocks_[2],
            .doubtfulBlocks = contentBlocks_[3],
            .payloadBytes = payloadBytes_,
            .streamBytes = sizeof sealed + extents_.size() + sizeof(EndRecord),
            .streamChecksum =
                crc32c(records_.data(), records_.size(), crc32c(&sealed, sizeof sealed)),
            .checksum = 0};
}

Bytes StreamBuilder::bytes() const
{
    Bytes stream = unfinished();
    EndRecord end = endRecord();
    seal(end);
    append(stream, end);
    return stream;
}

Bytes StreamBuilder::aborted(const std::string &reason) const
{
    Bytes stream = unfinished();
    AbortRecord abort = {};
    abort.type = RecordType::Abort;
    abort.sequence = count_;
    abort.exitCode = 3;
    setText(abort.reason, reason);
    seal(abort);
    append(stream, abort);
    return stream;
}

Bytes fullStream(const Image &image, StreamId id, uint32_t perExtent)
{
    StreamBuilder builder(image.numBlocks(), image.blockSize(), id);
    auto isZero = [&](uint32_t block) {
        auto bytes = image.blocks(block, 1);
        return std::all_of(bytes.begin(), bytes.end(),
                           [](std::byte b) { return b == std::byte{}; });
    };
    for (uint32_t first = 0; first < image.numBlocks();) {
        uint32_t count = 1;
        bool zero = isZero(first);
        while (count < perExtent && first + count < image.numBlocks() &&
               isZero(first + count) == zero)
            count++;
        if (zero)
            builder.empty(first, count, Content::Zero);
        else
            builder.data(first, image.blocks(first, count));
        first += count;
    }
    return builder.bytes();
}

} // namespace test
