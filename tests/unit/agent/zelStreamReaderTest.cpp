/* What the stream reader accepts, and that it refuses everything else. */
#include "error.h"
#include "streamReader.h"
#include "support/streamBuilder.h"

#include <cstring>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace test;
using namespace zel;

namespace
{

// Reads all of a stream; the message it is refused with, or "".
std::string refusal(const Bytes &stream)
{
    try {
        MemorySource source(stream);
        StreamReader reader(source);
        while (reader.next()) {
        }
        return "";
    } catch (const Error &e) {
        return e.what();
    }
}

StreamBuilder smallBuilder()
{
    Image image(16, 512, 1);
    StreamBuilder builder(16, 512, streamId(1));
    builder.data(4, image.blocks(4, 2)).data(0, image.blocks(0, 4));
    builder.empty(6, 5, Content::Zero).empty(11, 1, Content::Unreadable);
    builder.empty(12, 1, Content::Doubtful).data(13, image.blocks(13, 3));
    return builder;
}

// The refusal of the small stream after `change` was made to its header, checksum right.
std::string refusalOfHeader(const std::function<void(HeaderRecord &)> &change)
{
    StreamBuilder builder = smallBuilder();
    change(builder.header);
    return refusal(builder.bytes());
}

// The refusal of a stream of one extent, checksum right.
std::string refusalOfExtent(const ExtentRecord &record, const Bytes &payload = {})
{
    StreamBuilder builder(16, 512, streamId(1), streamId(2));
    builder.extent(record, payload);
    builder.header.sentBlocks = std::min<uint32_t>(record.blockCount, 16);
    return refusal(builder.bytes());
}

// The refusal of the small stream with a changed end record, checksum right.
std::string refusalOfEnd(const std::function<void(EndRecord &)> &change)
{
    StreamBuilder builder = smallBuilder();
    EndRecord end = builder.endRecord();
    change(end);
    seal(end);
    Bytes stream = builder.unfinished();
    append(stream, end);
    return refusal(stream);
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

#define EXPECT_SAYS(text, part)                                                                    \
    do {                                                                                           \
        std::string said = text;                                                                   \
        EXPECT_TRUE(contains(said, part)) << "said: " << said;                                     \
    } while (0)

TEST(ZelStreamReader, givesTheExtentsAsTheyWereSent)
{
    Bytes stream = smallBuilder().bytes();
    MemorySource source(stream);
    StreamReader reader(source);
    EXPECT_STREQ(reader.header().device, "/dev/sda1");

    Image image(16, 512, 1);
    auto first = reader.next();
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->first, 4u);
    EXPECT_EQ(first->count, 2u);
    EXPECT_TRUE(std::equal(first->payload.begin(), first->payload.end(), image.blocks(4, 2).begin(),
                           image.blocks(4, 2).end()));
    std::vector<Content> contents;
    while (auto extent = reader.next())
        contents.push_back(extent->content);
    EXPECT_EQ(contents, (std::vector<Content>{Content::Data, Content::Zero, Content::Unreadable,
                                              Content::Doubtful, Content::Data}));
    EXPECT_EQ(reader.blocksSeen(), 16u);
    EXPECT_EQ(reader.end().dataBlocks, 9u);
    EXPECT_EQ(reader.position(), stream.size());
}

TEST(ZelStreamReader, acceptsAnIncrementalWithoutExtents)
{
    EXPECT_EQ(refusal(StreamBuilder(16, 512, streamId(1), streamId(2)).bytes()), "");
}

TEST(ZelStreamReader, refusesAStreamThatIsCutAtAnyByte)
{
    Bytes stream = smallBuilder().bytes();
    EXPECT_SAYS(refusal({}), "it is empty");
    for (size_t length = 1; length < stream.size(); length++) {
        std::string said = refusal(Bytes(stream.begin(), stream.begin() + length));
        ASSERT_TRUE(contains(said, "byte " + std::to_string(length) + ": cut in the "))
            << length << ": " << said;
    }
}

TEST(ZelStreamReader, refusesAStreamWithAnyBitFlipped)
{
    Bytes stream = smallBuilder().bytes();
    for (size_t at = 0; at < stream.size(); at++) {
        for (int bit = 0; bit < 8; bit++) {
            stream[at] ^= static_cast<std::byte>(1 << bit);
            ASSERT_TRUE(contains(refusal(stream), "stream refused at byte ")) << at << " " << bit;
            stream[at] ^= static_cast<std::byte>(1 << bit);
        }
    }
    EXPECT_EQ(refusal(stream), "");
}

TEST(ZelStreamReader, refusesWhatFollowsTheTrailer)
{
    Bytes stream = smallBuilder().bytes();
    size_t length = stream.size();
    stream.push_back(std::byte{0});
    EXPECT_SAYS(refusal(stream),
                "byte " + std::to_string(length) + ": something follows the last record");
}

TEST(ZelStreamReader, refusesExchangedExtents)
{
    Image image(16, 512, 1);
    auto stream = [&](bool exchanged) {
        StreamBuilder builder(16, 512, streamId(1));
        builder.data(0, image.blocks(0, 8)).data(8, image.blocks(8, 8));
        Bytes bytes = builder.bytes();
        auto extents = bytes.begin() + sizeof(HeaderRecord);
        size_t size = sizeof(ExtentRecord) + 8 * 512;
        if (exchanged)
            std::swap_ranges(extents, extents + size, extents + size);
        return bytes;
    };
    EXPECT_EQ(refusal(stream(false)), "");
    EXPECT_SAYS(refusal(stream(true)), "extent 0 is missing, 1 came instead");
}

TEST(ZelStreamReader, refusesAnAbortedStreamWithTheSendersReason)
{
    try {
        Bytes stream = smallBuilder().aborted("the cache of the module is full");
        MemorySource source(stream);
        StreamReader reader(source);
        while (reader.next()) {
        }
        FAIL() << "accepted";
    } catch (const Error &e) {
        EXPECT_STREQ(e.what(), "the sender gave up: the cache of the module is full");
        EXPECT_EQ(e.exitCode, ExitCode::fellShort);
    }
}

TEST(ZelStreamReader, refusesImpossibleHeaders)
{
    EXPECT_EQ(refusalOfHeader([](HeaderRecord &) {}), "");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.magic[0] = 'z'; }), "no backup stream");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.version = 2; }), "version 2");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.headerBytes++; }), "header size");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.kind = StreamKind{2}; }), "unknown kind");
    for (uint32_t size : {0u, 1u, 256u, 513u, 1536u, 8192u, 0x80000000u})
        EXPECT_SAYS(refusalOfHeader([=](HeaderRecord &h) { h.blockSize = size; }), "block size");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.numBlocks = h.sentBlocks = 0; }),
                "without blocks");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.sentBlocks++; }), "17 of 16 blocks");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.sentBlocks--; }), "15 of 16 blocks");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.snapshotNanoseconds = 1000000000; }),
                "time");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.id = {}; }), "without an id");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.parent = streamId(3); }), "parent");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.kind = StreamKind::Incremental; }),
                "parent");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) {
                    h.kind = StreamKind::Incremental;
                    h.parent = h.id;
                }),
                "parent");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.reserved = 1; }), "reserved");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.reserved2 = 1; }), "reserved");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.hostName[0] = '\n'; }), "text");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { h.device[100] = 'x'; }), "text");
    EXPECT_SAYS(refusalOfHeader([](HeaderRecord &h) { std::memset(h.reason, 'x', 128); }), "text");
}

TEST(ZelStreamReader, refusesImpossibleExtents)
{
    Bytes block(512, std::byte{1});
    EXPECT_EQ(refusalOfExtent(extentRecord(15, 1, Content::Data, 512), block), "");
    EXPECT_SAYS(refusalOfExtent(extentRecord(16, 1, Content::Data, 512), block),
                "outside the device");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 17, Content::Zero, 0)), "outside the device");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 0, Content::Zero, 0)), "outside the device");
    EXPECT_SAYS(refusalOfExtent(extentRecord(8, 0xfffffff9, Content::Zero, 0)),
                "outside the device");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 1, Content{4}, 0)), "unknown content");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 1, Content::Data, 0)), "wrong length");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 2, Content::Data, 512), block), "wrong length");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 1, Content::Zero, 512), block), "wrong length");
    EXPECT_SAYS(refusalOfExtent(extentRecord(0, 1, Content::Data, 0xffffffff)), "wrong length");
}

TEST(ZelStreamReader, refusesABlockThatComesTwice)
{
    StreamBuilder builder(16, 512, streamId(1), streamId(2));
    builder.empty(3, 4, Content::Zero).empty(8, 1, Content::Zero).empty(6, 1, Content::Zero);
    EXPECT_SAYS(refusal(builder.bytes()), "extent 2 repeats some of the blocks 6 to 6");
}

TEST(ZelStreamReader, refusesMoreOrFewerBlocksThanAnnounced)
{
    StreamBuilder builder(16, 512, streamId(1), streamId(2));
    builder.empty(3, 4, Content::Zero);
    builder.header.sentBlocks = 3;
    EXPECT_SAYS(refusal(builder.bytes()), "more blocks than were announced");
    builder.header.sentBlocks = 5;
    EXPECT_SAYS(refusal(builder.bytes()), "4 blocks came, 5 were announced");
}

TEST(ZelStreamReader, refusesTotalsThatDoNotMatch)
{
    const char mismatch[] = "the totals do not match what came";
    EXPECT_EQ(refusalOfEnd([](EndRecord &) {}), "");
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.sequence--; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.dataBlocks++; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.zeroBlocks++; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.unreadableBlocks--; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.doubtfulBlocks--; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.payloadBytes++; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.streamBytes++; }), mismatch);
    EXPECT_SAYS(refusalOfEnd([](EndRecord &e) { e.streamChecksum++; }), mismatch);
}

// Lengths that a stream makes up must not be believed before anything is there to fill them.
TEST(ZelStreamReader, takesLittleMemoryWhateverTheStreamSays)
{
    std::vector<Bytes> streams;
    StreamBuilder huge(0xffffffff, 4096, streamId(1), streamId(2));
    huge.empty(7, 0xfffffff0, Content::Zero);
    streams.push_back(huge.bytes());
    StreamBuilder longExtent(0xffffffff, 4096, streamId(1), streamId(2));
    longExtent.extent(extentRecord(0, 0xfffff, Content::Data, 0xfffff000), {});
    streams.push_back(longExtent.bytes());

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        unsigned long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlim_t limit = pages * 4096 + (rlim_t{32} << 20);
        rlimit memory = {limit, limit};
        if (setrlimit(RLIMIT_AS, &memory) != 0)
            _exit(10);
        bool right = refusal(streams[0]).empty() && contains(refusal(streams[1]), "wrong length");
        _exit(right ? 0 : 11);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(ZelStreamId, isWrittenAsHexadecimalDigitsAndReadBack)
{
    StreamId id = streamId(0xa5);
    id.bytes[0] = 0x01;
    EXPECT_EQ(toText(id), "01a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5");
    EXPECT_EQ(streamIdFrom(toText(id)), id);
    EXPECT_FALSE(streamIdFrom("01a5").has_value());
    EXPECT_FALSE(streamIdFrom("01a5a5a5a5a5a5a5a5a5a5a5a5a5a5aG").has_value());
}
