// Unloading with tracking sessions, and with files open.
#include "chain.h"

namespace scenario
{
namespace
{

constexpr int busy = -16; // EBUSY

void sessionsOpen(Environment &env)
{
    Chain first(env, 0);
    Chain second(env, 1);
    first.takeFull();
    second.takeFull();
    env.write(0, 1, 1);
    env.write(1, 2, 1); // dirty during the unload
    env.sync(0);
    expectEqual(env.unload(), 0, "the result of unloading");
    env.write(0, 3, 1);
    expectNoLostWrites(env, 0);
    expectNoLostWrites(env, 1);
    expectEqual(env.load(), 0, "the result of loading");
    // What changed meanwhile nobody knows.
    first.takeFull();
    second.takeFull();
    env.write(1, 4, 1);
    second.expectChanged(second.takeIncremental(), {4}); // tracking has begun again
}

void filesOpen(Environment &env)
{
    auto idle = std::make_unique<test::Agent>("idle");
    expectEqual(env.unload(), busy, "the result of unloading with an idle file");
    idle.reset();

    Chain chain(env, 0);
    chain.takeFull([&](test::Agent &) {
        expectEqual(env.writeThrough(0, 7, 1), 0, "the result of a write");
        expectEqual(env.unload(), busy, "the result of unloading in the middle of a backup");
        expectEqual(env.writeThrough(0, 8, 1), 0, "the result of a write after it");
    });

    test::Agent agent;
    expectEqual(agent.begin(env.device(0), chain.key()), 0, "the result of beginning");
    std::uint32_t buffer = 0;
    expectEqual(agent.mapBuffer(65536, &buffer), 0, "the result of mmap");
    expectEqual(agent.close(), 0, "the result of close");
    expectEqual(env.unload(), busy, "the result of unloading with a mapped buffer");
    expectEqual(agent.unmapBuffer(buffer), 0, "the result of munmap");
    expectEqual(env.unload(), 0, "the result of unloading after the last file");
    expectEqual(env.load(), 0, "the result of loading");
    expectNoLostWrites(env, 0);
}

} // namespace

std::vector<Scenario> unloadScenarios()
{
    return {
        {"UnloadWithSessionsOpen", {1, {4096, 2048}, true}, sessionsOpen},
        {"UnloadWithFilesOpen", {}, filesOpen},
    };
}

} // namespace scenario
