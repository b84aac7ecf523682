// Several readers of one backup.
#include <algorithm>
#include <cstring>

#include "chain.h"

namespace scenario
{
namespace
{

// Reads every second run of blocks, the first or the others, through a mapping of its own.
void readRuns(test::Agent &reader, Image &image, unsigned which)
{
    constexpr std::uint32_t run = 8;
    std::size_t size = reader.blockSize();
    std::uint32_t buffer = 0;
    expectEqual(reader.mapBuffer(run * size, &buffer), 0, "the result of mmap");
    for (std::uint32_t first = which * run; first < reader.blocks(); first += 2 * run) {
        std::uint32_t count = std::min(run, reader.blocks() - first);
        expectEqual(reader.readBlocks(first, count, buffer), 0, "the result of ReadBlocks");
        const unsigned char *bytes = reader.buffer(buffer, count * size);
        expect(bytes != nullptr, "the buffer to be readable");
        std::memcpy(image.data() + first * size, bytes, count * size);
    }
    expectEqual(reader.unmapBuffer(buffer), 0, "the result of munmap");
}

// A process and its child share the open file; each has a mapping, and both read at a time.
void twoProcesses(Environment &env)
{
    test::Agent parent("parent");
    expectEqual(parent.begin(env.device(0)), 0, "the result of beginning");
    expectEqual(parent.loadBlockMap(env.blocks(0)), 0, "the result of LoadBlockMap");
    Image image(std::size_t{env.blocks(0)} * env.blockSize(0));
    {
        test::Agent child(parent, "child");
        expect(child.opened(), "the child to have the file");
        auto writer = env.start([&] {
            for (std::uint32_t place = 0; place + 5 < env.places(0); place += 9) {
                env.write(0, place, 5);
                env.sync(0);
            }
        });
        auto reader = env.start([&] { readRuns(child, image, 1); });
        readRuns(parent, image, 0);
        reader->join();
        writer->join();
    }
    // The child's end is not the file's.
    expectEqual(stateOf(parent), BACKUP_MAP_LOADED, "the state after the child's exit");
    expectFrozen(image, env, 0, test::fullBitmap(env.blocks(0)));

    std::uint32_t buffers[3] = {};
    expectEqual(parent.mapBuffer(4096, &buffers[0]), 0, "the result of the first mmap");
    expectEqual(parent.mapBuffer(4096, &buffers[1]), 0, "the result of the second mmap");
    expectEqual(parent.mapBuffer(4096, &buffers[2]), ZEL_RESULT_INVALID, "that of a third");
    expectNoLostWrites(env, 0);
}

} // namespace

std::vector<Scenario> readerScenarios()
{
    return {
        {"TwoProcessesTwoMappings", {}, twoProcesses},
        {"TwoProcessesTwoMappingsOf1024", {1, {1024}, true}, twoProcesses},
    };
}

} // namespace scenario
