// Writers against a backup: storms, and bios of several blocks.
#include <atomic>
#include <random>

#include "chain.h"

namespace scenario
{
namespace
{

// Tasks that write here and there for as long as this lives.
class Storm
{
public:
    Storm(Environment &env, unsigned writers)
    {
        for (unsigned i = 0; i < writers; i++)
            tasks_.push_back(env.start([this, &env, i] { blow(env, i); }));
    }
    ~Storm() { stop_ = true; }
    Storm(const Storm &) = delete;
    Storm &operator=(const Storm &) = delete;

    unsigned writes() const { return writes_; }
    void end()
    {
        stop_ = true;
        for (auto &task : tasks_)
            task->join();
    }

private:
    void blow(Environment &env, unsigned seed)
    {
        std::mt19937 random(seed);
        while (!stop_) {
            auto first = static_cast<std::uint32_t>(random() % (env.places(0) - 8));
            env.write(0, first, static_cast<std::uint32_t>(1 + random() % 8));
            if (random() % 4 == 0)
                env.sync(0);
            writes_++;
            env.pause(200);
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<unsigned> writes_{0};
    std::vector<std::unique_ptr<Environment::Background>> tasks_; // waited for first
};

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
        unsigned before = storm.writes();
        expectEqual(agent.close(), 0, "the result of close");
        while (storm.writes() < before + 5) // they go on
            env.pause(100);
    }
    Chain chain(env, 0);
    chain.takeFull();
    unsigned before = storm.writes();
    for (unsigned round = 0; round < 3; round++) {
        while (storm.writes() < before + 10 * (round + 1))
            env.pause(100);
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
