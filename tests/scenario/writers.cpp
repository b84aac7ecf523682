// Writers against a backup: storms, and bios of several blocks.
#include "chain.h"
#include "storm.h"

namespace scenario
{
namespace
{

void stormWithCloseInTheMiddle(Environment &env)
{
    std::uint32_t blocks = env.blocks(0);
    Storm storm(env, 3);
    for (unsigned round = 0; round < 4; round++) {
        test::Agent agent;
        agent.noLoadFromAutoMap();
        expectEqual(agent.begin(env.device(0)), 0, "the result of beginning");
        if (round % 2 != 0)
            expectEqual(agent.loadBlockMap(blocks), 0, "the result of LoadBlockMap");
        test::Bitmap half = test::emptyBitmap(blocks);
        for (std::uint32_t block = 0; block < blocks / 2; block++)
            test::setBit(half, block);
        Image image(std::size_t{blocks} * env.blockSize(0));
        expectEqual(agent.readInto(image, half), 0, "the result of reading");
        expectFrozen(image, env, 0, half);
        expectEqual(agent.close(), 0, "the result of close");
        storm.awaitWrites(5); // they go on
    }
    Chain chain(env, 0);
    chain.takeFull();
    for (unsigned round = 0; round < 3; round++) {
        storm.awaitWrites(10);
        chain.takeIncremental();
    }
    storm.end();
    chain.takeIncremental();
    expectNoLostWrites(env, 0);
}

// The blocks that wait in the cache, one after the other; `agent` has loaded a map.
std::vector<std::uint32_t> drainCache(test::Agent &agent, Image &image)
{
    std::vector<std::uint32_t> found;
    for (;;) {
        std::uint32_t block = 0;
        expectEqual(agent.getDirtyBlock(&block), 0, "the result of GetDirtyBlock");
        if (block == 0xffffffff)
            return found;
        test::Bitmap wanted = test::emptyBitmap(agent.blocks());
        test::setBit(wanted, block);
        expectEqual(agent.readInto(image, wanted), 0, "the result of reading a cached block");
        found.push_back(block);
    }
}

// One bio over blocks that have to be saved and blocks that have not: just the former are.
void bioOverHeldAndFreeBlocks(Environment &env)
{
    test::Agent agent;
    expectEqual(agent.begin(env.device(0)), 0, "the result of beginning");
    test::Bitmap wanted = bitmapOf(env, 0, {20, 22, 25});
    expectEqual(agent.loadBlockMap(wanted, env.blocks(0)), 0, "the result of LoadBlockMap");

    Image image(std::size_t{env.blocks(0)} * env.blockSize(0));
    expectEqual(env.writeThrough(0, 26, 4), 0, "the result of a write to unwanted blocks");
    expectEqual(drainCache(agent, image).size(), 0u, "the number of blocks saved for it");
    expectEqual(env.writeThrough(0, 19, 5), 0, "the result of a write to 19 to 23");
    expectEqual(env.writeThrough(0, 21, 4), 0, "the result of a write to 21 to 24");
    std::vector<std::uint32_t> saved = drainCache(agent, image);
    expectEqual(saved.size(), 2u, "the number of blocks saved for both");
    for (std::uint32_t block : saved)
        expect(block == env.blockAt(0, 20) || block == env.blockAt(0, 22),
               "the wanted blocks to be saved");
    // They were delivered: free from now on, and 25 is held still.
    expectEqual(env.writeThrough(0, 19, 8), 0, "the result of a write over all");
    expect(drainCache(agent, image) == std::vector<std::uint32_t>{env.blockAt(0, 25)},
           "just 25 to be saved");
    expectFrozen(image, env, 0, wanted);
    agent.close();
    expectNoLostWrites(env, 0);
}

} // namespace

std::vector<Scenario> writerScenarios()
{
    return {
        {"WriteStormWithCloseInTheMiddle", {}, stormWithCloseInTheMiddle},
        {"BioOverHeldAndFreeBlocks", {}, bioOverHeldAndFreeBlocks},
        {"BioOverHeldAndFreeBlocksOf1024", {1, {1024}, true}, bioOverHeldAndFreeBlocks},
    };
}

} // namespace scenario
