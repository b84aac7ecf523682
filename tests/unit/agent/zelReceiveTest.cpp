/* What `zel receive` makes of a stream, and that a stream which is not whole leaves nothing. */
#include "interrupt.h"
#include "support/zelRunner.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace test;
using zel::Content;
namespace fs = std::filesystem;

namespace
{

class ZelReceive : public ZelTest
{
protected:
    ZelReceive() : image(16, 512, 1) {}

    void receiveBase()
    {
        Answer answer = receive(fullStream(image, streamId(1)), "base");
        ASSERT_EQ(answer.code, 0) << answer.err;
    }
    // The stream is refused with one line that contains `part`, and only `base` is there.
    void expectRefused(const Bytes &stream, int code, const std::string &part,
                       const std::string &name = {})
    {
        Answer answer = receive(stream, name);
        EXPECT_EQ(answer.code, code) << answer.err;
        EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
        EXPECT_NE(answer.err.find(part), std::string::npos) << answer.err;
        EXPECT_EQ(answer.out, "");
        EXPECT_EQ(names(), std::vector<std::string>{"base"});
    }
    Bytes incremental(uint8_t id, uint8_t parent, uint32_t numBlocks = 16, uint32_t size = 512)
    {
        StreamBuilder builder(numBlocks, size, streamId(id), streamId(parent));
        builder.data(2, Image(numBlocks, size, 9).blocks(2, 3));
        return builder.bytes();
    }
    Bytes readPoint(const std::string &name)
    {
        Bytes all;
        for (const char *file : {"point.json", "index", "data"}) {
            Bytes bytes = readFile(repository / name / file);
            all.insert(all.end(), bytes.begin(), bytes.end());
        }
        return all;
    }

    Image image;
};

} // namespace

TEST_F(ZelReceive, makesARepositoryAndAPointFromAFullStream)
{
    Answer answer = receive(fullStream(image, streamId(1)), "base");
    EXPECT_EQ(answer.code, 0) << answer.err;
    EXPECT_EQ(answer.err, "");
    EXPECT_NE(answer.out.find("base: full of oldserver:/dev/sda1, changed 16 of 16 blocks, "),
              std::string::npos)
        << answer.out;
    EXPECT_EQ(names(), std::vector<std::string>{"base"});
    EXPECT_EQ(imageOf("base"), image.bytes());
}

TEST_F(ZelReceive, saysHowManyBlocksAnIncrementalChanged)
{
    receiveBase();
    Answer answer = receive(incremental(2, 1), "second");
    EXPECT_EQ(answer.code, 0) << answer.err;
    EXPECT_NE(answer.out.find("second: incremental of oldserver:/dev/sda1, changed 3 of 16 blocks"),
              std::string::npos)
        << answer.out;
}

TEST_F(ZelReceive, saysWhyAStreamIsFull)
{
    StreamBuilder builder(16, 512, streamId(1));
    builder.data(0, image.bytes());
    setText(builder.header.reason, "the device has another size");
    EXPECT_NE(receive(builder.bytes(), "base").out.find("full because the device has another size"),
              std::string::npos);
}

TEST_F(ZelReceive, namesAPointAfterDeviceAndTimeAndNeverTwiceTheSame)
{
    EXPECT_EQ(receive(fullStream(image, streamId(1))).code, 0);
    EXPECT_EQ(receive(fullStream(image, streamId(2))).code, 0);
    EXPECT_EQ(names(),
              (std::vector<std::string>{"sda1-20261121T084623Z", "sda1-20261121T084623Z-2"}));
}

TEST_F(ZelReceive, makesAHarmlessNameFromAnyDevice)
{
    StreamBuilder builder(16, 512, streamId(1));
    builder.data(0, image.bytes());
    setText(builder.header.device, "/dev/mapper/..\xff ;x");
    Answer answer = receive(builder.bytes());
    EXPECT_EQ(answer.code, 0) << answer.err;
    EXPECT_EQ(names(), std::vector<std::string>{"p.._____x-20261121T084623Z"});
    EXPECT_EQ(zel({"--json", "list", repository}).code, 0);
}

TEST_F(ZelReceive, refusesAStreamThatIsCutAtAnyByteAndLeavesNothing)
{
    receiveBase();
    Bytes before = readPoint("base");
    Bytes stream = incremental(2, 1);
    for (size_t length = 0; length < stream.size(); length++) {
        expectRefused(Bytes(stream.begin(), stream.begin() + length), 2, "stream refused at byte ");
        ASSERT_FALSE(HasFailure()) << "cut at " << length;
    }
    EXPECT_EQ(readPoint("base"), before);
    EXPECT_EQ(receive(stream, "second").code, 0);
}

TEST_F(ZelReceive, refusesAStreamWithAnyByteFlippedAndLeavesNothing)
{
    receiveBase();
    Bytes stream = incremental(2, 1);
    for (size_t at = 0; at < stream.size(); at++) {
        stream[at] ^= std::byte{0x10};
        expectRefused(stream, 2, "stream refused at byte ");
        ASSERT_FALSE(HasFailure()) << "flipped at " << at;
        stream[at] ^= std::byte{0x10};
    }
    EXPECT_EQ(receive(stream, "second").code, 0);
}

TEST_F(ZelReceive, refusesGarbageAfterTheTrailer)
{
    receiveBase();
    Bytes stream = incremental(2, 1);
    stream.push_back(std::byte{'\n'});
    expectRefused(stream, 2, "something follows the last record");
}

TEST_F(ZelReceive, refusesAnAbortedStream)
{
    receiveBase();
    StreamBuilder builder(16, 512, streamId(2));
    builder.data(0, image.blocks(0, 4));
    builder.header.sentBlocks = 16;
    expectRefused(builder.aborted("write cache exhausted"), 3,
                  "the sender gave up: write cache exhausted");
}

TEST_F(ZelReceive, refusesAnIncrementalWithoutItsParent)
{
    receiveBase();
    expectRefused(incremental(3, 2), 2,
                  "the stream builds upon 02020202020202020202020202020202, which is not in the "
                  "repository");
}

TEST_F(ZelReceive, refusesAnIncrementalWhoseParentIsNotComplete)
{
    receiveBase();
    ASSERT_EQ(receive(incremental(2, 1), "second").code, 0);
    fs::remove_all(repository / "base");
    Answer answer = receive(incremental(3, 2));
    EXPECT_EQ(answer.code, 2);
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
    EXPECT_NE(answer.err.find("not complete"), std::string::npos) << answer.err;
    EXPECT_EQ(names(), std::vector<std::string>{"second"});
}

TEST_F(ZelReceive, refusesADeviceOfAnotherGeometryThanTheParents)
{
    receiveBase();
    expectRefused(incremental(2, 1, 17), 2,
                  "of a device of 17 blocks of 512 bytes, its parent base of 16 blocks of 512");
    expectRefused(incremental(2, 1, 16, 1024), 2, "of a device of 16 blocks of 1024 bytes");
}

TEST_F(ZelReceive, refusesAStreamThatIsAlreadyThere)
{
    receiveBase();
    expectRefused(fullStream(image, streamId(1)), 1,
                  "this stream has already been received as point base");
}

TEST_F(ZelReceive, refusesANameThatIsTaken)
{
    receiveBase();
    expectRefused(fullStream(image, streamId(2)), 1, "there is already a point base", "base");
}

TEST_F(ZelReceive, refusesNamesThatLeadOutOfTheRepositoryOrHide)
{
    receiveBase();
    for (const char *name :
         {"../x", "..", ".", "a/b", "/tmp/x", ".hidden", "a b", "a\nb", "\xff", "-x"})
        expectRefused(fullStream(image, streamId(2)), 1, "not a name for a point", name);
    for (const std::string &name :
         {std::string("../x"), std::string("a/b"), std::string(".h"), std::string(101, 'x')})
        expectRefused(fullStream(image, streamId(2)), 1, "not a name for a point", name);
    EXPECT_FALSE(fs::exists(directory / "x"));
}

TEST_F(ZelReceive, refusesADirectoryThatIsSomethingElse)
{
    fs::create_directory(repository);
    writeFile(repository / "letter.txt", Bytes(3));
    Answer answer = receive(fullStream(image, streamId(1)), "base");
    EXPECT_EQ(answer.code, 1);
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
    EXPECT_EQ(names(), std::vector<std::string>{"letter.txt"});
}

TEST_F(ZelReceive, keepsThePointButExitsWith3WhenBlocksCouldNotBeRead)
{
    StreamBuilder builder(16, 512, streamId(1));
    builder.data(0, image.blocks(0, 12)).empty(12, 3, Content::Unreadable);
    builder.empty(15, 1, Content::Doubtful);
    Answer answer = receive(builder.bytes(), "base");
    EXPECT_EQ(answer.code, 3);
    EXPECT_TRUE(isOneLine(answer.err)) << answer.err;
    EXPECT_NE(answer.err.find("4 blocks could not be read"), std::string::npos) << answer.err;
    EXPECT_EQ(names(), std::vector<std::string>{"base"});
}

TEST_F(ZelReceive, saysEverythingInJsonWhenAsked)
{
    Answer answer =
        zel({"receive", repository, "--name", "base", "--json"}, fullStream(image, streamId(1)));
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(isOneLine(answer.out));
    EXPECT_EQ(answer.out.rfind("{\"event\":\"received\",\"name\":\"base\"", 0), 0u) << answer.out;
    answer = zel({"receive", repository, "--json"}, Bytes(500));
    EXPECT_EQ(answer.code, 2);
    EXPECT_EQ(answer.err, "{\"event\":\"error\",\"message\":\"stream refused at byte 0: this is no "
                          "backup stream\",\"exitCode\":2}\n");
}

TEST_F(ZelReceive, saysNothingWhenQuiet)
{
    Answer answer = zel({"-q", "receive", repository}, fullStream(image, streamId(1)));
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out + answer.err, "");
}

// A disk that fills up, at every size at which it can: here a limit on the size of files.
TEST_F(ZelReceive, leavesNothingWhenTheDiskIsFull)
{
    receiveBase();
    Bytes stream = fullStream(Image(16, 512, 3), streamId(2), 1);
    for (rlim_t limit : {0, 1, 31, 32, 100, 500, 2000, 8000}) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            signal(SIGXFSZ, SIG_IGN);
            rlimit size = {limit, limit};
            setrlimit(RLIMIT_FSIZE, &size);
            Answer answer = receive(stream, "second");
            bool right = answer.code == 3 && isOneLine(answer.err) &&
                         answer.err.find("File too large") != std::string::npos;
            _exit(right ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "limit " << limit;
        EXPECT_EQ(names(), std::vector<std::string>{"base"}) << "limit " << limit;
    }
    EXPECT_EQ(receive(stream, "second").code, 0);
}

namespace
{

// A receive in a process of its own, that has been given the first `length` bytes of a stream
// over a pipe and has taken all of them.
class RunningReceive
{
public:
    RunningReceive(const fs::path &repository, const Bytes &stream, size_t length)
    {
        int ends[2];
        if (pipe(ends) != 0)
            throw std::runtime_error("no pipe");
        child_ = fork();
        if (child_ == 0) {
            close(ends[1]);
            zel::installSignalHandlers();
            zel::DescriptorSource source(ends[0]);
            std::ostringstream out;
            std::ostringstream err;
            _exit(zel::runCommand({"receive", repository.string(), "--name", "running"}, source,
                                  out, err));
        }
        close(ends[0]);
        pipe_ = ends[1];
        if (write(pipe_, stream.data(), length) != static_cast<ssize_t>(length))
            throw std::runtime_error("short write");
    }
    ~RunningReceive()
    {
        if (pipe_ >= 0)
            close(pipe_);
        if (child_ > 0)
            waitpid(child_, nullptr, 0);
    }
    void signal(int number) { ::kill(child_, number); }
    void giveRest(const Bytes &stream, size_t from)
    {
        EXPECT_EQ(write(pipe_, stream.data() + from, stream.size() - from),
                  static_cast<ssize_t>(stream.size() - from));
        close(pipe_);
        pipe_ = -1;
    }
    int wait()
    {
        int status = -1;
        waitpid(child_, &status, 0);
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t child_ = -1;
    int pipe_ = -1;
};

} // namespace

TEST_F(ZelReceive, leavesNoPointBehindWhenKilledAndTheNextOneCleansUp)
{
    receiveBase();
    Bytes before = readPoint("base");
    Bytes stream = incremental(2, 1);
    std::string leftover = ".receiving-02020202020202020202020202020202";
    {
        RunningReceive running(repository, stream, stream.size() - 10);
        while (!fs::exists(repository / leftover / "index"))
            std::this_thread::yield();
        running.signal(SIGKILL);
        EXPECT_EQ(running.wait(), -1);
    }
    EXPECT_EQ(names(), (std::vector<std::string>{leftover, "base"}));
    EXPECT_EQ(readPoint("base"), before);
    Answer list = zel({"list", repository});
    EXPECT_EQ(list.code, 0);
    EXPECT_NE(list.err.find(leftover), std::string::npos) << list.err;
    EXPECT_EQ(list.out.find("0202"), std::string::npos) << list.out;

    Answer answer = receive(stream, "second");
    EXPECT_EQ(answer.code, 0) << answer.err;
    EXPECT_NE(answer.err.find("removed what an interrupted receive had left"), std::string::npos);
    EXPECT_EQ(names(), (std::vector<std::string>{"base", "second"}));
}

TEST_F(ZelReceive, doesNotTouchWhatAnotherReceiveIsWriting)
{
    receiveBase();
    Bytes stream = incremental(2, 1);
    size_t half = stream.size() / 2;
    RunningReceive running(repository, stream, half);
    while (!fs::exists(repository / ".receiving-02020202020202020202020202020202" / "index"))
        std::this_thread::yield();

    Answer same = receive(stream);
    EXPECT_EQ(same.code, 1);
    EXPECT_NE(same.err.find("being received by another process"), std::string::npos) << same.err;
    EXPECT_EQ(receive(incremental(3, 1), "third").code, 0);
    running.giveRest(stream, half);
    EXPECT_EQ(running.wait(), 0);
    EXPECT_EQ(names(), (std::vector<std::string>{"base", "running", "third"}));
}

TEST_F(ZelReceive, doesNotOverwriteANameThatWasTakenMeanwhile)
{
    receiveBase();
    Bytes stream = incremental(2, 1);
    RunningReceive running(repository, stream, 500);
    while (!fs::exists(repository / ".receiving-02020202020202020202020202020202" / "index"))
        std::this_thread::yield();
    EXPECT_EQ(receive(incremental(3, 1), "running").code, 0);
    Bytes before = readPoint("running");
    running.giveRest(stream, 500);
    EXPECT_EQ(running.wait(), 1);
    EXPECT_EQ(readPoint("running"), before);
    EXPECT_EQ(names(), (std::vector<std::string>{"base", "running"}));
}

TEST_F(ZelReceive, endsInOrderWhenInterrupted)
{
    receiveBase();
    Bytes stream = incremental(2, 1);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        RunningReceive running(repository, stream, 500);
        while (!fs::exists(repository / ".receiving-02020202020202020202020202020202" / "index"))
            std::this_thread::yield();
        running.signal(SIGUSR1); // only asks
        running.signal(number);
        EXPECT_EQ(running.wait(), 130) << number;
        EXPECT_EQ(names(), std::vector<std::string>{"base"}) << number;
    }
}

TEST_F(ZelReceive, tellsHowFarItIsWhenAskedBySignal)
{
    zel::installSignalHandlers();
    raise(SIGUSR1);
    Answer answer = receive(fullStream(image, streamId(1), 4), "base");
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.err, "receive: 25 %, 2.0 KiB of 8.0 KiB\n");

    raise(SIGUSR1);
    answer = zel({"--json", "receive", repository}, fullStream(image, streamId(2), 4));
    EXPECT_EQ(answer.err, "{\"event\":\"progress\",\"task\":\"receive\",\"bytesDone\":2048,"
                          "\"bytesTotal\":8192}\n");
}
