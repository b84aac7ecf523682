// Backups that cannot be whole: the writers must not notice.
#include <algorithm>
#include <set>

#include "chain.h"

namespace scenario
{
namespace
{

constexpr std::uint32_t plenty = 1u << 20;

// The next point is a full one, and a right one.
void expectStartsOver(Environment &env, Chain &chain)
{
    chain.takeFull();
    env.write(0, 1, 1);
    chain.expectChanged(chain.takeIncremental(), {1}); // tracking works again
    expectNoLostWrites(env, 0);
}

void beginOver(test::Agent &agent, Environment &env, const Chain &chain, std::uint32_t cache)
{
    expectEqual(agent.begin(env.device(0), chain.key(), cache), 0, "the result of beginning");
    expectEqual(stateOf(agent), BACKUP_SNAPPED, "the state after SnapShot");
}

void cacheOverflow(Environment &env)
{
    constexpr std::uint32_t limit = 4;
    Chain chain(env, 0);
    chain.takeFull();
    test::Agent agent;
    beginOver(agent, env, chain, limit + env.blocksChangedByThaw());
    for (std::uint32_t i = 0; i < limit; i++)
        expectEqual(env.writeThrough(0, 2 * i, 1), 0, "the result of a write");
    expectEqual(stateOf(agent), BACKUP_SNAPPED, "the state with a full cache");
    expectEqual(env.writeThrough(0, 0, 1), 0, "the result of a write to a saved block");
    expectEqual(stateOf(agent), BACKUP_SNAPPED, "the state after it");
    expectEqual(env.writeThrough(0, 20, 1), 0, "the result of the write too many");
    expectEqual(stateOf(agent), BACKUP_ERR_CACHE, "the state after it");
    expectEqual(env.writeThrough(0, 60, 3), 0, "the result of a write after it");
    expectEqual(agent.loadBlockMap(env.blocks(0)), ZEL_RESULT_INVALID,
                "the result of a command of a spoilt backup");
    expectEqual(trackingOf(agent), AMS_NOT_IN_SYNC, "the state of tracking");
    agent.close();
    expectStartsOver(env, chain);
}

void readErrorWhileSaving(Environment &env)
{
    Chain chain(env, 0);
    chain.takeFull();
    test::Agent agent;
    beginOver(agent, env, chain, plenty);
    env.failReads(0, 31, 1);
    expectEqual(env.writeThrough(0, 30, 1), 0, "the result of a write beside the bad block");
    expectEqual(stateOf(agent), BACKUP_SNAPPED, "the state after it");
    expectEqual(env.writeThrough(0, 31, 2), 0, "the result of a write to the bad block");
    expectEqual(stateOf(agent), BACKUP_ERR_READ, "the state after it");
    expectEqual(env.writeThrough(0, 40, 1), 0, "the result of a write after it");
    expectEqual(trackingOf(agent), AMS_NOT_IN_SYNC, "the state of tracking");
    env.clearReadFailures();
    Image image;
    expectEqual(agent.readWhole(&image), ZEL_RESULT_INVALID,
                "the result of reading from a spoilt backup");
    agent.close();
    expectStartsOver(env, chain);
}

void unreadableBlocks(Environment &env)
{
    std::uint32_t blocks = env.blocks(0);
    std::uint32_t places = env.places(0);
    test::Agent agent;
    expectEqual(agent.begin(env.device(0)), 0, "the result of beginning");
    expectEqual(env.writeThrough(0, 50, 2), 0, "the result of a write");
    env.failReads(0, 5, 2);
    env.failReads(0, 50, 1); // saved already
    env.failReads(0, places - 1, 1);
    const std::set<std::uint32_t> bad = {5, 6, places - 1};

    Image image;
    for (unsigned state : {BACKUP_SNAPPED, BACKUP_MAP_LOADED}) {
        if (state == BACKUP_MAP_LOADED)
            expectEqual(agent.loadBlockMap(blocks), 0, "the result of LoadBlockMap");
        expectEqual(agent.readWhole(&image), ZEL_RESULT_UNREADABLE, "the result of reading");
        expectEqual(stateOf(agent), state, "the state after it");
        expectFrozen(image, env, 0, test::fullBitmap(blocks), true);
        for (std::uint32_t place = 0; place < places; place++) {
            auto at = image.begin() +
                      static_cast<std::ptrdiff_t>(env.blockAt(0, place)) * env.blockSize(0);
            bool zero = std::all_of(at, at + env.blockSize(0), [](auto byte) { return byte == 0; });
            expect(zero == bad.contains(place), "just the unreadable blocks to be zero");
        }
    }
    env.clearReadFailures();
    agent.close();
    expectNoLostWrites(env, 0);
}

} // namespace

std::vector<Scenario> spoiltScenarios()
{
    return {
        {"CacheOverflow", {}, cacheOverflow},
        {"ReadErrorWhileSaving", {}, readErrorWhileSaving},
        {"UnreadableBlocks", {}, unreadableBlocks},
    };
}

} // namespace scenario
