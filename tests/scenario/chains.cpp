// Chains of full and incremental backups.
#include "chain.h"

namespace scenario
{
namespace
{

void fullAndIncremental(Environment &env)
{
    std::uint32_t places = env.places(0);
    Chain chain(env, 0);
    env.write(0, 3, 5);
    chain.takeFull([&](test::Agent &) {
        env.write(0, 0, 40); // while every block is still to be read
        env.sync(0);
    });
    env.write(0, places - 2, 2);
    std::vector<std::uint32_t> written = {places - 2, places - 1};
    for (std::uint32_t place = 0; place < 40; place++)
        written.push_back(place);
    for (std::uint32_t round = 0; round < 4; round++) {
        std::uint32_t during = 20 + 7 * round;
        Chain::Point point = chain.takeIncremental([&](test::Agent &) {
            env.write(0, during, 3);
            env.sync(0);
        });
        chain.expectChanged(point, written);
        env.write(0, 100 + round, 1);
        written = {during, during + 1, during + 2, 100 + round};
    }
    chain.expectChanged(chain.takeIncremental(), written);
    chain.expectChanged(chain.takeIncremental(), {}); // nobody wrote
    expectNoLostWrites(env, 0);
}

// An agent that lost its key is told by the state, and can start over.
void lostKey(Environment &env)
{
    Chain(env, 0).takeFull();
    env.write(0, 9, 1);
    test::Agent agent;
    expectEqual(agent.begin(env.device(0)), 0, "the result of SnapShot with another key");
    expectEqual(stateOf(agent), BACKUP_STARTED, "the state after it");
    agent.close();
    Chain afresh(env, 0);
    afresh.takeFull();
    env.write(0, 10, 1);
    afresh.expectChanged(afresh.takeIncremental(), {10});
}

void endOfTracking(Environment &env)
{
    Chain chain(env, 0);
    chain.takeFull();
    test::Agent agent;
    expectEqual(agent.noStartAutoMap(), 0, "the result of NoStartAutoMap");
    expectEqual(agent.begin(env.device(0), chain.key()), 0, "the result of beginning a backup");
    AutoMapState session{};
    session.mapLen = 1;
    expectEqual(agent.getAutoMapState(&session), 0, "the result of GetAutoMapState");
    expectEqual(session.mapLen, 0, "the length of the map of a device that is not tracked");
    env.write(0, 0, 20);
    env.sync(0);
    Image image;
    expectEqual(agent.readWhole(&image), 0, "the result of reading");
    expectFrozen(image, env, 0, test::fullBitmap(env.blocks(0)));
    agent.close();
    chain.takeFull(); // the key does not matter now
    expectNoLostWrites(env, 0);
}

void twoPartitions(Environment &env)
{
    Chain first(env, 0);
    Chain second(env, 1);
    first.takeFull();
    second.takeFull();
    env.write(1, 1, 1);
    Chain::Point point = first.takeIncremental([&](test::Agent &) {
        env.write(0, 5, 2);
        env.write(1, 200, 3);
        env.sync(0);
        env.sync(1);
    });
    first.expectChanged(point, {});
    // The close of the first one's backup leaves the queue that both share hooked for the second.
    env.write(1, 300, 1);
    env.sync(1);
    env.write(0, 9, 1);
    env.sync(0);
    second.expectChanged(second.takeIncremental(), {1, 200, 201, 202, 300});
    first.expectChanged(first.takeIncremental(), {5, 6, 9});
    expectNoLostWrites(env, 0);
    expectNoLostWrites(env, 1);
}

// The end of a backup without tracking of its own leaves the queue to the devices that are tracked.
void untrackedBesideTracked(Environment &env)
{
    Chain first(env, 0);
    Chain second(env, 1);
    first.takeFull();
    second.takeFull();
    {
        test::Agent agent;
        expectEqual(agent.noStartAutoMap(), 0, "the result of NoStartAutoMap");
        expectEqual(agent.begin(env.device(2)), 0, "the result of beginning a backup");
        env.write(0, 5, 1);
        env.write(2, 5, 1);
        env.sync(0);
        env.sync(2);
    }
    env.write(0, 6, 1);
    env.write(1, 7, 1);
    env.write(2, 8, 1);
    env.sync(2);
    first.expectChanged(first.takeIncremental(), {5, 6});
    second.expectChanged(second.takeIncremental(), {7});
    expectNoLostWrites(env, 2);
}

void everyDevice(Environment &env, unsigned devices)
{
    for (unsigned i = 0; i < devices; i++) {
        std::uint32_t last = env.places(i) - 1;
        expectEqual(env.blockAt(i, last), env.blocks(i) - 1, "the block of the last place");
        Chain chain(env, i);
        chain.takeFull([&](test::Agent &) {
            for (std::uint32_t place : {0u, 7u, last})
                expectEqual(env.writeThrough(i, place, 1), 0, "the result of a held write");
        });
        env.write(i, 33, 2);
        chain.expectChanged(chain.takeIncremental(), {0, 7, 33, 34, last});
        expectNoLostWrites(env, i);
    }
}

// Each partition has another block size, and begins and ends where the last one left off: neither
// starts nor lengths are multiples of a block.
void partitionsAtAnySector(Environment &env)
{
    expect(env.startSector(0) % 2 != 0, "a partition at an odd sector");
    expect(env.startSector(1) % 2 == 0 && env.startSector(1) % 8 != 0,
           "a partition at an even sector that is no multiple of a block");
    expect(env.sectors(0) % 2 != 0, "partitions of an odd number of sectors");
    everyDevice(env, 3);
}

void wholeDisk(Environment &env)
{
    expectEqual(env.startSector(0), 0u, "the start of a whole disk");
    everyDevice(env, 1);
}

} // namespace

std::vector<Scenario> chainScenarios()
{
    return {
        {"FullAndIncrementalChain", {.mebibytes = 2}, fullAndIncremental},
        {"LostKeyStartsOver", {}, lostKey},
        {"EndOfTracking", {}, endOfTracking},
        {"TwoTrackedPartitionsOneBackedUp", {2, {4096, 1024}, true}, twoPartitions},
        {"UntrackedBackupBesideTwoTracked", {1, {4096, 2048, 1024}, true}, untrackedBesideTracked},
        {"BlockSizesOnPartitionsAtAnySector", {4, {1024, 2048, 4096}, true}, partitionsAtAnySector},
        {"WholeDiskOf1024", {1, {1024}, false}, wholeDisk},
        {"WholeDiskOf2048", {1, {2048}, false}, wholeDisk},
        {"WholeDiskOf4096", {1, {4096}, false}, wholeDisk},
    };
}

} // namespace scenario
