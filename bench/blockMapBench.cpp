/* What a block map's operations cost. */
#include <stdexcept>

#include "subjects.h"
#include "zellib.h"

namespace bench
{
namespace
{

constexpr unsigned blocks = 1u << 20; // 4 GiB of 4 KiB blocks
constexpr unsigned operationsPerRun = 1u << 14;
// Odd, so that multiples of it come to every block, and far from the one before.
constexpr unsigned stride = 0x9e3779b1u;

// A map of all blocks, all clear.
class Map
{
public:
    Map()
    {
        unsigned pages;
        if (newBlockMap(&map_, blocks, nullptr, 1, &pages) != 0)
            throw std::runtime_error("no memory for a block map");
    }
    ~Map()
    {
        unsigned pages;
        closeBlockMap(&map_, &pages);
    }
    Map(const Map &) = delete;
    Map &operator=(const Map &) = delete;
    BlockMap *get() { return &map_; }

private:
    BlockMap map_{};
};

void operate(benchmark::State &state, int (*operation)(BlockMap *, unsigned int))
{
    Map map;
    unsigned block = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(operation(map.get(), block % blocks));
        block += stride;
    }
}

void makeAndRelease(benchmark::State &state)
{
    for (auto _ : state)
        Map map;
}

} // namespace

void registerBlockMap()
{
    struct Operation {
        const char *name;
        int (*function)(BlockMap *, unsigned int);
    };
    for (auto [name, function] : {Operation{"map/set", setBlock}, Operation{"map/test", blockInMap},
                                  Operation{"map/clear", unSetBlock}})
        add(name, [function](benchmark::State &state) {
            operate(state, function);
        })->Iterations(operationsPerRun);
    add("map/create", makeAndRelease)->Iterations(16);
}

} // namespace bench
