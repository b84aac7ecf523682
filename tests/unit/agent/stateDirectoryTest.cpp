#include "agent/stateDirectory.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

#include "support/senderRun.h"

using test::TemporaryDirectory;
using zelsend::BlockBits;
using zelsend::ExitCode;
using zelsend::Outcome;
using zelsend::StateDirectory;

namespace
{

constexpr std::uint32_t blocks = 50;

zel::StreamId id(std::uint8_t number)
{
    zel::StreamId id = {};
    id.bytes[0] = number;
    return id;
}

AMSessionKey key(std::uint8_t number)
{
    AMSessionKey key;
    std::memset(key.key, number, sizeof(key.key));
    return key;
}

class StateDirectoryTest : public testing::Test
{
protected:
    std::string device() const { return root.path() / "8-1"; }

    // Adds point `number`, before which just the block of that number changed.
    Outcome add(StateDirectory *directory, std::uint8_t number, bool tracked = true)
    {
        BlockBits changes;
        EXPECT_TRUE(changes.create(blocks));
        changes.set(number);
        return directory->addPoint(id(number), key(number), 4096, blocks,
                                   tracked ? &changes : nullptr);
    }

    // The numbers of the blocks that someone who holds the point needs.
    static std::vector<std::uint32_t> changesSince(const StateDirectory &directory,
                                                   std::uint8_t number)
    {
        BlockBits bits;
        EXPECT_TRUE(bits.create(blocks));
        int index = directory.find(id(number));
        EXPECT_GE(index, 0);
        EXPECT_TRUE(directory.collectChanges(index, &bits));
        std::vector<std::uint32_t> result;
        for (std::uint32_t b = bits.findSet(0); b < blocks; b = bits.findSet(b + 1)) {
            result.push_back(b);
        }
        return result;
    }

    void makeThreePoints()
    {
        StateDirectory directory;
        ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
        ASSERT_TRUE(add(&directory, 1, false));
        ASSERT_TRUE(add(&directory, 2));
        ASSERT_TRUE(add(&directory, 3));
    }

    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(device())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    TemporaryDirectory root;
};

using Blocks = std::vector<std::uint32_t>;

} // namespace

TEST_F(StateDirectoryTest, ANewOneKnowsNothing)
{
    StateDirectory directory;
    std::string deep = root.path() / "new";
    ASSERT_TRUE(directory.open(deep.c_str(), 8, 1));
    EXPECT_FALSE(directory.hasKey());
    EXPECT_FALSE(directory.wasDamaged());
    EXPECT_EQ(directory.find(id(1)), -1);
}

TEST_F(StateDirectoryTest, KeepsThePointsAndTheLastKey)
{
    makeThreePoints();
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
    EXPECT_TRUE(directory.hasKey());
    EXPECT_EQ(std::memcmp(directory.state().sessionKey.key, key(3).key, sizeof(key(3).key)), 0);
    EXPECT_EQ(directory.state().numBlocks, blocks);
    EXPECT_EQ(directory.state().blockSize, 4096U);
    EXPECT_EQ(changesSince(directory, 1), (Blocks{2, 3}));
    EXPECT_EQ(changesSince(directory, 2), (Blocks{3}));
    EXPECT_EQ(changesSince(directory, 3), Blocks{});
}

TEST_F(StateDirectoryTest, DevicesAreKeptApart)
{
    makeThreePoints();
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 2));
    EXPECT_FALSE(directory.hasKey());
}

TEST_F(StateDirectoryTest, AConfirmedPointMakesOlderOnesGo)
{
    makeThreePoints();
    {
        StateDirectory directory;
        ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
        directory.confirm(directory.find(id(2)));
        ASSERT_TRUE(directory.save());
    }
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
    EXPECT_EQ(directory.find(id(1)), -1);
    EXPECT_EQ(directory.state().confirmed, id(2));
    EXPECT_EQ(changesSince(directory, 2), (Blocks{3}));
    EXPECT_EQ(files(),
              (std::vector<std::string>{"lock", "map-03000000000000000000000000000000", "state"}));
}

TEST_F(StateDirectoryTest, AGapInTheTrackingForgetsAllOlderPoints)
{
    makeThreePoints();
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
    directory.confirm(1);
    ASSERT_TRUE(add(&directory, 4, false));
    EXPECT_EQ(directory.state().pointCount, 1U);
    EXPECT_EQ(directory.state().confirmed, zel::StreamId{});
    EXPECT_EQ(directory.find(id(3)), -1);
    EXPECT_EQ(changesSince(directory, 4), Blocks{});
    EXPECT_EQ(files(), (std::vector<std::string>{"lock", "state"}));
}

TEST_F(StateDirectoryTest, TheOldestPointFallsOutOfAFullList)
{
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
    for (std::uint8_t i = 1; i <= zelsend::maxPoints + 1; i++) {
        ASSERT_TRUE(add(&directory, i, i != 1));
    }
    EXPECT_EQ(directory.find(id(1)), -1);
    EXPECT_EQ(directory.find(id(2)), 0);
    EXPECT_EQ(changesSince(directory, 2).size(), zelsend::maxPoints - 1);
    EXPECT_EQ(files().size(), zelsend::maxPoints - 1 + 2);
}

TEST_F(StateDirectoryTest, BlocksThatAStreamDidNotBringAreOwedToItsHolderOnly)
{
    makeThreePoints();
    {
        StateDirectory directory;
        ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
        BlockBits unread;
        ASSERT_TRUE(unread.create(blocks));
        unread.set(40);
        ASSERT_TRUE(directory.keepUnread(unread));
        ASSERT_TRUE(add(&directory, 4));
    }
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
    EXPECT_EQ(changesSince(directory, 3), (Blocks{4, 40}));
    EXPECT_EQ(changesSince(directory, 2), (Blocks{3, 4}));
}

TEST_F(StateDirectoryTest, ASecondOneForTheSameDeviceIsRefused)
{
    StateDirectory first;
    ASSERT_TRUE(first.open(root.path().c_str(), 8, 1));
    StateDirectory second;
    Outcome outcome = second.open(root.path().c_str(), 8, 1);
    EXPECT_EQ(outcome.code, ExitCode::Refused);
    EXPECT_STREQ(outcome.text, "another zelsend is at work on device 8:1");
    StateDirectory other;
    EXPECT_TRUE(other.open(root.path().c_str(), 8, 2));
}

TEST_F(StateDirectoryTest, OneBackupOfAnyDeviceExcludesTheOthers)
{
    StateDirectory second;
    ASSERT_TRUE(second.open(root.path().c_str(), 8, 2));
    {
        StateDirectory first;
        ASSERT_TRUE(first.open(root.path().c_str(), 8, 1));
        ASSERT_TRUE(first.lockAll(root.path().c_str()));
        Outcome outcome = second.lockAll(root.path().c_str());
        EXPECT_EQ(outcome.code, ExitCode::Refused);
        EXPECT_STREQ(outcome.text, "another zelsend is at work on another device");
    }
    StateDirectory third;
    EXPECT_TRUE(third.lockAll(root.path().c_str()));
    Outcome outcome = StateDirectory().lockAll((root.path() / "no/such").c_str());
    EXPECT_EQ(outcome.code, ExitCode::FellShort);
}

TEST_F(StateDirectoryTest, ADirectoryThatCannotBeMadeIsAFailure)
{
    StateDirectory directory;
    Outcome outcome = directory.open((root.path() / "no/such").c_str(), 8, 1);
    EXPECT_EQ(outcome.code, ExitCode::FellShort);
    EXPECT_NE(std::string(outcome.text).find("No such file or directory"), std::string::npos);
}

TEST_F(StateDirectoryTest, AnyFlippedByteOfTheStateIsFound)
{
    makeThreePoints();
    std::string name = device() + "/state";
    std::ifstream file(name, std::ios::binary);
    std::string good(std::istreambuf_iterator<char>(file), {});
    ASSERT_EQ(good.size(), sizeof(zelsend::DeviceState));
    for (std::size_t i = 0; i <= good.size(); i++) {
        std::string bad = good;
        if (i < good.size()) {
            bad[i] = static_cast<char>(bad[i] ^ 0x10);
        } else {
            bad.pop_back();
        }
        std::ofstream(name, std::ios::binary) << bad;
        StateDirectory directory;
        ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
        ASSERT_TRUE(directory.wasDamaged()) << i;
        ASSERT_FALSE(directory.hasKey()) << i;
    }
}

TEST_F(StateDirectoryTest, ADamagedOrMissingMapIsFound)
{
    makeThreePoints();
    std::string name = device() + "/map-02000000000000000000000000000000";
    StateDirectory directory;
    ASSERT_TRUE(directory.open(root.path().c_str(), 8, 1));
    BlockBits bits;
    ASSERT_TRUE(bits.create(blocks));
    {
        std::fstream file(name, std::ios::binary | std::ios::in | std::ios::out);
        file.put('\x7f');
    }
    EXPECT_FALSE(directory.collectChanges(0, &bits));
    EXPECT_TRUE(directory.collectChanges(1, &bits));
    std::filesystem::remove(name);
    EXPECT_FALSE(directory.collectChanges(0, &bits));
}

// Whatever call of addPoint fails for good, the disk holds the old points or the new ones.
TEST_F(StateDirectoryTest, AFullDiskLeavesTheOldStateOrTheNew)
{
    makeThreePoints();
    int calls = 0;
    for (int call = 1; calls == 0 || call <= calls; call++) {
        TemporaryDirectory copy;
        std::filesystem::copy(root.path(), copy.path() / "root",
                              std::filesystem::copy_options::recursive);
        std::string path = copy.path() / "root";
        bool failed;
        {
            StateDirectory directory;
            ASSERT_TRUE(directory.open(path.c_str(), 8, 1));
            test::startFaultyCalls(calls == 0 ? test::Fault::None : test::Fault::Fail, call);
            failed = !add(&directory, 4);
            int made = test::stopFaultyCalls();
            if (calls == 0) {
                ASSERT_FALSE(failed);
                calls = made;
                call = 0;
                ASSERT_GE(calls, 8); // write, fsync, rename and fsync of two files
                continue;
            }
        }
        StateDirectory directory;
        ASSERT_TRUE(directory.open(path.c_str(), 8, 1));
        ASSERT_FALSE(directory.wasDamaged()) << call;
        bool isNew = directory.find(id(4)) >= 0;
        EXPECT_EQ(changesSince(directory, 1), isNew ? (Blocks{2, 3, 4}) : (Blocks{2, 3})) << call;
        EXPECT_EQ(directory.state().sessionKey.key[0], isNew ? 4 : 3) << call;
        EXPECT_TRUE(failed || isNew) << call;
    }
}
