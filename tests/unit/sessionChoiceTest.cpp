// Which change-tracking session a snapshot goes on with, and how a session ends.
#include <set>
#include <string>
#include <vector>

#include <host/faults.h>
#include <host/memory.h>

#include "kernel/host/blockInternal.h"
#include "support/backupRun.h"
#include "users.h"

namespace
{

using host::Fault;
using test::BackupRun;
using test::eventually;
using test::functionOf;
using test::Lines;
using test::ModuleRun;
using test::OpenRecord;
using test::ownFunctionOf;
using test::startBackup;
using test::stateOf;
using test::takeLog;

class SessionChoice : public test::ModuleTest
{
};

/* What is looked at first. */

TEST_F(SessionChoice, NotToTrackWinsOverNotToLoad)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.track(1);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(ioctlNoLoadFromAutoMap(backup.b()), 0);
        ASSERT_EQ(ioctlNoStartAutoMap(backup.b()), 0);
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(backup.session(), nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    });
}

TEST_F(SessionChoice, TheKeyOfASessionOutOfSyncIsNotAskedFor)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        setAMSState(backup.session(), AMS_NOT_IN_SYNC);
        ASSERT_EQ(backup.start(), 0);
        AMSessionKey wrong = key;
        wrong.key[0] ^= 1;
        EXPECT_EQ(backup.snap(wrong), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(amsState(backup.session()), unsigned{AMS_IN_SYNC});
        EXPECT_FALSE(backup.session()->sessionKey == key);
    });
}

TEST_F(SessionChoice, AWrongKeyIsToldBeforeAnotherSize)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey wrong = backup.track(1);
        wrong.key[0] ^= 1;
        ASSERT_EQ(startBackup(backup.record, backup.disk.device(), backup.disk.blocks() + 1, 10),
                  0);
        AutoMapSession *ams = backup.session();
        takeLog();
        EXPECT_EQ(backup.snap(wrong), 0);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: session key mismatch\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(backup.session(), ams);
        EXPECT_EQ(amsState(ams), unsigned{AMS_IN_SYNC});
    });
}

// The two numbers of the message are the halves of the device's count.
TEST_F(SessionChoice, SizesAreComparedIn64Bits)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        AMSessionKey key = backup.track(1);
        ASSERT_EQ(backup.start(), 0);
        backup.b()->diskInfo.numBlocks += u64{7} << 32;
        takeLog();
        EXPECT_EQ(backup.snap(key), 0);
        EXPECT_EQ(takeLog(), (Lines{"<4>ioctlSnapShot: device resize detected, device has (" +
                                        std::to_string(backup.disk.blocks()) +
                                        ") blocks and automap has (7), resetting automap\n",
                                    "<3>ioctlSnapShot: Going to freez: 8.1\n"}));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
        EXPECT_EQ(backup.b()->blockMap.map, nullptr);
    });
}

/* Keys. */

// By chance a byte is the same in all of them once in 256 to the power of 5.
TEST_F(SessionChoice, EveryByteOfAKeyIsRandom)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        std::vector<AMSessionKey> keys;
        for (int i = 0; i < 6; i++) {
            OpenRecord record;
            ASSERT_EQ(startBackup(record, backup.disk.device(), backup.disk.blocks(), 10), 0);
            ASSERT_EQ(ioctlNoLoadFromAutoMap(record.get()), 0);
            AMSessionKey none{};
            auto *key = run.user<AMSessionKey>(run.put(&none, sizeof(none)));
            ASSERT_EQ(ioctlSnapShot(record.get(), key, sizeof(none)), 0);
            keys.push_back(backup.session()->sessionKey);
        }
        for (unsigned at = 0; at < sizeof(AMSessionKey); at++) {
            std::set<unsigned> values;
            for (const AMSessionKey &key : keys)
                values.insert(key.key[at]);
            EXPECT_GT(values.size(), 1u) << at;
        }
    });
}

/* Without memory. */

TEST_F(SessionChoice, ASessionThatCannotBeReplacedIsGoneAllTheSame)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.track(1);
        ASSERT_EQ(backup.start(), 0);
        ASSERT_EQ(ioctlNoLoadFromAutoMap(backup.b()), 0);
        takeLog();
        host::clearFaults();
        host::failNth(Fault::kmalloc, 1);
        EXPECT_EQ(backup.snap(), 5);
        host::clearFaults();
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: new automap failed\n"}));
        EXPECT_EQ(backup.session(), nullptr);
        struct request_queue *q = backup.disk.disk().queue();
        EXPECT_EQ(functionOf(q), ownFunctionOf(q));
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        EXPECT_EQ(backup.snap(), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_SNAPPED});
    });
}

TEST_F(SessionChoice, WithoutAMapTheNewSessionIsLost)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        ASSERT_EQ(backup.start(), 0);
        takeLog();
        host::clearFaults();
        host::failNth(Fault::page, 1);
        EXPECT_EQ(backup.snap(), 5);
        host::clearFaults();
        EXPECT_EQ(takeLog(),
                  (Lines{"<3>newBlockMap: failed allocating page number (0) for block map\n",
                         "<3>newBlockMap: Out of Memory Error.\n",
                         "<3>newAMS: failed to create new device map\n",
                         "<3>ioctlSnapShot: new automap failed\n"}));
        EXPECT_EQ(backup.session(), nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        EXPECT_EQ(stateOf(backup), unsigned{BACKUP_STARTED});
        backup.record.close();
        // Its record, and nothing else.
        EXPECT_EQ(host::memoryUse().kmallocs, 1u);
        EXPECT_EQ(host::memoryUse().kmallocBytes, sizeof(AutoMapSession));
        host::forgiveHeldMemory();
    });
}

/* The end of a session. */

TEST_F(SessionChoice, ASessionIsUnhookedBeforeItsUsersAreWaitedFor)
{
    withModule([](ModuleRun &run) {
        BackupRun backup(run);
        backup.track(1);
        struct request_queue *q = backup.disk.disk().queue();
        ASSERT_EQ(functionOf(q), zelAMRF);
        AutoMapSession *ams = getAMS(backup.disk.major(), backup.disk.minor());
        ASSERT_EQ(ams, backup.session());
        host::Task closer = host::spawn("closer", [] { closeAllAMS(); });
        EXPECT_TRUE(eventually([&] { return functionOf(q) == ownFunctionOf(q); }));
        EXPECT_FALSE(closer.ended());
        // It is still all there for the one who uses it.
        EXPECT_EQ(ams->map.size, backup.disk.blocks());
        EXPECT_EQ(setBlock(&ams->map, 5), 0);
        leaveUsers(&ams->users);
        closer.join();
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    });
}

} // namespace
