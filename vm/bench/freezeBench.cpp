#include "subjects.h"

#include <algorithm>
#include <cstdio>

#include <fcntl.h>

namespace vm
{
namespace
{

constexpr std::uint32_t dirtyBytes = 256 << 10;

// One file system that is frozen again and again; its changes are tracked in between.
class Frozen
{
public:
    Frozen(Machine &machine, Machine::Volume volume, const char *name)
        : machine_(machine), volume_(volume), name_(name)
    {
        file_ = machine.worker().open(machine.folder(volume) + "/data", O_RDWR | O_CREAT);
        require(std::min(file_, 0), "making a file");
        freeze();
        toFreeze_.clear();
        frozen_.clear();
    }
    ~Frozen() { machine_.worker().close(file_); }

    void freeze()
    {
        // The freeze writes out what is dirty: as much each time.
        require(
            machine_.worker().writeAt(file_, 0, std::vector<unsigned char>(dirtyBytes, 'd'), false),
            "writing to a file");
        {
            test::Agent agent("agent");
            require(agent.begin(machine_.device(volume_), key_), "a backup's begin");
            State state{};
            require(agent.getState(&state), "the backup's state");
            if (state.state != BACKUP_SNAPPED)
                throw std::runtime_error("no snapshot was taken");
            AutoMapState session{};
            require(agent.getAutoMapState(&session), "the session's state");
            key_ = session.amsKey;
            blocks_ = agent.blocks();
        }
        toFreeze_.push_back(machine_.logged("time to freeze in seconds: ") * 1e3);
        frozen_.push_back(machine_.logged("time frozen in seconds: ") * 1e3);
    }

    const Samples &frozen() const { return frozen_; }
    void report() const
    {
        std::printf("%-34s %-24s %-24s %10u\n", name_, withSpread(toFreeze_, 1).c_str(),
                    withSpread(frozen_, 1).c_str(), blocks_);
    }

private:
    Machine &machine_;
    const Machine::Volume volume_;
    const char *const name_;
    int file_;
    AMSessionKey key_{};
    std::uint32_t blocks_ = 0;
    Samples toFreeze_; // milliseconds
    Samples frozen_;
};

} // namespace

FreezeTimes measureFreezes(Machine &machine, unsigned rounds)
{
    machine.load();
    FreezeTimes times;
    {
        Frozen small(machine, Machine::small, "1 GiB");
        Frozen large(machine, Machine::large, "64 GiB");
        for (unsigned i = 0; i < rounds; i++) {
            small.freeze();
            large.freeze();
        }
        std::printf("\nFreezes, as the module logs them: milliseconds, in whole ticks of %.0f ms\n",
                    machine.tick());
        std::printf("%-34s %-24s %-24s %10s\n", "", "until frozen", "until thawed", "blocks");
        small.report();
        large.report();
        times = {small.frozen(), large.frozen(), machine.tick()};
    }
    machine.unload();
    return times;
}

} // namespace vm
