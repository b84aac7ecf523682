// Upon which point a backup builds, and why it is full where it builds upon none.
#include <fstream>
#include <gtest/gtest.h>

#include "support/backupFixture.h"

using ParentTest = test::BackupTest;
using test::ReadStream;
using test::readStream;
using test::SenderResult;
using test::SenderRun;
using test::Set;

TEST_F(ParentTest, AfterAReloadOfTheModuleItIsFull)
{
    backUp();
    device.reload();
    device.write(3, 333); // not seen by anyone
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(stream.header.reason, "the module does not track the device; it was loaded anew");
    EXPECT_EQ(receiver.image(), device.image());
    EXPECT_EQ(backUp().header.kind, zel::StreamKind::Incremental);
}

TEST_F(ParentTest, AfterLosingSyncItIsFull)
{
    backUp();
    device.loseSync();
    device.write(3, 333);
    ReadStream stream = backUp();
    EXPECT_STREQ(stream.header.reason, "the module's tracking fell out of sync");
    EXPECT_EQ(receiver.image(), device.image());
}

TEST_F(ParentTest, LosingSyncBetweenTheQueryAndTheSnapshotIsNoticed)
{
    backUp();
    device.before = [&](std::uint32_t command) {
        if (command == ZEL_SNAP_SHOT) {
            device.loseSync();
            device.write(3, 333);
        }
    };
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(stream.header.reason, "the module's tracking fell out of sync");
    EXPECT_EQ(receiver.image(), device.snapshotImage());
}

TEST_F(ParentTest, AForeignSnapshotMakesItFull)
{
    backUp();
    device.write(3, 333);
    SenderRun other(&device); // with a state directory of its own
    EXPECT_EQ(other({}).exitCode, 0);
    device.write(4, 444);
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(stream.header.reason,
                 "the session key differs: a snapshot was taken that is not known here");
    EXPECT_EQ(receiver.image(), device.image());
    // The module answered 0 and did nothing, so a fresh open had to do it.
    EXPECT_EQ(device.snapshots(), 3U);
    EXPECT_EQ(backUp().header.kind, zel::StreamKind::Incremental);
}

TEST_F(ParentTest, AfterAResizeItIsFull)
{
    backUp();
    device.resize(1010);
    device.write(1005, 1);
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.numBlocks, 1010U);
    EXPECT_STREQ(stream.header.reason,
                 "the device was resized from 1000 blocks of 1024 bytes to 1010 of 1024");
    EXPECT_EQ(receiver.image(), device.image());
    device.write(1006, 2);
    EXPECT_EQ(blocksOf(backUp()), Set{1006});
}

TEST_F(ParentTest, AfterAChangeOfTheBlockSizeItIsFull)
{
    backUp();
    device.reformat(2048);
    device.write(3, 333);
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(stream.header.reason,
                 "the device was resized from 1000 blocks of 1024 bytes to 1000 of 2048");
    EXPECT_EQ(receiver.image(), device.image());
    device.write(4, 444);
    EXPECT_EQ(blocksOf(backUp()), Set{4});
    EXPECT_EQ(receiver.image(), device.image());
}

TEST_F(ParentTest, PointsOfAnotherBlockSizeAreForgotten)
{
    std::string first = backUp().id();
    device.reformat(2048);
    EXPECT_EQ(send({}).exitCode, 0);
    ReadStream stream = readStream(send({"--parent", first}).stream);
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
}

TEST_F(ParentTest, NamingAParentLetsGoOfOlderPoints)
{
    std::string first = backUp().id();
    backUp();
    std::string third = backUp().id(); // names the second
    EXPECT_EQ(readStream(send({"--parent", first}).stream).header.kind, zel::StreamKind::Full);
    EXPECT_EQ(readStream(send({"--parent", third}).stream).parent(), third);
    // A full stream for want of a parent leaves the points as they are; so does --full.
    EXPECT_EQ(readStream(send({}).stream).parent(), third);
}

TEST_F(ParentTest, AskedForItIsFullAndTheNextCanStillBuildUponEitherPoint)
{
    std::string first = backUp().id();
    device.write(1, 11);
    ReadStream full = backUp({"--full"});
    EXPECT_STREQ(full.header.reason, "asked for");
    EXPECT_EQ(full.header.kind, zel::StreamKind::Full);
    device.write(2, 22);
    // The full stream was lost after all.
    receiver.fallBackTo(first);
    EXPECT_EQ(blocksOf(backUp()), (Set{1, 2}));
    EXPECT_EQ(receiver.image(), device.image());
}

TEST_F(ParentTest, WithoutAConfirmationItStaysFull)
{
    EXPECT_EQ(send({}).exitCode, 0);
    ReadStream stream = readStream(send({}).stream);
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(stream.header.reason, "no earlier stream was confirmed");
}

TEST_F(ParentTest, BuildsUponTheStreamThatWasConfirmed)
{
    ReadStream first = readStream(send({}).stream);
    EXPECT_STREQ(first.header.reason, "there is no earlier stream");
    SenderResult confirmed = send({"--confirm", first.id()});
    EXPECT_EQ(confirmed.exitCode, 0);
    EXPECT_EQ(confirmed.messages, "zelsend: confirmed " + first.id() + "\n");
    EXPECT_EQ(confirmed.stream, "");
    device.write(1, 11);
    ReadStream lost = readStream(send({}).stream);
    EXPECT_EQ(lost.parent(), first.id());
    device.write(2, 22);
    ReadStream second = readStream(send({}).stream);
    EXPECT_EQ(second.parent(), first.id());
    EXPECT_EQ(blocksOf(second), (Set{1, 2}));
}

TEST_F(ParentTest, AConfirmedStreamThatFellOutOfTheListMakesItFull)
{
    ReadStream first = readStream(send({}).stream);
    EXPECT_EQ(send({"--confirm", first.id()}).exitCode, 0);
    for (int i = 0; i < 15; i++) {
        EXPECT_EQ(readStream(send({}).stream).parent(), first.id()) << i;
    }
    // This one still builds upon it, and pushes it out.
    EXPECT_EQ(readStream(send({}).stream).parent(), first.id());
    ReadStream next = readStream(send({}).stream);
    EXPECT_EQ(next.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(next.header.reason, "the last confirmed stream is too old");
}

TEST_F(ParentTest, ToConfirmAnUnknownStreamIsAnError)
{
    std::string unknown(32, 'a');
    SenderResult result = send({"--confirm", unknown});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.messages, "zelsend: stream " + unknown + " of device 8:1 is not known here\n");
}

TEST_F(ParentTest, AnUnknownParentMakesItFull)
{
    backUp();
    ReadStream stream = readStream(send({"--parent", std::string(32, 'b')}).stream);
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_EQ(stream.header.reason, "stream " + std::string(32, 'b') + " is not known here");
}

TEST_F(ParentTest, DamagedStateMakesItFull)
{
    backUp();
    std::ofstream(send.state() / "8-1/state") << "rubbish";
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_STREQ(stream.header.reason, "the state directory is damaged");
    EXPECT_EQ(backUp().header.kind, zel::StreamKind::Incremental);
}

TEST_F(ParentTest, ADamagedMapMakesItFull)
{
    std::string first = backUp().id();
    device.write(1, 11);
    std::string second = backUp().id();
    std::ofstream(send.state() / ("8-1/map-" + second)) << "rubbish";
    device.write(2, 22);
    receiver.fallBackTo(first);
    // Naming the first again; it is known, as only the last --parent let go of what is older.
    ReadStream stream = backUp();
    EXPECT_STREQ(stream.header.reason, "a kept change map is missing or damaged");
    EXPECT_EQ(receiver.image(), device.image());
    EXPECT_EQ(backUp().header.kind, zel::StreamKind::Incremental);
}
