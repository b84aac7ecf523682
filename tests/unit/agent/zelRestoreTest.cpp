/* That `zel restore` gives back the device as it was, and touches nothing else. */
#include "support/zelRunner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace test;
using zel::Content;
namespace fs = std::filesystem;

namespace
{

class ZelRestore : public ZelTest
{
protected:
    void receiveFull(const Image &image, uint8_t id, const std::string &name)
    {
        Answer answer = receive(fullStream(image, streamId(id)), name);
        ASSERT_EQ(answer.code, 0) << answer.err;
    }
    fs::path file() const { return directory / "restored.img"; }
    // No file but the repository.
    void expectNothingWritten()
    {
        for (const auto &entry : fs::directory_iterator(directory))
            EXPECT_EQ(entry.path(), repository);
    }
};

uint64_t allocatedBytes(const fs::path &path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return static_cast<uint64_t>(status.st_blocks) * 512;
}

} // namespace

// Blocks come in any order, contents of all sorts lie over each other, and each point must be had
// again whatever came after it.
TEST_F(ZelRestore, givesBackEveryPointOfAChainByteForByte)
{
    for (uint32_t blockSize : {512u, 1024u, 2048u, 4096u}) {
        SCOPED_TRACE(blockSize);
        fs::remove_all(repository);
        Image image(1000, blockSize, 1);
        image.clear(100, 300);
        std::vector<Bytes> images = {image.bytes()};
        receiveFull(image, 1, "p1");
        for (uint8_t i = 2; i <= 6; i++) {
            StreamBuilder builder(1000, blockSize, streamId(i), streamId(i - 1));
            image.fill(700 - i * 50, 120, i);
            builder.data(700 - i * 50, image.blocks(700 - i * 50, 120));
            image.clear(200 + i * 30, 20);
            builder.empty(200 + i * 30, 20, Content::Zero);
            for (uint32_t block = 0; block < 100; block += i) {
                image.fill(block, 1, i * 1000 + block);
                builder.data(block, image.blocks(block, 1));
            }
            image.clear(990, 3);
            image.fill(991, 1, i);
            builder.data(990, image.blocks(990, 3));
            images.push_back(image.bytes());
            Answer answer = receive(builder.bytes(), "p" + std::to_string(i));
            ASSERT_EQ(answer.code, 0) << answer.err;
        }
        for (size_t i = 0; i < images.size(); i++)
            EXPECT_TRUE(imageOf("p" + std::to_string(i + 1)) == images[i]) << i;
    }
}

TEST_F(ZelRestore, takesPointsByStreamIdToo)
{
    Image image(16, 512, 1);
    receiveFull(image, 1, "base");
    EXPECT_EQ(restore("01010101010101010101010101010101", file()).code, 0);
    EXPECT_EQ(readFile(file()), image.bytes());
}

TEST_F(ZelRestore, continuesAFullPointThatCameInOneBlockExtentsBackwards)
{
    Image image(300, 4096, 1);
    StreamBuilder builder(300, 4096, streamId(1));
    for (uint32_t block = 300; block > 0; block--)
        builder.data(block - 1, image.blocks(block - 1, 1));
    ASSERT_EQ(receive(builder.bytes(), "base").code, 0);
    EXPECT_TRUE(imageOf("base") == image.bytes());
}

TEST_F(ZelRestore, keepsExtentsOfTheLargestSizeApartAndTogether)
{
    Image image(2000, 512, 1);
    StreamBuilder builder(2000, 512, streamId(1));
    builder.data(0, image.blocks(0, 100)).data(100, image.blocks(100, 1900));
    ASSERT_EQ(receive(builder.bytes(), "small").code, 0);
    EXPECT_TRUE(imageOf("small") == image.bytes());

    Image large(600, 4096, 2);
    StreamBuilder whole(600, 4096, streamId(2));
    whole.data(0, large.blocks(0, 10)).data(10, large.blocks(10, 256));
    whole.data(266, large.blocks(266, 256)).data(522, large.blocks(522, 78));
    ASSERT_EQ(receive(whole.bytes(), "large").code, 0);
    EXPECT_TRUE(imageOf("large") == large.bytes());
}

TEST_F(ZelRestore, leavesHolesWhereBlocksAreZero)
{
    Image image(4096, 4096, 1); // 16 MiB
    image.clear(8, 4080);
    receiveFull(image, 1, "base");
    ASSERT_EQ(restore("base", file()).code, 0);
    EXPECT_EQ(fs::file_size(file()), 4096u * 4096u);
    EXPECT_LE(allocatedBytes(file()), 17u * 4096u);
    EXPECT_TRUE(readFile(file()) == image.bytes());
}

TEST_F(ZelRestore, givesUnreadableBlocksAsZerosAndExitsWith3)
{
    Image image(16, 512, 1);
    StreamBuilder builder(16, 512, streamId(1));
    builder.data(0, image.blocks(0, 10)).empty(10, 2, Content::Unreadable);
    builder.empty(12, 1, Content::Doubtful).data(13, image.blocks(13, 3));
    ASSERT_EQ(receive(builder.bytes(), "base").code, 3);

    Answer answer = restore("base", file());
    EXPECT_EQ(answer.code, 3);
    EXPECT_NE(answer.err.find("3 blocks could not be read"), std::string::npos) << answer.err;
    image.clear(10, 3);
    EXPECT_EQ(readFile(file()), image.bytes());

    // The next incremental brings them after all.
    image.fill(10, 3, 5);
    StreamBuilder next(16, 512, streamId(2), streamId(1));
    next.data(10, image.blocks(10, 3));
    ASSERT_EQ(receive(next.bytes(), "second").code, 0);
    fs::remove(file());
    EXPECT_EQ(restore("second", file()).code, 0);
    EXPECT_EQ(readFile(file()), image.bytes());
}

TEST_F(ZelRestore, remembersThatABlockWasUnreadableInAnOlderPoint)
{
    Image image(16, 512, 1);
    StreamBuilder builder(16, 512, streamId(1));
    builder.data(0, image.blocks(0, 15)).empty(15, 1, Content::Unreadable);
    ASSERT_EQ(receive(builder.bytes(), "base").code, 3);
    StreamBuilder next(16, 512, streamId(2), streamId(1));
    next.data(0, image.blocks(0, 1));
    ASSERT_EQ(receive(next.bytes(), "second").code, 0);
    EXPECT_EQ(restore("second", file()).code, 3);
}

TEST_F(ZelRestore, doesNotOverwriteAFileUnlessForced)
{
    Image image(16, 512, 1);
    receiveFull(image, 1, "base");
    Bytes letter(5, std::byte{'x'});
    writeFile(file(), letter);
    Answer answer = restore("base", file());
    EXPECT_EQ(answer.code, 1);
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
    EXPECT_EQ(readFile(file()), letter);
    EXPECT_EQ(zel({"restore", "--force", repository, "base", file()}).code, 0);
    EXPECT_EQ(readFile(file()), image.bytes());
}

TEST_F(ZelRestore, refusesWhatIsNeitherFileNorDevice)
{
    receiveFull(Image(16, 512, 1), 1, "base");
    for (const fs::path &path : {directory, fs::path("/dev/null")})
        EXPECT_EQ(zel({"restore", "--force", repository, "base", path}).code, 1) << path;
    fs::create_symlink(directory / "nowhere", directory / "link");
    EXPECT_EQ(zel({"restore", "--force", repository, "base", directory / "link"}).code, 1);
    fs::remove(directory / "link");
    expectNothingWritten();
}

TEST_F(ZelRestore, writesThroughALinkToTheFileItself)
{
    Image image(16, 512, 1);
    receiveFull(image, 1, "base");
    writeFile(file(), Bytes(5));
    fs::create_symlink(file(), directory / "link");
    EXPECT_EQ(zel({"restore", "--force", repository, "base", directory / "link"}).code, 0);
    EXPECT_TRUE(fs::is_symlink(directory / "link"));
    EXPECT_EQ(readFile(file()), image.bytes());
}

TEST_F(ZelRestore, refusesUnknownPointsAndRepositories)
{
    receiveFull(Image(16, 512, 1), 1, "base");
    Answer answer = restore("other", file());
    EXPECT_EQ(answer.code, 1);
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
    answer = zel({"restore", directory / "nothing", "base", file()});
    EXPECT_EQ(answer.code, 1);
    EXPECT_NE(answer.err.find("no such repository"), std::string::npos) << answer.err;
    answer = zel({"restore", "/tmp", "base", file()});
    EXPECT_EQ(answer.code, 1);
    EXPECT_NE(answer.err.find("not a repository"), std::string::npos) << answer.err;
    EXPECT_EQ(restore("../repository/base", file()).code, 1);
    expectNothingWritten();
}

TEST_F(ZelRestore, refusesABrokenChainBeforeAnythingIsWritten)
{
    Image image(16, 512, 1);
    receiveFull(image, 1, "base");
    StreamBuilder next(16, 512, streamId(2), streamId(1));
    next.data(0, image.blocks(0, 1));
    ASSERT_EQ(receive(next.bytes(), "second").code, 0);
    fs::remove_all(repository / "base");
    Answer answer = restore("second", file());
    EXPECT_EQ(answer.code, 2);
    EXPECT_EQ(answer.err, "zel: point second: its parent 01010101010101010101010101010101 is not "
                          "in the repository\n");
    expectNothingWritten();
}

TEST_F(ZelRestore, leavesNothingOfAnImageThatTurnsOutDamaged)
{
    Image image(4000, 512, 1);
    receiveFull(image, 1, "base");
    Bytes data = readFile(repository / "base" / "data");
    data[data.size() - 7] ^= std::byte{1};
    writeFile(repository / "base" / "data", data);
    Answer answer = restore("base", file());
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.err.find("blocks "), std::string::npos) << answer.err;
    EXPECT_NE(answer.err.find("damaged"), std::string::npos) << answer.err;
    expectNothingWritten();
}

TEST_F(ZelRestore, usesWhatAKilledRestoreLeftAndNotWhatARunningOneWrites)
{
    Image image(16, 512, 1);
    receiveFull(image, 1, "base");
    fs::path partial = file().string() + ".partial";
    writeFile(partial, Bytes(100000, std::byte{1}));
    EXPECT_EQ(restore("base", file()).code, 0);
    EXPECT_EQ(readFile(file()), image.bytes());
    EXPECT_FALSE(fs::exists(partial));

    fs::remove(file());
    int other = open(partial.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    Answer answer = restore("base", file());
    EXPECT_EQ(answer.code, 1);
    EXPECT_NE(answer.err.find("is being written"), std::string::npos) << answer.err;
    EXPECT_TRUE(fs::exists(partial));
    close(other);
}

TEST_F(ZelRestore, writesToStandardOutput)
{
    Image image(2000, 512, 1);
    image.clear(3, 900);
    receiveFull(image, 1, "base");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int fd = open(file().c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(fd, STDOUT_FILENO);
        Answer answer = zel({"restore", repository, "base", "-"});
        _exit(answer.code == 0 && answer.out.empty() && isOneLine(answer.err) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(readFile(file()) == image.bytes());
}

TEST_F(ZelRestore, answersInJsonWhenAsked)
{
    receiveFull(Image(16, 512, 1), 1, "base");
    Answer answer = zel({"--json", "restore", repository, "base", file()});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out, "{\"event\":\"restored\",\"name\":\"base\",\"file\":\"" +
                              file().string() +
                              "\",\"bytes\":8192,\"dataBytes\":8192,\"unreadBlocks\":0,"
                              "\"points\":1}\n");
}
