// Whatever becomes of a stream or of the zelsend that writes it, the next point that arrives is
// exactly the device at its snapshot.
#include <gtest/gtest.h>
#include <random>

#include "support/senderRun.h"
#include "support/testStream.h"

using test::FakeDevice;
using test::killedExitCode;
using test::ReadStream;
using test::readStream;
using test::Receiver;
using test::SenderResult;
using test::SenderRun;

namespace
{

// A device with two points behind it and something to send.
class LostStreamTest : public testing::Test
{
protected:
    LostStreamTest()
    {
        arrive();
        device.write(2, 1002);
        arrive();
        device.write(5, 1005);
        device.write(20, 1020);
        device.write(21, 1021);
        savedDevice = device.save();
        std::filesystem::copy(send.state(), kept.path() / "state",
                              std::filesystem::copy_options::recursive);
        savedReceiver = receiver;
    }

    void startOver()
    {
        device.restore(savedDevice);
        for (const auto &entry : std::filesystem::directory_iterator(send.state())) {
            std::filesystem::remove_all(entry.path());
        }
        std::filesystem::copy(kept.path() / "state", send.state(),
                              std::filesystem::copy_options::recursive);
        receiver = savedReceiver;
    }

    std::vector<std::string> parent() const { return {"--parent", receiver.newest()}; }

    zel::StreamKind arrive()
    {
        SenderResult result = send(parent());
        EXPECT_EQ(result.exitCode, 0) << result.messages;
        EXPECT_TRUE(receiver.take(result.stream));
        EXPECT_EQ(receiver.image(), device.snapshotImage());
        return readStream(result.stream).header.kind;
    }

    // After a stream whose fate was anything: two more backups bring all there is.
    zel::StreamKind recover()
    {
        device.write(5, 2005);
        device.write(9, 2009);
        zel::StreamKind kind = arrive();
        device.write(1, 3001);
        EXPECT_EQ(arrive(), zel::StreamKind::Incremental);
        return kind;
    }

    FakeDevice device{24, 512};
    SenderRun send{&device};
    Receiver receiver;
    Receiver savedReceiver;
    test::TemporaryDirectory kept;
    std::string savedDevice;
};

} // namespace

TEST_F(LostStreamTest, CutAtAnyByteByTheReader)
{
    std::uint64_t size = send(parent()).stream.size();
    for (std::uint64_t cut = 0; cut < size; cut++) {
        startOver();
        SenderResult result = send.withReaderOf(cut, parent());
        ASSERT_EQ(result.exitCode, 3) << cut;
        ASSERT_EQ(result.stream.size(), cut);
        ASSERT_FALSE(receiver.take(result.stream));
        ASSERT_EQ(recover(), zel::StreamKind::Incremental) << cut;
        ASSERT_FALSE(HasFailure()) << cut;
    }
}

TEST_F(LostStreamTest, CutAtAnyByteOnItsWayWithoutTheSendersKnowledge)
{
    std::uint64_t size = send(parent()).stream.size();
    for (std::uint64_t cut = 0; cut <= size; cut++) {
        startOver();
        SenderResult result = send(parent());
        ASSERT_EQ(result.exitCode, 0) << cut;
        ASSERT_EQ(receiver.take(result.stream.substr(0, cut)), cut == size) << cut;
        ASSERT_EQ(recover(), zel::StreamKind::Incremental) << cut;
        ASSERT_FALSE(HasFailure()) << cut;
    }
}

TEST_F(LostStreamTest, SenderKilledAtAnyOfItsSystemCalls)
{
    int full = 0;
    int incremental = 0;
    for (int call = 1;; call++) {
        startOver();
        SenderResult result = send.killedAt(call, parent());
        bool arrived = receiver.take(result.stream);
        (recover() == zel::StreamKind::Full ? full : incremental)++;
        ASSERT_FALSE(HasFailure()) << call;
        if (result.exitCode == 0) {
            ASSERT_TRUE(arrived);
            break;
        }
        ASSERT_EQ(result.exitCode, killedExitCode) << call;
    }
    // Some calls lie between the snapshot and the durable key, most do not.
    EXPECT_GT(full, 0);
    EXPECT_GT(incremental, full);
}

TEST_F(LostStreamTest, DiskFullFromAnyCallOn)
{
    for (int call = 1;; call++) {
        startOver();
        test::startFaultyCalls(test::Fault::Fail, call);
        SenderResult result = send(parent());
        int calls = test::stopFaultyCalls();
        receiver.take(result.stream);
        recover();
        ASSERT_FALSE(HasFailure()) << call;
        if (calls < call) {
            EXPECT_EQ(result.exitCode, 0);
            break;
        }
    }
}

TEST_F(LostStreamTest, SeveralInARow)
{
    std::vector<std::string> sent;
    for (std::uint32_t i = 0; i < 5; i++) {
        SenderResult result = send(parent());
        sent.push_back(result.stream);
        device.write(i, 4000 + i);
    }
    // The third of them arrives late.
    EXPECT_TRUE(receiver.take(sent[2]));
    EXPECT_EQ(recover(), zel::StreamKind::Incremental);
}

// Long random histories, with everything that can go wrong in them.
TEST(LostStreams, RandomHistoriesKeepEveryPointExact)
{
    for (unsigned seed = 1; seed <= 40; seed++) {
        std::mt19937 random(seed);
        auto below = [&](std::uint32_t limit) {
            return static_cast<std::uint32_t>(random() % limit);
        };
        FakeDevice device(60 + 2 * below(100), 512U << below(4));
        SenderRun send(&device);
        SenderRun foreign(&device);
        Receiver receiver;
        std::vector<std::string> points = {"none"};
        int arrived = 0;
        for (int round = 0; round < 25; round++) {
            for (std::uint32_t i = below(10); i > 0; i--) {
                device.write(below(device.blocks()),
                             below(5) == 0 ? 0 : static_cast<std::uint32_t>(random()));
            }
            switch (below(12)) {
            case 0:
                foreign();
                break;
            case 1:
                device.reload();
                break;
            case 2:
                device.loseSync();
                break;
            case 3:
                device.resize(60 + 2 * below(100));
                break;
            case 4:
                device.setUnreadable(below(60), true);
                break;
            case 5:
                for (std::uint32_t i = 0; i < device.blocks(); i++) {
                    device.setUnreadable(i, false);
                }
                break;
            case 6:
                receiver.fallBackTo(points[below(static_cast<std::uint32_t>(points.size()))]);
                break;
            }
            device.before = device.after = [&](std::uint32_t) {
                if (below(3) == 0) {
                    device.write(below(device.blocks()), static_cast<std::uint32_t>(random()));
                }
            };
            std::vector<std::string> arguments = {"--parent", receiver.newest()};
            if (below(8) == 0) {
                arguments.push_back("--full");
            }
            if (below(6) == 0) {
                arguments.insert(arguments.end(), {"--cache", std::to_string(below(8))});
            }
            SenderResult result;
            bool cut = false;
            switch (below(5)) {
            case 0:
                result = send.killedAt(1 + static_cast<int>(below(150)), arguments);
                break;
            case 1:
                result = send.withReaderOf(below(100000), arguments);
                break;
            case 2:
                cut = true;
                result = send(arguments);
                result.stream.resize(below(static_cast<std::uint32_t>(result.stream.size() + 1)));
                break;
            default:
                result = send(arguments);
            }
            device.before = device.after = [](std::uint32_t) {};
            bool whole = result.messages.find("zelsend: sent ") != std::string::npos && !cut;
            if (!receiver.take(result.stream)) {
                ASSERT_FALSE(whole) << "seed " << seed << " round " << round;
                continue;
            }
            arrived++;
            points.push_back(receiver.newest());
            ReadStream stream = readStream(result.stream);
            std::string expected = device.snapshotImage();
            for (const auto *lost : {&stream.unreadable, &stream.doubtful}) {
                for (std::uint32_t block : *lost) {
                    expected.replace(std::size_t{block} * device.blockSize(), device.blockSize(),
                                     std::string(device.blockSize(), '\0'));
                }
            }
            ASSERT_TRUE(receiver.image() == expected) << "seed " << seed << " round " << round;
        }
        ASSERT_GT(arrived, 3) << "seed " << seed;
    }
}
