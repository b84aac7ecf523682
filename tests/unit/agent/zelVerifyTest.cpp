/* That `zel verify` finds damage wherever it is. */
#include "error.h"
#include "point.h"
#include "support/zelRunner.h"

using namespace test;
using zel::Content;
namespace fs = std::filesystem;

namespace
{

class ZelVerify : public ZelTest
{
protected:
    ZelVerify() : image(200, 512, 1)
    {
        image.clear(50, 20);
        EXPECT_EQ(receive(fullStream(image, streamId(1), 64), "base").code, 0);
        StreamBuilder next(200, 512, streamId(2), streamId(1));
        image.fill(10, 5, 2);
        next.data(10, image.blocks(10, 5)).empty(0, 3, Content::Zero);
        EXPECT_EQ(receive(next.bytes(), "second").code, 0);
    }
    Answer verify(const std::vector<std::string> &points) const
    {
        std::vector<std::string> arguments = {"verify", repository};
        arguments.insert(arguments.end(), points.begin(), points.end());
        return zel(arguments);
    }
    void flip(const fs::path &file, size_t at, std::byte bits = std::byte{1})
    {
        Bytes bytes = readFile(file);
        bytes[at] ^= bits;
        writeFile(file, bytes);
    }

    Image image;
};

} // namespace

TEST_F(ZelVerify, saysThatSoundPointsAreSound)
{
    for (const std::vector<std::string> &points :
         std::vector<std::vector<std::string>>{{}, {"--all"}, {"second"}}) {
        Answer answer = verify(points);
        EXPECT_EQ(answer.code, 0) << answer.err;
        EXPECT_NE(answer.out.find("base: ok, 200 blocks"), std::string::npos) << answer.out;
        EXPECT_NE(answer.out.find("second: ok, 8 blocks"), std::string::npos) << answer.out;
    }
    Answer answer = verify({"base"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out.find("second"), std::string::npos) << answer.out;
}

TEST_F(ZelVerify, findsAFlippedByteAnywhereInAPointsFiles)
{
    for (const char *name : {"point.json", "index", "data"}) {
        fs::path file = repository / "base" / name;
        size_t size = fs::file_size(file);
        ASSERT_GT(size, 0u);
        size_t step = size / 150 + 1;
        for (size_t at = 0; at < size; at += step) {
            flip(file, at, std::byte{0x04});
            Answer answer = verify({});
            EXPECT_EQ(answer.code, 2) << name << " " << at;
            EXPECT_EQ(answer.out.find("base: ok"), std::string::npos) << name << " " << at;
            ASSERT_NE(answer.out.find("base: " + file.string()), std::string::npos)
                << name << " " << at << ": " << answer.out;
            EXPECT_NE(restore("second", directory / "image").code, 0) << name << " " << at;
            ASSERT_FALSE(fs::exists(directory / "image")) << name << " " << at;
            flip(file, at, std::byte{0x04});
        }
    }
    EXPECT_EQ(verify({}).code, 0);
}

TEST_F(ZelVerify, believesNoMetadataWithABitFlipped)
{
    fs::path file = repository / "base" / "point.json";
    Bytes right = readFile(file);
    EXPECT_NO_THROW(zel::readPoint(repository / "base"));
    for (size_t at = 0; at < right.size(); at++) {
        Bytes wrong = right;
        wrong[at] ^= static_cast<std::byte>(1 << at % 8);
        writeFile(file, wrong);
        ASSERT_THROW(zel::readPoint(repository / "base"), zel::Error) << at;
    }
}

TEST_F(ZelVerify, findsFilesThatAreMissingOrOfAnotherLength)
{
    for (const char *name : {"point.json", "index", "data"}) {
        fs::path file = repository / "base" / name;
        Bytes right = readFile(file);
        Bytes wrong = right;
        wrong.push_back(std::byte{0});
        writeFile(file, wrong);
        EXPECT_EQ(verify({}).code, 2) << name;
        for (size_t length : {size_t{0}, size_t{1}, right.size() / 2, right.size() - 1}) {
            writeFile(file, Bytes(right.begin(), right.begin() + length));
            EXPECT_EQ(verify({}).code, 2) << name << " " << length;
        }
        fs::remove(file);
        EXPECT_EQ(verify({}).code, 2) << name;
        writeFile(file, right);
    }
    EXPECT_EQ(verify({}).code, 0);
}

TEST_F(ZelVerify, checksTheWholeChainOfAPoint)
{
    flip(repository / "base" / "data", 0);
    Answer answer = verify({"second"});
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.out.find("base: "), std::string::npos) << answer.out;
    EXPECT_NE(answer.out.find("second: ok"), std::string::npos) << answer.out;
}

TEST_F(ZelVerify, namesTheBlocksThatAreDamaged)
{
    flip(repository / "second" / "data", 100);
    Answer answer = verify({"second"});
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.out.find("at byte 0: blocks 10 to 14 damaged (checksum differs)"),
              std::string::npos)
        << answer.out;
}

TEST_F(ZelVerify, countsDamagedChunksAfterTheFirstOnes)
{
    StreamBuilder scattered(200, 512, streamId(3), streamId(2));
    for (uint32_t block = 0; block < 60; block += 2)
        scattered.data(block, Image(1, 512, block).bytes());
    ASSERT_EQ(receive(scattered.bytes(), "third").code, 0);
    fs::path data = repository / "third" / "data";
    writeFile(data, Bytes(fs::file_size(data)));
    Answer answer = verify({"third"});
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.out.find("third: 20 more damaged chunks in third"), std::string::npos)
        << answer.out;
}

TEST_F(ZelVerify, findsAChainWithoutItsEnd)
{
    fs::remove_all(repository / "base");
    Answer answer = verify({});
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.out.find("is not in the repository"), std::string::npos) << answer.out;
}

TEST_F(ZelVerify, findsFilesOfOnePointUnderAnother)
{
    for (const char *name : {"index", "data"}) {
        Bytes right = readFile(repository / "base" / name);
        writeFile(repository / "base" / name, readFile(repository / "second" / name));
        EXPECT_EQ(verify({"base"}).code, 2) << name;
        writeFile(repository / "base" / name, right);
    }
}

TEST_F(ZelVerify, answersInJsonWhenAsked)
{
    Answer answer = zel({"verify", "--json", repository, "base"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out.rfind("{\"event\":\"verified\",\"name\":\"base\",\"blocks\":200,", 0), 0u)
        << answer.out;
    flip(repository / "base" / "index", 3);
    answer = zel({"verify", "--json", repository, "base"});
    EXPECT_EQ(answer.code, 2);
    EXPECT_EQ(answer.out.rfind("{\"event\":\"damage\",\"name\":\"base\",\"problem\":", 0), 0u)
        << answer.out;
    EXPECT_TRUE(isOneLine(answer.out));
}
