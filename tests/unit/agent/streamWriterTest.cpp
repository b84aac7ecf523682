#include "agent/streamWriter.h"

#include <gtest/gtest.h>

#include "support/senderRun.h"
#include "support/testStream.h"

using test::MemoryFile;
using test::readStream;
using zel::Content;
using zelsend::ExitCode;
using zelsend::Outcome;
using zelsend::StreamWriter;

namespace
{

constexpr std::uint32_t blockSize = 512;

zel::HeaderRecord header(std::uint32_t sentBlocks)
{
    zel::HeaderRecord header = {};
    header.kind = zel::StreamKind::Incremental;
    header.blockSize = blockSize;
    header.numBlocks = 100;
    header.sentBlocks = sentBlocks;
    header.id.bytes[0] = 7;
    header.parent.bytes[15] = 9;
    zelsend::setText(header.hostName, sizeof(header.hostName), "old\nserver");
    return header;
}

std::string payload(std::uint32_t blocks)
{
    std::string bytes(std::size_t{blocks} * blockSize, 'x');
    bytes[0] = '\0';
    return bytes;
}

// A stream with an extent of each kind.
std::string wholeStream()
{
    MemoryFile file;
    StreamWriter writer(file.descriptor());
    zel::HeaderRecord first = header(10);
    EXPECT_TRUE(writer.begin(&first));
    EXPECT_TRUE(writer.extent(90, 3, Content::Data, payload(3).data()));
    EXPECT_TRUE(writer.extent(0, 4, Content::Zero, nullptr));
    EXPECT_TRUE(writer.extent(99, 1, Content::Unreadable, nullptr));
    EXPECT_TRUE(writer.extent(50, 2, Content::Doubtful, nullptr));
    EXPECT_TRUE(writer.end());
    EXPECT_EQ(writer.totals().streamBytes, file.contents().size());
    return file.contents();
}

bool accepted(const std::string &stream)
{
    try {
        return readStream(stream).end.has_value();
    } catch (const test::BadStream &) {
        return false;
    }
}

} // namespace

TEST(StreamWriter, WritesWhatAReaderTakes)
{
    test::ReadStream read = readStream(wholeStream());
    EXPECT_STREQ(read.header.hostName, "old?server");
    EXPECT_EQ(read.parent(), "00000000000000000000000000000009");
    EXPECT_EQ(read.blocks.size(), 10U);
    EXPECT_EQ(read.blocks.at(90), payload(3).substr(0, blockSize));
    EXPECT_EQ(read.blocks.at(92), payload(3).substr(2 * blockSize));
    EXPECT_EQ(read.blocks.at(3), std::string(blockSize, '\0'));
    EXPECT_EQ(read.unreadable, std::set<std::uint32_t>{99});
    EXPECT_EQ(read.doubtful, (std::set<std::uint32_t>{50, 51}));
    EXPECT_EQ(read.end->dataBlocks, 3U);
    EXPECT_EQ(read.end->payloadBytes, 3U * blockSize);
}

TEST(StreamWriter, AStreamCutAnywhereIsNotAccepted)
{
    std::string stream = wholeStream();
    ASSERT_TRUE(accepted(stream));
    for (std::size_t length = 0; length < stream.size(); length++) {
        ASSERT_FALSE(accepted(stream.substr(0, length))) << length;
    }
    EXPECT_FALSE(accepted(stream + "x"));
}

TEST(StreamWriter, AFlippedBitAnywhereIsFound)
{
    std::string stream = wholeStream();
    for (std::size_t bit = 0; bit < stream.size() * 8; bit++) {
        std::string flipped = stream;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
        ASSERT_FALSE(accepted(flipped)) << "bit " << bit;
    }
}

TEST(StreamWriter, AnExtentLeftOutOrExchangedIsFound)
{
    std::string stream = wholeStream();
    std::size_t zero = sizeof(zel::HeaderRecord) + sizeof(zel::ExtentRecord) + 3 * blockSize;
    std::string left = stream;
    left.erase(zero, sizeof(zel::ExtentRecord));
    EXPECT_FALSE(accepted(left));
    std::string exchanged = left;
    exchanged.insert(zero + sizeof(zel::ExtentRecord),
                     stream.substr(zero, sizeof(zel::ExtentRecord)));
    EXPECT_FALSE(accepted(exchanged));
}

TEST(StreamWriter, AnAbortedStreamSaysWhy)
{
    MemoryFile file;
    StreamWriter writer(file.descriptor());
    zel::HeaderRecord first = header(3);
    ASSERT_TRUE(writer.begin(&first));
    ASSERT_TRUE(writer.extent(1, 2, Content::Zero, nullptr));
    writer.abort(zelsend::failure(ExitCode::FellShort, "the cache is full"));
    test::ReadStream read = readStream(file.contents());
    EXPECT_FALSE(read.end);
    ASSERT_TRUE(read.abort);
    EXPECT_STREQ(read.abort->reason, "the cache is full");
    EXPECT_EQ(read.abort->exitCode, 3U);
}

TEST(StreamWriter, AReaderThatGoesAwayIsAFailureAndTheRestStaysOut)
{
    MemoryFile file;
    test::closeReaderAfter(file.descriptor(), sizeof(zel::HeaderRecord) + 40);
    StreamWriter writer(file.descriptor());
    zel::HeaderRecord first = header(3);
    ASSERT_TRUE(writer.begin(&first));
    Outcome outcome = writer.extent(1, 3, Content::Data, payload(3).data());
    EXPECT_EQ(outcome.code, ExitCode::FellShort);
    EXPECT_STREQ(outcome.text, "the stream could not be written: Broken pipe");
    test::keepReader();
    writer.abort(outcome);
    EXPECT_EQ(file.contents().size(), sizeof(zel::HeaderRecord) + 40);
}

TEST(StreamWriter, TextsFitTheirFieldsAndEndWithZero)
{
    char field[8];
    zelsend::setText(field, sizeof(field), "0123456789");
    EXPECT_STREQ(field, "0123456");
    zelsend::setText(field, sizeof(field), "a\tb\x7f");
    EXPECT_EQ(std::string(field, sizeof(field)), std::string("a?b?\0\0\0\0", 8));
}

TEST(Checksum, IsTheCastagnoliCrc)
{
    EXPECT_EQ(zel::crc32c("123456789", 9), 0xe3069283U);
    EXPECT_EQ(zel::crc32c("", 0), 0U);
    // From RFC 3720: 32 bytes of zeros, of ones, and counting up.
    std::string bytes(32, '\0');
    EXPECT_EQ(zel::crc32c(bytes.data(), 32), 0x8a9136aaU);
    bytes.assign(32, '\xff');
    EXPECT_EQ(zel::crc32c(bytes.data(), 32), 0x62a8ab43U);
    for (std::size_t i = 0; i < 32; i++) {
        bytes[i] = static_cast<char>(i);
    }
    EXPECT_EQ(zel::crc32c(bytes.data(), 32), 0x46dd794eU);
}

TEST(Checksum, GoesOnFromAnyPlace)
{
    std::string text = "the quick brown fox jumps over the lazy dog";
    std::uint32_t whole = zel::crc32c(text.data(), text.size());
    for (std::size_t i = 0; i <= text.size(); i++) {
        std::uint32_t first = zel::crc32c(text.data(), i);
        EXPECT_EQ(zel::crc32c(text.data() + i, text.size() - i, first), whole) << i;
    }
}
