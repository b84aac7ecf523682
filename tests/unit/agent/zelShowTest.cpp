/* The commands that only look: list, last and diff; and the command line itself. */
#include "support/zelRunner.h"

#include <nlohmann/json.hpp>

using namespace test;
using zel::Content;
namespace fs = std::filesystem;

namespace
{

using Json = nlohmann::json;

class ZelShow : public ZelTest
{
protected:
    ZelShow() : image(16, 512, 1) {}

    // Two points on each other, the second with blocks 3 to 5 and 9 new.
    void receiveTwo()
    {
        ASSERT_EQ(receive(fullStream(image, streamId(1)), "base").code, 0);
        StreamBuilder next(16, 512, streamId(2), streamId(1));
        image.fill(3, 3, 2);
        image.clear(9, 1);
        next.data(3, image.blocks(3, 3)).empty(9, 1, Content::Zero);
        ASSERT_EQ(receive(next.bytes(), "second").code, 0);
    }
    void receiveOf(const std::string &host, const std::string &device, uint8_t id)
    {
        StreamBuilder builder(16, 512, streamId(id));
        builder.data(0, image.bytes());
        setText(builder.header.hostName, host);
        setText(builder.header.device, device);
        builder.header.minor = id;
        ASSERT_EQ(receive(builder.bytes(), "point" + std::to_string(id)).code, 0);
    }
    Answer diff(const std::string &a, const std::string &b) const
    {
        return zel({"diff", repository, a, b});
    }
    Answer last(const std::string &device) const { return zel({"last", repository, device}); }

    Image image;
};

std::vector<Json> jsonLines(const std::string &text)
{
    std::vector<Json> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(Json::parse(line));
    return lines;
}

} // namespace

TEST_F(ZelShow, listsThePointsInTheOrderTheyCame)
{
    receiveTwo();
    Answer answer = zel({"list", repository});
    EXPECT_EQ(answer.code, 0);
    std::istringstream lines(answer.out);
    std::string title, base, second, rest;
    std::getline(lines, title);
    std::getline(lines, base);
    std::getline(lines, second);
    EXPECT_EQ(title.rfind("POINT   KIND         DEVICE               CHANGED  STORED", 0), 0u);
    EXPECT_EQ(base.rfind("base    full         oldserver:/dev/sda1  16/16 ", 0), 0u) << base;
    EXPECT_NE(base.find("2026-11-21T08:46:23Z  -       complete"), std::string::npos) << base;
    EXPECT_EQ(second.rfind("second  incremental  oldserver:/dev/sda1  4/16 ", 0), 0u) << second;
    EXPECT_NE(second.find("base    complete"), std::string::npos) << second;
    EXPECT_FALSE(std::getline(lines, rest)) << rest;
}

TEST_F(ZelShow, listsBrokenChainsAndDamagedPointsAndExitsWith2)
{
    receiveTwo();
    fs::rename(repository / "base" / "data", directory / "data");
    Answer answer = zel({"list", repository});
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.out.find("BROKEN"), std::string::npos) << answer.out;

    fs::remove(repository / "base" / "point.json");
    answer = zel({"list", repository});
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.out.find("base: cannot open"), std::string::npos) << answer.out;
    EXPECT_NE(answer.out.find("01010101010101010101010101010101"), std::string::npos);
}

TEST_F(ZelShow, listsAsJson)
{
    receiveTwo();
    std::vector<Json> points = jsonLines(zel({"list", "--json", repository}).out);
    ASSERT_EQ(points.size(), 2u);
    EXPECT_EQ(points[0]["name"], "base");
    EXPECT_EQ(points[0]["kind"], "full");
    EXPECT_TRUE(points[0]["parent"].is_null());
    EXPECT_EQ(points[1]["kind"], "incremental");
    EXPECT_EQ(points[1]["parent"], points[0]["id"]);
    EXPECT_EQ(points[1]["changedBlocks"], 4);
    EXPECT_EQ(points[1]["numBlocks"], 16);
    EXPECT_EQ(points[1]["complete"], true);
    EXPECT_EQ(points[1]["time"], "2026-11-21T08:46:23Z");

    fs::remove_all(repository / "base");
    Answer answer = zel({"list", "--json", repository});
    EXPECT_EQ(answer.code, 2);
    points = jsonLines(answer.out);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(points[0]["complete"], false);
    EXPECT_NE(points[0]["problem"].get<std::string>().find("not in the repository"),
              std::string::npos);
}

TEST_F(ZelShow, namesTheNewestCompletePointOfADevice)
{
    receiveTwo();
    for (const char *device : {"/dev/sda1", "oldserver:/dev/sda1", "8:1"}) {
        Answer answer = last(device);
        EXPECT_EQ(answer.code, 0) << device;
        EXPECT_EQ(answer.out, "02020202020202020202020202020202\n") << device;
    }
    // A point whose chain is broken is no parent.
    StreamBuilder next(16, 512, streamId(3), streamId(2));
    next.data(0, image.blocks(0, 1));
    ASSERT_EQ(receive(next.bytes(), "third").code, 0);
    fs::remove(repository / "second" / "data");
    EXPECT_EQ(last("/dev/sda1").out, "01010101010101010101010101010101\n");
    fs::remove(repository / "base" / "data");
    Answer answer = last("/dev/sda1");
    EXPECT_EQ(answer.code, 1);
    EXPECT_EQ(answer.out, "");
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
}

TEST_F(ZelShow, asksForTheHostWhenSeveralHaveTheDevice)
{
    receiveOf("east", "/dev/sda1", 1);
    receiveOf("west", "/dev/sda1", 2);
    Answer answer = last("/dev/sda1");
    EXPECT_EQ(answer.code, 1);
    EXPECT_NE(answer.err.find("HOST:/dev/sda1"), std::string::npos) << answer.err;
    EXPECT_EQ(last("east:/dev/sda1").out, "01010101010101010101010101010101\n");
    EXPECT_EQ(last("west:/dev/sda1").out, "02020202020202020202020202020202\n");
    EXPECT_EQ(last("/dev/sdb1").code, 1);
}

TEST_F(ZelShow, findsNoDifferenceWhereThereIsNone)
{
    receiveTwo();
    Answer answer = diff("second", "second");
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out, "0 of 16 blocks differ\n");
}

TEST_F(ZelShow, showsTheBlocksThatDifferAsRanges)
{
    receiveTwo();
    for (auto [a, b] : {std::pair("base", "second"), std::pair("second", "base")}) {
        Answer answer = diff(a, b);
        EXPECT_EQ(answer.code, 2);
        EXPECT_EQ(answer.out, "3-5\n9\n4 of 16 blocks differ\n");
    }
}

TEST_F(ZelShow, comparesContentsAndNotHowTheyCame)
{
    image.clear(6, 4);
    ASSERT_EQ(receive(fullStream(image, streamId(1)), "base").code, 0);
    // The same device in other pieces, the zeros sent as data.
    StreamBuilder builder(16, 512, streamId(2));
    builder.data(8, image.blocks(8, 8)).data(0, image.blocks(0, 3)).data(3, image.blocks(3, 5));
    ASSERT_EQ(receive(builder.bytes(), "again").code, 0);
    EXPECT_EQ(diff("base", "again").code, 0);

    image.fill(7, 1, 3);
    ASSERT_EQ(receive(fullStream(image, streamId(3)), "third").code, 0);
    EXPECT_EQ(diff("base", "third").out, "7\n1 of 16 blocks differ\n");
    EXPECT_EQ(diff("third", "again").out, "7\n1 of 16 blocks differ\n");
}

TEST_F(ZelShow, takesUnreadableBlocksAsDifferentUnlessFromTheSamePoint)
{
    image.clear(4, 2);
    ASSERT_EQ(receive(fullStream(image, streamId(1)), "base").code, 0);
    StreamBuilder next(16, 512, streamId(2), streamId(1));
    next.empty(4, 2, Content::Unreadable);
    ASSERT_EQ(receive(next.bytes(), "second").code, 3);
    StreamBuilder third(16, 512, streamId(3), streamId(2));
    third.empty(0, 1, Content::Zero);
    ASSERT_EQ(receive(third.bytes(), "third").code, 0);
    EXPECT_EQ(diff("base", "second").out, "4-5\n2 of 16 blocks differ\n");
    EXPECT_EQ(diff("second", "third").out, "0\n1 of 16 blocks differ\n");
}

TEST_F(ZelShow, refusesToCompareDevicesOfDifferentGeometry)
{
    ASSERT_EQ(receive(fullStream(image, streamId(1)), "base").code, 0);
    ASSERT_EQ(receive(fullStream(Image(17, 512, 1), streamId(2)), "other").code, 0);
    Answer answer = diff("base", "other");
    EXPECT_EQ(answer.code, 1);
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
    EXPECT_EQ(diff("base", "nothing").code, 1);
}

TEST_F(ZelShow, comparesAsJson)
{
    receiveTwo();
    std::vector<Json> lines = jsonLines(zel({"--json", "diff", repository, "base", "second"}).out);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], Json::parse(R"({"event":"extent","first":3,"count":3})"));
    EXPECT_EQ(lines[2]["differingBlocks"], 4);
}

TEST_F(ZelShow, refusesBadArgumentsWithOneLine)
{
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"nothing"},
                                               {"receive"},
                                               {"list"},
                                               {"list", "a", "b"},
                                               {"restore", "a"},
                                               {"diff", "a", "b"},
                                               {"last", "a"},
                                               {"verify", "a", "b", "--all"},
                                               {"list", "a", "--nonsense"},
                                               {"list", directory},
                                               {"list", directory / "nothing"},
                                               {"verify", directory}}) {
        Answer answer = zel(arguments);
        std::string shown = ::testing::PrintToString(arguments);
        EXPECT_EQ(answer.code, 1) << shown;
        EXPECT_TRUE(isOneLine(answer.err)) << shown << answer.err;
        EXPECT_EQ(answer.out, "") << shown;

        std::vector<std::string> asJson = arguments;
        asJson.push_back("--json");
        answer = zel(asJson);
        EXPECT_EQ(answer.code, 1) << shown;
        std::vector<Json> lines = jsonLines(answer.err);
        ASSERT_EQ(lines.size(), 1u) << shown;
        EXPECT_EQ(lines[0]["event"], "error") << shown;
        EXPECT_EQ(lines[0]["exitCode"], 1) << shown;
    }
}

TEST_F(ZelShow, explainsItself)
{
    Answer answer = zel({"--help"});
    EXPECT_EQ(answer.code, 0);
    for (const char *command : {"receive", "list", "verify", "restore", "diff", "last"})
        EXPECT_NE(answer.out.find(command), std::string::npos) << command;
    answer = zel({"--version"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(isOneLine(answer.out)) << answer.out;
    EXPECT_NE(zel({"restore", "--help"}).out.find("--force"), std::string::npos);
}
