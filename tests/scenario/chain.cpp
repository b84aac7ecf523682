#include "chain.h"

#include <algorithm>

namespace scenario
{

unsigned stateOf(test::Agent &agent)
{
    State state{};
    expectEqual(agent.getState(&state), 0, "the result of GetState");
    return state.state;
}

unsigned trackingOf(test::Agent &agent)
{
    AutoMapState session{};
    expectEqual(agent.getAutoMapState(&session), 0, "the result of GetAutoMapState");
    return session.state;
}

test::Bitmap bitmapOf(const Environment &env, unsigned device,
                      std::initializer_list<std::uint32_t> places)
{
    test::Bitmap map = test::emptyBitmap(env.blocks(device));
    for (std::uint32_t place : places)
        test::setBit(map, env.blockAt(device, place));
    return map;
}

void expectFrozen(const Image &image, const Environment &env, unsigned device,
                  const test::Bitmap &wanted, bool mayBeZero)
{
    const Image &frozen = env.frozen(device);
    expectEqual(image.size(), frozen.size(), "the size of the image");
    auto size = static_cast<std::ptrdiff_t>(env.blockSize(device));
    for (std::uint32_t block = 0; block < env.blocks(device); block++) {
        if (!test::testBit(wanted, block))
            continue;
        auto at = image.begin() + block * size;
        bool zero = std::all_of(at, at + size, [](unsigned char byte) { return byte == 0; });
        expect((zero && mayBeZero) || std::equal(at, at + size, frozen.begin() + block * size),
               "block " + std::to_string(block) + " of the image to be as at the freeze");
    }
}

void expectNoLostWrites(Environment &env, unsigned device)
{
    std::string lost = env.lostWrites(device);
    if (!lost.empty())
        throw Failure(lost);
}

bool Chain::begin(test::Agent &agent, bool afresh)
{
    expect(agent.opened(), "the control device to open");
    if (afresh)
        expectEqual(agent.noLoadFromAutoMap(), 0, "the result of NoLoadFromAutoMap");
    expectEqual(agent.begin(env_.device(device_), key_), 0, "the result of beginning a backup");
    expectEqual(agent.blockSize(), env_.blockSize(device_), "the block size");
    expectEqual(agent.blocks(), env_.blocks(device_), "the number of blocks");
    unsigned state = stateOf(agent);
    if (state == BACKUP_STARTED && !afresh)
        return false;
    expectEqual(state, BACKUP_SNAPPED, "the state after SnapShot");
    return true;
}

Chain::Point Chain::take(const std::function<void(test::Agent &)> &meanwhile)
{
    test::Agent agent;
    if (!begin(agent, false)) {
        agent.close();
        agent.open();
        begin(agent, true);
    }
    AutoMapState session{};
    expectEqual(agent.getAutoMapState(&session), 0, "the result of GetAutoMapState");
    expectEqual(session.state, AMS_IN_SYNC, "the state of tracking");
    expectEqual(session.mapLen, agent.blocks(), "the length of the map");

    Point point;
    int result = agent.getAutoMap(&point.changed, agent.blocks());
    point.incremental = result == 0;
    if (point.incremental) {
        expect(!image_.empty(), "no map of changes before the first point");
        expectEqual(agent.loadBlockMap(point.changed, agent.blocks()), 0,
                    "the result of LoadBlockMap");
    } else {
        expectEqual(result, ZEL_RESULT_INVALID, "the result of GetAutoMap");
        point.changed = test::fullBitmap(agent.blocks());
        image_.assign(std::size_t{agent.blocks()} * agent.blockSize(), 0);
        expectEqual(agent.loadBlockMap(agent.blocks()), 0, "the result of LoadBlockMap");
    }
    if (meanwhile)
        meanwhile(agent);
    expectEqual(agent.readInto(image_, point.changed), 0, "the result of reading");
    expectEqual(stateOf(agent), BACKUP_MAP_LOADED, "the state after reading");
    expectEqual(agent.close(), 0, "the result of close");
    key_ = session.amsKey;
    expectFrozen(image_, env_, device_, test::fullBitmap(env_.blocks(device_)));
    return point;
}

void Chain::expectChanged(const Point &point, const std::vector<std::uint32_t> &written) const
{
    test::Bitmap expected = env_.changedByFileSystem(device_);
    for (std::uint32_t place : written)
        test::setBit(expected, env_.blockAt(device_, place));
    for (std::uint32_t block = 0; block < env_.blocks(device_); block++)
        expect(test::testBit(point.changed, block) == test::testBit(expected, block),
               "the map to have the written blocks and no others; block " + std::to_string(block) +
                   " is wrong");
}

Chain::Point Chain::takeFull(const std::function<void(test::Agent &)> &meanwhile)
{
    Point point = take(meanwhile);
    expect(!point.incremental, "a full backup");
    return point;
}

Chain::Point Chain::takeIncremental(const std::function<void(test::Agent &)> &meanwhile)
{
    Point point = take(meanwhile);
    expect(point.incremental, "an incremental backup");
    return point;
}

} // namespace scenario
