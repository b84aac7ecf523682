#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>

#include "agent/signals.h"
#include "support/backupFixture.h"

using test::BackupTest;
using test::FakeDevice;
using test::ReadStream;
using test::readStream;
using test::Receiver;
using test::SenderResult;
using test::SenderRun;
using test::Set;

TEST_F(BackupTest, TheFirstIsFullAndSaysSo)
{
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Full);
    EXPECT_EQ(stream.header.blockSize, 1024U);
    EXPECT_EQ(stream.header.numBlocks, 1000U);
    EXPECT_EQ(stream.header.partitionSizeKb, 1000U);
    EXPECT_EQ(stream.header.major, 8U);
    EXPECT_EQ(stream.header.minor, 1U);
    EXPECT_STREQ(stream.header.device, FakeDevice::path);
    EXPECT_STREQ(stream.header.reason, "the receiver holds no earlier stream");
    EXPECT_GT(stream.header.snapshotSeconds, 1700000000);
    EXPECT_EQ(receiver.image(), device.snapshotImage());
    EXPECT_EQ(stream.end->zeroBlocks, 250U);
    EXPECT_EQ(messages, "zelsend: changed 1000 of 1000 blocks (full: the receiver holds no earlier "
                        "stream)\nzelsend: sent " +
                            stream.id() + ": 1000 blocks, " +
                            std::to_string(stream.end->streamBytes) + " bytes\n");
}

TEST_F(BackupTest, TheNextBringsJustWhatWasWritten)
{
    std::string first = backUp().id();
    device.write(17, 5000);
    device.write(18, 0);
    device.write(999, 5001);
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Incremental);
    EXPECT_EQ(stream.parent(), first);
    EXPECT_STREQ(stream.header.reason, "");
    EXPECT_EQ(blocksOf(stream), (Set{17, 18, 999}));
    EXPECT_EQ(receiver.image(), device.image());
    EXPECT_EQ(messages.substr(0, messages.find('\n')),
              "zelsend: changed 3 of 1000 blocks (incremental)");
}

TEST_F(BackupTest, NothingChangedMakesAPointWithoutExtents)
{
    backUp();
    ReadStream stream = backUp();
    EXPECT_EQ(stream.header.kind, zel::StreamKind::Incremental);
    EXPECT_TRUE(stream.extents.empty());
    EXPECT_EQ(receiver.image(), device.image());
}

TEST_F(BackupTest, WritesDuringTheBackupDoNotShowInItAndAreInTheNext)
{
    std::uint32_t number = 100000;
    Set written;
    device.before = device.after = [&](std::uint32_t command) {
        if (command == ZEL_READ_BLOCKS || command == ZEL_LOAD_BLOCK_MAP ||
            command == ZEL_GET_DIRTY_BLOCK) {
            for (std::uint32_t i = 0; i < 7; i++, number++) {
                device.write(number * 37 % 1000, number);
                if (device.snapshots() == 1) {
                    written.insert(number * 37 % 1000);
                }
            }
        }
    };
    backUp();
    EXPECT_EQ(receiver.image(), device.snapshotImage());
    EXPECT_NE(receiver.image(), device.image());
    ReadStream second = backUp();
    EXPECT_EQ(blocksOf(second), written);
    EXPECT_EQ(receiver.image(), device.snapshotImage());
}

TEST_F(BackupTest, DrainsTheCacheBeforeItReadsOn)
{
    // Room for 3; without draining, the fourth write would spoil the backup.
    std::uint32_t block = 999;
    device.before = [&](std::uint32_t command) {
        if (command == ZEL_GET_DIRTY_BLOCK && block > 990) {
            device.write(block--, 7777);
        }
    };
    ReadStream stream = backUp({"--cache", "3"});
    EXPECT_EQ(stream.extents.front().firstBlock, 999U);
    EXPECT_EQ(receiver.image(), device.snapshotImage());
}

TEST_F(BackupTest, TheCacheIs64MiBUnlessSaid)
{
    backUp();
    EXPECT_EQ(device.lastMaxCacheBlocks(), 65536U);
    backUp({"--cache", "12"});
    EXPECT_EQ(device.lastMaxCacheBlocks(), 12U);
}

TEST_F(BackupTest, ACacheThatIsFullSpoilsItAndTheNextIsFull)
{
    std::string first = backUp().id();
    device.write(5, 1);
    device.write(6, 1);
    device.after = [&](std::uint32_t command) {
        if (command == ZEL_LOAD_BLOCK_MAP) {
            device.write(5, 2);
            device.write(6, 2);
        }
    };
    SenderResult result = send({"--cache", "1", "--parent", first});
    device.after = [](std::uint32_t) {};
    EXPECT_EQ(result.exitCode, 3);
    ReadStream stream = readStream(result.stream);
    ASSERT_TRUE(stream.abort);
    EXPECT_STREQ(stream.abort->reason,
                 "the backup is spoilt: the cache for old contents is full (see --cache) or memory "
                 "ran out (state 10)");
    EXPECT_NE(result.messages.find(stream.abort->reason), std::string::npos);
    EXPECT_EQ(device.openFiles(), 0U);

    ReadStream next = backUp();
    EXPECT_STREQ(next.header.reason, "the module's tracking fell out of sync");
    EXPECT_EQ(receiver.image(), device.image());
}

// The read answers 0, and only the state afterwards tells that a write was not held.
TEST_F(BackupTest, DataReadWhileTheBackupWasSpoiltIsNotSent)
{
    beforeRead(2, [&] {
        device.spoil(BACKUP_ERR_QUEUE);
        device.answerNext(ZEL_READ_BLOCKS, 0);
    });
    SenderResult result = send({});
    EXPECT_EQ(result.exitCode, 3);
    ReadStream stream = readStream(result.stream);
    ASSERT_TRUE(stream.abort);
    EXPECT_EQ(stream.blocks.size(), 256U);
}

TEST_F(BackupTest, EachSpoiltStateIsNamed)
{
    const std::pair<std::uint32_t, const char *> states[] = {
        {BACKUP_ERR_READ, "old contents could not be read before they were overwritten"},
        {BACKUP_ERR_CACHE, "the cache for old contents is full"},
        {BACKUP_REJECTED, "another backup was started"},
        {BACKUP_ERR_QUEUE, "the kernel had no memory to hold a write back"},
        {BACKUP_CLOSING, "the module ended it"},
    };
    for (auto [state, text] : states) {
        beforeRead(1, [&, state = state] { device.spoil(state); });
        SenderResult result = send({});
        EXPECT_EQ(result.exitCode, 3);
        EXPECT_NE(result.messages.find(text), std::string::npos) << result.messages;
        EXPECT_TRUE(readStream(result.stream).abort);
    }
}

TEST_F(BackupTest, SpoiltBeforeTheMapIsLoadedNothingIsSent)
{
    device.after = [&](std::uint32_t command) {
        if (command == ZEL_SNAP_SHOT) {
            device.spoil(BACKUP_ERR_CACHE);
        }
    };
    SenderResult result = send({});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.stream, "");
    EXPECT_NE(result.messages.find("spoilt"), std::string::npos);

    device.after = [&](std::uint32_t command) {
        if (command == ZEL_GET_AUTO_MAP_STATE) {
            device.spoil(BACKUP_ERR_CACHE);
        }
    };
    result = send({});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.stream, "");
    EXPECT_NE(result.messages.find("spoilt"), std::string::npos);
}

TEST_F(BackupTest, UnreadableBlocksAreMarkedAndTheRestIsRight)
{
    for (std::uint32_t block : {100U, 101U, 300U, 999U}) {
        device.setUnreadable(block, true);
    }
    ReadStream stream = backUp({}, 3);
    EXPECT_EQ(stream.unreadable, (Set{100, 101, 300, 999}));
    // Zeros of the same runs: they read as zeros again, which proves nothing.
    EXPECT_TRUE(stream.doubtful.contains(103));
    std::string expected = device.image();
    for (std::uint32_t block : stream.unreadable) {
        expected.replace(block * 1024, 1024, std::string(1024, '\0'));
    }
    EXPECT_EQ(receiver.image(), expected);
    EXPECT_NE(messages.find("4 blocks are unreadable and"), std::string::npos) << messages;
}

TEST_F(BackupTest, UnreadableBlocksAreSentAgainUntilTheyCanBeRead)
{
    for (std::uint32_t i = 0; i < 1000; i++) {
        device.write(i, i + 1);
    }
    device.setUnreadable(100, true);
    device.setUnreadable(200, true);
    EXPECT_TRUE(backUp({}, 3).doubtful.empty());
    device.setUnreadable(100, false);
    ReadStream second = backUp({}, 3);
    EXPECT_EQ(second.header.kind, zel::StreamKind::Incremental);
    EXPECT_EQ(blocksOf(second), (Set{100, 200}));
    EXPECT_EQ(second.unreadable, Set{200});
    device.setUnreadable(200, false);
    EXPECT_EQ(blocksOf(backUp()), Set{200});
    EXPECT_EQ(receiver.image(), device.image());
    EXPECT_EQ(blocksOf(backUp()), Set{});
}

// The block fails, then the file system overwrites it with zeros (and the disk repairs it), then
// it can be read: zeros, but not those of the snapshot.
TEST_F(BackupTest, ABlockThatHealsAfterItFailedStaysInDoubt)
{
    for (std::uint32_t i = 0; i < 1000; i++) {
        device.write(i, i + 1);
    }
    device.setUnreadable(10, true);
    device.after = [&, reads = 0](std::uint32_t command) mutable {
        if (command == ZEL_READ_BLOCKS && ++reads == 1) {
            device.setUnreadable(10, false);
            device.write(10, 0);
        }
    };
    ReadStream stream = backUp({}, 3);
    EXPECT_EQ(stream.unreadable, Set{});
    EXPECT_EQ(stream.doubtful, Set{10});
    device.after = [](std::uint32_t) {};
    EXPECT_EQ(blocksOf(backUp()), Set{10});
    EXPECT_EQ(receiver.image(), device.image());
}

TEST_F(BackupTest, ARunOfOneUnreadableBlockNeedsNoSecondReading)
{
    backUp();
    device.write(500, 1);
    device.setUnreadable(500, true);
    ReadStream stream = backUp({}, 3);
    EXPECT_EQ(stream.unreadable, Set{500});
}

TEST_F(BackupTest, BlockCountsThatDoNotFillAByteWork)
{
    for (std::uint32_t count : {1U, 9U, 1001U, 1007U}) {
        FakeDevice odd(count, 1024);
        SenderRun sendOdd(&odd);
        std::string first = readStream(sendOdd({}).stream).id();
        odd.write(count - 1, 77);
        ReadStream second = readStream(sendOdd({"--parent", first}).stream);
        EXPECT_EQ(second.header.kind, zel::StreamKind::Incremental);
        EXPECT_EQ(blocksOf(second), Set{count - 1});
        EXPECT_EQ(second.header.sentBlocks, 1U);
    }
}

TEST_F(BackupTest, ATailShorterThanABlockIsLeftOut)
{
    FakeDevice odd(10, 4096);
    odd.setTail(3);
    SenderRun sendOdd(&odd);
    ReadStream stream = readStream(sendOdd({}).stream);
    EXPECT_EQ(stream.header.numBlocks, 10U);
    EXPECT_EQ(stream.header.partitionSizeKb, 43U);
}

TEST_F(BackupTest, EveryBlockSizeWorks)
{
    for (std::uint32_t size : {512U, 1024U, 2048U, 4096U}) {
        FakeDevice sized(600, size);
        SenderRun sendSized(&sized);
        Receiver taker;
        ASSERT_TRUE(taker.take(sendSized({}).stream)) << size;
        EXPECT_EQ(taker.image(), sized.image()) << size;
    }
}

TEST_F(BackupTest, ADeviceThatIsNotThereIsRefused)
{
    SenderResult result = send({"/dev/nothing"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.messages, "zelsend: /dev/nothing: No such file or directory\n");
    result = send({"8:2"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.messages,
              "zelsend: the device was refused: no file system is mounted on the device, or the "
              "kernel log says why it cannot be backed up (8)\n");
    device.unmount();
    EXPECT_EQ(send({"8:1"}).exitCode, 4);
    EXPECT_EQ(send({"--control", "/dev/none"}).messages,
              "zelsend: /dev/none: No such file or directory\n");
    EXPECT_EQ(device.openFiles(), 0U);
}

// Its close would end the running backup, and nothing would tell.
TEST_F(BackupTest, ABackupOfAnotherDeviceIsRefusedBeforeItOpensTheModule)
{
    SenderResult other = {};
    std::size_t commands = 0;
    beforeRead(2, [&] {
        commands = device.commands().size();
        other = send({"8:2"});
        commands = device.commands().size() - commands;
    });
    backUp();
    EXPECT_EQ(other.exitCode, 4);
    EXPECT_EQ(other.messages, "zelsend: another zelsend is at work on another device\n");
    EXPECT_EQ(commands, 0U);
    EXPECT_EQ(receiver.image(), device.snapshotImage());
}

// Every answer that a command of a first backup can give besides 0 ends it, with a code that says
// so, and whatever was opened is closed.
TEST_F(BackupTest, EveryRefusedCommandEndsIt)
{
    const std::uint32_t commands[] = {
        ZEL_GET_BLOCK_SIZE,     ZEL_START_BACKUP,       ZEL_SNAP_SHOT,   ZEL_GET_STATE,
        ZEL_GET_AUTO_MAP_STATE, ZEL_LOAD_BLOCK_MAP,     ZEL_READ_BLOCKS, ZEL_NO_LOAD_FROM_AUTO_MAP,
        ZEL_GET_DIRTY_BLOCK,    FakeDevice::mapCommand,
    };
    for (std::uint32_t command : commands) {
        for (int answer : {1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 77, -EFAULT, -EINTR}) {
            SenderRun first(&device); // knows no session key yet
            device.answerNext(command, answer);
            SenderResult result = first();
            EXPECT_EQ(result.exitCode, 4) << std::hex << command << " answering " << answer;
            EXPECT_NE(result.messages.find("refused"), std::string::npos) << result.messages;
            EXPECT_NE(result.messages.find("(" + std::to_string(answer) + ")"), std::string::npos);
            EXPECT_EQ(device.openFiles(), 0U);
            EXPECT_FALSE(receiver.take(result.stream));
        }
    }
}

TEST_F(BackupTest, AFailedFetchOfTheMapLosesNothing)
{
    backUp();
    device.write(1, 11);
    device.answerNext(ZEL_GET_AUTO_MAP, ZEL_RESULT_COPY_OUT_FAILED);
    EXPECT_EQ(send({"--parent", receiver.newest()}).exitCode, 4);
    backUp();
    EXPECT_EQ(receiver.image(), device.image());
}

TEST_F(BackupTest, AFailedSnapshotLosesNothing)
{
    backUp();
    device.write(1, 11);
    device.before = [&](std::uint32_t command) {
        if (command == ZEL_SNAP_SHOT) {
            device.unmount(); // the key is renewed, then the freeze fails
        }
    };
    SenderResult result = send({"--parent", receiver.newest()});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.stream, "");
}

TEST_F(BackupTest, AnInterruptGivesTheStreamUp)
{
    beforeRead(2, [] { zelsend::stopRequested = 1; });
    SenderResult result = send({});
    zelsend::stopRequested = 0;
    EXPECT_EQ(result.exitCode, 130);
    ReadStream stream = readStream(result.stream);
    ASSERT_TRUE(stream.abort);
    EXPECT_EQ(stream.abort->exitCode, 130U);
    EXPECT_STREQ(stream.abort->reason, "interrupted");
    EXPECT_EQ(device.openFiles(), 0U);
}

TEST_F(BackupTest, AReaderThatGoesAwayIsAFailure)
{
    SenderResult result = send.withReaderOf(10000, {});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.messages.substr(result.messages.find('\n') + 1),
              "zelsend: the stream could not be written: Broken pipe\n");
    EXPECT_EQ(device.openFiles(), 0U);
}

TEST_F(BackupTest, OldContentsThatArriveAfterTheDeliveryAreCleared)
{
    device.before = [&, asked = 0](std::uint32_t command) mutable {
        if (command != ZEL_GET_DIRTY_BLOCK) {
            return;
        }
        asked++;
        if (asked == 3) {
            device.strandInCache(0);
        } else if (asked == 4) {
            EXPECT_EQ(device.cachedBlocks(), 0U);
        }
    };
    backUp();
    EXPECT_EQ(receiver.image(), device.snapshotImage());
}

TEST_F(BackupTest, JsonMakesEveryLineAnObject)
{
    SenderResult result = send({"--json"});
    ReadStream stream = readStream(result.stream);
    EXPECT_EQ(result.messages,
              "{\"event\":\"begin\",\"kind\":\"full\",\"changed\":1000,\"blocks\":1000,"
              "\"reason\":\"there is no earlier stream\"}\n"
              "{\"event\":\"finished\",\"id\":\"" +
                  stream.id() + "\",\"sent\":1000,\"unreadable\":0,\"doubtful\":0,\"bytes\":" +
                  std::to_string(result.stream.size()) + "}\n");
    EXPECT_EQ(send({"--json", "/dev/\"x\\\n\xff"}).messages,
              "{\"event\":\"error\",\"exitCode\":4,\"message\":\"/dev/\\\"x\\\\??: No such file or "
              "directory\"}\n");
    EXPECT_EQ(send({"--json", "--confirm", stream.id()}).messages,
              "{\"event\":\"confirmed\",\"id\":\"" + stream.id() + "\"}\n");
}

TEST_F(BackupTest, QuietSaysOnlyErrors)
{
    EXPECT_EQ(send({"-q"}).messages, "");
    EXPECT_NE(send({"-q", "8:9"}).messages, "");
}

TEST_F(BackupTest, ProgressIsSilentButForASignal)
{
    beforeRead(3, [] { zelsend::progressRequested = 1; });
    SenderResult result = send({});
    EXPECT_NE(result.messages.find("zelsend: 768 of 1000 blocks (76%), 0 MiB\n"), std::string::npos)
        << result.messages;
    EXPECT_EQ(std::count(result.messages.begin(), result.messages.end(), '\n'), 3);
    beforeRead(3, [] { zelsend::progressRequested = 1; });
    EXPECT_NE(send({"--json"})
                  .messages.find(
                      "{\"event\":\"progress\",\"done\":768,\"changed\":1000,\"bytes\":589824}\n"),
              std::string::npos);
}
