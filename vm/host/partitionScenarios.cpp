#include "partitionScenarios.h"

#include <fcntl.h>
#include <linux/fs.h>

#include "scenario/chain.h"
#include "scenario/storm.h"

namespace vm
{
namespace
{

using scenario::expect;
using scenario::expectEqual;

// The kernel writes the file system out before it refuses, with the disk's mutex held.
void askToReadAgain(Environment &env, scenario::Storm &storm)
{
    constexpr unsigned times = 20;
    Worker worker(env.guest());
    int disk = worker.open(env.node(0), O_RDONLY);
    expect(disk >= 0, "an open disk");
    for (unsigned i = 0; i < times; i++) {
        storm.awaitWrites(1);
        // EBUSY, or what 2.6.30 says when it finds inodes in use: 1.
        expect(worker.control(disk, BLKRRPART) != 0,
               "the partitions of a mounted disk not to be read again");
    }
}

void readAgainWhileMounted(Environment &env)
{
    constexpr unsigned writers = 2;
    expectEqual(env.load(), 0, "the result of loading");
    {
        scenario::Storm storm(env, writers);
        test::Agent agent;
        expectEqual(agent.begin(env.device(0)), 0, "the result of beginning a backup");
        askToReadAgain(env, storm);
        expectEqual(agent.close(), 0, "the result of close");
        askToReadAgain(env, storm);
        storm.end();
    }
    scenario::expectNoLostWrites(env, 0);
    expectEqual(env.unload(), 0, "the result of unloading");
}

} // namespace

std::vector<GuestScenario> partitionScenarios()
{
    return {
        {"PartitionsOfATrackedDiskReadAgain", {1, {1024}, false}, readAgainWhileMounted},
    };
}

} // namespace vm
