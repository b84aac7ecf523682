/* Random damage to valid streams: every one is refused, none brings the reader down. The seed is
 * fixed, so that a failure repeats. */
#include "error.h"
#include "streamReader.h"
#include "support/streamBuilder.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <set>

using namespace test;
using namespace zel;

namespace
{

constexpr int mutations = 10000;

// Throws Error if the stream is refused. An accepted one has kept what every stream promises.
void readAll(const Bytes &stream)
{
    MemorySource source(stream);
    StreamReader reader(source);
    std::set<uint64_t> blocks;
    while (auto extent = reader.next()) {
        for (uint64_t i = 0; i < std::min<uint64_t>(extent->count, 1000); i++) {
            if (!blocks.insert(uint64_t{extent->first} + i).second)
                throw std::logic_error("a block twice");
        }
        size_t bytes = size_t{extent->count} * reader.header().blockSize;
        if (extent->payload.size() != (extent->content == Content::Data ? bytes : 0))
            throw std::logic_error("a payload of a wrong size");
        if (uint64_t{extent->first} + extent->count > reader.header().numBlocks)
            throw std::logic_error("outside the device");
    }
    if (reader.blocksSeen() != reader.header().sentBlocks)
        throw std::logic_error("blocks missing");
}

bool isAccepted(const Bytes &stream)
{
    try {
        readAll(stream);
        return true;
    } catch (const Error &) {
        return false;
    }
}

std::vector<Bytes> validStreams()
{
    Image image(24, 512, 7);
    image.clear(5, 6);
    StreamBuilder incremental(24, 512, streamId(2), streamId(1));
    incremental.data(9, image.blocks(11, 3)).empty(0, 4, Content::Zero);
    incremental.empty(20, 2, Content::Unreadable).empty(22, 1, Content::Doubtful);
    StreamBuilder nothing(24, 512, streamId(3), streamId(2));
    return {fullStream(image, streamId(1)), incremental.bytes(), nothing.bytes(),
            incremental.aborted("no more blocks")};
}

class Mutator
{
public:
    explicit Mutator(uint32_t seed) : random_(seed) {}

    size_t below(size_t limit) { return limit == 0 ? 0 : random_() % limit; }

    void damage(Bytes &bytes)
    {
        size_t from = below(bytes.size());
        size_t count = 1 + below(std::min<size_t>(bytes.size() - from, 64));
        auto begin = bytes.begin() + from;
        switch (below(7)) {
        case 0: // a bit
            *begin ^= static_cast<std::byte>(1 << below(8));
            break;
        case 1: // a few bytes
            std::generate_n(begin, count, [this] { return static_cast<std::byte>(below(256)); });
            break;
        case 2: // bytes lost
            bytes.erase(begin, begin + count);
            break;
        case 3: // bytes repeated
            bytes.insert(begin, count, *begin);
            break;
        case 4: // the end lost
            bytes.resize(from);
            break;
        case 5: // a part read as zeros
            std::fill_n(begin, count, std::byte{0});
            break;
        default: // a part moved
            std::rotate(begin, begin + below(count), begin + count);
        }
    }

private:
    std::mt19937 random_;
};

// Gives the record at `at` its right checksum again, whatever it now says.
template<typename Record> void sealAt(Bytes &bytes, size_t at)
{
    Record record;
    if (at + sizeof record > bytes.size())
        return;
    std::memcpy(&record, bytes.data() + at, sizeof record);
    seal(record);
    std::memcpy(bytes.data() + at, &record, sizeof record);
}

} // namespace

TEST(ZelStreamMutation, noDamagedStreamIsEverAccepted)
{
    std::vector<Bytes> streams = validStreams();
    Mutator mutator(20261121);
    int damaged = 0;
    for (int i = 0; i < mutations; i++) {
        const Bytes &valid = streams[i % streams.size()];
        Bytes stream = valid;
        for (size_t n = 1 + mutator.below(3); n > 0 && !stream.empty(); n--)
            mutator.damage(stream);
        if (stream == valid)
            continue;
        damaged++;
        ASSERT_FALSE(isAccepted(stream)) << "mutation " << i;
    }
    EXPECT_GT(damaged, mutations * 9 / 10);
    EXPECT_TRUE(isAccepted(streams[0]) && isAccepted(streams[1]) && isAccepted(streams[2]));
    EXPECT_FALSE(isAccepted(streams[3]));
}

// With right checksums the reader has to judge the values themselves.
TEST(ZelStreamMutation, noLieWithRightChecksumsLeadsAstray)
{
    std::vector<Bytes> streams = validStreams();
    Mutator mutator(42);
    int refused = 0;
    for (int i = 0; i < mutations; i++) {
        Bytes stream = streams[i % streams.size()];
        bool header = mutator.below(2) == 0;
        size_t start = header ? 0 : sizeof(HeaderRecord);
        size_t size = header ? sizeof(HeaderRecord) : sizeof(ExtentRecord);
        for (size_t n = 1 + mutator.below(4); n > 0; n--) {
            size_t at = start + mutator.below(size - 4) / 4 * 4;
            uint32_t lies[] = {0, 1, 0xff, 0x200, 0x7fffffff, 0x80000000, 0xffffffff};
            std::memcpy(stream.data() + at, &lies[mutator.below(std::size(lies))], 4);
        }
        if (header)
            sealAt<HeaderRecord>(stream, 0);
        else
            sealAt<ExtentRecord>(stream, start);
        bool accepted = true;
        ASSERT_NO_THROW(accepted = isAccepted(stream)) << "mutation " << i;
        refused += accepted ? 0 : 1;
    }
    EXPECT_GT(refused, mutations / 2);
}
